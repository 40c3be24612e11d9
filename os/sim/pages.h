// os/sim/pages.h: bytes with a durable and a volatile state
// SPDX-License-Identifier: GPL-2.0-only
//
// The contents of a disk or of a file: sparse pages of 4096 bytes, absent ones read as zeroes. A page
// that was written and not synced remembers its durable bytes and every write since, in order; what a
// power cut leaves of it is stated in pages.cpp.
#ifndef TRAK_OS_SIM_PAGES_H
#define TRAK_OS_SIM_PAGES_H

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "os/sim/rng.h"

namespace sim {

class PageStore {
  public:
    static constexpr std::size_t kPage = 4096;
    static constexpr std::size_t kSector = 512;

    PageStore() = default;
    PageStore(const PageStore &) = delete;
    PageStore &operator=(const PageStore &) = delete;
    ~PageStore();

    void read(std::uint64_t offset, void *to, std::size_t size) const;
    void read_durable(std::uint64_t offset, void *to, std::size_t size) const;
    // Volatile until synced; pinned: these very bytes are durable at once (earlier unsynced writes
    // of other bytes are not).
    void write(std::uint64_t offset, const void *from, std::size_t size, bool pinned);
    void zero(std::uint64_t offset, std::uint64_t size, bool pinned);
    // Durable at once, with the pages that it touches.
    void write_durable(std::uint64_t offset, const void *from, std::size_t size);
    void sync_all();
    void sync_range(std::uint64_t offset, std::uint64_t size);  // whole pages
    // Each unsynced page durable or not, as the dice fall (a sync that failed half-way).
    void sync_some(Rng &rng);
    void power_cut(Rng &rng);
    void cut_tail(std::uint64_t size);  // of a clean store: what lies beyond becomes zeroes
    void drop_all();

    bool has_page(std::uint64_t offset) const { return pages_.count(offset / kPage) != 0; }
    std::size_t page_count() const { return pages_.size(); }
    bool clean() const { return dirty_.empty(); }

  private:
    struct Dirty;
    struct Page {
        std::uint8_t now[kPage];
        Dirty *dirty = nullptr;
        std::size_t dirty_index = 0;  // in dirty_
    };

    Page *touch(std::uint64_t index);
    void make_dirty(std::uint64_t index, Page *page);
    void note(std::uint64_t index, Page *page, std::size_t from, std::size_t size,
              const void *bytes, bool pinned);
    void make_clean(Page *page);
    void settle(Page *page, Rng &rng, unsigned mode);

    std::unordered_map<std::uint64_t, Page *> pages_;
    std::vector<std::uint64_t> dirty_;  // page indices, in the order of their first unsynced write
};

}  // namespace sim

#endif
