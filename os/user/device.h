// os/user/device.h: block devices of the platform: the driver's own nodes, images and real disks
// SPDX-License-Identifier: GPL-2.0-only
//
// Owner      an os_bdev lives while somebody has it open or is opening it; it holds its os_disk.
//            Disks and queues of the driver are counted: an opener that is on its way when the driver
//            takes a node down still finds memory behind its pointers.
// Locks      devices().mutex guards the tables and the counts of users; a bdev's open_mutex makes
//            open and release of one device run one after the other, and is held while the driver's
//            operations run. Taking a disk down never waits for it.
#ifndef TRAK_OS_USER_DEVICE_H
#define TRAK_OS_USER_DEVICE_H

#include <sys/types.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "os/bdev.h"
#include "os/disk.h"
#include "os/user/mounts.h"
#include "os/user/sync.h"
#include "os/user/user.h"

namespace user {

// What requests of a queue may be.
struct alignas(8) Limits {
    std::uint32_t block_size = OS_SECTOR_SIZE;
    bool discard = false;
    bool zeroes = false;
};

// The file behind a disk that is not the driver's: a block special file or an image.
struct Backing {
    ~Backing();
    int fd = -1;  // O_DIRECT where `direct`
    bool writable = false;
    bool block = false;
    bool direct = false;
    bool shared = false;           // somebody else had claimed it when it was opened
    std::size_t memory_align = 1;  // of a buffer for direct I/O; a power of two
    std::size_t offset_align = 1;  // of offset and length
    std::uint64_t size = 0;        // bytes, whole sectors
    std::uint32_t block_size = OS_SECTOR_SIZE;
    dev_t st_dev = 0;  // identity of an image
    ino_t st_ino = 0;
    bool can_discard = false;
    std::string name;  // in messages
    std::atomic<unsigned> errors_logged{0};
};

// Null: *err tells why. `wants_write`: fails where the file can't be written.
std::unique_ptr<Backing> open_backing(const std::string &path, bool block, DevNumber dev,
                                      bool wants_write, int *err);

struct Image {
    std::string name;
    std::string file;
    dev_t st_dev;
    ino_t st_ino;
};

struct Devices {
    Mutex mutex;
    std::map<os_dev_t, os_bdev *> open USER_GUARDED_BY(mutex);
    std::map<os_dev_t, os_disk *> nodes USER_GUARDED_BY(mutex);
    std::map<std::uint32_t, std::string> majors USER_GUARDED_BY(mutex);
    std::vector<Image> images USER_GUARDED_BY(mutex);
    // Paths under which real disks were looked up last, for machines that have no other way from
    // a number to a file.
    std::map<os_dev_t, std::string> paths USER_GUARDED_BY(mutex);
    Mutex listener_mutex;  // held while the listener runs; taken first
    Listener *listener USER_GUARDED_BY(listener_mutex) = nullptr;
};
Devices &devices();

DevNumber dev_number(dev_t dev);
os_dev_t kernel_dev(dev_t dev);  // the seam's form of a device number of user space
// The image that /dev/image/NAME means, by name; false when there is none.
bool find_image(const std::string &name, os_dev_t *dev);
void remember_disk_path(os_dev_t dev, const std::string &path);
// A major that a block driver of this machine has.
bool is_real_block_major(std::uint32_t major);
// Opens that are not this process's: who claimed the file before us, loop devices on an image.
unsigned foreign_openers(const os_bdev *bdev);

}  // namespace user

struct os_queue {
    std::atomic<int> users{1};
    os_make_request_fn make_request = nullptr;  // null: requests go to `backing` of the device
    os_unplug_fn unplug = nullptr;
    void *data = nullptr;
    std::atomic<user::Limits> limits{user::Limits{}};
};

struct os_disk {
    std::atomic<int> users{1};
    std::uint32_t major = 0;
    std::uint32_t first_minor = 0;
    std::string name;
    const os_block_device_operations *ops = nullptr;  // null: not the driver's
    std::atomic<std::uint64_t> sectors{0};
    std::atomic<os_queue *> queue{nullptr};  // holds a use of it
    std::atomic<bool> read_only{false};
    bool added = false;  // under devices().mutex
    // Requests that came to a node and have not ended, by the turn in which they came.
    std::atomic<std::uint32_t> under_way[2]{};
    std::atomic<unsigned> turn{0};
    std::atomic<bool> draining{false};  // somebody waits, and nobody else may turn
};

struct os_bdev {
    os_dev_t dev = 0;
    os_disk *disk = nullptr;  // holds a use of it
    int users = 0;            // handles and opens under way; under devices().mutex
    user::Mutex open_mutex;
    std::atomic<unsigned> openers{0};
    // Of a disk that is not the driver's. A device that was opened for reading where its file can't
    // be written has the first alone; one opened for writing afterwards gets a second file.
    std::unique_ptr<user::Backing> owned[2] USER_GUARDED_BY(open_mutex);
    std::atomic<user::Backing *> for_reads{nullptr};
    std::atomic<user::Backing *> for_writes{nullptr};
};

namespace user {

void get_queue(os_queue *queue);
void put_queue(os_queue *queue);
void get_disk(os_disk *disk);
void put_disk(os_disk *disk);
inline bool is_node(const os_bdev *bdev) {
    return bdev->disk->ops != nullptr;
}
// Sends a request to the file behind a disk; every result comes through the bio's end.
void submit_to_backing(os_bdev *bdev, os_bio *bio);

}  // namespace user

#endif
