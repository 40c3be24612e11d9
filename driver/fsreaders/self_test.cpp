// driver/fsreaders/self_test.cpp: the data-block bitmap of a disk against its reader
// SPDX-License-Identifier: GPL-2.0-only
//
// The reference is the bitmap at the file system's block size, read in one go. The sparse bitmap must
// say the same of every block; every larger chunk, read from any start, must be what its blocks are;
// and an export must be what the reader gives at that size.
#include "driver/fsreaders/self_test.h"

#include "driver/fsreaders/blkbmp.h"
#include "driver/fsreaders/self_test_steps.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "os/memory.h"
#include "os/task.h"
#include "os/time.h"

namespace {

constexpr std::uint32_t kMaxChunk = 0x200000;

#define HDD(bdev) os_major(os_bdev_dev(bdev)), os_minor(os_bdev_dev(bdev))

// One run: what is constant in it.
struct Run {
    trak_self_test base;
    std::uint8_t *reference;  // one bit per block
    std::uint8_t *work;       // as large
    std::uint8_t *exported;   // as large
    trak_blkbmp *sparse;      // built at block size
};

int out_of_memory(const char *function) {
    trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", function);
    return -ENOMEM;
}

// The sparse bitmap says of every block what the reader says.
int compare_sparse(const Run *run, const char *function) {
    for (std::uint32_t b = 0; b < run->base.blocks; ++b) {
        const int is = trak_blkbmp_holds_data(run->sparse, b) ? 1 : 0;
        const int should = trak_test_bit(run->reference, b) ? 1 : 0;
        if (is != should) {
            trak_log(TRAK_LOG_ERROR, "%s(): Bit %d is misrepresented by blkbmp: %d instead of %d",
                     function, b, is, should);
            return -EIO;
        }
        if (b % 0x10000 == 0)
            os_cond_resched();
    }
    return 0;
}

int test_sparse(Run *run, const char *function) {
    const std::uint32_t size = run->base.block_size;
    trak_log(TRAK_LOG_COMMAND,
             "%s(): Reading the entire datablock bitmap with chunk_size=block_size=%dB using the "
             "reader directly",
             function, size);
    int rc = run->base.reader->read(run->base.context, 0, size, run->reference,
                                    static_cast<std::int32_t>(run->base.blocks));
    if (rc < 0)
        return rc;
    trak_log(TRAK_LOG_COMMAND,
             "%s(): Reading the entire datablock bitmap with chunk_size=block_size=%dB using "
             "blkbmp API",
             function, size);
    (void)trak_blkbmp_init(run->sparse);
    rc = trak_blkbmp_read(run->sparse, run->base.bdev, size);
    if (rc < 0)
        return rc;
    trak_log(TRAK_LOG_COMMAND, "   Comparing the results...");
    return compare_sparse(run, function);
}

// Reads from some chunk to the end: each chunk holds data exactly when one of its blocks does.
int test_partial(const Run *run, std::uint32_t chunk_size, const char *function) {
    const std::uint32_t ratio = chunk_size / run->base.block_size;
    const std::uint32_t chunks = trak_self_test_chunks(&run->base, chunk_size);
    const std::uint32_t start =
        chunks / 2 == 0 ? 0 : static_cast<std::uint32_t>(os_jiffies() % (chunks / 2));
    trak_log(TRAK_LOG_DETAIL,
             "%s(): Testing bitmap reading for start chunk=%d, chunk size=%d, chunks=%d", function,
             start, chunk_size, chunks);
    const int rc = run->base.reader->read(run->base.context, start, chunk_size, run->work,
                                          static_cast<std::int32_t>(chunks - start));
    if (rc < 0)
        return rc;
    for (std::uint32_t c = start; c < chunks; ++c) {
        const bool is = trak_test_bit(run->work, c - start);
        const bool should =
            trak_self_test_any_block(&run->base, run->reference, std::uint64_t{c} * ratio, ratio);
        if (should && !is)
            trak_log(TRAK_LOG_ERROR, "%s(): Bitmap inconsistency for chunk %d: expected 1, got 0",
                     function, c);
        if (!should && is)
            trak_log(TRAK_LOG_ERROR, "%s(): Bitmap inconsistency for chunk %d: expected 0, got 1",
                     function, c);
        if (should != is)
            return -EINVAL;
        if (c % 0x1000 == 0)
            os_cond_resched();
    }
    return 0;
}

// The export at an extent size is what the reader gives at that chunk size.
int test_export(const Run *run, std::uint32_t extent_size, const char *function) {
    trak_log(TRAK_LOG_DETAIL, "%s(): Testing downsample to extent size %d", function, extent_size);
    const std::uint32_t ratio = extent_size / run->base.block_size;
    const std::uint32_t extents = trak_self_test_chunks(&run->base, extent_size);
    int rc = run->base.reader->read(run->base.context, 0, extent_size, run->work,
                                    static_cast<std::int32_t>(extents));
    if (rc < 0)
        return rc;
    rc = trak_blkbmp_export(run->sparse, ratio, run->exported, run->base.bytes);
    if (rc < 0)
        return rc;
    for (std::uint32_t e = 0; e < extents; ++e) {
        const int read = trak_test_bit(run->work, e) ? 1 : 0;
        const int exported = trak_test_bit(run->exported, e) ? 1 : 0;
        if (read == exported)
            continue;
        trak_log(TRAK_LOG_ERROR,
                 "%s(): Failed to downsample bitmap for extent of size %d: bit %d doesn't match.",
                 function, extent_size, e);
        trak_log(TRAK_LOG_ERROR, "  chunk_size=%d, blocks_per_chunk=%d, chunks=%d", extent_size,
                 ratio, extents);
        trak_log(TRAK_LOG_ERROR, "  read_func() returned %d, export() returned %d", read, exported);
        return -EINVAL;
    }
    return 0;
}

int test_all(Run *run, const char *function) {
    int rc = test_sparse(run, function);
    for (std::uint32_t size = run->base.block_size; rc == 0 && size <= kMaxChunk; size *= 2)
        rc = test_partial(run, size, function);
    if (rc == 0)
        trak_log(TRAK_LOG_COMMAND, "%s(): Testing trak_blkbmp_export()", function);
    for (std::uint32_t size = run->base.block_size; rc == 0 && size <= kMaxChunk; size *= 2)
        rc = test_export(run, size, function);
    if (rc == 0)
        trak_log(TRAK_LOG_COMMAND, "%s(): Datablock bitmap code tests completed successfully",
                 function);
    return rc;
}

// With the buffers that the tests need.
int test_with_buffers(Run *run, const char *function) {
    run->reference = static_cast<std::uint8_t *>(os_vmalloc(run->base.bytes));
    run->work = static_cast<std::uint8_t *>(os_vmalloc(run->base.bytes));
    run->exported = static_cast<std::uint8_t *>(os_vmalloc(run->base.bytes));
    run->sparse = static_cast<trak_blkbmp *>(os_kzalloc(sizeof(trak_blkbmp), OS_GFP_KERNEL));
    int rc = 0;
    if (run->reference == nullptr || run->work == nullptr || run->exported == nullptr ||
        run->sparse == nullptr)
        rc = out_of_memory(function);
    else
        rc = test_all(run, function);
    if (run->sparse != nullptr)
        (void)trak_blkbmp_destroy(run->sparse);
    os_kfree(run->sparse);
    os_vfree(run->exported);
    os_vfree(run->work);
    os_vfree(run->reference);
    return rc;
}

bool block_size_is_usable(std::int32_t block_size, const char *function) {
    if (block_size == 0) {
        trak_log(TRAK_LOG_ERROR, "%s(): NULL FS block size returned from FS reader.", function);
        return false;
    }
    if (block_size < 2 || !trak_is_power_of_two(static_cast<std::uint32_t>(block_size))) {
        trak_log(TRAK_LOG_ERROR, "%s(): Not pow2 FS block size returned from FS reader.", function);
        return false;
    }
    return true;
}

int test_recognised(os_bdev *bdev, void *context, std::int32_t block_size,
                    const trak_fs_reader *reader, const char *function) {
    if (!block_size_is_usable(block_size, function))
        return -EIO;
    int rc = trak_blkbmp_test_reader(bdev, context, block_size, reader);
    if (rc != 0)
        return rc;
    Run run{};
    rc = trak_self_test_init(&run.base, bdev, context, block_size, reader, function);
    return rc != 0 ? rc : test_with_buffers(&run, function);
}

}  // namespace

int trak_blkbmp_test(os_bdev *bdev) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Testing datablock bitmap code for hdd(%d, %d)", HDD(bdev));
    if (static_cast<std::int64_t>(os_bdev_size(bdev)) < 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to get size of hdd(%d, %d)", HDD(bdev));
        return -EINVAL;
    }
    for (int i = 0; i < trak_fs_reader_count; ++i) {
        std::int32_t block_size = 0;
        const trak_fs_reader *reader = &trak_fs_readers[i];
        void *context = reader->init(bdev, &block_size);
        if (context == nullptr)
            continue;
        const int rc = test_recognised(bdev, context, block_size, reader, __func__);
        (void)reader->destroy(context);
        return rc;
    }
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Cannot recognize file system on hdd(%d, %d).", HDD(bdev));
    return -EINVAL;
}
