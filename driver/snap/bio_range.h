// driver/snap/bio_range.h: the sectors, blocks and chunks that a request touches
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_SNAP_BIO_RANGE_H
#define TRAK_SNAP_BIO_RANGE_H

#include <cstdint>

#include "os/bio.h"

// first and last sector, both inclusive; a request without data has none (sectors == 0).
struct bio_range {
    std::uint64_t first;
    std::uint64_t last;
    std::uint64_t sectors;
};

inline bio_range bio_range_of(const os_bio *bio) {
    const std::uint64_t first = os_bio_sector(bio);
    const std::uint64_t sectors = os_bio_size(bio) >> OS_SECTOR_SHIFT;
    return {first, first + sectors - 1, sectors};
}

inline bool bio_ranges_overlap(const bio_range &a, const bio_range &b) {
    return a.sectors != 0 && b.sectors != 0 && a.first <= b.last && a.last >= b.first;
}

// Discards and write-zeroes change their sectors as writes do.
inline bool bio_is_write(const os_bio *bio) {
    return (os_bio_rw(bio) & (OS_BIO_WRITE | OS_BIO_DISCARD | OS_BIO_ZEROES)) != 0;
}

#endif
