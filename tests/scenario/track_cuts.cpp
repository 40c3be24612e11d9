// tests/scenario/track_cuts.cpp: what a change map says after a power cut
// SPDX-License-Identifier: GPL-2.0-only
//
// The power goes at any point of a run. After the next boot a map is exact, or says that
// everything changed, or the cut fell into the one known window: a write was under way and the
// dirty flag that it scheduled had not reached its file, so that the file looks clean. The guarded
// attach (a marker beside the files, there from before the start until an orderly stop) leaves no
// such run.
#include <gtest/gtest.h>

#include "os/sim/seeds.h"
#include "tests/scenario/track_model.h"

namespace {

using namespace track;

constexpr std::uint32_t kTypes[] = {TRAK_BMP_DIFF, TRAK_BMP_INCR};

struct Tally {
    std::uint64_t cuts = 0;
    std::uint64_t exact = 0;
    std::uint64_t everything = 0;
    std::uint64_t window = 0;
};

class Machine {
  public:
    Machine(std::uint64_t seed, bool guarded) : seed_(seed), guarded_(guarded) {
        prepare(storage_, shape_);
    }

    void run(Tally &tally) {
        for (std::uint64_t boot = 0; boot < 4; ++boot) {
            sim::World world(storage_, {.seed = seed_ * 16 + boot});
            try {
                world.run([&] { one_boot(boot, tally); });
            } catch (const sim::PowerCut &) {
                ++tally.cuts;
            }
            if (::testing::Test::HasFailure())
                return;
        }
    }

  private:
    void one_boot(std::uint64_t boot, Tally &tally) {
        ASSERT_EQ(trak_init(), 0);
        ASSERT_EQ(add_filter(shape_), 0);
        if (boot > 0)
            judge(tally);
        attach();
        if (sim::random(4) != 0)
            sim::power_cut_after(1 + sim::random(1500));
        work();
        detach();
    }

    // The guarded attach, step by step as the client library does it.
    void attach() {
        if (guarded_) {
            for (std::uint32_t type : kTypes) {
                if (storage_.exists(kMarker)) {
                    ASSERT_EQ(set_everything(type), 0);
                }
            }
            const sim::Bytes text{'x'};
            storage_.write_file(kMarker, text);
        }
        ASSERT_EQ(minor_command(TRAK_START_NODE), 0);
    }

    void detach() {
        ASSERT_EQ(minor_command(TRAK_STOP_NODE), 0);
        ASSERT_EQ(trak_cleanup(), 0);
        sim::yield();  // the power may go between the stop and the marker's removal
        if (guarded_)
            storage_.remove(kMarker);
    }

    void work() {
        for (std::uint64_t round = 0; round < 3; ++round) {
            int err = 0;
            os_bdev *bdev = sim::open_device(node_dev(), OS_FMODE_READ | OS_FMODE_WRITE, &err);
            ASSERT_NE(bdev, nullptr) << err;
            sim::Process *writer = sim::spawn("writer", [&] { write_some(bdev); });
            if (sim::random(2) == 0)
                agent();
            sim::join(writer);
            sim::close_device(bdev);  // saves the maps
        }
    }

    void write_some(os_bdev *bdev) {
        for (std::uint64_t n = 1 + sim::random(4); n > 0; --n) {
            const std::uint64_t sector = sim::random(shape_.disk_bytes / 512 - 8);
            sim::Bytes data((1 + sim::random(8)) * 512, 7);
            model_.wrote(model_.tick(), sector * 512, data.size(), shape_.extent_size);
            (void)sim::write_device(bdev, sector, data);
        }
    }

    void agent() {
        const std::uint32_t type = kTypes[sim::random(2)];
        sim::Bytes bits(shape_.bitmap_bytes());
        // The map counts as taken from the moment the command may have cleared it in the file.
        std::uint64_t kind = sim::random(3);
        if (kind == 0) {
            model_.discarded(type);
            ASSERT_EQ(bitmap_command(TRAK_CLR_BMP, type), 0);
            model_.discarded(type);
        } else if (kind == 1) {
            model_.discarded(type);
            ASSERT_EQ(map_command(TRAK_GET_AND_CLR_BMP, type, bits), 0);
            model_.took(type, extents_of(bits, shape_.extents()));
        } else {
            ASSERT_EQ(bitmap_command(TRAK_SAVE_BMP, type), 0);
        }
    }

    void judge(Tally &tally) {
        const bool marker = guarded_ && storage_.exists(kMarker);
        for (std::uint32_t type : kTypes) {
            sim::Bytes bits(shape_.bitmap_bytes());
            ASSERT_EQ(map_command(TRAK_GET_BMP, type, bits), 0);
            const Extents marked = extents_of(bits, shape_.extents());
            const Extents missed = model_.missed(type, marked);
            if (marked.size() == shape_.extents()) {
                ++tally.everything;
            } else if (missed.empty()) {
                ++tally.exact;
            } else {
                ++tally.window;
                EXPECT_TRUE(!guarded_ || marker) << "missed " << show(missed);
                EXPECT_TRUE(file_was_clean(type));
                if (marker)
                    continue;            // attach() sets everything next
                model_.discarded(type);  // told; later boots are judged on their own
            }
        }
    }

    // The window is this and nothing else: the file said that it held the whole map.
    bool file_was_clean(std::uint32_t type) {
        const std::string path =
            std::string(kBmpDir) + "/trak0." + (type == TRAK_BMP_INCR ? "incr" : "diff");
        const sim::Bytes file = storage_.read_file(path);
        return file.size() == 16 + shape_.bitmap_bytes() && file[7] == 0;
    }

    std::uint64_t seed_;
    bool guarded_;
    Shape shape_{512 * 1024, 4096};
    sim::Storage storage_;
    Model model_;
};

Tally run_seeds(bool guarded) {
    Tally tally;
    sim::for_each_seed(300, [&](std::uint64_t seed) { Machine(seed, guarded).run(tally); });
    std::printf("%s: %llu power cuts; maps after a boot: %llu exact, %llu everything changed, %llu "
                "in the window between a write and its flag%s\n",
                guarded ? "guarded attach" : "raw attach",
                static_cast<unsigned long long>(tally.cuts),
                static_cast<unsigned long long>(tally.exact),
                static_cast<unsigned long long>(tally.everything),
                static_cast<unsigned long long>(tally.window),
                guarded ? ", all of them told by the marker" : "");
    return tally;
}

TEST(power_cut, leaves_a_map_that_is_exact_or_full_but_for_the_window_before_the_flag) {
    const Tally tally = run_seeds(false);
    EXPECT_GT(tally.cuts, 0u);
    EXPECT_GT(tally.exact, 0u);
    EXPECT_GT(tally.everything, 0u);
}

TEST(power_cut, never_misses_an_extent_after_a_guarded_attach) {
    const Tally tally = run_seeds(true);
    EXPECT_GT(tally.cuts, 0u);
}

}  // namespace
