// driver/fsreaders/datablock_commands.cpp: the data-block commands and the self-test
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/fsreaders/datablock_commands.h"

#include "driver/module/log.h"

int trak_ioctl_get_datablock_bmp(trak_device *, trak_datablock_arg *) {
    trak_logf(TRAK_LOG_ERROR, "%s(): No file system can be read yet.");
    return -EOPNOTSUPP;
}

int trak_ioctl_test_datablock(trak_test_datablock_arg *) {
    trak_logf(TRAK_LOG_ERROR, "%s(): No file system can be read yet.");
    return -EOPNOTSUPP;
}
