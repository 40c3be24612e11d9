// os/user/chardev.cpp: the control device
// SPDX-License-Identifier: GPL-2.0-only
#include "os/chardev.h"

#include <errno.h>

#include <list>
#include <string>

#include "os/task.h"
#include "os/user/internal.h"
#include "os/user/sync.h"
#include "os/user/task.h"
#include "os/user/user.h"

namespace user {

namespace {

constexpr std::uint32_t kLastMajor = 511;
constexpr std::uint32_t kFreeMajor = 254;  // what a kernel gives first when asked for any

// Calls count as running, and a registration ends once none of its calls runs.
struct Device {
    std::uint32_t major;
    std::string name;
    const os_file_operations *fops;
    unsigned running = 0;
    bool gone = false;
};

struct Table {
    Mutex mutex;
    Condition idle;
    std::list<Device> devices USER_GUARDED_BY(mutex);  // in the order of their registration
};

Table &table() {
    static Table *all = new Table;
    return *all;
}

// Programs use the device that was registered first: the driver has one.
Device *enter() {
    Table &all = table();
    Guard held(all.mutex);
    if (all.devices.empty() || all.devices.front().gone)
        return nullptr;
    all.devices.front().running++;
    return &all.devices.front();
}

void leave(Device *device) {
    Table &all = table();
    Guard held(all.mutex);
    if (--device->running == 0)
        all.idle.notify_all();
}

bool is_taken(Table &all, std::uint32_t major) USER_REQUIRES(all.mutex) {
    for (const Device &device : all.devices)
        if (device.major == major)
            return true;
    return false;
}

}  // namespace

std::string chardev_leftovers() {
    Table &all = table();
    Guard held(all.mutex);
    std::string left;
    for (const Device &device : all.devices)
        left += "character device " + device.name + "\n";
    return left;
}

void forget_chardev() {
    Table &all = table();
    Guard held(all.mutex);
    all.devices.clear();
}

int chr_major() {
    Table &all = table();
    Guard held(all.mutex);
    return all.devices.empty() ? 0 : static_cast<int>(all.devices.front().major);
}

int chr_open() {
    might_sleep("chr_open");
    Device *device = enter();
    if (!device)
        return -ENODEV;
    const os_file_operations *fops = device->fops;
    os_module_get();
    int rc = fops->open ? fops->open(nullptr, nullptr) : 0;
    if (rc)
        os_module_put();
    leave(device);
    return rc;
}

void chr_release() {
    might_sleep("chr_release");
    if (Device *device = enter()) {
        if (device->fops->release)
            device->fops->release(nullptr, nullptr);
        leave(device);
    }
    os_module_put();
}

int chr_ioctl(std::uint32_t cmd, os_uaddr arg) {
    might_sleep("chr_ioctl");
    Device *device = enter();
    if (!device)
        return -ENODEV;
    const os_file_operations *fops = device->fops;
    int rc =
        fops->ioctl ? fops->ioctl(nullptr, nullptr, cmd, static_cast<unsigned long>(arg)) : -ENOTTY;
    leave(device);
    return rc;
}

long chr_read(os_uaddr buf, std::size_t count, std::int64_t *pos) {
    might_sleep("chr_read");
    Device *device = enter();
    if (!device)
        return -ENODEV;
    const os_file_operations *fops = device->fops;
    long rc = fops->read ? fops->read(nullptr, buf, count, pos) : -EINVAL;
    leave(device);
    return rc;
}

long chr_write(os_uaddr buf, std::size_t count, std::int64_t *pos) {
    might_sleep("chr_write");
    Device *device = enter();
    if (!device)
        return -ENODEV;
    const os_file_operations *fops = device->fops;
    long rc = fops->write ? fops->write(nullptr, buf, count, pos) : -EINVAL;
    leave(device);
    return rc;
}

}  // namespace user

extern "C" {

int os_register_chrdev(uint32_t major, const char *name, const os_file_operations *fops) {
    if (major > user::kLastMajor)
        return -EINVAL;
    user::Table &all = user::table();
    user::Guard held(all.mutex);
    uint32_t wanted = major ? major : user::kFreeMajor;
    while (!major && wanted && user::is_taken(all, wanted))
        wanted--;
    if (!wanted || user::is_taken(all, wanted))
        return -EBUSY;
    all.devices.push_back({wanted, name, fops});
    return major ? 0 : static_cast<int>(wanted);
}

void os_unregister_chrdev(uint32_t major, const char *name) {
    user::Table &all = user::table();
    user::Guard held(all.mutex);
    for (auto it = all.devices.begin(); it != all.devices.end(); ++it) {
        if (it->major != major || it->name != name)
            continue;
        it->gone = true;
        while (it->running)
            all.idle.wait(all.mutex);
        all.devices.erase(it);
        return;
    }
}

}  // extern "C"
