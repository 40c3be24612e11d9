// tests/unit/utils/list_test.cpp: doubly linked lists
// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>
#include <vector>

#include "driver/utils/list.h"

namespace {

struct Item {
    int value;
    trak_list link;
};

std::vector<int> values(const trak_list *head) {
    std::vector<int> found;
    for (trak_list *link = head->next; link != head; link = link->next) {
        EXPECT_EQ(link->next->prev, link);
        found.push_back(trak_container_of(link, Item, link)->value);
    }
    return found;
}

TEST(list, keeps_the_order_in_which_records_are_added) {
    trak_list head;
    trak_list_init(&head);
    EXPECT_TRUE(trak_list_empty(&head));
    Item items[4] = {{1, {}}, {2, {}}, {3, {}}, {4, {}}};
    trak_list_add_tail(&items[1].link, &head);
    trak_list_add_tail(&items[2].link, &head);
    trak_list_add_head(&items[0].link, &head);
    trak_list_insert_after(&items[3].link, &items[1].link);
    EXPECT_EQ(values(&head), (std::vector<int>{1, 2, 4, 3}));
    EXPECT_FALSE(trak_list_empty(&head));
}

TEST(list, record_that_is_taken_out_is_a_list_of_its_own) {
    trak_list head;
    trak_list_init(&head);
    Item items[3] = {{1, {}}, {2, {}}, {3, {}}};
    for (Item &item : items)
        trak_list_add_tail(&item.link, &head);
    trak_list_del(&items[1].link);
    EXPECT_EQ(values(&head), (std::vector<int>{1, 3}));
    EXPECT_TRUE(trak_list_empty(&items[1].link));
    trak_list_del(&items[1].link);
    trak_list_del(&items[0].link);
    trak_list_del(&items[2].link);
    EXPECT_TRUE(trak_list_empty(&head));
}

}  // namespace
