// driver/snap/routing.cpp: requests that involve snapshots
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/routing.h"

int trak_route_snap_request(trak_device *, os_bio *, os_gfp) {
    return -EOPNOTSUPP;
}
int trak_route_filter_request(trak_device *, os_bio *, os_gfp) {
    return -EOPNOTSUPP;
}
