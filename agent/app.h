// agent/app.h: one command from its words to its exit status
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "lib/trak.h"

#include <functional>
#include <iosfwd>

namespace agent {

// What surrounds a run; tests put their own in.
struct World {
    std::ostream *out, *err;
    std::function<int(const char *root, trak **out, char *why)> open;  // as trak_open()
    bool err_is_terminal = false;
    unsigned columns = 80;
};

// 0; 1 failed; 2 wrong usage; 3 an audit found differences; 130 interrupted.
int run(int argc, const char *const *argv, const World &world);

}  // namespace agent
