// daemon/tree.h: the names of the tree and what is behind each
// SPDX-License-Identifier: GPL-2.0-only
//
//   /dev/trakctl  /dev/trak/<name>  /proc/trak/...  /sys/module/trak/parameters/...  /log  /session
//
// Fixed entries have small inode numbers. Names of nodes and entries of the status tree come and
// go; each life of one has a number of its own, never used twice, so that the kernel can't take a
// new one for an old one. Everything is looked up afresh at each use: the kernel is told to keep
// nothing.
#ifndef TRAKD_TREE_H
#define TRAKD_TREE_H

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "os/user/user.h"

namespace trakd {

using Ino = std::uint64_t;

enum class What : std::uint8_t { kDir, kControl, kLog, kSession, kNode, kProc, kParameter };

struct Entry {
    Ino ino = 0;
    What what = What::kDir;
    std::string name;
    std::uint32_t mode = 0;  // type and permissions
    std::uint64_t size = 0;
    os_dev_t dev = 0;                     // kNode
    std::string path;                     // kProc, and directories of the status tree: below /proc
    const std::int32_t *value = nullptr;  // kParameter
};

class Tree final : public user::Listener {
  public:
    Tree();

    // 0 or a negative errno.
    [[nodiscard]] int lookup(Ino parent, const std::string &name, Entry *entry);
    [[nodiscard]] int get(Ino ino, Entry *entry);
    [[nodiscard]] int list(Ino dir, std::vector<Entry> *entries);
    void stat(const Entry &entry, struct stat *st) const;

    // The kernel holds `count` more or fewer references to an entry that lookup() found.
    void remember(const Entry &entry);
    void forget(Ino ino, std::uint64_t count);

    void node_added(os_dev_t) override {}
    void node_removed(os_dev_t) override {}
    void name_added(const user::DevName &name) override;
    void name_removed(const user::DevName &name) override;

  private:
    struct NodeName {
        Ino ino;
        user::DevName name;
    };
    struct ProcRef {
        std::string path;
        std::uint64_t count;
    };
    std::vector<NodeName> names();
    [[nodiscard]] int node_entry(const NodeName &name, Entry *entry) const;
    [[nodiscard]] int find_node(const std::string &name, Entry *entry);
    [[nodiscard]] int proc_entry(const std::string &path, Entry *entry) const;
    [[nodiscard]] int list_proc(const std::string &path, std::vector<Entry> *entries) const;

    const std::time_t born_;
    std::mutex mutex_;
    std::vector<NodeName> names_;
    Ino next_name_;
    std::unordered_map<Ino, ProcRef> proc_;
};

}  // namespace trakd

#endif
