/* lib/datablocks.c: whether a snap's data-block map was built, from what, and what it says */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * No record and no file of the status tree says whether the map was built; the map itself does. It
 * has one bit per unit, in whole bytes. A map that was built has the bits beyond the last unit clear;
 * the answer without a map is bytes of ones from end to end. So a clear bit anywhere means that the map was
 * built, and set bits beyond the last unit mean that it was not. Units are made larger until there
 * are such bits; a volume that ends with a byte at every size, and whose map is all ones, stays unknown.
 */
#include "lib/trak_int.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#define MOST_UNITS (UINT64_C(8) << 20) /* one megabyte of bits */
#define LARGEST_UNIT UINT32_C(0x80000000)

#define SECTOR 512
#define EXT_SUPER 1024
#define REISER_SUPER 65536

static uint32_t le(const uint8_t *field, int bytes) {
    uint32_t value = 0;
    while (bytes-- > 0)
        value = value << 8 | field[bytes];
    return value;
}

/* Which of its kind the ext superblock belongs to. */
static const char *ext_name(const uint8_t *super) {
    const uint32_t newer = 0x40 | 0x200; /* extents, flexible groups */
    if ((le(super + 96, 4) & newer) != 0)
        return "ext4";
    return (le(super + 92, 4) & 0x4) != 0 ? "ext3" : "ext2";
}

static int read_at(int fd, void *buffer, size_t size, off_t offset) {
    return pread(fd, buffer, size, offset) == (ssize_t)size;
}

/* The one file system whose magic is on the image; "" where there is none, or more than one. */
static const char *name_of_image(int fd) {
    uint8_t bytes[2 * SECTOR];
    const char *name = "";
    int found = 0;
    if (read_at(fd, bytes, sizeof(bytes), EXT_SUPER) && le(bytes + 56, 2) == 0xef53) {
        name = ext_name(bytes);
        found++;
    }
    if (read_at(fd, bytes, SECTOR, REISER_SUPER) && memcmp(bytes + 52, "ReIsEr2Fs", 10) == 0) {
        name = "ReiserFS";
        found++;
    }
    if (read_at(fd, bytes, SECTOR, 0) && memcmp(bytes, "XFSB", 4) == 0) {
        name = "XFS";
        found++;
    }
    return found == 1 ? name : "";
}

static void find_file_system(struct trak *t, uint32_t minor, struct trak_datablock_usage *out) {
    char field[64], node[TRAK_NAME_SIZE + 16], path[LT_PATH];
    snprintf(field, sizeof(field), "trak%u/dev_name", minor);
    if (trak_status(t, field, node, sizeof(node)) <= 0 || node[0] != '/' ||
        lt_path(t, node, path, sizeof(path)) < 0)
        return;
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return;
    strcpy(out->file_system, name_of_image(fd));
    close(fd);
}

/* What the bits of a map say: 1, 0, or -1 where they can't say it. */
static int is_built(const struct trak_bitmap *map) {
    uint64_t all = (uint64_t)map->size * 8;
    if (trak_bits_count(map->bits, map->count) < map->count)
        return 1;
    if (all == map->count)
        return -1;
    return trak_bits_count(map->bits, all) == all ? 0 : 1;
}

/* The same, asked at a unit size that leaves bits beyond the last unit; *built stays where none does. */
static int ask_further(struct trak *t, const struct trak_info_arg *snap, uint64_t unit,
                       int *built) {
    for (; unit <= LARGEST_UNIT; unit *= 2) {
        struct trak_bitmap map;
        uint64_t ratio = unit / snap->chunk_size;
        if (((snap->chunk_cnt + ratio - 1) / ratio) % 8 == 0)
            continue;
        int rc = trak_bitmap_datablocks(t, snap->minor, (uint32_t)unit, &map);
        if (rc < 0)
            return rc;
        *built = is_built(&map);
        trak_bitmap_free(&map);
        break;
    }
    return 0;
}

int trak_datablock_usage_get(struct trak *t, const struct trak_info_arg *snap,
                             struct trak_datablock_usage *out) {
    struct trak_bitmap map;
    memset(out, 0, sizeof(*out));
    if (snap->dev_type != TRAK_DEV_SNAP || snap->chunk_size == 0 || snap->dev_size == 0)
        return -EINVAL;
    if (!snap->started)
        return -ENODATA;
    uint64_t unit = snap->chunk_size;
    while ((snap->dev_size - 1) / unit + 1 > MOST_UNITS && unit < LARGEST_UNIT)
        unit *= 2;
    int rc = trak_bitmap_datablocks(t, snap->minor, (uint32_t)unit, &map);
    if (rc < 0)
        return rc;
    out->volume_bytes = map.dev_size;
    out->unit_size = map.unit_size;
    out->units = map.count;
    out->units_with_data = trak_bits_count(map.bits, map.count);
    out->bytes_with_data = out->units_with_data * map.unit_size;
    /* The volume's end cuts the last unit. */
    uint64_t last = map.count - 1, beyond = map.count * map.unit_size - map.dev_size;
    if (map.count * map.unit_size > map.dev_size && (map.bits[last >> 3] >> (last & 7) & 1) != 0)
        out->bytes_with_data -= beyond < map.unit_size ? beyond : map.unit_size;
    out->built = is_built(&map);
    trak_bitmap_free(&map);
    if (out->built < 0)
        rc = ask_further(t, snap, unit, &out->built);
    if (rc == 0 && out->built == 1)
        find_file_system(t, snap->minor, out);
    return rc;
}
