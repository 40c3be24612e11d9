// tests/contract/platform_user.cpp: the contract suite in user space
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/contract/platform.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "os/user/internal.h"
#include "os/user/user.h"
#include "tests/support/eventually.h"

namespace contract {

struct Process {
    std::thread thread;
    std::mutex mutex;
    os_task *task = nullptr;  // while the process lives and has begun
    bool begun = false;
};

namespace {

// One body's machine.
struct Machine {
    std::string folder;
    int disks = 0;
    std::map<os_uaddr, std::size_t> memory;

    Machine() {
        char pattern[] = "/tmp/trak-contract-XXXXXX";
        if (mkdtemp(pattern))
            folder = pattern;
        std::filesystem::create_directory(folder + "/scratch");
    }
    ~Machine() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
        for (const auto &[addr, size] : memory)
            munmap(reinterpret_cast<void *>(addr), size);
    }
};

Machine *g_machine;

void *map_pages(std::size_t size) {
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

std::size_t whole_pages(std::size_t size) {
    return (size + OS_PAGE_SIZE - 1) / OS_PAGE_SIZE * OS_PAGE_SIZE;
}

// Addresses of the processes are addresses of this one, reached as those of any other would be.
user::Caller ourselves() {
    return {getpid(), 0, {}};
}

}  // namespace

void run(const std::function<void()> &body) {
    std::string why;
    ASSERT_EQ(user::start({}, &why), 0) << why;
    auto machine = std::make_unique<Machine>();
    g_machine = machine.get();
    {
        user::CallerScope scope(ourselves());
        body();
    }
    if (!testing::Test::HasFailure()) {
        EXPECT_EQ(user::leftovers(), "");
    }
    user::stop();
    g_machine = nullptr;
}

Process *start(std::function<void()> fn) {
    auto *process = new Process;
    process->thread = std::thread([process, fn = std::move(fn)] {
        user::CallerScope scope(ourselves());
        {
            std::lock_guard<std::mutex> held(process->mutex);
            process->task = os_current();
            process->begun = true;
        }
        fn();
        std::lock_guard<std::mutex> held(process->mutex);
        process->task = nullptr;
    });
    return process;
}

void join(Process *process) {
    process->thread.join();
    delete process;
}

void signal(Process *process) {
    eventually([process] {
        std::lock_guard<std::mutex> held(process->mutex);
        return process->begun;
    });
    std::lock_guard<std::mutex> held(process->mutex);
    if (process->task)
        user::send_signal(process->task);
}

bool eventually(const std::function<bool()> &condition) {
    bool holds = trak_testing::eventually(condition);
    EXPECT_TRUE(holds) << "what was waited for did not come";
    return holds;
}

void linger() {
    timespec start{}, now{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
        os_yield();
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000000000LL + now.tv_nsec - start.tv_nsec < 5000000);
}

os_dev_t make_disk(std::uint64_t size_bytes, std::uint32_t block_size) {
    EXPECT_EQ(block_size, std::uint32_t{OS_SECTOR_SIZE}) << "an image has blocks of one sector";
    std::string name = "disk" + std::to_string(g_machine->disks++);
    std::string file = g_machine->folder + "/" + name;
    std::ofstream(file).close();
    EXPECT_EQ(truncate(file.c_str(), static_cast<off_t>(size_bytes)), 0);
    os_dev_t dev = 0;
    std::string why;
    EXPECT_EQ(user::add_image(name, file, &dev, &why), 0) << why;
    return dev;
}

std::string scratch() {
    return g_machine->folder + "/scratch";
}

void make_folder(const std::string &path) {
    std::filesystem::create_directories(path);
}

void make_symlink(const std::string &target, const std::string &path) {
    std::filesystem::create_symlink(target, path);
}

bool exists(const std::string &path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

os_uaddr user_alloc(std::size_t size) {
    void *memory = map_pages(whole_pages(size));
    os_uaddr addr = reinterpret_cast<os_uaddr>(memory);
    g_machine->memory[addr] = whole_pages(size);
    return addr;
}

std::span<std::uint8_t> user_bytes(os_uaddr addr, std::size_t size) {
    return {reinterpret_cast<std::uint8_t *>(addr), size};
}

void user_read_only(os_uaddr addr, std::size_t size) {
    EXPECT_EQ(mprotect(reinterpret_cast<void *>(addr), size, PROT_READ), 0);
}

// In pages that stay mapped without any access: nothing else gets the address meanwhile.
os_uaddr user_unmapped() {
    os_uaddr addr = user_alloc(OS_PAGE_SIZE);
    EXPECT_EQ(mprotect(reinterpret_cast<void *>(addr), OS_PAGE_SIZE, PROT_NONE), 0);
    return addr;
}

int chr_ioctl(std::uint32_t cmd, os_uaddr arg) {
    int rc = user::chr_open();
    if (rc)
        return rc;
    rc = user::chr_ioctl(cmd, arg);
    user::chr_release();
    return rc;
}

long chr_read(os_uaddr buf, std::size_t size) {
    if (int rc = user::chr_open())
        return rc;
    std::int64_t pos = 0;
    long got = user::chr_read(buf, size, &pos);
    user::chr_release();
    return got;
}

long chr_write(os_uaddr buf, std::size_t size) {
    if (int rc = user::chr_open())
        return rc;
    std::int64_t pos = 0;
    long put = user::chr_write(buf, size, &pos);
    user::chr_release();
    return put;
}

int proc_read(const std::string &path, std::string *text) {
    return user::proc_read(path, text);
}

long proc_write(const std::string &path, std::string_view text) {
    return user::proc_write(path, text);
}

bool proc_exists(const std::string &path) {
    user::ProcInfo info;
    return user::proc_stat(path, &info) == 0;
}

std::vector<std::string> log() {
    std::vector<std::string> lines;
    std::string text = user::log_text();
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err) {
    return user::open_device(dev, mode, err);
}

void close_device(os_bdev *bdev, std::uint32_t mode) {
    user::close_device(bdev, mode);
}

int device_ioctl(os_bdev *bdev, std::uint32_t mode, std::uint32_t cmd, os_uaddr arg) {
    return user::device_ioctl(bdev, mode, cmd, arg);
}

int request(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector, std::span<std::uint8_t> data) {
    bool carries = !(rw & (OS_BIO_DISCARD | OS_BIO_ZEROES)) && !data.empty();
    return user::submit_wait(bdev, rw, sector << OS_SECTOR_SHIFT, carries ? data.data() : nullptr,
                             data.size());
}

std::vector<os_dev_t> nodes() {
    std::vector<os_dev_t> list;
    for (const user::NodeInfo &node : user::nodes())
        list.push_back(node.dev);
    return list;
}

int module_references() {
    return user::module_references();
}

}  // namespace contract
