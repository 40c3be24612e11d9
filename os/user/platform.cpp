// os/user/platform.cpp: starting and stopping the platform
// SPDX-License-Identifier: GPL-2.0-only
#include <errno.h>
#include <signal.h>

#include <cstdlib>

#include "os/user/device.h"
#include "os/user/internal.h"
#include "os/user/ring.h"
#include "os/user/sync.h"
#include "os/user/task.h"
#include "os/user/user.h"

namespace user {

namespace {

Mutex mutex;
bool running USER_GUARDED_BY(mutex) = false;
bool thaws_at_exit USER_GUARDED_BY(mutex) = false;

constexpr unsigned kMaxDepth = 4096;

}  // namespace

int start(const Options &options, std::string *why) {
    Guard held(mutex);
    if (running) {
        if (why)
            *why = "the platform runs already";
        return -EALREADY;
    }
    if (options.queue_depth == 0 || options.queue_depth > kMaxDepth) {
        if (why)
            *why = "the queue depth must be 1 to " + std::to_string(kMaxDepth);
        return -EINVAL;
    }
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    if (!thaws_at_exit)
        atexit([] { thaw_all(); });
    thaws_at_exit = true;
    log_start(options.log_bytes);
    int rc = ring_start(options.queue_depth, why);
    running = rc == 0;
    return rc;
}

std::string leftovers() {
    std::string left = device_leftovers() + proc_leftovers() + chardev_leftovers();
    for (const DevName &name : dev_names())
        left += "special file /dev/trak/" + name.name + "\n";
    if (int references = module_references())
        left += std::to_string(references) + " references of the module\n";
    return left;
}

void stop() {
    Guard held(mutex);
    if (!running)
        return;
    join_kernel_threads();
    thaw_all();
    ring_stop();
    set_listener(nullptr);
    (void)set_tree("");
    forget_names();
    forget_proc();
    forget_chardev();
    forget_devices();
    running = false;
}

}  // namespace user
