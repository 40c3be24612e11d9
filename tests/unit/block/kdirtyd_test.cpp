// tests/unit/block/kdirtyd_test.cpp: the thread that writes dirty flags
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/kdirtyd.h"

#include "driver/block/bitmap_file.h"
#include "driver/module/log.h"
#include "os/file.h"
#include "os/sim/seeds.h"
#include "os/time.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

std::size_t flag_writes() {
    return sim::count_log("trak_block_write_dirty_flag(): Writing dirty flag");
}

// Another process holds the filter's bmp_mutex until it is told to let go, so that kdirtyd waits with the
// first request of the filter in its hands.
struct MutexHolder {
    bool holds = false;
    bool let_go = false;
    sim::Process *process;

    explicit MutexHolder(trak_filter *filter)
        : process(sim::spawn("holder", [this, filter] {
              zumutex_lock(&filter->bmp_mutex);
              holds = true;
              sim::wait_until([this] { return let_go; });
              zumutex_unlock(&filter->bmp_mutex);
          })) {
        sim::wait_until([this] { return holds; });
    }
    void end() {
        let_go = true;
        sim::join(process);
    }
};

}  // namespace

TEST(kdirtyd, first_mark_of_a_clean_bitmap_marks_its_file) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            os_bdev *bdev = open_node(0);
            EXPECT_EQ(sim::write_device(bdev, 0, Bytes(512, 1)), 0);
            EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
            EXPECT_EQ(machine.storage.read_file_durable(kIncrFile), dirty_image());
            EXPECT_EQ(machine.storage.read_file_durable(kDiffFile), dirty_image());
            EXPECT_EQ(flag_writes(), 2u);
            sim::close_device(bdev);
            EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(incr_bmp(0)));
        },
        2);
}

TEST(kdirtyd, requests_are_served_oldest_first) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
            MutexHolder holder(&filter(0));
            for (const int type : {0, 1, 0})
                EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), type), 0);
            holder.end();
            EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
            std::string order;
            for (const std::string &line : sim::log()) {
                if (line.find("Writing dirty flag 1 into Diff") != std::string::npos)
                    order += "D";
                if (line.find("Writing dirty flag 1 into Incr") != std::string::npos)
                    order += "I";
            }
            EXPECT_EQ(order, "DID");
            EXPECT_TRUE(logged(2, "kdirtyd(): Waiting for dirty requests to come..."));
            EXPECT_GE(sim::count_log("kdirtyd(): Got "), 1u);
            EXPECT_TRUE(logged(2, "trak_sched_write_dirty_flag(): Appending dirty request for "
                                  "Differential bitmap of trak(100, 0)"));
        },
        2);
}

TEST(kdirtyd, a_save_kills_the_requests_of_its_bitmap) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
            zumutex_lock(&filter(0).bmp_mutex);  // nests in the save
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 0), 0);
            EXPECT_EQ(trak_block_save_bmp(&filter(0), 1), 0);
            filter(0).incr_bmp_dirty = 1;  // even if it were dirty again: these two are dead
            zumutex_unlock(&filter(0).bmp_mutex);
            EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
            EXPECT_EQ(sim::count_log("Writing dirty flag 1 into Incremental"), 0u);
            EXPECT_EQ(sim::count_log("Writing dirty flag 1 into Differential"), 1u);
            EXPECT_TRUE(logged(2, "trak_kill_dirty_requests(): Killing all dirty requests for "
                                  "Incremental bitmap of trak(100, 0)"));
        },
        2);
}

// The mark's flag write may be queued only after a save has the mark already.
TEST(kdirtyd, a_late_request_does_not_cut_off_a_good_file) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
            EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
            EXPECT_EQ(flag_writes(), 0u);
            EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(incr_bmp(0)));
        },
        2);
}

TEST(kdirtyd, a_request_without_memory_is_reported_and_the_write_goes_on) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), -ENOMEM);
        EXPECT_TRUE(logged_error("trak_sched_write_dirty_flag(): Memory allocation failure"));
        os_bdev *bdev = open_node(0);
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(sim::write_device(bdev, 0, Bytes(512, 1)), 0);
        EXPECT_EQ(incr_bmp(0)[0], 1);
        EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
        sim::close_device(bdev);
    });
}

TEST(kdirtyd, a_failed_flag_write_is_not_repeated) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            os_bdev *bdev = open_node(0);
            machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, -EIO);
            EXPECT_EQ(sim::write_device(bdev, 0, Bytes(512, 1)), 0);
            EXPECT_EQ(sim::write_device(bdev, 64, Bytes(512, 1)), 0);
            EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 100), 0);
            EXPECT_EQ(sim::count_log("Writing dirty flag 1 into Incremental"), 1u);
            machine.storage.fail_path(kIncrFile, sim::Fault::kWrite, 0);
            EXPECT_EQ(filter(0).incr_bmp_dirty, 1u);
            sim::close_device(bdev);
            EXPECT_EQ(machine.storage.read_file(kIncrFile), bitmap_image(incr_bmp(0)));
        },
        2);
}

TEST(kdirtyd, second_start_and_second_stop_are_refused) {
    Machine machine;
    boot_bare(machine, [&] {
        trak_debug = 2;
        EXPECT_EQ(trak_stop_kdirtyd(), -ESRCH);
        EXPECT_TRUE(logged_error("trak_stop_kdirtyd(): kdirtyd is not running."));
        EXPECT_EQ(trak_start_kdirtyd(), 0);
        EXPECT_EQ(trak_start_kdirtyd(), -EALREADY);
        EXPECT_TRUE(logged_error("trak_start_kdirtyd(): kdirtyd has already been started."));
        EXPECT_EQ(trak_stop_kdirtyd(), 0);
        EXPECT_EQ(trak_stop_kdirtyd(), -ESRCH);
        EXPECT_EQ(trak_start_kdirtyd(), 0);
        EXPECT_EQ(trak_stop_kdirtyd(), 0);
        EXPECT_EQ(count_messages(1, "trak_start_kdirtyd(): Starting kdirtyd"), 3u);
        EXPECT_EQ(count_messages(1, "trak_stop_kdirtyd(): Stopping kdirtyd"), 4u);
        EXPECT_EQ(count_messages(2, "trak_stop_kdirtyd(): kdirtyd has been stopped successfully"),
                  2u);
        EXPECT_EQ(sim::count_log("kdirtyd has been started successfully: pid="), 2u);
        EXPECT_EQ(count_messages(1, "kdirtyd(): Started."), 2u);
        EXPECT_EQ(count_messages(1, "kdirtyd(): Terminated."), 2u);
        trak_debug_destroy();
    });
}

TEST(kdirtyd, a_thread_that_does_not_start_is_reported) {
    Machine machine;
    boot_bare(machine, [&] {
        sim::fail_nth(sim::Fault::kOpen, 1);
        const int rc = trak_start_kdirtyd();
        EXPECT_LT(rc, 0);
        EXPECT_TRUE(logged_error("trak_start_kdirtyd(): Failed to start kdirtyd: rc=" +
                                 std::to_string(rc)));
        EXPECT_EQ(trak_stop_kdirtyd(), -ESRCH);
        trak_debug_destroy();
    });
}

TEST(kdirtyd, stop_frees_queued_requests_unwritten) {
    Machine machine;
    boot(
        machine,
        [&] {
            make_clean_filter();
            filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
            MutexHolder holder(&filter(0));
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
            // The thread has taken the first one and waits for the mutex; two more are behind it.
            sim::sleep_ms(50);
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
            EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 0), 0);
            EXPECT_EQ(trak_kill_dirty_requests(&filter(0), 1), 0);
            sim::Process *stopper =
                sim::spawn("stopper", [] { EXPECT_EQ(trak_stop_kdirtyd(), 0); });
            sim::sleep_ms(50);
            holder.end();
            sim::join(stopper);
            EXPECT_EQ(flag_writes(), 0u);
            EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 1), 0);
            EXPECT_EQ(trak_start_kdirtyd(), 0);
        },
        2);
}

TEST(kdirtyd, yield_returns_at_once_without_requests_and_in_the_end_with_them) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        const std::uint64_t before = os_jiffies();
        EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 10), 0);
        EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 0), 0);
        EXPECT_LT(os_jiffies() - before, 100u);
        EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
        EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 0), 0);
        EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
        EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), -1), 0);
    });
}

TEST(kdirtyd, yield_gives_up_after_its_time) {
    Machine machine;
    boot(machine, [&] {
        make_clean_filter();
        MutexHolder holder(&filter(0));
        EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), 1), 0);
        const std::uint64_t before = os_jiffies();
        EXPECT_EQ(trak_yield_to_dirty_requests(&filter(0), 2), -ETIMEDOUT);
        EXPECT_GE(os_jiffies() - before, 2000u);
        EXPECT_LT(os_jiffies() - before, 4000u);
        EXPECT_TRUE(logged_error("trak_yield_to_dirty_requests(): There are still some dirty "
                                 "requests pending for trak(100, 0). Continuing anyway..."));
        holder.end();
    });
}

// The thread is in the middle of the filter's first flag write for longer than the ten seconds that a
// destroy waits: it makes the file, and somebody else has the folder locked.
TEST(kdirtyd, a_filter_destroyed_under_the_thread_stays_in_memory_until_it_is_done) {
    sim::for_each_seed(20, [](std::uint64_t seed) {
        Machine machine;
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                make_clean_filter();
                ASSERT_EQ(stop(0), 0);
                machine.storage.remove(kIncrFile);
                filter(0).incr_bmp_dirty = filter(0).diff_bmp_dirty = 1;
                os_parent *folder = os_path_parent("/bmp/other");
                os_parent_lock(folder);
                for (const int type : {1, 0, 1})
                    EXPECT_EQ(trak_sched_write_dirty_flag(&filter(0), type), 0);
                sim::wait_until([] { return flag_writes() == 1; });
                EXPECT_EQ(del(0), 0);
                EXPECT_TRUE(logged_error("trak_yield_to_dirty_requests(): There are still some "
                                         "dirty requests pending for trak(100, 0). Continuing "
                                         "anyway..."));
                EXPECT_EQ(node(0), nullptr);
                EXPECT_EQ(add_filter(0), 0);  // the disk and the minor are free
                os_parent_unlock(folder);
                os_parent_put(folder);
                sim::wait_until([&] { return machine.storage.exists(kIncrFile); });
                sim::sleep_ms(1000);
                EXPECT_EQ(machine.storage.read_file(kIncrFile), dirty_image());
                EXPECT_EQ(flag_writes(), 1u);
            },
            2, options);
    });
}
