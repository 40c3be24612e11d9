// driver/control/proc.h: the status tree under /proc
// SPDX-License-Identifier: GPL-2.0-only
//
// "/proc/trak" holds the module's files and one folder "trak%d" per node, of its minor. A file keeps no
// state: every read looks the node up again, and shows nothing when it is gone.
#ifndef TRAK_CONTROL_PROC_H
#define TRAK_CONTROL_PROC_H

#include "driver/block/device.h"
#include "os/proc.h"

// "/proc/trak", null when there is none.
extern os_proc_entry *trak_dir;

int trak_create_proc();  // 0 or -EINVAL, leaving what was made
int trak_remove_proc();  // 0
// Takes away, without a word, what a creation that failed has left, if anything: callbacks into the
// module must not outlive it.
void trak_drop_proc();

// A node's folder; called with the node table held for writing, or for a record that nobody else can
// reach. Context: sleep. 0 or -EINVAL, leaving nothing.
int trak_proc_add_device(trak_device *dev);
// Removes the folder if there is one: 0. Waits for reads of its files that are under way; one that
// waits for the node table itself gives up.
int trak_proc_del_device(trak_device *dev);
// Removes an entry and everything below it; null is nothing.
void trak_remove_proc_entry(os_proc_entry *entry);

// Callbacks of the files; data is the file's own entry. The text is always the whole text, whatever
// the offset: its length, or -EINVAL.
int trak_read_proc(char *page, char **start, long offset, int count, int *eof, void *data);
// count, or -EINVAL, -ENOMEM, -EFAULT.
int trak_write_proc(void *file, os_uaddr buffer, unsigned long count, void *data);

#endif
