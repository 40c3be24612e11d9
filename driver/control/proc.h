// driver/control/proc.h: the status tree under /proc
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_CONTROL_PROC_H
#define TRAK_CONTROL_PROC_H

#include "driver/block/device.h"
#include "os/proc.h"

int trak_create_proc();                      // 0 or -EINVAL, leaving what was made
int trak_remove_proc();                      // 0
int trak_proc_add_device(trak_device *dev);  // 0 or -EINVAL, leaving nothing
int trak_proc_del_device(trak_device *dev);  // 0
void trak_remove_proc_entry(os_proc_entry *entry);

#endif
