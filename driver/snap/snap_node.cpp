// driver/snap/snap_node.cpp: creation, start, stop and resume of snap nodes
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/snap/snap_node.h"

int trak_ioctl_add_snap_node(trak_add_snap_arg *) {
    return -EOPNOTSUPP;
}
int trak_ioctl_resume_snap(trak_resume_arg *) {
    return -EOPNOTSUPP;
}
int trak_snap_start(trak_device *) {
    return -EOPNOTSUPP;
}
void trak_snap_read_data_blocks(trak_device *) {}
int trak_snap_stop(trak_device *, int *postponed) {
    *postponed = 0;
    return -EOPNOTSUPP;
}
trak_device *trak_snap_next_to_stop(trak_device *) {
    return nullptr;
}
void trak_snap_detach(trak_device *snap, int) {
    trak_list_del(&snap->snap.snap_link);
}
bool trak_snap_takes_part(const trak_device *snap) {
    return trak_read_once(snap->started) != 0 && trak_read_once(snap->snap.snap_valid) != 0;
}
