// tests/unit/block/bitmap_commands_test.cpp: the seven commands on change bitmaps
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/bitmap_commands.h"

#include "os/sim/seeds.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

constexpr std::size_t kSize = 32;

struct CommandName {
    std::uint32_t code;
    const char *handler;
    const char *action;
    bool takes_data;
};
constexpr CommandName kCommands[] = {
    {TRAK_GET_BMP, "trak_ioctl_get_bmp", "Getting", true},
    {TRAK_GET_AND_CLR_BMP, "trak_ioctl_get_and_clr_bmp", "Getting and clearing", true},
    {TRAK_CLR_BMP, "trak_ioctl_clr_bmp", "Clearing", false},
    {TRAK_SET_BMP, "trak_ioctl_set_bmp", "Setting", true},
    {TRAK_MERGE_BMP, "trak_ioctl_merge_bmp", "Merging", true},
    {TRAK_SAVE_BMP, "trak_ioctl_save_bmp", "Saving", false},
    {TRAK_LOAD_BMP, "trak_ioctl_load_bmp", "Loading", false},
};

int run_command(const CommandName &c, std::uint32_t minor, std::uint32_t type, Bytes &bytes) {
    return c.takes_data ? bmp_data_command(c.code, minor, type, bytes)
                        : bmp_command(c.code, minor, type);
}

Bytes pattern(std::uint8_t seed) {
    Bytes bytes(kSize);
    for (std::size_t i = 0; i < kSize; ++i)
        bytes[i] = static_cast<std::uint8_t>(seed * 31 + i * 7);
    return bytes;
}

void set_bits(std::uint32_t type, Bytes bits) {
    ASSERT_EQ(bmp_data_command(TRAK_SET_BMP, 0, type, bits), 0);
}

// A record with an address and a size that need not belong together.
int raw_data_command(std::uint32_t code, std::uint32_t size, std::uint64_t data) {
    trak_bmp_data_arg arg{0, TRAK_BMP_INCR, size, 0, data};
    return command(code, arg);
}

}  // namespace

TEST(bitmap_commands, every_command_says_what_it_does_at_level_one) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (const CommandName &c : kCommands) {
            for (const std::uint32_t type : {TRAK_BMP_DIFF, TRAK_BMP_INCR}) {
                Bytes bytes(kSize);
                sim::clear_log();
                EXPECT_EQ(run_command(c, 0, type, bytes), 0) << c.handler;
                EXPECT_TRUE(logged(1, std::string(c.handler) + "(): " + c.action + " " +
                                          (type ? "Incremental" : "Differential") +
                                          " bitmap of trak(100, 0)"))
                    << whole_log();
            }
        }
    });
}

TEST(bitmap_commands, types_above_one_are_refused) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        const Bytes incr = incr_bmp(0);
        const Bytes diff = diff_bmp(0);
        for (const CommandName &c : kCommands) {
            Bytes bytes(kSize, 0xaa);
            EXPECT_EQ(run_command(c, 0, 2, bytes), -EINVAL);
            EXPECT_TRUE(logged_error(std::string(c.handler) +
                                     "(): Invalid bitmap type 2 (should be either 1 or 0)"));
            EXPECT_TRUE(logged(1, std::string(c.handler) + "(): " + c.action +
                                      " Unknown bitmap of trak(100, 0)"));
            EXPECT_EQ(run_command(c, 0, 0xffffffff, bytes), -EINVAL);
        }
        EXPECT_EQ(incr_bmp(0), incr);
        EXPECT_EQ(diff_bmp(0), diff);
    });
}

TEST(bitmap_commands, snap_nodes_have_no_change_bitmaps) {
    Machine machine;
    machine.storage.mkdir("/cow");
    machine.storage.mount("/cow", 8u << 20 | 99u);
    boot(machine, [&] {
        make_clean_filter();
        trak_device *dev = node(0);
        dev->dev_type = TRAK_DEV_SNAP;  // only the type is looked at
        for (const CommandName &c : kCommands) {
            Bytes bytes(kSize);
            EXPECT_EQ(run_command(c, 0, 1, bytes), -EINVAL);
            EXPECT_TRUE(
                logged_error(std::string(c.handler) + "(): trak(100, 0) is not a filter device"));
        }
        dev->dev_type = TRAK_DEV_FILTER;
    });
}

TEST(bitmap_commands, sizes_that_differ_are_refused) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (const CommandName &c : kCommands) {
            if (!c.takes_data)
                continue;
            for (const std::size_t size : {kSize - 1, kSize + 1, std::size_t{1}}) {
                Bytes bytes(size, 0xff);
                EXPECT_EQ(bmp_data_command(c.code, 0, 1, bytes), -EINVAL);
                EXPECT_TRUE(logged_error(std::string(c.handler) + "(): Invalid bitmap size " +
                                         std::to_string(size) + ". Should have been 32"));
            }
        }
        EXPECT_EQ(incr_bmp(0), Bytes(kSize, 0));
    });
}

TEST(bitmap_commands, null_data_is_refused) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (const std::uint32_t code : {TRAK_GET_BMP, TRAK_GET_AND_CLR_BMP, TRAK_MERGE_BMP}) {
            sim::clear_log();
            EXPECT_EQ(raw_data_command(code, kSize, 0), -EINVAL);
            EXPECT_EQ(sim::count_log("(): NULL bitmap data pointer passed as input"), 1u);
            // The size comes first.
            EXPECT_EQ(raw_data_command(code, 0, 0), -EINVAL);
            EXPECT_EQ(sim::count_log("(): Invalid bitmap size 0. Should have been 32"), 1u);
        }
    });
}

TEST(bitmap_commands, get_copies_the_bitmap_and_changes_nothing) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        set_bits(0, pattern(2));
        Bytes got(kSize);
        EXPECT_EQ(bmp_data_command(TRAK_GET_BMP, 0, 1, got), 0);
        EXPECT_EQ(got, pattern(1));
        EXPECT_EQ(bmp_data_command(TRAK_GET_BMP, 0, 0, got), 0);
        EXPECT_EQ(got, pattern(2));
        EXPECT_EQ(incr_bmp(0), pattern(1));
        EXPECT_EQ(diff_bmp(0), pattern(2));
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
    });
}

TEST(bitmap_commands, get_and_clear_empties_and_saves_only_its_own_bitmap) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        set_bits(0, pattern(2));
        Bytes got(kSize);
        EXPECT_EQ(bmp_data_command(TRAK_GET_AND_CLR_BMP, 0, 1, got), 0);
        EXPECT_EQ(got, pattern(1));
        EXPECT_EQ(incr_bmp(0), Bytes(kSize, 0));
        EXPECT_EQ(diff_bmp(0), pattern(2));
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(Bytes(kSize, 0)));
        EXPECT_EQ(bmp_data_command(TRAK_GET_AND_CLR_BMP, 0, 0, got), 0);
        EXPECT_EQ(got, pattern(2));
        EXPECT_EQ(diff_bmp(0), Bytes(kSize, 0));
    });
}

TEST(bitmap_commands, get_and_clear_into_memory_that_cannot_be_written_changes_nothing) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        const os_uaddr at = sim::user_alloc(kSize);
        sim::user_protect(at, true, false);
        for (const std::uint32_t code : {TRAK_GET_AND_CLR_BMP, TRAK_GET_BMP}) {
            sim::clear_log();
            EXPECT_EQ(raw_data_command(code, kSize, at), -EFAULT);
            EXPECT_EQ(sim::count_log("(): Failed to copyout the bitmap"), 1u);
            EXPECT_EQ(raw_data_command(code, kSize, 0x1000), -EFAULT);
            EXPECT_EQ(raw_data_command(code, kSize, sim::kUserLimit - 8), -EFAULT);
        }
        EXPECT_EQ(incr_bmp(0), pattern(1));
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(pattern(1)));
        sim::user_protect(at, true, true);
        sim::user_free(at);
    });
}

TEST(bitmap_commands, clear_leaves_the_other_bitmap_alone) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        for (const std::uint32_t type : {1u, 0u}) {
            set_bits(1, pattern(3));
            set_bits(0, pattern(4));
            EXPECT_EQ(bmp_command(TRAK_CLR_BMP, 0, type), 0);
            EXPECT_EQ(incr_bmp(0), type == 1 ? Bytes(kSize, 0) : pattern(3));
            EXPECT_EQ(diff_bmp(0), type == 0 ? Bytes(kSize, 0) : pattern(4));
        }
        EXPECT_EQ(machine.storage.read_file(kDiffFile), bitmap_image(Bytes(kSize, 0)));
    });
}

TEST(bitmap_commands, set_without_data_marks_everything) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        EXPECT_EQ(raw_data_command(TRAK_SET_BMP, 0, 0), 0);
        EXPECT_EQ(incr_bmp(0), all_ones(kSize));
        EXPECT_EQ(diff_bmp(0), Bytes(kSize, 0));
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(all_ones(kSize)));
    });
}

TEST(bitmap_commands, set_with_half_of_a_buffer_is_refused) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        EXPECT_EQ(raw_data_command(TRAK_SET_BMP, 0, 0x1000), -EINVAL);
        EXPECT_EQ(raw_data_command(TRAK_SET_BMP, kSize, 0), -EINVAL);
        EXPECT_EQ(count_messages(255, "trak_ioctl_set_bmp(): bitmap size and bitmap data pointer "
                                      "must either be both NULL or both not-NULL"),
                  2u);
        EXPECT_EQ(incr_bmp(0), Bytes(kSize, 0));
    });
}

TEST(bitmap_commands, set_and_merge_from_unreadable_memory_change_nothing) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(5));
        const os_uaddr at = sim::user_alloc(kSize);
        sim::user_protect(at, false, true);
        for (const std::uint32_t code : {TRAK_SET_BMP, TRAK_MERGE_BMP}) {
            sim::clear_log();
            EXPECT_EQ(raw_data_command(code, kSize, at), -EFAULT);
            EXPECT_EQ(sim::count_log("(): Failed to copyin the bitmap"), 1u);
        }
        EXPECT_EQ(incr_bmp(0), pattern(5));
        EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
        sim::user_protect(at, true, true);
        sim::user_free(at);
    });
}

TEST(bitmap_commands, merge_adds_and_never_clears) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        Bytes other = pattern(9);
        EXPECT_EQ(bmp_data_command(TRAK_MERGE_BMP, 0, 1, other), 0);
        Bytes expected = pattern(1);
        for (std::size_t i = 0; i < kSize; ++i)
            expected[i] |= pattern(9)[i];
        EXPECT_EQ(incr_bmp(0), expected);
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(expected));
        EXPECT_EQ(diff_bmp(0), Bytes(kSize, 0));
    });
}

TEST(bitmap_commands, merge_of_zeroes_changes_nothing_and_saves) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        machine.storage.remove(kIncrFile);
        Bytes zeroes(kSize, 0);
        EXPECT_EQ(bmp_data_command(TRAK_MERGE_BMP, 0, 1, zeroes), 0);
        EXPECT_EQ(incr_bmp(0), pattern(1));
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(pattern(1)));
        // Marked dirty for that: a save that fails leaves it so.
        machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, -ENOSPC);
        EXPECT_EQ(bmp_data_command(TRAK_MERGE_BMP, 0, 1, zeroes), 0);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
        machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, 0);
    });
}

TEST(bitmap_commands, save_and_load_give_their_own_results) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        machine.storage.remove(kIncrFile);
        EXPECT_EQ(bmp_command(TRAK_SAVE_BMP, 0, 1), 0);  // clean, and saved all the same
        EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(pattern(1)));
        machine.storage.write_file(kIncrFile, bitmap_image(pattern(6)));
        EXPECT_EQ(bmp_command(TRAK_LOAD_BMP, 0, 1), 0);
        EXPECT_EQ(incr_bmp(0), pattern(6));
        machine.storage.remove(kIncrFile);
        EXPECT_EQ(bmp_command(TRAK_LOAD_BMP, 0, 1), -EIO);
        machine.storage.fail_path(kIncrFile, sim::Fault::kOpen, -EACCES);
        EXPECT_EQ(bmp_command(TRAK_SAVE_BMP, 0, 1), -EIO);
        machine.storage.fail_path(kIncrFile, sim::Fault::kOpen, 0);
    });
}

TEST(bitmap_commands, buffers_without_memory_are_reported) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        set_bits(1, pattern(1));
        for (const CommandName &c : kCommands) {
            if (!c.takes_data)
                continue;
            Bytes bytes = pattern(8);
            sim::clear_log();
            bool reported = false;
            // The dispatch's record comes first, then the handler's buffer.
            for (std::uint64_t nth = 1; nth <= 2 && !reported; ++nth) {
                sim::fail_nth(sim::Fault::kAlloc, nth);
                const int rc = bmp_data_command(c.code, 0, 1, bytes);
                reported = logged_error(std::string(c.handler) +
                                        "(): Failed to allocate a 32-byte buffer");
                EXPECT_EQ(rc, reported ? -ENOMEM : -EFAULT);
            }
            EXPECT_TRUE(reported) << c.handler;
            EXPECT_EQ(incr_bmp(0), pattern(1));
        }
    });
}

// Whatever fails, the errno is a stated one, and the map keeps every extent that was marked, but for those
// that the caller got (get-and-clear) or asked to lose (clear, set, load).
TEST(bitmap_commands, no_failed_step_loses_a_mark) {
    for (const CommandName &c : kCommands) {
        for (unsigned kind = 0; kind < static_cast<unsigned>(sim::Fault::kCount); ++kind) {
            Machine machine;
            boot(machine, [&] {
                make_clean_filter();
                bool done = false;
                for (std::uint64_t nth = 1; !done; ++nth) {
                    SCOPED_TRACE(testing::Message()
                                 << c.handler << " fault " << kind << " nth " << nth);
                    set_bits(1, pattern(1));
                    Bytes bytes = pattern(7);
                    const std::uint64_t before = sim::fault_points(static_cast<sim::Fault>(kind));
                    sim::fail_nth(static_cast<sim::Fault>(kind), nth);
                    const int rc = run_command(c, 0, 1, bytes);
                    done = sim::fault_points(static_cast<sim::Fault>(kind)) - before < nth;
                    sim::fail_none();
                    EXPECT_TRUE(rc == 0 || rc == -ENOMEM || rc == -EFAULT || rc == -EIO ||
                                rc == -ENODEV)
                        << rc;
                    EXPECT_TRUE(!done || rc == 0) << rc;
                    const Bytes now = incr_bmp(0);
                    const bool may_lose =
                        c.code == TRAK_GET_AND_CLR_BMP ||
                        (rc == 0 && (c.code == TRAK_CLR_BMP || c.code == TRAK_SET_BMP));
                    EXPECT_TRUE(may_lose || covers(now, pattern(1)));
                    if (c.code == TRAK_GET_AND_CLR_BMP) {
                        Bytes both = now;
                        for (std::size_t i = 0; i < kSize; ++i)
                            both[i] |= bytes[i];
                        EXPECT_TRUE(covers(both, pattern(1)));
                    }
                    ASSERT_LT(nth, 100u);
                }
            });
        }
    }
}

// The heart of an incremental backup: writers run, the map is fetched and cleared again and again, and
// every extent that was written is in one of the maps fetched or in the one that is left.
TEST(bitmap_commands, get_and_clear_racing_with_writers_loses_no_write) {
    sim::for_each_seed(60, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                make_clean_filter();
                os_bdev *bdev = open_node(0);
                Bytes written(kSize, 0), fetched(kSize, 0);
                std::vector<sim::Process *> tasks;
                for (int w = 0; w < 2; ++w) {
                    tasks.push_back(sim::spawn("writer", [&] {
                        for (int i = 0; i < 4; ++i) {
                            const std::uint64_t e = sim::random(kSize * 8);
                            EXPECT_EQ(sim::write_device(bdev, e * 8, Bytes(512, 1)), 0);
                            written[e / 8] |= static_cast<std::uint8_t>(1 << (e % 8));
                        }
                    }));
                }
                for (int g = 0; g < 2; ++g) {
                    tasks.push_back(sim::spawn("agent", [&] {
                        for (int i = 0; i < 3; ++i) {
                            Bytes got(kSize);
                            EXPECT_EQ(bmp_data_command(TRAK_GET_AND_CLR_BMP, 0, 1, got), 0);
                            for (std::size_t at = 0; at < kSize; ++at)
                                fetched[at] |= got[at];
                        }
                    }));
                }
                for (sim::Process *task : tasks)
                    sim::join(task);
                Bytes all = incr_bmp(0);
                for (std::size_t at = 0; at < kSize; ++at)
                    all[at] |= fetched[at];
                EXPECT_EQ(all, written);
                EXPECT_EQ(diff_bmp(0), written);
                sim::close_device(bdev);
            },
            1, options);
    });
}
