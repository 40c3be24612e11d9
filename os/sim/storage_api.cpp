// os/sim/storage_api.cpp: the machine's files, as tests see and change them
// SPDX-License-Identifier: GPL-2.0-only
#include <algorithm>
#include <stdexcept>

#include "os/sim/disk.h"
#include "os/sim/storage.h"

namespace sim {
namespace {

[[noreturn]] void bad_path(const char *what, const std::string &path) {
    throw std::logic_error(std::string("sim::Storage::") + what + ": " + path);
}

std::shared_ptr<Inode> must_find(Storage::Impl &s, const char *what, const std::string &path) {
    Found found = s.find(path, Last::kFollow);
    if (found.err || !found.inode)
        bad_path(what, path);
    return found.inode;
}

// The folder that is to hold the last component, which must be an ordinary name.
Found must_find_place(Storage::Impl &s, const char *what, const std::string &path) {
    Found found = s.find(path, Last::kFollow);
    if (found.err || !found.normal)
        bad_path(what, path);
    return found;
}

Bytes contents_of(const Contents &data, std::uint64_t size) {
    Bytes bytes(static_cast<std::size_t>(size));
    data.pages.read(0, bytes.data(), bytes.size());
    return bytes;
}

}  // namespace

Storage::Storage() : impl(std::make_unique<Impl>()) {
    impl->top = std::make_shared<Inode>();
    impl->top->ino = 1;
    impl->top->mode = kFolder | 0755;
    impl->top->mounted = true;
    mkdir("/dev");
}

Storage::~Storage() = default;

Disk &Storage::add_disk(const std::string &name, os_dev_t dev, std::uint64_t size_bytes,
                        std::uint32_t block_size) {
    if (impl->disks.count(dev))
        throw std::logic_error("sim::Storage::add_disk: the device number is taken");
    chmod_special("/dev/" + name, OS_S_IFBLK | 0600, dev);
    auto disk = std::make_unique<Disk>();
    disk->impl->dev = dev;
    disk->impl->size = size_bytes;
    disk->impl->block_size = block_size;
    return *(impl->disks[dev] = std::move(disk));
}

Disk &Storage::disk(os_dev_t dev) {
    return *impl->disks.at(dev);
}

void Storage::mkdir(const std::string &path) {
    if (path.empty() || path[0] != '/')
        bad_path("mkdir", path);
    for (std::size_t at = 1; at <= path.size(); at++) {
        if (at < path.size() && path[at] != '/')
            continue;
        std::string part = trimmed(path.substr(0, at));
        Found found = impl->find(part, Last::kFollow);
        if (found.err)
            bad_path("mkdir", path);
        if (!found.inode)
            impl->make(found.folder, found.name, kFolder | 0755, 0);
    }
    impl->commit();
}

void Storage::write_file(const std::string &path, std::span<const std::uint8_t> bytes) {
    Found found = must_find_place(*impl, "write_file", path);
    if (!found.inode)
        found.inode = impl->make(found.folder, found.name, OS_S_IFREG | 0644, 0);
    if (!found.inode->is(OS_S_IFREG))
        bad_path("write_file", path);
    impl->commit();
    found.inode->contents.assign(1, std::make_shared<Contents>());
    Contents &data = found.inode->data();
    data.pages.write_durable(0, bytes.data(), bytes.size());
    data.size = bytes.size();
}

Bytes Storage::read_file(const std::string &path) {
    auto inode = must_find(*impl, "read_file", path);
    if (!inode->is(OS_S_IFREG))
        bad_path("read_file", path);
    return contents_of(inode->data(), inode->data().size);
}

Bytes Storage::read_file_durable(const std::string &path) {
    auto inode = must_find(*impl, "read_file_durable", path);
    if (!inode->is(OS_S_IFREG))
        bad_path("read_file_durable", path);
    std::size_t truncations = 0;
    for (const Undo &undo : impl->journal) {
        if (undo.inode == inode && undo.step == Undo::kMade)
            return {};
        truncations += undo.inode == inode && undo.step == Undo::kTruncated;
    }
    const auto &data = inode->contents[inode->contents.size() - 1 - truncations];
    std::uint64_t size = data->size;
    auto grown = std::find_if(impl->journal.begin(), impl->journal.end(), [&](const Undo &undo) {
        return undo.step == Undo::kSized && undo.contents == data;
    });
    if (grown != impl->journal.end())
        size = grown->size;
    Bytes bytes(static_cast<std::size_t>(size));
    data->pages.read_durable(0, bytes.data(), bytes.size());
    return bytes;
}

bool Storage::exists(const std::string &path) {
    Found found = impl->find(path, Last::kTake);
    return !found.err && found.inode;
}

void Storage::remove(const std::string &path) {
    Found found = impl->find(path, Last::kTake);
    if (found.err || !found.inode || !found.normal)
        bad_path("remove", path);
    if (found.inode->is(kFolder))
        found.folder->entries.erase(found.name);
    else
        impl->unlink(found);
    impl->commit();
}

void Storage::symlink(const std::string &target, const std::string &path) {
    Found found = impl->find(path, Last::kTake);
    if (found.err || !found.normal || found.inode)
        bad_path("symlink", path);
    impl->make(found.folder, found.name, kSymlink | 0777, 0)->link = target;
    impl->commit();
}

void Storage::chmod_special(const std::string &path, std::uint32_t mode_and_type, os_dev_t rdev) {
    Found found = must_find_place(*impl, "chmod_special", path);
    if (!found.inode)
        found.inode = impl->make(found.folder, found.name, mode_and_type, rdev);
    found.inode->mode = mode_and_type;
    found.inode->rdev = rdev;
    impl->commit();
}

void Storage::mount(const std::string &dir, os_dev_t dev) {
    auto inode = must_find(*impl, "mount", dir);
    if (!inode->is(kFolder))
        bad_path("mount", dir);
    inode->mounted = true;
    inode->sb_dev = dev;
}

void Storage::set_read_only(const std::string &dir, bool read_only) {
    auto inode = must_find(*impl, "set_read_only", dir);
    if (!inode->mounted)
        mount(dir, impl->file_system(inode)->sb_dev);
    inode->read_only = read_only;
}

void Storage::set_free_bytes(const std::string &dir, std::uint64_t bytes) {
    auto inode = must_find(*impl, "set_free_bytes", dir);
    if (!inode->mounted)
        mount(dir, impl->file_system(inode)->sb_dev);
    inode->limited = true;
    inode->free_bytes = bytes;
}

void Storage::fail_path(const std::string &path, Fault kind, int err) {
    impl->failing[trimmed(path)][static_cast<std::size_t>(kind)] = err < 0 ? -err : err;
}

void Storage::stop_writes(const std::string &path, bool stopped) {
    if (stopped)
        impl->stopped.insert(trimmed(path));
    else
        impl->stopped.erase(trimmed(path));
}

void Storage::hide_inode(const std::string &path, bool hidden) {
    if (hidden)
        impl->without_inode.insert(trimmed(path));
    else
        impl->without_inode.erase(trimmed(path));
}

}  // namespace sim
