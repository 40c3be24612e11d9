// tests/stress/track_race.cpp: maps are taken and cleared while real threads write
// SPDX-License-Identifier: GPL-2.0-only
//
// The driver over real threads and an image file. Every write is in a map that was returned by a
// command that ended after the write began, or in the node's map at the end; a thread that reads
// and merges maps, and opens and releases the node (which saves them), runs beside it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "abi/trak_ioctl.h"
#include "driver/module/module.h"
#include "os/user/user.h"

namespace {

constexpr std::uint64_t kDiskBytes = 8u << 20;
constexpr std::uint32_t kExtent = 4096;
constexpr std::uint32_t kExtents = kDiskBytes / kExtent;
constexpr std::uint32_t kMapBytes = kExtents / 8;
const os_dev_t kNode = os_mkdev(100, 0);

int command(std::uint32_t code, void *record, std::size_t size) {
    const user::Caller caller{
        getpid(), reinterpret_cast<os_uaddr>(record), {static_cast<std::uint8_t *>(record), size}};
    user::CallerScope scope(caller);
    return user::chr_ioctl(code, reinterpret_cast<os_uaddr>(record));
}

int map_command(std::uint32_t code, std::uint32_t type, std::vector<std::uint8_t> &bits) {
    trak_bmp_data_arg arg{};
    arg.type = type;
    arg.size = static_cast<std::uint32_t>(bits.size());
    arg.data = reinterpret_cast<std::uint64_t>(bits.data());
    return command(code, &arg, sizeof arg);
}

std::uint64_t env_or(const char *name, std::uint64_t otherwise) {
    const char *text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// One started node over an image in a folder of its own, and the driver loaded.
class Race : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/var/tmp/trak-race-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        const std::string image = dir_ + "/disk.img";
        std::ofstream(image).close();
        std::filesystem::resize_file(image, kDiskBytes);
        std::string why;
        ASSERT_EQ(user::start({}, &why), 0) << why;
        ASSERT_EQ(user::add_image("disk", image, nullptr, &why), 0) << why;
        ASSERT_EQ(trak_init(), 0);
        trak_add_filter_arg add{};
        std::strcpy(add.hdd_name, "/dev/image/disk");
        std::strcpy(add.bmp_dir, dir_.c_str());
        add.extent_size = kExtent;
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, &add, sizeof add), 0);
        trak_minor_arg start{};
        ASSERT_EQ(command(TRAK_START_NODE, &start, sizeof start), 0);
        for (std::uint32_t type : {TRAK_BMP_DIFF, TRAK_BMP_INCR}) {
            trak_bmp_arg clear{0, type};
            ASSERT_EQ(command(TRAK_CLR_BMP, &clear, sizeof clear), 0);
        }
    }

    void TearDown() override {
        EXPECT_EQ(trak_cleanup(), 0) << user::log_text();
        user::stop();
        std::filesystem::remove_all(dir_);
    }

    // What the threads did, told with moments that order it.
    struct Write {
        std::uint64_t extent;
        std::uint64_t began;
    };
    // A writer is counted out however it ends, or the others would never end.
    struct Leave {
        std::atomic<int> &count;
        ~Leave() { --count; }
    };
    struct Take {
        std::uint64_t ended;
        std::vector<std::uint8_t> map;
    };

    void write_until_done(unsigned seed) {
        const Leave leave{writers_};
        std::mt19937 random(seed);
        int err = 0;
        os_bdev *bdev = user::open_device(kNode, OS_FMODE_READ | OS_FMODE_WRITE, &err);
        ASSERT_NE(bdev, nullptr) << err;
        std::vector<std::uint8_t> data(4 * kExtent, static_cast<std::uint8_t>(seed));
        for (std::uint64_t n = 0; n < writes_each_; ++n) {
            const std::uint64_t sectors = 1 + random() % 16;
            const std::uint64_t sector = random() % (kDiskBytes / 512 - sectors);
            const std::uint64_t began = ++moment_;
            EXPECT_EQ(
                user::submit_wait(bdev, OS_BIO_WRITE, sector * 512, data.data(), sectors * 512), 0);
            std::lock_guard hold(mutex_);
            for (std::uint64_t e = sector * 512 / kExtent; e * kExtent < (sector + sectors) * 512;
                 ++e)
                writes_.push_back({e, began});
        }
        user::close_device(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
    }

    void take_until_done(std::uint32_t type) {
        while (writers_ > 0) {
            std::vector<std::uint8_t> map(kMapBytes);
            ASSERT_EQ(map_command(TRAK_GET_AND_CLR_BMP, type, map), 0);
            const std::uint64_t ended = ++moment_;
            std::lock_guard hold(mutex_);
            takes_[type].push_back({ended, std::move(map)});
        }
    }

    void meddle_until_done() {
        std::vector<std::uint8_t> none(kMapBytes), map(kMapBytes);
        while (writers_ > 0) {
            EXPECT_EQ(map_command(TRAK_GET_BMP, TRAK_BMP_INCR, map), 0);
            EXPECT_EQ(map_command(TRAK_MERGE_BMP, TRAK_BMP_DIFF, none), 0);
            int err = 0;
            os_bdev *bdev = user::open_device(kNode, OS_FMODE_READ, &err);
            ASSERT_NE(bdev, nullptr) << err;
            user::close_device(bdev, OS_FMODE_READ);
        }
    }

    std::set<std::uint64_t> missed(std::uint32_t type) {
        std::vector<std::uint8_t> now(kMapBytes);
        EXPECT_EQ(map_command(TRAK_GET_BMP, type, now), 0);
        // For each extent, the last moment at which a command that returned it ended.
        std::map<std::uint64_t, std::uint64_t> last_taken;
        for (const Take &take : takes_[type])
            for (std::uint64_t e = 0; e < kExtents; ++e)
                if ((take.map[e / 8] >> (e % 8)) % 2 == 1 && last_taken[e] < take.ended)
                    last_taken[e] = take.ended;
        std::set<std::uint64_t> lost;
        for (const Write &write : writes_)
            if ((now[write.extent / 8] >> (write.extent % 8)) % 2 == 0 &&
                last_taken[write.extent] < write.began)
                lost.insert(write.extent);
        return lost;
    }

    const std::uint64_t writes_each_ = env_or("TRAK_STRESS_WRITES", 400);
    std::string dir_;
    std::atomic<int> writers_{0};
    std::atomic<std::uint64_t> moment_{0};
    std::mutex mutex_;
    std::vector<Write> writes_;
    std::vector<Take> takes_[2];
};

TEST_F(Race, every_write_is_in_a_returned_map_or_in_the_new_one) {
    constexpr int kWriters = 3;
    writers_ = kWriters;  // before any thread looks
    std::vector<std::thread> threads;
    for (int n = 0; n < kWriters; ++n)
        threads.emplace_back([this, n] { write_until_done(static_cast<unsigned>(n)); });
    threads.emplace_back([this] { take_until_done(TRAK_BMP_INCR); });
    threads.emplace_back([this] { take_until_done(TRAK_BMP_DIFF); });
    threads.emplace_back([this] { meddle_until_done(); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(writes_.size() >= kWriters * writes_each_, true);
    for (std::uint32_t type : {TRAK_BMP_DIFF, TRAK_BMP_INCR}) {
        EXPECT_GT(takes_[type].size(), 0u);
        EXPECT_TRUE(missed(type).empty()) << "type " << type << ": " << missed(type).size();
    }
}

}  // namespace
