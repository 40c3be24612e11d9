// os/user/node_io.cpp: requests of programs to an opened device
// SPDX-License-Identifier: GPL-2.0-only
//
// The pages of such a bio are the caller's own memory, cut where a page ends: nothing is copied.
#include <errno.h>

#include <algorithm>

#include "os/lock.h"
#include "os/user/bio.h"
#include "os/user/device.h"
#include "os/user/task.h"

namespace user {

namespace {

constexpr std::uint32_t kWithoutData = OS_BIO_DISCARD | OS_BIO_ZEROES;
constexpr std::size_t kMaxRange = std::size_t{1} << 31;

struct Waited {
    os_completion done;
    int error;
};

void wake_waiter(void *data, int error) {
    Waited *waited = static_cast<Waited *>(data);
    waited->error = error;
    os_complete(&waited->done);
}

void ended(os_bio *bio, int error) {
    Done done = bio->program_done;
    void *data = os_bio_private(bio);
    os_bio_put(bio);
    done(data, error);
}

bool is_well_formed(std::uint32_t rw, std::uint64_t offset, const void *buf, std::size_t size) {
    if (offset % OS_SECTOR_SIZE || size % OS_SECTOR_SIZE)
        return false;
    if (rw & kWithoutData)
        return !buf && size <= kMaxRange;
    return size <= kMaxRequest && (buf || !size);
}

os_bio *make_bio(std::uint64_t offset, void *buf, std::size_t size) {
    auto at = reinterpret_cast<std::uintptr_t>(buf);
    std::size_t pages = buf ? (at % OS_PAGE_SIZE + size + OS_PAGE_SIZE - 1) / OS_PAGE_SIZE : 0;
    os_bio *bio = os_bio_alloc(OS_GFP_NOIO, static_cast<std::uint32_t>(pages));
    if (!bio)
        return nullptr;
    os_bio_set_sector(bio, offset >> OS_SECTOR_SHIFT);
    if (!buf)
        bio->size = static_cast<std::uint32_t>(size);
    while (buf && size) {
        std::uint32_t inside = at % OS_PAGE_SIZE;
        std::uint32_t len =
            static_cast<std::uint32_t>(std::min<std::size_t>(size, OS_PAGE_SIZE - inside));
        bio->vecs()[bio->vcnt++] = {reinterpret_cast<os_page *>(at - inside), len, inside};
        bio->size += len;
        at += len;
        size -= len;
    }
    return bio;
}

}  // namespace

void submit(os_bdev *bdev, std::uint32_t rw, std::uint64_t offset, void *buf, std::size_t size,
            Done done, void *data) {
    may_sleep_here("submit");
    if (!is_well_formed(rw, offset, buf, size)) {
        done(data, -EINVAL);
        return;
    }
    os_bio *bio = make_bio(offset, buf, size);
    if (!bio) {
        done(data, -ENOMEM);
        return;
    }
    os_bio_set_bdev(bio, bdev);
    os_bio_set_private(bio, data);
    os_bio_set_end_io(bio, ended);
    bio->program_done = done;
    os_submit_bio(rw, bio);
}

int submit_wait(os_bdev *bdev, std::uint32_t rw, std::uint64_t offset, void *buf,
                std::size_t size) {
    Waited waited;
    os_init_completion(&waited.done);
    submit(bdev, rw, offset, buf, size, wake_waiter, &waited);
    os_wait_for_completion(&waited.done);
    return waited.error;
}

}  // namespace user
