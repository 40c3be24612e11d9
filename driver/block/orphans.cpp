// driver/block/orphans.cpp: nodes that lost their table entry
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/orphans.h"

#include <os_embedded.h>

#include "driver/control/proc.h"

namespace {

OS_MODULE_STATE constinit trak_list orphans{&orphans, &orphans};

}  // namespace

void trak_orphan_device(std::uint32_t minor) {
    trak_device *dev = trak_find_device(minor);
    if (dev == nullptr)
        return;
    trak_blkdev_arr[minor] = nullptr;
    trak_list_add_tail(&dev->orphan_link, &orphans);
}

trak_device *trak_next_orphan(const trak_device *dev) {
    trak_list *next = dev != nullptr ? dev->orphan_link.next : orphans.next;
    return next != &orphans ? trak_container_of(next, trak_device, orphan_link) : nullptr;
}

bool trak_orphan_blocks(std::uint32_t minor) {
    for (const trak_device *dev = trak_next_orphan(nullptr); dev != nullptr;
         dev = trak_next_orphan(dev)) {
        if (static_cast<std::uint32_t>(dev->minor) == minor && dev->use_cnt.load() != 0)
            return true;
    }
    return false;
}

os_disk *trak_hide_orphan(std::uint32_t minor) {
    for (trak_device *dev = trak_next_orphan(nullptr); dev != nullptr;
         dev = trak_next_orphan(dev)) {
        os_disk *disk = dev->disk;
        if (static_cast<std::uint32_t>(dev->minor) != minor || disk == nullptr)
            continue;
        trak_proc_del_device(dev);
        dev->disk = nullptr;
        return disk;
    }
    return nullptr;
}

trak_device *trak_find_orphan(const void *record) {
    trak_device *dev = trak_next_orphan(nullptr);
    while (dev != nullptr && dev != record)
        dev = trak_next_orphan(dev);
    return dev;
}
