// tests/unit/snap/own_bio.h: bios that a test makes itself, to put where it likes
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_SNAP_OWN_BIO_H
#define TRAK_TESTS_UNIT_SNAP_OWN_BIO_H

#include <vector>

#include "os/bio.h"
#include "tests/support/snap_world.h"

namespace snap_test {

// A request of `bytes` bytes at a sector; knows how often and with what it ended.
class OwnBio {
  public:
    OwnBio(std::uint64_t sector, std::uint32_t bytes, std::uint32_t rw)
        : bio_(os_bio_alloc(OS_GFP_KERNEL, bytes / OS_PAGE_SIZE + 1)) {
        os_bio_set_sector(bio_, sector);
        os_bio_set_rw(bio_, rw);
        os_bio_set_end_io(bio_, ended);
        os_bio_set_private(bio_, this);
        for (std::uint32_t done = 0; done < bytes;) {
            const std::uint32_t n = std::min<std::uint32_t>(bytes - done, OS_PAGE_SIZE);
            pages_.push_back(os_alloc_page(OS_GFP_KERNEL));
            EXPECT_TRUE(os_bio_add_page(bio_, pages_.back(), n, 0));
            done += n;
        }
    }
    ~OwnBio() {
        os_bio_put(bio_);
        for (os_page *page : pages_)
            os_free_page(page);
    }
    OwnBio(const OwnBio &) = delete;
    OwnBio &operator=(const OwnBio &) = delete;

    os_bio *get() { return bio_; }
    int ends() const { return ends_; }
    int error() const { return error_; }

  private:
    static void ended(os_bio *bio, int error) {
        auto *self = static_cast<OwnBio *>(os_bio_private(bio));
        ++self->ends_;
        self->error_ = error;
    }

    os_bio *bio_;
    std::vector<os_page *> pages_;
    int ends_ = 0;
    int error_ = 1;
};

inline constexpr std::uint32_t kRead = 0;
inline constexpr std::uint32_t kWrite = OS_BIO_WRITE;

// The queued requests from head to tail, as their bios.
inline std::vector<os_bio *> queued(trak_cowqueue &queue) {
    std::vector<os_bio *> bios;
    for (trak_list *at = queue.requests.next; at != &queue.requests; at = at->next)
        bios.push_back(trak_container_of(at, cow_request, link)->bio);
    return bios;
}

}  // namespace snap_test

#endif
