// driver/module/module.cpp: load and unload
// SPDX-License-Identifier: GPL-2.0-only
//
// Load brings up the logging buffer, the status tree, the control device and the block side, in this
// order; a step that fails undoes the ones before it. Unload goes the other way and stops at the first
// step that fails: no node and no thread may use what the later steps take away.
#include "driver/module/module.h"

#include <os_embedded.h>

#include "driver/block/lifecycle.h"
#include "driver/block/table.h"
#include "driver/control/char.h"
#include "driver/control/proc.h"
#include "driver/module/log.h"
#include "os/task.h"

extern "C" {
OS_MODULE_STATE constinit const char *kernel_version = nullptr;
}

namespace {

struct step {
    int (*up)();
    int (*down)();
    void (*drop)();  // what `up` leaves when it fails, or null for nothing
};

constexpr step steps[] = {
    {trak_debug_init, trak_debug_destroy, nullptr},
    {trak_create_proc, trak_remove_proc, trak_drop_proc},
    {trak_char_init, trak_char_destroy, nullptr},
    {trak_block_init, trak_block_destroy, nullptr},
};
constexpr int step_count = sizeof steps / sizeof steps[0];

// 0, or the error of the step that failed, with those before it undone.
int bring_up() {
    for (int i = 0; i < step_count; ++i) {
        const int rc = steps[i].up();
        if (rc != 0) {
            if (steps[i].drop != nullptr)
                steps[i].drop();
            while (--i >= 0)
                steps[i].down();
            return rc;
        }
    }
    return 0;
}

}  // namespace

int trak_init() {
    kernel_version = os_utsrelease();
    trak_table_init();
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Initializing the driver.");
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Built: %s %s", __DATE__, __TIME__);
    trak_logf(TRAK_LOG_MILESTONE, "%s(): UTS_RELEASE: %s", kernel_version);
    const int rc = bring_up();
    // After a failure this line allocates the logging buffer once more, and nobody frees it.
    trak_logf(TRAK_LOG_MILESTONE, "%s(): rc=%d", rc);
    return rc;
}

int trak_cleanup() {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): The driver is being unloaded.");
    for (int i = step_count; i-- > 0;) {
        const int rc = steps[i].down();
        if (rc != 0)
            return rc;
    }
    return 0;
}
