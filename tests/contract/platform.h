// tests/contract/platform.h: what the contract suite needs besides the contracts themselves
// SPDX-License-Identifier: GPL-2.0-only
//
// The suite's sources are the same for every platform; one platform_NAME.cpp per platform defines
// these functions. A test is one call of run(); its body may call everything in os/*.h, and what
// stands below.
#ifndef TRAK_CONTRACT_PLATFORM_H
#define TRAK_CONTRACT_PLATFORM_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "os/bdev.h"
#include "os/bio.h"
#include "os/chardev.h"
#include "os/disk.h"
#include "os/file.h"
#include "os/lock.h"
#include "os/log.h"
#include "os/memory.h"
#include "os/proc.h"
#include "os/random.h"
#include "os/task.h"
#include "os/time.h"
#include "os/uaccess.h"
#include "os/wait.h"

namespace contract {

using Bytes = std::vector<std::uint8_t>;

// Runs the body as a process in a platform that was started for it: once, or once per seed. What the
// platform finds at the end (memory, devices, threads that are left) fails the test. A body that
// fails an ASSERT returns.
void run(const std::function<void()> &body);

// Another process, at the same time. Each is joined, once, before the body ends.
struct Process;
Process *start(std::function<void()> fn);
void join(Process *process);
void signal(Process *process);  // that it is sent a signal

// True as soon as the condition holds; false, and a failed test, when it does not in two minutes. The
// condition takes no lock and does not sleep.
bool eventually(const std::function<bool()> &condition);
// Gives others some time (a few hundred scheduling points, or milliseconds) to do what they should
// not: for tests that something does NOT happen. Never needed for a test to pass.
void linger();

// A disk of the machine, all zeroes, until the body ends. Sizes are whole blocks.
os_dev_t make_disk(std::uint64_t size_bytes, std::uint32_t block_size);
// An absolute path of an empty folder, without a slash at its end; removed afterwards.
std::string scratch();
void make_folder(const std::string &path);
void make_symlink(const std::string &target, const std::string &path);
bool exists(const std::string &path);

// Memory of the processes, zeroed, until the body ends; and an address where there is none.
os_uaddr user_alloc(std::size_t size);
std::span<std::uint8_t> user_bytes(os_uaddr addr, std::size_t size);
void user_read_only(os_uaddr addr, std::size_t size);  // addr and size from user_alloc, in pages
os_uaddr user_unmapped();

// The control device, as a process uses it. Negative: an errno; -ENODEV while there is none.
int chr_ioctl(std::uint32_t cmd, os_uaddr arg);
long chr_read(os_uaddr buf, std::size_t size);
long chr_write(os_uaddr buf, std::size_t size);

// Files below /proc, named without the leading "/proc/". 0 or more, or a negative errno.
int proc_read(const std::string &path, std::string *text);
long proc_write(const std::string &path, std::string_view text);
bool proc_exists(const std::string &path);

// What was logged since the body began, one string a record, without its newline.
std::vector<std::string> log();

// Block devices, as programs use them. Null: *err tells why.
os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err);
void close_device(os_bdev *bdev, std::uint32_t mode);
int device_ioctl(os_bdev *bdev, std::uint32_t mode, std::uint32_t cmd, os_uaddr arg);
// One request, waited for: 0 or the errno that it ended with. data is what is written or read into;
// for discards, write-zeroes its size alone counts.
int request(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector, std::span<std::uint8_t> data);
std::vector<os_dev_t> nodes();

int module_references();

}  // namespace contract

#endif
