// driver/fsreaders/datablock_commands.h: the data-block commands and the self-test
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_DATABLOCK_COMMANDS_H
#define TRAK_FSREADERS_DATABLOCK_COMMANDS_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"

// The snap's bitmap at the extent size of the caller; the node table is held for reading. 0 or a
// negative errno.
int trak_ioctl_get_datablock_bmp(trak_device *dev, trak_datablock_arg *arg);
int trak_ioctl_test_datablock(trak_test_datablock_arg *arg);

#endif
