// tests/unit/user/image_test.cpp: image files as disks
// SPDX-License-Identifier: GPL-2.0-only
#include <sys/file.h>
#include <sys/resource.h>

#include <thread>

#include "os/file.h"
#include "os/lock.h"
#include "os/task.h"
#include "user_testing.h"

namespace {

using user_testing::Bytes;
using user_testing::eventually;
using user_testing::file_bytes;
using user_testing::pattern;

constexpr std::uint64_t kMiB = 1 << 20;

// Every test of it runs on a file system with direct I/O where the machine's /var/tmp has it, and on
// one without: /dev/shm.
class user_image : public user_testing::ImageTest,
                   public testing::WithParamInterface<const char *> {
  protected:
    void open(std::uint64_t size) { open_image(GetParam(), size); }
};

INSTANTIATE_TEST_SUITE_P(on, user_image, testing::Values("/var/tmp", "/dev/shm"),
                         [](const auto &info) {
                             return std::string(info.param) == "/dev/shm" ? "memory" : "disk";
                         });

TEST_P(user_image, what_is_written_is_in_the_file_and_reads_back) {
    open(kMiB);
    Bytes data = pattern(64 * 1024, 1);
    ASSERT_EQ(write(128 * 1024, data.data(), data.size(), OS_BIO_FUA), 0);
    EXPECT_EQ(file_bytes(file_, 128 * 1024, data.size()), data);
    Bytes back(data.size());
    ASSERT_EQ(read(128 * 1024, back.data(), back.size()), 0);
    EXPECT_EQ(back, data);
}

TEST_P(user_image, buffers_at_any_address_and_single_sectors_work) {
    open(kMiB);
    Bytes room(3 * OS_PAGE_SIZE + 512);
    for (std::size_t shift : {1u, 3u, 80u, 511u, 513u, 4095u}) {
        for (std::size_t size : {512u, 1536u, 4096u}) {
            Bytes data = pattern(size, shift + size);
            memcpy(room.data() + shift, data.data(), size);
            ASSERT_EQ(write(4096 + shift / 512 * 512, room.data() + shift, size), 0);
            memset(room.data(), 0, room.size());
            ASSERT_EQ(read(4096 + shift / 512 * 512, room.data() + shift, size), 0);
            EXPECT_EQ(Bytes(room.data() + shift, room.data() + shift + size), data);
        }
    }
}

TEST_P(user_image, the_size_counts_whole_sectors_and_the_device_number_is_an_images) {
    open(5 * 512 + 100);
    EXPECT_EQ(os_bdev_size(disk_), 5u * 512);
    EXPECT_EQ(os_bdev_block_size(disk_), 512u);
    EXPECT_EQ(os_bdev_dev(disk_), os_mkdev(user::kImageMajor, 0));
    EXPECT_EQ(os_bdev_openers(disk_), 1u);
}

TEST_P(user_image, a_request_beyond_the_end_fails_and_is_logged) {
    open(8 * 512);
    Bytes data(1024);
    EXPECT_EQ(write(7 * 512, data.data(), 1024), -EIO);
    EXPECT_EQ(read(8 * 512, data.data(), 512), -EIO);
    EXPECT_EQ(write(7 * 512, data.data(), 512), 0);
    EXPECT_NE(user::log_text().find("attempt to access beyond end of device"), std::string::npos);
}

TEST_P(user_image, a_request_of_no_whole_sectors_is_refused) {
    open(kMiB);
    Bytes data(1024);
    EXPECT_EQ(read(100, data.data(), 512), -EINVAL);
    EXPECT_EQ(read(0, data.data(), 100), -EINVAL);
    EXPECT_EQ(user::submit_wait(disk_, OS_BIO_WRITE | OS_BIO_DISCARD, 0, data.data(), 512),
              -EINVAL);
}

TEST_P(user_image, reading_what_was_cut_off_the_file_fails) {
    open(kMiB);
    ASSERT_EQ(truncate(file_.c_str(), 4096), 0);
    Bytes data(8192);
    EXPECT_EQ(read(0, data.data(), 4096), 0);
    EXPECT_EQ(read(8192, data.data(), 4096), -EIO);
    EXPECT_EQ(read(0, data.data(), 8192), -EIO);
    EXPECT_NE(user::log_text().find("<3>I/O error, dev "), std::string::npos);
}

TEST_P(user_image, discard_and_zeroes_read_back_as_zeroes) {
    open(kMiB);
    Bytes data = pattern(64 * 1024, 5);
    for (std::uint32_t rw : {OS_BIO_WRITE | OS_BIO_DISCARD, OS_BIO_WRITE | OS_BIO_ZEROES,
                             OS_BIO_WRITE | OS_BIO_ZEROES | OS_BIO_FUA | OS_BIO_FLUSH}) {
        ASSERT_EQ(write(0, data.data(), data.size()), 0);
        ASSERT_EQ(user::submit_wait(disk_, rw, 4096, nullptr, 8192), 0);
        Bytes back(data.size());
        ASSERT_EQ(read(0, back.data(), back.size()), 0);
        Bytes expected = data;
        std::fill(expected.begin() + 4096, expected.begin() + 4096 + 8192, 0);
        EXPECT_EQ(back, expected);
        EXPECT_EQ(std::filesystem::file_size(file_), kMiB);
    }
}

TEST_P(user_image, a_flush_alone_and_a_flush_before_data_succeed) {
    open(kMiB);
    EXPECT_EQ(user::submit_wait(disk_, OS_BIO_WRITE | OS_BIO_FLUSH, 0, nullptr, 0), 0);
    Bytes data = pattern(4096, 9);
    EXPECT_EQ(write(0, data.data(), data.size(), OS_BIO_FLUSH | OS_BIO_FUA), 0);
    EXPECT_EQ(file_bytes(file_, 0, 4096), data);
    EXPECT_EQ(os_fsync_bdev(disk_), 0);
    os_invalidate_bdev(disk_);
    EXPECT_EQ(file_bytes(file_, 0, 4096), data);
}

TEST_P(user_image, a_limit_on_file_size_is_an_error_of_the_write_not_the_end_of_the_process) {
    open(kMiB);
    rlimit before, low{512 * 1024, RLIM_INFINITY};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    low.rlim_max = before.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
    Bytes data = pattern(8192, 3);
    int beyond = write(768 * 1024, data.data(), data.size());
    int below = write(0, data.data(), data.size());
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(beyond, -EIO);
    EXPECT_EQ(below, 0);
}

TEST_P(user_image, thousands_of_requests_at_once_keep_their_data) {
    open(16 * kMiB);
    constexpr int kThreads = 4, kEach = 1000;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            os_completion all;
            os_init_completion(&all);
            std::vector<Bytes> data(kEach), back(kEach);
            std::atomic<int> failed{0};
            struct Ended {
                os_completion *all;
                std::atomic<int> *failed;
            } ended{&all, &failed};
            auto done = [](void *p, int error) {
                auto *e = static_cast<Ended *>(p);
                *e->failed += error != 0;
                os_complete(e->all);
            };
            auto offset = [&](int i) { return (std::uint64_t(i) * kThreads + t) * 4096; };
            for (int i = 0; i < kEach; i++) {
                data[i] = pattern(4096, t * kEach + i);
                back[i].resize(4096);
                user::submit(disk_, OS_BIO_WRITE, offset(i), data[i].data(), 4096, done, &ended);
            }
            for (int i = 0; i < kEach; i++)
                os_wait_for_completion(&all);
            for (int i = 0; i < kEach; i++)
                user::submit(disk_, 0, offset(i), back[i].data(), 4096, done, &ended);
            for (int i = 0; i < kEach; i++)
                os_wait_for_completion(&all);
            wrong += failed;
            for (int i = 0; i < kEach; i++)
                wrong += data[i] != back[i];
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST_P(user_image, a_queue_of_one_serves_any_number_of_requests) {
    user::stop();
    options_.queue_depth = 1;
    SetUp();
    open(kMiB);
    os_completion all;
    os_init_completion(&all);
    Bytes data = pattern(kMiB, 7);
    for (std::size_t i = 0; i < 256; i++)
        user::submit(
            disk_, OS_BIO_WRITE | (i % 7 ? 0u : unsigned{OS_BIO_FLUSH}), i * 4096,
            data.data() + i * 4096, 4096,
            [](void *p, int error) {
                EXPECT_EQ(error, 0);
                os_complete(static_cast<os_completion *>(p));
            },
            &all);
    for (int i = 0; i < 256; i++)
        os_wait_for_completion(&all);
    EXPECT_EQ(file_bytes(file_, 0, kMiB), data);
}

TEST_P(user_image, a_completion_runs_in_interrupt_context) {
    open(kMiB);
    struct Seen {
        os_completion done;
        bool interrupt = false;
        int pid = 0;
    } seen;
    os_init_completion(&seen.done);
    Bytes data(4096);
    user::submit(
        disk_, 0, 0, data.data(), data.size(),
        [](void *p, int) {
            auto *s = static_cast<Seen *>(p);
            s->interrupt = os_in_interrupt();
            s->pid = os_current_pid();
            os_complete(&s->done);
        },
        &seen);
    os_wait_for_completion(&seen.done);
    EXPECT_TRUE(seen.interrupt);
    EXPECT_NE(seen.pid, os_current_pid());
    EXPECT_FALSE(os_in_interrupt());
}

TEST_P(user_image, a_scattered_bio_moves_every_piece_in_order) {
    open(kMiB);
    constexpr std::uint32_t kPieces = 1500;  // more than one system call takes
    Bytes source = pattern(kPieces * 512, 11);
    std::vector<os_page *> pages;
    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, kPieces);
    ASSERT_NE(bio, nullptr);
    for (std::uint32_t i = 0; i < kPieces; i++) {
        pages.push_back(os_alloc_page(OS_GFP_KERNEL));
        memcpy(static_cast<char *>(os_page_address(pages[i])) + 1024, &source[i * 512], 512);
        ASSERT_TRUE(os_bio_add_page(bio, pages[i], 512, 1024));
    }
    struct Ended {
        os_completion done;
        int error;
    } ended;
    os_init_completion(&ended.done);
    os_bio_set_sector(bio, 8);
    os_bio_set_bdev(bio, disk_);
    os_bio_set_private(bio, &ended);
    os_bio_set_end_io(bio, [](os_bio *b, int error) {
        auto *e = static_cast<Ended *>(os_bio_private(b));
        e->error = error;
        os_complete(&e->done);
    });
    os_submit_bio(OS_BIO_WRITE, bio);
    os_wait_for_completion(&ended.done);
    EXPECT_EQ(ended.error, 0);
    EXPECT_TRUE(os_bio_uptodate(bio));
    os_bio_put(bio);
    for (os_page *page : pages)
        os_free_page(page);
    EXPECT_EQ(file_bytes(file_, 4096, source.size()), source);
}

TEST_P(user_image, a_second_claim_shows_as_another_opener) {
    open(kMiB);
    os_blkdev_put(disk_, 3);
    disk_ = nullptr;
    int fd = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    disk_ = os_open_by_devnum(dev_, OS_FMODE_WRITE);
    ASSERT_FALSE(os_is_err(disk_));
    EXPECT_EQ(os_bdev_openers(disk_), 2u);
    os_blkdev_put(disk_, 3);
    close(fd);
    disk_ = os_open_by_devnum(dev_, OS_FMODE_WRITE);
    ASSERT_FALSE(os_is_err(disk_));
    EXPECT_EQ(os_bdev_openers(disk_), 1u);
}

class user_images : public user_testing::PlatformTest {};

TEST_F(user_images, what_is_no_image_is_refused_with_one_line) {
    user_testing::Folder folder;
    user_testing::make_file(folder / "good", 4096);
    user_testing::make_file(folder / "tiny", 511);
    std::string why;
    EXPECT_EQ(user::add_image("a/b", folder / "good", nullptr, &why), -EINVAL);
    EXPECT_EQ(why, "'a/b' is no name for a disk: use letters, digits, . _ -");
    EXPECT_EQ(user::add_image("a", folder / "absent", nullptr, &why), -ENOENT);
    EXPECT_EQ(why, "disk a: " + (folder / "absent") + ": No such file or directory");
    EXPECT_EQ(user::add_image("a", folder.path(), nullptr, &why), -EINVAL);
    EXPECT_EQ(user::add_image("a", folder / "tiny", nullptr, &why), -EINVAL);
    EXPECT_EQ(why, "disk a: " + (folder / "tiny") + " is smaller than one sector");
    os_dev_t dev = 0;
    EXPECT_EQ(user::add_image("a", folder / "good", &dev, &why), 0);
    EXPECT_EQ(user::add_image("a", folder / "good", nullptr, &why), -EEXIST);
    EXPECT_EQ(user::add_image("b", folder / "good", nullptr, &why), -EEXIST);
    EXPECT_EQ(why, "disk b: " + (folder / "good") + " is disk a already");
    os_dentry *entry = os_path_lookup("/dev/image/a", 1);
    ASSERT_FALSE(os_is_err(entry));
    EXPECT_EQ(os_dentry_mode(entry) & OS_S_IFMT, std::uint32_t{OS_S_IFBLK});
    EXPECT_EQ(os_dentry_rdev(entry), dev);
    EXPECT_STREQ(os_dentry_name(entry), "a");
    EXPECT_EQ(os_dentry_sb_dev(entry), 0u);
    os_dput(entry);
    EXPECT_EQ(os_ptr_err(os_path_lookup("/dev/image/b", 1)), -ENOENT);
    EXPECT_EQ(os_ptr_err(os_open_by_devnum(dev + 1, OS_FMODE_READ)), -ENXIO);
}

TEST_F(user_images, one_that_went_away_does_not_open) {
    user_testing::Folder folder;
    user_testing::make_file(folder / "gone", 4096);
    os_dev_t dev = 0;
    ASSERT_EQ(user::add_image("gone", folder / "gone", &dev, nullptr), 0);
    unlink((folder / "gone").c_str());
    EXPECT_EQ(os_ptr_err(os_open_by_devnum(dev, OS_FMODE_READ)), -ENOENT);
}

}  // namespace
