// driver/fsreaders/blkbmp.cpp: which chunks of a disk hold allocated blocks
// SPDX-License-Identifier: GPL-2.0-only
//
// A disk of 2^32 chunks would need 512 MiB as a plain bit string. It is read through one work buffer
// of 128 KiB, a fragment of 2^20 chunks at a time, and each fragment is stored as a sparse array whose
// block size is the one that measures smallest.
#include "driver/fsreaders/blkbmp.h"

#include <bit>

#include "driver/fsreaders/readers.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/memory.h"

namespace {

constexpr int kFragShift = 20;
constexpr std::uint32_t kFragChunks = 1u << kFragShift;
constexpr std::int32_t kBufferBytes = kFragChunks / 8;
constexpr int kMostBlocks = 65536;

struct Geometry {
    int blk_cnt;
    int blk_size;
    int measured;  // bytes of memory
};

// The first reader that knows the disk's file system, with its context.
const trak_fs_reader *probe(os_bdev *bdev, void **context) {
    for (int i = 0; i < trak_fs_reader_count; ++i) {
        *context = trak_fs_readers[i].init(bdev, nullptr);
        if (*context != nullptr)
            return &trak_fs_readers[i];
    }
    return nullptr;
}

// Tries block counts in powers of two; the smallest measurement wins, the first of equals. 0 or a
// negative errno.
int choose_geometry(const std::uint8_t *buffer, std::int32_t bytes, Geometry *best) {
    *best = {kBufferBytes, 1, 0x80000};
    for (int blk_cnt = 1; blk_cnt <= kMostBlocks; blk_cnt *= 2) {
        const auto exact = static_cast<std::uint32_t>((bytes + blk_cnt - 1) / blk_cnt);
        const int blk_size = static_cast<int>(std::bit_ceil(exact));
        if (exact == 0 || blk_size < 4)
            break;
        const int size = create_sa(nullptr, blk_cnt, blk_size, buffer, 1);
        trak_log(TRAK_LOG_REQUEST, "%d x %d (%d bytes) will take %d bytes", blk_cnt, blk_size,
                 bytes, size);
        if (size < 0)
            return size;
        if (size < best->measured)
            *best = {blk_cnt, blk_size, size};
    }
    return 0;
}

// Stores one fragment, whose bits are in the buffer: its size in memory or a negative errno.
int build_fragment(sa *frag, std::uint8_t *buffer, std::int32_t bytes) {
    // Blocks may reach beyond the fragment's bytes: those bits count as holding data.
    memset(buffer + bytes, 0xff, static_cast<std::size_t>(kBufferBytes - bytes));
    Geometry best;
    const int rc = choose_geometry(buffer, bytes, &best);
    if (rc < 0)
        return rc;
    trak_log(TRAK_LOG_DETAIL, "Block Bitmap Fragment: %dB => %dB (%d x %d) (%02d%%)", bytes,
             best.measured, best.blk_cnt, best.blk_size,
             100 - static_cast<int>(static_cast<std::int64_t>(best.measured) * 100 / bytes));
    return create_sa(frag, best.blk_cnt, best.blk_size, buffer, 0);
}

// Every fragment in order: the size of the last one, 0 without any, or a negative errno.
int build_fragments(trak_blkbmp *bmp, const trak_fs_reader *reader, void *context,
                    std::uint32_t chunk_size, std::uint8_t *buffer) {
    int rc = 0;
    for (std::int32_t f = 0; f < bmp->frag_cnt; ++f) {
        const std::uint32_t first = static_cast<std::uint32_t>(f) << kFragShift;
        const std::uint32_t left = bmp->chunk_cnt - first;
        const std::uint32_t count = left < kFragChunks ? left : kFragChunks;
        const auto bytes = static_cast<std::int32_t>((count + 7) >> 3);
        rc = reader->read(context, first, chunk_size, buffer, static_cast<std::int32_t>(count));
        if (rc < 0)
            return rc;
        rc = build_fragment(&bmp->frags[f], buffer, bytes);
        if (rc < 0)
            return rc;
    }
    return rc;
}

int build(trak_blkbmp *bmp, os_bdev *bdev, std::uint32_t chunk_size, const trak_fs_reader *reader,
          void *context) {
    if (chunk_size <= 1 || !trak_is_power_of_two(chunk_size)) {
        trak_log(TRAK_LOG_ERROR, "%s(): Chunk size (%d) must be a power of 2", "trak_blkbmp_read",
                 static_cast<int>(chunk_size));
        return -EINVAL;
    }
    const std::uint64_t chunks =
        (os_bdev_size(bdev) + chunk_size - 1) >> trak_size_shift(chunk_size);
    bmp->chunk_cnt = static_cast<std::uint32_t>(chunks);
    bmp->frag_cnt = static_cast<std::int32_t>(
        (static_cast<std::uint64_t>(bmp->chunk_cnt) + kFragChunks - 1) >> kFragShift);
    const std::size_t frags = bmp->frag_cnt > 0 ? static_cast<std::size_t>(bmp->frag_cnt) : 1;
    bmp->frags = static_cast<sa *>(os_kzalloc(frags * sizeof(sa), OS_GFP_KERNEL));
    if (bmp->frags == nullptr) {
        bmp->frag_cnt = 0;
        trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", "trak_blkbmp_read");
        return -ENOMEM;
    }
    auto *buffer = static_cast<std::uint8_t *>(os_vmalloc(kBufferBytes));
    if (buffer == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed", "trak_blkbmp_read");
        return -ENOMEM;
    }
    const int rc = build_fragments(bmp, reader, context, chunk_size, buffer);
    os_vfree(buffer);
    if (rc >= 0)
        bmp->valid = 1;
    return rc;
}

}  // namespace

int trak_blkbmp_init(trak_blkbmp *bmp) {
    memset(bmp, 0, sizeof(*bmp));
    return 0;
}

int trak_blkbmp_read(trak_blkbmp *bmp, os_bdev *bdev, std::uint32_t chunk_size) {
    void *context = nullptr;
    const trak_fs_reader *reader = probe(bdev, &context);
    if (reader == nullptr) {
        const os_dev_t dev = os_bdev_dev(bdev);
        trak_logf(TRAK_LOG_MILESTONE,
                  "%s(): Cannot recognize file system on hdd(%d, %d). Datablocks will be disabled",
                  static_cast<int>(os_major(dev)), static_cast<int>(os_minor(dev)));
        return -EINVAL;
    }
    const int rc = build(bmp, bdev, chunk_size, reader, context);
    reader->destroy(context);
    return rc;
}

bool trak_blkbmp_holds_data(const trak_blkbmp *bmp, std::uint32_t chunk) {
    if (bmp->valid == 0 || chunk >= bmp->chunk_cnt)
        return true;
    const sa *frag = &bmp->frags[chunk >> kFragShift];
    const std::uint32_t bit = chunk & (kFragChunks - 1);
    const std::uint32_t at = frag->index[bit >> frag->bit_shift];
    const std::uint8_t *block = frag->data + (static_cast<std::size_t>(at) << frag->byte_shift);
    return trak_test_bit(block, bit & frag->bit_mask);
}

int trak_blkbmp_export(const trak_blkbmp *bmp, std::uint32_t ratio, void *buffer,
                       std::uint32_t size) {
    if (bmp->valid == 0) {
        memset(buffer, 0xff, size);
        return 0;
    }
    if (buffer == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): NULL buffer passed as input");
        return -EINVAL;
    }
    const std::uint64_t bits = (static_cast<std::uint64_t>(bmp->chunk_cnt) + ratio - 1) / ratio;
    const std::uint64_t needed = (bits + 7) >> 3;
    if (size < needed) {
        trak_logf(TRAK_LOG_ERROR,
                  "%s(): Insufficient buffer size passed as input: should be %d instead of %d",
                  static_cast<int>(needed), static_cast<int>(size));
        return -EINVAL;
    }
    auto *out = static_cast<std::uint8_t *>(buffer);
    memset(out, 0, needed);
    std::uint64_t chunk = 0;
    for (std::uint64_t o = 0; o < bits; ++o) {
        const std::uint64_t end = (o + 1) * ratio;
        for (; chunk < end && chunk < bmp->chunk_cnt; ++chunk) {
            if (trak_blkbmp_holds_data(bmp, static_cast<std::uint32_t>(chunk))) {
                (void)trak_test_and_set_bit(out, o);
                break;
            }
        }
        chunk = end;
    }
    return 0;
}

int trak_blkbmp_destroy(trak_blkbmp *bmp) {
    for (std::int32_t f = 0; bmp->frags != nullptr && f < bmp->frag_cnt; ++f) {
        os_vfree(bmp->frags[f].index);
        os_vfree(bmp->frags[f].data);
    }
    os_kfree(bmp->frags);
    memset(bmp, 0, sizeof(*bmp));
    return 0;
}
