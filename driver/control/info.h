// driver/control/info.h: the information commands
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_CONTROL_INFO_H
#define TRAK_CONTROL_INFO_H

#include "abi/trak_ioctl.h"
#include "driver/block/device.h"

int trak_ioctl_get_device_list(trak_device_list_arg *arg);
int trak_ioctl_get_info(trak_device *dev, trak_info_arg *arg);

#endif
