// driver/control/char.cpp: the control device and the dispatch of its commands
// SPDX-License-Identifier: GPL-2.0-only
//
// A command names one fixed-size record in the caller's memory. The dispatch moves it in, finds the
// node that its first field names (for the commands that need one, under the node table's lock for
// reading), calls the handler and moves the record out again where the command returns data. No
// lock is held while user memory is touched. Every failure to move a record is -EFAULT, memory for
// the dispatch's own copy included: callers see one code for all of them.
#include "driver/control/char.h"

#include <os_embedded.h>

#include "abi/trak_ioctl.h"
#include "driver/block/bitmap_commands.h"
#include "driver/block/filter.h"
#include "driver/block/lifecycle.h"
#include "driver/block/table.h"
#include "driver/control/info.h"
#include "driver/fsreaders/datablock_commands.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/snap_node.h"
#include "driver/utils/string.h"
#include "os/chardev.h"
#include "os/memory.h"
#include "os/uaccess.h"

namespace {

constexpr char device_name[] = "trak";

OS_MODULE_STATE constinit int registered = 0;

struct command {
    std::uint32_t code;
    const char *name;
    std::uint32_t size;  // bytes of its record
    bool needs_node;
    int (*handler)(trak_device *dev, void *record);  // dev is null where no node is needed
};

// Calls a handler with its own record type.
template <auto fn> struct typed;

template <typename Record, int (*fn)(Record *)> struct typed<fn> {
    static constexpr bool needs_node = false;
    static constexpr std::uint32_t size = sizeof(Record);
    static int call(trak_device *, void *record) { return fn(static_cast<Record *>(record)); }
};

template <typename Record, int (*fn)(trak_device *, Record *)> struct typed<fn> {
    static constexpr bool needs_node = true;
    static constexpr std::uint32_t size = sizeof(Record);
    static int call(trak_device *dev, void *record) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
        return fn(dev, static_cast<Record *>(record));
    }
};

template <std::uint32_t code, auto fn> constexpr command command_of(const char *name) {
    using handler = typed<fn>;
    static_assert(handler::size == TRAK_IOC_SIZE(code), "the code holds its record's size");
    static_assert(!handler::needs_node || handler::size >= sizeof(std::uint32_t));
    return {code, name, handler::size, handler::needs_node, handler::call};
}

constexpr command commands[] = {
    command_of<TRAK_ADD_FILTER_NODE, trak_ioctl_add_filter_node>("TRAK_ADD_FILTER_NODE"),
    command_of<TRAK_ADD_SNAP_NODE, trak_ioctl_add_snap_node>("TRAK_ADD_SNAP_NODE"),
    command_of<TRAK_DEL_NODE, trak_ioctl_del_node>("TRAK_DEL_NODE"),
    command_of<TRAK_START_NODE, trak_ioctl_start_node>("TRAK_START_NODE"),
    command_of<TRAK_STOP_NODE, trak_ioctl_stop_node>("TRAK_STOP_NODE"),
    command_of<TRAK_GET_DEVICE_LIST, trak_ioctl_get_device_list>("TRAK_GET_DEVICE_LIST"),
    command_of<TRAK_GET_INFO, trak_ioctl_get_info>("TRAK_GET_INFO"),
    command_of<TRAK_LOAD_BMP, trak_ioctl_load_bmp>("TRAK_LOAD_BMP"),
    command_of<TRAK_SAVE_BMP, trak_ioctl_save_bmp>("TRAK_SAVE_BMP"),
    command_of<TRAK_CLR_BMP, trak_ioctl_clr_bmp>("TRAK_CLR_BMP"),
    command_of<TRAK_SET_BMP, trak_ioctl_set_bmp>("TRAK_SET_BMP"),
    command_of<TRAK_MERGE_BMP, trak_ioctl_merge_bmp>("TRAK_MERGE_BMP"),
    command_of<TRAK_GET_BMP, trak_ioctl_get_bmp>("TRAK_GET_BMP"),
    command_of<TRAK_GET_AND_CLR_BMP, trak_ioctl_get_and_clr_bmp>("TRAK_GET_AND_CLR_BMP"),
    command_of<TRAK_GET_DATABLOCK_BMP, trak_ioctl_get_datablock_bmp>("TRAK_GET_DATABLOCK_BMP"),
    command_of<TRAK_TEST_DATABLOCK, trak_ioctl_test_datablock>("TRAK_TEST_DATABLOCK"),
    command_of<TRAK_RESUME_SNAP, trak_ioctl_resume_snap>("TRAK_RESUME_SNAP"),
};
static_assert(sizeof commands / sizeof commands[0] == 17);

constexpr os_file_operations fops = {
    .read = trak_char_read,
    .write = trak_char_write,
    .ioctl = trak_char_ioctl,
    .open = trak_char_open,
    .release = trak_char_release,
};

const command *find_command(std::uint32_t code) {
    for (const command &c : commands) {
        if (c.code == code)
            return &c;
    }
    return nullptr;
}

bool reads_user(std::uint32_t code) {
    return (TRAK_IOC_DIR(code) & TRAK_IOC_WRITE) != 0;
}

bool writes_user(std::uint32_t code) {
    return (TRAK_IOC_DIR(code) & TRAK_IOC_READ) != 0;
}

bool range_is_accessible(std::uint32_t code, os_uaddr arg) {
    const std::size_t size = TRAK_IOC_SIZE(code);
    if (writes_user(code) && !os_access_ok(OS_VERIFY_WRITE, arg, size))
        return false;
    return !reads_user(code) || os_access_ok(OS_VERIFY_READ, arg, size);
}

// Calls the handler on the node that the record's first field names.
int call_on_node(const command &cmd, void *record) {
    std::uint32_t minor;
    memcpy(&minor, record, sizeof minor);
    const zuread_guard guard(&trak_blkdev_rwlock);
    trak_device *dev = trak_find_device(minor);
    if (dev == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Invalid TRAK minor=%d", "trak_char_ioctl",
                 static_cast<std::int32_t>(minor));
        return -EINVAL;
    }
    return cmd.handler(dev, record);
}

// The command on its record, which is `record` here and arg in the caller's memory.
int run_command(const command &cmd, void *record, os_uaddr arg) {
    static constexpr char copy_failed[] = "%s(): copy_from_user() failed.";  // in both directions
    if (reads_user(cmd.code) && os_copy_from_user(record, arg, cmd.size) != 0) {
        trak_log(TRAK_LOG_ERROR, copy_failed, "trak_char_ioctl");
        return -EFAULT;
    }
    const int rc = cmd.needs_node ? call_on_node(cmd, record) : cmd.handler(nullptr, record);
    // What the handler did stays done when the caller's memory can't take the answer.
    if (rc == 0 && writes_user(cmd.code) && os_copy_to_user(arg, record, cmd.size) != 0) {
        trak_log(TRAK_LOG_ERROR, copy_failed, "trak_char_ioctl");
        return -EFAULT;
    }
    return rc;
}

}  // namespace

int trak_char_init() {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Initializing character device");
    const int rc =
        os_register_chrdev(static_cast<std::uint32_t>(trak_chr_major), device_name, &fops);
    if (rc < 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to register character device: rc=%d.", rc);
        return rc;
    }
    if (trak_chr_major == 0)
        trak_chr_major = rc;
    trak_logf(TRAK_LOG_COMMAND, "%s(): trak_chr_major=%d", trak_chr_major);
    registered = 1;
    return 0;
}

int trak_char_destroy() {
    if (registered == 0)
        return 0;
    trak_logf(TRAK_LOG_COMMAND, "%s(): Unregistering character device driver");
    os_unregister_chrdev(static_cast<std::uint32_t>(trak_chr_major), device_name);
    registered = 0;
    return 0;
}

int trak_char_open(void * /*inode*/, void * /*file*/) {
    return 0;
}

int trak_char_release(void * /*inode*/, void * /*file*/) {
    return 0;
}

long trak_char_read(void * /*file*/, os_uaddr /*buf*/, std::size_t /*count*/,
                    std::int64_t * /*pos*/) {
    return 0;
}

long trak_char_write(void * /*file*/, os_uaddr /*buf*/, std::size_t /*count*/,
                     std::int64_t * /*pos*/) {
    return 0;
}

int trak_char_ioctl(void * /*inode*/, void * /*file*/, std::uint32_t cmd, unsigned long arg) {
    const command *command = find_command(cmd);
    trak_logf(TRAK_LOG_COMMAND, "%s(): cmd=0x%02x (%s)", cmd,
              command != nullptr ? command->name : "UNKNOWN");
    if (TRAK_IOC_GET_TYPE(cmd) != TRAK_IOC_TYPE)
        return -ENOTTY;
    if (!range_is_accessible(cmd, arg))
        return -EFAULT;
    if (command == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Inappropriate ioctl cmd=%d", static_cast<int>(cmd));
        return -ENOTTY;
    }
    void *record = os_kmalloc(command->size, OS_GFP_KERNEL);
    if (record == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return -EFAULT;
    }
    const int rc = run_command(*command, record, arg);
    os_kfree(record);
    return rc;
}
