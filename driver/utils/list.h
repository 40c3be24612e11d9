// driver/utils/list.h: doubly linked lists whose links lie in the records
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_UTILS_LIST_H
#define TRAK_UTILS_LIST_H

#include <cstddef>

// A list is a ring through its head. A head is empty when it points to itself. No function takes a
// lock: the owner of the list says which one protects it.
struct trak_list {
    trak_list *next;
    trak_list *prev;
};

inline void trak_list_init(trak_list *head) {
    head->next = head->prev = head;
}
// The buckets of a table.
inline void trak_list_init_all(trak_list *heads, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        heads[i].next = heads[i].prev = &heads[i];
}
inline bool trak_list_empty(const trak_list *head) {
    return head->next == head;
}
// Puts a link behind `at`.
inline void trak_list_insert_after(trak_list *link, trak_list *at) {
    link->next = at->next;
    link->prev = at;
    at->next->prev = link;
    at->next = link;
}
inline void trak_list_add_head(trak_list *link, trak_list *head) {
    trak_list_insert_after(link, head);
}
inline void trak_list_add_tail(trak_list *link, trak_list *head) {
    trak_list_insert_after(link, head->prev);
}
inline void trak_list_del(trak_list *link) {
    link->prev->next = link->next;
    link->next->prev = link->prev;
    link->next = link->prev = link;
}

// The record that holds the link.
#define trak_container_of(ptr, type, member)                                                       \
    (reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member)))

#endif
