// tests/stress/spine_race.cpp: messages, locks, commands and the status tree between real threads
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "abi/trak_ioctl.h"
#include "driver/block/lock_ranks.h"
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/module/module.h"
#include "os/user/user.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 400;

int call(std::uint32_t code, void *record, std::size_t size) {
    const user::Caller caller{
        getpid(), reinterpret_cast<os_uaddr>(record), {static_cast<std::uint8_t *>(record), size}};
    user::CallerScope scope(caller);
    return user::chr_ioctl(code, reinterpret_cast<os_uaddr>(record));
}

template <typename Fn> void in_threads(Fn fn) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([fn, t] { fn(t); });
    for (std::thread &thread : threads)
        thread.join();
}

// The module over an image in a folder of its own.
class SpineRace : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/var/tmp/trak-spine-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        const std::string image = dir_ + "/disk.img";
        std::ofstream(image).close();
        std::filesystem::resize_file(image, 1 << 20);
        std::string why;
        ASSERT_EQ(user::start({}, &why), 0) << why;
        ASSERT_EQ(user::add_image("disk", image, nullptr, &why), 0) << why;
        ASSERT_EQ(trak_init(), 0);
    }

    void TearDown() override {
        EXPECT_EQ(trak_cleanup(), 0) << user::log_text();
        user::stop();
        std::filesystem::remove_all(dir_);
    }

    int add_filter() {
        trak_add_filter_arg add{};
        std::strcpy(add.hdd_name, "/dev/image/disk");
        std::strncpy(add.bmp_dir, dir_.c_str(), sizeof add.bmp_dir - 1);
        add.extent_size = 4096;
        return call(TRAK_ADD_FILTER_NODE, &add, sizeof add);
    }

    std::string dir_;
};

TEST_F(SpineRace, messages_do_not_mix_and_none_is_lost) {
    in_threads([](int t) {
        const std::string text(900, static_cast<char>('a' + t));
        for (int i = 0; i < kRounds; ++i)
            trak_log(TRAK_LOG_ERROR, "race %s", text.c_str());
    });
    const std::string log = user::log_text();
    const std::string head = "<3>ERROR: race ";
    int lines = 0;
    for (std::size_t at = log.find(head); at != log.npos; at = log.find(head, at + 1)) {
        const std::size_t from = at + head.size();
        const std::string text = log.substr(from, log.find('\n', from) - from);
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(text.find_first_not_of(text[0]), std::string::npos) << text;
        EXPECT_TRUE(text.size() == 900 || text.size() == 511 - std::strlen("race ")) << text.size();
        ++lines;
    }
    EXPECT_EQ(lines, kThreads * kRounds);
}

TEST_F(SpineRace, writers_of_the_lock_exclude_everybody) {
    zurwlock lock;
    zurwlock_init(&lock, &trak_rank_table);
    int plain = 0;  // a data race if two writers, or a writer and a reader, were inside together
    in_threads([&](int t) {
        for (int i = 0; i < kRounds; ++i) {
            if ((i + t) % 3 == 0) {
                const zuwrite_guard outer(&lock);
                ++plain;
            } else {
                const zuread_guard guard(&lock);
                EXPECT_GE(plain, 0);
            }
        }
    });
    EXPECT_EQ(lock.count, 0);
}

TEST_F(SpineRace, holders_of_the_mutex_exclude_each_other_and_strangers_are_refused) {
    zumutex mutex;
    zumutex_init(&mutex, &trak_rank_filter_mutex);
    int plain = 0;
    std::atomic<bool> done{false};
    std::thread stranger([&]() TRAK_NO_THREAD_SAFETY_ANALYSIS {
        while (!done) {
            zumutex_unlock(&mutex);
            os_yield();
        }
    });
    in_threads([&](int) {
        for (int i = 0; i < kRounds; ++i) {
            const zumutex_guard guard(&mutex);
            ++plain;
        }
    });
    done = true;
    stranger.join();
    EXPECT_EQ(plain, kThreads * kRounds);
    EXPECT_EQ(mutex.depth, 0u);
}

TEST_F(SpineRace, status_and_information_are_read_while_a_node_comes_and_goes) {
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::string text;
        while (!done) {
            for (const char *file : {"minor", "snaps", "incr_bmp_dirty", "hdd_name"}) {
                const int rc = user::proc_read(std::string("trak/trak0/") + file, &text);
                EXPECT_TRUE(rc >= 0 || rc == -ENOENT) << rc;
            }
            EXPECT_GT(user::proc_write("trak/debug", "1\n"), 0);
        }
    });
    std::thread asker([&] {
        while (!done) {
            trak_info_arg info{};
            const int rc = call(TRAK_GET_INFO, &info, sizeof info);
            EXPECT_TRUE(rc == 0 || rc == -EINVAL) << rc;
            trak_device_list_arg list{};
            list.dev_type = TRAK_DEV_FILTER;
            EXPECT_EQ(call(TRAK_GET_DEVICE_LIST, &list, sizeof list), 0);
            EXPECT_LE(list.count, 1u);
        }
    });
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(add_filter(), 0) << user::log_text();
        trak_minor_arg minor{0};
        EXPECT_EQ(call(TRAK_START_NODE, &minor, sizeof minor), 0);
        EXPECT_EQ(call(TRAK_DEL_NODE, &minor, sizeof minor), 0) << user::log_text();
    }
    done = true;
    reader.join();
    asker.join();
}

}  // namespace
