// os/linux/under_way.h: how many requests are under way in a node
// SPDX-License-Identifier: GPL-2.0-only
//
// Counted by turns, so that who waits for those that came before need not wait for those that come
// meanwhile: the wait begins another turn and ends when the count of the one before is 0.
#ifndef TRAK_OS_LINUX_UNDER_WAY_H
#define TRAK_OS_LINUX_UNDER_WAY_H

#include <linux/mutex.h> /* atomic_t, wherever this kernel has it */
#include <linux/types.h>

struct trak_under_way {
    atomic_t cnt[2];
    atomic_t turn;     /* the low bit says which of them counts who comes */
    atomic_t draining; /* 1: somebody waits, and nobody else may turn */
};

void trak_under_way_init(struct trak_under_way *under_way);

/* The turn in which the request came, for its end. Context: any. */
static inline int trak_under_way_enter(struct trak_under_way *under_way) {
    const int turn = atomic_read(&under_way->turn) & 1;

    atomic_inc(&under_way->cnt[turn]);
    return turn;
}

static inline void trak_under_way_leave(struct trak_under_way *under_way, int turn) {
    atomic_dec(&under_way->cnt[turn]);
}

/* As os_disk_drain. Context: sleep. */
int trak_under_way_drain(struct trak_under_way *under_way, u64 ticks);

#endif
