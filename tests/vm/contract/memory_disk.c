// tests/vm/contract/memory_disk.c: a disk in memory, made of the seam's own calls
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/vm/contract/memory_disk.h"

#include <linux/vmalloc.h>

#include "os/linux/block.h"
#include "os/task.h"
#include "tests/vm/contract/contract.h"

static struct memory_disk *disk_of(struct os_disk *disk) {
    return os_queue_data(os_disk_queue(disk));
}

static int open_disk(struct os_bdev *bdev, uint32_t mode) {
    struct memory_disk *disk = disk_of(os_bdev_disk(bdev));

    if (disk->open_error)
        return disk->open_error;
    disk->opens++;
    return 0;
}

static int release_disk(struct os_disk *disk, uint32_t mode) {
    disk_of(disk)->releaser = os_current();
    disk_of(disk)->releases++;
    return 0;
}

static int ioctl_disk(struct os_bdev *bdev, uint32_t mode, uint32_t cmd, os_uaddr arg) {
    return cmd == 0x1234 ? (int)arg : -ENOTTY;
}

static const struct os_block_device_operations operations = {open_disk, release_disk, ioctl_disk};

static void move_bytes(struct memory_disk *disk, struct os_bio *bio) {
    const bool write = os_bio_rw(bio) & OS_BIO_WRITE;
    uint8_t *at = disk->bytes + (os_bio_sector(bio) << OS_SECTOR_SHIFT);
    uint32_t i;

    for (i = os_bio_idx(bio); i < os_bio_vcnt(bio); i++) {
        const struct os_bio_vec vec = os_bio_vec_at(bio, i);
        uint8_t *piece = (uint8_t *)os_page_address(vec.page) + vec.offset;

        EXPECT(vec.len != 0 && vec.offset + vec.len <= OS_PAGE_SIZE);
        if (write)
            memcpy(at, piece, vec.len);
        else
            memcpy(piece, at, vec.len);
        at += vec.len;
    }
}

static int take_request(struct os_queue *queue, struct os_bio *bio) {
    struct memory_disk *disk = os_queue_data(queue);

    disk->requests++;
    disk->total += os_bio_size(bio);
    disk->largest = max(disk->largest, os_bio_size(bio));
    if (disk->keep) {
        disk->keep = false;
        disk->kept = bio;
        return 0;
    }
    if (disk->redirect) {
        os_bio_set_bdev(bio, disk->redirect);
        os_generic_make_request(bio);
        return 0;
    }
    move_bytes(disk, bio);
    os_bio_endio(bio, 0);
    return 0;
}

static void unplug(struct os_queue *queue) {
    ((struct memory_disk *)os_queue_data(queue))->unplugs++;
}

static bool add(struct memory_disk *disk, const char *name) {
    disk->disk = os_alloc_disk(1);
    if (!EXPECT(disk->disk))
        return false;
    disk->queue = os_alloc_queue(OS_GFP_KERNEL);
    if (!EXPECT(disk->queue)) {
        os_put_disk(disk->disk);
        return false;
    }
    os_disk_setup(disk->disk, disk->major, 0, name, &operations);
    os_disk_set_capacity(disk->disk, memory_disk_bytes >> OS_SECTOR_SHIFT);
    os_queue_make_request(disk->queue, take_request);
    os_queue_set_data(disk->queue, disk);
    os_queue_set_unplug(disk->queue, unplug);
    os_disk_set_queue(disk->disk, disk->queue);
    if (EXPECT(os_add_disk(disk->disk) == 0))
        return true;
    os_cleanup_queue(disk->queue);
    os_put_disk(disk->disk);
    return false;
}

bool memory_disk_make(struct memory_disk *disk, const char *name) {
    memset(disk, 0, sizeof(*disk));
    disk->bytes = vzalloc(memory_disk_bytes);
    disk->major = disk->bytes ? os_register_blkdev(0, name) : -ENOMEM;
    if (EXPECT(disk->major > 0)) {
        disk->dev = os_mkdev(disk->major, 0);
        if (add(disk, name))
            return true;
        os_unregister_blkdev(disk->major, name);
    }
    vfree(disk->bytes);
    return false;
}

void memory_disk_remove(struct memory_disk *disk) {
    char name[32];

    strscpy(name, real_disk(disk->disk)->disk_name, sizeof(name));
    os_del_gendisk(disk->disk);
    os_cleanup_queue(disk->queue);
    os_put_disk(disk->disk);
    os_unregister_blkdev(disk->major, name);
    vfree(disk->bytes);
}

struct waiter {
    struct os_completion done;
    int error;
};

static void wake_waiter(struct os_bio *bio, int error) {
    struct waiter *waiter = os_bio_private(bio);

    waiter->error = error;
    os_complete(&waiter->done);
}

int contract_submit(struct os_bio *bio, uint32_t rw) {
    struct waiter waiter;

    os_init_completion(&waiter.done);
    os_bio_set_end_io(bio, wake_waiter);
    os_bio_set_private(bio, &waiter);
    os_submit_bio(rw, bio);
    os_wait_for_completion(&waiter.done);
    return waiter.error;
}
