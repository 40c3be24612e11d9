// driver/utils/atomic.h: counters and flags that several tasks change without a lock
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_UTILS_ATOMIC_H
#define TRAK_UTILS_ATOMIC_H

#include <cstdint>

// Trivial types, so that they may live in unions and zeroed memory. All operations are sequentially
// consistent; add and sub return the new value.
struct trak_atomic32 {
    std::int32_t value;

    std::int32_t load() const { return __atomic_load_n(&value, __ATOMIC_SEQ_CST); }
    void store(std::int32_t v) { __atomic_store_n(&value, v, __ATOMIC_SEQ_CST); }
    std::int32_t add(std::int32_t n) { return __atomic_add_fetch(&value, n, __ATOMIC_SEQ_CST); }
    std::int32_t sub(std::int32_t n) { return __atomic_sub_fetch(&value, n, __ATOMIC_SEQ_CST); }
};

// A plain field that one task writes under a lock and others read without it.
template <typename T> inline T trak_read_once(const T &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <typename T> inline void trak_write_once(T &field, T v) {
    __atomic_store_n(&field, v, __ATOMIC_RELAXED);
}

#endif
