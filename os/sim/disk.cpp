// os/sim/disk.cpp: disks of the machine
// SPDX-License-Identifier: GPL-2.0-only
//
// A disk takes any number of requests and serves them in any order, each at one moment between its
// submission and its end; the data moves then, and the end comes as an interrupt.
//
// Fault model.
// Cache      a write goes to the disk's volatile cache. A flush (OS_BIO_FLUSH) makes durable whatever
//            was served before the flush is; OS_BIO_FUA makes its own data durable. pages.cpp says
//            what a power cut leaves of the rest.
// Under way  a request that was not served when the power goes may have been carried out in part.
// Errors     a failed write leaves any of its sectors written; a failed read fills any first part of
//            its pages; a failed flush makes any part of the cache durable.
// Afterwards a bio that a disk ended has lost what it asked for: its size is 0, its sector and index
//            have moved on.
#include "os/sim/disk.h"

#include <algorithm>
#include <cstring>

#include "os/sim/page.h"
#include "os/sim/storage.h"

namespace sim {
namespace {

bool touches_bad_sector(const Disk::Impl &disk, const os_bio &bio) {
    if (bio.size == 0)
        return false;
    std::uint64_t last = bio.sector + (bio.size >> OS_SECTOR_SHIFT) - 1;
    bool writes = bio.rw & OS_BIO_WRITE;
    for (const BadSectors &bad : disk.bad)
        if (bad.writes == writes && bio.sector <= bad.last && last >= bad.first)
            return true;
    return false;
}

bool has_pages(const os_bio &bio) {
    return !(bio.rw & (OS_BIO_DISCARD | OS_BIO_ZEROES));
}

// Calls fn(offset on the disk, memory, length) for each piece from idx on, within the bio's size.
template <typename Fn> void each_piece(const os_bio &bio, Fn fn) {
    std::uint64_t offset = bio.sector * OS_SECTOR_SIZE;
    std::uint32_t left = bio.size;
    for (std::uint32_t i = bio.idx; i < bio.vcnt && left; i++) {
        const os_bio_vec &vec = bio.vecs[i];
        page_check(vec.page, "a disk");
        std::uint32_t n = std::min(vec.len, left);
        fn(offset, page_data(vec.page) + vec.offset, n);
        offset += n;
        left -= n;
    }
}

void write_all(Disk::Impl &disk, const os_bio &bio, bool pinned) {
    if (!has_pages(bio)) {
        disk.pages.zero(bio.sector * OS_SECTOR_SIZE, bio.size, pinned);
        return;
    }
    each_piece(bio, [&](std::uint64_t offset, const std::uint8_t *bytes, std::uint32_t n) {
        disk.pages.write(offset, bytes, n, pinned);
    });
}

// Any of its sectors, each for itself.
void write_some(Disk::Impl &disk, const os_bio &bio, Rng &rng) {
    std::uint64_t parts = 1 + rng.below(3);
    each_piece(bio, [&](std::uint64_t offset, const std::uint8_t *bytes, std::uint32_t n) {
        for (std::uint32_t at = 0; at < n;) {
            auto part = static_cast<std::uint32_t>(
                std::min<std::uint64_t>(n - at, OS_SECTOR_SIZE - (offset + at) % OS_SECTOR_SIZE));
            if (rng.below(4) < parts)
                disk.pages.write(offset + at, bytes + at, part, false);
            at += part;
        }
    });
}

void read_pages(const Disk::Impl &disk, const os_bio &bio, std::uint64_t limit) {
    each_piece(bio, [&](std::uint64_t offset, std::uint8_t *bytes, std::uint32_t n) {
        std::uint64_t done = offset - bio.sector * OS_SECTOR_SIZE;
        if (done < limit)
            disk.pages.read(offset, bytes,
                            static_cast<std::size_t>(std::min<std::uint64_t>(n, limit - done)));
    });
}

int serve(Disk::Impl &disk, os_bio &bio) {
    Rng &rng = kernel().rng;
    int err = touches_bad_sector(disk, bio) ? -EIO : bio.fault;
    if (bio.rw & OS_BIO_FLUSH) {
        if (err && bio.size == 0) {
            disk.pages.sync_some(rng);
            return err;
        }
        disk.pages.sync_all();
        disk.flushes++;
    }
    if (bio.rw & OS_BIO_WRITE) {
        if (err)
            write_some(disk, bio, rng);
        else
            write_all(disk, bio, bio.rw & OS_BIO_FUA);
    } else if (bio.size) {
        read_pages(disk, bio, err ? rng.below(bio.size) : bio.size);
    }
    return err;
}

Fault fault_kind(const os_bio &bio) {
    if ((bio.rw & OS_BIO_FLUSH) && bio.size == 0)
        return Fault::kFlush;
    return bio.rw & OS_BIO_WRITE ? Fault::kWrite : Fault::kRead;
}

void remove_first(std::vector<os_bio *> &list, std::size_t at) {
    list[at] = list.back();
    list.pop_back();
}

}  // namespace

void disk_take(Disk &disk, os_bio *bio) {
    Kernel &k = kernel();
    bio->fault = fault(fault_kind(*bio)) ? -EIO : 0;
    bio->state = BioState::kWithDisk;
    bio->disk = &disk;
    (disk.impl->held ? k.held : k.pending).push_back(bio);
    point();
}

bool irq_deliver() {
    Kernel &k = kernel();
    if (k.pending.empty())
        return false;
    std::size_t at = k.pending.size() == 1 ? 0 : k.rng.below(k.pending.size());
    os_bio *bio = k.pending[at];
    remove_first(k.pending, at);
    k.progress++;
    os_task &task = *k.current;
    bool marked = task.marked;
    task.in_irq = true;
    task.irq_held_base = task.held_count;
    int err = serve(*bio->disk->impl, *bio);
    if (err == 0 || k.rng.one_in(2)) {
        bio->sector += bio->size >> OS_SECTOR_SHIFT;
        bio->size = 0;
        bio->idx = static_cast<std::uint16_t>(bio->vcnt);
    }
    bio_end(bio, err);
    if (task.held_count != task.irq_held_base)
        fail("an interrupt ended with lock %s held or released",
             task.held_count ? task.held[task.held_count - 1].cls->name : "?");
    if (task.marked && !marked)
        fail("an interrupt marked the task that it interrupted as sleeping");
    task.in_irq = false;
    return true;
}

void disks_power_cut() {
    Kernel &k = kernel();
    for (auto *list : {&k.pending, &k.held}) {
        for (os_bio *bio : *list)
            if ((bio->rw & OS_BIO_WRITE) && has_pages(*bio) && k.rng.one_in(2))
                write_some(*bio->disk->impl, *bio, k.rng);
        list->clear();
    }
    for (auto &[dev, disk] : k.storage.impl->disks)
        disk->impl->pages.power_cut(k.rng);
}

void disks_sync(Storage &storage) {
    for (auto &[dev, disk] : storage.impl->disks)
        disk->impl->pages.sync_all();
}

// ---- as tests see a disk

Disk::Disk() : impl(std::make_unique<Impl>()) {}
Disk::~Disk() = default;

Bytes Disk::read(std::uint64_t offset, std::size_t size) const {
    Bytes bytes(size);
    impl->pages.read(offset, bytes.data(), size);
    return bytes;
}

void Disk::write(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    impl->pages.write_durable(offset, bytes.data(), bytes.size());
}

std::uint64_t Disk::size() const {
    return impl->size;
}

void Disk::fail_sectors(std::uint64_t first, std::uint64_t last, bool writes) {
    impl->bad.push_back({first, last, writes});
}

void Disk::heal() {
    impl->bad.clear();
}

void Disk::hold(bool held) {
    impl->held = held;
    if (!g_kernel)
        return;
    Kernel &k = kernel();
    auto &from = held ? k.pending : k.held;
    auto &to = held ? k.held : k.pending;
    for (std::size_t i = 0; i < from.size();) {
        if (from[i]->disk != this) {
            i++;
            continue;
        }
        to.push_back(from[i]);
        from.erase(from.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

std::uint64_t Disk::flush_count() const {
    return impl->flushes;
}

void Disk::set_mounted(bool mounted) {
    impl->mounted = mounted;
}

void Disk::set_openers(unsigned others) {
    impl->other_openers = others;
}

void Disk::set_ioctl(
    std::function<int(std::uint32_t mode, std::uint32_t cmd, os_uaddr arg)> operation) {
    impl->ioctl = std::move(operation);
}

}  // namespace sim
