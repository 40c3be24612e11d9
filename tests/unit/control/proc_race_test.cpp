// tests/unit/control/proc_race_test.cpp: the status tree while nodes come and go
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/control/nodes.h"

namespace {

using control_test::Nodes;
using control_test::with_control;

TEST(proc_race, read_under_way_ends_when_its_node_is_deleted) {
    sim::for_each_seed(100, [&](std::uint64_t seed) {
        with_control(
            [&](Nodes &nodes) {
                trak_device *dev = nodes.filter(3);
                ASSERT_EQ(trak_proc_add_device(dev), 0);
                std::vector<sim::Process *> readers;
                for (int r = 0; r < 3; ++r)
                    readers.push_back(sim::spawn("reader", [] {
                        std::string text = "not read";
                        int rc = 0;
                        while (rc == 0) {
                            rc = sim::proc_read("/proc/trak/trak3/minor", &text);
                            EXPECT_TRUE(rc != 0 || text == "3\n" || text.empty()) << text;
                        }
                        EXPECT_EQ(rc, -ENOENT);
                    }));
                for (std::uint64_t i = sim::random(20); i > 0; --i)
                    sim::yield();
                {
                    // As a deletion does: the folder goes while the table is held for writing.
                    const zuwrite_guard guard(&trak_blkdev_rwlock);
                    trak_proc_del_device(dev);
                    trak_blkdev_arr[3] = nullptr;
                }
                for (sim::Process *reader : readers)
                    sim::join(reader);
            },
            seed);
    });
}

TEST(proc_race, read_of_another_node_waits_for_the_table_and_gets_its_text) {
    sim::for_each_seed(60, [&](std::uint64_t seed) {
        with_control(
            [&](Nodes &nodes) {
                trak_device *leaving = nodes.filter(3);
                trak_device *staying = nodes.filter(4);
                ASSERT_EQ(trak_proc_add_device(leaving), 0);
                ASSERT_EQ(trak_proc_add_device(staying), 0);
                sim::Process *reader = sim::spawn("reader", [] {
                    for (int i = 0; i < 5; ++i) {
                        std::string text;
                        EXPECT_EQ(sim::proc_read("/proc/trak/trak4/minor", &text), 0);
                        EXPECT_EQ(text, "4\n");
                    }
                });
                for (std::uint64_t i = sim::random(10); i > 0; --i)
                    sim::yield();
                {
                    const zuwrite_guard guard(&trak_blkdev_rwlock);
                    trak_proc_del_device(leaving);
                    trak_blkdev_arr[3] = nullptr;
                }
                sim::join(reader);
                trak_proc_del_device(staying);
            },
            seed);
    });
}

TEST(proc_race, failed_creation_of_a_folder_ends_reads_of_its_first_files) {
    sim::for_each_seed(60, [&](std::uint64_t seed) {
        with_control(
            [&](Nodes &nodes) {
                trak_device *dev = nodes.filter(3);
                bool done = false;
                sim::Process *reader = sim::spawn("reader", [&] {
                    std::string text;
                    while (!done) {
                        (void)sim::proc_read("/proc/trak/trak3/minor", &text);
                        sim::yield();
                    }
                });
                {
                    const zuwrite_guard guard(&trak_blkdev_rwlock);
                    sim::fail_nth(sim::Fault::kProc, 15);
                    EXPECT_EQ(trak_proc_add_device(dev), -EINVAL);
                }
                done = true;
                sim::join(reader);
                EXPECT_FALSE(sim::proc_exists("/proc/trak/trak3"));
            },
            seed);
    });
}

}  // namespace
