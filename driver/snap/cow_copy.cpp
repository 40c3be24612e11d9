// driver/snap/cow_copy.cpp: the copy of a group of chunks into a snap's files
// SPDX-License-Identifier: GPL-2.0-only
//
// For each group, in this order:
//   1. the old contents are read from the disk, all pages in flight together;
//   2. they are written to the data file at the chunk's own offset, pages that adjoin in one go, and
//      the file is synced;
//   3. the chunks' bits are set, in memory and in the bitmap file, and that file is synced.
// So data is durable before the bit that declares it valid. From the first bit to the end of step 3
// `marking` is set: a write that would go by such a bit waits behind the group (routing.cpp), for a
// power cut could still take the bit back and leave a changed chunk without its old contents.
//
// What fails does not fail the write that waits: the snap is given up, and every older one with it,
// since they read through it. A snap given up is cut to nothing, durably, so that no later resume
// takes its file for an image.
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/cow_work.h"
#include "driver/snap/snap_list.h"
#include "driver/snap/snap_node.h"
#include "driver/utils/string.h"

namespace {

constexpr int kCutAttempts = 3;
constexpr std::uint32_t kPageSectors = OS_PAGE_SIZE >> OS_SECTOR_SHIFT;

// One page of the group: which chunk, and where on the disk.
struct page_place {
    std::uint64_t sector;
    std::uint32_t bytes;  // that the disk has of it; 0: the page lies beyond its end
};

page_place place_of(const cow_work *work, const trak_snap *snap, std::uint64_t index) {
    const int pages_shift = snap->chunk_shift - kPageShift;
    const std::uint64_t chunk = work->chunks[index >> pages_shift];
    const std::uint64_t page = index & ((std::uint64_t{1} << pages_shift) - 1);
    const std::uint64_t sector =
        (chunk << (snap->chunk_shift - OS_SECTOR_SHIFT)) + page * kPageSectors;
    const std::uint64_t sectors = work->filter->filter.dev_size >> OS_SECTOR_SHIFT;
    if (sector >= sectors)
        return {sector, 0};
    const std::uint64_t left = (sectors - sector) << OS_SECTOR_SHIFT;
    const std::uint64_t page_size = OS_PAGE_SIZE;
    return {sector, static_cast<std::uint32_t>(left < page_size ? left : page_size)};
}

// Makes the cut of a given-up snap's data file durable. The file is cut by its name and checked by the
// open handle; a file that was removed can't be resumed either.
void cut_data_file(trak_snap *snap) {
    for (int i = 0; i < kCutAttempts; ++i) {
        trak_ftruncate(snap->cow_data_fname);
        if (os_file_size(snap->cow_data_file->filp) == 0 && trak_fsync(snap->cow_data_file) == 0)
            return;
    }
}

// `function` is the step that failed. Oldest first, since older ones read through newer ones: whoever
// finds one invalid finds those that depend on it invalid too. The lock for reading holds the list
// still and keeps starts and stops out; for writing, kcowd could wait for a request that waits for
// memory which only kcowd sets free.
void invalidate(const char *function, cow_work *work, trak_device *snap) {
    const zuread_guard guard(&work->filter->filter.snap_rwlock);
    trak_device *oldest = snap;
    for (trak_device *s = snap; s != nullptr; s = trak_snap_older(s))
        oldest = s;
    for (trak_device *s = oldest;; s = trak_snap_newer(s)) {
        if (trak_read_once(s->started) != 0)
            trak_snap_set_valid(s, 0);
        if (s == snap)
            break;
    }
    for (trak_device *s = snap; s != nullptr; s = trak_snap_older(s)) {
        if (trak_read_once(s->started) == 0)
            continue;
        trak_log(TRAK_LOG_MILESTONE, "%s(): Invalidating snap device trak(%d, %d)", function,
                 trak_blk_major, s->minor);
        cut_data_file(&s->snap);
    }
}

// Completion of a group's read. The last one lets kcowd go on, after which nothing here is touched.
void trak_end_cow_read_sync(os_bio *bio, int /*error*/) {
    auto *work = static_cast<cow_work *>(os_bio_private(bio));
    if (work->in_flight.sub(1) == 0)
        os_complete(&work->all_read);
}

// Readies the bio for one page.
void prepare_read(cow_work *work, std::uint32_t slot, const page_place &place) {
    os_bio *bio = work->bios[slot];
    os_page *page = work->pages[slot];
    auto *bytes = static_cast<std::uint8_t *>(os_page_address(page));
    if (place.bytes < OS_PAGE_SIZE)
        memset(bytes + place.bytes, 0, OS_PAGE_SIZE - place.bytes);
    os_bio_reset(bio);
    os_bio_set_bdev(bio, work->filter->filter.hdd_bdev);
    os_bio_set_sector(bio, place.sector);
    os_bio_set_rw(bio, 0);
    os_bio_set_end_io(bio, trak_end_cow_read_sync);
    os_bio_set_private(bio, work);
    OS_BUG_ON(!os_bio_add_page(bio, page, place.bytes, 0));
}

// Reads pages [first, first + count) of the group, which lie on the disk: 0 or -EIO.
int read_pages(cow_work *work, trak_device *snap, std::uint64_t first, std::uint32_t count) {
    os_init_completion(&work->all_read);
    work->in_flight.store(static_cast<std::int32_t>(count));
    for (std::uint32_t i = 0; i < count; ++i) {
        prepare_read(work, i, place_of(work, &snap->snap, first + i));
        cow_submit_read(work, work->bios[i]);
    }
    os_queue_unplug(os_bdev_queue(work->filter->filter.hdd_bdev));
    os_wait_for_completion(&work->all_read);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (os_bio_uptodate(work->bios[i]))
            continue;
        const page_place place = place_of(work, &snap->snap, first + i);
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to read %d-byte block #%d from %s", "cow_chunks",
                 OS_PAGE_SIZE, static_cast<int>(place.sector >> 3), work->filter->filter.hdd_name);
        return -EIO;
    }
    return 0;
}

// How many pages from `slot` on, below `end`, lie one behind the other on the disk. Slot 0 holds page
// `first` of the group.
std::uint32_t run_length(const cow_work *work, const trak_snap *snap, std::uint64_t first,
                         std::uint32_t slot, std::uint32_t end) {
    const std::uint64_t sector = place_of(work, snap, first + slot).sector;
    std::uint32_t length = 1;
    while (slot + length < end && place_of(work, snap, first + slot + length).sector ==
                                      sector + std::uint64_t{length} * kPageSectors)
        ++length;
    return length;
}

// Writes pages [first, first + count) of the group, which were read, into the data file, those that
// adjoin at once: 0 or -EIO, with the snap invalidated.
int write_cowed_pages(cow_work *work, trak_device *snap, std::uint64_t first, std::uint32_t count) {
    const trak_snap *part = &snap->snap;
    for (std::uint32_t slot = 0; slot < count;) {
        if (!trak_snap_is_valid(snap))
            return -EIO;
        const std::uint32_t length = run_length(work, part, first, slot, count);
        const std::uint64_t sector = place_of(work, part, first + slot).sector;
        const auto offset = static_cast<std::int64_t>(sector << OS_SECTOR_SHIFT);
        if (trak_fwrite_pages(part->cow_data_file, offset, work->pages + slot, length) != 0) {
            invalidate("write_cowed_page", work, snap);
            return -EIO;
        }
        slot += length;
    }
    return 0;
}

// Copies the pages of every chunk into the data file, a batch of pages at a time, and syncs it. False
// when the snap was or had to be invalidated.
bool copy_data(cow_work *work, trak_device *snap) {
    const trak_snap *part = &snap->snap;
    const std::uint64_t pages = std::uint64_t{work->chunk_cnt} << (part->chunk_shift - kPageShift);
    for (std::uint64_t first = 0; first < pages;) {
        std::uint32_t count = 0;
        while (count < kGroupPages && first + count < pages &&
               place_of(work, part, first + count).bytes != 0)
            ++count;
        if (count == 0) {  // beyond the end of the disk
            ++first;
            continue;
        }
        if (read_pages(work, snap, first, count) != 0) {
            invalidate("cow_chunks", work, snap);
            return false;
        }
        if (write_cowed_pages(work, snap, first, count) != 0)
            return false;
        first += count;
    }
    if (!trak_snap_is_valid(snap))
        return false;
    if (trak_fsync(part->cow_data_file) == 0)
        return true;
    invalidate("write_cowed_page", work, snap);
    return false;
}

// Sets the bits and makes them durable; what fails invalidates the snap.
void mark_chunk_cowed(cow_work *work, trak_device *snap) {
    trak_snap *part = &snap->snap;
    for (std::uint32_t i = 0; i < work->chunk_cnt; ++i) {
        const auto chunk = static_cast<std::int32_t>(work->chunks[i]);
        if (trak_cowbmp_set_bit(&part->cowbmp, chunk, OS_GFP_NOIO, part->cow_bmp_file) != 0) {
            invalidate(__func__, work, snap);
            return;
        }
    }
    if (trak_fsync(part->cow_bmp_file) != 0)
        invalidate(__func__, work, snap);
}

}  // namespace

void cow_chunks(cow_work *work, trak_device *snap) {
    trak_snap *part = &snap->snap;
    const int pages =
        static_cast<int>(std::uint64_t{work->chunk_cnt} << (part->chunk_shift - kPageShift));
    trak_logf(TRAK_LOG_COMMAND, "%s(): COWing %d chunks (%d pages), snap_minor=%d, queue_cnt=%d",
              static_cast<int>(work->chunk_cnt), pages, snap->minor,
              work->filter->filter.cowqueue.cnt.load());
    if (!copy_data(work, snap))
        return;
    part->marking.store(1);
    mark_chunk_cowed(work, snap);
    part->marking.store(0);
}
