// tests/unit/module/load_test.cpp: load and unload of the whole module
// SPDX-License-Identifier: GPL-2.0-only
#include <regex>

#include "driver/control/proc.h"
#include "driver/module/module.h"
#include "driver/module/params.h"
#include "os/bdev.h"
#include "os/task.h"
#include "tests/support/sim_run.h"

namespace {

using sim_run::command;
using sim_run::Record;

constexpr os_dev_t disk_dev = (8u << 20) | 1;

// Index of the first line of the log that contains the text; -1: none.
int line_of(const std::string &text) {
    for (std::size_t i = 0; i < sim::log().size(); ++i) {
        if (sim::log()[i].find(text) != std::string::npos)
            return static_cast<int>(i);
    }
    return -1;
}

void expect_in_order(const std::vector<std::string> &texts) {
    int last = -1;
    for (const std::string &text : texts) {
        const int at = line_of(text);
        EXPECT_GT(at, last) << text << "\n" << sim_run::log_text();
        last = at;
    }
}

TEST(load, brings_everything_up_in_order_and_unload_takes_it_away_in_reverse) {
    sim_run::boot([] {
        trak_debug = 2;
        ASSERT_EQ(trak_init(), 0);
        expect_in_order({"trak_init(): Initializing the driver.",
                         "trak_init(): Built: ", "trak_init(): UTS_RELEASE: ",
                         "trak_create_proc(): ", "trak_char_init(): Initializing character device",
                         "trak_block_init(): ", "trak_init(): rc=0"});
        EXPECT_TRUE(sim::proc_exists("/proc/trak/debug"));
        EXPECT_EQ(sim::chr_read(0, 0), 0);

        sim::clear_log();
        EXPECT_EQ(trak_cleanup(), 0);
        expect_in_order({"trak_cleanup(): The driver is being unloaded.", "trak_block_destroy(): ",
                         "trak_char_destroy(): ", "trak_remove_proc(): "});
        EXPECT_FALSE(sim::proc_exists("/proc/trak"));
        EXPECT_EQ(sim::chr_read(0, 0), -ENODEV);
        EXPECT_EQ(trak_debug_buffer, nullptr);
        EXPECT_EQ(sim::count_log("ERROR"), 0u) << sim_run::log_text();
    });
}

TEST(load, tells_the_milestones_at_level_1_with_build_and_kernel) {
    sim_run::boot([] {
        ASSERT_EQ(trak_init(), 0);
        const std::vector<std::string> log = sim::log();
        ASSERT_GE(log.size(), 4u);
        EXPECT_NE(log[0].find("trak_init(): Initializing the driver."), std::string::npos);
        const std::regex built(
            R"(<6>\d{4,}: trak_init\(\): Built: [A-Z][a-z]{2} [ \d]\d \d{4} \d{2}:\d{2}:\d{2})");
        EXPECT_TRUE(std::regex_match(log[1], built)) << log[1];
        EXPECT_NE(log[2].find(std::string("trak_init(): UTS_RELEASE: ") + os_utsrelease()),
                  std::string::npos);
        EXPECT_STREQ(kernel_version, os_utsrelease());
        EXPECT_NE(log.back().find("trak_init(): rc=0"), std::string::npos);
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

TEST(load, takes_a_dynamic_major_for_the_control_device_and_shows_it) {
    sim_run::boot([] {
        trak_chr_major = 0;
        ASSERT_EQ(trak_init(), 0);
        EXPECT_NE(trak_chr_major, 0);
        std::string text;
        EXPECT_EQ(sim::proc_read("/proc/trak/chr_major", &text), 0);
        EXPECT_EQ(text, std::to_string(trak_chr_major) + "\n");
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

TEST(load, takes_a_dynamic_major_for_the_nodes) {
    sim_run::boot([] {
        trak_blk_major = 0;
        ASSERT_EQ(trak_init(), 0);
        EXPECT_NE(trak_blk_major, 0);
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

TEST(load, may_be_repeated_after_an_unload) {
    sim_run::boot([] {
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(trak_init(), 0);
            EXPECT_EQ(trak_cleanup(), 0);
        }
    });
}

// Makes the nth call of the kind fail during a load: true when it was reached.
bool load_with_fault(sim::Fault kind, std::uint64_t nth) {
    bool reached = false;
    sim_run::boot([&] {
        sim::fail_nth(kind, nth);
        const int rc = trak_init();
        sim::fail_none();
        if (rc == 0) {
            EXPECT_EQ(trak_cleanup(), 0);
            return;
        }
        reached = true;
        EXPECT_LT(rc, 0);
        EXPECT_NE(sim::log().back().find("trak_init(): rc=" + std::to_string(rc)),
                  std::string::npos)
            << sim_run::log_text();
        // The last message allocated the buffer anew; nobody but this test frees it.
        EXPECT_NE(trak_debug_buffer, nullptr);
        EXPECT_EQ(sim::chr_read(0, 0), -ENODEV);
        EXPECT_EQ(trak_dir, nullptr);
        EXPECT_FALSE(sim::proc_exists("/proc/trak"));
        // Nothing that was left behind stands in the way of another load.
        ASSERT_EQ(trak_init(), 0) << sim_run::log_text();
        EXPECT_EQ(trak_cleanup(), 0);
    });
    return reached;
}

TEST(load, failure_of_any_step_undoes_those_before_it) {
    const struct {
        sim::Fault kind;
        std::uint64_t at_least;  // steps that can fail so
    } kinds[] = {{sim::Fault::kAlloc, 1}, {sim::Fault::kOpen, 2}, {sim::Fault::kProc, 4}};
    for (const auto &k : kinds) {
        std::uint64_t failed = 0;
        for (std::uint64_t nth = 1; nth <= 12; ++nth)
            failed += load_with_fault(k.kind, nth);
        EXPECT_GE(failed, k.at_least) << static_cast<unsigned>(k.kind);
    }
}

TEST(load, failure_frees_the_logging_buffer_and_its_last_line_allocates_it_again) {
    sim_run::boot([] {
        sim::fail_nth(sim::Fault::kOpen, 1);  // the control device's registration
        EXPECT_LT(trak_init(), 0);
        EXPECT_EQ(sim::fault_points(sim::Fault::kAlloc), 2u);
        EXPECT_NE(trak_debug_buffer, nullptr);
    });
}

TEST(load, highest_minor_that_makes_no_sense_fails_with_enomem) {
    for (const std::int32_t max : {-1, -2, INT32_MIN, INT32_MAX, 0x100000}) {
        sim_run::boot([&] {
            trak_max_blk_minor = max;
            EXPECT_EQ(trak_init(), -ENOMEM) << max;
            EXPECT_LOGGED_ERROR("trak_block_init(): Memory allocation failed.");
            EXPECT_FALSE(sim::proc_exists("/proc/trak"));
            EXPECT_EQ(sim::chr_read(0, 0), -ENODEV);
        });
    }
}

// A machine with a disk and a folder for bitmaps, and the module loaded.
void with_module(const std::function<void()> &fn) {
    sim::Storage storage;
    storage.add_disk("sda1", disk_dev, 1 << 20, 512);
    storage.mkdir("/dev/trak");
    storage.mkdir("/bmp");
    sim_run::boot(storage, [&] {
        ASSERT_EQ(trak_init(), 0);
        fn();
    });
}

Record filter_record() {
    Record record(2224);
    record.text(0, "/dev/sda1").u32(1024, 0xffffffff).u32(1028, 65536).text(1032, "/bmp");
    return record;
}

TEST(unload, ends_at_the_block_side_while_a_node_is_in_use_and_may_be_tried_again) {
    with_module([] {
        Record filter = filter_record();
        ASSERT_EQ(command(0xc8b04301, filter), 0) << sim_run::log_text();
        Record minor(4);
        minor.u32(0, filter.u32(1024));
        ASSERT_EQ(command(0x40044304, minor), 0);
        int err = 0;
        os_bdev *bdev = sim::open_device(os_mkdev(100, filter.u32(1024)), OS_FMODE_READ, &err);
        ASSERT_NE(bdev, nullptr) << err;
        EXPECT_EQ(trak_cleanup(), -EBUSY);
        EXPECT_TRUE(sim::proc_exists("/proc/trak/trak0/minor"));
        Record list(1032);
        list.u32(0, 1);
        EXPECT_EQ(command(0xc4084306, list), 0);
        EXPECT_EQ(list.u32(4), 1u);
        sim::close_device(bdev);
        EXPECT_EQ(trak_cleanup(), 0);
        EXPECT_FALSE(sim::proc_exists("/proc/trak"));
    });
}

TEST(unload, takes_stopped_and_started_nodes_with_it) {
    with_module([] {
        Record filter = filter_record();
        ASSERT_EQ(command(0xc8b04301, filter), 0) << sim_run::log_text();
        Record minor(4);
        minor.u32(0, filter.u32(1024));
        ASSERT_EQ(command(0x40044304, minor), 0);
        EXPECT_EQ(trak_cleanup(), 0);
        EXPECT_TRUE(sim::nodes().empty());
        EXPECT_FALSE(sim::proc_exists("/proc/trak"));
    });
}

TEST(unload, command_whose_record_can_not_be_given_back_has_had_its_effect) {
    with_module([] {
        Record filter = filter_record();
        const os_uaddr addr = sim::user_alloc(2224);
        std::memcpy(sim::user_bytes(addr, 2224).data(), filter.bytes.data(), 2224);
        sim::user_protect(addr, true, false);
        EXPECT_EQ(sim::chr_ioctl(0xc8b04301, addr), -EFAULT);
        sim::user_free(addr);
        EXPECT_TRUE(sim::proc_exists("/proc/trak/trak0"));
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

TEST(unload, command_that_returns_no_data_writes_nothing_back) {
    with_module([] {
        Record filter = filter_record();
        ASSERT_EQ(command(0xc8b04301, filter), 0) << sim_run::log_text();
        const os_uaddr addr = sim::user_alloc(8);
        std::memset(sim::user_bytes(addr, 8).data(), 0, 8);
        sim::user_bytes(addr, 8)[4] = 1;
        sim::user_protect(addr, true, false);
        EXPECT_EQ(sim::chr_ioctl(0x40084309, addr), 0);
        sim::user_free(addr);
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

}  // namespace
