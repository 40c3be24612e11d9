// os/sim/chardev.cpp: the control device
// SPDX-License-Identifier: GPL-2.0-only
#include "os/chardev.h"

#include <cstring>

#include "os/sim/kernel.h"

namespace sim {
namespace {

ChrDevice *find(std::uint32_t major) {
    for (ChrDevice &device : kernel().chr_devices)
        if (device.major == major)
            return &device;
    return nullptr;
}

// Opens the newest device, runs call on it, closes it: what a process does in three system calls.
template <typename Call> long as_process(const char *what, Call call) {
    might_sleep(what);
    Kernel &k = kernel();
    point();
    if (k.chr_devices.empty())
        return -ENODEV;
    std::uint32_t major = k.chr_devices.back().major;
    const os_file_operations *ops = k.chr_devices.back().ops;
    const Depth before = depth_of(self());
    find(major)->calls++;
    int inode = 0, file = 0;
    long result = ops->open ? ops->open(&inode, &file) : 0;
    if (result == 0) {
        result = call(*ops, &inode, &file);
        if (ops->release)
            (void)ops->release(&inode, &file);
    }
    ChrDevice *device = find(major);
    if (!device)
        fail("%s: the device was unregistered under the call", what);
    device->calls--;
    check_depth(self(), before, what);
    point();
    return result;
}

}  // namespace

int chr_ioctl(std::uint32_t cmd, os_uaddr arg) {
    return static_cast<int>(
        as_process("ioctl of the control device",
                   [&](const os_file_operations &ops, void *inode, void *file) -> long {
                       return ops.ioctl ? ops.ioctl(inode, file, cmd, arg) : -ENOTTY;
                   }));
}

long chr_read(os_uaddr buf, std::size_t size) {
    std::int64_t pos = 0;
    return as_process("read of the control device",
                      [&](const os_file_operations &ops, void *, void *file) -> long {
                          return ops.read ? ops.read(file, buf, size, &pos) : -EINVAL;
                      });
}

long chr_write(os_uaddr buf, std::size_t size) {
    std::int64_t pos = 0;
    return as_process("write of the control device",
                      [&](const os_file_operations &ops, void *, void *file) -> long {
                          return ops.write ? ops.write(file, buf, size, &pos) : -EINVAL;
                      });
}

std::string chardev_leaks() {
    Kernel &k = kernel();
    if (!k.chr_devices.empty())
        return format("character device %s (major %u) was not unregistered",
                      k.chr_devices.back().name.c_str(), k.chr_devices.back().major);
    if (!k.blk_majors.empty())
        return format("block major %u (%s) was not unregistered", k.blk_majors.back().major,
                      k.blk_majors.back().name.c_str());
    return "";
}

}  // namespace sim

using namespace sim;

extern "C" {

int os_register_chrdev(uint32_t major, const char *name, const struct os_file_operations *fops) {
    might_sleep("os_register_chrdev");
    point();
    Kernel &k = kernel();
    if (fault(Fault::kOpen))
        return -EBUSY;
    uint32_t got = major;
    if (major == 0) {
        for (got = 254; got > 0 && find(got); got--) {
        }
    }
    if (got == 0 || find(got))
        return -EBUSY;
    if (got > 4095)
        return -EINVAL;
    k.chr_devices.push_back({got, name, fops, 0});
    return major == 0 ? static_cast<int>(got) : 0;
}

void os_unregister_chrdev(uint32_t major, const char *name) {
    might_sleep("os_unregister_chrdev");
    Kernel &k = kernel();
    ChrDevice *device = find(major);
    if (!device || device->name != name)
        fail("os_unregister_chrdev: major %u (%s) is not registered", major, name);
    if (device->calls)
        fail("os_unregister_chrdev: %u calls of the device are under way", device->calls);
    k.chr_devices.erase(k.chr_devices.begin() + (device - k.chr_devices.data()));
    point();
}

}  // extern "C"
