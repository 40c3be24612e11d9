// driver/snap/routing.cpp: requests that involve snapshots: straight to the disk, or to kcowd
// SPDX-License-Identifier: GPL-2.0-only
//
// Each request is cloned first: from then on it stands in the filter's tracker, and whatever overlaps
// it waits or is queued. Only then is it looked whether it may go. Of two requests that overlap the
// later one therefore sees the earlier one either in the tracker or in the queue.
//
// A write may go when every chunk of it is preserved in the newest snap (older ones read through
// that one), durably: a bit that kcowd has set but not yet synced could still be lost to a power
// cut, with the old contents gone from the disk.
//
// A read of a snap may go when nothing newer has preserved its chunks: the disk still holds the
// image. A write that changes the disk under it afterwards is sent by kcowd, which waits for the
// clone of the read. The snap's validity is looked at once more at the very end: kcowd gives a snap
// up before it lets the write go that the snap could not survive.
#include "driver/snap/routing.h"

#include "driver/block/trak_aio_26.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/bio_range.h"
#include "driver/snap/snap_list.h"
#include "driver/snap/snap_node.h"
#include "driver/snap/trak_cowqueue_26.h"
#include "driver/snap/trak_cowthread_26.h"

namespace {

struct chunk_range {
    std::uint64_t first;
    std::uint64_t last;
};

chunk_range chunks_of(const trak_snap *snap, const bio_range &range) {
    const int shift = snap->chunk_shift - OS_SECTOR_SHIFT;
    return {range.first >> shift, range.last >> shift};
}

void send(os_bio *bio, os_bdev *bdev) {
    os_bio_set_bdev(bio, bdev);
    os_generic_make_request(bio);
}

// The clone goes first: while it stands in the tracker kcowd waits for it, and the queue's memory may
// have to wait for kcowd.
int queue_instead(trak_device *filter, os_bio *bio, os_bio *clone, os_gfp gfp) {
    os_bio_put(clone);
    return queue_req(filter, bio, gfp);
}

// True while the chunk's bit may not be durable yet. Every chunk that kcowd marks is touched by a
// write that is still queued.
bool may_be_lost(trak_filter *filter, const trak_snap *snap, std::uint64_t chunk) {
    if (snap->marking.load() == 0)
        return false;
    const int shift = snap->chunk_shift - OS_SECTOR_SHIFT;
    return trak_cowqueue_find_overlap_range(&filter->cowqueue, 0, 1, chunk << shift,
                                            std::uint64_t{1} << shift) != 0;
}

enum class Verdict { kGo, kWait, kAskOlder };

std::int64_t count_of(const chunk_range &chunks) {
    return static_cast<std::int64_t>(chunks.last - chunks.first + 1);
}

// What one started and valid snap says about a write.
Verdict ask_snap(trak_filter *filter, trak_snap *snap, const bio_range &range) {
    const chunk_range chunks = chunks_of(snap, range);
    // The usual case in one look; an error counts as preserved. The bits are read before `marking`:
    // kcowd sets it before the first bit and takes it back when the last one is durable.
    const std::int64_t set = trak_cowbmp_count_set(&snap->cowbmp, chunks.first, chunks.last);
    if ((set < 0 || set == count_of(chunks)) && snap->marking.load() == 0)
        return Verdict::kGo;
    bool all_preserved = true;
    bool any_data = false;
    for (std::uint64_t c = chunks.first; c <= chunks.last && (all_preserved || !any_data); ++c) {
        const auto chunk = static_cast<std::uint32_t>(c);
        if (trak_cowbmp_test_bit(&snap->cowbmp, chunk) == 0 || may_be_lost(filter, snap, c))
            all_preserved = false;
        any_data = any_data || trak_blkbmp_holds_data(&snap->blkbmp, chunk);
    }
    if (all_preserved)
        return Verdict::kGo;
    return any_data ? Verdict::kWait : Verdict::kAskOlder;
}

bool write_must_wait(trak_device *filter, os_bio *bio) {
    if (trak_cowqueue_find_overlap_req(&filter->filter.cowqueue, 1, 1, bio) != 0)
        return true;
    const bio_range range = bio_range_of(bio);
    for (trak_device *s = trak_snap_newest(filter); s != nullptr; s = trak_snap_older(s)) {
        if (trak_read_once(s->started) == 0)
            continue;
        if (!trak_snap_is_valid(s))
            return false;
        const Verdict verdict = ask_snap(&filter->filter, &s->snap, range);
        if (verdict != Verdict::kAskOlder)
            return verdict == Verdict::kWait;
    }
    return false;
}

bool any_chunk_preserved(trak_device *snap, const bio_range &range) {
    const chunk_range chunks = chunks_of(&snap->snap, range);
    for (trak_device *s = snap; s != nullptr; s = trak_snap_newer(s)) {
        if (trak_snap_takes_part(s) &&
            trak_cowbmp_count_set(&s->snap.cowbmp, chunks.first, chunks.last) != 0)
            return true;
    }
    return false;
}

bool is_serving(const trak_device *snap) {
    return trak_snap_takes_part(snap) && trak_read_once(snap->snap.stop_pending) == 0;
}

int refuse_invalid(const trak_device *snap) {
    trak_log(TRAK_LOG_ERROR,
             "%s(): I/O request for trak(%d, %d), which is in STOP_PENDING state or INVALID.",
             "trak_make_request", trak_blk_major, snap->minor);
    return -EIO;
}

// A read with data, of a snap that serves. snap_rwlock held for reading.
int route_snap_read(trak_device *snap, os_bio *bio, os_gfp gfp) {
    trak_device *parent = snap->snap.filter;
    trak_filter *filter = &parent->filter;
    os_bio *clone = trak_aio_clone(&filter->aio, bio, 0, gfp);
    if (clone == nullptr)
        return queue_req(parent, bio, gfp);
    if (trak_cowqueue_find_overlap_req(&filter->cowqueue, 0, 1, bio) != 0 ||
        any_chunk_preserved(snap, bio_range_of(bio)))
        return queue_instead(parent, bio, clone, gfp);
    if (!trak_snap_is_valid(snap)) {
        os_bio_put(clone);
        return refuse_invalid(snap);
    }
    send(clone, filter->hdd_bdev);
    return 0;
}

}  // namespace

int trak_route_snap_request(trak_device *snap, os_bio *bio, os_gfp gfp) {
    trak_device *filter = snap->snap.filter;
    if (filter == nullptr || !trak_is_filter(filter)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Request for unattached snap device trak(%d, %d)",
                 "trak_make_request", trak_blk_major, snap->minor);
        return -EINVAL;
    }
    const zuread_guard guard(&filter->filter.snap_rwlock);
    if (!is_serving(snap))
        return refuse_invalid(snap);
    if (bio_is_write(bio)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Write request to snap trak(%d, %d)", "trak_make_request",
                 trak_blk_major, snap->minor);
        return -EROFS;
    }
    if (bio_range_of(bio).sectors == 0) {
        send(bio, filter->filter.hdd_bdev);
        return 0;
    }
    return route_snap_read(snap, bio, gfp);
}

int trak_route_filter_request(trak_device *filter, os_bio *bio, os_gfp gfp) {
    trak_filter *part = &filter->filter;
    if (trak_list_empty(&part->snaps) || bio_range_of(bio).sectors == 0) {
        send(bio, part->hdd_bdev);
        return 0;
    }
    const bool served = trak_cowthread_running(&part->cowthread);
    os_bio *clone = trak_aio_clone(&part->aio, bio, served ? 0 : 1, gfp);
    if (clone == nullptr) {
        if (served)
            return queue_req(filter, bio, gfp);
        // No memory, no snap running, and nobody who would take it from the queue.
        send(bio, part->hdd_bdev);
        return 0;
    }
    if (bio_is_write(bio) && write_must_wait(filter, bio))
        return queue_instead(filter, bio, clone, gfp);
    send(clone, part->hdd_bdev);
    return 0;
}
