// driver/block/bitmap_commands.h: the seven commands on change bitmaps
// SPDX-License-Identifier: GPL-2.0-only
//
// Each runs with the node table held for reading, and returns 0 or a negative errno. A failed command
// leaves the bitmap as it was (but for a failed load, see trak_block_load_bmp); a bitmap that could not be
// saved after the change stays dirty.
#ifndef TRAK_BLOCK_BITMAP_COMMANDS_H
#define TRAK_BLOCK_BITMAP_COMMANDS_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"

int trak_ioctl_get_bmp(trak_device *dev, trak_bmp_data_arg *arg);
// Every write is in the map that the caller gets or in the one that starts here.
int trak_ioctl_get_and_clr_bmp(trak_device *dev, trak_bmp_data_arg *arg);
int trak_ioctl_clr_bmp(trak_device *dev, trak_bmp_arg *arg);
int trak_ioctl_set_bmp(trak_device *dev, trak_bmp_data_arg *arg);
int trak_ioctl_merge_bmp(trak_device *dev, trak_bmp_data_arg *arg);
int trak_ioctl_save_bmp(trak_device *dev, trak_bmp_arg *arg);
int trak_ioctl_load_bmp(trak_device *dev, trak_bmp_arg *arg);

#endif
