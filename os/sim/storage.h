// os/sim/storage.h: the machine's files and disks, which outlive a boot
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_STORAGE_H
#define TRAK_OS_SIM_STORAGE_H

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "os/sim/kernel.h"
#include "os/sim/pages.h"

namespace sim {

// The contents of a regular file between two truncations.
struct Contents {
    PageStore pages;
    std::uint64_t size = 0;
};

struct Inode {
    std::uint64_t ino = 0;
    std::uint32_t mode = 0;
    os_dev_t rdev = 0;
    std::string link;         // target of a symbolic link
    Inode *parent = nullptr;  // of a folder; null: the top
    std::map<std::string, std::shared_ptr<Inode>, std::less<>> entries;
    // The last one is what programs see; the others are what a lost truncation brings back.
    std::vector<std::shared_ptr<Contents>> contents;
    Mutex mutex;  // of a folder
    // The top of a file system.
    bool mounted = false;
    os_dev_t sb_dev = 0;
    bool read_only = false;
    bool limited = false;
    std::uint64_t free_bytes = 0;

    Contents &data() { return *contents.back(); }
    bool is(std::uint32_t type) const { return (mode & OS_S_IFMT) == type; }
};

inline constexpr std::uint32_t kFolder = 0040000;
inline constexpr std::uint32_t kSymlink = 0120000;

// What a lookup does with the last component: follow a symbolic link, take the link itself, or say
// which folder it is in and not care what it is.
enum class Last : std::uint8_t { kFollow, kTake, kParent };

// Where a path leads: the folder of its last component, the component, and what it names.
struct Found {
    int err = 0;  // 0 or a negative errno; then the rest does not count
    std::shared_ptr<Inode> folder;
    std::string name;              // "." and ".." stay; "/" for the top
    bool normal = true;            // the name is an ordinary one
    bool tail = false;             // a slash followed it
    std::shared_ptr<Inode> inode;  // null: no such entry
};

// Metadata that a power cut may still undo: what to do to take one step back.
struct Undo {
    enum Step : std::uint8_t { kMade, kRemoved, kTruncated, kSized } step;
    std::shared_ptr<Inode> folder;
    std::string name;
    std::shared_ptr<Inode> inode;
    std::shared_ptr<Contents> contents;
    std::uint64_t size = 0;
};

struct Storage::Impl {
    std::shared_ptr<Inode> top;
    std::uint64_t next_ino = 2;
    std::vector<Undo> journal;  // in order; committed by any sync
    std::map<os_dev_t, std::unique_ptr<Disk>> disks;
    std::map<std::string, std::array<int, static_cast<std::size_t>(Fault::kCount)>> failing;
    std::set<std::string> stopped;        // paths whose writes move nothing
    std::set<std::string> without_inode;  // paths whose lookup finds an entry and no inode

    std::shared_ptr<Inode> make(const std::shared_ptr<Inode> &folder, const std::string &name,
                                std::uint32_t mode, os_dev_t rdev);
    Found find(std::string_view path, Last last);
    int failing_path(const std::string &path, Fault kind) const;  // 0 or a negative errno
    Inode *file_system(const std::shared_ptr<Inode> &folder);     // top of the one it lies on
    void commit() { journal.clear(); }
    void undo_last();

    // For files: as the calls of os/file.h, without faults and points.
    int unlink(const Found &found);
    void truncate(const std::shared_ptr<Inode> &inode, Inode *fs);
    long write(const std::shared_ptr<Inode> &inode, Inode *fs, std::uint64_t offset,
               const void *from, std::size_t size, bool synced);
    void each_file(const std::function<void(Inode &)> &fn);
};

std::string trimmed(std::string path);  // without slashes at its end

}  // namespace sim

#endif
