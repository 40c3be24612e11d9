// tests/unit/block/aio_test.cpp: clones in flight: order, completion, destruction
// SPDX-License-Identifier: GPL-2.0-only
#include <memory>

#include "driver/block/trak_aio_26.h"
#include "driver/module/log.h"
#include "os/disk.h"
#include "os/sim/seeds.h"
#include "tests/support/driver_world.h"

using namespace driver_world;

namespace {

// A request of somebody above the tracker: a bio with pages of its own that counts its completions.
struct Parent {
    os_bio *bio;
    std::vector<os_page *> pages;
    int ended = 0;
    int error = 1;
    std::function<void()> on_end;

    Parent(os_bdev *bdev, std::uint64_t sector, std::uint32_t sectors,
           std::uint32_t rw = OS_BIO_WRITE)
        : bio(os_bio_alloc(OS_GFP_KERNEL, 8)) {
        for (std::uint32_t left = sectors * OS_SECTOR_SIZE; left > 0;) {
            const std::uint32_t part = std::min<std::uint32_t>(left, OS_PAGE_SIZE);
            pages.push_back(os_alloc_page(OS_GFP_KERNEL));
            EXPECT_TRUE(os_bio_add_page(bio, pages.back(), part, 0));
            left -= part;
        }
        os_bio_set_sector(bio, sector);
        os_bio_set_rw(bio, rw);
        os_bio_set_bdev(bio, bdev);
        os_bio_set_private(bio, this);
        os_bio_set_end_io(bio, [](os_bio *b, int err) {
            auto *self = static_cast<Parent *>(os_bio_private(b));
            self->ended++;
            self->error = err;
            if (self->on_end)
                self->on_end();
        });
    }
    ~Parent() {
        for (os_page *page : pages)
            os_free_page(page);
        os_bio_put(bio);
    }
    Parent(const Parent &) = delete;
    Parent &operator=(const Parent &) = delete;
};

// Runs fn with one tracker and the machine's disk open; the tracker is fn's to destroy.
void with_tracker(const std::function<void(aio_tracker &, os_bdev *, Machine &)> &fn,
                  std::uint64_t seed = 1, int debug = 1) {
    Machine machine(64 << 20);
    sim::Options options;
    options.seed = seed;
    boot_bare(
        machine,
        [&] {
            trak_debug = debug;
            os_bdev *bdev = os_open_by_devnum(kDisk, OS_FMODE_READ | OS_FMODE_WRITE);
            ASSERT_FALSE(os_is_err(bdev));
            aio_tracker tracker{};
            ASSERT_EQ(trak_aio_init(&tracker), 0);
            fn(tracker, bdev, machine);
            sim::fail_none();
            os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
            trak_debug_destroy();
        },
        options);
}

void submit(os_bio *clone, os_bdev *bdev) {
    os_bio_set_bdev(clone, bdev);
    os_generic_make_request(clone);
}

std::uint64_t allocations() {
    return sim::fault_points(sim::Fault::kAlloc);
}

// How many allocations the clone of such a request takes: the item, its blocks, and the clone.
std::uint64_t allocations_of_clone(aio_tracker &tracker, os_bdev *bdev, std::uint64_t sector,
                                   std::uint32_t sectors) {
    Parent parent(bdev, sector, sectors);
    const std::uint64_t before = allocations();
    os_bio *clone = trak_aio_clone(&tracker, parent.bio, 0, OS_GFP_NOIO);
    EXPECT_NE(clone, nullptr);
    const std::uint64_t count = allocations() - before;
    os_bio_put(clone);
    EXPECT_EQ(parent.ended, 0);  // dropped, not ended
    return count;
}

}  // namespace

TEST(aio, blocks_are_four_kib_wherever_the_request_starts) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        const std::uint64_t one_block = allocations_of_clone(tracker, bdev, 0, 1);
        EXPECT_EQ(allocations_of_clone(tracker, bdev, 7, 1), one_block);
        EXPECT_EQ(allocations_of_clone(tracker, bdev, 8, 8), one_block);
        EXPECT_EQ(allocations_of_clone(tracker, bdev, 4, 8), one_block + 1);
        EXPECT_EQ(allocations_of_clone(tracker, bdev, 7, 10), one_block + 2);
        EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
    });
}

TEST(aio, requests_in_one_block_that_do_not_overlap_go_side_by_side) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        Parent a(bdev, 0, 4), b(bdev, 4, 4), c(bdev, 3, 1);
        os_bio *first = trak_aio_clone(&tracker, a.bio, 0, OS_GFP_NOIO);
        os_bio *second = trak_aio_clone(&tracker, b.bio, 0, OS_GFP_NOIO);
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(trak_aio_clone(&tracker, c.bio, 0, OS_GFP_NOIO), nullptr);
        os_bio_put(first);
        os_bio_put(second);
        EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
    });
}

TEST(aio, blocks_that_share_a_bucket_are_told_apart) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        Parent a(bdev, 8, 8), b(bdev, 8 + 4096 * 8, 8);
        os_bio *first = trak_aio_clone(&tracker, a.bio, 0, OS_GFP_NOIO);
        os_bio *second = trak_aio_clone(&tracker, b.bio, 0, OS_GFP_NOIO);
        ASSERT_NE(first, nullptr);
        EXPECT_NE(second, nullptr);
        os_bio_put(first);
        os_bio_put(second);
        EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
    });
}

TEST(aio, an_overlap_is_refused_without_waiting_and_leaves_nothing) {
    with_tracker(
        [](aio_tracker &tracker, os_bdev *bdev, Machine &) {
            Parent a(bdev, 0, 16), b(bdev, 15, 16);
            os_bio *first = trak_aio_clone(&tracker, a.bio, 0, OS_GFP_NOIO);
            ASSERT_NE(first, nullptr);
            sim::clear_log();
            EXPECT_EQ(trak_aio_clone(&tracker, b.bio, 0, OS_GFP_NOIO), nullptr);
            EXPECT_TRUE(sim::log().empty()) << whole_log();
            os_bio_put(first);
            os_bio *second = trak_aio_clone(&tracker, b.bio, 0, OS_GFP_NOIO);
            EXPECT_NE(second, nullptr);
            os_bio_put(second);
            EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
        },
        1, 4);
}

TEST(aio, a_clone_reaches_the_disk_and_ends_its_parent_once) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &machine) {
        Parent parent(bdev, 24, 8);
        std::memset(os_page_address(parent.pages[0]), 0x3c, OS_PAGE_SIZE);
        os_bio *clone = trak_aio_clone(&tracker, parent.bio, 1, OS_GFP_NOIO);
        ASSERT_NE(clone, nullptr);
        submit(clone, bdev);
        sim::wait_until([&] { return parent.ended > 0; });
        EXPECT_EQ(trak_aio_destroy(&tracker, 1), 0);
        EXPECT_EQ(parent.ended, 1);
        EXPECT_EQ(parent.error, 0);
        EXPECT_EQ(machine.disk.read(24 * 512, 4096), Bytes(4096, 0x3c));
    });
}

TEST(aio, completion_hands_on_index_and_error) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        Parent parent(bdev, 0, 24);
        os_bio *clone = trak_aio_clone(&tracker, parent.bio, 0, OS_GFP_NOIO);
        ASSERT_NE(clone, nullptr);
        os_bio_set_idx(clone, 2);
        os_bio_endio(clone, -ENOSPC);
        EXPECT_EQ(parent.ended, 1);
        EXPECT_EQ(parent.error, -ENOSPC);
        EXPECT_EQ(os_bio_idx(parent.bio), 2);
        EXPECT_EQ(trak_aio_destroy(&tracker, 1), 0);
    });
}

// In the parent's own completion the clone is still in the index, and blocks nobody.
TEST(aio, a_completed_request_does_not_block_while_its_clone_lives) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        Parent a(bdev, 0, 8), b(bdev, 0, 8);
        os_bio *second = nullptr;
        a.on_end = [&] { second = trak_aio_clone(&tracker, b.bio, 0, OS_GFP_ATOMIC); };
        os_bio *first = trak_aio_clone(&tracker, a.bio, 0, OS_GFP_NOIO);
        ASSERT_NE(first, nullptr);
        submit(first, bdev);
        sim::wait_until([&] { return second != nullptr; });
        os_bio_put(second);
        EXPECT_EQ(trak_aio_destroy(&tracker, 1), 0);
    });
}

TEST(aio, waiting_clones_follow_the_requests_that_they_overlap) {
    with_tracker(
        [](aio_tracker &tracker, os_bdev *bdev, Machine &machine) {
            Parent a(bdev, 0, 8), b(bdev, 4, 8);
            std::memset(os_page_address(a.pages[0]), 1, OS_PAGE_SIZE);
            std::memset(os_page_address(b.pages[0]), 2, OS_PAGE_SIZE);
            machine.disk.hold(true);
            submit(trak_aio_clone(&tracker, a.bio, 1, OS_GFP_NOIO), bdev);
            sim::Process *waiter = sim::spawn("waiter", [&] {
                os_bio *clone = trak_aio_clone(&tracker, b.bio, 1, OS_GFP_NOIO);
                EXPECT_EQ(a.ended, 1);
                submit(clone, bdev);
            });
            sim::wait_until([] { return logged(3, "trak_aio_clone(): waiting..."); });
            EXPECT_EQ(a.ended, 0);
            machine.disk.hold(false);
            sim::join(waiter);
            sim::wait_until([&] { return b.ended > 0; });
            EXPECT_EQ(trak_aio_destroy(&tracker, 1), 0);
            EXPECT_EQ(machine.disk.read(0, 512)[0], 1);
            EXPECT_EQ(machine.disk.read(4 * 512, 512)[0], 2);
        },
        1, 3);
}

TEST(aio, every_failed_allocation_of_a_clone_gives_null_and_a_message) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        Parent parent(bdev, 4, 16);  // item, three blocks, clone
        for (std::uint64_t nth = 1;; ++nth) {
            sim::clear_log();
            sim::fail_nth(sim::Fault::kAlloc, nth);
            os_bio *clone = trak_aio_clone(&tracker, parent.bio, 0, OS_GFP_NOIO);
            sim::fail_none();
            if (clone) {
                EXPECT_EQ(nth, 6u);
                os_bio_put(clone);
                break;
            }
            EXPECT_TRUE(logged_error(nth < 5 ? "trak_aio_clone(): Memory allocation failed."
                                             : "trak_aio_clone(): Failed to clone BIO."))
                << nth << "\n"
                << whole_log();
        }
        EXPECT_EQ(parent.ended, 0);
        EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
    });
}

TEST(aio, every_failed_allocation_of_a_tracker_is_undone) {
    Machine machine;
    boot_bare(machine, [] {
        for (std::uint64_t nth = 1;; ++nth) {
            aio_tracker tracker{};
            sim::clear_log();
            trak_logf(255, "%s(): the buffer is there now");
            sim::fail_nth(sim::Fault::kAlloc, nth);
            const int rc = trak_aio_init(&tracker);
            sim::fail_none();
            if (rc == 0) {
                EXPECT_GE(nth, 6u);  // hash, two caches, two pools
                EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
                break;
            }
            EXPECT_EQ(rc, -ENOMEM);
            EXPECT_EQ(tracker.hash, nullptr);
            EXPECT_TRUE(logged_error("trak_aio_init(): Memory allocation failed."));
        }
        trak_debug_destroy();
    });
}

TEST(aio, pools_live_from_the_first_tracker_to_the_last) {
    Machine machine;
    boot_bare(machine, [] {
        trak_debug = 2;
        aio_tracker a{}, b{};
        const std::uint64_t before = allocations();
        ASSERT_EQ(trak_aio_init(&a), 0);
        const std::uint64_t of_first = allocations() - before;
        ASSERT_EQ(trak_aio_init(&b), 0);
        EXPECT_LT(allocations() - before - of_first, of_first);
        EXPECT_EQ(trak_aio_destroy(&a, 0), 0);
        EXPECT_FALSE(logged(2, "trak_aio_destroy(): Destroying global AIO allocators."));
        EXPECT_EQ(trak_aio_destroy(&b, 0), 0);
        EXPECT_EQ(count_messages(2, "trak_aio_destroy(): Destroying global AIO allocators."), 1u);
        const std::uint64_t again = allocations();
        ASSERT_EQ(trak_aio_init(&a), 0);
        EXPECT_GT(allocations() - again, 4u);
        EXPECT_EQ(trak_aio_destroy(&a, 1), 0);
        EXPECT_EQ(count_messages(2, "trak_aio_init(): Initializing AIO tracker."), 3u);
        EXPECT_EQ(count_messages(2, "trak_aio_destroy(): Destroying AIO tracker."), 3u);
        trak_debug_destroy();
    });
}

TEST(aio, destroy_fails_the_parents_and_leaves_the_clones_to_themselves) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &machine) {
        Parent a(bdev, 0, 8), b(bdev, 80, 16);
        machine.disk.hold(true);
        submit(trak_aio_clone(&tracker, a.bio, 1, OS_GFP_NOIO), bdev);
        submit(trak_aio_clone(&tracker, b.bio, 1, OS_GFP_NOIO), bdev);
        EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
        EXPECT_EQ(a.ended, 1);
        EXPECT_EQ(a.error, -EIO);
        EXPECT_EQ(b.error, -EIO);
        machine.disk.hold(false);
        sim::wait_until([&] { return machine.disk.read(80 * 512, 1).size() == 1; });
        sim::sleep_ms(1000);  // the clones end and free themselves: the boot's end looks for leaks
        EXPECT_EQ(a.ended, 1);
        EXPECT_EQ(b.ended, 1);
    });
}

TEST(aio, destroy_with_waiting_lets_every_clone_end) {
    with_tracker([](aio_tracker &tracker, os_bdev *bdev, Machine &) {
        Parent a(bdev, 0, 8), b(bdev, 80, 16);
        submit(trak_aio_clone(&tracker, a.bio, 1, OS_GFP_NOIO), bdev);
        submit(trak_aio_clone(&tracker, b.bio, 1, OS_GFP_NOIO), bdev);
        EXPECT_EQ(trak_aio_destroy(&tracker, 1), 0);
        EXPECT_EQ(a.ended + b.ended, 2);
        EXPECT_EQ(a.error, 0);
        EXPECT_EQ(b.error, 0);
    });
}

TEST(aio, completions_that_race_with_destroy_end_each_parent_once) {
    sim::for_each_seed(150, [](std::uint64_t seed) {
        with_tracker(
            [](aio_tracker &tracker, os_bdev *bdev, Machine &) {
                std::vector<std::unique_ptr<Parent>> parents;
                for (std::uint64_t i = 0; i < 6; ++i) {
                    parents.push_back(std::make_unique<Parent>(bdev, i * 12, 12));
                    submit(trak_aio_clone(&tracker, parents.back()->bio, 1, OS_GFP_NOIO), bdev);
                }
                for (std::uint64_t i = sim::random(40); i > 0; --i)
                    sim::yield();
                EXPECT_EQ(trak_aio_destroy(&tracker, 0), 0);
                aio_tracker next{};  // pools that are made anew meanwhile
                EXPECT_EQ(trak_aio_init(&next), 0);
                sim::sleep_ms(1000);
                EXPECT_EQ(trak_aio_destroy(&next, 0), 0);
                for (const auto &parent : parents) {
                    EXPECT_EQ(parent->ended, 1);
                    EXPECT_TRUE(parent->error == 0 || parent->error == -EIO);
                }
            },
            seed);
    });
}

TEST(aio, null_arguments_are_bugs) {
    const std::function<void(aio_tracker &, os_bio *)> calls[] = {
        [](aio_tracker &, os_bio *) { EXPECT_EQ(trak_aio_init(nullptr), 0); },
        [](aio_tracker &t, os_bio *) { EXPECT_FALSE(trak_aio_clone(&t, nullptr, 0, OS_GFP_NOIO)); },
        [](aio_tracker &, os_bio *b) { EXPECT_FALSE(trak_aio_clone(nullptr, b, 0, OS_GFP_NOIO)); },
        [](aio_tracker &, os_bio *) { trak_aio_end_io(nullptr, 0); },
        [](aio_tracker &, os_bio *) { trak_aio_destructor(nullptr); },
        [](aio_tracker &, os_bio *) { trak_aio_destroy(nullptr, 0); },
    };
    for (const auto &call : calls) {
        EXPECT_THROW(with_tracker([&](aio_tracker &tracker, os_bdev *bdev, Machine &) {
                         call(tracker, (new Parent(bdev, 0, 1))->bio);
                     }),
                     sim::Failure);
    }
}
