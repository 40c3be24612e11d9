// driver/snap/snap_stop.cpp: the stop of a snapshot, and what destroy needs of it
// SPDX-License-Identifier: GPL-2.0-only
//
// An older snap reads through the newer ones, so a snap with an older one running only becomes defunct:
// it refuses requests of its own and goes on preserving, until the older one stops and the cascade
// (which the caller runs, as a loop) reaches it.
//
// `started` goes to 0 with snap_rwlock held for writing: no request is in the middle of a decision.
// kcowd may still be working with the files, for the request at the head of its queue; once that one
// has left the queue kcowd looks at the snaps anew and does not find this one.
#include "driver/block/locks.h"
#include "driver/snap/snap_files.h"
#include "driver/snap/snap_list.h"
#include "driver/snap/snap_node.h"
#include "os/task.h"

namespace {

// The filter's dev_mutex is held.
bool older_is_started(trak_device *snap) {
    for (trak_device *s = trak_snap_older(snap); s != nullptr; s = trak_snap_older(s)) {
        if (trak_read_once(s->started) != 0)
            return true;
    }
    return false;
}

// The number of requests that left the queue so far; *empty when none is left.
std::uint32_t look(trak_cowqueue *queue, bool *empty) {
    const trak_spin_guard guard(&queue->spin);
    *empty = trak_list_empty(&queue->requests);
    return queue->removed;
}

// Waits until kcowd has finished the request that it may be working on.
void let_head_go(trak_filter *filter) {
    bool empty;
    const std::uint32_t removed = look(&filter->cowqueue, &empty);
    while (!empty && trak_cowthread_running(&filter->cowthread)) {
        os_yield();
        if (look(&filter->cowqueue, &empty) != removed)
            return;
    }
}

}  // namespace

int trak_snap_stop(trak_device *snap, int *postponed) {
    trak_filter *filter = &snap->snap.filter->filter;
    *postponed = older_is_started(snap) ? 1 : 0;
    {
        const zuwrite_guard guard(&filter->snap_rwlock);
        trak_write_once(snap->snap.stop_pending, static_cast<std::uint32_t>(*postponed));
        if (*postponed != 0)
            return 0;
        trak_write_once(snap->started, 0u);
    }
    let_head_go(filter);
    snap_drop_files(snap);
    return 0;
}

trak_device *trak_snap_next_to_stop(trak_device *snap) {
    for (trak_device *s = trak_snap_newer(snap); s != nullptr; s = trak_snap_newer(s)) {
        if (trak_read_once(s->started) != 0)
            return trak_read_once(s->snap.stop_pending) != 0 ? s : nullptr;
    }
    return nullptr;
}

void trak_snap_detach(trak_device *snap) {
    const zuwrite_guard guard(&snap->snap.filter->filter.snap_rwlock);
    trak_list_del(&snap->snap.snap_link);
}
