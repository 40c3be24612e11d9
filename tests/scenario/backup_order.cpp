// tests/scenario/backup_order.cpp: clear the map, take a snapshot, look again: no change is lost
// SPDX-License-Identifier: GPL-2.0-only
//
// Programs write a node that carries no file system, several requests under way at a time on a disk that
// stalls now and then, while an agent makes one backup after the other in the order that docs/agent.md
// gives: map A is taken and cleared, a snapshot started, map B read without clearing, and what is marked in
// A or B copied from the image over the backup before. The copy must be the image, which must be one instant
// of the disk: read as a whole twice, it is the same. A backup that fails halfway gives A back. At times a
// snapshot of somebody else runs all the while, so that writes wait in the COW queue when the backup's own
// begins.
//
// The model knows nothing of maps and chunks: it is the image itself.
#include <gtest/gtest.h>

#include <algorithm>

#include "os/sim/seeds.h"
#include "tests/support/snap_world.h"

namespace {

using namespace snap_world;

constexpr std::uint64_t kSize = 256 * 1024;
constexpr std::uint64_t kSectors = kSize / OS_SECTOR_SIZE;
constexpr std::uint32_t kOurs = 1, kOther = 2;
constexpr int kBackups = 3;

class Story {
  public:
    Story(Machine &machine, std::uint64_t seed)
        : machine_(machine), extent_size_(4096u << seed % 3), chunk_size_(4096u << seed / 3 % 3) {}

    void all() {
        fill_disk(machine_);
        copy_ = machine_.disk.read(0, kSize);
        make_clean_filter(extent_size_);
        start_others();
        for (int i = 0; i < kBackups && !::testing::Test::HasFailure(); ++i) {
            sim::sleep_ms(static_cast<unsigned>(sim::random(8)));
            backup();
        }
        stop_ = true;
        for (sim::Process *other : others_)
            sim::join(other);
    }

  private:
    void start_others() {
        for (std::uint64_t n = 1 + sim::random(3); n > 0; --n)
            others_.push_back(sim::spawn("writer", [this] { write_until_told(); }));
        if (sim::random(2) == 0)
            others_.push_back(sim::spawn("stall", [this] { stall_until_told(); }));
    }

    void write_until_told() {
        os_bdev *bdev = open_node(0);
        ASSERT_NE(bdev, nullptr);
        std::vector<sim::Request *> under_way;
        while (!stop_ || !under_way.empty()) {
            if (!stop_ && under_way.size() < 4 && sim::random(4) != 0) {
                under_way.push_back(start_one(bdev));
            } else if (!under_way.empty()) {
                EXPECT_EQ(sim::wait_request(under_way.front(), nullptr), 0);
                under_way.erase(under_way.begin());
            } else {
                sim::sleep_ms(1);
            }
        }
        sim::close_device(bdev);
    }

    // Whatever is under way is kept for some time, and ends in no order when that is over.
    void stall_until_told() {
        while (!stop_) {
            machine_.disk.hold(true);
            sim::sleep_ms(static_cast<unsigned>(sim::random(30)));
            machine_.disk.hold(false);
            sim::sleep_ms(static_cast<unsigned>(sim::random(6)));
        }
    }

    sim::Request *start_one(os_bdev *bdev) {
        const std::uint64_t sector = sim::random(kSectors);
        const std::uint64_t sectors =
            1 + sim::random(std::min<std::uint64_t>(kSectors - sector, 24));
        Bytes data(sectors * OS_SECTOR_SIZE);
        for (std::uint8_t &byte : data)
            byte = static_cast<std::uint8_t>(sim::random(256));
        return sim::start_request(bdev, OS_BIO_WRITE, sector, std::move(data));
    }

    void backup() {
        const bool other = sim::random(3) == 0;
        if (other) {
            ASSERT_EQ(add_snap(kOther, chunk_size_), 0);
            ASSERT_EQ(start(kOther), 0);
        }
        // The node of the snapshot may be there before the map is cleared, or be made after it.
        const bool early = sim::random(2) == 0;
        if (early) {
            ASSERT_EQ(add_snap(kOurs, chunk_size_), 0);
        }
        Bytes map(filter(0).incr_bmp_size);
        ASSERT_EQ(bmp_data_command(TRAK_GET_AND_CLR_BMP, 0, TRAK_BMP_INCR, map), 0);
        if (sim::random(5) == 0) {
            ASSERT_EQ(bmp_data_command(TRAK_MERGE_BMP, 0, TRAK_BMP_INCR, map), 0);
        } else {
            if (!early) {
                ASSERT_EQ(add_snap(kOurs, chunk_size_), 0);
            }
            copy_marked(map);
        }
        if (node(kOurs) != nullptr)
            drop(kOurs);
        if (other)
            drop(kOther);
    }

    void copy_marked(Bytes &map) {
        ASSERT_EQ(start(kOurs), 0);
        Bytes again(map.size());
        ASSERT_EQ(bmp_data_command(TRAK_GET_BMP, 0, TRAK_BMP_INCR, again), 0);
        for (std::size_t i = 0; i < map.size(); ++i)
            map[i] |= again[i];
        const std::uint64_t extent_sectors = extent_size_ / OS_SECTOR_SIZE;
        for (std::uint64_t n = 0; n * extent_sectors < kSectors; ++n) {
            if (!bit(map, n))
                continue;
            const std::uint64_t first = n * extent_sectors;
            const Bytes read = contents(kOurs, first, std::min(extent_sectors, kSectors - first));
            std::copy(read.begin(), read.end(),
                      copy_.begin() + static_cast<std::ptrdiff_t>(n * extent_size_));
        }
        const Bytes image = contents(kOurs, 0, kSectors);
        EXPECT_BYTES(copy_, image);
        sim::sleep_ms(static_cast<unsigned>(sim::random(20)));
        EXPECT_BYTES(contents(kOurs, 0, kSectors), image);
    }

    void drop(std::uint32_t minor) {
        if (is_started(minor)) {
            EXPECT_EQ(stop(minor), 0);
        }
        EXPECT_EQ(del(minor), 0);
    }

    Machine &machine_;
    std::uint32_t extent_size_, chunk_size_;
    Bytes copy_;  // the backups so far
    bool stop_ = false;
    std::vector<sim::Process *> others_;
};

TEST(backup_order, what_is_marked_before_or_after_the_snapshot_makes_the_copy_the_image) {
    sim::for_each_seed(120, [](std::uint64_t seed) {
        Machine machine(kSize);
        prepare(machine);
        boot(machine, [&] { Story(machine, seed).all(); }, 1, {.seed = seed});
    });
}

}  // namespace
