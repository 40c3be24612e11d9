// tests/vm/contract/memory_disk.h: a disk in memory, made of the seam's own calls
// SPDX-License-Identifier: GPL-2.0-only
//
// Its make-request function moves bytes piece by piece, and notes what it was given.
#ifndef TRAK_TESTS_VM_CONTRACT_MEMORY_DISK_H
#define TRAK_TESTS_VM_CONTRACT_MEMORY_DISK_H

#include "os/disk.h"

enum { memory_disk_bytes = 4 << 20 };

struct memory_disk {
    int major;
    os_dev_t dev;
    struct os_disk *disk;
    struct os_queue *queue;
    uint8_t *bytes;
    int open_error;           /* what the next opens return */
    int opens, releases;      /* of the driver's operations */
    struct os_task *releaser; /* who called the last release */
    int requests, unplugs;    /* calls */
    uint32_t largest;         /* request, bytes */
    uint64_t total;           /* bytes asked for */
    struct os_bdev *redirect; /* null, or the device that requests are passed to */
    bool keep;                /* the next request stays under way, in `kept` */
    struct os_bio *kept;
};

/* One at a time for each place. False: nothing is left over. */
bool memory_disk_make(struct memory_disk *disk, const char *name);
void memory_disk_remove(struct memory_disk *disk);

/* Submits and waits: 0 or the error that the bio ended with. */
int contract_submit(struct os_bio *bio, uint32_t rw);

#endif
