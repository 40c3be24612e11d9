// os/sim/file_pages.cpp: pages of memory written into a file
// SPDX-License-Identifier: GPL-2.0-only
#include <vector>

#include "os/file.h"
#include "os/sim/kernel.h"

extern "C" {

// One write: it fails, stops or is cut as one, inside a page too.
long os_vfs_write_pages(struct os_file *file, struct os_page *const *pages, uint32_t count,
                        int64_t *pos) {
    if (count == 0)
        sim::fail("os_vfs_write_pages: no pages");
    std::vector<std::uint8_t> bytes;
    bytes.reserve(std::size_t{count} * OS_PAGE_SIZE);
    for (uint32_t i = 0; i < count; i++) {
        const auto *from = static_cast<const std::uint8_t *>(os_page_address(pages[i]));
        bytes.insert(bytes.end(), from, from + OS_PAGE_SIZE);
    }
    return os_vfs_write(file, bytes.data(), bytes.size(), pos);
}

}  // extern "C"
