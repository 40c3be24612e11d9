// tests/scenario/track_writes.cpp: no written extent is ever unmarked while the machine runs
// SPDX-License-Identifier: GPL-2.0-only
//
// Several programs write while others clear, get, set, merge, save and load the maps and restart
// the node or the whole module, with calls of every kind failing. After each round all is quiet
// and every write since the start is looked for (track_model.h).
#include <gtest/gtest.h>

#include "os/sim/seeds.h"
#include "tests/scenario/track_model.h"

namespace {

using namespace track;

class Story {
  public:
    Story(sim::Storage &storage, Shape shape) : storage_(storage), shape_(shape) {}

    void all() {
        ASSERT_EQ(trak_init(), 0);
        ASSERT_EQ(add_filter(shape_), 0);
        start_clean();
        for (int round = 0; round < 4; ++round) {
            busy_round();
            look("after a round");
            if (sim::random(3) == 0)
                restart();
        }
        sim::fail_none();
        storage_.disk(kDisk).heal();
        EXPECT_EQ(trak_cleanup(), 0);
    }

  private:
    void start_clean() {
        ASSERT_EQ(minor_command(TRAK_START_NODE), 0);
        for (std::uint32_t type : {TRAK_BMP_DIFF, TRAK_BMP_INCR}) {
            ASSERT_EQ(bitmap_command(TRAK_CLR_BMP, type), 0);
            model_.discarded(type);
        }
    }

    void busy_round() {
        if (sim::random(2) == 0)
            sim::fail_random(static_cast<sim::Fault>(sim::random(6)), 1 + sim::random(60));
        std::vector<sim::Process *> running;
        for (std::uint64_t n = 1 + sim::random(3); n > 0; --n)
            running.push_back(sim::spawn("writer", [this] { write_some(); }));
        for (std::uint64_t n = sim::random(3); n > 0; --n)
            running.push_back(sim::spawn("agent", [this] { command_some(); }));
        for (sim::Process *process : running)
            sim::join(process);
        sim::fail_none();
    }

    void write_some() {
        int err = 0;
        os_bdev *bdev = sim::open_device(node_dev(), OS_FMODE_READ | OS_FMODE_WRITE, &err);
        if (bdev == nullptr)
            return;  // an injected failure
        const std::uint64_t sectors = shape_.disk_bytes / 512;
        for (std::uint64_t n = 1 + sim::random(6); n > 0; --n) {
            const std::uint64_t sector = sim::random(sectors);
            const std::uint64_t most = sectors - sector < 64 ? sectors - sector : 64;
            sim::Bytes data((1 + sim::random(most)) * 512, static_cast<std::uint8_t>(n));
            const std::uint64_t began = model_.tick();
            (void)sim::write_device(bdev, sector, data);
            // A failed write may have changed the disk, so it counts too.
            model_.wrote(began, sector * 512, data.size(), shape_.extent_size);
        }
        sim::close_device(bdev);
    }

    void command_some() {
        for (std::uint64_t n = 1 + sim::random(4); n > 0; --n) {
            const auto type = static_cast<std::uint32_t>(sim::random(2));
            sim::Bytes bits(shape_.bitmap_bytes());
            switch (sim::random(7)) {
            case 0:
                (void)map_command(TRAK_GET_BMP, type, bits);
                break;
            case 1:
                if (map_command(TRAK_GET_AND_CLR_BMP, type, bits) == 0)
                    model_.took(type, extents_of(bits, shape_.extents()));
                else if (after_the_clear_)
                    model_.discarded(type);
                break;
            case 2:
                (void)bitmap_command(TRAK_CLR_BMP, type);
                model_.discarded(type);
                break;
            case 3:
                for (std::uint8_t &byte : bits)
                    byte = static_cast<std::uint8_t>(sim::random(256));
                (void)map_command(TRAK_SET_BMP, type, bits);
                model_.discarded(type);
                break;
            case 4:
                (void)map_command(TRAK_MERGE_BMP, type, bits);
                break;
            case 5:
                (void)bitmap_command(TRAK_SAVE_BMP, type);
                break;
            default:
                (void)bitmap_command(TRAK_LOAD_BMP, type);
                model_.discarded(type);
                break;
            }
        }
    }

    // Stops the node, or unloads the module, in order. The files are then what the maps are, unless a
    // save failed, which is why faults are off here.
    void restart() {
        ASSERT_EQ(minor_command(TRAK_STOP_NODE), 0);
        if (sim::random(2) == 0) {
            if (sim::random(2) == 0) {
                ASSERT_EQ(trak_cleanup(), 0);
                ASSERT_EQ(trak_init(), 0);
            } else {
                ASSERT_EQ(minor_command(TRAK_DEL_NODE), 0);
            }
            ASSERT_EQ(add_filter(shape_), 0);
        }
        ASSERT_EQ(minor_command(TRAK_START_NODE), 0);
        look("after a restart");
    }

    void look(const char *when) {
        for (std::uint32_t type : {TRAK_BMP_DIFF, TRAK_BMP_INCR}) {
            sim::Bytes bits(shape_.bitmap_bytes());
            ASSERT_EQ(map_command(TRAK_GET_BMP, type, bits), 0);
            const Extents missed = model_.missed(type, extents_of(bits, shape_.extents()));
            EXPECT_TRUE(missed.empty()) << when << ", type " << type << ": " << show(missed);
        }
    }

    sim::Storage &storage_;
    Shape shape_;
    Model model_;
    // A copy-out of the record that fails after the handler cleared the map loses it to the caller:
    // the interface says so.
    const bool after_the_clear_ = true;
};

Shape shape_for(std::uint64_t seed) {
    static constexpr std::uint32_t kExtents[] = {4096, 8192, 65536, 1u << 20};
    const std::uint32_t extent = kExtents[seed % 4];
    // One byte less or more than whole extents, a few sectors, or one extent alone.
    const std::uint64_t sizes[] = {512, 64 * 1024, 64 * 1024 + 512, 1024 * 1024 - 512, 300 * 512};
    return {sizes[seed / 4 % 5] * (1 + seed % 7), extent};
}

TEST(tracking, no_written_extent_is_unmarked_after_any_mix_of_commands_and_failures) {
    sim::for_each_seed(400, [](std::uint64_t seed) {
        const Shape shape = shape_for(seed);
        sim::Storage storage;
        prepare(storage, shape);
        sim::World world(storage, {.seed = seed});
        world.run([&] { Story(storage, shape).all(); });
    });
}

}  // namespace
