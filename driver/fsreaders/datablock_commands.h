// driver/fsreaders/datablock_commands.h: the data-block commands and the self-test
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_DATABLOCK_COMMANDS_H
#define TRAK_FSREADERS_DATABLOCK_COMMANDS_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"

// -EOPNOTSUPP until the readers of file systems come.
int trak_ioctl_get_datablock_bmp(trak_device *dev, trak_datablock_arg *arg);
int trak_ioctl_test_datablock(trak_test_datablock_arg *arg);

#endif
