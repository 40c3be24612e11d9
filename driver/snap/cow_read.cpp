// driver/snap/cow_read.cpp: reads that kcowd serves: of the disk, and of snaps
// SPDX-License-Identifier: GPL-2.0-only
//
// A snap's chunk is in the data file of the first snap from it toward newer ones that preserved it,
// or still on the disk. No write can reach a chunk of the disk that is not preserved while kcowd is
// busy with this read, for it is kcowd that would have to preserve it first.
#include "driver/block/locks.h"
#include "driver/block/trak_aio_26.h"
#include "driver/module/log.h"
#include "driver/snap/bio_range.h"
#include "driver/snap/cow_work.h"
#include "driver/snap/snap_list.h"
#include "driver/snap/snap_node.h"
#include "driver/utils/string.h"
#include "os/task.h"

namespace {

// Copies `length` bytes at byte `at` of the disk to `to`, by way of the thread's first page. The bytes
// lie within a page counted from the sector that `at` is in. 0 or -EIO.
int read_disk_piece(cow_work *work, std::uint64_t at, std::uint8_t *to, int length) {
    const int skip = static_cast<int>(at & (OS_SECTOR_SIZE - 1));
    const int rounded = (skip + length + OS_SECTOR_SIZE - 1) & ~(OS_SECTOR_SIZE - 1);
    os_page *page = work->pages[0];
    if (read_from_hdd(work, at >> OS_SECTOR_SHIFT, rounded, page) != rounded)
        return -EIO;
    memcpy(to, static_cast<std::uint8_t *>(os_page_address(page)) + skip,
           static_cast<std::size_t>(length));
    return 0;
}

// Bytes of the snap that lie one behind the other, on the disk and in the memory that they go to.
struct read_run {
    std::uint64_t at;
    std::uint8_t *to;
    std::uint32_t length;
};

std::uint32_t chunk_at(const trak_device *snap, std::uint64_t at) {
    return static_cast<std::uint32_t>(at >> snap->snap.chunk_shift);
}

// Who has the run's first chunk (null: the disk), and how many bytes from there on are in its hands
// too. False where that can't be said.
bool find_holder(cow_work *work, trak_device *snap, const read_run &run, trak_device **holder,
                 std::uint32_t *length) {
    const zuread_guard guard(&work->filter->filter.snap_rwlock);
    if (!trak_snap_takes_part(snap))
        return false;
    int bit;
    const std::uint64_t end = run.at + run.length;
    std::uint32_t chunk = chunk_at(snap, run.at);
    *holder = trak_snap_holder_of(snap, chunk, &bit);
    if (bit < 0)
        return false;
    std::uint64_t held;
    do
        held = std::uint64_t{++chunk} << snap->snap.chunk_shift;
    while (held < end && trak_snap_holder_of(snap, chunk, &bit) == *holder && bit >= 0);
    *length = static_cast<std::uint32_t>((held < end ? held : end) - run.at);
    return true;
}

// From the disk, a page at a time.
int read_disk_run(cow_work *work, read_run run) {
    while (run.length != 0) {
        const auto in_page =
            static_cast<std::uint32_t>(OS_PAGE_SIZE - (run.at & (OS_SECTOR_SIZE - 1)));
        const std::uint32_t length = run.length < in_page ? run.length : in_page;
        const int rc = read_disk_piece(work, run.at, run.to, static_cast<int>(length));
        if (rc != 0)
            return rc;
        run = {run.at + length, run.to + length, run.length - length};
    }
    return 0;
}

// What one holder has goes in one read. 0 or -EIO.
int read_snap_run(cow_work *work, trak_device *snap, read_run run) {
    while (run.length != 0) {
        trak_device *holder;
        std::uint32_t length;
        if (!find_holder(work, snap, run, &holder, &length))
            return -EIO;
        if (holder == nullptr) {
            const int rc = read_disk_run(work, {run.at, run.to, length});
            if (rc != 0)
                return rc;
        } else {
            // The holder's stop waits until this request has left the head of the queue.
            const int count = static_cast<int>(length);
            if (trak_fread(holder->snap.cow_data_file, static_cast<std::int64_t>(run.at), run.to,
                           count) != count)
                return -EIO;
        }
        run = {run.at + length, run.to + length, run.length - length};
    }
    return 0;
}

// Fills the bio's pages, those that adjoin in memory as one: 0 or a negative errno.
int fill_bio(cow_work *work, trak_device *snap, os_bio *bio) {
    read_run run = {os_bio_sector(bio) << OS_SECTOR_SHIFT, nullptr, 0};
    const std::uint64_t end = run.at + os_bio_size(bio);
    for (std::uint32_t i = os_bio_idx(bio); i < os_bio_vcnt(bio) && run.at + run.length < end;
         ++i) {
        const os_bio_vec vec = os_bio_vec_at(bio, i);
        auto *to = static_cast<std::uint8_t *>(os_page_address(vec.page)) + vec.offset;
        if (to != run.to + run.length) {
            const int rc = read_snap_run(work, snap, run);
            if (rc != 0)
                return rc;
            run = {run.at + run.length, to, 0};
        }
        run.length += vec.len;
    }
    if (run.at + run.length != end)
        return -EIO;
    return read_snap_run(work, snap, run);
}

void complete_read(os_bio *bio, int /*error*/) {
    os_complete(static_cast<os_completion *>(os_bio_private(bio)));
}

}  // namespace

void cow_submit_read(cow_work *work, os_bio *bio) {
    trak_filter *filter = &work->filter->filter;
    os_bio *clone = trak_aio_clone(&filter->aio, bio, 1, OS_GFP_NOIO);
    if (clone == nullptr) {
        // No memory; what the clone would have waited for still comes first.
        while (trak_aio_overlaps(&filter->aio, bio))
            os_yield();
        os_generic_make_request(bio);
        return;
    }
    os_bio_set_bdev(clone, filter->hdd_bdev);
    os_generic_make_request(clone);
}

int read_from_hdd(cow_work *work, std::uint64_t sector, int length, os_page *page) {
    trak_filter *filter = &work->filter->filter;
    os_bio *bio = work->bios[0];
    os_completion done;
    os_init_completion(&done);
    os_bio_reset(bio);
    os_bio_set_bdev(bio, filter->hdd_bdev);
    os_bio_set_sector(bio, sector);
    os_bio_set_rw(bio, 0);
    os_bio_set_end_io(bio, complete_read);
    os_bio_set_private(bio, &done);
    OS_BUG_ON(!os_bio_add_page(bio, page, static_cast<std::uint32_t>(length), 0));
    cow_submit_read(work, bio);
    os_queue_unplug(os_bdev_queue(filter->hdd_bdev));
    os_wait_for_completion(&done);
    if (os_bio_uptodate(bio))
        return length;
    trak_logf(TRAK_LOG_ERROR,
              "%s(): Failed to read %d bytes starting from sector %d from device (%d, %d)", length,
              static_cast<int>(sector), static_cast<int>(os_major(filter->hdd_dev)),
              static_cast<int>(os_minor(filter->hdd_dev)));
    return -EIO;
}

void cow_serve_read(cow_work *work, trak_device *snap, cow_request *head) {
    int rc = fill_bio(work, snap, head->bio);
    {
        // A stop or an invalidation that came meanwhile lets writes pass unpreserved: what was read
        // from the disk can't be trusted then.
        const zuread_guard guard(&work->filter->filter.snap_rwlock);
        if (rc == 0 && !trak_snap_takes_part(snap))
            rc = -EIO;
    }
    cow_finish_with(work, head, rc);
}
