// os/user/disk.cpp: block devices that the driver makes
// SPDX-License-Identifier: GPL-2.0-only
#include "os/disk.h"

#include <unistd.h>

#include <cstdlib>
#include <new>

#include "os/time.h"
#include "os/user/bio.h"
#include "os/user/device.h"
#include "os/user/mounts.h"
#include "os/user/task.h"

namespace user {

void get_queue(os_queue *queue) {
    queue->users.fetch_add(1);
}

void put_queue(os_queue *queue) {
    if (queue->users.fetch_sub(1) == 1)
        delete queue;
}

void get_disk(os_disk *disk) {
    disk->users.fetch_add(1);
}

void put_disk(os_disk *disk) {
    if (disk->users.fetch_sub(1) != 1)
        return;
    if (os_queue *queue = disk->queue.load())
        put_queue(queue);
    delete disk;
}

// "Block devices:" of /proc/devices, one "<major> <name>" a line. What cannot be read has none.
bool is_real_block_major(std::uint32_t major) {
    std::string text;
    if (!read_small_file("/proc/devices", &text))
        return false;
    std::size_t at = text.find("Block devices:");
    while (at != std::string::npos && (at = text.find('\n', at)) != std::string::npos) {
        at = text.find_first_not_of(" \n", at);
        if (at == std::string::npos)
            break;
        if (std::strtoul(text.c_str() + at, nullptr, 10) == major)
            return true;
    }
    return false;
}

namespace {

constexpr std::uint32_t kLastBlockMajor = 511;
constexpr useconds_t kDrainPollUs = 200;

// False: the deadline is over.
bool wait_a_little(std::uint64_t deadline) {
    if (os_jiffies() > deadline)
        return false;
    os_yield();
    usleep(kDrainPollUs);
    return true;
}

NodeInfo describe(os_dev_t dev, const os_disk *disk) {
    const os_queue *queue = disk->queue.load();
    return {dev,
            disk->name,
            disk->sectors.load() << OS_SECTOR_SHIFT,
            disk->read_only.load(),
            queue && queue->limits.load().discard,
            queue && queue->limits.load().zeroes};
}

void tell(os_dev_t dev, void (Listener::*what)(os_dev_t)) {
    Guard held(devices().listener_mutex);
    if (devices().listener)
        (devices().listener->*what)(dev);
}

}  // namespace

std::vector<NodeInfo> nodes() {
    Guard held(devices().mutex);
    std::vector<NodeInfo> list;
    for (const auto &[dev, disk] : devices().nodes)
        list.push_back(describe(dev, disk));
    return list;
}

int node_info(os_dev_t dev, NodeInfo *info) {
    Guard held(devices().mutex);
    auto found = devices().nodes.find(dev);
    if (found == devices().nodes.end())
        return -ENXIO;
    *info = describe(dev, found->second);
    return 0;
}

int enter_node(os_bio *bio, os_disk *disk) {
    Entry *entry = bio->entered == nullptr ? &bio->outermost : new (std::nothrow) Entry;
    if (entry == nullptr)
        return -ENOMEM;
    const unsigned turn = disk->turn.load();
    disk->under_way[turn].fetch_add(1);
    *entry = {disk, turn, bio->entered};
    bio->entered = entry;
    return 0;
}

void leave_nodes(os_bio *bio) {
    while (Entry *entry = bio->entered) {
        bio->entered = entry->outer;
        entry->disk->under_way[entry->turn].fetch_sub(1);
        if (entry != &bio->outermost)
            delete entry;
    }
}

void set_listener(Listener *listener) {
    Guard held(devices().listener_mutex);
    devices().listener = listener;
}

}  // namespace user

using user::devices;
using user::Guard;

extern "C" {

int os_register_blkdev(uint32_t major, const char *name) {
    if (major > user::kLastBlockMajor)
        return -EINVAL;
    uint32_t wanted = major ? major : 254;
    for (; wanted; wanted--) {
        bool real = user::is_real_block_major(wanted);
        Guard held(devices().mutex);
        if (!real && devices().majors.emplace(wanted, name).second)
            return major ? 0 : static_cast<int>(wanted);
        if (major)
            break;
    }
    return -EBUSY;
}

void os_unregister_blkdev(uint32_t major, const char *name) {
    Guard held(devices().mutex);
    auto found = devices().majors.find(major);
    if (found != devices().majors.end() && found->second == name)
        devices().majors.erase(found);
}

os_disk *os_alloc_disk(int) {
    return new (std::nothrow) os_disk;
}

os_queue *os_alloc_queue(os_gfp) {
    return new (std::nothrow) os_queue;
}

void os_disk_setup(os_disk *disk, uint32_t major, uint32_t first_minor, const char *name,
                   const os_block_device_operations *ops) {
    disk->major = major;
    disk->first_minor = first_minor;
    disk->name = name;
    disk->ops = ops;
}

void os_disk_set_capacity(os_disk *disk, uint64_t sectors) {
    disk->sectors = sectors;
}

void os_disk_set_queue(os_disk *disk, os_queue *queue) {
    if (queue)
        user::get_queue(queue);
    if (os_queue *before = disk->queue.exchange(queue))
        user::put_queue(before);
}

void os_disk_set_ro(os_disk *disk, int read_only) {
    disk->read_only = read_only != 0;
}

uint32_t os_disk_first_minor(const os_disk *disk) {
    return disk->first_minor;
}

os_queue *os_disk_queue(const os_disk *disk) {
    return disk->queue.load();
}

int os_disk_drain(os_disk *disk, uint64_t ticks) {
    user::might_sleep("os_disk_drain");
    const uint64_t deadline = os_jiffies() + ticks;
    while (disk->draining.exchange(true)) {
        if (!user::wait_a_little(deadline))
            return -EAGAIN;
    }
    // Twice: a request may have read the turn just before it changed, and count in the one that is over.
    bool in_time = true;
    for (int turns = 0; turns < 2 && in_time; turns++) {
        const unsigned before = disk->turn.fetch_xor(1);
        while (in_time && disk->under_way[before].load() != 0)
            in_time = user::wait_a_little(deadline);
    }
    disk->draining = false;
    return in_time ? 0 : -EAGAIN;
}

void os_queue_make_request(os_queue *queue, os_make_request_fn fn) {
    queue->make_request = fn;
}

void os_queue_set_unplug(os_queue *queue, os_unplug_fn fn) {
    queue->unplug = fn;
}

void os_queue_set_data(os_queue *queue, void *data) {
    queue->data = data;
}

void *os_queue_data(const os_queue *queue) {
    return queue->data;
}

void os_queue_copy_limits(os_queue *to, const os_queue *from) {
    to->limits = from->limits.load();
}

int os_add_disk(os_disk *disk) {
    os_dev_t dev = os_mkdev(disk->major, disk->first_minor);
    {
        Guard held(devices().mutex);
        if (!devices().nodes.emplace(dev, disk).second)
            return -EBUSY;
        disk->added = true;
    }
    user::tell(dev, &user::Listener::node_added);
    return 0;
}

void os_del_gendisk(os_disk *disk) {
    os_dev_t dev = os_mkdev(disk->major, disk->first_minor);
    {
        Guard held(devices().mutex);
        auto found = devices().nodes.find(dev);
        if (!disk->added || found == devices().nodes.end() || found->second != disk)
            return;
        disk->added = false;
        devices().nodes.erase(found);
    }
    user::tell(dev, &user::Listener::node_removed);
}

// An opener on its way may still ask the disk for its queue: the queue goes with the disk then.
void os_cleanup_queue(os_queue *queue) {
    user::put_queue(queue);
}

void os_put_disk(os_disk *disk) {
    user::put_disk(disk);
}

}  // extern "C"
