// os/sim/device.cpp: opened block devices, and how requests reach them
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>

#include "os/sim/disk.h"
#include "os/sim/storage.h"

namespace sim {
namespace {

Disk *machine_disk(os_dev_t dev) {
    auto &disks = kernel().storage.impl->disks;
    auto at = disks.find(dev);
    return at == disks.end() ? nullptr : at->second.get();
}

// The os_disk of a disk of the machine, made at its first use in this boot.
os_disk *machine_os_disk(os_dev_t dev, Disk &machine) {
    os_disk *&disk = kernel().machine_disks[dev];
    if (disk)
        return disk;
    void *p = mem_alloc(Kind::kQueue, sizeof(os_queue), nullptr);
    mem_own(p);
    auto *queue = new (p) os_queue{};
    queue->discard = queue->zeroes = true;
    p = mem_alloc(Kind::kDisk, sizeof(os_disk), nullptr);
    mem_own(p);
    disk = new (p) os_disk{};
    disk->major = os_major(dev);
    disk->first_minor = os_minor(dev);
    disk->sectors = machine.impl->size >> OS_SECTOR_SHIFT;
    disk->machine = &machine;
    disk->queue = queue;
    disk->visible = true;
    queue->disk = disk;
    return disk;
}

os_disk *find_disk(os_dev_t dev) {
    auto &nodes = kernel().nodes;
    auto at = nodes.find(dev);
    if (at != nodes.end())
        return at->second;
    Disk *machine = machine_disk(dev);
    return machine ? machine_os_disk(dev, *machine) : nullptr;
}

os_bdev *pin(os_dev_t dev, os_disk *disk) {
    os_bdev *&bdev = kernel().bdevs[dev];
    if (!bdev) {
        void *p = mem_alloc(Kind::kBdev, sizeof(os_bdev), nullptr);
        mem_own(p);
        bdev = new (p) os_bdev{};
        bdev->dev = dev;
    }
    if (bdev->openers == 0)
        bdev->disk = disk;
    bdev->pins++;
    return bdev;
}

void unpin(os_bdev *bdev) {
    if (--bdev->pins || bdev->openers)
        return;
    kernel().bdevs.erase(bdev->dev);
    mem_free(Kind::kBdev, bdev, "the last close of a device");
}

int call_open(os_bdev *bdev, std::uint32_t mode) {
    const os_disk &disk = *bdev->disk;
    if (disk.gone)
        return -ENXIO;
    if ((mode & OS_FMODE_WRITE) && disk.read_only)
        return -EACCES;
    if (disk.machine || !disk.ops->open)
        return 0;
    const Depth before = depth_of(self());
    self().in_open++;
    int err = disk.ops->open(bdev, mode);
    self().in_open--;
    check_depth(self(), before, "the open operation of a disk returned");
    return err > 0 ? -EIO : err;
}

void call_release(const os_bdev &bdev, std::uint32_t mode) {
    const os_disk &disk = *bdev.disk;
    if (disk.machine || !disk.ops->release)
        return;
    const Depth before = depth_of(self());
    self().in_open++;
    (void)disk.ops->release(bdev.disk, mode);
    self().in_open--;
    check_depth(self(), before, "the release operation of a disk returned");
}

// 0, or what the block layer itself ends the bio with.
int check_request(const os_bio &bio) {
    const os_disk &disk = *bio.bdev->disk;
    if (disk.gone || disk.queue->cleaned)
        return -EIO;
    std::uint64_t count = bio.size >> OS_SECTOR_SHIFT;
    if (bio.size % OS_SECTOR_SIZE ||
        (count && (count > disk.sectors || bio.sector > disk.sectors - count)))
        return -EIO;
    if (disk.machine && bio.size) {
        std::uint32_t block = disk.machine->impl->block_size;
        if (bio.size % block || (bio.sector * OS_SECTOR_SIZE) % block)
            return -EIO;
    }
    if (((bio.rw & OS_BIO_DISCARD) && !disk.queue->discard) ||
        ((bio.rw & OS_BIO_ZEROES) && !disk.queue->zeroes))
        return -EOPNOTSUPP;
    return 0;
}

void start(os_bio *bio) {
    if (!bio->bdev)
        fail("a bio is submitted that names no device");
    mem_check(Kind::kBdev, bio->bdev, "submitting a bio");
    point();
    int err = check_request(*bio);
    bio->state = BioState::kWithDriver;
    if (err) {
        bio_end(bio, err);
        return;
    }
    os_disk *disk = bio->bdev->disk;
    if (disk->machine) {
        disk_take(*disk->machine, bio);
        return;
    }
    os_queue *queue = disk->queue;
    const Depth before = depth_of(self());
    if (bio->depth == kMaxStackedNodes)
        fail("a bio passes through more than %u nodes", kMaxStackedNodes);
    bio->entered[bio->depth++] = {disk, disk->turn};
    disk->under_way[disk->turn]++;
    queue->calls++;
    (void)queue->make_request(queue, bio);
    if (--queue->calls == 0)
        wake_all(queue->idle);
    check_depth(self(), before, "a make-request function returned");
}

// A request that is submitted inside a make-request function starts when that function is done, as
// the kernel does it so that stacked devices do not stack their frames.
void submit(os_bio *bio, const char *function) {
    might_sleep(function);
    bio_check(bio, function);
    if (bio->state == BioState::kEnded)
        fail("%s: the bio ended and was not readied again", function);
    if (bio->state == BioState::kWithDisk || bio->state == BioState::kQueued)
        fail("%s: the bio is under way already", function);
    os_task &task = self();
    if (task.in_make_request) {
        bio->state = BioState::kQueued;
        bio->next = nullptr;
        (task.bio_list ? task.bio_list_last->next : task.bio_list) = bio;
        task.bio_list_last = bio;
        return;
    }
    task.in_make_request = true;
    while (bio) {
        start(bio);
        bio = task.bio_list;
        if (bio)
            task.bio_list = bio->next;
    }
    task.in_make_request = false;
}

}  // namespace

os_bdev *device_open(os_dev_t dev, std::uint32_t mode, int *err) {
    point();
    os_disk *disk = find_disk(dev);
    *err = fault(Fault::kOpen) ? -EIO : (disk ? 0 : -ENXIO);
    if (*err)
        return nullptr;
    if (!disk->machine)
        check_waits_for(kByOpen, "opening a node");
    os_bdev *bdev = pin(dev, disk);
    mutex_lock(bdev->mutex, bdev);
    *err = call_open(bdev, mode);
    if (*err == 0)
        bdev->openers++;
    mutex_unlock(bdev->mutex);
    unpin(bdev);
    return *err ? nullptr : bdev;
}

void device_close(os_bdev *bdev, std::uint32_t mode) {
    mem_check(Kind::kBdev, bdev, "closing a device");
    bdev->pins++;
    if (!bdev->disk->machine)
        check_waits_for(kByOpen, "closing a node");
    mutex_lock(bdev->mutex, bdev);
    if (bdev->openers == 0)
        fail("a device is closed that is not open");
    bdev->openers--;
    call_release(*bdev, mode);
    mutex_unlock(bdev->mutex);
    unpin(bdev);
}

void device_shut(os_disk &disk) {
    auto &bdevs = kernel().bdevs;
    auto at = bdevs.find(os_mkdev(disk.major, disk.first_minor));
    if (at == bdevs.end() || at->second->disk != &disk)
        return;
    os_bdev *bdev = at->second;
    bdev->pins++;
    mutex_lock(bdev->mutex, bdev);
    mutex_unlock(bdev->mutex);
    unpin(bdev);
}

std::uint64_t device_size(const os_bdev &bdev) {
    return bdev.disk->machine ? bdev.disk->machine->impl->size
                              : bdev.disk->sectors * OS_SECTOR_SIZE;
}

std::string device_leaks() {
    Kernel &k = kernel();
    for (const auto &[dev, bdev] : k.bdevs)
        return format("device (%u, %u) is still open", os_major(dev), os_minor(dev));
    for (const auto &[dev, disk] : k.nodes)
        return format("disk %s (%u, %u) was not taken away", disk->name, os_major(dev),
                      os_minor(dev));
    if (k.supers)
        return format("%u references on super blocks were not dropped", k.supers);
    for (const auto &[dev, fs] : k.file_systems)
        if (fs.frozen)
            return format("the file system on (%u, %u) is still frozen", os_major(dev),
                          os_minor(dev));
    return "";
}

void device_drop_all() {
    Kernel &k = kernel();
    k.bdevs.clear();
    k.nodes.clear();
    k.machine_disks.clear();
}

}  // namespace sim

using namespace sim;

static const os_bdev &opened(const os_bdev *bdev, const char *function) {
    mem_check(Kind::kBdev, bdev, function);
    return *bdev;
}

extern "C" {

void os_generic_make_request(struct os_bio *bio) {
    submit(bio, "os_generic_make_request");
}

void os_submit_bio(uint32_t rw, struct os_bio *bio) {
    os_bio_set_rw(bio, rw);
    submit(bio, "os_submit_bio");
}

struct os_bdev *os_open_by_devnum(os_dev_t dev, uint32_t mode) {
    might_sleep("os_open_by_devnum");
    int err = 0;
    os_bdev *bdev = device_open(dev, mode, &err);
    return bdev ? bdev : static_cast<os_bdev *>(os_err_ptr(err));
}

void os_blkdev_put(struct os_bdev *bdev, uint32_t mode) {
    might_sleep("os_blkdev_put");
    device_close(bdev, mode);
}

os_dev_t os_bdev_dev(const struct os_bdev *bdev) {
    return opened(bdev, "os_bdev_dev").dev;
}

uint64_t os_bdev_size(const struct os_bdev *bdev) {
    return device_size(opened(bdev, "os_bdev_size"));
}

uint32_t os_bdev_block_size(const struct os_bdev *bdev) {
    const Disk *machine = opened(bdev, "os_bdev_block_size").disk->machine;
    return machine ? machine->impl->block_size : std::uint32_t{OS_SECTOR_SIZE};
}

uint32_t os_bdev_openers(const struct os_bdev *bdev) {
    const Disk *machine = opened(bdev, "os_bdev_openers").disk->machine;
    return bdev->openers + (machine ? machine->impl->other_openers : 0);
}

struct os_disk *os_bdev_disk(const struct os_bdev *bdev) {
    return opened(bdev, "os_bdev_disk").disk;
}

struct os_queue *os_bdev_queue(const struct os_bdev *bdev) {
    return opened(bdev, "os_bdev_queue").disk->queue;
}

int os_bdev_ioctl(struct os_bdev *bdev, uint32_t mode, uint32_t cmd, os_uaddr arg) {
    might_sleep("os_bdev_ioctl");
    const os_disk &disk = *opened(bdev, "os_bdev_ioctl").disk;
    point();
    if (disk.machine)
        return disk.machine->impl->ioctl ? disk.machine->impl->ioctl(mode, cmd, arg) : 0;
    return disk.ops->ioctl ? disk.ops->ioctl(bdev, mode, cmd, arg) : 0;
}

}  // extern "C"
