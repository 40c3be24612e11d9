// os/linux/compat/6.12/compat_file.h: files and folders of kernel 6.12
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_LINUX_COMPAT_FILE_H
#define TRAK_OS_LINUX_COMPAT_FILE_H

#include <linux/fs.h>
#include <linux/mount.h>

/* What calls that make or remove entries take first: whose ids the mount shows, as an identity map. */
#define compat_mount_ids(mnt) mnt_idmap(mnt)

/* Around vfs_iter_write, which keeps a freeze of the file system away itself. */
#define compat_start_write(file) ((void)(file))
#define compat_end_write(file) ((void)(file))

#include "os/linux/file_io.h"
#include "os/linux/folder.h"

#endif
