// tests/unit/locks/table_test.cpp: the node table and the choice of minors
// SPDX-License-Identifier: GPL-2.0-only
#include <map>
#include <memory>

#include "driver/block/table.h"
#include "driver/module/params.h"
#include "tests/support/sim_run.h"

namespace {

using sim_run::Record;

// A table for minors up to max, in a boot of its own.
void with_table(std::int32_t max, const std::function<void()> &fn) {
    sim_run::boot([&] {
        trak_max_blk_minor = max;
        trak_table_init();
        ASSERT_EQ(trak_table_create(), 0);
        zuwrite_lock(&trak_blkdev_rwlock);
        fn();
        trak_table_destroy();
        EXPECT_EQ(trak_blkdev_arr, nullptr);
        zuwrite_unlock(&trak_blkdev_rwlock);
    });
}

class Nodes {
  public:
    // The result of placing a new record; its minor goes back to the caller.
    int place(std::int32_t *minor) {
        auto dev = std::make_unique<trak_device>();
        const int rc = trak_place_device("trak_ioctl_add_filter_node", dev.get(), minor);
        if (rc == 0)
            records[*minor] = std::move(dev);
        return rc;
    }
    int place(std::int32_t minor) { return place(&minor); }
    std::map<std::int32_t, std::unique_ptr<trak_device>> records;
};

TEST(table, is_empty_at_first_and_ends_at_the_highest_minor) {
    with_table(255, [] {
        for (std::uint32_t m = 0; m <= 256; ++m)
            EXPECT_EQ(trak_find_device(m), nullptr);
        Nodes nodes;
        EXPECT_EQ(nodes.place(255), 0);
        EXPECT_EQ(trak_find_device(255), nodes.records[255].get());
        EXPECT_EQ(nodes.records[255]->minor, 255);
    });
}

TEST(table, minors_beyond_it_name_no_node) {
    with_table(3, [] {
        EXPECT_EQ(trak_find_device(4), nullptr);
        EXPECT_EQ(trak_find_device(0x7fffffff), nullptr);
        EXPECT_EQ(trak_find_device(0x80000000), nullptr);
        EXPECT_EQ(trak_find_device(0xffffffff), nullptr);
    });
}

TEST(table, before_it_is_made_nothing_is_found_and_nothing_placed) {
    sim_run::boot([] {
        trak_table_init();
        zuwrite_lock(&trak_blkdev_rwlock);
        EXPECT_EQ(trak_find_device(0), nullptr);
        Nodes nodes;
        EXPECT_EQ(nodes.place(0), -EINVAL);
        EXPECT_EQ(nodes.place(-1), -EINVAL);
        zuwrite_unlock(&trak_blkdev_rwlock);
    });
}

TEST(table, failed_allocation_is_enomem) {
    sim_run::boot([] {
        trak_table_init();
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_table_create(), -ENOMEM);
        EXPECT_EQ(trak_blkdev_arr, nullptr);
    });
}

TEST(table, highest_minor_that_no_device_number_holds_is_enomem) {
    sim_run::boot([] {
        trak_table_init();
        for (const std::int32_t max : {-1, -256, INT32_MIN, INT32_MAX, 0x100000}) {
            trak_max_blk_minor = max;
            EXPECT_EQ(trak_table_create(), -ENOMEM) << max;
            EXPECT_EQ(trak_blkdev_arr, nullptr);
        }
    });
}

TEST(table, highest_minor_may_be_the_last_of_a_device_number) {
    with_table(0xfffff, [] {
        Nodes nodes;
        EXPECT_EQ(nodes.place(0xfffff), 0);
        EXPECT_EQ(trak_find_device(0xfffff), nodes.records[0xfffff].get());
    });
}

TEST(table, highest_minor_may_be_zero) {
    with_table(0, [] {
        Nodes nodes;
        EXPECT_EQ(nodes.place(1), -EINVAL);
        std::int32_t minor = -1;
        EXPECT_EQ(nodes.place(&minor), 0);
        EXPECT_EQ(minor, 0);
        EXPECT_EQ(nodes.place(-1), -ENOSPC);
        EXPECT_LOGGED_ERROR("trak_ioctl_add_filter_node(): All 1 of TRAK minor nodes have already "
                            "been used up.");
    });
}

TEST(table, asked_minor_that_is_too_big_is_refused) {
    with_table(255, [] {
        Nodes nodes;
        std::int32_t minor = 256;
        EXPECT_EQ(nodes.place(&minor), -EINVAL);
        EXPECT_EQ(minor, 256);
        EXPECT_LOGGED_ERROR("trak_ioctl_add_filter_node(): Minor number 256 is too big: max=255");
    });
}

TEST(table, asked_minor_that_is_taken_is_refused) {
    with_table(255, [] {
        Nodes nodes;
        EXPECT_EQ(nodes.place(7), 0);
        trak_device *first = trak_find_device(7);
        EXPECT_EQ(nodes.place(7), -EINVAL);
        EXPECT_EQ(trak_find_device(7), first);
        EXPECT_LOGGED_ERROR("trak_ioctl_add_filter_node(): Device minor number 7 is already taken");
    });
}

TEST(table, any_negative_minor_takes_the_lowest_free_one_and_writes_it_back) {
    with_table(255, [] {
        Nodes nodes;
        EXPECT_EQ(nodes.place(0), 0);
        EXPECT_EQ(nodes.place(1), 0);
        EXPECT_EQ(nodes.place(3), 0);
        std::int32_t minor = -1;
        EXPECT_EQ(nodes.place(&minor), 0);
        EXPECT_EQ(minor, 2);
        minor = INT32_MIN;
        EXPECT_EQ(nodes.place(&minor), 0);
        EXPECT_EQ(minor, 4);
        EXPECT_EQ(nodes.records[4]->minor, 4);
    });
}

TEST(table, minor_is_used_again_once_its_entry_is_empty) {
    with_table(255, [] {
        Nodes nodes;
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(nodes.place(-1), 0);
        trak_blkdev_arr[2] = nullptr;
        std::int32_t minor = -7;
        EXPECT_EQ(nodes.place(&minor), 0);
        EXPECT_EQ(minor, 2);
    });
}

TEST(table, has_room_for_256_nodes_and_says_so_when_they_are_used_up) {
    with_table(255, [] {
        Nodes nodes;
        for (std::int32_t m = 0; m < 256; ++m) {
            std::int32_t minor = -1;
            EXPECT_EQ(nodes.place(&minor), 0);
            EXPECT_EQ(minor, m);
        }
        std::int32_t minor = -1;
        EXPECT_EQ(nodes.place(&minor), -ENOSPC);
        EXPECT_EQ(minor, -1);
        EXPECT_LOGGED_ERROR(
            "trak_ioctl_add_filter_node(): All 256 of TRAK minor nodes have already "
            "been used up.");
    });
}

TEST(table, generated_identifiers_are_braced_lower_case_and_differ) {
    sim_run::boot([] {
        char uuid[39], other[39];
        std::memset(uuid, 'x', sizeof uuid);
        trak_generate_uuid(uuid);
        trak_generate_uuid(other);
        ASSERT_EQ(uuid[38], '\0');
        const std::string text = uuid;
        ASSERT_EQ(text.size(), 38u);
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char expected = i == 0 ? '{' : i == 37 ? '}' : '-';
            if (i == 0 || i == 37 || i == 9 || i == 14 || i == 19 || i == 24)
                EXPECT_EQ(text[i], expected) << i;
            else
                EXPECT_NE(std::string("0123456789abcdef").find(text[i]), std::string::npos) << text;
        }
        EXPECT_NE(text, other);
    });
}

}  // namespace
