// driver/block/kdirtyd.cpp: the thread that writes dirty flags into bitmap files
// SPDX-License-Identifier: GPL-2.0-only
//
// The request path sets the first bit of a clean bitmap and can't do file I/O: it queues a request
// here. The thread takes the oldest request, leaves it in the list while it serves it (so that who
// waits for a filter's requests sees it), and then takes it out.
//
// Three parties take requests out: the thread, who alone removes the one that it serves; the stop,
// after the thread has gone; and a filter's destroy that has waited long enough. The destroy can't
// wait for a flag write without end: it holds the node table for writing, and the file may lie on
// another node, whose requests need the table. So it leaves its record to the thread instead.
#include "driver/block/kdirtyd.h"

#include <os_embedded.h>

#include "driver/block/bitmap_file.h"
#include "driver/block/lock_ranks.h"
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "os/memory.h"
#include "os/task.h"
#include "os/time.h"
#include "os/wait.h"

namespace {

constexpr const char *thread_name = "kdirtyd";
constexpr std::uint64_t jiffies_per_second = 1000;

struct dirty_request {
    trak_list link;
    std::uint32_t valid;  // by req_spin: 0 once killed
    trak_filter *filter;
    std::int32_t type;
    std::uint32_t served;     // by req_spin: 1 while the thread works on it
    trak_device *free_after;  // by req_spin: the filter's record, when it is the thread's to free
};

OS_MODULE_STATE constinit trak_list req_list{};
OS_MODULE_STATE constinit trak_atomic32 req_cnt{};
OS_MODULE_STATE constinit os_spinlock req_spin{};
OS_MODULE_STATE constinit os_wait_queue_head req_wait{};
OS_MODULE_STATE constinit std::int32_t kdirtyd_started = 0;
OS_MODULE_STATE constinit std::int32_t kdirtyd_abort = 0;
OS_MODULE_STATE constinit os_completion kdirtyd_exited{};

dirty_request *request_of(trak_list *link) {
    return trak_container_of(link, dirty_request, link);
}

bool abort_asked() {
    return trak_read_once(kdirtyd_abort) != 0;
}

// Under req_spin.
void unlink_request(dirty_request *request) {
    trak_list_del(&request->link);
    req_cnt.sub(1);
}

void wait_for_requests() {
    os_wait_entry entry;
    os_init_wait_entry(&entry);
    os_prepare_to_wait(&req_wait, &entry, OS_WAIT_INTERRUPTIBLE);
    while (req_cnt.load() == 0 && !abort_asked() && !os_signal_pending()) {
        os_schedule();
        os_prepare_to_wait(&req_wait, &entry, OS_WAIT_INTERRUPTIBLE);
    }
    os_finish_wait(&req_wait, &entry);
}

// The oldest request, from now on the thread's, or null.
dirty_request *take_head() {
    const trak_spin_guard spin(&req_spin);
    if (trak_list_empty(&req_list))
        return nullptr;
    dirty_request *request = request_of(req_list.next);
    request->served = 1;
    return request;
}

bool is_valid(const dirty_request *request) {
    const trak_spin_guard spin(&req_spin);
    return request->valid != 0;
}

// A save kills requests while it holds the mutex, hence the second look. A bitmap that is clean again
// was saved after the bit that this request stands for: the flag would cut off a good file.
void serve(const dirty_request *request) {
    if (!is_valid(request))
        return;
    const zumutex_guard mutex(&request->filter->bmp_mutex);
    const auto type = static_cast<std::uint32_t>(request->type);
    if (is_valid(request) && trak_block_bmp_is_dirty(request->filter, type))
        trak_block_write_dirty_flag(request->filter, type, 1);
}

void finish(dirty_request *request) {
    {
        const trak_spin_guard spin(&req_spin);
        unlink_request(request);
    }
    // Out of the list, the request is known to nobody else, nor is a record that was left to it.
    os_kfree(request->free_after);
    os_kfree(request);
}

void drop_all_requests() {
    for (;;) {
        dirty_request *request = nullptr;
        {
            const trak_spin_guard spin(&req_spin);
            if (trak_list_empty(&req_list))
                return;
            request = request_of(req_list.next);
            unlink_request(request);
        }
        os_kfree(request);
    }
}

int kdirtyd(void *) {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Started.");
    os_daemonize(thread_name);
    while (!abort_asked()) {
        trak_logf(TRAK_LOG_COMMAND, "%s(): Waiting for dirty requests to come...");
        wait_for_requests();
        if (abort_asked())
            break;
        trak_logf(TRAK_LOG_COMMAND, "%s(): Got %d requests in queue", req_cnt.load());
        dirty_request *request = take_head();
        if (request == nullptr) {
            os_yield();  // woken by a signal
            continue;
        }
        serve(request);
        finish(request);
    }
    drop_all_requests();
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Terminated.");
    os_complete_and_exit(&kdirtyd_exited, 0);
    return 0;
}

bool has_requests(const trak_filter *filter) {
    const trak_spin_guard spin(&req_spin);
    for (trak_list *link = req_list.next; link != &req_list; link = link->next) {
        if (request_of(link)->filter == filter)
            return true;
    }
    return false;
}

}  // namespace

int trak_start_kdirtyd() {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Starting kdirtyd");
    if (kdirtyd_started != 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): kdirtyd has already been started.");
        return -EALREADY;
    }
    trak_list_init(&req_list);
    os_spin_lock_init(&req_spin, &trak_rank_req_spin);
    os_init_waitqueue_head(&req_wait);
    os_init_completion(&kdirtyd_exited);
    req_cnt.store(0);
    trak_write_once(kdirtyd_abort, 0);
    const int rc = os_kernel_thread(kdirtyd, nullptr,
                                    OS_CLONE_FS | OS_CLONE_FILES | OS_CLONE_SIGHAND, thread_name);
    if (rc < 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to start kdirtyd: rc=%d", rc);
        return rc;
    }
    kdirtyd_started = 1;
    trak_logf(TRAK_LOG_COMMAND, "%s(): kdirtyd has been started successfully: pid=%d", rc);
    return 0;
}

int trak_stop_kdirtyd() {
    trak_logf(TRAK_LOG_MILESTONE, "%s(): Stopping kdirtyd");
    if (kdirtyd_started == 0) {
        trak_logf(TRAK_LOG_ERROR, "%s(): kdirtyd is not running.");
        return -ESRCH;
    }
    trak_write_once(kdirtyd_abort, 1);
    os_wake_up(&req_wait);
    os_wait_for_completion(&kdirtyd_exited);
    kdirtyd_started = 0;
    drop_all_requests();  // what was queued after the thread's last look
    trak_logf(TRAK_LOG_COMMAND, "%s(): kdirtyd has been stopped successfully");
    return 0;
}

int trak_sched_write_dirty_flag(trak_filter *filter, std::int32_t type) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Appending dirty request for %s bitmap of trak(%d, %d)",
              trak_bmp_type_name(static_cast<std::uint32_t>(type)), trak_blk_major,
              filter->part_minor);
    auto *request = static_cast<dirty_request *>(os_kzalloc(sizeof(dirty_request), OS_GFP_NOIO));
    if (request == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failure");
        return -ENOMEM;
    }
    request->valid = 1;
    request->filter = filter;
    request->type = type;
    {
        const trak_spin_guard spin(&req_spin);
        trak_list_add_tail(&request->link, &req_list);
        req_cnt.add(1);
    }
    os_wake_up(&req_wait);
    return 0;
}

int trak_kill_dirty_requests(trak_filter *filter, std::int32_t type) {
    trak_logf(TRAK_LOG_COMMAND, "%s(): Killing all dirty requests for %s bitmap of trak(%d, %d)",
              trak_bmp_type_name(static_cast<std::uint32_t>(type)), trak_blk_major,
              filter->part_minor);
    const trak_spin_guard spin(&req_spin);
    for (trak_list *link = req_list.next; link != &req_list; link = link->next) {
        dirty_request *request = request_of(link);
        if (request->filter == filter && request->type == type)
            request->valid = 0;
    }
    return 0;
}

int trak_yield_to_dirty_requests(trak_filter *filter, int seconds) {
    const std::uint64_t deadline =
        os_jiffies() +
        (seconds >= 1 ? static_cast<std::uint64_t>(seconds) * jiffies_per_second : 0);
    while (has_requests(filter)) {
        if (seconds < 1)
            continue;
        os_yield();
        if (os_jiffies() > deadline) {
            trak_logf(TRAK_LOG_ERROR,
                      "%s(): There are still some dirty requests pending for trak(%d, %d). "
                      "Continuing anyway...",
                      trak_blk_major, filter->part_minor);
            return -ETIMEDOUT;
        }
    }
    return 0;
}

void trak_free_after_dirty_requests(trak_device *filter) {
    trak_list dropped;
    trak_list_init(&dropped);
    bool left_to_thread = false;
    {
        const trak_spin_guard spin(&req_spin);
        for (trak_list *link = req_list.next, *next = nullptr; link != &req_list; link = next) {
            next = link->next;
            dirty_request *request = request_of(link);
            if (request->filter != &filter->filter)
                continue;
            request->valid = 0;
            if (request->served != 0) {
                request->free_after = filter;
                left_to_thread = true;
                continue;
            }
            unlink_request(request);
            trak_list_add_tail(link, &dropped);
        }
    }
    while (!trak_list_empty(&dropped)) {
        dirty_request *request = request_of(dropped.next);
        trak_list_del(&request->link);
        os_kfree(request);
    }
    if (!left_to_thread)
        os_kfree(filter);
}
