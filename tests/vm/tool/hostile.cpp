// tests/vm/tool/hostile.cpp: a caller of the control device that means no good
// SPDX-License-Identifier: GPL-2.0-only
//
// Left out is what is known to leave the node table locked (docs/compatibility.md): snaps of one filter with
// chunks of different sizes. So every snap here has chunks of 4 KiB, or of a size that is refused. Nor are
// nodes put over nodes: one that holds another and lost its minor to a refused creation can't be deleted any
// more, and holds the module.
#include <fcntl.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "abi/trak_ioctl.h"
#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

constexpr std::uint32_t kCodes[] = {
    TRAK_ADD_FILTER_NODE, TRAK_ADD_SNAP_NODE,   TRAK_DEL_NODE,          TRAK_START_NODE,
    TRAK_STOP_NODE,       TRAK_GET_DEVICE_LIST, TRAK_GET_INFO,          TRAK_LOAD_BMP,
    TRAK_SAVE_BMP,        TRAK_CLR_BMP,         TRAK_SET_BMP,           TRAK_MERGE_BMP,
    TRAK_GET_BMP,         TRAK_GET_AND_CLR_BMP, TRAK_GET_DATABLOCK_BMP, TRAK_TEST_DATABLOCK,
    TRAK_RESUME_SNAP};
constexpr std::size_t kCodeCount = sizeof kCodes / sizeof kCodes[0];
constexpr std::size_t kRoom = 16384;  // as large as a code can say
constexpr std::size_t kPage = 4096;

class Caller {
  public:
    Caller(int fd, std::uint64_t seed, const Words &words) : fd_(fd), random_(seed) {
        disk_ = words[1];
        other_ = words[2];
        folder_ = words[3];
        // Room, a page that can be read only, and one that is not there.
        auto *all = mmap(nullptr, kRoom + 2 * kPage, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (all == MAP_FAILED)
            die("mmap");
        room_ = static_cast<unsigned char *>(all);
        if (mprotect(room_ + kRoom, kPage, PROT_READ) != 0 ||
            mprotect(room_ + kRoom + kPage, kPage, PROT_NONE) != 0)
            die("mprotect");
    }

    void call() {
        const std::uint64_t which = choose();
        std::uint32_t code = which < kCodeCount ? kCodes[which] : odd_code();
        unsigned char *record = room_ + 8 * random_.below(64);
        fill(record, code);
        void *at = random_.below(12) == 0 ? odd_address(TRAK_IOC_SIZE(code)) : record;
        if (random_.below(40) == 0)
            code ^= 1u << random_.below(32);
        const int rc = ioctl(fd_, code, at);
        if (which < kCodeCount)
            ++(rc == 0 ? passed : refused)[which];
    }

    std::uint64_t passed[kCodeCount] = {}, refused[kCodeCount] = {};

  private:
    // What takes nodes away comes less often, so that there are some.
    std::uint64_t choose() {
        const std::uint64_t which = random_.below(kCodeCount + 1);
        const bool ends = which < kCodeCount &&
                          (kCodes[which] == TRAK_DEL_NODE || kCodes[which] == TRAK_STOP_NODE);
        return ends && random_.below(3) != 0 ? random_.below(2) : which;
    }

    std::uint32_t odd_code() {
        return TRAK_IOC(random_.below(4), random_.below(40), random_.below(16384));
    }

    void *odd_address(std::size_t size) {
        switch (random_.below(7)) {
        case 0:
            return nullptr;
        case 1:
            return reinterpret_cast<void *>(random_.next());
        case 2:
            return reinterpret_cast<void *>(0xFFFF888000000000u + random_.below(1u << 30));
        case 3:
            return reinterpret_cast<void *>(0x7FFFFFFFF000u - random_.below(64));
        case 4:
            return room_ + kRoom;  // can't be written
        case 5:
            return room_ + kRoom + kPage - size / 2;  // ends in nothing
        default:
            return room_ + kRoom - size / 2;
        }
    }

    std::uint32_t minor() {
        constexpr std::uint32_t kOdd[] = {255, 256, 257, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
        return random_.below(16) == 0 ? kOdd[random_.below(6)]
                                      : static_cast<std::uint32_t>(random_.below(4));
    }

    // A string without an end is one that fills its field.
    void text(char *field, std::size_t size, const std::string &usual) {
        switch (random_.below(100)) {
        case 0:
            std::memset(field, 'x', size);
            break;
        case 1:
            std::memset(field, '/', size);
            break;
        case 2:
            for (std::size_t i = 0; i < size; ++i)
                field[i] = static_cast<char>(random_.next());
            break;
        case 3:
            put(field, size, "/dev/null");
            break;
        case 4:
            put(field, size, folder_ + "/../../../proc/self/mem");
            break;
        case 5:
            put(field, size, "%s%n%p");
            break;
        default:
            put(field, size, usual);
        }
    }

    static void put(char *field, std::size_t size, const std::string &what) {
        std::memset(field, 0, size);
        std::memcpy(field, what.c_str(), what.size() < size ? what.size() : size - 1);
    }

    std::string numbered(const char *name) {
        return folder_ + "/" + name + std::to_string(random_.below(4));
    }

    template <class Record> void copy(unsigned char *to, const Record &record) {
        std::memcpy(to, &record, sizeof record);
    }

    std::uint64_t data() {
        void *at = random_.below(8) == 0 ? odd_address(512) : room_ + kRoom - 4096;
        return reinterpret_cast<std::uint64_t>(at);
    }

    std::uint32_t size() {
        constexpr std::uint32_t kSizes[] = {128, 128, 128,  0,          1,
                                            127, 129, 4096, 0x80000000, 0xFFFFFFFF};
        return kSizes[random_.below(10)];
    }

    void fill(unsigned char *record, std::uint32_t code) {
        for (std::size_t i = 0; i < kRoom - 512; i += 8) {
            const std::uint64_t word = random_.next();
            std::memcpy(record + i, &word, 8);
        }
        const auto type =
            static_cast<std::uint32_t>(random_.below(8) == 0 ? random_.next() : random_.below(2));
        switch (code) {
        case TRAK_ADD_FILTER_NODE:
            return add_filter(record);
        case TRAK_ADD_SNAP_NODE:
            return add_snap(record);
        case TRAK_GET_DEVICE_LIST: {
            const auto kind = static_cast<std::uint32_t>(random_.below(4));
            return copy(record, kind);
        }
        case TRAK_SET_BMP:
        case TRAK_MERGE_BMP:
        case TRAK_GET_BMP:
        case TRAK_GET_AND_CLR_BMP:
            return copy(record, trak_bmp_data_arg{minor(), type, size(), 0, data()});
        case TRAK_GET_DATABLOCK_BMP:
            return copy(record,
                        trak_datablock_arg{minor(), 4096u << random_.below(6),
                                           static_cast<std::int32_t>(16 * size()), 0, data()});
        case TRAK_TEST_DATABLOCK: {
            trak_test_datablock_arg arg{};
            text(arg.hdd_name, sizeof arg.hdd_name, other_);
            return copy(record, arg);
        }
        case TRAK_RESUME_SNAP:
            return copy(record,
                        trak_resume_arg{minor(), static_cast<std::uint32_t>(random_.below(3)),
                                        static_cast<std::uint32_t>(random_.below(2)),
                                        static_cast<std::uint32_t>(random_.below(2))});
        default:
            return copy(record, trak_bmp_arg{minor(), type});
        }
    }

    void add_filter(unsigned char *record) {
        trak_add_filter_arg arg{};
        text(arg.hdd_name, sizeof arg.hdd_name, disk_);
        arg.minor = static_cast<std::int32_t>(minor());
        arg.extent_size =
            random_.below(4) == 0 ? static_cast<std::uint32_t>(random_.next()) : 65536;
        text(arg.bmp_dir, sizeof arg.bmp_dir, folder_);
        text(arg.uuid, sizeof arg.uuid, "");
        text(arg.name, sizeof arg.name, "");
        copy(record, arg);
    }

    void add_snap(unsigned char *record) {
        constexpr std::uint32_t kOdd[] = {0, 1, 4097, 12288};
        trak_add_snap_arg arg{};
        arg.filter_minor = minor();
        arg.snap_minor = random_.below(2) == 0 ? -1 : static_cast<std::int32_t>(minor());
        arg.chunk_size = random_.below(8) == 0 ? kOdd[random_.below(4)] : 4096;
        text(arg.cow_bmp_fname, sizeof arg.cow_bmp_fname, numbered("map"));
        text(arg.cow_data_fname, sizeof arg.cow_data_fname, numbered("data"));
        text(arg.uuid, sizeof arg.uuid, "");
        text(arg.name, sizeof arg.name, "");
        copy(record, arg);
    }

    int fd_;
    Random random_;
    std::string disk_, other_, folder_;
    unsigned char *room_ = nullptr;
};

}  // namespace

// COUNT calls with codes, records and addresses that a seed makes up.
int hostile(const Words &words) {
    const int fd = open(words[0].c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        die(words[0]);
    Caller caller(fd, number(words[4]), words);
    for (std::uint64_t n = number(words[5]); n > 0; --n)
        caller.call();
    for (std::size_t n = 0; n < kCodeCount; ++n)
        std::printf("%zu: %lu passed, %lu refused\n", n + 1,
                    static_cast<unsigned long>(caller.passed[n]),
                    static_cast<unsigned long>(caller.refused[n]));
    return close(fd) == 0 ? 0 : 1;
}

// What a user without rights is told who opens a file.
int opens_as(const Words &words) {
    const auto id = static_cast<uid_t>(number(words[0]));
    if (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0)
        die("setuid");
    const int fd = open(words[1].c_str(), O_RDONLY | O_CLOEXEC);
    std::printf("%s\n", fd >= 0 ? "passed" : std::strerror(errno));
    return fd < 0 || close(fd) == 0 ? 0 : 1;
}

}  // namespace vm_tool
