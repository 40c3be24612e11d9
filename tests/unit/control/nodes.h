// tests/unit/control/nodes.h: the control side alone, with node records made by hand
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_CONTROL_NODES_H
#define TRAK_TESTS_UNIT_CONTROL_NODES_H

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "driver/block/lock_ranks.h"
#include "driver/block/table.h"
#include "driver/control/char.h"
#include "driver/control/proc.h"
#include "driver/module/params.h"
#include "driver/utils/string.h"
#include "tests/support/sim_run.h"

namespace control_test {

// The records of a test: the table has them until the object goes.
class Nodes {
  public:
    ~Nodes() {
        for (auto &[minor, dev] : records_)
            remove(minor);
    }

    trak_device *filter(std::int32_t minor) {
        trak_device *dev = add(minor, TRAK_DEV_FILTER);
        trak_list_init(&dev->filter.snaps);
        zurwlock_init(&dev->filter.snap_rwlock, &trak_rank_snap_rwlock);
        dev->filter.part_minor = static_cast<std::uint32_t>(minor);
        return dev;
    }

    // A snap of the filter (null: of none).
    trak_device *snap(std::int32_t minor, trak_device *filter) {
        trak_device *dev = add(minor, TRAK_DEV_SNAP);
        dev->snap.part_minor = static_cast<std::uint32_t>(minor);
        dev->snap.filter = filter;
        if (filter != nullptr)
            trak_list_add_tail(&dev->snap.snap_link, &filter->filter.snaps);
        return dev;
    }

    // A record of any type, with the common fields alone.
    trak_device *add(std::int32_t minor, std::uint32_t type) {
        auto dev = std::make_unique<trak_device>();
        dev->dev_type = type;
        dev->minor = minor;
        const zuwrite_guard guard(&trak_blkdev_rwlock);
        trak_blkdev_arr[minor] = dev.get();
        return (records_[minor] = std::move(dev)).get();
    }

    void remove(std::int32_t minor) {
        const zuwrite_guard guard(&trak_blkdev_rwlock);
        trak_blkdev_arr[minor] = nullptr;
    }

  private:
    std::map<std::int32_t, std::unique_ptr<trak_device>> records_;
};

// Boots a machine with the status tree, the control device and an empty table; no block side.
inline void with_control(const std::function<void(Nodes &)> &fn, std::uint64_t seed = 1) {
    sim_run::boot(
        [&] {
            trak_table_init();
            ASSERT_EQ(trak_table_create(), 0);
            ASSERT_EQ(trak_create_proc(), 0);
            ASSERT_EQ(trak_char_init(), 0);
            sim::clear_log();
            {
                Nodes nodes;
                fn(nodes);
            }
            EXPECT_EQ(trak_char_destroy(), 0);
            EXPECT_EQ(trak_remove_proc(), 0);
            const zuwrite_guard guard(&trak_blkdev_rwlock);
            trak_table_destroy();
        },
        seed);
}

}  // namespace control_test

#endif
