// bench/null_disk.cpp: a disk that ends every request at once
// SPDX-License-Identifier: GPL-2.0-only
#include "bench/null_disk.h"

#include <cstdio>
#include <cstdlib>

#include "os/disk.h"
#include "os/file.h"

namespace bench {

namespace {

int g_major;
os_disk *g_disk;
os_queue *g_queue;

void must(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "null disk: %s\n", what);
        std::exit(1);
    }
}

int end_at_once(os_queue *, os_bio *bio) {
    os_bio_endio(bio, 0);
    return 0;
}

constexpr os_block_device_operations kOps = {nullptr, nullptr, nullptr};

}  // namespace

os_dev_t null_disk_make(std::uint64_t size) {
    g_major = os_register_blkdev(0, "null");
    must(g_major > 0, "no major");
    const os_dev_t dev = os_mkdev(static_cast<std::uint32_t>(g_major), 0);
    g_disk = os_alloc_disk(1);
    g_queue = os_alloc_queue(OS_GFP_KERNEL);
    must(g_disk != nullptr && g_queue != nullptr, "no memory");
    os_disk_setup(g_disk, static_cast<std::uint32_t>(g_major), 0, "null", &kOps);
    os_queue_make_request(g_queue, end_at_once);
    os_disk_set_queue(g_disk, g_queue);
    os_disk_set_capacity(g_disk, size >> OS_SECTOR_SHIFT);
    must(os_add_disk(g_disk) == 0, "can't add the disk");

    os_parent *parent = os_path_parent(kNullDisk);
    must(!os_is_err(parent), "no /dev/trak");
    os_parent_lock(parent);
    os_dentry *name = os_lookup_hash(parent);
    must(!os_is_err(name), "no name");
    must(os_vfs_mknod(parent, name, OS_S_IFBLK | 0600, dev) == 0, "no special file");
    os_dput(name);
    os_parent_unlock(parent);
    os_parent_put(parent);
    return dev;
}

void null_disk_remove() {
    os_del_gendisk(g_disk);
    os_cleanup_queue(g_queue);
    os_put_disk(g_disk);
    os_unregister_blkdev(static_cast<std::uint32_t>(g_major), "null");
}

}  // namespace bench
