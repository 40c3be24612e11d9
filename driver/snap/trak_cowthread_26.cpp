// driver/snap/trak_cowthread_26.cpp: kcowd: its start, its end and its loop
// SPDX-License-Identifier: GPL-2.0-only
//
// Life      not running (pid 0) -> running (start) -> ended by shutdown, once the queue is empty, or by
//           abort. A thread that can't get its working set says so (`failed`) and ends by itself;
//           whoever looks next takes its record back.
// Locks     `serving` goes back to 0 and `stop` to 1 with the filter's snap_rwlock held for writing,
//           under which no request decides whether to queue: a request is queued only while the
//           thread will still look at it. A start takes no lock: it must not wait for requests.
#include "driver/snap/trak_cowthread_26.h"

#include "driver/block/device.h"
#include "driver/block/locks.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/snap/cow_work.h"
#include "driver/utils/string.h"
#include "os/task.h"

namespace {

constexpr unsigned long kCloneFlags = OS_CLONE_FS | OS_CLONE_FILES | OS_CLONE_SIGHAND;
constexpr char kWorker[] = "cow_worker";

void free_work(cow_work *work) {
    if (work == nullptr)
        return;
    for (std::uint32_t i = 0; i < kGroupPages; ++i) {
        if (work->pages != nullptr && work->pages[i] != nullptr)
            os_free_page(work->pages[i]);
        if (work->bios != nullptr && work->bios[i] != nullptr)
            os_bio_put(work->bios[i]);
    }
    os_kfree(work->pages);
    os_kfree(work->bios);
    os_kfree(work->chunks);
    os_kfree(work);
}

bool fill_work(cow_work *work) {
    work->pages = static_cast<os_page **>(os_kzalloc(kGroupPages * sizeof(os_page *), OS_GFP_NOIO));
    work->bios = static_cast<os_bio **>(os_kzalloc(kGroupPages * sizeof(os_bio *), OS_GFP_NOIO));
    work->chunks =
        static_cast<std::uint32_t *>(os_kzalloc(kGroupPages * sizeof(std::uint32_t), OS_GFP_NOIO));
    if (work->pages == nullptr || work->bios == nullptr || work->chunks == nullptr)
        return false;
    for (std::uint32_t i = 0; i < kGroupPages; ++i) {
        work->pages[i] = os_alloc_page(OS_GFP_NOIO);
        if (work->pages[i] == nullptr)
            return false;
        work->bios[i] = os_bio_alloc(OS_GFP_NOIO, 1);
        if (work->bios[i] == nullptr)
            return false;
    }
    return true;
}

// Null where memory is short.
cow_work *make_work(trak_cowthread *thread) {
    auto *work = static_cast<cow_work *>(os_kzalloc(sizeof(cow_work), OS_GFP_NOIO));
    if (work == nullptr)
        return nullptr;
    work->thread = thread;
    work->filter = thread->owner;
    if (fill_work(work))
        return work;
    free_work(work);
    return nullptr;
}

bool is_stopping(const cow_work *work) {
    return trak_read_once(work->thread->stop) != 0;
}

// Sleeps until there is a request or the thread shall end.
void wait_for_work(cow_work *work) {
    trak_cowqueue *queue = &work->filter->filter.cowqueue;
    os_wait_entry entry;
    os_init_wait_entry(&entry);
    os_prepare_to_wait(&queue->wait, &entry, OS_WAIT_UNINTERRUPTIBLE);
    while (queue->cnt.load() == 0 && !is_stopping(work)) {
        os_schedule();
        os_prepare_to_wait(&queue->wait, &entry, OS_WAIT_UNINTERRUPTIBLE);
    }
    os_finish_wait(&queue->wait, &entry);
    trak_log(TRAK_LOG_REQUEST, "%s(): mark: wait_event() is over.", kWorker);
}

cow_request *head_of(cow_work *work) {
    trak_cowqueue *queue = &work->filter->filter.cowqueue;
    const trak_spin_guard guard(&queue->spin);
    if (trak_list_empty(&queue->requests))
        return nullptr;
    return trak_container_of(queue->requests.next, cow_request, link);
}

// The node that the bio was addressed to, or null. It must be the one that the device was made for, not
// one that took its minor.
trak_device *node_of(const os_bio *bio) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    os_bdev *bdev = os_bio_bdev(bio);
    trak_device *dev = trak_find_device(os_minor(os_bdev_dev(bdev)));
    os_queue *queue = os_disk_queue(os_bdev_disk(bdev));
    return queue != nullptr && dev == os_queue_data(queue) ? dev : nullptr;
}

// Works on the head request, whose node says what it is.
void serve(cow_work *work, cow_request *head) TRAK_REQUIRES_SHARED(trak_blkdev_rwlock) {
    trak_device *dev = node_of(head->bio);
    if (dev == work->filter) {
        cow_serve_filter_request(work, head);
        return;
    }
    if (dev != nullptr && dev->dev_type == TRAK_DEV_SNAP && dev->snap.filter == work->filter) {
        cow_serve_read(work, dev, head);
        return;
    }
    if (dev == nullptr)
        trak_log(TRAK_LOG_ERROR, "%s(): Request to unknown block device in COW request queue",
                 kWorker);
    else
        trak_log(TRAK_LOG_ERROR, "%s(): Request to unknown trak(%d, %d) in trak(%d, %d) queue",
                 kWorker, trak_blk_major, dev->minor, trak_blk_major, work->filter->minor);
    cow_finish_with(work, head, -EIO);
}

void run(cow_work *work) {
    while (!is_stopping(work)) {
        wait_for_work(work);
        if (is_stopping(work))
            return;
        const zuread_guard guard(&trak_blkdev_rwlock);
        if (cow_request *head = head_of(work))
            serve(work, head);
    }
}

int cowthread(void *arg) {
    auto *thread = static_cast<trak_cowthread *>(arg);
    trak_log(TRAK_LOG_MILESTONE, "%s(): Initializing...", kWorker);
    os_daemonize(thread->name);
    cow_work *work = make_work(thread);
    if (work == nullptr) {
        trak_log(TRAK_LOG_ERROR, "%s(): Memory allocation failed.", kWorker);
        trak_write_once(thread->failed, 1u);
        os_complete(&thread->ready);
        os_complete_and_exit(&thread->exited, 0);
        return 0;
    }
    trak_log(TRAK_LOG_MILESTONE, "%s(): COW will be done in groups of %d bytes", kWorker,
             1 << kGroupShift);
    trak_log(TRAK_LOG_MILESTONE, "%s(): Preallocated %d pages and %d bio for %d chunks", kWorker,
             static_cast<int>(kGroupPages), static_cast<int>(kGroupPages),
             static_cast<int>(kGroupPages));
    trak_write_once(thread->serving, 1u);
    os_complete(&thread->ready);
    run(work);
    free_work(work);
    os_complete_and_exit(&thread->exited, 0);
    return 0;
}

// Asks the thread to end and waits for it.
void end_thread(trak_cowthread *thread) {
    trak_filter *filter = &thread->owner->filter;
    zuwrite_lock(&filter->snap_rwlock);
    trak_write_once(thread->stop, 1u);
    zuwrite_unlock(&filter->snap_rwlock);
    os_wake_up(&filter->cowqueue.wait);
    os_wait_for_completion(&thread->exited);
}

void forget_thread(trak_cowthread *thread, zurwlock *lock) {
    const zuwrite_guard guard(lock);
    memset(thread, 0, sizeof(*thread));
}

bool queue_is_empty(trak_cowqueue *queue) {
    const trak_spin_guard guard(&queue->spin);
    return trak_list_empty(&queue->requests);
}

}  // namespace

void cow_finish(cow_work *work, cow_request *request) {
    trak_cowqueue *queue = &work->filter->filter.cowqueue;
    {
        const trak_spin_guard guard(&queue->spin);
        trak_cowqueue_remove(queue, request);
    }
    os_wake_up(&queue->wait);
}

void cow_finish_with(cow_work *work, cow_request *request, int error) {
    os_bio *bio = request->bio;
    cow_finish(work, request);
    os_bio_endio(bio, error);
}

int trak_cowthread_start(trak_cowthread *thread, const char *name, trak_device *filter) {
    if (thread == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): NULL thread pointer passed as input");
        return -EINVAL;
    }
    if (thread->pid != 0 && trak_read_once(thread->failed) != 0) {
        os_wait_for_completion(&thread->exited);
        thread->pid = 0;
    }
    if (thread->pid != 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): COW thread is already running: pid=%d", thread->pid);
        return -EALREADY;
    }
    // Requests look at `serving` and `stop`, which are 0 in a thread that does not run.
    trak_write_once(thread->failed, 0u);
    thread->owner = filter;
    trak_strncpy0(thread->name, name == nullptr || name[0] == '\0' ? "kcowd" : name,
                  sizeof(thread->name));
    os_init_completion(&thread->exited);
    os_init_completion(&thread->ready);
    const int pid = os_kernel_thread(cowthread, thread, kCloneFlags, thread->name);
    if (pid < 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to start COW thread %s: rc=%d", thread->name, pid);
        return pid;
    }
    thread->pid = pid;
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Successfully started COW thread %s. pid=%d...",
              thread->name, pid);
    return 0;
}

int trak_cowthread_wait_ready(trak_cowthread *thread) {
    if (trak_read_once(thread->failed) == 0) {
        os_wait_for_completion(&thread->ready);
        os_complete(&thread->ready);  // for whoever asks next
    }
    return trak_read_once(thread->failed) != 0 ? -ENOMEM : 0;
}

int trak_cowthread_shutdown(trak_cowthread *thread) {
    if (thread == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): NULL thread pointer passed as input");
        return -EINVAL;
    }
    if (thread->pid == 0)
        return 0;
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Stopping COW thread %s (pid=%d)...", thread->name,
              thread->pid);
    trak_device *filter = thread->owner;
    trak_cowqueue *queue = &filter->filter.cowqueue;
    while (trak_read_once(thread->failed) == 0 && !queue_is_empty(queue))
        os_yield();
    end_thread(thread);
    forget_thread(thread, &filter->filter.snap_rwlock);
    // What came between the look and the end has nobody to serve it.
    if (!queue_is_empty(queue))
        trak_cowqueue_purge(queue);
    return 0;
}

int trak_cowthread_abort(trak_cowthread *thread) {
    if (thread == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): NULL thread pointer passed as input");
        return -EINVAL;
    }
    if (thread->pid == 0)
        return 0;
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Aborting COW thread %s (pid=%d)...", thread->name,
              thread->pid);
    trak_device *filter = thread->owner;
    end_thread(thread);
    trak_cowqueue_purge(&filter->filter.cowqueue);
    forget_thread(thread, &filter->filter.snap_rwlock);
    return 0;
}
