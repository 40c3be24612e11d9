// driver/snap/trak_cowthread_26.cpp: kcowd's start and end
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/trak_cowthread_26.h"

int trak_cowthread_start(trak_cowthread *, const char *, trak_device *) {
    return -EOPNOTSUPP;
}
int trak_cowthread_shutdown(trak_cowthread *) {
    return 0;
}
int trak_cowthread_abort(trak_cowthread *) {
    return 0;
}
