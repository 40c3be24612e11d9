// driver/block/bitmap_file.cpp: change bitmaps in their files
// SPDX-License-Identifier: GPL-2.0-only
//
// A file is a header of 16 bytes (7 of magic, a dirty byte, the bitmap's size, its checksum) and the
// bitmap as it stands in memory. What a file says must never be less than what was written to the disk:
//
//   memory clean   the file, if it says clean, equals the bitmap.
//   memory dirty   the file is marked dirty, or a request to mark it waits for kdirtyd (the window
//                  between a write and its flag), or a save is under way. A flag write that fails is
//                  not repeated; the next save writes the file anyway.
//
// A save keeps to that as follows. Under bmp_mutex it first cancels the flag writes that are queued:
// whatever they stand for is in the bitmap by now. Then it clears the dirty flag and copies the bitmap
// in one hold of bmp_spin, so that a bit that comes later sets the flag and queues a flag write of its
// own, which waits for the mutex and marks the new file. With copies taken outside the mutex two saves
// could write theirs in the wrong order, and a flag write queued after the copy could be cancelled.
// A flag write may also be queued late, after the save that its bit went into: kdirtyd drops it when it
// finds the bitmap clean.
#include "driver/block/bitmap_file.h"

#include "driver/block/kdirtyd.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/memory.h"

namespace {

constexpr int magic_size = 7;
constexpr char magic[magic_size + 1] = "TRAKBMP";
constexpr std::int64_t dirty_offset = 7;
constexpr std::int64_t size_offset = 8;
constexpr std::int64_t crc_offset = 12;
constexpr std::int64_t bits_offset = 16;
constexpr std::uint32_t crc_start = 0xffffffff;

struct crc_table {
    std::uint32_t entry[256];
    constexpr crc_table() : entry{} {
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t reg = i;
            for (int bit = 0; bit < 8; ++bit)
                reg = (reg >> 1) ^ ((reg & 1) != 0 ? 0xedb88320u : 0u);
            entry[i] = reg;
        }
    }
};
constexpr crc_table crc_of_byte;
static_assert(sizeof crc_of_byte == 1024 && crc_of_byte.entry[255] == 0x2d02ef8d);

// One of a filter's two bitmaps.
struct change_bmp {
    std::uint8_t *bits;
    std::int32_t size;
    std::uint32_t *dirty;
    const char *fname;
};

change_bmp select_bmp(trak_filter *filter, std::uint32_t type) {
    if (type == TRAK_BMP_INCR)
        return {filter->incr_bmp, filter->incr_bmp_size, &filter->incr_bmp_dirty,
                filter->incr_bmp_fname};
    return {filter->diff_bmp, filter->diff_bmp_size, &filter->diff_bmp_dirty,
            filter->diff_bmp_fname};
}

void put_le32(std::uint8_t *to, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t get_le32(const std::uint8_t *from) {
    return from[0] | std::uint32_t{from[1]} << 8 | std::uint32_t{from[2]} << 16 |
           std::uint32_t{from[3]} << 24;
}

// A file on the file system that is mounted through the node itself would be written through the node.
bool lies_on_node_itself(const trak_filter *filter, const char *fname) {
    return trak_get_file_devt(fname) ==
           os_mkdev(static_cast<std::uint32_t>(trak_blk_major), filter->part_minor);
}

// The five fields one after the other: 0 or the negative errno of the write that failed.
int write_fields(trak_file *file, const change_bmp &bmp, const std::uint8_t *copy) {
    const std::uint8_t clean = 0;
    std::uint8_t size[4];
    std::uint8_t crc_field[4];
    std::uint32_t crc = crc_start;
    trak_crc32(copy, bmp.size, &crc);
    put_le32(size, static_cast<std::uint32_t>(bmp.size));
    put_le32(crc_field, crc);
    const struct {
        const void *data;
        int size;
    } fields[] = {{magic, magic_size}, {&clean, 1}, {size, 4}, {crc_field, 4}, {copy, bmp.size}};
    std::int64_t offset = 0;
    for (const auto &field : fields) {
        const int rc = trak_fwrite(file, offset, field.data, field.size);
        if (rc < 0)
            return rc;
        offset += rc;
    }
    return 0;
}

// The file half of a save. *old_file_stays is set when nothing of the file was touched that could be.
int write_bmp_file(trak_filter *filter, const change_bmp &bmp, const std::uint8_t *copy,
                   bool *old_file_stays) {
    if (lies_on_node_itself(filter, bmp.fname)) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Can't save bitmap to %s. The file must be moved to a different partition.",
                 "trak_block_save_bmp", bmp.fname);
        return -EINVAL;
    }
    trak_file *file =
        trak_fopen(bmp.fname, OS_O_WRONLY | OS_O_CREAT | OS_O_TRUNC | OS_O_SYNC, 0600);
    if (file == nullptr) {
        *old_file_stays = true;
        return -EIO;
    }
    const int rc = write_fields(file, bmp, copy);
    trak_fclose(file);
    return rc;
}

// Where a save left the old file as it was, that may still say clean, and the bitmap's flag writes may be
// cancelled, or none was ever queued (the commands set the dirty flag themselves): ask for one.
void mark_old_file(trak_filter *filter, std::uint32_t type) {
    if (trak_block_bmp_is_dirty(filter, type))
        trak_sched_write_dirty_flag(filter, static_cast<std::int32_t>(type));
}

// Checks that follow the magic. Returns 0 or a negative errno; *good tells a file that was read whole
// into `work`, which is all the difference between a 0 and another.
int read_checked_bits(trak_file *file, const change_bmp &bmp, std::uint8_t *work, bool *good) {
    constexpr const char *me = "trak_block_load_bmp";
    std::uint8_t dirty = 0;
    int rc = trak_fread(file, dirty_offset, &dirty, 1);
    if (rc < 0)
        return rc;
    if (dirty != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): File %s is dirty. Ignoring file contents.", me, bmp.fname);
        return 0;
    }
    std::uint8_t size[4] = {};
    rc = trak_fread(file, size_offset, size, 4);
    if (rc < 0)
        return rc;
    if (get_le32(size) != static_cast<std::uint32_t>(bmp.size)) {
        trak_log(TRAK_LOG_ERROR,
                 "%s(): File %s contains bitmap of invalid size. Ignoring file contents.", me,
                 bmp.fname);
        return 0;
    }
    std::uint8_t stored[4] = {};
    rc = trak_fread(file, crc_offset, stored, 4);
    if (rc < 0)
        return rc;
    const int count = trak_fread(file, bits_offset, work, bmp.size);
    if (count < 0)
        return count;
    std::uint32_t crc = crc_start;
    trak_crc32(work, count, &crc);
    // A file that ends early fails here whatever its checksum says: bits that are not there must not
    // count as clear.
    if (count != bmp.size || crc != get_le32(stored)) {
        trak_log(TRAK_LOG_ERROR, "%s(): File %s has invalid checksum. Ignoring file contents.", me,
                 bmp.fname);
        return 0;
    }
    *good = true;
    return 0;
}

int read_bmp_file(const change_bmp &bmp, std::uint8_t *work, bool *good) {
    trak_file *file = trak_fopen(bmp.fname, OS_O_RDONLY, 0600);
    if (file == nullptr)
        return -EIO;
    char prefix[magic_size] = {};
    int rc = trak_fread(file, 0, prefix, magic_size);
    if (rc >= 0 && memcmp(prefix, magic, magic_size) != 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): File %s is corrupt: Invalid prefix.", "trak_block_load_bmp",
                 bmp.fname);
        rc = -EIO;
    }
    if (rc >= 0)
        rc = read_checked_bits(file, bmp, work, good);
    trak_fclose(file);
    return rc;
}

}  // namespace

void trak_crc32(const void *data, int length, std::uint32_t *crc) {
    const auto *byte = static_cast<const std::uint8_t *>(data);
    std::uint32_t reg = *crc;
    for (int i = 0; i < length; ++i)
        reg = crc_of_byte.entry[(reg ^ byte[i]) & 0xff] ^ (reg >> 8);
    *crc = reg;
}

const char *trak_bmp_type_name(std::uint32_t type) {
    switch (type) {
    case TRAK_BMP_INCR:
        return "Incremental";
    case TRAK_BMP_DIFF:
        return "Differential";
    default:
        return "Unknown";
    }
}

bool trak_block_bmp_is_dirty(trak_filter *filter, std::uint32_t type) {
    const trak_spin_guard spin(&filter->bmp_spin);
    return *select_bmp(filter, type).dirty != 0;
}

int trak_block_save_bmp(trak_filter *filter, std::uint32_t type) {
    const change_bmp bmp = select_bmp(filter, type);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Saving %s bitmap of trak(%d, %d)", trak_bmp_type_name(type),
              trak_blk_major, filter->part_minor);
    auto *copy = static_cast<std::uint8_t *>(os_vmalloc(static_cast<std::size_t>(bmp.size)));
    if (copy == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to allocate %d bytes.", bmp.size);
        mark_old_file(filter, type);
        return -ENOMEM;
    }
    bool old_file_stays = false;
    int rc;
    {
        const zumutex_guard mutex(&filter->bmp_mutex);
        trak_kill_dirty_requests(filter, static_cast<std::int32_t>(type));
        {
            const trak_spin_guard spin(&filter->bmp_spin);
            trak_write_once(*bmp.dirty, 0u);
            memcpy(copy, bmp.bits, static_cast<std::size_t>(bmp.size));
        }
        rc = write_bmp_file(filter, bmp, copy, &old_file_stays);
        if (rc != 0) {
            const trak_spin_guard spin(&filter->bmp_spin);
            trak_write_once(*bmp.dirty, 1u);
        }
        if (old_file_stays)
            mark_old_file(filter, type);
    }
    os_vfree(copy);
    return rc;
}

int trak_block_load_bmp(trak_filter *filter, std::uint32_t type) {
    const change_bmp bmp = select_bmp(filter, type);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Loading %s bitmap of trak(%d, %d)", trak_bmp_type_name(type),
              trak_blk_major, filter->part_minor);
    auto *work = static_cast<std::uint8_t *>(os_vmalloc(static_cast<std::size_t>(bmp.size)));
    if (work == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to allocate %d bytes.", bmp.size);
        return -ENOMEM;
    }
    bool good = false;
    int rc;
    {
        const zumutex_guard mutex(&filter->bmp_mutex);
        rc = read_bmp_file(bmp, work, &good);
        const auto bytes = static_cast<std::uint64_t>(bmp.size);
        const trak_spin_guard spin(&filter->bmp_spin);
        if (good) {
            trak_write_once(*bmp.dirty, 0u);
            trak_bits_copy(bmp.bits, work, bytes);
        } else {
            trak_write_once(*bmp.dirty, 1u);
            trak_bits_fill(bmp.bits, 0xff, bytes);
        }
    }
    os_vfree(work);
    return rc;
}

int trak_block_save_dirty_bmps(trak_filter *filter) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Saving dirty incr/diff bitmaps to disk");
    const zumutex_guard mutex(&filter->bmp_mutex);
    int incr = 0;
    int diff = 0;
    if (trak_block_bmp_is_dirty(filter, TRAK_BMP_INCR))
        incr = trak_block_save_bmp(filter, TRAK_BMP_INCR);
    if (trak_block_bmp_is_dirty(filter, TRAK_BMP_DIFF))
        diff = trak_block_save_bmp(filter, TRAK_BMP_DIFF);
    return incr != 0 ? incr : diff;
}

int trak_block_load_bmps(trak_filter *filter) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Loading incr/diff bitmaps");
    const zumutex_guard mutex(&filter->bmp_mutex);
    const int incr = trak_block_load_bmp(filter, TRAK_BMP_INCR);
    const int diff = trak_block_load_bmp(filter, TRAK_BMP_DIFF);
    return incr != 0 ? incr : diff;
}

int trak_block_write_dirty_flag(trak_filter *filter, std::uint32_t type, int flag) {
    const change_bmp bmp = select_bmp(filter, type);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Writing dirty flag %d into %s bitmap of trak(%d, %d)", flag,
              trak_bmp_type_name(type), trak_blk_major, filter->part_minor);
    const zumutex_guard mutex(&filter->bmp_mutex);
    if (flag == 0)
        trak_kill_dirty_requests(filter, static_cast<std::int32_t>(type));
    if (lies_on_node_itself(filter, bmp.fname)) {
        trak_logf(TRAK_LOG_ERROR,
                  "%s(): Can't set dirty flag in %s. The file must be moved to a different "
                  "partition.",
                  bmp.fname);
        return -EINVAL;
    }
    // A dirty file's contents are never used again: they are cut off with the flag.
    const int flags = OS_O_WRONLY | OS_O_CREAT | OS_O_SYNC | (flag != 0 ? OS_O_TRUNC : 0);
    trak_file *file = trak_fopen(bmp.fname, flags, 0600);
    if (file == nullptr)
        return -EIO;
    const std::uint8_t byte = flag != 0 ? 1 : 0;
    int rc = trak_fwrite(file, 0, magic, magic_size);
    if (rc >= 0)
        rc = trak_fwrite(file, dirty_offset, &byte, 1);
    trak_fclose(file);
    return rc < 0 ? rc : 0;
}
