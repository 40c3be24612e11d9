// tests/unit/sim/durability_test.cpp: what a power cut may take and what it may not
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>
#include <map>
#include <set>

#include "os/file.h"
#include "os/sim/pages.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::durability {

using sim::Bytes;
using sim::PageStore;

constexpr std::size_t kSector = PageStore::kSector;

// Every state that a sector may be in after a cut.
struct Model {
    static constexpr std::size_t kSectors = 24;
    std::vector<Bytes> states[kSectors];

    Model() {
        for (auto &sector : states)
            sector.assign(1, Bytes(kSector));
    }
    void write(std::size_t offset, const Bytes &data, bool pinned) {
        for (std::size_t s = offset / kSector; s <= (offset + data.size() - 1) / kSector; s++) {
            Bytes next = states[s].back();
            for (std::size_t i = 0; i < kSector; i++) {
                std::size_t at = s * kSector + i;
                if (at >= offset && at < offset + data.size())
                    next[i] = data[at - offset];
            }
            if (pinned)
                states[s].clear();
            states[s].push_back(next);
        }
    }
    void sync() {
        for (auto &sector : states)
            sector.assign(1, sector.back());
    }
    bool allows(std::size_t sector, const Bytes &found) const {
        for (const Bytes &state : states[sector])
            if (state == found)
                return true;
        return false;
    }
};

Bytes read(const PageStore &store, std::size_t offset, std::size_t size) {
    Bytes bytes(size);
    store.read(offset, bytes.data(), size);
    return bytes;
}

TEST(sim_durability, every_sector_after_a_cut_is_one_that_the_model_allows) {
    for (std::uint64_t seed = 1; seed <= 200; seed++) {
        sim::Rng rng(seed);
        PageStore store;
        Model model;
        for (int step = 0; step < 40; step++) {
            std::size_t offset = rng.below(Model::kSectors * kSector - 1);
            std::size_t size = 1 + rng.below(std::min<std::size_t>(
                                       3 * PageStore::kPage, Model::kSectors * kSector - offset));
            Bytes data(size, static_cast<std::uint8_t>(1 + rng.below(255)));
            bool pinned = rng.one_in(5);
            // Whole sectors where they are pinned, as disks have them.
            if (pinned) {
                offset -= offset % kSector;
                data.resize((size + kSector - 1) / kSector * kSector, data[0]);
                data.resize(std::min(data.size(), Model::kSectors * kSector - offset));
            }
            store.write(offset, data.data(), data.size(), pinned);
            model.write(offset, data, pinned);
            if (rng.one_in(15)) {
                store.sync_all();
                model.sync();
            }
        }
        for (std::size_t s = 0; s < Model::kSectors; s++)
            ASSERT_EQ(read(store, s * kSector, kSector), model.states[s].back());
        store.power_cut(rng);
        ASSERT_TRUE(store.clean());
        for (std::size_t s = 0; s < Model::kSectors; s++)
            ASSERT_TRUE(model.allows(s, read(store, s * kSector, kSector)))
                << "seed " << seed << " sector " << s;
    }
}

TEST(sim_durability, a_cut_loses_keeps_and_tears) {
    bool lost = false, kept = false, torn = false, middle = false;
    for (std::uint64_t seed = 1; seed <= 200; seed++) {
        sim::Rng rng(seed);
        PageStore store;
        Bytes first(4 * kSector, 1), second(4 * kSector, 2);
        store.write(0, first.data(), first.size(), false);
        store.write(0, second.data(), second.size(), false);
        store.power_cut(rng);
        std::set<int> seen;
        for (std::size_t s = 0; s < 4; s++) {
            Bytes sector = read(store, s * kSector, kSector);
            ASSERT_EQ(sector, Bytes(kSector, sector[0])) << "torn inside a sector";
            seen.insert(sector[0]);
        }
        lost |= seen == std::set<int>{0};
        kept |= seen == std::set<int>{2};
        middle |= seen.count(1) != 0;
        torn |= seen.size() > 1;
    }
    EXPECT_TRUE(lost);
    EXPECT_TRUE(kept);
    EXPECT_TRUE(middle);
    EXPECT_TRUE(torn);
}

TEST(sim_durability, zeroing_a_large_range_touches_what_is_there) {
    sim::Rng rng(1);
    PageStore store;
    Bytes data(3 * PageStore::kPage, 5);
    store.write(0, data.data(), data.size(), false);
    store.sync_all();
    store.zero(100, std::uint64_t{1} << 40, false);
    EXPECT_EQ(read(store, 99, 2), (Bytes{5, 0}));
    EXPECT_EQ(read(store, 2 * PageStore::kPage, 1), Bytes{0});
    EXPECT_EQ(store.page_count(), 3u);
    Bytes durable(1);
    store.read_durable(200, durable.data(), 1);
    EXPECT_EQ(durable[0], 5);
    store.zero(0, PageStore::kPage, true);
    store.read_durable(200, durable.data(), 1);
    EXPECT_EQ(durable[0], 0);
}

TEST(sim_durability, many_writes_of_one_page_keep_its_bounds) {
    for (std::uint64_t seed = 1; seed <= 100; seed++) {
        sim::Rng rng(seed);
        PageStore store;
        for (int i = 1; i <= 200; i++) {
            Bytes data(kSector, static_cast<std::uint8_t>(i));
            store.write(0, data.data(), kSector, i == 100);
        }
        store.power_cut(rng);
        Bytes sector = read(store, 0, kSector);
        EXPECT_EQ(sector, Bytes(kSector, sector[0]));
        EXPECT_GE(sector[0], 100);
        EXPECT_LE(sector[0], 200);
    }
}

// What the disk holds at a sector after the cut, over many seeds.
std::set<int> after_cut(const std::function<void(os_bdev *)> &body) {
    std::set<int> seen;
    for (std::uint64_t seed = 1; seed <= 200; seed++) {
        Machine machine;
        EXPECT_TRUE(machine.run_until_cut(seed, [&] {
            int err = 0;
            os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
            body(bdev);
            sim::power_cut();
        }));
        Bytes sector = machine.disk.read(0, kSector);
        EXPECT_EQ(sector, Bytes(kSector, sector[0]));
        seen.insert(sector[0]);
    }
    return seen;
}

int write_byte(os_bdev *bdev, std::uint32_t flags, std::uint8_t byte) {
    Bytes data(kSector, byte);
    return sim::submit_device(bdev, OS_BIO_WRITE | flags, 0, data);
}

TEST(sim_durability, a_disk_may_lose_what_was_not_flushed) {
    EXPECT_EQ(after_cut([](os_bdev *bdev) { EXPECT_EQ(write_byte(bdev, 0, 1), 0); }),
              (std::set<int>{0, 1}));
}

TEST(sim_durability, a_disk_never_loses_what_was_flushed) {
    EXPECT_EQ(after_cut([](os_bdev *bdev) {
                  EXPECT_EQ(write_byte(bdev, 0, 1), 0);
                  EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), 0);
              }),
              (std::set<int>{1}));
}

TEST(sim_durability, a_disk_never_loses_forced_writes_but_may_keep_later_ones) {
    EXPECT_EQ(after_cut([](os_bdev *bdev) {
                  EXPECT_EQ(write_byte(bdev, 0, 1), 0);
                  EXPECT_EQ(write_byte(bdev, OS_BIO_FUA, 2), 0);
                  EXPECT_EQ(write_byte(bdev, 0, 3), 0);
              }),
              (std::set<int>{2, 3}));
}

TEST(sim_durability, a_flush_before_the_data_makes_earlier_writes_durable) {
    EXPECT_EQ(after_cut([](os_bdev *bdev) {
                  EXPECT_EQ(write_byte(bdev, 0, 1), 0);
                  EXPECT_EQ(write_byte(bdev, OS_BIO_FLUSH, 2), 0);
              }),
              (std::set<int>{1, 2}));
}

TEST(sim_durability, a_write_under_way_may_be_on_the_medium) {
    EXPECT_EQ(after_cut([](os_bdev *bdev) {
                  sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(kSector, 1));
              }),
              (std::set<int>{0, 1}));
}

TEST(sim_durability, fsync_of_a_bdev_does_not_flush_the_disk) {
    EXPECT_EQ(after_cut([](os_bdev *bdev) {
                  EXPECT_EQ(write_byte(bdev, 0, 1), 0);
                  EXPECT_EQ(os_fsync_bdev(bdev), 0);
              }),
              (std::set<int>{0, 1}));
}

TEST(sim_durability, a_failed_write_leaves_any_part_of_it) {
    std::set<Bytes> seen;
    for (std::uint64_t seed = 1; seed <= 100; seed++) {
        Machine machine;
        machine.run(options_of(seed), [] {
            int err = 0;
            os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
            sim::fail_nth(sim::Fault::kWrite, 1);
            EXPECT_EQ(sim::write_device(bdev, 0, Bytes(2 * kSector, 1)), -EIO);
            sim::close_device(bdev);
        });
        seen.insert({machine.disk.read(0, 1)[0], machine.disk.read(kSector, 1)[0]});
    }
    EXPECT_EQ(seen.size(), 4u);
}

TEST(sim_durability, the_power_may_go_at_any_point) {
    std::set<int> seen;
    for (std::uint64_t points = 1; points <= 60; points++) {
        Machine machine;
        bool cut = machine.run_until_cut(5, [&] {
            sim::power_cut_after(points);
            int err = 0;
            os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
            (void)write_byte(bdev, OS_BIO_FUA, 1);
            sim::close_device(bdev);
        });
        seen.insert(cut ? 2 + machine.disk.read(0, 1)[0] : 1);
    }
    EXPECT_TRUE(seen.count(1));  // the run was over before
    EXPECT_TRUE(seen.count(2));  // before the write
    EXPECT_TRUE(seen.count(3));  // after it
}

TEST(sim_durability, an_orderly_end_makes_everything_durable) {
    Machine machine;
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        machine.run(options_of(seed), [&] {
            int err = 0;
            os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
            EXPECT_EQ(write_byte(bdev, 0, static_cast<std::uint8_t>(seed)), 0);
            sim::close_device(bdev);
        });
        EXPECT_TRUE(machine.run_until_cut(seed, [] { sim::power_cut(); }));
        EXPECT_EQ(machine.disk.read(0, 1)[0], seed);
    }
}

}  // namespace sim_tests::durability
