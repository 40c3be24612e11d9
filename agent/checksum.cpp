// agent/checksum.cpp: XXH3 of 128 bits over blocks, texts and whole files
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/checksum.h"

#include "agent/files.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <xxhash.h>

namespace agent {
namespace {

constexpr uint64_t page_size = 65536;
constexpr uint64_t step_size = 1 << 20;

Hash canonical(XXH128_hash_t value) {
    XXH128_canonical_t bytes;
    XXH128_canonicalFromHash(&bytes, value);
    Hash hash;
    static_assert(sizeof(bytes.digest) == sizeof(hash));
    memcpy(hash.data(), bytes.digest, hash.size());
    return hash;
}

std::string as_text(XXH128_hash_t value) {
    std::string text = "xxh128:";
    for (uint8_t byte : canonical(value))
        text += fmt::format("{:02x}", byte);
    return text;
}

struct FreeState {
    void operator()(XXH3_state_t *state) const { XXH3_freeState(state); }
};

void add_number(XXH3_state_t *state, uint64_t number) {
    uint8_t bytes[8];
    for (int i = 0; i < 8; i++)
        bytes[i] = static_cast<uint8_t>(number >> (8 * i));
    XXH3_128bits_update(state, bytes, sizeof(bytes));
}

// The next byte at or after `at` that may hold something, rounded down to a page; -1: none.
int64_t next_data(int fd, uint64_t at, uint64_t size) {
    if (at >= size)
        return -1;
    off_t found = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
    if (found < 0)
        return errno == ENXIO ? -1 : static_cast<int64_t>(at);
    return std::max<int64_t>(static_cast<int64_t>(at), found / static_cast<int64_t>(page_size) *
                                                           static_cast<int64_t>(page_size));
}

}  // namespace

bool is_zero(const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    // Overlapping compare: equal to itself one byte on, and the first byte is 0.
    return size == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, size - 1) == 0);
}

Hash hash_block(const void *data, size_t size, uint64_t seed) {
    Hash hash = canonical(XXH3_128bits_withSeed(data, size, seed));
    if (hash == no_hash)
        hash[15] = 1;
    return hash;
}

std::string checksum_bytes(const void *data, size_t size) {
    return as_text(XXH3_128bits(data, size));
}

std::string checksum_text(const std::string &text) {
    return checksum_bytes(text.data(), text.size());
}

std::string checksum_file(const std::string &path, void (*turn)()) {
    files::Fd fd = files::open_file(path, O_RDONLY, 0);
    uint64_t size = files::size_of(path);
    std::unique_ptr<XXH3_state_t, FreeState> state(XXH3_createState());
    auto buffer = std::make_unique<uint8_t[]>(step_size);
    if (!state)
        throw Failure("no memory for a checksum", ENOMEM);
    XXH3_128bits_reset(state.get());
    for (uint64_t at = 0; at < size;) {
        if (turn)
            turn();
        int64_t data = next_data(fd.get(), at, size);
        if (data < 0)
            break;
        at = static_cast<uint64_t>(data);
        size_t got = files::read_at(fd.get(), buffer.get(), step_size, at, path);
        if (got == 0)
            break;
        for (size_t i = 0; i < got; i += page_size) {
            size_t here = std::min<size_t>(page_size, got - i);
            if (is_zero(buffer.get() + i, here))
                continue;
            add_number(state.get(), (at + i) / page_size);
            XXH3_128bits_update(state.get(), buffer.get() + i, here);
        }
        at += got;
    }
    add_number(state.get(), size);
    // It was read to be looked at once.
    (void)posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED);
    return as_text(XXH3_128bits_digest(state.get()));
}

}  // namespace agent
