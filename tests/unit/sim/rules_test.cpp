// tests/unit/sim/rules_test.cpp: contexts, the order of locks, owners: each broken once
// SPDX-License-Identifier: GPL-2.0-only
#include "os/chardev.h"
#include "os/lock.h"
#include "os/log.h"
#include "os/memory.h"
#include "os/proc.h"
#include "os/task.h"
#include "os/wait.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::rules {

constexpr os_lock_class kLow{"low", 10}, kHigh{"high", 20}, kTwin{"twin", 10};

// Runs fn in the completion of a read, with a spin lock at hand: in interrupt context.
struct InInterrupt {
    os_spinlock lock;
    os_semaphore sema;
    os_wait_queue_head head;
    void (*fn)(InInterrupt *);
    bool ran = false, was_interrupt = false;
};

void run_in_interrupt(void (*fn)(InInterrupt *), bool plain_lock) {
    InInterrupt in{};
    os_spin_lock_init(&in.lock, &kLow);
    os_sema_init(&in.sema, 1);
    os_init_waitqueue_head(&in.head);
    in.fn = fn;
    if (plain_lock) {
        os_spin_lock(&in.lock);
        os_spin_unlock(&in.lock);
    }
    os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
    os_page *page = os_alloc_page(OS_GFP_KERNEL);
    os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
    ignore(os_bio_add_page(bio, page, 512, 0));
    os_bio_set_bdev(bio, bdev);
    os_bio_set_private(bio, &in);
    os_bio_set_end_io(bio, [](os_bio *ended, int) {
        auto *self = static_cast<InInterrupt *>(os_bio_private(ended));
        self->was_interrupt = os_in_interrupt();
        self->fn(self);
        self->ran = true;
    });
    os_submit_bio(0, bio);
    sim::wait_until([&] { return in.ran; });
    EXPECT_TRUE(in.was_interrupt);
    os_bio_put(bio);
    os_free_page(page);
    os_blkdev_put(bdev, kBoth);
}

std::string failure_in_interrupt(void (*fn)(InInterrupt *), bool plain_lock) {
    return failure_of([=] { run_in_interrupt(fn, plain_lock); });
}

// Runs fn under a spin lock.
std::string failure_under_spin_lock(void (*fn)()) {
    return failure_of([=] {
        os_spinlock lock;
        os_spin_lock_init(&lock, &kLow);
        os_spin_lock(&lock);
        fn();
        os_spin_unlock(&lock);
    });
}

TEST(sim_rules, what_interrupts_may_do_is_no_failure) {
    EXPECT_EQ(failure_in_interrupt(
                  [](InInterrupt *in) {
                      unsigned long flags = os_spin_lock_irqsave(&in->lock);
                      os_spin_unlock_irqrestore(&in->lock, flags);
                      os_kfree(os_kmalloc(10, OS_GFP_ATOMIC));
                      os_up(&in->sema);
                      os_wake_up(&in->head);
                      os_printk("<6>interrupt\n");
                  },
                  false),
              "");
}

TEST(sim_rules, sleeping_in_an_interrupt_is_found) {
    EXPECT_SAYS(failure_in_interrupt([](InInterrupt *in) { os_down(&in->sema); }, false),
                "os_down may sleep, and is called in interrupt context");
    EXPECT_SAYS(
        failure_in_interrupt([](InInterrupt *) { os_kfree(os_kmalloc(1, OS_GFP_NOIO)); }, false),
        "os_kmalloc may sleep, and is called in interrupt context");
}

TEST(sim_rules, a_plain_spin_lock_in_an_interrupt_is_found) {
    EXPECT_SAYS(failure_in_interrupt([](InInterrupt *in) { os_spin_lock(&in->lock); }, false),
                "os_spin_lock of low in interrupt context");
}

TEST(sim_rules, a_lock_of_interrupts_held_with_interrupts_enabled_is_found) {
    EXPECT_SAYS(failure_in_interrupt(
                    [](InInterrupt *in) {
                        unsigned long flags = os_spin_lock_irqsave(&in->lock);
                        os_spin_unlock_irqrestore(&in->lock, flags);
                    },
                    true),
                "lock class low is taken in interrupt context and held with interrupts enabled");
}

TEST(sim_rules, an_interrupt_never_comes_while_interrupts_are_saved) {
    for (std::uint64_t seed = 1; seed <= 200; seed++) {
        Machine machine;
        machine.run(options_of(seed), [] {
            static bool inside, ended;
            static os_task *holder;
            inside = ended = false;
            holder = os_current();
            os_spinlock lock;
            os_spin_lock_init(&lock, &kLow);
            os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
            os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 0);
            os_bio_set_bdev(bio, bdev);
            os_bio_set_end_io(bio, [](os_bio *, int) {
                EXPECT_FALSE(inside && os_current() == holder);
                ended = true;
            });
            os_submit_bio(OS_BIO_WRITE | OS_BIO_FLUSH, bio);
            for (int i = 0; i < 20; i++) {
                unsigned long flags = os_spin_lock_irqsave(&lock);
                inside = true;
                os_printk("<6>inside\n");
                os_kfree(os_kmalloc(1, OS_GFP_ATOMIC));
                inside = false;
                os_spin_unlock_irqrestore(&lock, flags);
            }
            sim::wait_until([] { return ended; });
            os_bio_put(bio);
            os_blkdev_put(bdev, kBoth);
        });
    }
}

TEST(sim_rules, sleeping_under_a_spin_lock_is_found) {
    EXPECT_SAYS(failure_under_spin_lock([] { os_kfree(os_kmalloc(1, OS_GFP_KERNEL)); }),
                "os_kmalloc may sleep, and is called by test under spin lock low");
    EXPECT_SAYS(failure_under_spin_lock([] { os_yield(); }), "os_yield may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] { os_schedule(); }), "os_schedule may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] { os_vfree(nullptr); }), "os_vfree may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] {
                    char byte;
                    ignore(os_copy_from_user(&byte, 0, 1));
                }),
                "os_copy_from_user may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] { ignore(os_filp_open("/data/x", 0, 0)); }),
                "os_filp_open may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] { ignore(os_proc_mkdir("x", nullptr)); }),
                "os_proc_mkdir may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] { ignore(os_open_by_devnum(kDisk, kBoth)); }),
                "os_open_by_devnum may sleep");
    EXPECT_SAYS(failure_under_spin_lock([] {
                    os_bio *bio = os_bio_alloc(OS_GFP_ATOMIC, 0);
                    os_generic_make_request(bio);
                }),
                "os_generic_make_request may sleep");
}

TEST(sim_rules, sleeping_between_prepare_and_schedule_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_wait_queue_head head;
                    os_init_waitqueue_head(&head);
                    os_wait_entry entry;
                    os_init_wait_entry(&entry);
                    os_prepare_to_wait(&head, &entry, OS_WAIT_UNINTERRUPTIBLE);
                    os_kfree(os_kmalloc(1, OS_GFP_KERNEL));
                }),
                "between os_prepare_to_wait and os_schedule");
}

TEST(sim_rules, sleeping_locks_count_in_the_order) {
    EXPECT_SAYS(failure_of([] {
                    int low = 0, high = 0;
                    os_lock_acquire(&kHigh, &high, OS_LOCK_SHARED);
                    os_lock_acquire(&kLow, &low, OS_LOCK_SHARED);
                }),
                "lock order: low (rank 10) is taken under high (rank 20)");
    EXPECT_SAYS(failure_of([] {
                    int a = 0, b = 0;
                    os_lock_acquire(&kLow, &a, OS_LOCK_EXCLUSIVE);
                    os_lock_acquire(&kTwin, &b, OS_LOCK_EXCLUSIVE);
                }),
                "lock order: twin (rank 10) is taken under low (rank 10)");
}

TEST(sim_rules, a_spin_lock_taken_twice_is_found) {
    EXPECT_SAYS(failure_under_spin_lock([] {}), "");
    EXPECT_SAYS(failure_of([] {
                    os_spinlock lock;
                    os_spin_lock_init(&lock, &kLow);
                    os_spin_lock(&lock);
                    os_spin_lock(&lock);
                }),
                "spin lock low is taken twice");
}

TEST(sim_rules, a_lock_released_by_who_does_not_hold_it_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_spinlock lock;
                    os_spin_lock_init(&lock, &kLow);
                    os_spin_unlock(&lock);
                }),
                "test does not hold spin lock low");
    EXPECT_SAYS(failure_of([] {
                    int lock = 0;
                    os_lock_release(&kLow, &lock);
                }),
                "test does not hold low");
}

TEST(sim_rules, the_two_kinds_of_spin_lock_calls_do_not_mix) {
    EXPECT_SAYS(failure_of([] {
                    os_spinlock lock;
                    os_spin_lock_init(&lock, &kLow);
                    os_spin_lock(&lock);
                    os_spin_unlock_irqrestore(&lock, 0);
                }),
                "was taken by the other kind of call");
    EXPECT_SAYS(failure_of([] {
                    os_spinlock lock;
                    os_spin_lock_init(&lock, &kLow);
                    unsigned long flags = os_spin_lock_irqsave(&lock);
                    os_spin_unlock_irqrestore(&lock, flags + 7);
                }),
                "are not those that the lock call returned");
}

TEST(sim_rules, locks_that_were_not_initialised_are_found) {
    EXPECT_SAYS(failure_of([] {
                    os_spinlock lock{};
                    os_spin_lock(&lock);
                }),
                "the spin lock was not initialised");
    EXPECT_SAYS(failure_of([] {
                    os_semaphore sema{};
                    os_down(&sema);
                }),
                "the semaphore was not initialised");
    EXPECT_SAYS(failure_of([] {
                    os_completion completion{};
                    os_complete(&completion);
                }),
                "the completion was not initialised");
    EXPECT_SAYS(failure_of([] {
                    os_wait_queue_head head{};
                    os_wake_up(&head);
                }),
                "the wait queue was not initialised");
}

TEST(sim_rules, a_task_that_ends_with_a_lock_is_found) {
    EXPECT_SAYS(failure_of([] {
                    static int lock;
                    os_lock_acquire(&kLow, &lock, OS_LOCK_SHARED);
                }),
                "a task ended (test) with lock low held");
}

TEST(sim_rules, a_system_call_that_returns_with_a_lock_is_found) {
    EXPECT_SAYS(failure_of([] {
                    static int lock;
                    static const os_file_operations ops{
                        nullptr, nullptr,
                        [](void *, void *, std::uint32_t, unsigned long) {
                            os_lock_acquire(&kLow, &lock, OS_LOCK_SHARED);
                            return 0;
                        },
                        nullptr, nullptr};
                    ASSERT_EQ(os_register_chrdev(240, "x", &ops), 0);
                    sim::chr_ioctl(1, 0);
                }),
                "ioctl of the control device (test) with lock low held");
}

TEST(sim_rules, memory_freed_with_a_held_lock_inside_is_found) {
    EXPECT_SAYS(failure_of([] {
                    auto *lock =
                        static_cast<os_spinlock *>(os_kmalloc(sizeof(os_spinlock), OS_GFP_KERNEL));
                    os_spin_lock_init(lock, &kLow);
                    os_spin_lock(lock);
                    os_kfree(lock);
                }),
                "memory is freed that holds lock low");
}

TEST(sim_rules, an_allocation_that_may_wait_for_io_in_a_request_is_found) {
    std::string text = failure_of([] {
        static os_block_device_operations ops{};
        int major = os_register_blkdev(0, "x");
        os_disk *disk = os_alloc_disk(1);
        os_queue *queue = os_alloc_queue(OS_GFP_KERNEL);
        os_queue_make_request(queue, [](os_queue *, os_bio *bio) {
            os_kfree(os_kmalloc(1, OS_GFP_KERNEL));
            os_bio_endio(bio, 0);
            return 0;
        });
        os_disk_setup(disk, static_cast<std::uint32_t>(major), 0, "x", &ops);
        os_disk_set_capacity(disk, 8);
        os_disk_set_queue(disk, queue);
        EXPECT_EQ(os_add_disk(disk), 0);
        int err = 0;
        os_bdev *bdev =
            sim::open_device(os_mkdev(static_cast<std::uint32_t>(major), 0), kBoth, &err);
        sim::Bytes data(512);
        (void)sim::read_device(bdev, 0, data);
    });
    EXPECT_SAYS(text, "os_kmalloc with OS_GFP_KERNEL on behalf of a request");
}

// A disk of a driver whose open operation and make-request function take a lock of its own.
struct LockedDisk {
    static constexpr os_lock_class kClass{"driver lock", 30};
    static int open(os_bdev *, std::uint32_t) {
        os_lock_acquire(&kClass, &kClass, OS_LOCK_SHARED);
        os_lock_release(&kClass, &kClass);
        return 0;
    }
    static int request(os_queue *, os_bio *bio) {
        os_bio_endio(bio, 0);
        return 0;
    }
    static constexpr os_block_device_operations kOps{open, nullptr, nullptr};
    os_disk *disk = os_alloc_disk(1);
    os_queue *queue = os_alloc_queue(OS_GFP_KERNEL);
    std::uint32_t major = static_cast<std::uint32_t>(os_register_blkdev(0, "locked"));

    LockedDisk() {
        os_queue_make_request(queue, request);
        os_disk_setup(disk, major, 0, "locked", &kOps);
        os_disk_set_capacity(disk, 8);
        os_disk_set_queue(disk, queue);
        EXPECT_EQ(os_add_disk(disk), 0);
    }
    // Opens it once, then takes it away with the lock held in this mode.
    void use(os_lock_mode mode) {
        int err = 0;
        os_bdev *bdev = sim::open_device(os_mkdev(major, 0), OS_FMODE_READ, &err);
        sim::close_device(bdev);
        os_lock_acquire(&kClass, &kClass, mode);
        os_del_gendisk(disk);
        os_lock_release(&kClass, &kClass);
        os_cleanup_queue(queue);
        os_put_disk(disk);
        os_unregister_blkdev(major, "locked");
    }
};

TEST(sim_rules, taking_a_disk_away_under_a_lock_that_opening_it_takes_is_found) {
    EXPECT_SAYS(failure_of([] { LockedDisk().use(OS_LOCK_EXCLUSIVE); }),
                "os_del_gendisk is called by test with driver lock held");
    EXPECT_EQ(failure_of([] { LockedDisk().use(OS_LOCK_SHARED); }), "");
}

TEST(sim_rules, a_bug_check_of_the_driver_ends_the_world) {
    EXPECT_SAYS(failure_of([] { OS_BUG_ON(1 + 1 == 2); }), "BUG at ");
}

TEST(sim_rules, registrations_that_are_left_are_found) {
    static const os_file_operations ops{};
    EXPECT_SAYS(failure_of([] { ASSERT_EQ(os_register_chrdev(240, "left", &ops), 0); }),
                "character device left (major 240) was not unregistered");
    EXPECT_SAYS(failure_of([] { ASSERT_EQ(os_register_blkdev(240, "left"), 0); }),
                "block major 240 (left) was not unregistered");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_proc_mkdir("left", nullptr), nullptr); }),
                "entries were not removed: /proc/left");
    EXPECT_SAYS(failure_of([] { ASSERT_FALSE(os_is_err(os_open_by_devnum(kDisk, kBoth))); }),
                "device (8, 0) is still open");
    EXPECT_SAYS(failure_of([] { os_module_get(); }), "1 references on the module were not put");
    EXPECT_SAYS(failure_of([] { os_module_put(); }), "os_module_put without os_module_get");
}

TEST(sim_rules, a_proc_entry_with_children_or_removed_before_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_proc_entry *folder = os_proc_mkdir("a", nullptr);
                    ASSERT_NE(os_proc_mkdir("b", folder), nullptr);
                    os_remove_proc_entry(folder);
                }),
                "a has children");
    EXPECT_SAYS(failure_of([] {
                    os_proc_entry *folder = os_proc_mkdir("a", nullptr);
                    os_remove_proc_entry(folder);
                    os_remove_proc_entry(folder);
                }),
                "the entry a was removed already");
}

}  // namespace sim_tests::rules
