// daemon/tree.cpp: the names of the tree and what is behind each
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/tree.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "driver/module/params.h"

namespace trakd {

namespace {

constexpr Ino kRoot = 1;
constexpr Ino kDev = 2;
constexpr Ino kDevTrak = 3;
constexpr Ino kControl = 4;
constexpr Ino kLog = 5;
constexpr Ino kSession = 6;
constexpr Ino kProc = 7;
constexpr Ino kSys = 8;
constexpr Ino kModule = 9;
constexpr Ino kModuleTrak = 10;
constexpr Ino kParameters = 11;
constexpr Ino kNames = Ino{1} << 40;
constexpr Ino kProcs = Ino{1} << 41;

struct Fixed {
    Ino ino;
    Ino parent;
    const char *name;
    What what;
    std::uint32_t mode;
    const std::int32_t *value = nullptr;
};
constexpr Fixed kFixed[] = {
    {kRoot, 0, "", What::kDir, S_IFDIR | 0755},
    {kDev, kRoot, "dev", What::kDir, S_IFDIR | 0755},
    {kDevTrak, kDev, "trak", What::kDir, S_IFDIR | 0755},
    {kControl, kDev, "trakctl", What::kControl, S_IFREG | 0600},
    {kLog, kRoot, "log", What::kLog, S_IFREG | 0400},
    {kSession, kRoot, "session", What::kSession, S_IFREG | 0444},
    {kProc, kRoot, "proc", What::kDir, S_IFDIR | 0755},
    {kSys, kRoot, "sys", What::kDir, S_IFDIR | 0755},
    {kModule, kSys, "module", What::kDir, S_IFDIR | 0755},
    {kModuleTrak, kModule, "trak", What::kDir, S_IFDIR | 0755},
    {kParameters, kModuleTrak, "parameters", What::kDir, S_IFDIR | 0755},
    {12, kParameters, "trak_chr_major", What::kParameter, S_IFREG | 0444, &trak_chr_major},
    {13, kParameters, "trak_debug", What::kParameter, S_IFREG | 0444, &trak_debug},
    {14, kParameters, "trak_blk_major", What::kParameter, S_IFREG | 0444, &trak_blk_major},
    {15, kParameters, "trak_max_blk_minor", What::kParameter, S_IFREG | 0444, &trak_max_blk_minor},
};

Entry entry_of(const Fixed &fixed) {
    Entry entry;
    entry.ino = fixed.ino;
    entry.what = fixed.what;
    entry.name = fixed.name;
    entry.mode = fixed.mode;
    entry.value = fixed.value;
    return entry;
}

Entry entry_of(const user::ProcInfo &info, std::string path) {
    Entry entry;
    entry.ino = kProcs + info.ino;
    entry.what = S_ISDIR(info.mode) ? What::kDir : What::kProc;
    entry.name = info.name;
    entry.mode = info.mode;
    entry.path = std::move(path);
    return entry;
}

std::string below(const std::string &path, const std::string &name) {
    return path.empty() ? name : path + "/" + name;
}

}  // namespace

Tree::Tree() : born_(std::time(nullptr)), next_name_(kNames) {}

int Tree::lookup(Ino parent, const std::string &name, Entry *entry) {
    for (const Fixed &fixed : kFixed) {
        if (fixed.parent == parent && name == fixed.name) {
            *entry = entry_of(fixed);
            return 0;
        }
    }
    if (parent == kDevTrak) {
        return find_node(name, entry);
    }
    if (parent == kProc) {
        return proc_entry(name, entry);
    }
    Entry dir;
    if (const int rc = get(parent, &dir); rc != 0) {
        return rc;
    }
    if (!S_ISDIR(dir.mode)) {
        return -ENOTDIR;
    }
    return dir.path.empty() ? -ENOENT : proc_entry(below(dir.path, name), entry);
}

int Tree::get(Ino ino, Entry *entry) {
    for (const Fixed &fixed : kFixed) {
        if (fixed.ino == ino) {
            *entry = entry_of(fixed);
            return 0;
        }
    }
    for (const NodeName &name : names()) {
        if (name.ino == ino) {
            return node_entry(name, entry);
        }
    }
    std::string path;
    {
        const std::lock_guard lock(mutex_);
        const auto found = proc_.find(ino);
        if (found == proc_.end()) {
            return -ENOENT;
        }
        path = found->second.path;
    }
    const int rc = proc_entry(path, entry);
    return rc == 0 && entry->ino != ino ? -ENOENT : rc;
}

int Tree::list(Ino dir, std::vector<Entry> *entries) {
    Entry self;
    if (const int rc = get(dir, &self); rc != 0) {
        return rc;
    }
    for (const Fixed &fixed : kFixed) {
        if (fixed.parent == dir) {
            entries->push_back(entry_of(fixed));
        }
    }
    if (dir == kDevTrak) {
        for (const NodeName &name : names()) {
            Entry entry;
            if (node_entry(name, &entry) == 0) {
                entries->push_back(std::move(entry));
            }
        }
        return 0;
    }
    return dir == kProc || !self.path.empty() ? list_proc(self.path, entries) : 0;
}

void Tree::stat(const Entry &entry, struct stat *st) const {
    *st = {};
    st->st_ino = entry.ino;
    st->st_mode = entry.mode;
    st->st_nlink = S_ISDIR(entry.mode) ? 2 : 1;
    st->st_uid = geteuid();
    st->st_gid = getegid();
    st->st_size = static_cast<off_t>(entry.size);
    st->st_blksize = 4096;
    st->st_blocks = static_cast<blkcnt_t>(entry.size / 512);
    st->st_atime = st->st_mtime = st->st_ctime = born_;
}

void Tree::remember(const Entry &entry) {
    if (entry.ino < kProcs) {
        return;
    }
    const std::lock_guard lock(mutex_);
    ProcRef &ref = proc_.try_emplace(entry.ino, ProcRef{entry.path, 0}).first->second;
    ++ref.count;
}

void Tree::forget(Ino ino, std::uint64_t count) {
    const std::lock_guard lock(mutex_);
    const auto found = proc_.find(ino);
    if (found == proc_.end()) {
        return;
    }
    if (found->second.count > count) {
        found->second.count -= count;
    } else {
        proc_.erase(found);
    }
}

void Tree::name_added(const user::DevName &name) {
    const std::lock_guard lock(mutex_);
    names_.push_back({next_name_++, name});
}

void Tree::name_removed(const user::DevName &name) {
    const std::lock_guard lock(mutex_);
    std::erase_if(names_, [&name](const NodeName &known) { return known.name.name == name.name; });
}

// A copy: the platform is asked about nodes without the lock, which its listener calls take inside
// its own.
std::vector<Tree::NodeName> Tree::names() {
    const std::lock_guard lock(mutex_);
    return names_;
}

// A name whose node is gone, or not made yet, is not shown.
int Tree::node_entry(const NodeName &name, Entry *entry) const {
    user::NodeInfo info;
    if (user::node_info(name.name.dev, &info) != 0) {
        return -ENOENT;
    }
    entry->ino = name.ino;
    entry->what = What::kNode;
    entry->name = name.name.name;
    entry->mode = S_IFREG | (info.read_only ? 0400U : 0600U);
    entry->size = info.size & ~std::uint64_t{511};
    entry->dev = info.dev;
    return 0;
}

int Tree::find_node(const std::string &name, Entry *entry) {
    for (const NodeName &known : names()) {
        if (known.name.name == name) {
            return node_entry(known, entry);
        }
    }
    return -ENOENT;
}

int Tree::proc_entry(const std::string &path, Entry *entry) const {
    user::ProcInfo info;
    if (const int rc = user::proc_stat(path, &info); rc != 0) {
        return rc;
    }
    *entry = entry_of(info, path);
    return 0;
}

int Tree::list_proc(const std::string &path, std::vector<Entry> *entries) const {
    std::vector<user::ProcInfo> infos;
    if (const int rc = user::proc_list(path, &infos); rc != 0) {
        return rc;
    }
    for (const user::ProcInfo &info : infos) {
        entries->push_back(entry_of(info, below(path, info.name)));
    }
    return 0;
}

}  // namespace trakd
