// os/linux/under_way.c: waits for the requests that came to a node before
// SPDX-License-Identifier: GPL-2.0-only
#include "os/linux/under_way.h"

#include <linux/errno.h>
#include <linux/sched.h>

#include "os/time.h"

void trak_under_way_init(struct trak_under_way *under_way) {
    atomic_set(&under_way->cnt[0], 0);
    atomic_set(&under_way->cnt[1], 0);
    atomic_set(&under_way->turn, 0);
    atomic_set(&under_way->draining, 0);
}

/* A tick of sleep, or -EAGAIN where the deadline is over. */
static int wait_a_little(u64 deadline) {
    if (os_jiffies() > deadline)
        return -EAGAIN;
    schedule_timeout_uninterruptible(1);
    return 0;
}

/* Two turns: a request may have read the turn just before it changed, and counts in the one that is over;
 * and a wait that gave up may have left some in the one that begins. */
int trak_under_way_drain(struct trak_under_way *under_way, u64 ticks) {
    const u64 deadline = os_jiffies() + ticks;
    int turns, before, rc = 0;

    while (atomic_cmpxchg(&under_way->draining, 0, 1) != 0) {
        rc = wait_a_little(deadline);
        if (rc != 0)
            return rc;
    }
    for (turns = 0; turns < 2 && rc == 0; turns++) {
        before = (atomic_inc_return(&under_way->turn) - 1) & 1;
        while (rc == 0 && atomic_read(&under_way->cnt[before]) != 0)
            rc = wait_a_little(deadline);
    }
    atomic_set(&under_way->draining, 0);
    return rc;
}
