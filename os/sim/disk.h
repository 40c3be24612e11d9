// os/sim/disk.h: bios, disks, queues and opened devices of the simulated machine
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_DISK_H
#define TRAK_OS_SIM_DISK_H

#include <vector>

#include "os/disk.h"
#include "os/sim/kernel.h"
#include "os/sim/pages.h"

namespace sim {

// Who may change or end a bio.
enum class BioState : std::uint8_t {
    kIdle,        // whoever made it
    kWithDriver,  // a make-request function took it
    kQueued,      // submitted inside a make-request function that has not returned
    kWithDisk,
    kEnded,
};

inline constexpr unsigned kMaxStackedNodes = 4;

struct BadSectors {
    std::uint64_t first;
    std::uint64_t last;
    bool writes;
};

}  // namespace sim

inline constexpr std::uint32_t kBioMagic = 0x5b1ab10b;

struct os_bio {
    std::uint32_t magic;
    sim::BioState state;
    bool uptodate;
    bool clone;
    int fault;  // decided when the disk took it: 0 or a negative errno
    std::uint32_t refs;
    std::uint32_t rw;
    std::uint32_t size;
    std::uint64_t sector;
    os_bdev *bdev;
    void *data;
    os_bio_end_io_fn end_io;
    os_bio_destructor_fn destructor;
    os_bio *next;     // in os_task::bio_list
    sim::Disk *disk;  // that has it
    std::uint16_t idx;
    std::uint32_t vcnt;
    std::uint32_t max_vecs;
    unsigned depth;  // nodes that it came to and has not ended on: the first `depth` of these
    struct {
        os_disk *disk;
        unsigned turn;
    } entered[sim::kMaxStackedNodes];
    os_bio_vec vecs[];
};

struct os_queue {
    os_make_request_fn make_request;
    os_unplug_fn unplug;
    void *data;
    bool discard;
    bool zeroes;
    bool cleaned;    // os_cleanup_queue was called
    unsigned calls;  // make-request calls under way
    os_disk *disk;
    os_sim_wait_list idle;  // calls == 0
};

struct os_disk {
    std::uint32_t major;
    std::uint32_t first_minor;
    char name[32];
    const os_block_device_operations *ops;
    std::uint64_t sectors;
    os_queue *queue;
    bool read_only;
    bool set_up;
    bool visible;
    bool gone;           // os_del_gendisk was called
    sim::Disk *machine;  // null: a node of the driver
    // Requests that came and have not ended, by the turn in which they came.
    unsigned under_way[2];
    unsigned turn;
    bool draining;  // somebody waits, and nobody else may turn
};

struct os_bdev {
    os_dev_t dev;
    os_disk *disk;
    unsigned openers;
    unsigned pins;      // calls under way that need it
    unsigned requests;  // of programs, under way
    std::uint32_t program_mode;
    sim::Mutex mutex;
    os_sim_wait_list quiet;  // requests == 0
};

namespace sim {

struct Disk::Impl {
    os_dev_t dev = 0;
    std::uint64_t size = 0;
    std::uint32_t block_size = 512;
    PageStore pages;
    bool held = false;
    bool mounted = false;
    unsigned other_openers = 0;
    std::uint64_t flushes = 0;
    std::vector<BadSectors> bad;
    std::function<int(std::uint32_t, std::uint32_t, os_uaddr)> ioctl;
};

// bio.cpp: a bio of the simulated machine; nothing of it counts as the driver's.
os_bio *bio_make(std::uint32_t max_vecs, bool own, const void *caller);
void bio_end(os_bio *bio, int error);  // whoever has it
void bio_check(const os_bio *bio, const char *function);
// disk.cpp
void disk_take(Disk &disk, os_bio *bio);
// device.cpp
os_bdev *device_open(os_dev_t dev, std::uint32_t mode, int *err);
void device_close(os_bdev *bdev, std::uint32_t mode);
void device_shut(os_disk &disk);  // waits until nobody is being let in or out
std::uint64_t device_size(const os_bdev &bdev);
bool has_file_system(os_dev_t dev);
FileSystem *file_system_on(os_dev_t dev);

}  // namespace sim

#endif
