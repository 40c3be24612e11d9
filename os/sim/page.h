// os/sim/page.h: a page of the simulated machine
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_PAGE_H
#define TRAK_OS_SIM_PAGE_H

#include <cstdint>

#include "os/memory.h"
#include "os/sim/kernel.h"

inline constexpr std::uint32_t kPageMagic = 0x5b1a9a9e;

struct os_page {
    std::uint32_t magic;
    std::uint32_t submitters;  // made by a program for its request, not by os_alloc_page
    // `own`, or a page of a larger piece of its submitter's memory. Null: nobody has looked at it yet.
    unsigned char *data;
    alignas(16) unsigned char own[OS_PAGE_SIZE];
};

namespace sim {

inline void page_check(const os_page *page, const char *function) {
    if (page->magic != kPageMagic)
        fail("%s: not a page, or a page that was freed", function);
}

// What the page holds. Pages are allocated by the thousand and hardly ever used: they get the contents of
// new memory here.
unsigned char *page_data(os_page *page);

}  // namespace sim

#endif
