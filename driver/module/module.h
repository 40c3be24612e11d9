// driver/module/module.h: load and unload
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_MODULE_MODULE_H
#define TRAK_MODULE_MODULE_H

extern "C" {
// Load: 0, or the negative errno of the step that failed, with earlier steps undone; a logging buffer
// stays allocated then. Context: sleep; the platform makes one load or unload at a time.
int trak_init();
// Unload: 0, or the error of the step that failed; the later steps are then left undone, and the call
// may be made again.
int trak_cleanup();

// Release string of the kernel that the module was built for; set by the load.
extern const char *kernel_version;
}

#endif
