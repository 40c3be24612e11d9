// tests/support/eventually.h: waiting for what other threads or processes bring about
// SPDX-License-Identifier: GPL-2.0-only
//
// For events that offer nothing to wait on. The limit is for a machine many times slower than yours:
// what holds is seen within a millisecond, what never holds ends the test.
#ifndef TRAK_TESTS_SUPPORT_EVENTUALLY_H
#define TRAK_TESTS_SUPPORT_EVENTUALLY_H

#include <time.h>

namespace trak_testing {

// Asks until it holds; false after two minutes.
template <typename Condition> bool eventually(Condition holds) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const time_t limit = now.tv_sec + 120;
    while (!holds()) {
        const timespec tick = {0, 1000000};
        nanosleep(&tick, nullptr);
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec > limit)
            return holds();
    }
    return true;
}

}  // namespace trak_testing

#endif
