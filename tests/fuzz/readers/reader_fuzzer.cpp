// tests/fuzz/readers/reader_fuzzer.cpp: how libFuzzer changes the inputs of the readers' program
// SPDX-License-Identifier: GPL-2.0-only
//
// Its own mutations know bytes only. Every second time a whole change of a field is made up instead:
// its width aligned, its value one of those that damage most, or near to one.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>

#include "tests/fuzz/readers/reader_program.h"

// NOLINTBEGIN(readability-identifier-naming): the names are libFuzzer's and the sanitizer's
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t most);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed);
extern "C" const char *__asan_default_options();

namespace {

using fuzz::kReaderChange;
using fuzz::kReaderHead;

// A change of one field, at data.
void make_change(std::uint8_t *data, std::minstd_rand &random) {
    static constexpr std::uint32_t kValues[] = {
        0,       1,          2,          3,          7,          8,         0x10,
        0x20,    0x7f,       0x80,       0xff,       0x100,      0x1ff,     0x200,
        0x400,   0x800,      0x1000,     0x2000,     0x7fff,     0x8000,    0xffff,
        0x10000, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff, 0x01000000};
    static constexpr std::uint8_t kFlags[] = {0, 0, 0, 0x20, 0x40, 0x80, 0x80, 0xc0};
    std::uint32_t value = kValues[random() % std::size(kValues)];
    value += random() % 4 == 0 ? static_cast<std::uint32_t>(random() % 9) - 4 : 0;
    if (random() % 2 == 0)
        value = __builtin_bswap32(value);
    const auto width = static_cast<std::uint32_t>(random() % 4);
    const auto where = static_cast<std::uint32_t>(random() % 65536) & ~((1u << width) - 1);
    data[0] = static_cast<std::uint8_t>(random());
    data[1] = static_cast<std::uint8_t>(where);
    data[2] = static_cast<std::uint8_t>(where >> 8);
    data[3] = static_cast<std::uint8_t>(width | kFlags[random() % std::size(kFlags)]);
    std::memcpy(data + 4, &value, 4);
}

// Changes the input: its new size.
std::size_t mutate(std::uint8_t *data, std::size_t size, std::size_t room,
                   std::minstd_rand &random) {
    if (random() % 2 == 0 || room < kReaderHead + kReaderChange)
        return LLVMFuzzerMutate(data, size, room);
    std::size_t changes = size > kReaderHead ? (size - kReaderHead + 7) / kReaderChange : 0;
    changes = std::min(changes, (room - kReaderHead) / kReaderChange);
    const std::size_t end = kReaderHead + changes * kReaderChange;
    if (end > size)
        std::memset(data + size, 0, end - size);
    if (random() % 4 == 0)
        data[random() % kReaderHead] = static_cast<std::uint8_t>(random());
    if (end + kReaderChange <= room && (changes == 0 || random() % 2 == 0)) {
        make_change(data + end, random);
        return end + kReaderChange;
    }
    make_change(data + kReaderHead + random() % changes * kReaderChange, random);
    return end;
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed) {
    std::minstd_rand random(seed);
    const std::size_t room = std::min(most, kReaderHead + fuzz::kMostReaderChanges * kReaderChange);
    size = mutate(data, std::min(size, room), room, random);
    // A large image costs as much as a hundred small ones and is worth a few of them.
    if (size != 0 && data[0] >= fuzz::kFirstLarge && random() % 16 != 0)
        data[0] -= 16;
    return size;
}

// Freed memory stays poisoned for as long as a run may use it; more would cost the caches only. The
// kernel of one task finds what is left behind itself, after each run. Who wants to see where memory was
// allocated repeats the input with ASAN_OPTIONS=malloc_context_size=30.
extern "C" const char *__asan_default_options() {
    return "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:malloc_context_size=0:"
           "allocator_release_to_os_interval_ms=-1:detect_leaks=0";
}
// NOLINTEND(readability-identifier-naming)
