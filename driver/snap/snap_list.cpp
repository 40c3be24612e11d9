// driver/snap/snap_list.cpp: walks over the snaps of a filter
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/snap_list.h"

#include "driver/snap/snap_node.h"

trak_device *trak_snap_newer(trak_device *snap) {
    trak_list *at = snap->snap.snap_link.next;
    return at == &snap->snap.filter->filter.snaps ? nullptr : trak_device_of_link(at);
}

trak_device *trak_snap_older(trak_device *snap) {
    trak_list *at = snap->snap.snap_link.prev;
    return at == &snap->snap.filter->filter.snaps ? nullptr : trak_device_of_link(at);
}

trak_device *trak_snap_newest(trak_device *filter) {
    trak_list *snaps = &filter->filter.snaps;
    return trak_list_empty(snaps) ? nullptr : trak_device_of_link(snaps->prev);
}

trak_device *trak_snap_newest_taking_part(trak_device *filter) {
    trak_device *snap = trak_snap_newest(filter);
    while (snap != nullptr && !trak_snap_takes_part(snap))
        snap = trak_snap_older(snap);
    return snap;
}

trak_device *trak_snap_holder_of(trak_device *snap, std::uint32_t chunk, int *bit) {
    for (; snap != nullptr; snap = trak_snap_newer(snap)) {
        if (!trak_snap_takes_part(snap))
            continue;
        *bit = trak_cowbmp_test_bit(&snap->snap.cowbmp, chunk);
        if (*bit != 0)
            return snap;
    }
    *bit = 0;
    return nullptr;
}

bool trak_snap_takes_part(const trak_device *snap) {
    return trak_read_once(snap->started) != 0 && trak_snap_is_valid(snap);
}

bool trak_snap_is_valid(const trak_device *snap) {
    return __atomic_load_n(&snap->snap.snap_valid, __ATOMIC_SEQ_CST) != 0;
}

void trak_snap_set_valid(trak_device *snap, std::uint32_t valid) {
    __atomic_store_n(&snap->snap.snap_valid, valid, __ATOMIC_SEQ_CST);
}
