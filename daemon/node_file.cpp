// daemon/node_file.cpp: reads, writes and flushes of a node's file
// SPDX-License-Identifier: GPL-2.0-only
//
// A request is handed to the node's queue by the thread that took it from the kernel, and answered
// by the completion: no thread waits for it. The order at the end of a write is: count it out of
// the gate, answer, free. After the answer the open may go away, so nothing touches it then.
#include "daemon/node_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "daemon/receivers.h"

namespace trakd {

struct NodeIo {
    enum class Kind : std::uint8_t { kRead, kWrite, kFlush };
    fuse_req_t req = nullptr;
    NodeOpen *open = nullptr;
    Kind kind = Kind::kRead;
    std::uint32_t rw = 0;
    std::uint64_t offset = 0;  // bytes, whole sectors
    std::size_t size = 0;
    Buffer buffer;
    std::uint8_t *data = nullptr;  // in the buffer
    std::size_t answer_skip = 0;   // of a read: where in the data the answer begins
    std::size_t answer_size = 0;
};

namespace {

constexpr std::uint64_t kSectorMask = OS_SECTOR_SIZE - 1;
// Payloads up to this size are copied to memory of their own size; larger ones keep the memory
// that they were received in.
constexpr std::size_t kCopied = std::size_t{32} << 10;

std::atomic<std::uint64_t> g_pending{0};

constexpr std::uint64_t sector_floor(std::uint64_t offset) {
    return offset & ~kSectorMask;
}
constexpr std::uint64_t sector_ceil(std::uint64_t offset) {
    return (offset + kSectorMask) & ~kSectorMask;
}

void answer(const NodeIo &io, int error) {
    if (error != 0) {
        fuse_reply_err(io.req, -error);
    } else if (io.kind == NodeIo::Kind::kRead) {
        fuse_reply_buf(io.req, reinterpret_cast<const char *>(io.data) + io.answer_skip,
                       io.answer_size);
    } else if (io.kind == NodeIo::Kind::kWrite) {
        fuse_reply_write(io.req, io.answer_size);
    } else {
        fuse_reply_err(io.req, 0);
    }
}

// Completion of a request. Interrupt context of the driver.
void done(void *data, int error) {
    const std::unique_ptr<NodeIo> io(static_cast<NodeIo *>(data));
    if (io->kind == NodeIo::Kind::kWrite) {
        io->open->file->leave();
    }
    answer(*io, error);
    g_pending.fetch_sub(1);
}

void submit(NodeIo *io) {
    if (io->kind == NodeIo::Kind::kWrite && !io->open->file->enter(io)) {
        return;
    }
    user::submit(io->open->bdev, io->rw, io->offset, io->data, io->size, done, io);
}

std::unique_ptr<NodeIo> new_io(fuse_req_t req, NodeOpen *open, NodeIo::Kind kind) {
    auto io = std::unique_ptr<NodeIo>(new (std::nothrow) NodeIo);
    if (io == nullptr) {
        fuse_reply_err(req, ENOMEM);
        return io;
    }
    io->req = req;
    io->open = open;
    io->kind = kind;
    return io;
}

void start(std::unique_ptr<NodeIo> io) {
    g_pending.fetch_add(1);
    submit(io.release());
}

// The data of a write, in memory that stays until it is done.
bool keep_payload(NodeIo *io, const char *data, std::size_t size) {
    if (size > kCopied) {
        io->buffer = Receivers::take_payload(data);
        if (io->buffer) {
            io->data = io->buffer.data() + kPage;
            return true;
        }
    }
    io->buffer = Buffer::get(size);
    if (!io->buffer) {
        return false;
    }
    io->data = io->buffer.data();
    std::memcpy(io->data, data, size);
    return true;
}

std::uint32_t write_flags(int open_flags) {
    return OS_BIO_WRITE | ((open_flags & O_DSYNC) != 0 ? OS_BIO_FUA : 0);
}

// Reads the sector at `at` into `to`. Context: a worker.
int read_sector(NodeOpen *open, std::uint64_t at, std::uint8_t *to) {
    return user::submit_wait(open->bdev, 0, at, to, OS_SECTOR_SIZE);
}

// A write with a part of a sector at an end, with the gate closed. data is null for zeroes.
int write_parts(NodeOpen *open, std::uint32_t rw, std::uint64_t offset, const std::uint8_t *data,
                std::size_t size) {
    const std::uint64_t first = sector_floor(offset);
    const std::uint64_t end = sector_ceil(offset + size);
    Buffer buffer = Buffer::get(end - first);
    if (!buffer) {
        return -ENOMEM;
    }
    if (first != offset) {
        if (const int rc = read_sector(open, first, buffer.data()); rc != 0) {
            return rc;
        }
    }
    const std::uint64_t last = end - OS_SECTOR_SIZE;
    if (end != offset + size && (last != first || first == offset)) {
        if (const int rc = read_sector(open, last, buffer.data() + (last - first)); rc != 0) {
            return rc;
        }
    }
    if (data != nullptr) {
        std::memcpy(buffer.data() + (offset - first), data, size);
    } else {
        std::memset(buffer.data() + (offset - first), 0, size);
    }
    return user::submit_wait(open->bdev, rw, first, buffer.data(), end - first);
}

int write_alone(NodeOpen *open, std::uint32_t rw, std::uint64_t offset, const std::uint8_t *data,
                std::size_t size) {
    open->file->close_gate();
    const int rc = write_parts(open, rw, offset, data, size);
    open->file->open_gate();
    return rc;
}

}  // namespace

std::uint64_t node_io_pending() {
    return g_pending.load();
}

bool NodeFile::enter(NodeIo *io) {
    std::uint64_t gate = gate_.load();
    for (;;) {
        if ((gate & kClosed) != 0) {
            const std::lock_guard lock(mutex_);
            if ((gate_.load() & kClosed) != 0) {
                parked_.push_back(io);
                return false;
            }
            gate = gate_.load();
        } else if (gate_.compare_exchange_weak(gate, gate + 1)) {
            return true;
        }
    }
}

void NodeFile::enter_waiting() {
    std::uint64_t gate = gate_.load();
    for (;;) {
        if ((gate & kClosed) != 0) {
            std::unique_lock lock(mutex_);
            opened_.wait(lock, [this] { return (gate_.load() & kClosed) == 0; });
            gate = gate_.load();
        } else if (gate_.compare_exchange_weak(gate, gate + 1)) {
            return;
        }
    }
}

void NodeFile::leave() {
    if (gate_.fetch_sub(1) - 1 == kClosed) {
        const std::lock_guard lock(mutex_);
        empty_.notify_all();
    }
}

void NodeFile::close_gate() {
    alone_.lock();
    gate_.fetch_or(kClosed);
    std::unique_lock lock(mutex_);
    empty_.wait(lock, [this] { return gate_.load() == kClosed; });
}

void NodeFile::open_gate() {
    std::vector<NodeIo *> parked;
    {
        const std::lock_guard lock(mutex_);
        gate_.fetch_and(~kClosed);
        parked.swap(parked_);
        opened_.notify_all();
    }
    alone_.unlock();
    for (NodeIo *io : parked) {
        submit(io);
    }
}

void node_read(fuse_req_t req, NodeOpen *open, std::uint64_t offset, std::size_t size) {
    const std::uint64_t disk = open->file->size;
    if (offset >= disk || size == 0) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    size = std::min<std::uint64_t>({size, disk - offset, kMaxIo});
    std::unique_ptr<NodeIo> io = new_io(req, open, NodeIo::Kind::kRead);
    if (io == nullptr) {
        return;
    }
    io->offset = sector_floor(offset);
    io->size = sector_ceil(offset + size) - io->offset;
    io->answer_skip = offset - io->offset;
    io->answer_size = size;
    io->buffer = Buffer::get(io->size);
    if (!io->buffer) {
        fuse_reply_err(req, ENOMEM);
        return;
    }
    io->data = io->buffer.data();
    start(std::move(io));
}

void node_write(fuse_req_t req, NodeOpen *open, Workers *workers, std::uint64_t offset,
                const char *data, std::size_t size, int flags) {
    const std::uint64_t disk = open->file->size;
    if (open->file->read_only) {
        fuse_reply_err(req, EROFS);
        return;
    }
    if (size == 0) {
        fuse_reply_write(req, 0);
        return;
    }
    if (offset >= disk) {
        fuse_reply_err(req, ENOSPC);
        return;
    }
    size = std::min<std::uint64_t>(size, disk - offset);
    std::unique_ptr<NodeIo> io = new_io(req, open, NodeIo::Kind::kWrite);
    if (io == nullptr) {
        return;
    }
    io->rw = write_flags(flags);
    io->offset = offset;
    io->size = size;
    io->answer_size = size;
    if (!keep_payload(io.get(), data, size)) {
        fuse_reply_err(req, ENOMEM);
        return;
    }
    if (((offset | size) & kSectorMask) == 0) {
        start(std::move(io));
        return;
    }
    // std::function wants to be copied: the request travels as a bare pointer.
    g_pending.fetch_add(1);
    workers->post([io = io.release()] {
        const std::unique_ptr<NodeIo> owned(io);
        answer(*io, write_alone(io->open, io->rw, io->offset, io->data, io->size));
        g_pending.fetch_sub(1);
    });
}

void node_fsync(fuse_req_t req, NodeOpen *open) {
    if (open->file->read_only) {
        fuse_reply_err(req, 0);
        return;
    }
    std::unique_ptr<NodeIo> io = new_io(req, open, NodeIo::Kind::kFlush);
    if (io == nullptr) {
        return;
    }
    io->rw = OS_BIO_WRITE | OS_BIO_FLUSH;
    start(std::move(io));
}

int node_zero(NodeOpen *open, std::uint64_t offset, std::uint64_t size) {
    const NodeFile &file = *open->file;
    if (file.read_only) {
        return -EROFS;
    }
    if (!file.can_zero) {
        return -EOPNOTSUPP;
    }
    if (offset >= file.size) {
        return 0;
    }
    const std::uint64_t end = offset + std::min<std::uint64_t>(size, file.size - offset);
    while (offset < end) {
        int rc = 0;
        std::uint64_t step = 0;
        if ((offset & kSectorMask) != 0 || end - offset < OS_SECTOR_SIZE) {
            step = std::min(end, sector_floor(offset) + OS_SECTOR_SIZE) - offset;
            rc = write_alone(open, OS_BIO_WRITE, offset, nullptr, step);
        } else {
            step = std::min<std::uint64_t>(sector_floor(end) - offset, user::kMaxRequest);
            open->file->enter_waiting();
            rc = user::submit_wait(open->bdev, OS_BIO_WRITE | OS_BIO_ZEROES, offset, nullptr, step);
            open->file->leave();
        }
        if (rc != 0) {
            return rc;
        }
        offset += step;
    }
    return 0;
}

}  // namespace trakd
