// os/user/chardev.cpp: the control device
// SPDX-License-Identifier: GPL-2.0-only
#include "os/chardev.h"

#include <errno.h>

#include <string>

#include "os/task.h"
#include "os/user/sync.h"
#include "os/user/task.h"
#include "os/user/user.h"

namespace user {

namespace {

constexpr std::uint32_t kLastMajor = 511;
constexpr std::uint32_t kFreeMajor = 254;  // what a kernel gives first when asked for any

// One device: the driver registers one. Calls count as running, and the registration ends once
// none runs.
struct Device {
    Mutex mutex;
    Condition idle;
    std::uint32_t major USER_GUARDED_BY(mutex) = 0;  // 0: none
    std::string name USER_GUARDED_BY(mutex);
    const os_file_operations *fops USER_GUARDED_BY(mutex) = nullptr;
    unsigned running USER_GUARDED_BY(mutex) = 0;
};

Device &device() {
    static Device *the_device = new Device;
    return *the_device;
}

const os_file_operations *enter() {
    Guard held(device().mutex);
    if (device().fops)
        device().running++;
    return device().fops;
}

void leave() {
    Guard held(device().mutex);
    if (--device().running == 0)
        device().idle.notify_all();
}

}  // namespace

int chr_major() {
    Guard held(device().mutex);
    return static_cast<int>(device().major);
}

int chr_open() {
    might_sleep("chr_open");
    const os_file_operations *fops = enter();
    if (!fops)
        return -ENODEV;
    os_module_get();
    int rc = fops->open ? fops->open(nullptr, nullptr) : 0;
    if (rc)
        os_module_put();
    leave();
    return rc;
}

void chr_release() {
    might_sleep("chr_release");
    if (const os_file_operations *fops = enter()) {
        if (fops->release)
            fops->release(nullptr, nullptr);
        leave();
    }
    os_module_put();
}

int chr_ioctl(std::uint32_t cmd, os_uaddr arg) {
    might_sleep("chr_ioctl");
    const os_file_operations *fops = enter();
    if (!fops)
        return -ENODEV;
    int rc =
        fops->ioctl ? fops->ioctl(nullptr, nullptr, cmd, static_cast<unsigned long>(arg)) : -ENOTTY;
    leave();
    return rc;
}

long chr_read(os_uaddr buf, std::size_t count, std::int64_t *pos) {
    might_sleep("chr_read");
    const os_file_operations *fops = enter();
    if (!fops)
        return -ENODEV;
    long rc = fops->read ? fops->read(nullptr, buf, count, pos) : -EINVAL;
    leave();
    return rc;
}

long chr_write(os_uaddr buf, std::size_t count, std::int64_t *pos) {
    might_sleep("chr_write");
    const os_file_operations *fops = enter();
    if (!fops)
        return -ENODEV;
    long rc = fops->write ? fops->write(nullptr, buf, count, pos) : -EINVAL;
    leave();
    return rc;
}

}  // namespace user

using user::device;
using user::Guard;

extern "C" {

int os_register_chrdev(uint32_t major, const char *name, const os_file_operations *fops) {
    if (major > user::kLastMajor)
        return -EINVAL;
    Guard held(device().mutex);
    if (device().fops)
        return -EBUSY;
    device().major = major ? major : user::kFreeMajor;
    device().name = name;
    device().fops = fops;
    return major ? 0 : static_cast<int>(user::kFreeMajor);
}

void os_unregister_chrdev(uint32_t major, const char *name) {
    Guard held(device().mutex);
    if (!device().fops || device().major != major || device().name != name)
        return;
    device().fops = nullptr;
    device().major = 0;
    while (device().running)
        device().idle.wait(device().mutex);
}

}  // extern "C"
