/* lib/bitmap.c: change bitmaps in buffers of the right size, counting bits, COW usage */
/* SPDX-License-Identifier: GPL-2.0-only */
#include "lib/trak_int.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

void trak_bitmap_free(struct trak_bitmap *bitmap) {
    free(bitmap->bits);
    memset(bitmap, 0, sizeof(*bitmap));
}

/* Allocate for `count` bits in `size` bytes. The bits start as 0. */
static int prepare(struct trak_bitmap *out, uint32_t size, uint64_t count, uint64_t unit_size,
                   uint64_t dev_size) {
    /* The driver's word is checked: `count` decides how far others read. */
    if (size == 0 || count == 0 || count > (uint64_t)size * 8 || unit_size == 0)
        return -EPROTO;
    out->bits = calloc(1, size);
    if (out->bits == NULL)
        return -ENOMEM;
    out->size = size;
    out->count = count;
    out->unit_size = unit_size;
    out->dev_size = dev_size;
    return 0;
}

static int prepare_filter(struct trak *t, uint32_t minor, uint32_t type, struct trak_bitmap *out) {
    struct trak_info_arg info;
    memset(out, 0, sizeof(*out));
    if (type > TRAK_BMP_INCR)
        return -EINVAL;
    int rc = trak_get_info(t, minor, &info);
    if (rc < 0)
        return rc;
    if (info.dev_type != TRAK_DEV_FILTER)
        return -EINVAL;
    uint32_t size = type == TRAK_BMP_INCR ? info.incr_bmp_size : info.diff_bmp_size;
    return prepare(out, size, info.extent_cnt, info.extent_size, info.dev_size);
}

int trak_bitmap_get(struct trak *t, uint32_t minor, uint32_t type, struct trak_bitmap *out) {
    int rc = prepare_filter(t, minor, type, out);
    if (rc == 0)
        rc = trak_get_bmp(t, minor, type, out->bits, out->size);
    if (rc < 0)
        trak_bitmap_free(out);
    return rc;
}

int trak_bitmap_take(struct trak *t, uint32_t minor, uint32_t type, struct trak_bitmap *out) {
    int rc = prepare_filter(t, minor, type, out);
    if (rc == 0) {
        rc = trak_get_and_clr_bmp(t, minor, type, out->bits, out->size);
        /* A failure after the copy leaves the driver's bitmap cleared (the record could not be
         * written back, or a signal cut the answer off). Merging can only add marks. */
        if (rc < 0 && trak_bits_count(out->bits, (uint64_t)out->size * 8) != 0)
            (void)!trak_merge_bmp(t, minor, type, out->bits, out->size);
    }
    if (rc < 0)
        trak_bitmap_free(out);
    return rc;
}

int trak_bitmap_datablocks(struct trak *t, uint32_t minor, uint32_t extent_size,
                           struct trak_bitmap *out) {
    struct trak_info_arg info;
    memset(out, 0, sizeof(*out));
    int rc = trak_get_info(t, minor, &info);
    if (rc < 0)
        return rc;
    if (info.dev_type != TRAK_DEV_SNAP || info.chunk_size == 0)
        return -EINVAL;
    if (extent_size == 0)
        extent_size = info.chunk_size;
    if (extent_size < info.chunk_size || (extent_size & (extent_size - 1)) != 0)
        return -EINVAL;
    uint64_t ratio = extent_size / info.chunk_size;
    uint64_t count = ((uint64_t)info.chunk_cnt + ratio - 1) / ratio;
    rc = prepare(out, (uint32_t)((count + 7) >> 3), count, extent_size, info.dev_size);
    if (rc == 0) {
        int32_t size = (int32_t)out->size;
        rc = trak_get_datablock_bmp(t, minor, extent_size, out->bits, &size);
        if (rc == 0 && size != (int32_t)out->size)
            rc = -EPROTO;
    }
    if (rc < 0)
        trak_bitmap_free(out);
    return rc;
}

static uint64_t word_at(const uint8_t *bits, uint64_t byte) {
    uint64_t word;
    memcpy(&word, bits + byte, sizeof(word));
    return word;
}

uint64_t trak_bits_count(const uint8_t *bits, uint64_t count) {
    uint64_t total = 0, byte = 0, bytes = count >> 3;
    for (; byte + 8 <= bytes; byte += 8)
        total += (uint64_t)__builtin_popcountll(word_at(bits, byte));
    for (; byte < bytes; byte++)
        total += (uint64_t)__builtin_popcount(bits[byte]);
    if ((count & 7) != 0)
        total += (uint64_t)__builtin_popcount(bits[byte] & ((1u << (count & 7)) - 1));
    return total;
}

static int bit(const uint8_t *bits, uint64_t n) {
    return bits[n >> 3] >> (n & 7) & 1;
}

/* The first n >= from whose bit is `value`, or count. Steps over whole bytes that hold none. */
static uint64_t find(const uint8_t *bits, uint64_t count, uint64_t from, int value) {
    uint8_t none = value ? 0x00 : 0xff;
    uint64_t n = from;
    while (n < count) {
        if ((n & 7) == 0 && bits[n >> 3] == none) {
            n += 8;
            continue;
        }
        if (bit(bits, n) == value)
            return n;
        n++;
    }
    return count;
}

uint64_t trak_bits_run(const uint8_t *bits, uint64_t count, uint64_t from, uint64_t *start) {
    *start = find(bits, count, from, 1);
    if (*start >= count)
        return 0;
    return find(bits, count, *start, 0) - *start;
}

/* Count the set bits of a file's first `count` bits; bytes that the file lacks count as 0. */
static int count_file(const char *path, uint64_t count, uint64_t *total) {
    enum { step = 65536 };
    *total = 0;
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return -errno;
    uint8_t *buffer = malloc(step);
    int rc = buffer == NULL ? -ENOMEM : 0;
    while (rc == 0 && count > 0) {
        ssize_t n = read(fd, buffer, step);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            rc = -errno;
        if (n <= 0)
            break;
        uint64_t here = (uint64_t)n * 8 < count ? (uint64_t)n * 8 : count;
        *total += trak_bits_count(buffer, here);
        count -= here;
    }
    free(buffer);
    close(fd);
    return rc;
}

int trak_cow_usage_get(const struct trak_info_arg *snap, struct trak_cow_usage *out) {
    memset(out, 0, sizeof(*out));
    if (snap->dev_type != TRAK_DEV_SNAP || snap->chunk_size == 0 || snap->dev_size == 0)
        return -EINVAL;
    struct stat st;
    out->volume_bytes = snap->dev_size;
    /* The record carries the low 32 bits of the count: take it from the sizes. */
    out->chunks = (snap->dev_size - 1) / snap->chunk_size + 1;
    int rc = count_file(snap->cow_bmp_fname, out->chunks, &out->chunks_preserved);
    if (rc < 0)
        return rc;
    if (stat(snap->cow_data_fname, &st) < 0)
        return -errno;
    out->bytes_allocated = (uint64_t)st.st_blocks * 512;
    out->bytes_preserved = out->chunks_preserved * snap->chunk_size;
    if (out->bytes_preserved > snap->dev_size)
        out->bytes_preserved = snap->dev_size;
    return 0;
}
