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

// One piece, which lies within a chunk.
int read_piece(cow_work *work, trak_device *snap, std::uint64_t at, std::uint8_t *to, int length) {
    const auto chunk = static_cast<std::uint32_t>(at >> snap->snap.chunk_shift);
    trak_device *holder;
    int bit;
    {
        const zuread_guard guard(&work->filter->filter.snap_rwlock);
        if (!trak_snap_takes_part(snap))
            return -EIO;
        holder = trak_snap_holder_of(snap, chunk, &bit);
    }
    if (bit < 0)
        return -EIO;
    if (holder == nullptr)
        return read_disk_piece(work, at, to, length);
    // The holder's stop waits until this request has left the head of the queue.
    const int got =
        trak_fread(holder->snap.cow_data_file, static_cast<std::int64_t>(at), to, length);
    return got == length ? 0 : -EIO;
}

// Fills the bio's pages: 0 or a negative errno.
int fill_bio(cow_work *work, trak_device *snap, os_bio *bio) {
    const std::uint64_t chunk_size = snap->snap.chunk_size;
    std::uint64_t at = os_bio_sector(bio) << OS_SECTOR_SHIFT;
    const std::uint64_t end = at + os_bio_size(bio);
    for (std::uint32_t i = os_bio_idx(bio); i < os_bio_vcnt(bio) && at < end; ++i) {
        const os_bio_vec vec = os_bio_vec_at(bio, i);
        auto *to = static_cast<std::uint8_t *>(os_page_address(vec.page)) + vec.offset;
        for (std::uint32_t done = 0; done < vec.len;) {
            std::uint64_t length = vec.len - done;
            const std::uint64_t in_chunk = chunk_size - (at & (chunk_size - 1));
            const std::uint64_t in_page = OS_PAGE_SIZE - (at & (OS_SECTOR_SIZE - 1));
            length = length < in_chunk ? length : in_chunk;
            length = length < in_page ? length : in_page;
            const int rc = read_piece(work, snap, at, to + done, static_cast<int>(length));
            if (rc != 0)
                return rc;
            done += static_cast<std::uint32_t>(length);
            at += length;
        }
    }
    return at == end ? 0 : -EIO;
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
