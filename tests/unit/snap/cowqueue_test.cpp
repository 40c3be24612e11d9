// tests/unit/snap/cowqueue_test.cpp: requests that wait for the COW thread
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/snap/own_bio.h"

using namespace snap_world;
using namespace snap_test;

namespace {

using Bios = std::vector<os_bio *>;

// fn with a queue, in a loaded driver whose own queues are none.
void with_queue(const std::function<void(trak_cowqueue &)> &fn, int debug = 3) {
    Machine machine;
    boot(
        machine,
        [&] {
            trak_cowqueue queue;
            ASSERT_EQ(trak_cowqueue_init(&queue), 0);
            fn(queue);
            trak_cowqueue_destroy(&queue);
        },
        debug);
}

// Declared behind the bios of a test: they leave the queue before they go.
struct Purge {
    trak_cowqueue &queue;
    explicit Purge(trak_cowqueue &q) : queue(q) {}
    ~Purge() { trak_cowqueue_purge(&queue); }
};

int append(trak_cowqueue &queue, OwnBio &bio, std::uint32_t minor = 1) {
    return trak_cowqueue_append(&queue, minor, bio.get(), OS_GFP_NOIO);
}

std::size_t records_in_bucket(trak_cowqueue &queue, std::uint64_t block) {
    std::size_t count = 0;
    const trak_list *bucket = &queue.hash[block & 0x3fff];
    for (const trak_list *at = bucket->next; at != bucket; at = at->next)
        ++count;
    return count;
}

}  // namespace

TEST(cowqueue, read_that_overlaps_nothing_goes_behind_the_head) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio head(0, 4096, kWrite), tail(64, 4096, kWrite), read(1000, 4096, kRead);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, head), 0);
        ASSERT_EQ(append(queue, tail), 0);
        ASSERT_EQ(append(queue, read), 0);
        EXPECT_EQ(queued(queue), (Bios{head.get(), read.get(), tail.get()}));
        EXPECT_EQ(queue.cnt.load(), 3);
    });
}

TEST(cowqueue, read_that_overlaps_the_tail_goes_behind_it) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio head(0, 4096, kWrite), tail(64, 4096, kWrite), read(70, 512, kRead);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, head), 0);
        ASSERT_EQ(append(queue, tail), 0);
        ASSERT_EQ(append(queue, read), 0);
        EXPECT_EQ(queued(queue), (Bios{head.get(), tail.get(), read.get()}));
    });
}

TEST(cowqueue, read_that_overlaps_the_head_alone_goes_behind_it) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio head(0, 4096, kWrite), tail(64, 4096, kWrite), read(7, 512, kRead);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, head), 0);
        ASSERT_EQ(append(queue, tail), 0);
        ASSERT_EQ(append(queue, read), 0);
        EXPECT_EQ(queued(queue), (Bios{head.get(), read.get(), tail.get()}));
    });
}

TEST(cowqueue, read_goes_behind_the_last_of_those_that_it_overlaps) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio head(900, 512, kWrite), a(0, 4096, kWrite), b(4, 4096, kRead), c(64, 512, kWrite);
        OwnBio read(0, 4096, kRead);
        const Purge purge(queue);
        for (OwnBio *bio : {&head, &a, &c})
            ASSERT_EQ(append(queue, *bio), 0);
        ASSERT_EQ(append(queue, b), 0);
        EXPECT_EQ(queued(queue), (Bios{head.get(), a.get(), b.get(), c.get()}));
        ASSERT_EQ(append(queue, read), 0);
        EXPECT_EQ(queued(queue), (Bios{head.get(), a.get(), b.get(), read.get(), c.get()}));
    });
}

TEST(cowqueue, write_goes_to_the_tail_whatever_it_overlaps) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio a(0, 4096, kWrite), b(64, 4096, kWrite), c(0, 4096, kWrite);
        OwnBio discard(0, 4096, OS_BIO_DISCARD);
        const Purge purge(queue);
        for (OwnBio *bio : {&a, &b, &c, &discard})
            ASSERT_EQ(append(queue, *bio), 0);
        EXPECT_EQ(queued(queue), (Bios{a.get(), b.get(), c.get(), discard.get()}));
    });
}

TEST(cowqueue, bio_across_a_block_boundary_has_a_record_for_each_block) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio bio(7, 4096, kWrite);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, bio), 0);
        EXPECT_EQ(records_in_bucket(queue, 0), 1u);
        EXPECT_EQ(records_in_bucket(queue, 1), 1u);
        EXPECT_EQ(records_in_bucket(queue, 2), 0u);
    });
}

TEST(cowqueue, request_without_data_overlaps_nothing_and_has_no_record) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio empty(0, 0, kWrite), beside(0, 4096, kWrite);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, empty), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 1, beside.get()), 0);
        ASSERT_EQ(append(queue, beside), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 1, empty.get()), 0);
        EXPECT_EQ(records_in_bucket(queue, 0), 1u);
    });
}

TEST(cowqueue, far_blocks_of_one_bucket_do_not_overlap) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio near(8, 4096, kWrite), far(8 + 16384 * 8, 4096, kWrite);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, near), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 1, far.get()), 0);
        ASSERT_EQ(append(queue, far), 0);
        EXPECT_EQ(records_in_bucket(queue, 1), 2u);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 1, far.get()), 1);
    });
}

TEST(cowqueue, sectors_decide_what_overlaps_within_a_block) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio first(0, 2048, kWrite), second(4, 2048, kWrite), both(3, 1024, kRead);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, first), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 1, second.get()), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 0, 1, both.get()), 1);
        EXPECT_EQ(trak_cowqueue_find_overlap_range(&queue, 0, 1, 4, 4), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_range(&queue, 0, 1, 3, 1), 1);
        EXPECT_EQ(trak_cowqueue_find_overlap_range(&queue, 0, 1, 0, std::uint64_t{1} << 40), 1);
    });
}

TEST(cowqueue, search_looks_at_the_kinds_that_it_is_asked_for) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio read(0, 4096, kRead), write(64, 4096, kWrite);
        OwnBio at_read(0, 512, kRead), at_write(64, 512, kRead);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, read), 0);
        ASSERT_EQ(append(queue, write), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 0, at_read.get()), 1);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 0, 1, at_read.get()), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 1, 0, at_write.get()), 0);
        EXPECT_EQ(trak_cowqueue_find_overlap_req(&queue, 0, 1, at_write.get()), 1);
    });
}

TEST(cowqueue, purge_ends_every_request_with_an_error) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio a(0, 4096, kWrite), b(64, 4096, kRead), c(0, 512, kWrite);
        for (OwnBio *bio : {&a, &b, &c})
            ASSERT_EQ(append(queue, *bio), 0);
        EXPECT_EQ(trak_cowqueue_purge(&queue), 0);
        EXPECT_EQ(queue.cnt.load(), 0);
        for (OwnBio *bio : {&a, &b, &c}) {
            EXPECT_EQ(bio->ends(), 1);
            EXPECT_EQ(bio->error(), -EIO);
        }
        EXPECT_TRUE(logged(1, "trak_cowqueue_purge(): Purging all COW queue requests"));
        EXPECT_EQ(count_messages(3, "trak_cowqueue_append(): Appending new request..."), 3u);
    });
}

TEST(cowqueue, removed_request_leaves_no_record_and_no_end) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio a(7, 4096, kWrite);
        const Purge purge(queue);
        ASSERT_EQ(append(queue, a), 0);
        {
            const trak_spin_guard guard(&queue.spin);
            trak_cowqueue_remove(&queue, trak_container_of(queue.requests.next, cow_request, link));
        }
        EXPECT_EQ(queue.cnt.load(), 0);
        EXPECT_EQ(records_in_bucket(queue, 0) + records_in_bucket(queue, 1), 0u);
        EXPECT_EQ(a.ends(), 0);
    });
}

TEST(cowqueue, last_one_takes_the_caches_down_and_the_next_makes_them_again) {
    Machine machine;
    boot(
        machine,
        [&] {
            trak_cowqueue one, two;
            ASSERT_EQ(trak_cowqueue_init(&one), 0);
            ASSERT_EQ(trak_cowqueue_init(&two), 0);
            trak_cowqueue_destroy(&one);
            const char *gone = "trak_cowqueue_destroy(): Destroying global COW allocators.";
            EXPECT_FALSE(logged(2, gone));
            EXPECT_TRUE(logged(1, "trak_cowqueue_destroy(): Destroying COW queue"));
            trak_cowqueue_destroy(&two);
            EXPECT_TRUE(logged(2, gone));
            ASSERT_EQ(trak_cowqueue_init(&one), 0);
            OwnBio bio(0, 4096, kWrite);
            EXPECT_EQ(append(one, bio), 0);
            trak_cowqueue_destroy(&one);
            EXPECT_EQ(bio.error(), -EIO);
            EXPECT_EQ(count_messages(2, gone), 2u);
        },
        2);
}

TEST(cowqueue, init_without_memory_leaves_nothing) {
    Machine machine;
    boot(machine, [&] {
        for (std::uint64_t nth = 1; nth <= 5; ++nth) {
            sim::clear_log();
            sim::fail_nth(sim::Fault::kAlloc, nth);
            trak_cowqueue queue;
            EXPECT_EQ(trak_cowqueue_init(&queue), -ENOMEM) << nth;
            sim::fail_none();
            EXPECT_EQ(queue.hash, nullptr);
            const char *text = nth == 1 ? "trak_cowqueue_init(): Failed to create queue hash."
                                        : "trak_cowqueue_init(): Memory allocation failed.";
            EXPECT_TRUE(logged_error(text)) << nth << whole_log();
        }
    });
}

TEST(cowqueue, append_without_memory_leaves_the_queue_as_it_was) {
    with_queue([](trak_cowqueue &queue) {
        OwnBio bio(7, 4096, kWrite);
        const Purge purge(queue);
        for (std::uint64_t nth = 1; nth <= 3; ++nth) {
            sim::clear_log();
            sim::fail_nth(sim::Fault::kAlloc, nth);
            EXPECT_EQ(append(queue, bio), -ENOMEM) << nth;
            sim::fail_none();
            EXPECT_TRUE(logged_error("trak_cowqueue_append(): Memory allocation failed"));
            EXPECT_EQ(queue.cnt.load(), 0);
            EXPECT_TRUE(queued(queue).empty());
        }
        EXPECT_EQ(append(queue, bio), 0);
    });
}

TEST(cowqueue, request_gets_the_tag_of_the_newest_started_snap) {
    Machine machine;
    prepare(machine);
    boot(machine, [&] {
        make_snap();
        ASSERT_EQ(add_snap(2), 0);
        ASSERT_EQ(add_snap(3), 0);
        OwnBio none(0, 4096, kWrite), tagged(64, 4096, kWrite);
        // Behind a head that kcowd can't finish, the queue stays as the test leaves it.
        ASSERT_EQ(queue_req(node(0), none.get(), OS_GFP_NOIO), 0);
        cow_request *first = trak_container_of(filter(0).cowqueue.requests.next, cow_request, link);
        EXPECT_EQ(first->snap_minor, 0u);
        trak_cowqueue_purge(&filter(0).cowqueue);
        ASSERT_EQ(start(1), 0);
        ASSERT_EQ(start(2), 0);
        machine.disk.hold(true);
        os_bdev *bdev = open_node(0);
        sim::Request *head = sim::start_request(bdev, OS_BIO_WRITE, 0, Bytes(4096));
        sim::Request *next = sim::start_request(bdev, OS_BIO_WRITE, 64, Bytes(4096));
        for (trak_list *at = filter(0).cowqueue.requests.next; at != &filter(0).cowqueue.requests;
             at = at->next)
            EXPECT_EQ(trak_container_of(at, cow_request, link)->snap_minor, 2u);
        EXPECT_EQ(filter(0).cowqueue.cnt.load(), 2);
        machine.disk.hold(false);
        EXPECT_EQ(sim::wait_request(head, nullptr), 0);
        EXPECT_EQ(sim::wait_request(next, nullptr), 0);
        sim::close_device(bdev);
    });
}

TEST(cowqueue, null_arguments_and_a_search_for_nothing_are_bugs) {
    const std::vector<std::function<void(trak_cowqueue &, OwnBio &)>> calls = {
        [](trak_cowqueue &, OwnBio &b) {
            (void)!trak_cowqueue_find_overlap_req(nullptr, 1, 1, b.get());
        },
        [](trak_cowqueue &q, OwnBio &) {
            (void)!trak_cowqueue_find_overlap_req(&q, 1, 1, nullptr);
        },
        [](trak_cowqueue &q, OwnBio &b) {
            (void)!trak_cowqueue_find_overlap_req(&q, 0, 0, b.get());
        },
        [](trak_cowqueue &q, OwnBio &) { trak_cowqueue_remove(&q, nullptr); },
        [](trak_cowqueue &, OwnBio &) { trak_cowqueue_remove(nullptr, nullptr); },
    };
    for (const auto &call : calls) {
        Machine machine;
        EXPECT_THROW(boot_bare(machine,
                               [&] {
                                   trak_cowqueue queue;
                                   ASSERT_EQ(trak_cowqueue_init(&queue), 0);
                                   OwnBio bio(0, 512, kRead);
                                   call(queue, bio);
                               }),
                     sim::Failure);
    }
}
