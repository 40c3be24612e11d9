// os/linux/compat/2.6.32/queue.c: request queues of kernel 2.6.32
// SPDX-License-Identifier: GPL-2.0-only
#include <linux/blkdev.h>
#include <linux/hardirq.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include "os/linux/block.h"
#include "os/linux/gfp.h"

/* A discard may span the disk, and under a snapshot the driver keeps a record for each of its blocks: no
 * more than its pool keeps back. */
enum { max_dataless_sectors = 4096 * 8 };

/* The queuedata of a queue of ours. */
struct node_queue {
    os_make_request_fn make_request;
    os_unplug_fn unplug;
    void *data;
    bool held; /* by a disk, with which it goes */
    struct trak_under_way under_way;
};

static int node_make_request(struct request_queue *q, struct bio *bio) {
    struct node_queue *node = q->queuedata;

    trak_stat_start(bio, &node->under_way);
    node->make_request((struct os_queue *)q, (struct os_bio *)bio);
    return 0; /* anything else asks the kernel to submit it again */
}

static void node_unplug(struct request_queue *q) {
    struct node_queue *node = q->queuedata;

    if (node->unplug)
        node->unplug((struct os_queue *)q);
}

static struct node_queue *node_of(const struct os_queue *queue) {
    struct request_queue *q = real_queue(queue);

    return q->make_request_fn == node_make_request ? q->queuedata : NULL;
}

struct os_queue *os_alloc_queue(os_gfp gfp) {
    struct node_queue *node = kzalloc(sizeof(*node), os_linux_gfp(gfp));
    struct request_queue *q = node ? blk_alloc_queue(os_linux_gfp(gfp)) : NULL;

    if (!q) {
        kfree(node);
        return NULL;
    }
    blk_queue_make_request(q, node_make_request);
    q->unplug_fn = node_unplug;
    q->queuedata = node;
    trak_under_way_init(&node->under_way);
    return (struct os_queue *)q;
}

void os_cleanup_queue(struct os_queue *queue) {
    struct node_queue *node = node_of(queue);
    const bool held = node->held;

    blk_cleanup_queue(real_queue(queue));
    if (!held)
        kfree(node);
}

void trak_queue_hold(struct request_queue *queue) {
    kobject_get(&queue->kobj);
    ((struct node_queue *)queue->queuedata)->held = true;
}

void trak_queue_release(struct request_queue *queue) {
    kfree(queue->queuedata);
    blk_put_queue(queue);
}

int os_disk_drain(struct os_disk *disk, uint64_t ticks) {
    return trak_under_way_drain(&node_of(os_disk_queue(disk))->under_way, ticks);
}

void os_queue_make_request(struct os_queue *queue, os_make_request_fn fn) {
    node_of(queue)->make_request = fn;
}

void os_queue_set_unplug(struct os_queue *queue, os_unplug_fn fn) {
    node_of(queue)->unplug = fn;
}

void os_queue_set_data(struct os_queue *queue, void *data) {
    ACCESS_ONCE(node_of(queue)->data) = data;
}

void *os_queue_data(const struct os_queue *queue) {
    struct node_queue *node = node_of(queue);

    return node ? ACCESS_ONCE(node->data) : NULL;
}

/* A queue that asks about each piece of a request answers for its own device only. One page is what it
 * takes in any case. */
void os_queue_copy_limits(struct os_queue *to, const struct os_queue *from) {
    struct request_queue *q = real_queue(to), *below = real_queue(from);
    const unsigned long copied_flags = 1ul << QUEUE_FLAG_DISCARD | 1ul << QUEUE_FLAG_NONROT;
    struct queue_limits *limits = &q->limits;

    blk_set_default_limits(limits);
    limits->max_discard_sectors = 0; /* as many as below */
    blk_stack_limits(limits, &below->limits, 0);
    limits->max_discard_sectors =
        min_t(unsigned int, limits->max_discard_sectors, max_dataless_sectors);
    if (below->merge_bvec_fn) {
        limits->max_sectors = min_t(unsigned int, limits->max_sectors, PAGE_SIZE >> 9);
        limits->max_hw_sectors = limits->max_sectors;
    }
    blk_queue_dma_alignment(q, queue_dma_alignment(below));
    q->queue_flags = (q->queue_flags & ~copied_flags) | (below->queue_flags & copied_flags);
    q->queue_flags |= 1ul << QUEUE_FLAG_IO_STAT;
    q->backing_dev_info.ra_pages = below->backing_dev_info.ra_pages;
}

/* What a task submits inside a make-request function stands in a list of the task until that function
 * returns. One that is about to wait by yielding must let its clones go first, or it might wait for one
 * of them. What else stands there stays: nobody waits for it. */
static void submit_own_clones(void) {
    struct bio *list, *bio, *mine = NULL, **last_mine = &mine;

    if (in_interrupt() || !current->bio_tail)
        return;
    list = current->bio_list;
    current->bio_list = NULL;
    current->bio_tail = &current->bio_list;
    while ((bio = list) != NULL) {
        list = bio->bi_next;
        bio->bi_next = NULL;
        if (trak_bio_is_own(bio)) {
            *last_mine = bio;
            last_mine = &bio->bi_next;
        } else {
            *current->bio_tail = bio;
            current->bio_tail = &bio->bi_next;
        }
    }
    if (mine) {
        struct bio *rest = current->bio_list, **rest_tail = current->bio_tail;

        current->bio_tail = NULL; /* the next submission is carried out */
        while ((bio = mine) != NULL) {
            mine = bio->bi_next;
            bio->bi_next = NULL;
            generic_make_request(bio);
        }
        current->bio_list = rest;
        current->bio_tail = rest ? rest_tail : &current->bio_list;
    }
}

void os_queue_unplug(struct os_queue *queue) {
    if (!queue)
        return;
    submit_own_clones();
    if (!test_bit(QUEUE_FLAG_DEAD, &real_queue(queue)->queue_flags))
        blk_unplug(real_queue(queue));
}
