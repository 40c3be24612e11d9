// tests/unit/user/plug_test.cpp: requests of the driver's threads that are held back and joined
// SPDX-License-Identifier: GPL-2.0-only
#include <sys/resource.h>

#include <functional>

#include "os/lock.h"
#include "os/task.h"
#include "os/user/memory.h"
#include "os/user/ring.h"
#include "user_testing.h"

namespace {

using user_testing::Bytes;
using user_testing::file_bytes;
using user_testing::pattern;

constexpr std::uint64_t kMeg = 1 << 20;

// One page to or from the disk.
struct Page {
    os_page *page = os_alloc_page(OS_GFP_KERNEL);
    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    os_completion *all = nullptr;
    int error = 1;
    std::atomic<int> ends{0};

    void submit(os_bdev *disk, std::uint64_t offset, std::uint32_t rw, os_completion *counted) {
        all = counted;
        os_bio_set_bdev(bio, disk);
        os_bio_set_sector(bio, offset >> OS_SECTOR_SHIFT);
        os_bio_set_private(bio, this);
        os_bio_set_end_io(bio, [](os_bio *ended, int err) {
            Page *self = static_cast<Page *>(os_bio_private(ended));
            self->error = err;
            self->ends++;
            os_complete(self->all);
        });
        ASSERT_TRUE(os_bio_add_page(bio, page, OS_PAGE_SIZE, 0));
        os_submit_bio(rw, bio);
    }
    std::uint8_t *bytes() { return static_cast<std::uint8_t *>(os_page_address(page)); }
    ~Page() {
        os_bio_put(bio);
        os_free_page(page);
    }
};

// Where the requests go is told in pages, in the order of their submission.
class user_plug : public user_testing::ImageTest, public testing::WithParamInterface<const char *> {
  protected:
    void open(std::uint64_t size) { open_image(GetParam(), size); }

    // Runs `body` on a thread of the driver, and waits for its end.
    static void on_kernel_thread(std::function<void()> body) {
        struct Thread {
            std::function<void()> body;
            os_completion ended;
        } thread{std::move(body), {}};
        os_init_completion(&thread.ended);
        ASSERT_GT(os_kernel_thread(
                      [](void *p) {
                          auto *self = static_cast<Thread *>(p);
                          self->body();
                          os_complete_and_exit(&self->ended, 0);
                          return 0;
                      },
                      &thread, 0, "plug-test"),
                  0);
        os_wait_for_completion(&thread.ended);
    }

    // The operations that the requests became.
    std::uint64_t transfer(std::vector<Page> *pages, const std::vector<std::uint64_t> &at,
                           std::uint32_t rw) {
        std::uint64_t before = user::ring_submitted();
        on_kernel_thread([&] {
            os_completion all;
            os_init_completion(&all);
            for (std::size_t i = 0; i < at.size(); i++)
                (*pages)[i].submit(disk_, at[i] * OS_PAGE_SIZE, rw, &all);
            os_queue_unplug(os_bdev_queue(disk_));
            for (std::size_t i = 0; i < at.size(); i++)
                os_wait_for_completion(&all);
        });
        return user::ring_submitted() - before;
    }
};

INSTANTIATE_TEST_SUITE_P(on, user_plug, testing::Values("/var/tmp", "/dev/shm"),
                         [](const auto &info) {
                             return std::string(info.param) == "/dev/shm" ? "memory" : "disk";
                         });

TEST_P(user_plug, neighbours_go_as_one_and_keep_their_data) {
    open(kMeg);
    const std::vector<std::uint64_t> at = {8, 9, 10, 11, 30, 31, 12, 40};
    std::vector<Page> out(at.size()), in(at.size());
    for (std::size_t i = 0; i < at.size(); i++)
        memcpy(out[i].bytes(), pattern(OS_PAGE_SIZE, i).data(), OS_PAGE_SIZE);
    EXPECT_EQ(transfer(&out, at, OS_BIO_WRITE | OS_BIO_FUA), 4u);
    EXPECT_EQ(transfer(&in, at, 0), 4u);
    for (std::size_t i = 0; i < at.size(); i++) {
        EXPECT_EQ(out[i].error, 0);
        EXPECT_EQ(in[i].error, 0);
        EXPECT_EQ(in[i].ends, 1);
        EXPECT_TRUE(os_bio_uptodate(in[i].bio));
        EXPECT_EQ(Bytes(in[i].bytes(), in[i].bytes() + OS_PAGE_SIZE), pattern(OS_PAGE_SIZE, i));
        EXPECT_EQ(file_bytes(file_, at[i] * OS_PAGE_SIZE, OS_PAGE_SIZE), pattern(OS_PAGE_SIZE, i));
    }
}

TEST_P(user_plug, more_than_a_joint_transfer_carries_goes_as_several) {
    open(4 * kMeg);
    std::vector<std::uint64_t> at(600);
    for (std::size_t i = 0; i < at.size(); i++)
        at[i] = i;
    std::vector<Page> out(at.size());
    for (std::size_t i = 0; i < at.size(); i++)
        memset(out[i].bytes(), static_cast<int>(i % 251), OS_PAGE_SIZE);
    EXPECT_EQ(transfer(&out, at, OS_BIO_WRITE), 3u);
    for (std::size_t i = 0; i < at.size(); i++) {
        EXPECT_EQ(out[i].error, 0);
        EXPECT_EQ(file_bytes(file_, i * OS_PAGE_SIZE, 1)[0], i % 251);
    }
}

TEST_P(user_plug, each_part_of_a_failed_joint_transfer_gets_its_own_result) {
    open(kMeg);
    const std::vector<std::uint64_t> at = {0, 1, 2, 3, 4, 5};
    std::vector<Page> out(at.size());
    rlimit before, low;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    low = {2 * OS_PAGE_SIZE, before.rlim_max};
    for (std::size_t i = 0; i < at.size(); i++)
        memset(out[i].bytes(), 'a' + static_cast<int>(i), OS_PAGE_SIZE);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
    std::uint64_t operations = transfer(&out, at, OS_BIO_WRITE);
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(operations, 1u + at.size());
    for (std::size_t i = 0; i < at.size(); i++) {
        EXPECT_EQ(out[i].error, i < 2 ? 0 : -EIO) << i;
        EXPECT_EQ(out[i].ends, 1);
        EXPECT_EQ(file_bytes(file_, i * OS_PAGE_SIZE, 1)[0], i < 2 ? 'a' + i : 0);
    }
}

TEST_P(user_plug, without_memory_neighbours_go_one_by_one) {
    open(kMeg);
    const std::vector<std::uint64_t> at = {3, 4, 5};
    std::vector<Page> out(at.size());
    user::heap_is_empty = true;
    std::uint64_t operations = transfer(&out, at, OS_BIO_WRITE);
    user::heap_is_empty = false;
    EXPECT_EQ(operations, at.size());
    for (Page &page : out)
        EXPECT_EQ(page.error, 0);
}

TEST_P(user_plug, what_is_held_back_goes_when_the_thread_sleeps_yields_or_ends) {
    open(kMeg);
    std::vector<Page> out(3);
    os_completion all;
    os_init_completion(&all);
    on_kernel_thread([&] {
        out[0].submit(disk_, 0, OS_BIO_WRITE, &all);
        os_wait_for_completion(&all);
        EXPECT_EQ(out[0].error, 0);
        out[1].submit(disk_, 8192, OS_BIO_WRITE, &all);
        EXPECT_TRUE(user_testing::eventually([&] {
            os_yield();
            return out[1].ends == 1;
        }));
        os_wait_for_completion(&all);
        out[2].submit(disk_, 16384, OS_BIO_WRITE, &all);
    });
    os_wait_for_completion(&all);
    EXPECT_EQ(out[2].error, 0);
}

TEST_P(user_plug, threads_of_programs_hold_nothing_back) {
    open(kMeg);
    Page out;
    os_completion all;
    os_init_completion(&all);
    out.submit(disk_, 0, OS_BIO_WRITE, &all);
    EXPECT_TRUE(user_testing::eventually([&] { return out.ends == 1; }));
    os_wait_for_completion(&all);
}

}  // namespace
