// tests/contract/wait_contract.cpp: what os/wait.h promises, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <atomic>

#include "tests/contract/platform.h"

namespace contract::wait_tests {

namespace {

constexpr os_lock_class kClass{"contract queue", 10};

// A flag under a spin lock, and a queue to wait for it: the pattern of os/wait.h.
struct Gate {
    os_spinlock lock;
    os_wait_queue_head head;
    int open = 0;

    Gate() {
        os_spin_lock_init(&lock, &kClass);
        os_init_waitqueue_head(&head);
    }
    void wait(os_wait_mode mode) {
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        os_spin_lock(&lock);
        os_prepare_to_wait(&head, &entry, mode);
        while (!open && !(mode == OS_WAIT_INTERRUPTIBLE && os_signal_pending())) {
            os_spin_unlock(&lock);
            os_schedule();
            os_spin_lock(&lock);
            os_prepare_to_wait(&head, &entry, mode);
        }
        os_finish_wait(&head, &entry);
        os_spin_unlock(&lock);
    }
    void set() {
        os_spin_lock(&lock);
        open = 1;
        os_wake_up(&head);
        os_spin_unlock(&lock);
    }
};

}  // namespace

TEST(wait, sleeper_wakes_when_the_condition_comes) {
    run([] {
        Gate gate;
        std::atomic<bool> through{false};
        Process *sleeper = start([&] {
            gate.wait(OS_WAIT_UNINTERRUPTIBLE);
            through = true;
        });
        linger();
        EXPECT_FALSE(through);
        gate.set();
        join(sleeper);
        EXPECT_TRUE(through);
    });
}

TEST(wait, no_wake_up_is_lost_however_the_two_meet) {
    run([] {
        for (int i = 0; i < 20; i++) {
            Gate gate;
            Process *sleeper = start([&] { gate.wait(OS_WAIT_UNINTERRUPTIBLE); });
            gate.set();
            join(sleeper);
        }
    });
}

TEST(wait, wake_up_wakes_every_waiter) {
    run([] {
        Gate gate;
        Process *sleepers[4];
        for (Process *&sleeper : sleepers)
            sleeper = start([&] { gate.wait(OS_WAIT_UNINTERRUPTIBLE); });
        linger();
        gate.set();
        for (Process *sleeper : sleepers)
            join(sleeper);
    });
}

TEST(wait, wake_up_between_prepare_and_schedule_makes_schedule_return) {
    run([] {
        os_wait_queue_head head;
        os_init_waitqueue_head(&head);
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
        os_wake_up(&head);
        os_schedule();
        os_finish_wait(&head, &entry);
    });
}

TEST(wait, schedule_after_finish_does_not_sleep) {
    run([] {
        os_wait_queue_head head;
        os_init_waitqueue_head(&head);
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
        os_finish_wait(&head, &entry);
        os_schedule();
    });
}

TEST(wait, prepare_of_a_queued_entry_queues_it_once) {
    run([] {
        os_wait_queue_head head;
        os_init_waitqueue_head(&head);
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        for (int i = 0; i < 3; i++)
            os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
        os_finish_wait(&head, &entry);
        os_wake_up(&head);  // finds nobody: a second link would still be there
        os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
        os_finish_wait(&head, &entry);
    });
}

TEST(wait, finish_of_an_entry_that_is_not_queued_does_nothing) {
    run([] {
        os_wait_queue_head head;
        os_init_waitqueue_head(&head);
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        os_finish_wait(&head, &entry);
    });
}

TEST(wait, wake_up_of_an_empty_queue_does_nothing) {
    run([] {
        os_wait_queue_head head;
        os_init_waitqueue_head(&head);
        os_wake_up(&head);
    });
}

TEST(wait, signal_ends_an_interruptible_sleep) {
    run([] {
        Gate gate;
        bool pending = false;
        Process *sleeper = start([&] {
            gate.wait(OS_WAIT_INTERRUPTIBLE);
            pending = os_signal_pending();
        });
        linger();
        signal(sleeper);
        join(sleeper);
        EXPECT_TRUE(pending);
    });
}

TEST(wait, signal_before_the_sleep_ends_it_too) {
    run([] {
        Gate gate;
        std::atomic<bool> sent{false};
        Process *sleeper = start([&] {
            eventually([&] { return sent.load(); });
            gate.wait(OS_WAIT_INTERRUPTIBLE);
        });
        signal(sleeper);
        sent = true;
        join(sleeper);
    });
}

TEST(wait, signal_does_not_end_an_uninterruptible_sleep) {
    run([] {
        Gate gate;
        std::atomic<bool> through{false};
        Process *sleeper = start([&] {
            gate.wait(OS_WAIT_UNINTERRUPTIBLE);
            through = true;
        });
        linger();
        signal(sleeper);
        linger();
        EXPECT_FALSE(through);
        gate.set();
        join(sleeper);
    });
}

TEST(wait, the_end_of_a_request_wakes_who_waits_for_it) {
    run([] {
        struct Waiting {
            os_spinlock lock;
            os_wait_queue_head head;
            bool ended = false;
        } waiting;
        os_spin_lock_init(&waiting.lock, &kClass);
        os_init_waitqueue_head(&waiting.head);
        os_bdev *bdev = os_open_by_devnum(make_disk(1 << 20, 512), OS_FMODE_READ);
        ASSERT_FALSE(os_is_err(bdev));
        os_page *page = os_alloc_page(OS_GFP_KERNEL);
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
        ASSERT_TRUE(page && bio && os_bio_add_page(bio, page, 512, 0));
        os_bio_set_bdev(bio, bdev);
        os_bio_set_private(bio, &waiting);
        os_bio_set_end_io(bio, [](os_bio *ended, int) {
            auto *who = static_cast<Waiting *>(os_bio_private(ended));
            unsigned long flags = os_spin_lock_irqsave(&who->lock);
            who->ended = true;
            os_wake_up(&who->head);
            os_spin_unlock_irqrestore(&who->lock, flags);
        });
        os_submit_bio(0, bio);
        os_queue_unplug(os_bdev_queue(bdev));
        os_wait_entry entry;
        os_init_wait_entry(&entry);
        unsigned long flags = os_spin_lock_irqsave(&waiting.lock);
        os_prepare_to_wait(&waiting.head, &entry, OS_WAIT_UNINTERRUPTIBLE);
        while (!waiting.ended) {
            os_spin_unlock_irqrestore(&waiting.lock, flags);
            os_schedule();
            flags = os_spin_lock_irqsave(&waiting.lock);
            os_prepare_to_wait(&waiting.head, &entry, OS_WAIT_UNINTERRUPTIBLE);
        }
        os_finish_wait(&waiting.head, &entry);
        os_spin_unlock_irqrestore(&waiting.lock, flags);
        os_bio_put(bio);
        os_free_page(page);
        os_blkdev_put(bdev, OS_FMODE_READ);
    });
}

TEST(wait, nobody_is_signalled_without_a_signal) {
    run([] { EXPECT_FALSE(os_signal_pending()); });
}

}  // namespace contract::wait_tests
