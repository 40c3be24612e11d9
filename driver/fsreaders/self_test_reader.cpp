// driver/fsreaders/self_test_reader.cpp: a reader of a file system against itself
// SPDX-License-Identifier: GPL-2.0-only
//
// The bitmap at block size is the reference: read in portions of any size it is the same, and a larger
// chunk holds data exactly when one of its blocks does. Each bitmap is left in a dump file.

#include "driver/fsreaders/self_test.h"
#include "driver/fsreaders/self_test_steps.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/trak_utils.h"
#include "os/log.h"
#include "os/memory.h"
#include "os/task.h"

namespace {

constexpr std::uint32_t kMaxChunk = 0x10000;
constexpr std::uint32_t kLeastPortion = 127;  // bytes; smaller ones are not tried

#define HDD(bdev) os_major(os_bdev_dev(bdev)), os_minor(os_bdev_dev(bdev))

// Leaves a bitmap in its dump file; one that can't be opened is left out.
void dump(const char *name, const std::uint8_t *bits, std::uint32_t bytes) {
    trak_file *file = trak_fopen(name, OS_O_RDWR | OS_O_CREAT | OS_O_TRUNC | OS_O_LARGEFILE, 0666);
    if (file == nullptr)
        return;
    (void)trak_fwrite(file, 0, bits, static_cast<int>(bytes));
    (void)trak_fclose(file);
}

// The whole bitmap in reads of at most portion * 8 chunks.
int read_in_portions(const trak_self_test *test, std::uint32_t chunk_size, std::uint32_t portion,
                     std::uint8_t *bits) {
    const std::uint32_t chunks = trak_self_test_chunks(test, chunk_size);
    const std::uint64_t most = std::uint64_t{portion} * 8;
    for (std::uint64_t first = 0; first < chunks; first += most) {
        const std::uint64_t rest = chunks - first;
        const auto count = static_cast<std::int32_t>(rest < most ? rest : most);
        const int rc = test->reader->read(test->context, static_cast<std::uint32_t>(first),
                                          chunk_size, bits + first / 8, count);
        if (rc < 0) {
            trak_log(TRAK_LOG_ERROR, "Failed to read %d bits starting from chunk %d", count,
                     static_cast<int>(first));
            return rc;
        }
        os_cond_resched();
    }
    return 0;
}

int compare(const trak_self_test *test, std::uint32_t chunk_size, const std::uint8_t *bits,
            const std::uint8_t *reference) {
    const std::uint32_t ratio = chunk_size / test->block_size;
    const std::uint32_t chunks = trak_self_test_chunks(test, chunk_size);
    for (std::uint32_t c = 0; c < chunks; ++c) {
        const bool is = trak_test_bit(bits, c);
        const bool should =
            trak_self_test_any_block(test, reference, std::uint64_t{c} * ratio, ratio);
        if (should && !is)
            trak_log(TRAK_LOG_ERROR,
                     "Oops. Bit %d of chunk bitmap is clear, but some bits in the block bitmap are "
                     "set.",
                     c);
        if (!should && is)
            trak_log(TRAK_LOG_ERROR,
                     "Oops. Bit %d of chunk bitmap is set, but all bits in the block bitmap are "
                     "clear.",
                     c);
        if (should != is)
            return -EIO;
    }
    return 0;
}

// One chunk size in all portion sizes.
int test_chunk_size(const trak_self_test *test, std::uint32_t chunk_size, std::uint8_t *bits,
                    const std::uint8_t *reference) {
    const std::uint32_t chunks = trak_self_test_chunks(test, chunk_size);
    const std::uint32_t bytes = (chunks + 7) / 8;
    std::uint32_t portion = bytes;
    do {
        char name[64];
        (void)os_snprintf(name, sizeof name, "/tmp/bmp.%d.%d", static_cast<int>(chunk_size),
                          static_cast<int>(portion));
        trak_log(TRAK_LOG_DETAIL, "Testing chunk_size=%d, chunks=%d (portion_size=%d): %s",
                 chunk_size, chunks, portion, name);
        const int rc = read_in_portions(test, chunk_size, portion, bits);
        if (rc < 0)
            return rc;
        dump(name, bits, bytes);
        portion /= 2;
    } while (portion > kLeastPortion);
    return bits == reference ? 0 : compare(test, chunk_size, bits, reference);
}

}  // namespace

int trak_self_test_init(trak_self_test *test, os_bdev *bdev, void *context, std::int32_t block_size,
                        const trak_fs_reader *reader, const char *function) {
    const auto size = static_cast<std::int64_t>(os_bdev_size(bdev));
    if (size < 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to get size of hdd(%d, %d)", function, HDD(bdev));
        return -EINVAL;
    }
    const auto unit = static_cast<std::uint32_t>(block_size);
    const std::uint64_t blocks = (static_cast<std::uint64_t>(size) + unit - 1) / unit;
    if (blocks > INT32_MAX) {
        trak_log(TRAK_LOG_ERROR, "%s(): hdd(%d, %d) has too many blocks to be tested.", function,
                 HDD(bdev));
        return -EFBIG;
    }
    const auto count = static_cast<std::uint32_t>(blocks);
    *test = {bdev, context, reader, unit, count, (count + 7) / 8};
    return 0;
}

std::uint32_t trak_self_test_chunks(const trak_self_test *test, std::uint32_t chunk_size) {
    const std::uint32_t ratio = chunk_size / test->block_size;
    return static_cast<std::uint32_t>((std::uint64_t{test->blocks} + ratio - 1) / ratio);
}

bool trak_self_test_any_block(const trak_self_test *test, const std::uint8_t *blocks,
                              std::uint64_t first, std::uint32_t count) {
    for (std::uint64_t b = first; b < first + count && b < test->blocks; ++b)
        if (trak_test_bit(blocks, b))
            return true;
    return false;
}

int trak_blkbmp_test_reader(os_bdev *bdev, void *context, std::int32_t block_size,
                            const trak_fs_reader *reader) {
    if (static_cast<std::int64_t>(os_bdev_size(bdev)) < 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to get size of hdd(%d, %d)", HDD(bdev));
        return -EINVAL;
    }
    if (block_size < 2 || !trak_is_power_of_two(static_cast<std::uint32_t>(block_size))) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Not pow2 FS block size returned from FS reader.");
        return -EIO;
    }
    trak_logf(TRAK_LOG_COMMAND, "%s(): Testing bitmap reader for hdd(%d, %d)", HDD(bdev));
    if (static_cast<std::uint32_t>(block_size) > kMaxChunk)
        return 0;
    trak_self_test test;
    int rc = trak_self_test_init(&test, bdev, context, block_size, reader, __func__);
    if (rc != 0)
        return rc;
    auto *reference = static_cast<std::uint8_t *>(os_vmalloc(test.bytes));
    auto *bits = static_cast<std::uint8_t *>(os_vmalloc(test.bytes));
    if (reference == nullptr || bits == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        rc = -ENOMEM;
    } else {
        rc = test_chunk_size(&test, test.block_size, reference, reference);
        for (std::uint32_t size = test.block_size * 2; rc == 0 && size <= kMaxChunk; size *= 2)
            rc = test_chunk_size(&test, size, bits, reference);
    }
    os_vfree(bits);
    os_vfree(reference);
    return rc;
}
