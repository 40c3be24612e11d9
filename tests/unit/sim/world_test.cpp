// tests/unit/sim/world_test.cpp: faults, the ways a boot ends, freezing, seeds
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest-spi.h>

#include "os/chardev.h"
#include "os/lock.h"
#include "os/log.h"
#include "os/proc.h"
#include "os/task.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::world {

using sim::Bytes;
using sim::Fault;

TEST(sim_world, a_failure_tells_seed_tasks_log_and_how_to_repeat_it) {
    sim::set_replay("");
    std::string text = failure_of(options_of(77), [] {
        os_printk("<6>a last word\n");
        sim::spawn("bystander", [] { sim::sleep_ms(1000); });
        OS_BUG_ON(true);
    });
    EXPECT_SAYS(text, "BUG at");
    EXPECT_SAYS(text, "seed 77");
    EXPECT_SAYS(text, "bystander (pid");
    EXPECT_SAYS(text, "log: <6>a last word");
    EXPECT_SAYS(text, "replay: TRAK_SEED=77 ");
}

TEST(sim_world, what_the_test_throws_comes_out) {
    Machine machine;
    EXPECT_THROW(machine.run(options_of(1), [] { throw std::out_of_range("mine"); }),
                 std::out_of_range);
    EXPECT_THROW(machine.run(options_of(1),
                             [] {
                                 sim::Process *other =
                                     sim::spawn("other", [] { throw std::out_of_range("mine"); });
                                 sim::join(other);
                             }),
                 std::out_of_range);
}

TEST(sim_world, exceptions_are_handled_on_each_stack_for_itself) {
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        Machine machine;
        machine.run(options_of(seed), [] {
            sim::Process *processes[3];
            for (int i = 0; i < 3; i++)
                processes[i] = sim::spawn("thrower", [i] {
                    for (int round = 0; round < 5; round++) {
                        try {
                            throw 10 * i + round;
                        } catch (int value) {
                            sim::yield();
                            EXPECT_EQ(value, 10 * i + round);
                            try {
                                throw 1000 + i;
                            } catch (int inner) {
                                sim::yield();
                                EXPECT_EQ(inner, 1000 + i);
                            }
                        }
                    }
                });
            for (sim::Process *process : processes)
                sim::join(process);
        });
    }
}

TEST(sim_world, a_power_cut_ends_the_boot_at_that_very_point) {
    Machine machine;
    bool after = false;
    EXPECT_TRUE(machine.run_until_cut(1, [&] {
        ASSERT_NE(os_kmalloc(10, OS_GFP_KERNEL), nullptr);  // no leak: the machine is gone
        sim::power_cut();
        after = true;
    }));
    EXPECT_FALSE(after);
    machine.run(options_of(2), [] {});  // and boots again
}

TEST(sim_world, nth_call_of_a_kind_fails_once) {
    Machine machine;
    machine.run(options_of(1), [] {
        std::uint64_t before = sim::fault_points(Fault::kAlloc);
        sim::fail_nth(Fault::kAlloc, 2);
        void *first = os_kmalloc(1, OS_GFP_KERNEL);
        EXPECT_NE(first, nullptr);
        EXPECT_EQ(os_vmalloc(1), nullptr);
        void *third = os_kzalloc(1, OS_GFP_KERNEL);
        EXPECT_NE(third, nullptr);
        EXPECT_EQ(sim::fault_points(Fault::kAlloc), before + 3);
        os_kfree(first);
        os_kfree(third);
    });
}

TEST(sim_world, random_failures_come_about_as_often_as_said_and_end) {
    Machine machine;
    machine.run(options_of(1), [] {
        sim::fail_random(Fault::kAlloc, 250);
        int failed = 0;
        for (int i = 0; i < 2000; i++) {
            void *p = os_kmalloc(1, OS_GFP_KERNEL);
            failed += p == nullptr;
            os_kfree(p);
        }
        EXPECT_GT(failed, 350);
        EXPECT_LT(failed, 650);
        sim::fail_random(Fault::kAlloc, 0);
        for (int i = 0; i < 100; i++) {
            void *p = os_kmalloc(1, OS_GFP_KERNEL);
            EXPECT_NE(p, nullptr);
            os_kfree(p);
        }
    });
}

int stay_away(void *) {
    ADD_FAILURE() << "a thread that failed to start runs";
    return 0;
}

TEST(sim_world, every_kind_of_call_can_fail) {
    Machine machine;
    machine.storage.write_file("/data/f", Bytes{'x'});
    machine.run(options_of(1), [] {
        static const os_file_operations ops{};
        auto next = [](Fault kind) { sim::fail_nth(kind, 1); };
        next(Fault::kAlloc);
        EXPECT_EQ(os_alloc_page(OS_GFP_KERNEL), nullptr);
        next(Fault::kAlloc);
        EXPECT_EQ(os_bio_alloc(OS_GFP_KERNEL, 1), nullptr);
        next(Fault::kAlloc);
        EXPECT_EQ(os_kmem_cache_create("c", 8, 8), nullptr);
        next(Fault::kAlloc);
        EXPECT_EQ(os_alloc_disk(1), nullptr);
        next(Fault::kAlloc);
        EXPECT_EQ(os_alloc_queue(OS_GFP_KERNEL), nullptr);
        next(Fault::kOpen);
        EXPECT_EQ(os_register_chrdev(240, "c", &ops), -EBUSY);
        next(Fault::kOpen);
        EXPECT_EQ(os_register_blkdev(240, "c"), -EBUSY);
        next(Fault::kOpen);
        EXPECT_EQ(os_kernel_thread(stay_away, nullptr, 0, "away"), -ENOMEM);
        next(Fault::kOpen);
        EXPECT_EQ(os_ptr_err(os_open_by_devnum(kDisk, kBoth)), -EIO);
        next(Fault::kOpen);
        EXPECT_EQ(os_ptr_err(os_filp_open("/data/f", OS_O_RDWR, 0)), -EIO);
        next(Fault::kOpen);
        EXPECT_EQ(os_ptr_err(os_path_lookup("/data/f", 1)), -EIO);
        next(Fault::kProc);
        EXPECT_EQ(os_proc_mkdir("x", nullptr), nullptr);
        next(Fault::kProc);
        EXPECT_EQ(os_create_proc_entry("x", 0444, nullptr), nullptr);
        char bytes[8] = {};
        os_uaddr addr = sim::user_alloc(8);
        next(Fault::kCopy);
        EXPECT_GT(os_copy_to_user(addr, bytes, 8), 0u);
        next(Fault::kCopy);
        EXPECT_GT(os_copy_from_user(bytes, addr, 8), 0u);
    });
}

TEST(sim_world, reads_writes_and_flushes_of_disks_and_files_can_fail) {
    Machine machine;
    machine.storage.write_file("/data/f", Bytes{'x'});
    machine.run(options_of(1), [] {
        os_file *file = os_filp_open("/data/f", OS_O_RDWR, 0);
        ASSERT_FALSE(os_is_err(file));
        char byte = 0;
        std::int64_t pos = 0;
        sim::fail_nth(Fault::kRead, 1);
        EXPECT_EQ(os_vfs_read(file, &byte, 1, &pos), -EIO);
        sim::fail_nth(Fault::kWrite, 1);
        EXPECT_EQ(os_vfs_write(file, &byte, 1, &pos), -EIO);
        sim::fail_nth(Fault::kFlush, 1);
        EXPECT_EQ(os_vfs_fsync(file), -EIO);
        EXPECT_EQ(os_filp_close(file), 0);
        int err = 0;
        os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
        Bytes data(512);
        sim::fail_nth(Fault::kRead, 1);
        EXPECT_EQ(sim::read_device(bdev, 0, data), -EIO);
        sim::fail_nth(Fault::kWrite, 1);
        EXPECT_EQ(sim::write_device(bdev, 0, data), -EIO);
        sim::fail_nth(Fault::kFlush, 1);
        EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), -EIO);
        sim::close_device(bdev);
    });
}

TEST(sim_world, a_frozen_file_system_lets_no_write_through) {
    for (std::uint64_t seed = 1; seed <= 100; seed++) {
        Machine machine;
        machine.run(options_of(seed), [&] {
            sim::attach_file_system(kDisk);
            sim::Process *writers[3];
            for (int i = 0; i < 3; i++)
                writers[i] = sim::spawn("writer", [i] {
                    int err = 0;
                    os_bdev *bdev = sim::open_device(kDisk, kBoth, &err);
                    for (std::uint8_t round = 1; round <= 5; round++)
                        EXPECT_EQ(sim::write_device(bdev, static_cast<std::uint64_t>(i),
                                                    Bytes(512, round)),
                                  0);
                    sim::close_device(bdev);
                });
            os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
            os_super *super = os_freeze_bdev(bdev);
            ASSERT_NE(super, nullptr);
            EXPECT_TRUE(sim::is_frozen(kDisk));
            Bytes before = machine.disk.read(0, 3 * 512);
            for (int i = 0; i < 50; i++)
                sim::yield();
            EXPECT_EQ(machine.disk.read(0, 3 * 512), before);
            EXPECT_EQ(os_thaw_bdev(bdev, super), 0);
            EXPECT_FALSE(sim::is_frozen(kDisk));
            for (sim::Process *writer : writers)
                sim::join(writer);
            EXPECT_EQ(machine.disk.read(0, 512), Bytes(512, 5));
            os_blkdev_put(bdev, kBoth);
        });
    }
}

TEST(sim_world, what_a_file_system_writes_at_its_freeze_gets_through) {
    Machine machine;
    machine.run(options_of(1), [&] {
        os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
        sim::on_freeze(kDisk, [bdev] { EXPECT_EQ(sim::write_device(bdev, 9, Bytes(512, 1)), 0); });
        os_super *super = os_freeze_bdev(bdev);
        EXPECT_EQ(machine.disk.read(9 * 512, 1)[0], 1);
        EXPECT_EQ(os_thaw_bdev(bdev, super), 0);
        EXPECT_EQ(os_thaw_bdev(bdev, super), -EINVAL);
        sim::fail_nth(Fault::kFlush, 1);
        EXPECT_EQ(os_ptr_err(os_freeze_bdev(bdev)), -EIO);
        os_blkdev_put(bdev, kBoth);
    });
}

TEST(sim_world, a_file_system_that_stays_frozen_is_found) {
    EXPECT_SAYS(failure_of([] {
                    sim::attach_file_system(kDisk);
                    os_bdev *bdev = os_open_by_devnum(kDisk, kBoth);
                    ignore(os_freeze_bdev(bdev));
                    os_blkdev_put(bdev, kBoth);
                }),
                "the file system on (8, 0) is still frozen");
}

TEST(sim_world, a_worlds_log_is_its_own) {
    Machine machine;
    machine.run(options_of(1), [] { os_printk("<6>first\n"); });
    EXPECT_EQ(sim::count_log("first"), 1u);  // still there after the end
    machine.run(options_of(1), [] { EXPECT_TRUE(sim::log().empty()); });
}

TEST(sim_world, for_each_seed_stops_at_the_first_failure_and_says_how_to_repeat_it) {
    std::uint64_t ran = 0;
    EXPECT_NONFATAL_FAILURE(
        sim::for_each_seed(100,
                           [&ran](std::uint64_t seed) {
                               ran++;
                               Machine machine;
                               machine.run(options_of(seed), [seed] { OS_BUG_ON(seed == 3); });
                           }),
        "--gtest_filter=sim_world.for_each_seed_stops_at_the_first_failure_and_says_how");
    EXPECT_EQ(ran, 3u);
}

TEST(sim_world, trak_seed_and_trak_seeds_choose_the_seeds) {
    std::vector<std::uint64_t> seen;
    auto note = [&](std::uint64_t seed) { seen.push_back(seed); };
    setenv("TRAK_SEEDS", "3", 1);
    sim::for_each_seed(100, note);
    EXPECT_EQ(seen, (std::vector<std::uint64_t>{1, 2, 3}));
    seen.clear();
    setenv("TRAK_SEED", "42", 1);
    sim::for_each_seed(100, note);
    EXPECT_EQ(seen, (std::vector<std::uint64_t>{42}));
    unsetenv("TRAK_SEED");
    unsetenv("TRAK_SEEDS");
}

}  // namespace sim_tests::world
