// daemon/server.h: one mounted tree and all that serves it
// SPDX-License-Identifier: GPL-2.0-only
//
// Threads   receivers take requests, run the handlers of ops.cpp and answer the reads and writes that
//           they submitted (receivers.h); workers run what may wait. The platform's I/O thread answers
//           what others submitted. The main thread waits for signals (main.cpp).
// Locks     handles_mutex_, releases_mutex_ (leaves); nothing is called under them.
#ifndef TRAKD_SERVER_H
#define TRAKD_SERVER_H

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "daemon/fuse_api.h"
#include "daemon/node_file.h"
#include "daemon/receivers.h"
#include "daemon/tree.h"
#include "daemon/workers.h"

namespace trakd {

// Lets commands in until it is closed for the unload.
class Gate {
  public:
    [[nodiscard]] bool enter();
    void leave();
    void close();  // returns when those inside are out
    void open();

  private:
    std::mutex mutex_;
    std::condition_variable quiet_;
    unsigned inside_ = 0;
    bool closed_ = false;
};

// One open file or directory of the tree.
struct Handle {
    What what = What::kDir;
    NodeOpen node;                        // kNode
    std::string path;                     // kProc
    const std::int32_t *value = nullptr;  // kParameter
    std::vector<Entry> entries;           // kDir
    std::mutex mutex;
    std::string text;  // of the other files: as it was at the last read from the beginning
};

class Server {
  public:
    // on_end(arg) as of Receivers.
    Server(std::string mount_point, Receivers::OnEnd on_end, void *arg);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Mounts: 0, or -1 with one line in *why. The tree answers once serve() was called.
    [[nodiscard]] int mount(std::string *why);
    [[nodiscard]] int serve(std::string *why);
    // The mount goes, at once for new users; those that still have it open get errors from the end
    // on.
    void unmount();
    // Ends the receivers and the workers, with requests under way awaited. After unmount() or the
    // session's end.
    void stop();
    // Closes what clients had open when the session ended under them. After stop().
    void close_all();

    Tree &tree() { return tree_; }
    Workers &workers() { return workers_; }
    Gate &gate() { return gate_; }
    const std::string &session_id() const { return session_id_; }
    const std::string &mount_point() const { return mount_point_; }
    // Called after each release of a node.
    std::function<void()> on_release;

    // For the handlers. A handle is freed by drop().
    Handle *add(std::unique_ptr<Handle> handle);
    void drop(Handle *handle);
    // Opens the node as a program does: 0 or a negative errno. Context: a worker.
    [[nodiscard]] int open_node(os_dev_t dev, int open_flags, NodeOpen *open);
    void close_node(NodeOpen *open);
    // A close of the node was asked for, and done. The kernel sends it when the closing program
    // has gone on already: a command that must find the node closed waits for those that were
    // asked for before it.
    void release_asked(os_dev_t dev);
    void release_done(os_dev_t dev);
    void await_releases(std::uint32_t minor);

  private:
    [[nodiscard]] bool is_open(std::uint32_t minor);

    const std::string mount_point_;
    const Receivers::OnEnd on_end_;
    void *const arg_;
    std::string session_id_;
    fuse_session *session_ = nullptr;
    bool mounted_ = false;
    Tree tree_;
    Workers workers_;
    Receivers receivers_;
    Gate gate_;

    std::mutex handles_mutex_;
    std::unordered_set<Handle *> handles_;
    std::unordered_map<os_dev_t, std::weak_ptr<NodeFile>> files_;

    std::mutex releases_mutex_;
    std::condition_variable released_;
    std::unordered_map<os_dev_t, unsigned> releases_;  // asked for and not done
};

// The handlers of requests (ops.cpp). Their user data is the Server.
extern const fuse_lowlevel_ops kOps;

}  // namespace trakd

#endif
