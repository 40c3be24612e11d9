// tests/unit/utils/file_test.cpp: open, read, write, sync, truncate and close
// SPDX-License-Identifier: GPL-2.0-only
#include <algorithm>
#include <numeric>

#include "driver/utils/trak_utils.h"
#include "os/memory.h"
#include "tests/support/sim_run.h"

namespace {

constexpr char path[] = "/data/file";

sim::Bytes pattern(std::size_t size) {
    sim::Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    return bytes;
}

// A machine with one file of `size` bytes, and the file open for reading and writing.
void with_file(std::size_t size, const std::function<void(sim::Storage &, trak_file *)> &fn) {
    sim::Storage storage;
    storage.mkdir("/data");
    storage.write_file(path, pattern(size));
    sim_run::boot(storage, [&] {
        trak_file *file = trak_fopen(path, OS_O_RDWR, 0600);
        ASSERT_NE(file, nullptr);
        fn(storage, file);
        EXPECT_EQ(trak_fclose(file), 0);
    });
}

// Pages of the simulated machine, each filled with bytes of its own.
class Pages {
  public:
    explicit Pages(std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            pages_.push_back(os_alloc_page(OS_GFP_KERNEL));
            std::memset(os_page_address(pages_.back()), static_cast<int>(i + 1), OS_PAGE_SIZE);
            bytes_.insert(bytes_.end(), OS_PAGE_SIZE, static_cast<std::uint8_t>(i + 1));
        }
    }
    ~Pages() {
        for (os_page *page : pages_)
            os_free_page(page);
    }
    Pages(const Pages &) = delete;
    Pages &operator=(const Pages &) = delete;
    os_page *const *get() const { return pages_.data(); }
    const sim::Bytes &bytes() const { return bytes_; }

  private:
    std::vector<os_page *> pages_;
    sim::Bytes bytes_;
};

TEST(file, open_keeps_a_copy_of_the_path) {
    sim::Storage storage;
    storage.mkdir("/data");
    sim_run::boot(storage, [] {
        char name[] = "/data/file";
        trak_file *file = trak_fopen(name, OS_O_WRONLY | OS_O_CREAT | OS_O_TRUNC, 0600);
        ASSERT_NE(file, nullptr);
        std::memset(name, 'x', sizeof name - 1);
        EXPECT_STREQ(file->fname, path);
        EXPECT_EQ(trak_fclose(file), 0);
        EXPECT_NOTHING_LOGGED();
    });
    EXPECT_TRUE(storage.exists(path));
}

TEST(file, failed_open_says_for_what) {
    sim_run::boot([] {
        EXPECT_EQ(trak_fopen("/none", OS_O_RDONLY, 0600), nullptr);
        EXPECT_LOGGED_ERROR("trak_fopen(): Failed to open file /none for reading: errno=-2");
        EXPECT_EQ(trak_fopen("/none", OS_O_WRONLY, 0600), nullptr);
        EXPECT_LOGGED_ERROR("trak_fopen(): Failed to open file /none for writing: errno=-2");
        sim::clear_log();
        EXPECT_EQ(trak_fopen("/none", OS_O_RDWR, 0600), nullptr);
        EXPECT_LOGGED_ERROR(
            "trak_fopen(): Failed to open file /none for reading and writing: errno=-2");
        sim::clear_log();
        EXPECT_EQ(trak_fopen("/none", OS_O_ACCMODE, 0600), nullptr);
        EXPECT_EQ(sim::count_log("Failed to open file /none for reading and writing: errno="), 1u);
    });
}

TEST(file, each_failed_allocation_of_an_open_is_logged_and_leaves_nothing) {
    for (std::uint64_t nth = 1; nth <= 2; ++nth) {
        sim::Storage storage;
        storage.write_file("/file", {});
        sim_run::boot(storage, [&] {
            trak_log(TRAK_LOG_MILESTONE, "%s(): first message", "test");  // makes the buffer
            sim::fail_nth(sim::Fault::kAlloc, nth);
            EXPECT_EQ(trak_fopen("/file", OS_O_RDONLY, 0600), nullptr);
            EXPECT_LOGGED_ERROR("trak_fopen(): Memory allocation failed.");
        });
    }
}

TEST(file, failed_call_of_the_open_is_its_errno) {
    sim::Storage storage;
    storage.write_file("/file", {});
    storage.fail_path("/file", sim::Fault::kOpen, -13);
    sim_run::boot(storage, [&] {
        EXPECT_EQ(trak_fopen("/file", OS_O_RDONLY, 0600), nullptr);
        EXPECT_LOGGED_ERROR("trak_fopen(): Failed to open file /file for reading: errno=-13");
    });
}

TEST(file, open_without_a_path_is_a_bug) {
    EXPECT_NE(sim_run::failure_of([] { (void)trak_fopen(nullptr, OS_O_RDONLY, 0600); }), "");
}

TEST(file, close_of_a_handle_without_a_file_frees_it) {
    sim_run::boot([] {
        for (void *filp : {static_cast<void *>(nullptr), os_err_ptr(-ENOENT)}) {
            auto *file = static_cast<trak_file *>(os_kzalloc(sizeof(trak_file), OS_GFP_KERNEL));
            file->filp = static_cast<os_file *>(filp);
            EXPECT_EQ(trak_fclose(file), 0);
        }
    });
}

TEST(file, read_at_an_offset_gives_the_bytes_there) {
    with_file(300, [](sim::Storage &, trak_file *file) {
        sim::Bytes got(100);
        EXPECT_EQ(trak_fread(file, 150, got.data(), 100), 100);
        const sim::Bytes all = pattern(300);
        EXPECT_TRUE(std::equal(got.begin(), got.end(), all.begin() + 150));
        EXPECT_EQ(trak_fread(file, 0, got.data(), 100), 100);
        EXPECT_TRUE(std::equal(got.begin(), got.end(), all.begin()));
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(file, read_across_the_end_gives_what_there_is_and_says_so) {
    with_file(5000, [](sim::Storage &, trak_file *file) {
        sim::Bytes got(4096);
        EXPECT_EQ(trak_fread(file, 4900, got.data(), 4096), 100);
        EXPECT_LOGGED_ERROR(
            "trak_fread(): Unexpected EOF while trying to read 3996 bytes from /data/file");
        sim::clear_log();
        EXPECT_EQ(trak_fread(file, 5000, got.data(), 10), 0);
        EXPECT_LOGGED_ERROR(
            "trak_fread(): Unexpected EOF while trying to read 10 bytes from /data/file");
    });
}

TEST(file, count_of_zero_or_less_moves_nothing) {
    with_file(10, [](sim::Storage &storage, trak_file *file) {
        EXPECT_EQ(trak_fread(file, 100, nullptr, 0), 0);
        EXPECT_EQ(trak_fread(file, 100, nullptr, -1), 0);
        EXPECT_EQ(trak_fwrite(file, 100, nullptr, 0), 0);
        EXPECT_EQ(trak_fwrite(file, 100, nullptr, INT32_MIN), 0);
        EXPECT_NOTHING_LOGGED();
        EXPECT_EQ(storage.read_file(path), pattern(10));
    });
}

TEST(file, write_at_an_offset_changes_the_bytes_there) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        const sim::Bytes bytes(50, 0xee);
        EXPECT_EQ(trak_fwrite(file, 280, bytes.data(), 50), 50);
        sim::Bytes expected = pattern(300);
        expected.resize(330);
        std::fill(expected.begin() + 280, expected.end(), std::uint8_t{0xee});
        EXPECT_EQ(storage.read_file(path), expected);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(file, failed_read_is_logged_with_what_was_left_to_read) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        char buf[100];
        storage.fail_path(path, sim::Fault::kRead, -5);
        EXPECT_EQ(trak_fread(file, 0, buf, 100), -EIO);
        EXPECT_LOGGED_ERROR("trak_fread(): Failed to read 100 bytes from /data/file: rc=-5");
    });
}

TEST(file, failed_write_is_logged_with_what_was_left_to_write) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        const char buf[100] = {};
        storage.fail_path(path, sim::Fault::kWrite, -28);
        EXPECT_EQ(trak_fwrite(file, 0, buf, 100), -ENOSPC);
        EXPECT_LOGGED_ERROR("trak_fwrite(): Failed to write 100 bytes into /data/file: rc=-28");
    });
}

TEST(file, write_that_moves_nothing_is_eio_and_says_how_far_it_got) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        const char buf[100] = {};
        storage.stop_writes(path, true);
        EXPECT_EQ(trak_fwrite(file, 0, buf, 100), -EIO);
        EXPECT_LOGGED_ERROR("trak_fwrite(): Short write into /data/file: wrote 0 instead of 100");
        EXPECT_EQ(storage.read_file(path), pattern(300));
    });
}

TEST(file, transfers_in_pieces_move_every_byte_to_its_place) {
    sim::for_each_seed(50, [](std::uint64_t seed) {
        sim::Storage storage;
        sim::Options options;
        options.seed = seed;
        options.short_transfers = true;
        storage.write_file("/file", pattern(1000));
        sim_run::boot(
            storage,
            [&] {
                trak_file *file = trak_fopen("/file", OS_O_RDWR, 0600);
                ASSERT_NE(file, nullptr);
                sim::Bytes got(900, 0);
                EXPECT_EQ(trak_fread(file, 50, got.data(), 900), 900);
                const sim::Bytes all = pattern(1000);
                EXPECT_TRUE(std::equal(got.begin(), got.end(), all.begin() + 50));
                std::reverse(got.begin(), got.end());
                EXPECT_EQ(trak_fwrite(file, 70, got.data(), 900), 900);
                sim::Bytes expected = all;
                std::copy(got.begin(), got.end(), expected.begin() + 70);
                EXPECT_EQ(storage.read_file("/file"), expected);
                EXPECT_NOTHING_LOGGED();
                EXPECT_EQ(trak_fclose(file), 0);
            },
            options);
    });
}

TEST(file, pages_in_pieces_all_get_to_their_place) {
    sim::for_each_seed(50, [](std::uint64_t seed) {
        sim::Storage storage;
        sim::Options options;
        options.seed = seed;
        options.short_transfers = true;
        storage.write_file("/file", pattern(100));
        sim_run::boot(
            storage,
            [&] {
                trak_file *file = trak_fopen("/file", OS_O_RDWR, 0600);
                ASSERT_NE(file, nullptr);
                const Pages pages(5);
                EXPECT_EQ(trak_fwrite_pages(file, 100, pages.get(), 5), 0);
                EXPECT_EQ(trak_fwrite_pages(file, 0, pages.get(), 0), 0);
                sim::Bytes expected = pattern(100);
                expected.insert(expected.end(), pages.bytes().begin(), pages.bytes().end());
                EXPECT_EQ(storage.read_file("/file"), expected);
                EXPECT_NOTHING_LOGGED();
                EXPECT_EQ(trak_fclose(file), 0);
            },
            options);
    });
}

TEST(file, pages_that_can_not_be_written_are_told_of_as_one_page) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        const Pages pages(3);
        storage.fail_path(path, sim::Fault::kWrite, -28);
        EXPECT_EQ(trak_fwrite_pages(file, 0, pages.get(), 3), -ENOSPC);
        EXPECT_LOGGED_ERROR("trak_fwrite(): Failed to write 4096 bytes into /data/file: rc=-28");
        sim::clear_log();
        storage.fail_path(path, sim::Fault::kWrite, 0);
        storage.stop_writes(path, true);
        EXPECT_EQ(trak_fwrite_pages(file, 0, pages.get(), 3), -EIO);
        EXPECT_LOGGED_ERROR("trak_fwrite(): Short write into /data/file: wrote 0 instead of 4096");
        sim::clear_log();
        trak_file none{nullptr, nullptr};
        EXPECT_EQ(trak_fwrite_pages(&none, 0, pages.get(), 3), -EINVAL);
        EXPECT_LOGGED_ERROR("trak_fwrite(): NULL or invalid file pointer passed as input!");
    });
}

TEST(file, pages_that_fill_the_file_system_stop_where_it_is_full) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        const Pages pages(3);
        storage.set_free_bytes("/data", OS_PAGE_SIZE + 1000 - 300);
        EXPECT_EQ(trak_fwrite_pages(file, 0, pages.get(), 3), -ENOSPC);
        const sim::Bytes got = storage.read_file(path);
        ASSERT_GE(got.size(), std::size_t{OS_PAGE_SIZE});
        EXPECT_TRUE(std::equal(got.begin(), got.begin() + OS_PAGE_SIZE, pages.bytes().begin()));
    });
}

TEST(file, handle_that_is_null_or_invalid_is_refused) {
    sim_run::boot([] {
        char buf[4] = {};
        trak_file none{nullptr, nullptr};
        trak_file bad{nullptr, static_cast<os_file *>(os_err_ptr(-ENOENT))};
        for (trak_file *file : {static_cast<trak_file *>(nullptr), &none, &bad}) {
            sim::clear_log();
            EXPECT_EQ(trak_fread(file, 0, buf, 4), -EINVAL);
            EXPECT_LOGGED_ERROR("trak_fread(): NULL or invalid file pointer passed as input!");
            EXPECT_EQ(trak_fwrite(file, 0, buf, 4), -EINVAL);
            EXPECT_LOGGED_ERROR("trak_fwrite(): NULL or invalid file pointer passed as input!");
            EXPECT_EQ(trak_fread(file, 0, buf, 0), -EINVAL);
        }
    });
}

TEST(file, sync_makes_what_was_written_durable) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        const sim::Bytes bytes(300, 0xee);
        EXPECT_EQ(trak_fwrite(file, 0, bytes.data(), 300), 300);
        EXPECT_EQ(trak_fsync(file), 0);
        EXPECT_EQ(storage.read_file_durable(path), bytes);
    });
}

TEST(file, failed_sync_is_its_errno) {
    with_file(300, [](sim::Storage &storage, trak_file *file) {
        storage.fail_path(path, sim::Fault::kFlush, -5);
        EXPECT_EQ(trak_fsync(file), -EIO);
        storage.fail_path(path, sim::Fault::kFlush, 0);
    });
}

TEST(file, sync_without_a_file_is_0_and_without_a_handle_a_bug) {
    sim_run::boot([] {
        trak_file none{nullptr, nullptr};
        EXPECT_EQ(trak_fsync(&none), 0);
    });
    EXPECT_NE(sim_run::failure_of([] { (void)trak_fsync(nullptr); }), "");
}

TEST(file, truncate_cuts_a_file_to_nothing) {
    sim::Storage storage;
    storage.write_file("/file", pattern(300));
    sim_run::boot(storage, [] {
        EXPECT_EQ(trak_ftruncate("/file"), 0);
        EXPECT_NOTHING_LOGGED();
    });
    EXPECT_TRUE(storage.exists("/file"));
    EXPECT_EQ(storage.read_file("/file").size(), 0u);
}

TEST(file, truncate_of_a_missing_file_is_0_and_makes_none) {
    sim::Storage storage;
    sim_run::boot(storage, [] {
        EXPECT_EQ(trak_ftruncate("/none"), 0);
        EXPECT_LOGGED_ERROR(
            "trak_fopen(): Failed to open file /none for reading and writing: errno=-2");
    });
    EXPECT_FALSE(storage.exists("/none"));
}

}  // namespace
