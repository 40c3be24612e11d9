// tests/vm/tool/failing_steps.h: the driver's calls, each with what must be there before it
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_VM_TOOL_FAILING_STEPS_H
#define TRAK_TESTS_VM_TOOL_FAILING_STEPS_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

namespace vm_tool {

constexpr std::size_t kPage = 4096;

// What the steps work on: a filter of minor 0 over `disk` and a snap of minor 1, with files in `folder`.
struct Node {
    int control = -1, proc = -1, filter = -1, snap = -1;
    std::string disk, folder;
    unsigned char *bits = nullptr, *page = nullptr, *old_page = nullptr;
    std::uint32_t bits_size = 0;
};

// How much is there when a step is taken.
enum Level { kNothing, kFilterAdded, kFilterStarted, kSnapAdded, kSnapStarted, kSnapStopped };

// What a step needs open, and whom its failures may strike.
enum Hold {
    kOpen,    // the nodes are open, and the driver's threads may be struck
    kClosed,  // they are closed first
};

struct Step {
    const char *name;
    Level before;
    int (*run)(Node &);                 // 0 or the error's number
    std::initializer_list<int> stated;  // besides ENOMEM, EIO, and EFAULT for the record's copy
    Hold hold = kOpen;
    bool again = true;    // it passes when it is called again
    bool writes = false;  // what it wrote is in the map when it passes
};

// The creations of nodes, and every other call.
std::span<const Step> creations();
std::span<const Step> calls();

// Brings a node from nothing to a level; ends the program where that fails.
void build(Node &node, Level level);
void close_nodes(Node &node);
// Both nodes go, whatever was made of them.
void clear_away(Node &node);
// A started snapshot shows what was there, or is invalid and shows nothing: which of them.
const char *judge_snap(Node &node);
// The next write is the first that marks something.
void clean_map(Node &node);
// The write of a step is marked in the map.
void judge_map(Node &node);
// Ends the program: what went otherwise than stated.
[[noreturn]] void wrong(const std::string &what, int rc);
void must(const char *what, int rc);

}  // namespace vm_tool

#endif
