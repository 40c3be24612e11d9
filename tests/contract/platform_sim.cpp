// tests/contract/platform_sim.cpp: the contract suite on the simulated kernel
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/contract/platform.h"

#include <algorithm>

#include "os/sim/seeds.h"
#include "os/sim/sim.h"

namespace contract {
namespace {

constexpr std::uint64_t kSeeds = 40;

sim::Storage *g_storage;
std::uint32_t g_disks;

}  // namespace

void run(const std::function<void()> &body) {
    sim::for_each_seed(kSeeds, [&](std::uint64_t seed) {
        sim::Storage storage;
        storage.mkdir("/scratch");
        g_storage = &storage;
        g_disks = 0;
        sim::Options options;
        options.seed = seed;
        sim::World(storage, options).run(body);
    });
    g_storage = nullptr;
}

Process *start(std::function<void()> fn) {
    return reinterpret_cast<Process *>(sim::spawn("process", std::move(fn)));
}

void join(Process *process) {
    sim::join(reinterpret_cast<sim::Process *>(process));
}

void signal(Process *process) {
    sim::signal(reinterpret_cast<sim::Process *>(process));
}

bool eventually(const std::function<bool()> &condition) {
    sim::wait_until(condition);  // a condition that never holds ends the World
    return true;
}

void linger() {
    for (int i = 0; i < 200; i++)
        sim::yield();
}

os_dev_t make_disk(std::uint64_t size_bytes, std::uint32_t block_size) {
    os_dev_t dev = os_mkdev(8, g_disks);
    g_storage->add_disk("disk" + std::to_string(g_disks++), dev, size_bytes, block_size);
    return dev;
}

std::string scratch() {
    return "/scratch";
}

void make_folder(const std::string &path) {
    g_storage->mkdir(path);
}

void make_symlink(const std::string &target, const std::string &path) {
    g_storage->symlink(target, path);
}

bool exists(const std::string &path) {
    return g_storage->exists(path);
}

os_uaddr user_alloc(std::size_t size) {
    return sim::user_alloc(size);
}

std::span<std::uint8_t> user_bytes(os_uaddr addr, std::size_t size) {
    return sim::user_bytes(addr, size);
}

void user_read_only(os_uaddr addr, std::size_t) {
    sim::user_protect(addr, true, false);
}

os_uaddr user_unmapped() {
    os_uaddr addr = sim::user_alloc(OS_PAGE_SIZE);
    sim::user_free(addr);
    return addr;
}

int chr_ioctl(std::uint32_t cmd, os_uaddr arg) {
    return sim::chr_ioctl(cmd, arg);
}

long chr_read(os_uaddr buf, std::size_t size) {
    return sim::chr_read(buf, size);
}

long chr_write(os_uaddr buf, std::size_t size) {
    return sim::chr_write(buf, size);
}

int proc_read(const std::string &path, std::string *text) {
    return sim::proc_read(path, text);
}

long proc_write(const std::string &path, std::string_view text) {
    return sim::proc_write(path, text);
}

bool proc_exists(const std::string &path) {
    return sim::proc_exists(path);
}

std::vector<std::string> log() {
    return sim::log();
}

os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err) {
    return sim::open_device(dev, mode, err);
}

void close_device(os_bdev *bdev, std::uint32_t) {
    sim::close_device(bdev);
}

int device_ioctl(os_bdev *bdev, std::uint32_t, std::uint32_t cmd, os_uaddr arg) {
    return sim::device_ioctl(bdev, cmd, arg);
}

int request(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector, std::span<std::uint8_t> data) {
    return sim::submit_device(bdev, rw, sector, data);
}

std::vector<os_dev_t> nodes() {
    return sim::nodes();
}

int module_references() {
    return sim::module_references();
}

}  // namespace contract
