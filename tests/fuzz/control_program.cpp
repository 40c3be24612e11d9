// tests/fuzz/control_program.cpp: bytes taken as a program for the driver
// SPDX-License-Identifier: GPL-2.0-only
//
// Bytes 0 to 3: the seed of the schedule. Byte 4: the number of processes, which share the rest in
// equal parts. Byte 5: how many steps of a usual beginning are made first (two filters, started, a
// snap of each, started), so that short inputs reach far; from kFirstDetailed on with every message
// in the log. Then each process takes one byte as what to
// do and the next ones as its arguments, until its part is used up; what lies beyond the end reads
// as zero.
//
// Left out are the requests that are known to leave the node table locked for good (kept so on purpose,
// see docs/compatibility.md): a snap whose chunk size differs from that of its filter's other
// snaps, and a snap's creation without memory.
#include "tests/fuzz/control_program.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "abi/trak_ioctl.h"
#include "driver/module/module.h"
#include "driver/module/params.h"
#include "os/sim/sim.h"
#include "os/task.h"

namespace fuzz {
namespace {

constexpr std::uint32_t chunk_size = 65536;
constexpr std::size_t record_room = 8192;  // more than any record
constexpr std::size_t bitmap_room = 4096;
constexpr std::size_t head_size = 6;
constexpr std::uint8_t kFirstDetailed = 216;
constexpr int most_operations = 60;
constexpr int highest_minor = 15;  // walks over the table are a part of every run

class Input {
  public:
    explicit Input(std::span<const std::uint8_t> bytes) : left_(bytes) {}
    bool empty() const { return left_.empty(); }

    template <typename T> T take() {
        T value{};
        const std::size_t n = std::min(sizeof value, left_.size());
        if (n != 0)
            std::memcpy(&value, left_.data(), n);
        left_ = left_.subspan(n);
        return value;
    }
    std::uint32_t below(std::uint32_t limit) { return take<std::uint8_t>() % limit; }
    std::span<const std::uint8_t> some(std::size_t most) {
        const std::size_t n = std::min({most, std::size_t{take<std::uint8_t>()}, left_.size()});
        const auto part = left_.first(n);
        left_ = left_.subspan(n);
        return part;
    }

  private:
    std::span<const std::uint8_t> left_;
};

int snaps_in_the_making;  // calls under way

// A process of the machine: what it has open, and its memory.
class Caller {
  public:
    explicit Caller(std::span<const std::uint8_t> bytes)
        : in_(bytes), record_(sim::user_alloc(record_room)), bitmap_(sim::user_alloc(bitmap_room)) {
    }

    void run() {
        for (int i = 0; i < most_operations && !in_.empty(); ++i)
            step();
        for (os_bdev *bdev : open_)
            sim::close_device(bdev);
        sim::user_free(record_);
        sim::user_free(bitmap_);
    }

  private:
    void step();
    void add_filter();
    void add_snap();
    void node_command();
    void bitmap_command();
    void information();
    void resume();
    void raw_command();
    void open_or_close();
    void transfer();
    void status_tree();
    void faults();

    template <typename Record> void call(std::uint32_t code, const Record &record) {
        std::memcpy(memory(), &record, sizeof record);
        mangle(sizeof record);
        issue(code, record_);
    }
    // No call fails while a snap is made, whoever asks for it.
    void issue(std::uint32_t code, os_uaddr at) {
        if (code != TRAK_ADD_SNAP_NODE) {
            const auto access = in_.below(16);
            protect(record_, access);
            // Now and then the record goes on beyond the end of the memory.
            (void)sim::chr_ioctl(code, access == 4 ? at + record_room - in_.below(64) : at);
            protect(record_, 0);
            return;
        }
        ++snaps_in_the_making;
        sim::fail_none();
        (void)sim::chr_ioctl(code, at);
        --snaps_in_the_making;
    }
    // 1: can't be written to; 2: can't be read; 3: neither. Else both can be done.
    static void protect(os_uaddr at, std::uint32_t access) {
        sim::user_protect(at, access != 2 && access != 3, access != 1 && access != 3);
    }
    std::uint8_t *memory() { return sim::user_bytes(record_, record_room).data(); }
    // Now and then a piece of the record is overwritten by the input.
    void mangle(std::size_t size) {
        if (in_.below(8) != 0)
            return;
        const std::size_t at = in_.take<std::uint16_t>() % size;
        const auto piece = in_.some(size - at);
        std::copy(piece.begin(), piece.end(), memory() + at);
        keep_chunk_size(TRAK_ADD_SNAP_NODE, size);
    }
    void keep_chunk_size(std::uint32_t code, std::size_t size) {
        if (code != TRAK_ADD_SNAP_NODE || size != sizeof(trak_add_snap_arg))
            return;
        std::memcpy(memory() + offsetof(trak_add_snap_arg, chunk_size), &chunk_size,
                    sizeof chunk_size);
    }
    // One of a few; or around the highest; or below 0.
    std::uint32_t minor() {
        const std::uint8_t b = in_.take<std::uint8_t>();
        if (b < 248)
            return b % 5;
        return b < 252 ? highest_minor - 2u + b % 4
                       : static_cast<std::uint32_t>(static_cast<std::int8_t>(b));
    }
    template <std::size_t n> void text(char (&field)[n], std::span<const char *const> usual) {
        // Twice as likely as any other: the first.
        const std::uint32_t count = static_cast<std::uint32_t>(usual.size());
        const std::uint32_t drawn = in_.below(count + 2);
        const std::uint32_t choice = drawn == count + 1 ? 0 : drawn;
        if (choice < count) {
            std::strncpy(field, usual[choice], n);
        } else {
            const auto piece = in_.some(std::min<std::size_t>(n, 40));
            std::copy(piece.begin(), piece.end(), field);
        }
    }

    Input in_;
    os_uaddr record_;
    os_uaddr bitmap_;
    std::vector<os_bdev *> open_;
};

void Caller::step() {
    using operation = void (Caller::*)();
    static constexpr operation operations[] = {
        &Caller::open_or_close,  &Caller::transfer,    &Caller::transfer,     &Caller::transfer,
        &Caller::add_filter,     &Caller::add_snap,    &Caller::node_command, &Caller::node_command,
        &Caller::bitmap_command, &Caller::information, &Caller::resume,       &Caller::raw_command,
        &Caller::open_or_close,  &Caller::transfer,    &Caller::transfer,     &Caller::status_tree,
        &Caller::faults,
    };
    (this->*operations[in_.below(std::size(operations))])();
}

void Caller::add_filter() {
    static constexpr const char *disks[] = {"/dev/sdb", "/dev/sdc", "/dev/none", "/bmp/file"};
    static constexpr const char *dirs[] = {"/bmp", "/bmp/", "/none", "/"};
    static constexpr std::uint32_t sizes[] = {4096, 65536, 1024, 12288, 0x80000000};
    trak_add_filter_arg arg{};
    text(arg.hdd_name, disks);
    text(arg.bmp_dir, dirs);
    arg.minor = static_cast<std::int32_t>(minor());
    const std::uint32_t choice = in_.below(std::size(sizes) + 3);
    arg.extent_size = choice < std::size(sizes) ? sizes[choice] : sizes[0];
    call(TRAK_ADD_FILTER_NODE, arg);
}

void Caller::add_snap() {
    static constexpr const char *bitmaps[] = {"/cow/bmp1", "/cow/bmp2", "/none/bmp"};
    static constexpr const char *data[] = {"/cow/data1", "/cow/data2", "/none/data"};
    trak_add_snap_arg arg{};
    arg.filter_minor = minor();
    arg.snap_minor = static_cast<std::int32_t>(minor());
    text(arg.cow_bmp_fname, bitmaps);
    text(arg.cow_data_fname, data);
    arg.chunk_size = chunk_size;
    call(TRAK_ADD_SNAP_NODE, arg);
}

void Caller::node_command() {
    static constexpr std::uint32_t codes[] = {TRAK_START_NODE, TRAK_STOP_NODE, TRAK_DEL_NODE};
    const std::uint32_t code = codes[in_.below(3)];
    call(code, trak_minor_arg{minor()});
}

void Caller::bitmap_command() {
    static constexpr std::uint32_t plain[] = {TRAK_LOAD_BMP, TRAK_SAVE_BMP, TRAK_CLR_BMP};
    static constexpr std::uint32_t with_data[] = {TRAK_SET_BMP, TRAK_MERGE_BMP, TRAK_GET_BMP,
                                                  TRAK_GET_AND_CLR_BMP, TRAK_GET_DATABLOCK_BMP};
    const std::uint32_t choice = in_.below(std::size(plain) + std::size(with_data));
    if (choice < std::size(plain)) {
        call(plain[choice], trak_bmp_arg{minor(), in_.below(3)});
        return;
    }
    trak_bmp_data_arg arg{minor(), in_.below(3), 0, 0, bitmap_};
    // 32 is the size for the first disk and extents of 4096 bytes.
    static constexpr std::uint32_t sizes[] = {32, 2, 0, 4096, 0xffffffff};
    arg.size = sizes[in_.below(std::size(sizes))];
    const auto address = in_.below(8);
    if (address == 0)
        arg.data = in_.take<std::uint64_t>();
    else if (address == 4)
        arg.data = bitmap_ + bitmap_room - in_.below(64);  // and beyond its end
    const auto bits = in_.some(bitmap_room);
    std::copy(bits.begin(), bits.end(), sim::user_bytes(bitmap_, bitmap_room).begin());
    protect(bitmap_, address);
    call(with_data[choice - std::size(plain)], arg);
    protect(bitmap_, 0);
}

void Caller::information() {
    if (in_.below(2) == 0) {
        trak_device_list_arg arg{};
        arg.dev_type = in_.below(4);
        call(TRAK_GET_DEVICE_LIST, arg);
    } else {
        trak_info_arg arg{};
        arg.minor = minor();
        call(TRAK_GET_INFO, arg);
    }
}

void Caller::resume() {
    call(TRAK_RESUME_SNAP, trak_resume_arg{minor(), in_.below(2), in_.below(2), in_.below(2)});
}

void Caller::raw_command() {
    const std::uint32_t code = in_.below(2) == 0
                                   ? in_.take<std::uint32_t>()
                                   : TRAK_IOC_TYPE << 8 | in_.below(20) | in_.below(4) << 30 |
                                         (in_.take<std::uint16_t>() & 0x3fffu) << 16;
    const auto piece = in_.some(record_room);
    std::copy(piece.begin(), piece.end(), memory());
    if (code == TRAK_ADD_SNAP_NODE)
        keep_chunk_size(code, sizeof(trak_add_snap_arg));
    const bool usual_address = code == TRAK_ADD_SNAP_NODE || in_.below(4) != 0;
    issue(code, usual_address ? record_ : in_.take<os_uaddr>());
}

void Caller::open_or_close() {
    if (!open_.empty() && in_.below(3) == 0) {
        const std::size_t which = in_.below(static_cast<std::uint32_t>(open_.size()));
        sim::close_device(open_[which]);
        open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(which));
        return;
    }
    int err = 0;
    const os_dev_t dev = os_mkdev(static_cast<std::uint32_t>(trak_blk_major), minor());
    if (os_bdev *bdev = sim::open_device(dev, OS_FMODE_READ | OS_FMODE_WRITE, &err))
        open_.push_back(bdev);
}

void Caller::transfer() {
    if (open_.empty())
        return;
    os_bdev *bdev = open_[in_.below(static_cast<std::uint32_t>(open_.size()))];
    const std::uint64_t sector = in_.take<std::uint16_t>() % 2100;
    std::array<std::uint8_t, 8192> data{};
    const std::size_t size = 512 * (1 + in_.below(16));
    if (in_.below(2) == 0) {
        (void)sim::read_device(bdev, sector, std::span(data).first(size));
    } else {
        data.fill(in_.take<std::uint8_t>());
        (void)sim::write_device(bdev, sector, std::span(data).first(size));
    }
}

void Caller::status_tree() {
    static constexpr const char *files[] = {"debug",          "chr_major",
                                            "trak0/snaps",    "trak1/hdd_name",
                                            "trak2/dev_type", "trak3/incr_bmp_dirty"};
    const std::string path = std::string("/proc/trak/") + files[in_.below(std::size(files))];
    std::string text;
    (void)sim::proc_read(path, &text);
    if (in_.below(4) == 0) {
        const auto piece = in_.some(64);
        (void)sim::proc_write("/proc/trak/debug", std::string(piece.begin(), piece.end()));
    }
}

void Caller::faults() {
    sim::fail_none();
    if (in_.below(3) != 0 && snaps_in_the_making == 0)
        sim::fail_nth(static_cast<sim::Fault>(in_.below(static_cast<unsigned>(sim::Fault::kCount))),
                      1 + in_.below(20));
}

// The usual beginning; what fails of it is the programs' to find out.
void begin(std::uint32_t steps) {
    const os_uaddr at = sim::user_alloc(record_room);
    std::uint32_t made = 0;
    const auto call = [&](std::uint32_t code, const auto &record) {
        if (made++ >= steps)
            return;
        std::memcpy(sim::user_bytes(at, record_room).data(), &record, sizeof record);
        (void)sim::chr_ioctl(code, at);
    };
    trak_add_filter_arg filter{};
    std::strcpy(filter.bmp_dir, "/bmp");
    filter.extent_size = 4096;
    trak_add_snap_arg snap{};
    snap.chunk_size = chunk_size;
    for (std::uint32_t f = 0; f < 2; ++f) {
        filter.minor = static_cast<std::int32_t>(f);
        std::strcpy(filter.hdd_name, f == 0 ? "/dev/sdb" : "/dev/sdc");
        call(TRAK_ADD_FILTER_NODE, filter);
        call(TRAK_START_NODE, trak_minor_arg{f});
        snap.filter_minor = f;
        snap.snap_minor = static_cast<std::int32_t>(f + 2);
        std::strcpy(snap.cow_bmp_fname, f == 0 ? "/cow/bmp1" : "/cow/bmp2");
        std::strcpy(snap.cow_data_fname, f == 0 ? "/cow/data1" : "/cow/data2");
        call(TRAK_ADD_SNAP_NODE, snap);
        call(TRAK_START_NODE, trak_minor_arg{f + 2});
    }
    sim::user_free(at);
}

void run_processes(std::span<const std::uint8_t> bytes, std::size_t count) {
    std::vector<sim::Process *> processes;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t from = bytes.size() * i / count;
        const auto part = bytes.subspan(from, bytes.size() * (i + 1) / count - from);
        processes.push_back(sim::spawn("caller", [part] { Caller(part).run(); }));
    }
    for (sim::Process *process : processes)
        sim::join(process);
}

}  // namespace

void run_control_program(std::span<const std::uint8_t> bytes) {
    Input head(bytes.first(std::min(bytes.size(), head_size)));
    sim::Options options;
    options.seed = 1 + head.take<std::uint32_t>();
    const std::size_t processes = 1 + head.below(3);
    const std::uint8_t start = head.take<std::uint8_t>();
    const std::uint32_t beginning = start % kBeginnings;
    const std::int32_t detail = start >= kFirstDetailed ? 4 : 0;
    sim::Storage storage;
    storage.add_disk("sdb", os_mkdev(8, 16), 1 << 20, 512);
    storage.add_disk("sdc", os_mkdev(8, 32), 1 << 18, 4096);
    for (const char *dir : {"/bmp", "/cow", "/dev/trak"})
        storage.mkdir(dir);
    storage.mount("/cow", os_mkdev(8, 48));
    storage.write_file("/bmp/file", {});
    int rc = 0;
    snaps_in_the_making = 0;  // the boot before may have ended in the middle
    sim::World(storage, options).run([&] {
        trak_debug = detail;
        trak_max_blk_minor = highest_minor;
        rc = trak_init();
        if (rc != 0)
            return;
        begin(beginning);
        run_processes(bytes.subspan(std::min(bytes.size(), head_size)), processes);
        sim::fail_none();
        rc = trak_cleanup();
        // A node that lost its entry to a refused creation keeps the references of those who had it
        // open, which is known; so that any other reference that is kept is seen.
        while (sim::count_log(" is already taken") != 0 && sim::module_references() > 0)
            os_module_put();
    });
    if (rc != 0)
        throw sim::Failure("the driver could not be loaded and unloaded: rc=" + std::to_string(rc));
}

}  // namespace fuzz
