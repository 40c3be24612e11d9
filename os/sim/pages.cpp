// os/sim/pages.cpp: bytes with a durable and a volatile state
// SPDX-License-Identifier: GPL-2.0-only
//
// Fault model of a power cut.
//
// A sector (512 bytes) is never torn: after the cut it holds either its durable bytes or what it held
// after one of the writes since the last sync, any of them. Which one is drawn for each sector on its
// own, so that neighbours, and sectors of one write, may end in different states, in any combination:
// writes are lost, torn at sectors, or overtaken by later ones. A sector never falls behind a pinned
// write of it (forced unit access, O_SYNC).
//
// One draw decides for the whole store how wild it gets: everything lost, everything kept, each page
// of one state, or each sector for itself. The middle is what disks do; the ends are the cases that
// tests must not miss.
#include "os/sim/pages.h"

#include <algorithm>
#include <cstring>

namespace sim {

// The writes to one page since it was last synced.
struct PageStore::Dirty {
    struct Write {
        std::uint16_t from;
        std::uint16_t size;
        bool pinned;
        std::uint32_t bytes_at;  // in bytes
    };
    bool was_absent = false;
    std::uint8_t durable[kPage];
    std::vector<Write> writes;
    std::vector<std::uint8_t> bytes;

    // The first n writes applied to the durable bytes of one sector.
    void sector_after(std::size_t sector, std::size_t n, std::uint8_t *to) const {
        std::size_t begin = sector * kSector;
        std::memcpy(to, durable + begin, kSector);
        for (std::size_t i = 0; i < n; i++) {
            const Write &w = writes[i];
            std::size_t from = std::max<std::size_t>(w.from, begin);
            std::size_t end = std::min<std::size_t>(std::size_t{w.from} + w.size, begin + kSector);
            if (from < end)
                std::memcpy(to + (from - begin), bytes.data() + w.bytes_at + (from - w.from),
                            end - from);
        }
    }
    // How many writes must be applied at the least to this sector.
    std::size_t pinned_writes(std::size_t sector) const {
        std::size_t begin = sector * kSector;
        for (std::size_t i = writes.size(); i-- > 0;) {
            const Write &w = writes[i];
            if (w.pinned && w.from < begin + kSector && std::size_t{w.from} + w.size > begin)
                return i + 1;
        }
        return 0;
    }
};

namespace {

constexpr std::size_t kMaxWrites = 48;  // remembered for one page; then the oldest merge
constexpr std::size_t kSectors = PageStore::kPage / PageStore::kSector;
const std::uint8_t kZeroes[PageStore::kPage] = {};

enum Mode : unsigned { kAllLost, kAllKept, kByPage, kBySector, kModes };

}  // namespace

PageStore::~PageStore() {
    drop_all();
}

void PageStore::drop_all() {
    for (auto &[index, page] : pages_) {
        delete page->dirty;
        delete page;
    }
    pages_.clear();
    dirty_.clear();
}

void PageStore::cut_tail(std::uint64_t size) {
    for (auto at = pages_.begin(); at != pages_.end();) {
        std::uint64_t begin = at->first * kPage;
        if (begin >= size) {
            delete at->second;
            at = pages_.erase(at);
            continue;
        }
        if (size - begin < kPage)
            std::memset(at->second->now + (size - begin), 0,
                        static_cast<std::size_t>(kPage - (size - begin)));
        ++at;
    }
}

void PageStore::read(std::uint64_t offset, void *to, std::size_t size) const {
    auto *bytes = static_cast<std::uint8_t *>(to);
    while (size) {
        std::size_t in_page = offset % kPage;
        std::size_t n = std::min(size, kPage - in_page);
        auto at = pages_.find(offset / kPage);
        std::memcpy(bytes, (at == pages_.end() ? kZeroes : at->second->now) + in_page, n);
        bytes += n;
        offset += n;
        size -= n;
    }
}

void PageStore::read_durable(std::uint64_t offset, void *to, std::size_t size) const {
    auto *bytes = static_cast<std::uint8_t *>(to);
    while (size) {
        std::size_t in_page = offset % kPage;
        std::size_t n = std::min(size, kPage - in_page);
        auto at = pages_.find(offset / kPage);
        const Page *page = at == pages_.end() ? nullptr : at->second;
        if (!page || !page->dirty) {
            std::memcpy(bytes, (page ? page->now : kZeroes) + in_page, n);
        } else {
            std::uint8_t state[kPage];
            for (std::size_t s = 0; s < kSectors; s++)
                page->dirty->sector_after(s, page->dirty->pinned_writes(s), state + s * kSector);
            std::memcpy(bytes, state + in_page, n);
        }
        bytes += n;
        offset += n;
        size -= n;
    }
}

PageStore::Page *PageStore::touch(std::uint64_t index) {
    Page *&page = pages_[index];
    if (!page) {
        page = new Page;
        std::memset(page->now, 0, kPage);
        make_dirty(index, page);
        page->dirty->was_absent = true;
    }
    return page;
}

void PageStore::make_dirty(std::uint64_t index, Page *page) {
    page->dirty = new Dirty;
    std::memcpy(page->dirty->durable, page->now, kPage);
    page->dirty_index = dirty_.size();
    dirty_.push_back(index);
}

void PageStore::note(std::uint64_t index, Page *page, std::size_t from, std::size_t size,
                     const void *bytes, bool pinned) {
    if (!page->dirty)
        make_dirty(index, page);
    Dirty &dirty = *page->dirty;
    if (dirty.writes.size() == kMaxWrites) {
        // What must hold becomes durable, what may hold becomes one write of the whole page.
        std::uint8_t least[kPage];
        for (std::size_t s = 0; s < kSectors; s++)
            dirty.sector_after(s, dirty.pinned_writes(s), least + s * kSector);
        std::memcpy(dirty.durable, least, kPage);
        dirty.bytes.assign(page->now, page->now + kPage);
        dirty.writes.assign(1, {0, kPage, false, 0});
    }
    dirty.writes.push_back({static_cast<std::uint16_t>(from), static_cast<std::uint16_t>(size),
                            pinned, static_cast<std::uint32_t>(dirty.bytes.size())});
    auto *begin = static_cast<const std::uint8_t *>(bytes);
    dirty.bytes.insert(dirty.bytes.end(), begin, begin + size);
    std::memcpy(page->now + from, bytes, size);
}

void PageStore::write(std::uint64_t offset, const void *from, std::size_t size, bool pinned) {
    auto *bytes = static_cast<const std::uint8_t *>(from);
    while (size) {
        std::size_t in_page = offset % kPage;
        std::size_t n = std::min(size, kPage - in_page);
        std::uint64_t index = offset / kPage;
        note(index, touch(index), in_page, n, bytes, pinned);
        bytes += n;
        offset += n;
        size -= n;
    }
}

void PageStore::zero(std::uint64_t offset, std::uint64_t size, bool pinned) {
    std::uint64_t end = offset + size;
    // A range larger than what is there: only the pages that are there have anything to lose.
    if (size / kPage > pages_.size() + 2) {
        std::vector<std::uint64_t> present;
        for (auto &[index, page] : pages_)
            if (index >= offset / kPage && index <= (end - 1) / kPage)
                present.push_back(index);
        std::sort(present.begin(), present.end());
        for (std::uint64_t index : present) {
            std::uint64_t from = std::max(offset, index * kPage);
            std::uint64_t to = std::min(end, (index + 1) * kPage);
            note(index, pages_[index], from % kPage, static_cast<std::size_t>(to - from), kZeroes,
                 pinned);
        }
        return;
    }
    while (offset < end) {
        std::size_t n =
            static_cast<std::size_t>(std::min<std::uint64_t>(end - offset, kPage - offset % kPage));
        if (has_page(offset))
            note(offset / kPage, pages_[offset / kPage], offset % kPage, n, kZeroes, pinned);
        offset += n;
    }
}

void PageStore::make_clean(Page *page) {
    std::size_t at = page->dirty_index;
    std::uint64_t last = dirty_.back();
    dirty_[at] = last;
    pages_[last]->dirty_index = at;
    dirty_.pop_back();
    delete page->dirty;
    page->dirty = nullptr;
}

void PageStore::write_durable(std::uint64_t offset, const void *from, std::size_t size) {
    if (size == 0)
        return;
    sync_range(offset, size);
    write(offset, from, size, true);
    sync_range(offset, size);
}

void PageStore::sync_all() {
    for (std::uint64_t index : dirty_) {
        Page *page = pages_[index];
        delete page->dirty;
        page->dirty = nullptr;
    }
    dirty_.clear();
}

void PageStore::sync_range(std::uint64_t offset, std::uint64_t size) {
    std::uint64_t last = (offset + size - 1) / kPage;
    for (std::uint64_t index = offset / kPage; index <= last; index++) {
        auto at = pages_.find(index);
        if (at != pages_.end() && at->second->dirty)
            make_clean(at->second);
    }
}

void PageStore::sync_some(Rng &rng) {
    for (std::size_t i = 0; i < dirty_.size();) {
        if (rng.one_in(2))
            make_clean(pages_[dirty_[i]]);  // another one moves to this place
        else
            i++;
    }
}

void PageStore::settle(Page *page, Rng &rng, unsigned mode) {
    const Dirty &dirty = *page->dirty;
    std::size_t all = dirty.writes.size();
    std::size_t of_page = rng.below(all + 1);
    std::uint8_t state[kPage];
    for (std::size_t s = 0; s < kSectors; s++) {
        std::size_t least = dirty.pinned_writes(s);
        std::size_t n = least;
        if (mode == kAllKept)
            n = all;
        else if (mode == kByPage)
            n = std::max(least, of_page);
        else if (mode == kBySector)
            n = least + rng.below(all - least + 1);
        dirty.sector_after(s, n, state + s * kSector);
    }
    std::memcpy(page->now, state, kPage);
}

void PageStore::power_cut(Rng &rng) {
    auto mode = static_cast<unsigned>(rng.below(kModes));
    for (std::uint64_t index : dirty_) {
        Page *page = pages_[index];
        settle(page, rng, mode);
        bool absent = page->dirty->was_absent && std::memcmp(page->now, kZeroes, kPage) == 0;
        delete page->dirty;
        page->dirty = nullptr;
        if (absent) {
            delete page;
            pages_.erase(index);
        }
    }
    dirty_.clear();
}

}  // namespace sim
