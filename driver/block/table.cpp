// driver/block/table.cpp: the node table
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/table.h"

#include <os_embedded.h>

#include "driver/block/lifecycle.h"
#include "driver/block/lock_ranks.h"
#include "driver/block/orphans.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/string.h"
#include "os/log.h"
#include "os/memory.h"
#include "os/random.h"

OS_MODULE_STATE constinit trak_device **trak_blkdev_arr = nullptr;
OS_MODULE_STATE constinit zurwlock trak_blkdev_rwlock{};
OS_MODULE_STATE constinit zumutex trak_nodes_mutex{};

namespace {

// A device number has 20 bits for the minor: a table beyond that could never be filled, and a
// parameter of -1 asks for 2^32 entries.
constexpr std::uint64_t max_entries = std::uint64_t{1} << 20;

std::uint64_t entry_count() {
    return std::uint64_t{static_cast<std::uint32_t>(trak_max_blk_minor)} + 1;
}

}  // namespace

void trak_table_init() {
    zurwlock_init(&trak_blkdev_rwlock, &trak_rank_table);
    zumutex_init(&trak_nodes_mutex, &trak_rank_nodes_mutex);
}

int trak_table_create() {
    const std::uint64_t count = entry_count();
    if (count > max_entries)
        return -ENOMEM;
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(trak_device *);
    auto **table = static_cast<trak_device **>(os_vmalloc(bytes));
    if (table == nullptr)
        return -ENOMEM;
    memset(table, 0, bytes);
    const zuwrite_guard guard(&trak_blkdev_rwlock);
    trak_blkdev_arr = table;
    return 0;
}

void trak_table_destroy() {
    os_vfree(trak_blkdev_arr);
    trak_blkdev_arr = nullptr;
}

trak_device *trak_find_device(std::uint32_t minor) {
    if (trak_blkdev_arr == nullptr || !trak_minor_in_range(minor))
        return nullptr;
    return trak_blkdev_arr[minor];
}

// A device number that an open disk still has can't be given to another one.
static bool is_free(std::int32_t m) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    return trak_blkdev_arr[m] == nullptr && !trak_orphan_blocks(static_cast<std::uint32_t>(m));
}

// The lowest free minor, or -1.
static std::int32_t lowest_free_minor() TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    for (std::int32_t m = 0; m <= trak_max_blk_minor; ++m) {
        if (is_free(m))
            return m;
    }
    return -1;
}

int trak_choose_minor(const char *function, std::int32_t *minor) {
    const std::int32_t m = *minor;
    // A module that is just being loaded has a control device and no table: nothing fits into it.
    if (m > trak_max_blk_minor || trak_blkdev_arr == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Minor number %d is too big: max=%d", function, m,
                 trak_max_blk_minor);
        return -EINVAL;
    }
    if (m < 0) {
        const std::int32_t lowest = lowest_free_minor();
        if (lowest < 0) {
            trak_log(TRAK_LOG_ERROR, "%s(): All %d of TRAK minor nodes have already been used up.",
                     function, trak_max_blk_minor + 1);
            return -ENOSPC;
        }
        *minor = lowest;
    } else if (!is_free(m)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Device minor number %d is already taken", function, m);
        return -EINVAL;
    }
    return 0;
}

void trak_free_minor(std::int32_t minor) {
    for (;;) {
        os_disk *disk = nullptr;
        {
            const zuwrite_guard table(&trak_blkdev_rwlock);
            if (minor > trak_max_blk_minor || trak_blkdev_arr == nullptr)
                return;
            const std::int32_t m = minor < 0 ? lowest_free_minor() : minor;
            if (m >= 0 && is_free(m))
                disk = trak_hide_orphan(static_cast<std::uint32_t>(m));
        }
        if (disk == nullptr)
            return;
        trak_block_remove_disk(disk);
    }
}

int trak_place_device(const char *function, trak_device *dev, std::int32_t *minor) {
    const int rc = trak_choose_minor(function, minor);
    if (rc != 0)
        return rc;
    trak_blkdev_arr[*minor] = dev;
    dev->minor = *minor;
    return 0;
}

void trak_generate_uuid(char uuid[TRAK_UUID_SIZE]) {
    std::uint8_t r[16];
    os_get_random_bytes(r, sizeof r);
    os_snprintf(uuid, TRAK_UUID_SIZE,
                "{%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x}", r[0],
                r[1], r[2], r[3], r[4], r[5], r[6], r[7], r[8], r[9], r[10], r[11], r[12], r[13],
                r[14], r[15]);
}
