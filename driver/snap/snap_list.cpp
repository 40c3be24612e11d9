// driver/snap/snap_list.cpp: walks over the snaps of a filter
// SPDX-License-Identifier: GPL-2.0-only
//
// Why kcowd may clear snap_valid while requests decide (it holds snap_rwlock for reading, as they do):
//
//   1  It is the only one that clears it, oldest snap first, and all loads and stores are in one order:
//      who sees a snap given up and then looks at an older one sees that one given up too.
//   2  Every request stands in the tracker before it looks at anything. Of a write and a snap read that
//      overlap, the second one to come there is queued, and kcowd, which sends what is queued, waits
//      for the clone of the other: if both looked, they looked one after the other with the first one's
//      I/O done or its clone gone.
//   3  A write that finds the newest started snap given up goes unpreserved. By 1 every older one is
//      given up then.
//   4  A read of snap S that skips a newer one as given up might take changed bytes of the disk for the
//      image. By 1 its last look, at S itself, refuses it. Where that look still finds S valid, no write
//      has gone by 3 yet, and one that goes later and overlaps waits by 2 until the disk has answered.
//   5  Reads that kcowd serves can't meet a clearing, which is its own work between two requests. A stop
//      or start, which takes the lock for writing, can come in between: hence its look at the end.
//   6  A write that saw a snap valid and its chunks preserved may go whatever becomes of the snap; one
//      that saw a chunk missing waits for kcowd, which looks again.
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
