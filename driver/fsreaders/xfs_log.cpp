// driver/fsreaders/xfs_log.cpp: whether the log of XFS holds what its trees don't show yet
// SPDX-License-Identifier: GPL-2.0-only
//
// The log is a ring of sectors. Each begins with the number of the cycle that wrote it, so the head is
// where the number falls by one. A record is a header of a sector and its data, whose sectors have
// their first words in the header. The last record says where replaying would begin (its tail).
//
// What was allocated changes sectors of the AG headers and of tree blocks, and those are logged as
// buffers. A log whose records from tail to head log no buffer but the superblock's changes
// nothing that this reader looks at. An unmount leaves one record that says so; a freeze leaves a
// record or two with the superblock alone. Anything that is not followed easily (long records, pieces of
// items, many records) is not taken for quiet.
#include "driver/fsreaders/xfs_log.h"

#include "driver/fsreaders/disk_fields.h"
#include "driver/utils/string.h"
#include "driver/utils/trak_utils.h"

namespace {

constexpr std::uint32_t kSector = 512;
constexpr std::uint32_t kRecordMagic = 0xFEEDBABE;
constexpr std::uint32_t kLittleEndian = 1;  // h_fmt: how items were written
constexpr std::uint32_t kMostData = 64;     // sectors whose first words the header itself has
constexpr std::uint32_t kMostRecords = 64;  // between tail and head
constexpr std::uint32_t kFarBack = 520;     // sectors of the longest record, headers included
constexpr std::uint32_t kOpHeader = 12;

// Flags of an operation.
constexpr unsigned kStart = 0x01;
constexpr unsigned kCommit = 0x02;
constexpr unsigned kContinued = 0x04 | 0x08;
constexpr unsigned kUnmount = 0x20;

// What an item may be.
constexpr unsigned kInodeItem = 0x123B;
constexpr unsigned kBufferItem = 0x123C;
constexpr std::uint32_t kTransMagic = 0x5452414E;

struct Log {
    xfs_reader *ctx;
    std::uint64_t start;    // sector of the disk
    std::uint32_t sectors;  // of the ring
    std::uint32_t head;     // ring sector that is written next, 1 to `sectors`
    std::uint32_t cycle;    // that the sectors before the head were written in
};

struct Record {
    std::uint32_t at;    // ring sector
    std::uint32_t data;  // sectors
    std::uint32_t ops;
    std::uint64_t tail;                 // cycle << 32 | ring sector
    std::uint8_t words[kMostData * 4];  // first words of the data's sectors
};

// Where the walk through the items is, across records.
struct Items {
    bool in_transaction;
    std::uint32_t regions_left;  // of the item under way
};

bool read_sector(const Log &log, std::uint32_t at) {
    return trak_bread(log.ctx->bdev, log.ctx->node, kSector,
                      static_cast<std::int64_t>(log.start + at % log.sectors), 1) == 0;
}

// The cycle of a sector; false when it can't be read.
bool cycle_of(const Log &log, std::uint32_t at, std::uint32_t *cycle) {
    if (!read_sector(log, at))
        return false;
    const std::uint32_t word = trak_be32(log.ctx->node);
    *cycle = word == kRecordMagic ? trak_be32(log.ctx->node + 4) : word;
    return true;
}

// Finds the head; false where the cycles are not those of a ring. A log that was never written has
// cycle 0.
bool find_head(Log *log) {
    std::uint32_t first = 0, last = 0;
    if (!cycle_of(*log, 0, &first) || !cycle_of(*log, log->sectors - 1, &last))
        return false;
    log->cycle = first;
    log->head = log->sectors;
    if (first == last)
        return true;
    if (last != first - 1)
        return false;
    std::uint32_t low = 0, high = log->sectors - 1;  // of the first cycle, of the one before
    while (high - low > 1) {
        const std::uint32_t middle = low + (high - low) / 2;
        std::uint32_t cycle = 0;
        if (!cycle_of(*log, middle, &cycle))
            return false;
        (cycle == first ? low : high) = middle;
    }
    log->head = high;
    return true;
}

// The cycle that a sector is of, if nothing was lost.
std::uint32_t due_cycle(const Log &log, std::uint32_t at) {
    return at % log.sectors < log.head ? log.cycle : log.cycle - 1;
}

// A sector of data; false where a write of it did not arrive.
bool read_whole(const Log &log, std::uint32_t at) {
    return read_sector(log, at) && trak_be32(log.ctx->node) == due_cycle(log, at);
}

// The record at a ring sector; false when there is none that is short enough.
bool read_record(const Log &log, std::uint32_t at, Record *record) {
    if (!read_sector(log, at))
        return false;
    const std::uint8_t *raw = log.ctx->node;
    const std::uint32_t version = trak_be32(raw + 8), bytes = trak_be32(raw + 12);
    // The record names the place that it was written to.
    const std::uint32_t cycle = due_cycle(log, at);
    if (trak_be32(raw) != kRecordMagic || trak_be32(raw + 4) != cycle ||
        trak_be64(raw + 16) != (std::uint64_t{cycle} << 32 | at % log.sectors) || version < 1 ||
        version > 2 || bytes == 0 || bytes > kMostData * kSector ||
        trak_be32(raw + 300) != kLittleEndian ||
        (version == 2 && trak_be32(raw + 320) > kMostData * kSector))
        return false;
    record->at = at % log.sectors;
    record->data = (bytes + kSector - 1) / kSector;
    record->ops = trak_be32(raw + 40);
    record->tail = trak_be64(raw + 24);
    memcpy(record->words, raw + 44, sizeof record->words);
    return true;
}

// Copies bytes of a record's data; false where it has no such bytes or they can't be read.
bool read_data(const Log &log, const Record &record, std::uint32_t from, std::uint8_t *to,
               std::uint32_t size) {
    for (std::uint32_t i = 0; i < size; ++i) {
        const std::uint32_t sector = (from + i) / kSector, byte = (from + i) % kSector;
        if (sector >= record.data)
            return false;
        if ((i == 0 || byte == 0) && !read_whole(log, record.at + 1 + sector))
            return false;
        to[i] = byte < 4 ? record.words[sector * 4 + byte] : log.ctx->node[byte];
    }
    return true;
}

// One region of an item: true when it is of one that allocates nothing.
bool region_is_harmless(Items *items, const std::uint8_t *head, std::uint32_t size) {
    if (items->regions_left > 0) {
        --items->regions_left;
        return true;
    }
    // Either the transaction's own header, or what begins an item: type, number of regions.
    if (size >= 16 && trak_le32(head) == kTransMagic)
        return true;
    if (size < 16)
        return false;
    const unsigned type = trak_le16(head), regions = trak_le16(head + 2);
    const bool super = trak_le32(head + 8) == 0 && trak_le32(head + 12) == 0;
    if (regions == 0 || !(type == kInodeItem || (type == kBufferItem && super)))
        return false;
    items->regions_left = regions - 1;
    return true;
}

bool record_is_harmless(const Log &log, const Record &record, Items *items) {
    std::uint32_t at = 0;
    for (std::uint32_t n = 0; n < record.ops; ++n) {
        std::uint8_t op[kOpHeader], head[16] = {};
        if (!read_data(log, record, at, op, sizeof op))
            return false;
        const std::uint32_t size = trak_be32(op + 4);
        const unsigned flags = op[9];
        at += kOpHeader;
        if ((flags & kContinued) != 0 || size > kMostData * kSector)
            return false;
        if ((flags & kStart) != 0) {
            if (items->in_transaction || size != 0)
                return false;
            *items = {true, 0};
        } else if ((flags & kCommit) != 0) {
            if (!items->in_transaction || items->regions_left != 0 || size != 0)
                return false;
            items->in_transaction = false;
        } else if ((flags & kUnmount) == 0) {
            const std::uint32_t part = size < sizeof head ? size : sizeof head;
            if (!items->in_transaction || !read_data(log, record, at, head, part) ||
                !region_is_harmless(items, head, size))
                return false;
        }
        at += size;
    }
    return true;
}

// The last record, which ends at the head.
bool find_last(const Log &log, Record *record) {
    for (std::uint32_t back = 1; back <= kFarBack && back < log.sectors; ++back) {
        const std::uint32_t at = log.head + log.sectors - back;
        if (!read_sector(log, at))
            return false;
        if (trak_be32(log.ctx->node) == kRecordMagic)
            return read_record(log, at, record) && 1 + record->data == back;
    }
    return false;
}

bool is_unmount(const Log &log, const Record &record) {
    std::uint8_t op[kOpHeader];
    return record.ops == 1 && read_data(log, record, 0, op, sizeof op) && (op[9] & kUnmount) != 0;
}

// Everything from the last record's tail to the head.
bool tail_is_harmless(const Log &log, Record *record) {
    Items items = {false, 0};
    auto at = static_cast<std::uint32_t>(record->tail);
    const std::uint32_t head = log.head % log.sectors;
    const auto tail_cycle = static_cast<std::uint32_t>(record->tail >> 32);
    if (at >= log.sectors || tail_cycle != due_cycle(log, at))
        return false;
    for (std::uint32_t n = 0; n < kMostRecords; ++n) {
        if (!read_record(log, at, record) || !record_is_harmless(log, *record, &items))
            return false;
        at = (at + 1 + record->data) % log.sectors;
        if (at == head)
            return !items.in_transaction;
    }
    return false;
}

}  // namespace

bool xfs_log_is_quiet(xfs_reader *ctx) {
    const std::uint64_t first = ctx->sb.sb_logstart;
    const unsigned shift = ctx->sb.sb_agblklog;
    const std::uint64_t per_block = ctx->sb.sb_blocksize / kSector;
    const std::uint64_t sectors = ctx->sb.sb_logblocks * per_block;
    if (sectors == 0)
        return true;
    if (first == 0 || shift >= 32 || sectors > UINT32_MAX / 2)
        return false;
    const std::uint64_t block =
        (first >> shift) * ctx->sb.sb_agblocks + (first & ((std::uint64_t{1} << shift) - 1));
    const std::uint64_t all = os_bdev_size(ctx->bdev) / kSector;
    if (block >= all / per_block || sectors > all - block * per_block || sectors < 8)
        return false;
    Log log{ctx, block * per_block, static_cast<std::uint32_t>(sectors), 0, 0};
    if (!find_head(&log))
        return false;
    if (log.cycle == 0)
        return true;
    Record record;
    if (!find_last(log, &record))
        return false;
    return is_unmount(log, record) || tail_is_harmless(log, &record);
}
