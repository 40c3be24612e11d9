// tests/unit/user/own_io_test.cpp: a thread that serves its own I/O
// SPDX-License-Identifier: GPL-2.0-only
#include <thread>

#include "os/lock.h"
#include "os/task.h"
#include "user_testing.h"

namespace {

using user_testing::Bytes;
using user_testing::file_bytes;
using user_testing::pattern;

// Requests of 4 KiB, and what is known of their ends.
struct Load {
    static constexpr std::size_t kSize = 4096;
    explicit Load(std::size_t count) : data(count * kSize) {}

    Bytes data;
    std::thread::id submitter = std::this_thread::get_id();
    std::atomic<std::size_t> ended{0};
    std::atomic<int> failed{0};
    std::atomic<int> elsewhere{0};  // ended by another thread
    os_completion *tell = nullptr;

    void start(os_bdev *disk, std::uint32_t rw, std::size_t index, std::uint64_t offset) {
        user::submit(disk, rw, offset, data.data() + index * kSize, kSize, done, this);
    }
    static void done(void *p, int error) {
        Load *self = static_cast<Load *>(p);
        self->failed += error != 0 || !os_in_interrupt();
        self->elsewhere += std::this_thread::get_id() != self->submitter;
        os_completion *wake = self->tell;
        self->ended++;  // from here on the load may be gone
        if (wake)
            os_complete(wake);
    }
};

class user_own_io : public user_testing::ImageTest {
  protected:
    void open() { open_image("/var/tmp", 1 << 20); }
};

TEST_F(user_own_io, transfers_are_ended_by_their_thread) {
    open();
    Load out(64), in(64);
    out.data = pattern(out.data.size(), 1);
    user::OwnIo io(128);
    for (std::size_t i = 0; i < 64; i++)
        out.start(disk_, OS_BIO_WRITE, i, i * 8192);
    io.drain();
    for (std::size_t i = 0; i < 64; i++)
        in.start(disk_, 0, i, i * 8192);
    while (in.ended < 64)
        io.serve(-1, true);
    EXPECT_EQ(out.ended, 64u);
    EXPECT_EQ(out.failed + in.failed, 0);
    EXPECT_EQ(out.elsewhere + in.elsewhere, 0);
    EXPECT_EQ(in.data, out.data);
}

TEST_F(user_own_io, a_file_and_transfers_are_waited_for_together) {
    open();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    user::OwnIo io(8);
    Load out(1);
    out.start(disk_, OS_BIO_WRITE, 0, 0);
    while (out.ended == 0)
        EXPECT_FALSE(io.serve(ends[0], true));
    std::thread writer([&] { EXPECT_EQ(::write(ends[1], "x", 1), 1); });
    while (!io.serve(ends[0], true))
        ;
    writer.join();
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    close(ends[0]);
    close(ends[1]);
}

TEST_F(user_own_io, more_than_its_depth_and_none_at_all_go_to_the_platforms_thread) {
    open();
    for (unsigned depth : {0u, 2u}) {
        Load out(100);
        user::OwnIo io(depth);
        for (std::size_t i = 0; i < 100; i++)
            out.start(disk_, OS_BIO_WRITE, i, i * 8192);
        io.drain();
        EXPECT_TRUE(user_testing::eventually([&] { return out.ended == 100; }));
        EXPECT_EQ(out.failed, 0);
        EXPECT_GT(out.elsewhere, 0);
    }
}

TEST_F(user_own_io, a_thread_that_sleeps_for_its_own_transfer_ends_it) {
    open();
    user::OwnIo io(8);
    Bytes data = pattern(8192, 5);
    EXPECT_EQ(write(4096, data.data(), data.size(), OS_BIO_FLUSH | OS_BIO_FUA), 0);
    EXPECT_EQ(file_bytes(file_, 4096, data.size()), data);
    Load out(1);
    out.start(disk_, OS_BIO_WRITE, 0, 0);
    EXPECT_TRUE(user_testing::eventually([&] {
        os_yield();
        return out.ended == 1;
    }));
    EXPECT_EQ(out.elsewhere, 0);
}

TEST_F(user_own_io, a_lock_whose_holder_waits_for_the_transfer_is_got) {
    open();
    os_semaphore lock;
    os_completion moved;
    os_sema_init(&lock, 0);
    os_init_completion(&moved);
    std::thread holder([&] {
        os_wait_for_completion(&moved);
        os_up(&lock);
    });
    {
        user::OwnIo io(8);
        Load out(1);
        out.tell = &moved;
        out.start(disk_, OS_BIO_WRITE, 0, 0);
        os_down(&lock);
        EXPECT_EQ(out.ended, 1u);
        EXPECT_EQ(out.elsewhere, 0);
    }
    holder.join();
}

}  // namespace
