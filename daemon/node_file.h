// daemon/node_file.h: reads, writes and flushes of a node's file
// SPDX-License-Identifier: GPL-2.0-only
//
// A node takes whole sectors; its file takes any offset and length. A read is widened to whole
// sectors. A write with a part of a sector at an end is done alone: it waits until no other write
// of the node is under way, reads the sectors at its ends, puts its bytes in and writes; writes
// that arrive meanwhile are parked. So a byte that nobody wrote never changes back, whoever writes
// beside it. Whole-sector writes run side by side.
#ifndef TRAKD_NODE_FILE_H
#define TRAKD_NODE_FILE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "daemon/buffers.h"
#include "daemon/fuse_api.h"
#include "daemon/workers.h"
#include "os/user/user.h"

namespace trakd {

struct NodeIo;

// What is the same for all opens of one node.
class NodeFile {
  public:
    explicit NodeFile(const user::NodeInfo &info)
        : dev(info.dev), size(info.size & ~std::uint64_t{OS_SECTOR_SIZE - 1}),
          read_only(info.read_only), can_zero(info.can_zero) {}

    const os_dev_t dev;
    const std::uint64_t size;  // bytes, whole sectors
    const bool read_only;
    const bool can_zero;

    // Counts a write in, or parks it when one is being done alone: then false, and it is submitted
    // later.
    [[nodiscard]] bool enter(NodeIo *io);
    // The same for a thread that may wait until it is counted in.
    void enter_waiting();
    // Counts it out. Any context.
    void leave();
    // Makes the calling thread's write the only one; waits.
    void close_gate();
    void open_gate();

  private:
    static constexpr std::uint64_t kClosed = std::uint64_t{1} << 63;
    std::mutex alone_;                    // held from close_gate() to open_gate()
    std::atomic<std::uint64_t> gate_{0};  // writes under way, and kClosed
    std::mutex mutex_;
    std::condition_variable empty_;
    std::condition_variable opened_;
    std::vector<NodeIo *> parked_;
};

// One open of a node.
struct NodeOpen {
    std::shared_ptr<NodeFile> file;
    os_bdev *bdev = nullptr;
    std::uint32_t mode = 0;
};

// Requests under way in all nodes.
std::uint64_t node_io_pending();

// Each answers the request, now or when it is done. Context: a receiver; may sleep as a submission
// does. The open must stay until the request is answered (FUSE sends RELEASE after it).
void node_read(fuse_req_t req, NodeOpen *open, std::uint64_t offset, std::size_t size);
void node_write(fuse_req_t req, NodeOpen *open, Workers *workers, std::uint64_t offset,
                const char *data, std::size_t size, int flags);
void node_fsync(fuse_req_t req, NodeOpen *open);
// Punches a hole or zeroes: 0 or a negative errno. Context: a worker; waits.
[[nodiscard]] int node_zero(NodeOpen *open, std::uint64_t offset, std::uint64_t size);

}  // namespace trakd

#endif
