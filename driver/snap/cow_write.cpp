// driver/snap/cow_write.cpp: requests of the filter that wait behind kcowd
// SPDX-License-Identifier: GPL-2.0-only
//
// The head waits until every chunk that it touches is preserved in the newest snap that is started
// and valid; older ones read through that one. What it needs is copied together with what the
// requests behind it need, as far as one group goes and the tag stays the same; a head that needs
// more than a group gets several. Then it is looked at again with snap_rwlock held, under which no
// snap can start or stop, and sent to the disk within that hold: a snap that started while the group
// was copied gets its own copy first.
#include "driver/block/locks.h"
#include "driver/block/trak_aio_26.h"
#include "driver/module/log.h"
#include "driver/snap/cow_work.h"
#include "driver/snap/snap_list.h"
#include "os/task.h"

namespace {

bool in_group(const cow_work *work, std::uint32_t chunk) {
    for (std::uint32_t i = work->chunk_cnt; i-- > 0;) {
        if (work->chunks[i] == chunk)
            return true;
    }
    return false;
}

// Adds the chunks that the write needs preserved, up to `capacity` in all.
void add_chunks(cow_work *work, trak_device *snap, const cow_request *request,
                std::uint32_t capacity) {
    const bio_range range = request->range;
    if (!request->write || range.sectors == 0)
        return;
    const int shift = snap->snap.chunk_shift - OS_SECTOR_SHIFT;
    const std::uint64_t first = range.first >> shift;
    const std::uint64_t last = range.last >> shift;
    const auto count = static_cast<std::int64_t>(last - first + 1);
    if (trak_cowbmp_count_set(&snap->snap.cowbmp, first, last) == count)
        return;  // preserved with an earlier group, as most requests behind a head are
    for (std::uint64_t c = first; c <= last; ++c) {
        const auto chunk = static_cast<std::uint32_t>(c);
        if (work->chunk_cnt == capacity)
            return;
        if (trak_cowbmp_test_bit(&snap->snap.cowbmp, chunk) == 0 && !in_group(work, chunk))
            work->chunks[work->chunk_cnt++] = chunk;
    }
}

// The request behind this one when it carries the same tag, or null.
cow_request *next_of_run(trak_cowqueue *queue, cow_request *request) {
    const trak_spin_guard guard(&queue->spin);
    trak_list *at = request->link.next;
    if (at == &queue->requests)
        return nullptr;
    cow_request *next = trak_container_of(at, cow_request, link);
    return next->snap_minor == request->snap_minor ? next : nullptr;
}

// Collects the head's chunks first: none, and the head needs nothing.
void build_group(cow_work *work, trak_device *snap, cow_request *head) {
    const auto shift = static_cast<std::uint32_t>(snap->snap.chunk_shift);
    const std::uint32_t capacity = shift < kGroupShift ? 1u << (kGroupShift - shift) : 1;
    work->chunk_cnt = 0;
    add_chunks(work, snap, head, capacity);
    if (work->chunk_cnt == 0)
        return;
    trak_cowqueue *queue = &work->filter->filter.cowqueue;
    for (cow_request *r = next_of_run(queue, head); r != nullptr && work->chunk_cnt < capacity;
         r = next_of_run(queue, r))
        add_chunks(work, snap, r, capacity);
}

struct borrowed {
    os_completion done;
    int error;
};

void end_borrowed(os_bio *bio, int error) {
    auto *borrow = static_cast<borrowed *>(os_bio_private(bio));
    borrow->error = error;
    os_complete(&borrow->done);
}

// Sends the head's own bio, which needs no memory, and waits for its end: it stands in no tracker, but
// in the queue, where whatever overlaps it finds it. Only then its submitter hears of the end.
void send_itself(cow_work *work, cow_request *head) {
    trak_filter *filter = &work->filter->filter;
    os_bio *bio = head->bio;
    while (trak_aio_overlaps(&filter->aio, bio))
        os_yield();
    const os_bio_end_io_fn end_io = os_bio_end_io(bio);
    void *const data = os_bio_private(bio);
    borrowed borrow;
    os_init_completion(&borrow.done);
    os_bio_set_end_io(bio, end_borrowed);
    os_bio_set_private(bio, &borrow);
    os_bio_set_bdev(bio, filter->hdd_bdev);
    os_generic_make_request(bio);
    os_queue_unplug(os_bdev_queue(filter->hdd_bdev));
    os_wait_for_completion(&borrow.done);
    cow_finish(work, head);
    os_bio_set_end_io(bio, end_io);
    os_bio_set_private(bio, data);
    if (end_io != nullptr)
        end_io(bio, borrow.error);
}

// Sends the head, which needs nothing preserved any more, to the disk. snap_rwlock held for reading.
void release(cow_work *work, cow_request *head) {
    trak_filter *filter = &work->filter->filter;
    os_bio *clone = trak_aio_clone(&filter->aio, head->bio, 1, OS_GFP_NOIO);
    if (clone == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to clone BIO", "cow_worker");
        send_itself(work, head);
        return;
    }
    os_bio_set_bdev(clone, filter->hdd_bdev);
    // Out of the queue first: once the disk has the clone, the bio may be gone. The clone is in the
    // tracker, so whatever overlaps it still waits.
    cow_finish(work, head);
    os_generic_make_request(clone);
    if (filter->cowqueue.cnt.load() == 0)
        os_queue_unplug(os_bdev_queue(filter->hdd_bdev));
}

}  // namespace

void cow_serve_filter_request(cow_work *work, cow_request *head) {
    while (trak_read_once(work->thread->stop) == 0) {
        trak_device *snap;
        {
            const zuread_guard guard(&work->filter->filter.snap_rwlock);
            snap = trak_snap_newest_taking_part(work->filter);
            if (snap != nullptr)
                build_group(work, snap, head);
            if (snap == nullptr || work->chunk_cnt == 0) {
                release(work, head);
                return;
            }
        }
        cow_chunks(work, snap);
    }
}
