// os/sim/storage.cpp: a tree of folders and files as a journalling file system keeps it
// SPDX-License-Identifier: GPL-2.0-only
//
// Fault model of a power cut.
//
// Names and sizes (made, removed, truncated, grown) go through one journal, in order: the cut keeps a
// prefix of what was not committed and takes the rest back. Any fsync that succeeds, and any write to
// a file opened with O_SYNC, commits all of it.
//
// Data is written when the kernel pleases: each unsynced page is drawn for itself, as pages.cpp
// states, whether or not the size that made room for it was committed. So a file may come back with
// its new length and zeroes or old bytes inside. Data that was written after a truncation never shows
// in a file whose truncation was taken back: it went to other blocks.
//
// A failed write or sync leaves any part of its data written, durable or not.
#include "os/sim/storage.h"

#include <cstring>

namespace sim {
namespace {

constexpr int kMaxLinks = 40;
constexpr std::size_t kMaxPath = 4096, kMaxName = 255;

// One walk along a path.
struct Walk {
    Storage::Impl &storage;
    std::shared_ptr<Inode> folder;
    int links = 0;

    std::shared_ptr<Inode> parent_of(const std::shared_ptr<Inode> &at) {
        Inode *up = at->parent;
        if (!up || !up->parent)
            return storage.top;
        for (auto &[name, inode] : up->parent->entries)
            if (inode.get() == up)
                return inode;
        return storage.top;
    }
    Found go(std::string_view path, Last how);
    Found last(const std::string &name, bool tail, Last how);
};

Found error(int err) {
    Found found;
    found.err = err;
    return found;
}

Found Walk::last(const std::string &name, bool tail, Last how) {
    Found found;
    found.folder = folder;
    found.name = name;
    found.tail = tail;
    if (name == "." || name == "..") {
        found.normal = false;
        found.inode = name == "." ? folder : parent_of(folder);
        return found;
    }
    auto at = folder->entries.find(name);
    if (at == folder->entries.end())
        return found;
    found.inode = at->second;
    if (how == Last::kParent)
        return found;
    if (found.inode->is(kSymlink) && (how == Last::kFollow || tail)) {
        if (++links > kMaxLinks)
            return error(-40);  // ELOOP
        return go(found.inode->link, Last::kFollow);
    }
    if (tail && !found.inode->is(kFolder))
        return error(-ENOTDIR);
    return found;
}

Found Walk::go(std::string_view path, Last how) {
    if (!path.empty() && path[0] == '/')
        folder = storage.top;
    for (;;) {
        while (!path.empty() && path[0] == '/')
            path.remove_prefix(1);
        std::size_t slash = path.find('/');
        std::string name(path.substr(0, slash));
        path.remove_prefix(slash == path.npos ? path.size() : slash);
        bool tail = !path.empty();
        bool is_last = path.find_first_not_of('/') == path.npos;
        if (name.size() > kMaxName)
            return error(-36);  // ENAMETOOLONG
        if (!folder->is(kFolder))
            return error(-ENOTDIR);
        if (name.empty()) {
            Found found;
            found.folder = folder;
            found.name.assign(1, '/');
            found.normal = false;
            found.inode = folder;
            return found;
        }
        if (is_last)
            return last(name, tail, how);
        Found next = last(name, false, Last::kFollow);
        if (next.err)
            return next;
        if (!next.inode)
            return error(-ENOENT);
        if (!next.inode->is(kFolder))
            return error(-ENOTDIR);
        folder = next.inode;
    }
}

}  // namespace

std::string trimmed(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::shared_ptr<Inode> Storage::Impl::make(const std::shared_ptr<Inode> &folder,
                                           const std::string &name, std::uint32_t mode,
                                           os_dev_t rdev) {
    auto inode = std::make_shared<Inode>();
    inode->ino = next_ino++;
    inode->mode = mode;
    inode->rdev = rdev;
    inode->parent = folder.get();
    if (inode->is(OS_S_IFREG))
        inode->contents.push_back(std::make_shared<Contents>());
    folder->entries[name] = inode;
    journal.push_back({Undo::kMade, folder, name, inode, nullptr, 0});
    return inode;
}

Found Storage::Impl::find(std::string_view path, Last last) {
    if (path.empty())
        return error(-ENOENT);
    if (path[0] != '/')
        return error(-EINVAL);
    if (path.size() >= kMaxPath)
        return error(-36);  // ENAMETOOLONG
    return Walk{*this, top}.go(path, last);
}

int Storage::Impl::failing_path(const std::string &path, Fault kind) const {
    auto at = failing.find(trimmed(path));
    return at == failing.end() ? 0 : -at->second[static_cast<std::size_t>(kind)];
}

Inode *Storage::Impl::file_system(const std::shared_ptr<Inode> &folder) {
    for (Inode *at = folder.get(); at; at = at->parent)
        if (at->mounted)
            return at;
    return top.get();
}

void Storage::Impl::undo_last() {
    Undo undo = std::move(journal.back());
    journal.pop_back();
    switch (undo.step) {
    case Undo::kMade:
        undo.folder->entries.erase(undo.name);
        break;
    case Undo::kRemoved:
        undo.folder->entries[undo.name] = undo.inode;
        break;
    case Undo::kTruncated:
        undo.inode->contents.pop_back();
        break;
    case Undo::kSized:
        undo.contents->size = undo.size;
        break;
    }
}

int Storage::Impl::unlink(const Found &found) {
    if (!found.inode)
        return -ENOENT;
    if (found.inode->is(kFolder))
        return -EISDIR;
    Inode *fs = file_system(found.folder);
    if (fs->limited && found.inode->is(OS_S_IFREG))
        fs->free_bytes += found.inode->data().pages.page_count() * PageStore::kPage;
    journal.push_back({Undo::kRemoved, found.folder, found.name, found.inode, nullptr, 0});
    found.folder->entries.erase(found.name);
    return 0;
}

void Storage::Impl::truncate(const std::shared_ptr<Inode> &inode, Inode *fs) {
    if (inode->data().size == 0 && inode->data().pages.page_count() == 0)
        return;
    if (fs->limited)
        fs->free_bytes += inode->data().pages.page_count() * PageStore::kPage;
    journal.push_back({Undo::kTruncated, nullptr, "", inode, nullptr, 0});
    inode->contents.push_back(std::make_shared<Contents>());
}

// Takes the room for the pages that [offset, offset + size) lacks; returns how much of it fits.
static std::size_t take_room(Inode &inode, Inode *fs, std::uint64_t offset, std::size_t size) {
    if (!fs->limited)
        return size;
    std::uint64_t at = offset;
    while (at < offset + size) {
        if (!inode.data().pages.has_page(at)) {
            if (fs->free_bytes < PageStore::kPage)
                break;
            fs->free_bytes -= PageStore::kPage;
        }
        at = (at / PageStore::kPage + 1) * PageStore::kPage;
    }
    return static_cast<std::size_t>(std::min<std::uint64_t>(at, offset + size) - offset);
}

long Storage::Impl::write(const std::shared_ptr<Inode> &inode, Inode *fs, std::uint64_t offset,
                          const void *from, std::size_t size, bool synced) {
    std::size_t room = take_room(*inode, fs, offset, size);
    if (room == 0 && size != 0)
        return -ENOSPC;
    Contents &data = inode->data();
    data.pages.write(offset, from, room, false);
    if (offset + room > data.size) {
        journal.push_back({Undo::kSized, nullptr, "", inode, inode->contents.back(), data.size});
        data.size = offset + room;
    }
    if (synced && room) {
        data.pages.sync_range(offset, room);
        commit();
    }
    return static_cast<long>(room);
}

void Storage::Impl::each_file(const std::function<void(Inode &)> &fn) {
    std::vector<Inode *> folders = {top.get()};
    while (!folders.empty()) {
        Inode *folder = folders.back();
        folders.pop_back();
        for (auto &[name, inode] : folder->entries) {
            if (inode->is(kFolder))
                folders.push_back(inode.get());
            else if (inode->is(OS_S_IFREG))
                fn(*inode);
        }
    }
}

void storage_sync(Storage &storage) {
    storage.impl->commit();
    storage.impl->each_file([](Inode &inode) {
        inode.contents.erase(inode.contents.begin(), inode.contents.end() - 1);
        inode.data().pages.sync_all();
    });
}

void storage_power_cut(Storage &storage, Rng &rng) {
    Storage::Impl &s = *storage.impl;
    std::size_t keep =
        rng.one_in(3) ? (rng.one_in(2) ? 0 : s.journal.size()) : rng.below(s.journal.size() + 1);
    while (s.journal.size() > keep)
        s.undo_last();
    s.commit();
    s.each_file([&](Inode &inode) {
        inode.contents.erase(inode.contents.begin(), inode.contents.end() - 1);
        inode.data().pages.power_cut(rng);
        inode.data().pages.cut_tail(inode.data().size);
    });
}

}  // namespace sim
