// os/user/internal.h: calls between the platform's parts that no other header holds
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_USER_INTERNAL_H
#define TRAK_OS_USER_INTERNAL_H

#include <cstddef>
#include <string>

#include "os/user/user.h"

namespace user {

void log_start(std::size_t limit);

// What the driver left behind, a line each: open devices, nodes, names, registrations, /proc entries,
// module references, threads. For tests, before stop().
std::string leftovers();
std::string chardev_leftovers();
std::string device_leftovers();
std::string proc_leftovers();

// What a platform forgets when it stops.
void forget_names();
void forget_proc();
void forget_chardev();
void forget_devices();

// "/dev/image/NAME" and "/dev/trak/NAME" with doubled slashes folded; the folder is "image" or
// "trak", the name empty for the folder itself. False for every other path.
bool split_own_path(const std::string &path, std::string *folder, std::string *name);

// Loop devices seen as the devices that they stand for: the node whose file, or the image whose file,
// is behind the loop device; 0 where it is neither.
os_dev_t device_behind_loop(const std::string &backing_file);
// The number that the driver shall see for a device number of user space: a loop device on a node
// or an image is that node or image.
os_dev_t device_seen_through(dev_t dev);

}  // namespace user

#endif
