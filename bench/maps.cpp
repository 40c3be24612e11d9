// bench/maps.cpp: builds the data-block map of an image once, and tells what that took
// SPDX-License-Identifier: GPL-2.0-only
//
// bench_maps IMAGE [CHUNK_SIZE]: one JSON object with the seconds, the reads that the driver asked for,
// and the bytes of the map in memory beside those of a plain bitmap.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/fsreaders/blkbmp.h"
#include "driver/utils/trak_utils.h"
#include "os/bio.h"
#include "os/user/user.h"

namespace {

std::uint64_t g_reads;

// What a fragment keeps: its index, and each block that the index names once.
std::uint64_t bytes_of(const sa &frag) {
    const std::uint16_t *last = std::max_element(frag.index, frag.index + frag.blk_cnt);
    return frag.blk_cnt * sizeof(std::uint16_t) + (*last + std::uint64_t{1}) * frag.blk_size;
}

int measure(os_bdev *bdev, std::uint32_t chunk_size) {
    trak_blkbmp bmp;
    (void)trak_blkbmp_init(&bmp);
    const auto begin = std::chrono::steady_clock::now();
    const int rc = trak_blkbmp_read(&bmp, bdev, chunk_size);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    if (rc < 0) {
        std::fprintf(stderr, "bench_maps: there is no map: %d\n%s\n", rc, user::log_text().c_str());
        return 1;
    }
    std::uint64_t memory = static_cast<std::uint64_t>(bmp.frag_cnt) * sizeof(sa), data = 0;
    for (std::int32_t f = 0; f < bmp.frag_cnt; ++f)
        memory += bytes_of(bmp.frags[f]);
    for (std::uint32_t c = 0; c < bmp.chunk_cnt; ++c)
        data += trak_blkbmp_holds_data(&bmp, c);
    std::printf("{\"seconds\": %.6f, \"reads\": %lu, \"memory\": %lu, \"plain\": %lu, "
                "\"chunks\": %u, \"with_data\": %lu}\n",
                took.count(), g_reads, memory, (std::uint64_t{bmp.chunk_cnt} + 7) / 8,
                bmp.chunk_cnt, data);
    (void)trak_blkbmp_destroy(&bmp);
    return 0;
}

}  // namespace

// The linker lets the driver's calls come by here.
extern "C" void __real_os_submit_bio(std::uint32_t rw, os_bio *bio);
extern "C" void __wrap_os_submit_bio(std::uint32_t rw, os_bio *bio) {
    ++g_reads;
    __real_os_submit_bio(rw, bio);
}

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_maps IMAGE [CHUNK_SIZE]\n");
        return 2;
    }
    const auto chunk_size =
        static_cast<std::uint32_t>(argc > 2 ? std::strtoul(argv[2], nullptr, 0) : 65536);
    std::string why;
    os_dev_t dev = 0;
    if (user::start({}, &why) != 0 || user::add_image("image", argv[1], &dev, &why) != 0) {
        std::fprintf(stderr, "bench_maps: %s\n", why.c_str());
        return 1;
    }
    os_bdev *bdev = trak_open_bdev(dev, OS_FMODE_READ);
    int status = 1;
    if (bdev != nullptr) {
        status = measure(bdev, chunk_size);
        trak_close_bdev(bdev);
    }
    user::stop();
    return status;
}
