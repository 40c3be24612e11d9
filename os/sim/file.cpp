// os/sim/file.cpp: files and paths from kernel context
// SPDX-License-Identifier: GPL-2.0-only
#include "os/file.h"

#include <algorithm>
#include <deque>

#include "os/sim/storage.h"

// Handles are tracked memory; what they refer to is owned through a shared pointer that the handle's
// memory holds and that is let go with it. What a boot that ended in the middle leaves is reclaimed
// by handles_drop_all.
struct os_file {
    sim::Inode *inode;
    int flags;
    unsigned slot;
};
struct os_dentry {
    sim::Inode *inode;  // null: negative
    unsigned slot;
};
struct os_parent {
    unsigned slot;
    bool locked;
};

namespace sim {
namespace {

constexpr int kBadFile = -9;  // EBADF

// What a handle refers to.
struct Slot {
    bool used = false;
    std::string path;
    Found found;
};
std::deque<Slot> g_slots;  // its elements stay where they are
std::vector<unsigned> g_free_slots;

unsigned take_slot(const std::string &path, Found found) {
    if (g_free_slots.empty()) {
        g_free_slots.push_back(static_cast<unsigned>(g_slots.size()));
        g_slots.emplace_back();
    }
    unsigned slot = g_free_slots.back();
    g_free_slots.pop_back();
    g_slots[slot] = {true, path, std::move(found)};
    return slot;
}

void give_slot(unsigned slot) {
    g_slots[slot] = {};
    g_free_slots.push_back(slot);
}

Storage::Impl &files() {
    return *kernel().storage.impl;
}

// One call on a path: a point, then the faults. 0 or a negative errno.
int begin(const char *function, const std::string &path, Fault kind) {
    might_sleep(function);
    point();
    touch_host(path, kind);
    if (int err = files().failing_path(path, kind))
        return err;
    return fault(kind) ? -EIO : 0;
}

int check_open(const Found &found, int flags, Inode *fs) {
    bool writes = (flags & OS_O_ACCMODE) != OS_O_RDONLY;
    if (!found.inode)
        return !(flags & OS_O_CREAT) ? -ENOENT : found.tail ? -EISDIR : fs->read_only ? -EROFS : 0;
    if (found.inode->is(kFolder))
        return writes || (flags & (OS_O_CREAT | OS_O_TRUNC)) ? -EISDIR : 0;
    if (!found.inode->is(OS_S_IFREG))
        return -ENXIO;  // opening devices by name is nothing that the driver does
    return (writes || (flags & OS_O_TRUNC)) && fs->read_only ? -EROFS : 0;
}

Slot &slot_of(const os_file *file, const char *function) {
    mem_check(Kind::kFile, file, function);
    return g_slots[file->slot];
}

std::size_t transfer_size(std::size_t count) {
    Kernel &k = kernel();
    if (k.options.short_transfers && count > 1 && k.rng.one_in(4))
        return 1 + static_cast<std::size_t>(k.rng.below(count - 1));
    return count;
}

// A write that fails may have changed any first part of its range.
void write_some(const Slot &slot, std::uint64_t offset, const void *buf, std::size_t count) {
    std::size_t some = static_cast<std::size_t>(kernel().rng.below(count + 1));
    if (some)
        (void)files().write(slot.found.inode, files().file_system(slot.found.folder), offset, buf,
                            some, false);
}

}  // namespace

void handles_drop_all() {
    for (unsigned i = 0; i < g_slots.size(); i++)
        if (g_slots[i].used)
            give_slot(i);
}

}  // namespace sim

using namespace sim;

extern "C" {

struct os_file *os_filp_open(const char *path, int flags, int mode) {
    int err = begin("os_filp_open", path, Fault::kOpen);
    if (err)
        return static_cast<os_file *>(os_err_ptr(err));
    Found found = files().find(path, Last::kFollow);
    // Whoever makes a name holds the folder's inode mutex.
    std::shared_ptr<Inode> folder;
    if (!found.err && !found.inode && (flags & OS_O_CREAT)) {
        folder = found.folder;
        mutex_lock(folder->mutex, folder.get());
        found = files().find(path, Last::kFollow);
    }
    err = found.err;
    Inode *fs = err ? nullptr : files().file_system(found.folder);
    if (!err)
        err = check_open(found, flags, fs);
    if (!err && !found.inode)
        found.inode = files().make(found.folder, found.name,
                                   OS_S_IFREG | (static_cast<unsigned>(mode) & 07777), 0);
    else if (!err && (flags & OS_O_TRUNC))
        files().truncate(found.inode, fs);
    if (folder)
        mutex_unlock(folder->mutex);
    if (err)
        return static_cast<os_file *>(os_err_ptr(err));
    void *p = mem_alloc(Kind::kFile, sizeof(os_file), __builtin_return_address(0));
    Inode *inode = found.inode.get();
    auto *file = new (p) os_file{inode, flags, take_slot(trimmed(path), std::move(found))};
    point();
    return file;
}

int os_filp_close(struct os_file *file) {
    might_sleep("os_filp_close");
    mem_check(Kind::kFile, file, "os_filp_close");
    give_slot(file->slot);
    mem_free(Kind::kFile, file, "os_filp_close");
    point();
    return 0;
}

long os_vfs_read(struct os_file *file, void *buf, size_t count, int64_t *pos) {
    Slot &slot = slot_of(file, "os_vfs_read");
    int err = begin("os_vfs_read", slot.path, Fault::kRead);
    if (file->inode->is(kFolder))
        return -EISDIR;
    if ((file->flags & OS_O_ACCMODE) == OS_O_WRONLY)
        return kBadFile;
    if (err)
        return err;
    if (*pos < 0)
        return -EINVAL;
    const Contents &data = file->inode->data();
    auto offset = static_cast<std::uint64_t>(*pos);
    if (offset >= data.size)
        return 0;
    count = transfer_size(std::min<std::uint64_t>(count, data.size - offset));
    data.pages.read(offset, buf, count);
    *pos += static_cast<int64_t>(count);
    point();
    return static_cast<long>(count);
}

long os_vfs_write(struct os_file *file, const void *buf, size_t count, int64_t *pos) {
    Slot &slot = slot_of(file, "os_vfs_write");
    int err = begin("os_vfs_write", slot.path, Fault::kWrite);
    if ((file->flags & OS_O_ACCMODE) == OS_O_RDONLY)
        return kBadFile;
    if (*pos < 0)
        return -EINVAL;
    auto offset = static_cast<std::uint64_t>(*pos);
    if (err) {
        write_some(slot, offset, buf, count);
        return err;
    }
    if (files().stopped.count(slot.path))
        return 0;
    bool synced = (file->flags & OS_O_SYNC) == OS_O_SYNC;
    Inode *fs = files().file_system(slot.found.folder);
    count = transfer_size(count);
    // In the cache first: a power cut between here and the end finds it volatile.
    long done = files().write(slot.found.inode, fs, offset, buf, count, false);
    point();
    if (done > 0 && synced) {
        file->inode->data().pages.sync_range(offset, static_cast<std::uint64_t>(done));
        files().commit();
    }
    if (done > 0)
        *pos += done;
    point();
    return done;
}

int os_vfs_fsync(struct os_file *file) {
    Slot &slot = slot_of(file, "os_vfs_fsync");
    int err = begin("os_vfs_fsync", slot.path, Fault::kFlush);
    if (!file->inode->is(OS_S_IFREG))
        return err;
    if (err) {
        file->inode->data().pages.sync_some(kernel().rng);
        if (kernel().rng.one_in(2))
            files().commit();
        return err;
    }
    file->inode->data().pages.sync_all();
    files().commit();
    point();
    return 0;
}

int64_t os_file_size(struct os_file *file) {
    slot_of(file, "os_file_size");
    return file->inode->is(OS_S_IFREG) ? static_cast<int64_t>(file->inode->data().size) : 0;
}

struct os_dentry *os_path_lookup(const char *path, int follow) {
    int err = begin("os_path_lookup", path, Fault::kOpen);
    Found found;
    if (!err) {
        found = files().find(path, follow ? Last::kFollow : Last::kTake);
        err = found.err ? found.err : (found.inode ? 0 : -ENOENT);
    }
    if (err)
        return static_cast<os_dentry *>(os_err_ptr(err));
    if (files().without_inode.count(trimmed(path)))
        return nullptr;
    void *p = mem_alloc(Kind::kDentry, sizeof(os_dentry), __builtin_return_address(0));
    Inode *inode = found.inode.get();
    auto *dentry = new (p) os_dentry{inode, take_slot(path, std::move(found))};
    point();
    return dentry;
}

void os_dput(struct os_dentry *dentry) {
    might_sleep("os_dput");
    mem_check(Kind::kDentry, dentry, "os_dput");
    give_slot(dentry->slot);
    mem_free(Kind::kDentry, dentry, "os_dput");
}

bool os_dentry_positive(const struct os_dentry *dentry) {
    mem_check(Kind::kDentry, dentry, "os_dentry_positive");
    return dentry->inode != nullptr;
}

const char *os_dentry_name(const struct os_dentry *dentry) {
    mem_check(Kind::kDentry, dentry, "os_dentry_name");
    return g_slots[dentry->slot].found.name.c_str();
}

static const Inode &inode_of(const os_dentry *dentry, const char *function) {
    mem_check(Kind::kDentry, dentry, function);
    if (!dentry->inode)
        fail("%s: the entry has no inode", function);
    return *dentry->inode;
}

uint32_t os_dentry_mode(const struct os_dentry *dentry) {
    return inode_of(dentry, "os_dentry_mode").mode;
}

const void *os_dentry_inode(const struct os_dentry *dentry) {
    return &inode_of(dentry, "os_dentry_inode");
}

uint64_t os_dentry_ino(const struct os_dentry *dentry) {
    return inode_of(dentry, "os_dentry_ino").ino;
}

os_dev_t os_dentry_rdev(const struct os_dentry *dentry) {
    return inode_of(dentry, "os_dentry_rdev").rdev;
}

os_dev_t os_dentry_sb_dev(const struct os_dentry *dentry) {
    inode_of(dentry, "os_dentry_sb_dev");
    const Found &found = g_slots[dentry->slot].found;
    return files().file_system(found.inode->is(kFolder) ? found.inode : found.folder)->sb_dev;
}

struct os_parent *os_path_parent(const char *path) {
    int err = begin("os_path_parent", path, Fault::kOpen);
    Found found;
    if (!err) {
        found = files().find(path, Last::kParent);
        err = found.err;
    }
    if (err)
        return static_cast<os_parent *>(os_err_ptr(err));
    void *p = mem_alloc(Kind::kParent, sizeof(os_parent), __builtin_return_address(0));
    return new (p) os_parent{take_slot(trimmed(path), std::move(found)), false};
}

void os_parent_put(struct os_parent *parent) {
    might_sleep("os_parent_put");
    mem_check(Kind::kParent, parent, "os_parent_put");
    if (parent->locked)
        fail("os_parent_put: the folder is still locked");
    give_slot(parent->slot);
    mem_free(Kind::kParent, parent, "os_parent_put");
}

void os_parent_lock(struct os_parent *parent) {
    might_sleep("os_parent_lock");
    mem_check(Kind::kParent, parent, "os_parent_lock");
    Inode *folder = g_slots[parent->slot].found.folder.get();
    mutex_lock(folder->mutex, folder);
    parent->locked = true;
}

void os_parent_unlock(struct os_parent *parent) {
    mem_check(Kind::kParent, parent, "os_parent_unlock");
    if (!parent->locked)
        fail("os_parent_unlock: the folder is not locked");
    parent->locked = false;
    mutex_unlock(g_slots[parent->slot].found.folder->mutex);
}

bool os_parent_last_is_normal(const struct os_parent *parent) {
    mem_check(Kind::kParent, parent, "os_parent_last_is_normal");
    return g_slots[parent->slot].found.normal;
}

bool os_parent_last_has_tail(const struct os_parent *parent) {
    mem_check(Kind::kParent, parent, "os_parent_last_has_tail");
    return g_slots[parent->slot].found.tail;
}

static void check_locked(const os_parent *parent, const char *function) {
    might_sleep(function);
    mem_check(Kind::kParent, parent, function);
    if (!parent->locked)
        fail("%s: the parent folder is not locked", function);
}

struct os_dentry *os_lookup_hash(struct os_parent *parent) {
    check_locked(parent, "os_lookup_hash");
    const Slot &slot = g_slots[parent->slot];
    int err = begin("os_lookup_hash", slot.path, Fault::kOpen);
    if (err)
        return static_cast<os_dentry *>(os_err_ptr(err));
    // Again: the folder may have changed since the parent was looked up.
    Found found = slot.found;
    if (found.normal) {
        auto at = found.folder->entries.find(found.name);
        found.inode = at == found.folder->entries.end() ? nullptr : at->second;
    }
    void *p = mem_alloc(Kind::kDentry, sizeof(os_dentry), __builtin_return_address(0));
    Inode *inode = found.inode.get();
    return new (p) os_dentry{inode, take_slot(slot.path, std::move(found))};
}

int os_vfs_unlink(struct os_parent *parent, struct os_dentry *dentry) {
    check_locked(parent, "os_vfs_unlink");
    mem_check(Kind::kDentry, dentry, "os_vfs_unlink");
    if (!dentry->inode)
        return -ENOENT;
    int err = begin("os_vfs_unlink", g_slots[dentry->slot].path, Fault::kOpen);
    if (err)
        return err;
    const Found &found = g_slots[dentry->slot].found;
    if (files().file_system(found.folder)->read_only)
        return -EROFS;
    err = files().unlink(found);
    point();
    return err;
}

int os_vfs_mknod(struct os_parent *parent, struct os_dentry *dentry, uint32_t mode, os_dev_t dev) {
    check_locked(parent, "os_vfs_mknod");
    mem_check(Kind::kDentry, dentry, "os_vfs_mknod");
    if (dentry->inode)
        return -EEXIST;
    int err = begin("os_vfs_mknod", g_slots[dentry->slot].path, Fault::kOpen);
    if (err)
        return err;
    Found &found = g_slots[dentry->slot].found;
    if (files().file_system(found.folder)->read_only)
        return -EROFS;
    found.inode = files().make(found.folder, found.name, mode, dev);
    dentry->inode = found.inode.get();
    point();
    return 0;
}

}  // extern "C"
