// os/sim/node.cpp: block devices that the driver makes
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>

#include "os/sim/disk.h"
#include "os/sim/storage.h"

using namespace sim;

namespace {

os_disk &checked(os_disk *disk, const char *function) {
    mem_check(Kind::kDisk, disk, function);
    return *disk;
}

os_queue &checked(os_queue *queue, const char *function) {
    mem_check(Kind::kQueue, queue, function);
    return *queue;
}

bool major_taken(std::uint32_t major) {
    for (const BlkMajor &entry : kernel().blk_majors)
        if (entry.major == major)
            return true;
    for (const auto &[dev, disk] : kernel().storage.impl->disks)
        if (os_major(dev) == major)
            return true;
    return false;
}

bool referred_to(const os_disk *disk) {
    for (const auto &[dev, bdev] : kernel().bdevs)
        if (bdev->disk == disk)
            return true;
    return false;
}

}  // namespace

namespace sim {

std::vector<os_dev_t> nodes() {
    std::vector<os_dev_t> devs;
    for (const auto &[dev, disk] : kernel().nodes)
        devs.push_back(dev);
    return devs;
}

}  // namespace sim

extern "C" {

int os_register_blkdev(uint32_t major, const char *name) {
    might_sleep("os_register_blkdev");
    point();
    if (fault(Fault::kOpen))
        return -EBUSY;
    uint32_t got = major;
    if (major == 0) {
        for (got = 254; got > 0 && major_taken(got); got--) {
        }
    }
    if (got == 0 || major_taken(got))
        return -EBUSY;
    if (got > 4095)
        return -EINVAL;
    kernel().blk_majors.push_back({got, name});
    return major == 0 ? static_cast<int>(got) : 0;
}

void os_unregister_blkdev(uint32_t major, const char *name) {
    might_sleep("os_unregister_blkdev");
    auto &majors = kernel().blk_majors;
    for (auto at = majors.begin(); at != majors.end(); ++at) {
        if (at->major != major || at->name != name)
            continue;
        majors.erase(at);
        point();
        return;
    }
    fail("os_unregister_blkdev: major %u (%s) is not registered", major, name);
}

struct os_disk *os_alloc_disk(int minors) {
    might_sleep("os_alloc_disk");
    if (minors < 1)
        fail("os_alloc_disk: %d minors", minors);
    point();
    if (fault(Fault::kAlloc))
        return nullptr;
    return new (mem_alloc(Kind::kDisk, sizeof(os_disk), __builtin_return_address(0))) os_disk{};
}

struct os_queue *os_alloc_queue(os_gfp gfp) {
    might_sleep("os_alloc_queue");
    (void)gfp;
    point();
    if (fault(Fault::kAlloc))
        return nullptr;
    return new (mem_alloc(Kind::kQueue, sizeof(os_queue), __builtin_return_address(0))) os_queue{};
}

void os_disk_setup(struct os_disk *disk, uint32_t major, uint32_t first_minor, const char *name,
                   const struct os_block_device_operations *ops) {
    os_disk &d = checked(disk, "os_disk_setup");
    d.major = major;
    d.first_minor = first_minor;
    std::snprintf(d.name, sizeof d.name, "%s", name);
    d.ops = ops;
    d.set_up = true;
}

void os_disk_set_capacity(struct os_disk *disk, uint64_t sectors) {
    checked(disk, "os_disk_set_capacity").sectors = sectors;
}

void os_disk_set_queue(struct os_disk *disk, struct os_queue *queue) {
    checked(disk, "os_disk_set_queue").queue = queue;
    if (queue)
        checked(queue, "os_disk_set_queue").disk = disk;
}

void os_disk_set_ro(struct os_disk *disk, int read_only) {
    checked(disk, "os_disk_set_ro").read_only = read_only != 0;
}

uint32_t os_disk_first_minor(const struct os_disk *disk) {
    mem_check(Kind::kDisk, disk, "os_disk_first_minor");
    return disk->first_minor;
}

struct os_queue *os_disk_queue(const struct os_disk *disk) {
    mem_check(Kind::kDisk, disk, "os_disk_queue");
    return disk->queue;
}

// What timed out before may have left requests in the turn that begins: the second turn waits for them.
int os_disk_drain(struct os_disk *disk, uint64_t ticks) {
    might_sleep("os_disk_drain");
    check_waits_for(kByRequest, "os_disk_drain");
    os_disk &d = checked(disk, "os_disk_drain");
    const std::uint64_t deadline = os_jiffies() + ticks;
    point();
    for (; d.draining; sleep_ms(1)) {
        if (os_jiffies() > deadline)
            return -EAGAIN;
    }
    d.draining = true;
    int rc = 0;
    for (int turns = 0; turns < 2 && rc == 0; turns++) {
        const unsigned before = d.turn;
        d.turn ^= 1;
        point();
        while (d.under_way[before] != 0 && rc == 0) {
            if (os_jiffies() > deadline)
                rc = -EAGAIN;
            else
                sleep_ms(1);
        }
    }
    d.draining = false;
    return rc;
}

void os_queue_make_request(struct os_queue *queue, os_make_request_fn fn) {
    checked(queue, "os_queue_make_request").make_request = fn;
}

void os_queue_set_unplug(struct os_queue *queue, os_unplug_fn fn) {
    checked(queue, "os_queue_set_unplug").unplug = fn;
}

void os_queue_set_data(struct os_queue *queue, void *data) {
    checked(queue, "os_queue_set_data").data = data;
}

void *os_queue_data(const struct os_queue *queue) {
    mem_check(Kind::kQueue, queue, "os_queue_data");
    return queue->data;
}

void os_queue_copy_limits(struct os_queue *to, const struct os_queue *from) {
    mem_check(Kind::kQueue, from, "os_queue_copy_limits");
    checked(to, "os_queue_copy_limits").discard = from->discard;
    to->zeroes = from->zeroes;
}

void os_queue_unplug(struct os_queue *queue) {
    if (!queue)
        return;
    checked(queue, "os_queue_unplug");
    if (queue->unplug)
        queue->unplug(queue);
    point();
}

int os_add_disk(struct os_disk *disk) {
    might_sleep("os_add_disk");
    os_disk &d = checked(disk, "os_add_disk");
    Kernel &k = kernel();
    if (!d.set_up || !d.queue || !d.queue->make_request)
        fail("os_add_disk: the disk lacks its set-up, its queue or the make-request function");
    if (d.visible || d.gone)
        fail("os_add_disk: %s was added before", d.name);
    os_dev_t dev = os_mkdev(d.major, d.first_minor);
    bool registered = false;
    for (const BlkMajor &entry : k.blk_majors)
        registered |= entry.major == d.major;
    if (!registered || k.nodes.count(dev))
        fail("os_add_disk: (%u, %u) is taken or its major is not registered", d.major,
             d.first_minor);
    point();
    if (fault(Fault::kOpen))
        return -ENOMEM;
    d.visible = true;
    k.nodes[dev] = disk;
    point();
    return 0;
}

void os_del_gendisk(struct os_disk *disk) {
    might_sleep("os_del_gendisk");
    os_disk &d = checked(disk, "os_del_gendisk");
    point();
    check_waits_for(kByOpen | kByRequest, "os_del_gendisk");
    if (!d.visible)
        fail("os_del_gendisk: %s was not added, or was taken away already", d.name);
    d.visible = false;
    d.gone = true;
    kernel().nodes.erase(os_mkdev(d.major, d.first_minor));
    point();
    if (kernel().rng.below(2) == 0)
        return;
    device_shut(d);
    while (d.queue->calls)
        wait_in(d.queue->idle, Wait::kRemoval, disk);
}

void os_cleanup_queue(struct os_queue *queue) {
    might_sleep("os_cleanup_queue");
    os_queue &q = checked(queue, "os_cleanup_queue");
    if (q.cleaned)
        fail("os_cleanup_queue: called twice");
    if (q.calls)
        fail("os_cleanup_queue: %u requests are in the make-request function", q.calls);
    if (q.disk && q.disk->visible)
        fail("os_cleanup_queue: disk %s is still visible", q.disk->name);
    q.cleaned = true;
    if (q.disk)
        mem_own(queue);  // goes with its disk
    else
        mem_free(Kind::kQueue, queue, "os_cleanup_queue");
    point();
}

void os_put_disk(struct os_disk *disk) {
    might_sleep("os_put_disk");
    os_disk &d = checked(disk, "os_put_disk");
    if (d.machine)
        fail("os_put_disk: a disk of the machine");
    if (d.visible)
        fail("os_put_disk: %s is still visible", d.name);
    os_queue *queue = d.queue;
    if (referred_to(disk)) {
        mem_own(disk);  // somebody still has the device open
        return;
    }
    if (queue && queue->cleaned)
        mem_free(Kind::kQueue, queue, "os_put_disk");
    else if (queue)
        queue->disk = nullptr;
    mem_free(Kind::kDisk, disk, "os_put_disk");
    point();
}

}  // extern "C"
