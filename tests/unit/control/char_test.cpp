// tests/unit/control/char_test.cpp: the control device and the dispatch of its commands
// SPDX-License-Identifier: GPL-2.0-only
#include "abi/trak_ioctl.h"
#include "tests/unit/control/nodes.h"

namespace {

using control_test::Nodes;
using control_test::with_control;
using sim_run::command;
using sim_run::Record;

// The interface, written out: code, name, bytes of the record, looks a node up, data comes back.
const struct Known {
    std::uint32_t code;
    const char *name;
    std::size_t size;
    bool node;
    bool out;
} known[] = {
    {0xc8b04301, "TRAK_ADD_FILTER_NODE", 2224, false, true},
    {0xc8b44302, "TRAK_ADD_SNAP_NODE", 2228, false, true},
    {0x40044303, "TRAK_DEL_NODE", 4, false, false},
    {0x40044304, "TRAK_START_NODE", 4, false, false},
    {0x40044305, "TRAK_STOP_NODE", 4, false, false},
    {0xc4084306, "TRAK_GET_DEVICE_LIST", 1032, false, true},
    {0xd9084307, "TRAK_GET_INFO", 6408, true, true},
    {0x40084308, "TRAK_LOAD_BMP", 8, true, false},
    {0x40084309, "TRAK_SAVE_BMP", 8, true, false},
    {0x4008430a, "TRAK_CLR_BMP", 8, true, false},
    {0x4018430b, "TRAK_SET_BMP", 24, true, false},
    {0x4018430c, "TRAK_MERGE_BMP", 24, true, false},
    {0xc018430d, "TRAK_GET_BMP", 24, true, true},
    {0xc018430e, "TRAK_GET_AND_CLR_BMP", 24, true, true},
    {0xc018430f, "TRAK_GET_DATABLOCK_BMP", 24, true, true},
    {0x44004310, "TRAK_TEST_DATABLOCK", 1024, false, false},
    {0x40104311, "TRAK_RESUME_SNAP", 16, false, false},
};

std::string cmd_line(std::uint32_t code, const char *name) {
    char line[96];
    std::snprintf(line, sizeof line, "trak_char_ioctl(): cmd=0x%02x (%s)", code, name);
    return line;
}

TEST(char_device, registers_under_its_major_and_says_so) {
    sim_run::boot([] {
        trak_debug = 2;
        trak_chr_major = 42;
        EXPECT_EQ(sim::chr_read(0, 1), -ENODEV);
        EXPECT_EQ(trak_char_init(), 0);
        EXPECT_EQ(trak_chr_major, 42);
        EXPECT_LOGGED_INFO("trak_char_init(): Initializing character device");
        EXPECT_LOGGED_INFO("trak_char_init(): trak_chr_major=42");
        EXPECT_EQ(sim::chr_read(0, 1), 0);
        EXPECT_EQ(trak_char_destroy(), 0);
        EXPECT_LOGGED_INFO("trak_char_destroy(): Unregistering character device driver");
        EXPECT_EQ(sim::chr_read(0, 1), -ENODEV);
        sim::clear_log();
        EXPECT_EQ(trak_char_destroy(), 0);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(char_device, major_0_takes_a_free_one_and_writes_it_back) {
    sim_run::boot([] {
        trak_debug = 2;
        trak_chr_major = 0;
        EXPECT_EQ(trak_char_init(), 0);
        EXPECT_GT(trak_chr_major, 0);
        EXPECT_LOGGED_INFO("trak_char_init(): trak_chr_major=" + std::to_string(trak_chr_major));
        EXPECT_EQ(trak_char_destroy(), 0);
    });
}

TEST(char_device, failed_registration_is_logged_and_leaves_it_unregistered) {
    sim_run::boot([] {
        sim::fail_nth(sim::Fault::kOpen, 1);
        const int rc = trak_char_init();
        EXPECT_LT(rc, 0);
        EXPECT_LOGGED_ERROR("trak_char_init(): Failed to register character device: rc=" +
                            std::to_string(rc) + ".");
        sim::clear_log();
        trak_debug = 2;
        EXPECT_EQ(trak_char_destroy(), 0);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(char_device, destroy_of_an_unregistered_device_is_0_and_silent) {
    sim_run::boot([] {
        trak_debug = 4;
        EXPECT_EQ(trak_char_destroy(), 0);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(char_device, reads_nothing_and_takes_nothing) {
    with_control([](Nodes &) {
        const os_uaddr buf = sim::user_alloc(16);
        EXPECT_EQ(sim::chr_read(buf, 16), 0);
        EXPECT_EQ(sim::chr_write(buf, 16), 0);
        EXPECT_EQ(trak_char_open(nullptr, nullptr), 0);
        EXPECT_EQ(trak_char_release(nullptr, nullptr), 0);
        sim::user_free(buf);
    });
}

TEST(dispatch, every_command_is_named_at_level_2_only) {
    with_control([](Nodes &) {
        for (const Known &k : known) {
            trak_debug = 2;
            sim::clear_log();
            // An address that can't hold the record: the command goes no further.
            EXPECT_EQ(sim::chr_ioctl(k.code, sim::kUserLimit), -EFAULT) << k.name;
            EXPECT_LOGGED_INFO(cmd_line(k.code, k.name));
            EXPECT_EQ(sim::log().size(), 1u) << sim_run::log_text();
            trak_debug = 1;
            sim::clear_log();
            EXPECT_EQ(sim::chr_ioctl(k.code, sim::kUserLimit), -EFAULT) << k.name;
            EXPECT_NOTHING_LOGGED();
        }
    });
}

TEST(dispatch, inaccessible_record_is_efault_before_anything_is_allocated) {
    with_control([](Nodes &) {
        for (const Known &k : known) {
            const std::uint64_t allocations = sim::fault_points(sim::Fault::kAlloc);
            EXPECT_EQ(sim::chr_ioctl(k.code, sim::kUserLimit - k.size + 1), -EFAULT) << k.name;
            EXPECT_EQ(sim::chr_ioctl(k.code, ~os_uaddr{0} - 3), -EFAULT) << k.name;
            EXPECT_EQ(sim::fault_points(sim::Fault::kAlloc), allocations);
            EXPECT_NOTHING_LOGGED();
        }
    });
}

TEST(dispatch, failed_allocation_of_the_record_is_efault) {
    with_control([](Nodes &) {
        trak_log(TRAK_LOG_MILESTONE, "%s(): first message", "test");
        for (const Known &k : known) {
            Record record(k.size);
            sim::clear_log();
            sim::fail_nth(sim::Fault::kAlloc, 1);
            EXPECT_EQ(command(k.code, record), -EFAULT) << k.name;
            EXPECT_LOGGED_ERROR("trak_char_ioctl(): Memory allocation failed.");
        }
    });
}

TEST(dispatch, record_that_can_not_be_read_is_efault) {
    with_control([](Nodes &) {
        for (const Known &k : known) {
            sim::clear_log();
            EXPECT_EQ(sim::chr_ioctl(k.code, 0x1000), -EFAULT) << k.name;
            EXPECT_LOGGED_ERROR("trak_char_ioctl(): copy_from_user() failed.");

            Record record(k.size);
            sim::clear_log();
            sim::fail_nth(sim::Fault::kCopy, 1);
            EXPECT_EQ(command(k.code, record), -EFAULT) << k.name;
            EXPECT_LOGGED_ERROR("trak_char_ioctl(): copy_from_user() failed.");
        }
    });
}

TEST(dispatch, unknown_number_of_our_type_is_enotty_and_an_error) {
    with_control([](Nodes &) {
        trak_debug = 2;
        EXPECT_EQ(sim::chr_ioctl(0x4300, 0), -ENOTTY);
        EXPECT_LOGGED_INFO("trak_char_ioctl(): cmd=0x4300 (UNKNOWN)");
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): Inappropriate ioctl cmd=17152");
        EXPECT_EQ(sim::log().size(), 2u) << sim_run::log_text();
    });
}

TEST(dispatch, known_number_with_another_size_or_direction_is_unknown) {
    with_control([](Nodes &) {
        const os_uaddr buf = sim::user_alloc(8192);
        EXPECT_EQ(sim::chr_ioctl(0x40084303, buf), -ENOTTY);
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): Inappropriate ioctl cmd=1074283267");
        EXPECT_EQ(sim::chr_ioctl(0xc0044303, buf), -ENOTTY);
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): Inappropriate ioctl cmd=-1073462525");
        EXPECT_EQ(sim::chr_ioctl(0x00004303, buf), -ENOTTY);
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): Inappropriate ioctl cmd=17155");
        sim::user_free(buf);
    });
}

TEST(dispatch, unknown_number_of_our_type_on_an_inaccessible_record_is_efault) {
    with_control([](Nodes &) {
        EXPECT_EQ(sim::chr_ioctl(0xd9084312, sim::kUserLimit), -EFAULT);
        EXPECT_EQ(sim::chr_ioctl(0x80084312, sim::kUserLimit), -EFAULT);
        EXPECT_EQ(sim::chr_ioctl(0x40084312, sim::kUserLimit), -EFAULT);
        EXPECT_NOTHING_LOGGED();
        EXPECT_EQ(sim::chr_ioctl(0x00084312, sim::kUserLimit), -ENOTTY);
    });
}

TEST(dispatch, code_of_another_type_is_enotty_with_only_the_level_2_line) {
    with_control([](Nodes &) {
        trak_debug = 4;
        EXPECT_EQ(sim::chr_ioctl(0x5801, 0), -ENOTTY);
        EXPECT_LOGGED_INFO("trak_char_ioctl(): cmd=0x5801 (UNKNOWN)");
        EXPECT_EQ(sim::chr_ioctl(0x01, sim::kUserLimit + 1), -ENOTTY);
        EXPECT_LOGGED_INFO("trak_char_ioctl(): cmd=0x01 (UNKNOWN)");
        EXPECT_EQ(sim::log().size(), 2u) << sim_run::log_text();
    });
}

TEST(dispatch, minor_without_a_node_is_einval_for_every_command_that_names_one) {
    with_control([](Nodes &) {
        const struct {
            std::uint32_t minor;
            const char *text;
        } minors[] = {{7, "7"}, {256, "256"}, {0x7fffffff, "2147483647"}, {0xffffffff, "-1"}};
        for (const Known &k : known) {
            if (!k.node)
                continue;
            for (const auto &m : minors) {
                Record record(k.size, 0x5a);
                record.u32(0, m.minor);
                const sim::Bytes sent = record.bytes;
                sim::clear_log();
                EXPECT_EQ(command(k.code, record), -EINVAL) << k.name;
                EXPECT_LOGGED_ERROR(std::string("trak_char_ioctl(): Invalid TRAK minor=") + m.text);
                EXPECT_EQ(record.bytes, sent) << k.name;
            }
        }
    });
}

TEST(dispatch, highest_minor_is_found_and_the_one_above_is_not) {
    with_control([](Nodes &nodes) {
        nodes.filter(255);
        Record record(6408);
        record.u32(0, 255);
        EXPECT_EQ(command(TRAK_GET_INFO, record), 0);
        EXPECT_EQ(record.u32(4), 1u);
        record.u32(0, 256);
        EXPECT_EQ(command(TRAK_GET_INFO, record), -EINVAL);
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): Invalid TRAK minor=256");
    });
}

TEST(dispatch, handler_that_fails_leaves_the_record_untouched) {
    with_control([](Nodes &nodes) {
        nodes.snap(5, nullptr);
        Record record(6408, 0xa5);
        record.u32(0, 5);
        const sim::Bytes sent = record.bytes;
        EXPECT_EQ(command(TRAK_GET_INFO, record), -EINVAL);
        EXPECT_EQ(record.bytes, sent);
    });
}

TEST(dispatch, failed_copy_back_is_efault_with_the_text_of_a_copy_in) {
    with_control([](Nodes &nodes) {
        nodes.filter(5);
        const os_uaddr addr = sim::user_alloc(6408);
        sim::user_bytes(addr, 6408)[0] = 5;
        sim::user_protect(addr, true, false);
        EXPECT_EQ(sim::chr_ioctl(TRAK_GET_INFO, addr), -EFAULT);
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): copy_from_user() failed.");
        EXPECT_EQ(sim::log().size(), 1u) << sim_run::log_text();
        sim::user_free(addr);

        Record record(1032);
        record.u32(0, 1);
        sim::clear_log();
        sim::fail_nth(sim::Fault::kCopy, 2);
        EXPECT_EQ(command(TRAK_GET_DEVICE_LIST, record), -EFAULT);
        EXPECT_LOGGED_ERROR("trak_char_ioctl(): copy_from_user() failed.");
    });
}

TEST(dispatch, record_is_moved_without_the_lock_of_the_node_table) {
    // A writer who already waits gets in before the copy back ends the command only if the lock was
    // let go; a lock held over a copy would show as a copy made while nobody could write.
    sim::for_each_seed(40, [&](std::uint64_t seed) {
        with_control(
            [](Nodes &nodes) {
                nodes.filter(5);
                bool done = false;
                sim::Process *caller = sim::spawn("caller", [&] {
                    Record record(6408);
                    record.u32(0, 5);
                    EXPECT_EQ(command(TRAK_GET_INFO, record), 0);
                    done = true;
                });
                while (!done) {
                    zuwrite_lock(&trak_blkdev_rwlock);
                    sim::yield();
                    zuwrite_unlock(&trak_blkdev_rwlock);
                    sim::yield();
                }
                sim::join(caller);
            },
            seed);
    });
}

TEST(dispatch, commands_may_arrive_before_there_is_a_table) {
    sim_run::boot([] {
        trak_table_init();
        ASSERT_EQ(trak_char_init(), 0);
        Record info(6408);
        EXPECT_EQ(command(TRAK_GET_INFO, info), -EINVAL);
        Record list(1032, 0xff);
        list.u32(0, 1);
        EXPECT_EQ(command(TRAK_GET_DEVICE_LIST, list), 0);
        EXPECT_EQ(list.u32(4), 0u);
        EXPECT_EQ(trak_char_destroy(), 0);
    });
}

}  // namespace
