// driver/block/request.h: the path of every request to a node
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_BLOCK_REQUEST_H
#define TRAK_BLOCK_REQUEST_H

#include "os/bio.h"
#include "os/disk.h"

// The make-request function of every node: 0 once the bio was handed on or ended. Context: sleep, in
// the submitter's task.
int trak_make_request(os_queue *queue, os_bio *bio);

#endif
