// os/sim/proc.cpp: small text files under /proc
// SPDX-License-Identifier: GPL-2.0-only
#include "os/proc.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "os/sim/kernel.h"

struct os_proc_entry {
    std::string name;
    std::uint32_t mode = 0;
    bool folder = false;
    unsigned calls = 0;  // callbacks under way
    os_sim_wait_list quiet{};
    os_proc_entry *parent = nullptr;
    std::vector<os_proc_entry *> children;
    os_proc_read_fn read = nullptr;
    os_proc_write_fn write = nullptr;
    void *data = nullptr;
};

namespace sim {
namespace {

// Entries that were removed: kept until the end, so that a late use of one is seen.
std::vector<os_proc_entry *> g_removed;

os_proc_entry *root() {
    Kernel &k = kernel();
    if (!k.proc_root) {
        k.proc_root = new os_proc_entry;
        k.proc_root->name = "/proc";
        k.proc_root->folder = true;
    }
    return k.proc_root;
}

void check(const os_proc_entry *entry, const char *function) {
    if (std::find(g_removed.begin(), g_removed.end(), entry) != g_removed.end())
        fail("%s: the entry %s was removed already", function, entry->name.c_str());
}

os_proc_entry *child(const os_proc_entry *parent, std::string_view name) {
    for (os_proc_entry *entry : parent->children)
        if (entry->name == name)
            return entry;
    return nullptr;
}

os_proc_entry *find(std::string_view path) {
    os_proc_entry *entry = root();
    if (path.substr(0, 5) == "/proc")
        path.remove_prefix(5);
    while (entry && !path.empty()) {
        std::size_t slash = path.find('/');
        std::string_view part = path.substr(0, slash);
        path.remove_prefix(slash == path.npos ? path.size() : slash + 1);
        if (!part.empty())
            entry = child(entry, part);
    }
    return entry;
}

os_proc_entry *make(const char *name, bool folder, std::uint32_t mode, os_proc_entry *parent,
                    const char *function) {
    might_sleep(function);
    point();
    parent = parent ? parent : root();
    check(parent, function);
    if (fault(Fault::kProc) || !parent->folder || child(parent, name))
        return nullptr;
    auto *entry = new os_proc_entry;
    entry->name = name;
    entry->folder = folder;
    entry->mode = mode;
    entry->parent = parent;
    parent->children.push_back(entry);
    return entry;
}

void leave(os_proc_entry *entry) {
    if (--entry->calls == 0)
        wake_all(entry->quiet);
    point();
}

void delete_tree(os_proc_entry *entry) {
    for (os_proc_entry *inner : entry->children)
        delete_tree(inner);
    delete entry;
}

int call_read(os_proc_entry *entry, std::string *text) {
    // A page of its own, so that the sanitizer sees who writes beyond it.
    auto page = std::make_unique<char[]>(OS_PAGE_SIZE);
    char *start = nullptr;
    int eof = 0;
    const Depth before = depth_of(self());
    int length = entry->read(page.get(), &start, 0, OS_PAGE_SIZE, &eof, entry->data);
    check_depth(self(), before, "a /proc read callback returned");
    if (length > OS_PAGE_SIZE)
        fail("the read callback of %s wrote %d bytes", entry->name.c_str(), length);
    if (length > 0)
        text->assign(start ? start : page.get(), static_cast<std::size_t>(length));
    return length < 0 ? length : 0;
}

}  // namespace

int proc_read(const std::string &path, std::string *text) {
    might_sleep("reading a /proc file");
    point();
    text->clear();
    os_proc_entry *entry = find(path);
    if (!entry)
        return -ENOENT;
    if (entry->folder)
        return -EISDIR;
    if (!entry->read)
        return -EIO;
    entry->calls++;
    point();
    int result = call_read(entry, text);
    leave(entry);
    return result;
}

int proc_write(const std::string &path, std::string_view text) {
    might_sleep("writing a /proc file");
    point();
    os_proc_entry *entry = find(path);
    if (!entry)
        return -ENOENT;
    if (entry->folder)
        return -EISDIR;
    if (!entry->write)
        return -EIO;
    entry->calls++;
    os_uaddr addr = user_alloc(text.size());
    if (!text.empty())
        std::memcpy(user_bytes(addr, text.size()).data(), text.data(), text.size());
    point();
    const Depth before = depth_of(self());
    int result = entry->write(nullptr, addr, text.size(), entry->data);
    check_depth(self(), before, "a /proc write callback returned");
    user_free(addr);
    leave(entry);
    return result;
}

bool proc_exists(const std::string &path) {
    return find(path) != nullptr;
}

std::vector<std::string> proc_list(const std::string &path) {
    std::vector<std::string> names;
    if (const os_proc_entry *entry = find(path))
        for (const os_proc_entry *inner : entry->children)
            names.push_back(inner->name);
    return names;
}

std::string proc_leaks() {
    std::string text;
    if (kernel().proc_root)
        for (const os_proc_entry *entry : kernel().proc_root->children)
            text += " /proc/" + entry->name;
    return text.empty() ? text : "entries were not removed:" + text;
}

void proc_drop_all() {
    if (kernel().proc_root)
        delete_tree(kernel().proc_root);
    kernel().proc_root = nullptr;
    for (os_proc_entry *entry : g_removed)
        delete entry;
    g_removed.clear();
}

}  // namespace sim

using namespace sim;

extern "C" {

struct os_proc_entry *os_proc_mkdir(const char *name, struct os_proc_entry *parent) {
    return make(name, true, 0, parent, "os_proc_mkdir");
}

struct os_proc_entry *os_create_proc_entry(const char *name, uint32_t mode,
                                           struct os_proc_entry *parent) {
    return make(name, false, mode, parent, "os_create_proc_entry");
}

void os_proc_set_ops(struct os_proc_entry *entry, os_proc_read_fn read, os_proc_write_fn write,
                     void *data) {
    check(entry, "os_proc_set_ops");
    entry->read = read;
    entry->write = write;
    entry->data = data;
}

const char *os_proc_name(const struct os_proc_entry *entry) {
    check(entry, "os_proc_name");
    return entry->name.c_str();
}

struct os_proc_entry *os_proc_parent(const struct os_proc_entry *entry) {
    check(entry, "os_proc_parent");
    return entry->parent;
}

struct os_proc_entry *os_proc_first_child(const struct os_proc_entry *entry) {
    check(entry, "os_proc_first_child");
    return entry->children.empty() ? nullptr : entry->children.front();
}

struct os_proc_entry *os_proc_next(const struct os_proc_entry *entry) {
    check(entry, "os_proc_next");
    if (!entry->parent)
        return nullptr;
    const auto &siblings = entry->parent->children;
    auto at = std::find(siblings.begin(), siblings.end(), entry);
    return at + 1 == siblings.end() ? nullptr : *(at + 1);
}

void os_remove_proc_entry(struct os_proc_entry *entry) {
    might_sleep("os_remove_proc_entry");
    point();
    check(entry, "os_remove_proc_entry");
    if (!entry->parent)
        fail("os_remove_proc_entry: the top of /proc");
    if (!entry->children.empty())
        fail("os_remove_proc_entry: %s has children", entry->name.c_str());
    auto &siblings = entry->parent->children;
    siblings.erase(std::find(siblings.begin(), siblings.end(), entry));
    // Callbacks under way may still look at their entry.
    while (entry->calls)
        wait_in(entry->quiet, Wait::kRemoval, entry);
    g_removed.push_back(entry);
}

}  // extern "C"
