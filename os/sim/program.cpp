// os/sim/program.cpp: programs that use block devices
// SPDX-License-Identifier: GPL-2.0-only
//
// A program's pages belong to it: the driver may read and fill them while the request is under way,
// and must not free them.
#include <algorithm>
#include <cstring>

#include "os/sim/disk.h"
#include "os/sim/page.h"

namespace sim {

struct Request {
    os_bio *bio;
    os_bdev *bdev;
    std::vector<os_page *> pages;
    void *memory;  // of all pages as one piece, or null where each has its own
    Bytes data;
    bool writes;
    bool counted;  // among its file system's writers
    bool done;
    int err;
    os_sim_wait_list waiters;
};

namespace {

os_page *submitters_page() {
    void *p = mem_alloc(Kind::kPage, sizeof(os_page), nullptr);
    mem_own(p);
    auto *page = static_cast<os_page *>(p);
    page->magic = kPageMagic;
    page->submitters = 1;
    page->data = page->own;
    return page;
}

void ended(os_bio *bio, int error) {
    auto *request = static_cast<Request *>(bio->data);
    os_bdev *bdev = request->bdev;
    request->err = error;
    request->done = true;
    if (request->counted) {
        FileSystem *fs = file_system_on(bdev->dev);
        if (--fs->writers == 0)
            wake_all(fs->drained);
    }
    if (--bdev->requests == 0)
        wake_all(bdev->quiet);
    wake_all(request->waiters);
}

// Cuts the data into pieces of pages: the first one may start inside its page, and the pages may
// adjoin in memory.
void add_pages(Request &request) {
    std::size_t done = 0, size = request.data.size();
    std::size_t offset = kernel().rng.below(8) * OS_SECTOR_SIZE;
    if (size && kernel().rng.one_in(2)) {
        request.memory = mem_alloc(
            Kind::kPage, (offset + size + OS_PAGE_SIZE - 1) & ~(OS_PAGE_SIZE - 1), nullptr);
        mem_own(request.memory);
    }
    while (done < size) {
        auto n = static_cast<std::uint32_t>(std::min(size - done, OS_PAGE_SIZE - offset));
        os_page *page = submitters_page();
        if (request.memory)
            page->data =
                static_cast<unsigned char *>(request.memory) + request.pages.size() * OS_PAGE_SIZE;
        request.pages.push_back(page);
        if (request.writes)
            std::memcpy(page->data + offset, request.data.data() + done, n);
        if (!os_bio_add_page(request.bio, page, n, static_cast<std::uint32_t>(offset)))
            fail("a program's bio has too little room");
        done += n;
        offset = 0;
    }
}

void collect(Request &request) {
    std::size_t done = 0;
    for (std::uint32_t i = 0; i < request.bio->vcnt; i++) {
        const os_bio_vec &vec = request.bio->vecs[i];
        std::memcpy(request.data.data() + done, page_data(vec.page) + vec.offset, vec.len);
        done += vec.len;
    }
}

int finish(Request *request, Bytes *data) {
    if (!request->writes && !request->err)
        collect(*request);
    if (data)
        *data = std::move(request->data);
    int err = request->err;
    for (os_page *page : request->pages)
        mem_free(Kind::kPage, page, "a finished request");
    if (request->memory)
        mem_free(Kind::kPage, request->memory, "a finished request");
    os_bio_put(request->bio);
    delete request;
    return err;
}

int run(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector, std::span<std::uint8_t> data) {
    Request *request = start_request(bdev, rw, sector, Bytes(data.begin(), data.end()));
    Bytes got;
    int err = wait_request(request, &got);
    if (!err && !(rw & OS_BIO_WRITE) && !got.empty())
        std::memcpy(data.data(), got.data(), got.size());
    return err;
}

}  // namespace

os_bdev *open_device(os_dev_t dev, std::uint32_t mode, int *err) {
    might_sleep("opening a device");
    const Depth before = depth_of(self());
    os_bdev *bdev = device_open(dev, mode, err);
    check_depth(self(), before, "opening a device");
    if (bdev)
        bdev->program_mode = mode;
    return bdev;
}

void close_device(os_bdev *bdev) {
    might_sleep("closing a device");
    mem_check(Kind::kBdev, bdev, "close_device");
    while (bdev->requests)
        wait_in(bdev->quiet, Wait::kRequest, bdev);
    const Depth before = depth_of(self());
    device_close(bdev, bdev->program_mode);
    check_depth(self(), before, "closing a device");
}

int device_ioctl(os_bdev *bdev, std::uint32_t cmd, os_uaddr arg) {
    const Depth before = depth_of(self());
    int result = os_bdev_ioctl(bdev, bdev->program_mode, cmd, arg);
    check_depth(self(), before, "ioctl of a device");
    return result;
}

Request *start_request(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector, Bytes data) {
    might_sleep("a program's request");
    mem_check(Kind::kBdev, bdev, "start_request");
    auto *request = new Request{};
    request->bdev = bdev;
    request->data = std::move(data);
    request->writes = rw & OS_BIO_WRITE;
    bool pages = !(rw & (OS_BIO_DISCARD | OS_BIO_ZEROES));
    auto room = static_cast<std::uint32_t>(request->data.size() / OS_PAGE_SIZE + 2);
    os_bio *bio = bio_make(pages ? room : 0, true, nullptr);
    request->bio = bio;
    bio->rw = rw;
    bio->sector = sector;
    bio->bdev = bdev;
    bio->data = request;
    bio->end_io = ended;
    if (pages)
        add_pages(*request);
    else
        bio->size = static_cast<std::uint32_t>(request->data.size());
    FileSystem *fs = file_system_on(bdev->dev);
    if (fs && request->writes) {
        wait_while_frozen(bdev->dev);
        request->counted = !self().in_freeze;
        fs->writers += request->counted;
    }
    bdev->requests++;
    const Depth before = depth_of(self());
    os_generic_make_request(bio);
    check_depth(self(), before, "a program's request");
    return request;
}

bool request_done(const Request *request) {
    return request->done;
}

int wait_request(Request *request, Bytes *data) {
    might_sleep("waiting for a request");
    point();
    while (!request->done)
        wait_in(request->waiters, Wait::kRequest, request);
    return finish(request, data);
}

int read_device(os_bdev *bdev, std::uint64_t sector, std::span<std::uint8_t> into) {
    return run(bdev, 0, sector, into);
}

int write_device(os_bdev *bdev, std::uint64_t sector, std::span<const std::uint8_t> bytes) {
    Request *request = start_request(bdev, OS_BIO_WRITE, sector, Bytes(bytes.begin(), bytes.end()));
    return wait_request(request, nullptr);
}

int submit_device(os_bdev *bdev, std::uint32_t rw, std::uint64_t sector,
                  std::span<std::uint8_t> data) {
    return run(bdev, rw, sector, data);
}

}  // namespace sim
