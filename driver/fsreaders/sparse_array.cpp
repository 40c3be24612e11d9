// driver/fsreaders/sparse_array.cpp: the bits of one fragment, equal blocks stored once
// SPDX-License-Identifier: GPL-2.0-only
//
// The bit string is cut into equal blocks. All blocks without a bit share one copy, all blocks with
// every bit share another; any other block is stored as it is. `index` says where each block lies in
// `data`: first the shared blocks that there are, then the others in order.
#include "driver/fsreaders/blkbmp.h"
#include "driver/module/log.h"
#include "driver/utils/bits.h"
#include "driver/utils/string.h"
#include "os/memory.h"

namespace {

enum class BlockKind { kZeroes, kOnes, kMixed };

BlockKind kind_of(const std::uint8_t *block, std::uint32_t size) {
    const std::uint64_t bits = static_cast<std::uint64_t>(size) * 8;
    if (block[0] == 0 && trak_bits_all_clear(block, bits))
        return BlockKind::kZeroes;
    if (block[0] == 0xff && trak_bits_all_set(block, bits))
        return BlockKind::kOnes;
    return BlockKind::kMixed;
}

struct Layout {
    bool zeroes;
    bool ones;
    std::uint32_t data_size;  // bytes of shared and other blocks

    std::uint32_t shared() const { return (zeroes ? 1u : 0u) + (ones ? 1u : 0u); }
};

Layout measure(std::uint32_t blk_cnt, std::uint32_t blk_size, const std::uint8_t *bits) {
    Layout layout = {false, false, 0};
    for (std::uint32_t i = 0; i < blk_cnt; ++i) {
        switch (kind_of(bits + static_cast<std::size_t>(i) * blk_size, blk_size)) {
        case BlockKind::kZeroes:
            layout.zeroes = true;
            break;
        case BlockKind::kOnes:
            layout.ones = true;
            break;
        case BlockKind::kMixed:
            layout.data_size += blk_size;
            break;
        }
    }
    layout.data_size += layout.shared() * blk_size;
    return layout;
}

void fill(sa *frag, const Layout &layout, const std::uint8_t *bits) {
    const std::uint32_t blk_size = frag->blk_size;
    const std::uint32_t ones_index = layout.zeroes ? 1 : 0;
    if (layout.zeroes)
        memset(frag->data, 0, blk_size);
    if (layout.ones)
        memset(frag->data + static_cast<std::size_t>(ones_index) * blk_size, 0xff, blk_size);
    std::uint32_t next = layout.shared();
    for (std::uint32_t i = 0; i < frag->blk_cnt; ++i) {
        const std::uint8_t *block = bits + static_cast<std::size_t>(i) * blk_size;
        const BlockKind kind = kind_of(block, blk_size);
        std::uint32_t at = kind == BlockKind::kOnes ? ones_index : 0;
        if (kind == BlockKind::kMixed) {
            at = next++;
            memcpy(frag->data + static_cast<std::size_t>(at) * blk_size, block, blk_size);
        }
        frag->index[i] = static_cast<std::uint16_t>(at);
    }
}

}  // namespace

int create_sa(sa *frag, int blk_cnt, int blk_size, const std::uint8_t *bits, int dry_run) {
    if (blk_cnt < 1)
        return blk_cnt * 2;
    const auto count = static_cast<std::uint32_t>(blk_cnt);
    const auto bytes = static_cast<std::uint32_t>(blk_size);
    const Layout layout = measure(count, bytes, bits);
    const std::uint32_t index_size = count * sizeof(std::uint16_t);
    const int size = static_cast<int>(layout.data_size + index_size);
    if (dry_run != 0)
        return size;

    frag->index = static_cast<std::uint16_t *>(os_vmalloc(index_size));
    frag->data = static_cast<std::uint8_t *>(os_vmalloc(layout.data_size));
    if (frag->index == nullptr || frag->data == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return -ENOMEM;
    }
    frag->blk_cnt = count;
    frag->blk_size = bytes;
    frag->bit_mask = bytes * 8 - 1;
    frag->bit_shift = bytes < 2 ? 3 : static_cast<std::uint32_t>(trak_size_shift(bytes) + 3);
    frag->byte_shift = bytes < 2 ? 0 : static_cast<std::uint32_t>(trak_size_shift(bytes));
    fill(frag, layout, bits);
    return size;
}
