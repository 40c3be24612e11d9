// tests/unit/snap/cowbmp_test.cpp: the bitmap of preserved chunks and its file
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/cowbmp.h"
#include "tests/support/snap_world.h"

using namespace snap_world;

namespace {

constexpr const char *kFile = "/cow/bits";

struct Bitmap {
    trak_cowbmp bmp{};
    ~Bitmap() { trak_cowbmp_destroy(&bmp); }
    int init(std::uint64_t chunks) { return trak_cowbmp_init(&bmp, chunks); }
    int test(std::uint32_t chunk) { return trak_cowbmp_test_bit(&bmp, chunk); }
    int set(std::int32_t chunk, trak_file *file = nullptr) {
        return trak_cowbmp_set_bit(&bmp, chunk, OS_GFP_NOIO, file);
    }
    int load(const char *path) {
        const int rc = trak_cowbmp_init(&bmp, 1);
        return rc != 0 ? rc : trak_cowbmp_load(&bmp, path);
    }
};

trak_file *create(const char *path) {
    return trak_fopen(path, OS_O_RDWR | OS_O_CREAT | OS_O_TRUNC | OS_O_LARGEFILE, 0600);
}

void with_machine(const std::function<void(Machine &)> &fn, int debug = 2) {
    Machine machine;
    prepare(machine);
    boot(
        machine, [&] { fn(machine); }, debug);
}

const char *const kTestUninitialised = "trak_cowbmp_test_bit(): Uninitialized COW bitmap.";
const char *const kSetUninitialised = "trak_cowbmp_set_bit(): Uninitialized COW bitmap.";

}  // namespace

TEST(cowbmp, new_one_answers_0_for_every_chunk_and_holds_no_page) {
    with_machine([](Machine &) {
        Bitmap b;
        ASSERT_EQ(b.init(100000), 0);
        EXPECT_TRUE(logged(2, "trak_cowbmp_init(): Allocating COW bitmap for 100000 chunks"));
        EXPECT_EQ(b.bmp.page_cnt, 4);
        for (std::uint32_t c = 0; c < 100000; c += 77)
            EXPECT_EQ(b.test(c), 0);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(b.bmp.pages[i], nullptr);
    });
}

TEST(cowbmp, first_bit_of_a_page_makes_that_page_alone_and_writes_its_byte) {
    with_machine([](Machine &machine) {
        Bitmap b;
        ASSERT_EQ(b.init(65536), 0);
        trak_file *file = create(kFile);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(b.set(32768, file), 0);
        EXPECT_EQ(b.bmp.pages[0], nullptr);
        ASSERT_NE(b.bmp.pages[1], nullptr);
        EXPECT_EQ(b.test(32768), 1);
        EXPECT_EQ(b.test(32769), 0);
        EXPECT_EQ(b.set(32770, file), 0);
        const Bytes bytes = machine.storage.read_file(kFile);
        ASSERT_EQ(bytes.size(), 4097u);
        EXPECT_EQ(bytes[4096], 5);
        trak_fclose(file);
    });
}

TEST(cowbmp, count_of_a_range_is_what_single_tests_say) {
    with_machine([](Machine &) {
        Bitmap b;
        ASSERT_EQ(b.init(70000), 0);
        EXPECT_EQ(trak_cowbmp_count_set(&b.bmp, 0, 69999), 0);
        const std::int32_t set[] = {0, 7, 8, 32766, 32767, 32768, 69999};
        for (const std::int32_t chunk : set)
            ASSERT_EQ(b.set(chunk), 0);
        for (const std::uint64_t first : {0, 7, 9, 32767, 32768, 65536}) {
            for (const std::uint64_t length : {1, 2, 400, 4000}) {
                std::int64_t expected = 0;
                for (std::uint64_t c = first; c < first + length; ++c)
                    expected += b.test(static_cast<std::uint32_t>(c));
                EXPECT_EQ(trak_cowbmp_count_set(&b.bmp, first, first + length - 1), expected);
            }
        }
        EXPECT_EQ(trak_cowbmp_count_set(&b.bmp, 0, 69999), 7);
        trak_cowbmp_destroy(&b.bmp);
        EXPECT_EQ(trak_cowbmp_count_set(&b.bmp, 0, 9), -EINVAL);
        EXPECT_TRUE(logged_error(kTestUninitialised));
    });
}

TEST(cowbmp, bit_that_was_set_is_not_written_again) {
    with_machine([](Machine &machine) {
        Bitmap b;
        ASSERT_EQ(b.init(64), 0);
        trak_file *file = create(kFile);
        ASSERT_EQ(b.set(3, file), 0);
        const std::uint64_t writes = sim::fault_points(sim::Fault::kWrite);
        EXPECT_EQ(b.set(3, file), 0);
        EXPECT_EQ(sim::fault_points(sim::Fault::kWrite), writes);
        EXPECT_EQ(machine.storage.read_file(kFile), Bytes{8});
        trak_fclose(file);
    });
}

TEST(cowbmp, bit_without_a_file_is_set_in_memory_alone) {
    with_machine([](Machine &) {
        Bitmap b;
        ASSERT_EQ(b.init(64), 0);
        EXPECT_EQ(b.set(9), 0);
        EXPECT_EQ(b.test(9), 1);
        EXPECT_EQ(sim::fault_points(sim::Fault::kWrite), 0u);
    });
}

TEST(cowbmp, two_who_set_bits_of_one_missing_page_leave_one_page_with_both) {
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [] {
                Bitmap b;
                ASSERT_EQ(b.init(64), 0);
                sim::Process *one = sim::spawn("one", [&] { EXPECT_EQ(b.set(1), 0); });
                sim::Process *two = sim::spawn("two", [&] { EXPECT_EQ(b.set(2), 0); });
                sim::join(one);
                sim::join(two);
                EXPECT_EQ(b.test(1), 1);
                EXPECT_EQ(b.test(2), 1);
                EXPECT_EQ(b.bmp.pages[0][0], 6);
            },
            1, options);
    }
}

TEST(cowbmp, file_of_5_bytes_loads_as_40_chunks) {
    with_machine([](Machine &machine) {
        machine.storage.write_file(kFile, Bytes{0, 0x80, 0, 0, 1});
        Bitmap b;
        ASSERT_EQ(b.load(kFile), 0);
        EXPECT_TRUE(logged(2, "trak_cowbmp_load(): Loading COW bitmap from /cow/bits"));
        EXPECT_EQ(b.bmp.chunk_cnt, 40u);
        for (std::uint32_t c = 0; c < 40; ++c)
            EXPECT_EQ(b.test(c), c == 15 || c == 32 ? 1 : 0) << c;
    });
}

TEST(cowbmp, page_of_zeroes_in_the_file_stays_absent) {
    with_machine([](Machine &machine) {
        Bytes bytes(4096 + 100);
        bytes[4096 + 99] = 0x10;
        machine.storage.write_file(kFile, bytes);
        Bitmap b;
        ASSERT_EQ(b.load(kFile), 0);
        EXPECT_EQ(b.bmp.page_cnt, 2);
        EXPECT_EQ(b.bmp.pages[0], nullptr);
        ASSERT_NE(b.bmp.pages[1], nullptr);
        EXPECT_EQ(b.test((4096 + 99) * 8 + 4), 1);
        EXPECT_EQ(b.test((4096 + 99) * 8 + 5), 0);
        EXPECT_EQ(b.test((4096 + 100) * 8), 0);
    });
}

TEST(cowbmp, load_of_a_missing_file_leaves_it_uninitialised) {
    with_machine([](Machine &) {
        Bitmap b;
        ASSERT_EQ(b.init(64), 0);
        ASSERT_EQ(b.set(1), 0);
        EXPECT_EQ(trak_cowbmp_load(&b.bmp, "/cow/none"), -EIO);
        EXPECT_EQ(b.test(1), -EINVAL);
        EXPECT_TRUE(logged_error(kTestUninitialised));
        EXPECT_EQ(b.set(1), -EINVAL);
        EXPECT_TRUE(logged_error(kSetUninitialised));
        EXPECT_EQ(trak_cowbmp_test_bit(nullptr, 0), -EINVAL);
        EXPECT_EQ(trak_cowbmp_set_bit(nullptr, 0, OS_GFP_NOIO, nullptr), -EINVAL);
        EXPECT_EQ(trak_cowbmp_destroy(nullptr), 0);
    });
}

TEST(cowbmp, load_that_can_not_read_leaves_it_uninitialised) {
    with_machine([](Machine &machine) {
        machine.storage.write_file(kFile, Bytes(5000, 0xff));
        for (std::uint64_t nth = 1; nth <= 2; ++nth) {
            Bitmap b;
            sim::clear_log();
            sim::fail_nth(sim::Fault::kRead, nth);
            EXPECT_EQ(b.load(kFile), -EIO);
            EXPECT_EQ(b.bmp.pages, nullptr);
            EXPECT_TRUE(logged_error("trak_cowbmp_load(): Failed to read " +
                                     std::string(nth == 1 ? "4096" : "904") +
                                     " bytes from /cow/bits: rc=-5"))
                << whole_log();
        }
    });
}

TEST(cowbmp, load_without_memory_leaves_it_uninitialised) {
    with_machine([](Machine &machine) {
        machine.storage.write_file(kFile, Bytes(5000, 0xff));
        int failures = 0;
        for (std::uint64_t nth = 1; nth <= 40; ++nth) {
            Bitmap b;
            ASSERT_EQ(b.init(64), 0);
            sim::fail_nth(sim::Fault::kAlloc, nth);
            const int rc = trak_cowbmp_load(&b.bmp, kFile);
            sim::fail_none();
            if (rc == 0)
                break;
            ++failures;
            EXPECT_TRUE(rc == -ENOMEM || rc == -EIO) << rc;
            EXPECT_EQ(b.bmp.pages, nullptr);
        }
        EXPECT_GE(failures, 3);
        EXPECT_TRUE(logged_error("trak_cowbmp_load(): Memory allocation failed."));
    });
}

TEST(cowbmp, invalid_parameters_are_refused) {
    with_machine([](Machine &) {
        Bitmap b;
        EXPECT_EQ(trak_cowbmp_load(nullptr, kFile), -EINVAL);
        EXPECT_EQ(trak_cowbmp_load(&b.bmp, nullptr), -EINVAL);
        EXPECT_EQ(trak_cowbmp_load(&b.bmp, ""), -EINVAL);
        EXPECT_EQ(count_messages(255, "trak_cowbmp_load(): Internal error: invalid params."), 3u);
        EXPECT_EQ(trak_cowbmp_save(&b.bmp, kFile), -EINVAL);
        ASSERT_EQ(b.init(64), 0);
        EXPECT_EQ(trak_cowbmp_save(&b.bmp, nullptr), -EINVAL);
        EXPECT_EQ(trak_cowbmp_save(&b.bmp, ""), -EINVAL);
        EXPECT_EQ(trak_cowbmp_save(nullptr, kFile), -EINVAL);
        EXPECT_EQ(count_messages(255, "trak_cowbmp_save(): Internal error: invalid params."), 4u);
    });
}

TEST(cowbmp, saved_file_has_a_bit_for_every_chunk_and_loads_as_it_was) {
    with_machine([](Machine &machine) {
        Bitmap b, again;
        ASSERT_EQ(b.init(3 * 32768 + 11), 0);
        for (const std::int32_t c : {0, 5, 32767, 65536, 65544, 98313})
            ASSERT_EQ(b.set(c), 0);
        ASSERT_EQ(trak_cowbmp_save(&b.bmp, kFile), 0);
        EXPECT_TRUE(logged(2, "trak_cowbmp_save(): Saving COW bitmap into /cow/bits"));
        const Bytes bytes = machine.storage.read_file(kFile);
        EXPECT_EQ(bytes.size(), 3u * 4096 + 2);
        ASSERT_EQ(again.load(kFile), 0);
        EXPECT_EQ(again.bmp.pages[1], nullptr);
        for (std::uint32_t c = 0; c < 3 * 32768 + 11; ++c)
            ASSERT_EQ(again.test(c), b.test(c)) << c;
    });
}

TEST(cowbmp, save_that_fails_says_so) {
    with_machine([](Machine &machine) {
        Bitmap b;
        ASSERT_EQ(b.init(64), 0);
        ASSERT_EQ(b.set(1), 0);
        machine.storage.fail_path("/cow/out", sim::Fault::kWrite, -ENOSPC);
        machine.storage.write_file("/cow/out", Bytes{});
        EXPECT_EQ(trak_cowbmp_save(&b.bmp, "/cow/out"), -EIO);
        EXPECT_TRUE(
            logged_error("trak_cowbmp_save(): Failed to write 8 bytes into /cow/out: rc=-28"))
            << whole_log();
        EXPECT_EQ(trak_cowbmp_save(&b.bmp, "/none/out"), -EIO);
    });
}

TEST(cowbmp, failed_write_of_a_byte_leaves_the_bit_set_in_memory) {
    with_machine([](Machine &) {
        Bitmap b;
        ASSERT_EQ(b.init(64), 0);
        trak_file *file = create(kFile);
        for (const std::int32_t chunk : {1, 2}) {  // into a new page and into one that is there
            sim::fail_nth(sim::Fault::kWrite, 1);
            EXPECT_EQ(b.set(chunk, file), -EIO);
            EXPECT_EQ(b.test(static_cast<std::uint32_t>(chunk)), 1);
        }
        EXPECT_EQ(
            count_messages(255, "trak_cowbmp_set_bit(): Failed to update changed byte in file."),
            2u);
        trak_fclose(file);
    });
}

TEST(cowbmp, no_memory_for_the_array_or_for_a_page_is_reported) {
    with_machine([](Machine &) {
        Bitmap b;
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(b.init(64), -ENOMEM);
        EXPECT_EQ(b.bmp.pages, nullptr);
        EXPECT_TRUE(logged_error("trak_cowbmp_init(): Memory allocation failed."));
        ASSERT_EQ(b.init(64), 0);
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(b.set(1), -ENOMEM);
        EXPECT_TRUE(logged_error("trak_cowbmp_set_bit(): Memory allocation failed."));
        EXPECT_EQ(b.test(1), 0);
    });
}

TEST(cowbmp, chunk_beyond_a_short_file_is_clear_and_can_not_be_set) {
    with_machine([](Machine &machine) {
        machine.storage.write_file(kFile, Bytes{});
        Bitmap b;
        ASSERT_EQ(b.load(kFile), 0);
        EXPECT_EQ(b.test(0), 0);
        EXPECT_EQ(b.test(0xffffffff), 0);
        EXPECT_EQ(b.set(0), -EINVAL);
        EXPECT_EQ(b.set(-1), -EINVAL);
    });
}
