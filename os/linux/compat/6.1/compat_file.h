// os/linux/compat/6.1/compat_file.h: files and folders of kernel 6.1
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_COMPAT_FILE_H
#define TRAK_OS_LINUX_COMPAT_FILE_H

#include <linux/fs.h>
#include <linux/mount.h>

/* What calls that make or remove entries take first: whose ids the mount shows, as a user namespace. */
#define compat_mount_ids(mnt) mnt_user_ns(mnt)

/* Around vfs_iter_write, which leaves it to its caller to keep a freeze of the file system away. */
#define compat_start_write(file) file_start_write(file)
#define compat_end_write(file) file_end_write(file)

#include "os/linux/file_io.h"
#include "os/linux/folder.h"

#endif
