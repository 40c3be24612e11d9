// driver/control/proc.cpp: the status tree under /proc
// SPDX-License-Identifier: GPL-2.0-only
//
// Removing an entry waits for the reads of it that are under way, and a node's folder is removed with
// the node table held for writing, while a read of its files wants the table for reading. The
// one would wait for the other for ever; so `leaving` names the folder that is being removed, and a
// read of a file in it doesn't wait for the table but shows what it would have found: nothing.
#include "driver/control/proc.h"

#include <os_embedded.h>

#include "driver/block/table.h"
#include "driver/control/proc_fields.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/atomic.h"
#include "driver/utils/string.h"
#include "os/log.h"
#include "os/memory.h"

OS_MODULE_STATE constinit os_proc_entry *trak_dir = nullptr;

namespace {

// The folder that is being removed under the node table's lock for writing; one at a time.
OS_MODULE_STATE constinit os_proc_entry *leaving = nullptr;

constexpr std::uint32_t read_only = 0444;
constexpr std::uint32_t regular_writable = OS_S_IFREG | 0644;
constexpr unsigned long write_limit = 1024;
constexpr char node_prefix[] = "trak";
constexpr std::size_t node_prefix_length = sizeof node_prefix - 1;
constexpr std::size_t node_name_size = 16;  // "trak" and a number of 32 bits

struct module_file {
    const char *name;
    std::uint32_t mode;
    const std::int32_t *value;
    os_proc_write_fn write;
    const char *failure;
};

constexpr module_file module_files[] = {
    {"chr_major", read_only, &trak_chr_major, nullptr,
     "%s(): Failed to create /proc/trak/chr_major."},
    {"blk_major", read_only, &trak_blk_major, nullptr,
     "%s(): Failed to create /proc/trak/blk_major."},
    {"debug", regular_writable, &trak_debug, trak_write_proc,
     "%s(): Failed to create /proc/trak/debug."},
};

bool create_file(const char *name, std::uint32_t mode, os_proc_entry *parent,
                 os_proc_write_fn write) {
    os_proc_entry *entry = os_create_proc_entry(name, mode, parent);
    if (entry == nullptr)
        return false;
    os_proc_set_ops(entry, trak_read_proc, write, entry);
    return true;
}

void print_node_name(char (&name)[node_name_size], const trak_device *dev) {
    os_snprintf(name, sizeof name, "trak%d", dev->minor);
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The minor that a node's folder is named after, or -1 for any other name.
std::int64_t minor_of_folder(const char *name) {
    if (trak_strnlen(name, node_prefix_length + 1) <= node_prefix_length ||
        memcmp(name, node_prefix, node_prefix_length) != 0 || !is_digit(name[node_prefix_length]))
        return -1;
    std::int64_t minor = 0;
    for (const char *c = name + node_prefix_length; is_digit(*c) && minor <= INT32_MAX; ++c)
        minor = minor * 10 + (*c - '0');
    return minor <= INT32_MAX ? minor : -1;
}

bool folder_is_leaving(const void *folder) {
    return __atomic_load_n(&leaving, __ATOMIC_ACQUIRE) == folder;
}

void print_node_file(const os_proc_entry *entry, const os_proc_entry *folder, char *page) {
    const std::int64_t minor = minor_of_folder(os_proc_name(folder));
    if (minor < 0 || !trak_minor_in_range(static_cast<std::uint32_t>(minor)))
        return;
    if (!zuread_lock_unless(&trak_blkdev_rwlock, folder_is_leaving, folder))
        return;
    trak_device *dev = trak_find_device(static_cast<std::uint32_t>(minor));
    if (dev != nullptr)
        trak_proc_print_field(dev, os_proc_name(entry), page);
    zuread_unlock(&trak_blkdev_rwlock);
}

const module_file *find_module_file(const os_proc_entry *entry) {
    if (os_proc_parent(entry) != trak_dir)
        return nullptr;
    for (const module_file &f : module_files) {
        if (trak_strcmp(f.name, os_proc_name(entry)) == 0)
            return &f;
    }
    return nullptr;
}

void remove_folder(os_proc_entry *folder) {
    __atomic_store_n(&leaving, folder, __ATOMIC_RELEASE);
    zurwlock_poke(&trak_blkdev_rwlock);
    trak_remove_proc_entry(folder);
    __atomic_store_n(&leaving, nullptr, __ATOMIC_RELEASE);
}

// A signed decimal number from the start of the text; *end is where it stopped. No digits: 0. A number
// too large keeps its low 32 bits.
std::int32_t parse_number(const char *text, const char **end) {
    const bool negative = *text == '-';
    if (negative)
        ++text;
    std::uint32_t value = 0;
    for (; is_digit(*text); ++text)
        value = value * 10 + static_cast<std::uint32_t>(*text - '0');
    *end = text;
    return static_cast<std::int32_t>(negative ? 0u - value : value);
}

// What was written to a file, copied in and terminated: count or a negative errno.
int take_text(const os_proc_entry *entry, const char *text, unsigned long count) {
    if (trak_strcmp(os_proc_name(entry), "debug") != 0)
        return static_cast<int>(count);  // accepted and ignored
    const char *end;
    const std::int32_t level = parse_number(text, &end);
    if (*end != '\0' && *end != ' ' && *end != '\n')
        return -EINVAL;
    trak_write_once(trak_debug, level);
    trak_log(TRAK_LOG_COMMAND, "%s(): trak_debug=%d", "trak_write_proc", level);
    return static_cast<int>(count);
}

}  // namespace

int trak_create_proc() {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Creating /proc/trak filesystem");
    trak_dir = os_proc_mkdir("trak", nullptr);
    if (trak_dir == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to create /proc/trak directory.");
        return -EINVAL;
    }
    for (const module_file &f : module_files) {
        if (!create_file(f.name, f.mode, trak_dir, f.write)) {
            trak_log(TRAK_LOG_ERROR, f.failure, __func__);
            return -EINVAL;
        }
    }
    return 0;
}

int trak_remove_proc() {
    trak_log(TRAK_LOG_MILESTONE, "trak_remove_proc(): Removing /proc/trak tree.");
    trak_remove_proc_entry(trak_dir);
    trak_dir = nullptr;
    return 0;
}

void trak_drop_proc() {
    if (trak_dir == nullptr)
        return;
    while (os_proc_entry *file = os_proc_first_child(trak_dir))
        os_remove_proc_entry(file);
    os_remove_proc_entry(trak_dir);
    trak_dir = nullptr;
}

void trak_remove_proc_entry(os_proc_entry *entry) {
    if (entry == nullptr)
        return;
    while (os_proc_entry *child = os_proc_first_child(entry))
        trak_remove_proc_entry(child);
    trak_log(TRAK_LOG_COMMAND, "Removing %s...", os_proc_name(entry));
    os_remove_proc_entry(entry);
}

int trak_proc_add_device(trak_device *dev) {
    char name[node_name_size];
    print_node_name(name, dev);
    char path[sizeof "/proc/trak/" + node_name_size];
    os_snprintf(path, sizeof path, "/proc/trak/%s", name);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Creating %s entry for trak(%d, %d)", path, trak_blk_major,
              dev->minor);
    os_proc_entry *folder = os_proc_mkdir(name, trak_dir);
    if (folder == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to create %s directory.", path);
        return -EINVAL;
    }
    for (std::size_t i = 0; const char *file = trak_proc_field_name(dev->dev_type, i); ++i) {
        if (!create_file(file, read_only, folder, nullptr)) {
            trak_logf(TRAK_LOG_ERROR, "%s(): Failed to create %s/%s.", path, file);
            remove_folder(folder);
            return -EINVAL;
        }
    }
    return 0;
}

int trak_proc_del_device(trak_device *dev) {
    char name[node_name_size];
    print_node_name(name, dev);
    trak_logf(TRAK_LOG_COMMAND, "%s(): Removing /proc entry for trak(%d, %d)", trak_blk_major,
              dev->minor);
    os_proc_entry *child = trak_dir != nullptr ? os_proc_first_child(trak_dir) : nullptr;
    while (child != nullptr && trak_strcmp(os_proc_name(child), name) != 0)
        child = os_proc_next(child);
    if (child != nullptr)
        remove_folder(child);
    return 0;
}

int trak_read_proc(char *page, char ** /*start*/, long /*offset*/, int /*count*/, int *eof,
                   void *data) {
    if (data == nullptr || page == nullptr || eof == nullptr)
        return -EINVAL;
    const auto *entry = static_cast<const os_proc_entry *>(data);
    page[0] = '\0';
    if (const module_file *file = find_module_file(entry))
        os_snprintf(page, OS_PAGE_SIZE, "%d\n", trak_read_once(*file->value));
    else
        print_node_file(entry, os_proc_parent(entry), page);
    *eof = 1;
    trak_logf(TRAK_LOG_COMMAND, "%s(): %s=%s", os_proc_name(entry), page);
    return static_cast<int>(trak_strlen(page));
}

int trak_write_proc(void * /*file*/, os_uaddr buffer, unsigned long count, void *data) {
    if (data == nullptr || buffer == 0 || count == 0)
        return -EINVAL;
    auto *text = static_cast<char *>(os_kmalloc(write_limit, OS_GFP_KERNEL));
    if (text == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return -ENOMEM;
    }
    int rc = -EINVAL;
    if (count <= write_limit) {
        rc = -EFAULT;
        if (os_copy_from_user(text, buffer, count) == 0) {
            text[count < write_limit ? count : write_limit - 1] = '\0';
            rc = take_text(static_cast<const os_proc_entry *>(data), text, count);
        }
    }
    os_kfree(text);
    return rc;
}
