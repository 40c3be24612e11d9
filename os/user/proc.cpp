// os/user/proc.cpp: the tree of small text files
// SPDX-License-Identifier: GPL-2.0-only
//
// One mutex guards the tree; it is not held while a callback of the driver runs. An entry counts those
// that run, and is removed from the tree first and freed once none does.
#include "os/proc.h"

#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "os/user/internal.h"
#include "os/user/sync.h"
#include "os/user/task.h"

namespace user {

struct ProcOps {
    os_proc_read_fn read = nullptr;
    os_proc_write_fn write = nullptr;
    void *data = nullptr;
};

}  // namespace user

struct os_proc_entry {
    std::string name;
    std::uint32_t mode = 0;
    std::uint64_t ino = 0;
    os_proc_entry *parent = nullptr;  // null at the top
    std::vector<os_proc_entry *> children;
    user::ProcOps ops;
    unsigned running = 0;  // callbacks
};

namespace user {

namespace {

struct Tree {
    Mutex mutex;
    Condition idle;
    os_proc_entry top USER_GUARDED_BY(mutex);
    std::uint64_t last_ino USER_GUARDED_BY(mutex) = 1;
};

Tree &tree() {
    static Tree *the_tree = new Tree;
    return *the_tree;
}

os_proc_entry *child(os_proc_entry *folder, const std::string &name) {
    for (os_proc_entry *entry : folder->children)
        if (entry->name == name)
            return entry;
    return nullptr;
}

os_proc_entry *make(const char *name, std::uint32_t mode, os_proc_entry *parent) {
    Tree &all = tree();
    Guard held(all.mutex);
    os_proc_entry *folder = parent ? parent : &all.top;
    if (!*name || strchr(name, '/') || child(folder, name))
        return nullptr;
    auto *entry = new os_proc_entry;
    entry->name = name;
    entry->mode = mode;
    entry->ino = ++all.last_ino;
    entry->parent = parent;
    folder->children.push_back(entry);
    return entry;
}

os_proc_entry *find(Tree &all, const std::string &path) USER_REQUIRES(all.mutex) {
    os_proc_entry *at = &all.top;
    for (std::size_t start = 0; at && start < path.size();) {
        std::size_t end = std::min(path.find('/', start), path.size());
        at = child(at, path.substr(start, end - start));
        start = end + 1;
    }
    return at;
}

ProcInfo describe(const os_proc_entry &entry) {
    return {entry.name, entry.mode, entry.ino};
}

// The entry with one more callback running, and its callbacks as they are now: an entry is seen before
// it gets them. Null, and *err, when there is none.
os_proc_entry *enter(const std::string &path, bool write, ProcOps *ops, int *err) {
    Tree &all = tree();
    Guard held(all.mutex);
    os_proc_entry *entry = find(all, path);
    *err = 0;
    if (!entry)
        *err = -ENOENT;
    else if (entry == &all.top || S_ISDIR(entry->mode))
        *err = -EISDIR;
    else if (write && !entry->ops.write)
        *err = -EACCES;
    if (*err)
        return nullptr;
    entry->running++;
    *ops = entry->ops;
    return entry;
}

void leave(os_proc_entry *entry) {
    Tree &all = tree();
    Guard held(all.mutex);
    if (--entry->running == 0)
        all.idle.notify_all();
}

// The classic protocol where the callback does not set *start: it fills the page from the top.
int read_page(const ProcOps &ops, std::string *text) {
    text->clear();
    if (!ops.read)
        return 0;
    auto page = std::make_unique<char[]>(OS_PAGE_SIZE);
    char *start = nullptr;
    int eof = 0;
    int length = ops.read(page.get(), &start, 0, OS_PAGE_SIZE, &eof, ops.data);
    if (length < 0)
        return length;
    const char *from = start ? start : page.get();
    std::ptrdiff_t room = page.get() + OS_PAGE_SIZE - from;
    if (from < page.get() || length > room)
        return -EIO;
    text->assign(from, static_cast<std::size_t>(length));
    return 0;
}

void free_all(os_proc_entry *folder) {
    for (os_proc_entry *entry : folder->children) {
        free_all(entry);
        delete entry;
    }
    folder->children.clear();
}

}  // namespace

int proc_stat(const std::string &path, ProcInfo *info) {
    Tree &all = tree();
    Guard held(all.mutex);
    const os_proc_entry *entry = find(all, path);
    if (!entry)
        return -ENOENT;
    *info = entry == &all.top ? ProcInfo{"", S_IFDIR | 0555, 1} : describe(*entry);
    return 0;
}

int proc_list(const std::string &path, std::vector<ProcInfo> *entries) {
    entries->clear();
    Tree &all = tree();
    Guard held(all.mutex);
    const os_proc_entry *folder = find(all, path);
    if (!folder)
        return -ENOENT;
    if (folder != &all.top && !S_ISDIR(folder->mode))
        return -ENOTDIR;
    for (const os_proc_entry *entry : folder->children)
        entries->push_back(describe(*entry));
    return 0;
}

int proc_read(const std::string &path, std::string *text) {
    might_sleep("proc_read");
    ProcOps ops;
    int err;
    os_proc_entry *entry = enter(path, false, &ops, &err);
    if (!entry)
        return err;
    err = read_page(ops, text);
    leave(entry);
    return err;
}

long proc_write(const std::string &path, std::string_view text) {
    might_sleep("proc_write");
    ProcOps ops;
    int err;
    os_proc_entry *entry = enter(path, true, &ops, &err);
    if (!entry)
        return err;
    std::string bytes(text);  // the window is writable
    auto *window = reinterpret_cast<std::uint8_t *>(bytes.data());
    constexpr os_uaddr kSomewhere = 0x10000;
    long rc;
    {
        CallerScope scope(Caller{0, kSomewhere, {window, bytes.size()}});
        rc = ops.write(nullptr, kSomewhere, bytes.size(), ops.data);
    }
    leave(entry);
    return rc;
}

std::string proc_leftovers() {
    Tree &all = tree();
    Guard held(all.mutex);
    std::string left;
    for (const os_proc_entry *entry : all.top.children)
        left += "/proc/" + entry->name + "\n";
    return left;
}

void forget_proc() {
    Tree &all = tree();
    Guard held(all.mutex);
    free_all(&all.top);
}

}  // namespace user

using user::Guard;
using user::tree;

extern "C" {

os_proc_entry *os_proc_mkdir(const char *name, os_proc_entry *parent) {
    return user::make(name, S_IFDIR | 0555, parent);
}

os_proc_entry *os_create_proc_entry(const char *name, uint32_t mode, os_proc_entry *parent) {
    return user::make(name, S_IFREG | (mode & 0777), parent);
}

void os_proc_set_ops(os_proc_entry *entry, os_proc_read_fn read, os_proc_write_fn write,
                     void *data) {
    Guard held(tree().mutex);
    entry->ops = {read, write, data};
}

const char *os_proc_name(const os_proc_entry *entry) {
    return entry->name.c_str();
}

os_proc_entry *os_proc_parent(const os_proc_entry *entry) {
    return entry->parent;
}

os_proc_entry *os_proc_first_child(const os_proc_entry *entry) {
    Guard held(tree().mutex);
    return entry->children.empty() ? nullptr : entry->children.front();
}

os_proc_entry *os_proc_next(const os_proc_entry *entry) {
    user::Tree &all = tree();
    Guard held(all.mutex);
    const os_proc_entry *folder = entry->parent ? entry->parent : &all.top;
    auto at = std::find(folder->children.begin(), folder->children.end(), entry);
    return at == folder->children.end() || ++at == folder->children.end() ? nullptr : *at;
}

void os_remove_proc_entry(os_proc_entry *entry) {
    user::Tree &all = tree();
    {
        Guard held(all.mutex);
        os_proc_entry *folder = entry->parent ? entry->parent : &all.top;
        std::erase(folder->children, entry);
        while (entry->running)
            all.idle.wait(all.mutex);
    }
    delete entry;
}

}  // extern "C"
