// os/linux/queue.c: request queues
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/blkdev.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include "os/linux/block.h"
#include "os/linux/gfp.h"

#include <compat_queue.h>

struct os_queue *os_alloc_queue(os_gfp gfp) {
    return kzalloc(sizeof(struct os_queue), os_linux_gfp(gfp));
}

/* One that has a disk goes with it. */
void os_cleanup_queue(struct os_queue *queue) {
    if (!queue->disk)
        kfree(queue);
}

void os_queue_make_request(struct os_queue *queue, os_make_request_fn fn) {
    queue->make_request = fn;
}

void os_queue_set_unplug(struct os_queue *queue, os_unplug_fn fn) {
    queue->unplug = fn;
}

void os_queue_set_data(struct os_queue *queue, void *data) {
    WRITE_ONCE(queue->data, data);
}

void *os_queue_data(const struct os_queue *queue) {
    return queue_is_foreign(queue) ? NULL : READ_ONCE(queue->data);
}

void os_queue_copy_limits(struct os_queue *to, const struct os_queue *from) {
    compat_copy_limits(disk_of_queue(to), disk_of_queue(from));
}

/* Queues hold nothing back in this kernel, tasks do: what this one has submitted may still stand in its
 * own plug, and a task that is about to wait by yielding must let it go first. The plug stays in place;
 * blk_finish_plug is what modules have to empty one. */
static void flush_own_plug(void) {
    struct blk_plug *plug = in_task() ? current->plug : NULL;

    if (!plug)
        return;
    blk_finish_plug(plug);
    current->plug = plug;
}

void os_queue_unplug(struct os_queue *queue) {
    if (!queue)
        return;
    if (!queue_is_foreign(queue) && queue->unplug)
        queue->unplug(queue);
    else
        flush_own_plug();
}
