// tests/unit/block/orphan_snap_test.cpp: snaps of a filter that lost its table entry
// SPDX-License-Identifier: GPL-2.0-only
#include "os/task.h"
#include "tests/support/snap_world.h"

namespace orphan_snap_test {

using namespace snap_world;

TEST(orphan, start_of_its_snap_does_not_freeze_through_an_opener_that_has_gone) {
    Machine machine;
    prepare(machine);
    machine.storage.add_disk("sdd", os_mkdev(8, 64), kDiskSize, 512);
    boot(machine, [&] {
        make_snap();
        os_bdev *opener = open_node(0);
        ASSERT_NE(opener, nullptr);
        trak_device *orphan = node(0);
        EXPECT_EQ(orphan->last_open_bdev, opener);
        ASSERT_EQ(add_filter(0, 4096, "/dev/sdd"), -EINVAL);
        sim::close_device(opener);
        EXPECT_EQ(orphan->last_open_bdev, nullptr);
        EXPECT_EQ(orphan->use_cnt.load(), 0);
        (void)start(1);   // what comes of it is another matter: nothing freed is touched
        os_module_put();  // which the refused release kept, as it is defined
    });
}

TEST(orphan, start_of_its_snap_goes_on_where_another_node_took_the_minor) {
    Machine machine;
    prepare(machine);
    machine.storage.add_disk("sdd", os_mkdev(8, 64), kDiskSize, 512);
    boot(machine, [&] {
        make_snap();
        trak_device *orphan = node(0);
        ASSERT_EQ(add_filter(0, 4096, "/dev/sdd"), -EINVAL);
        ASSERT_EQ(add_filter(0, 4096, "/dev/sdd"), 0);
        ASSERT_EQ(orphan->disk, nullptr);  // a disk that has gone: no request came by it
        EXPECT_EQ(start(1), 0);
        EXPECT_EQ(stop(1), 0);
    });
}

}  // namespace orphan_snap_test
