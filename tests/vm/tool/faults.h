// tests/vm/tool/faults.h: failures that the kernel makes for this process and for the driver's threads
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_VM_TOOL_FAULTS_H
#define TRAK_TESTS_VM_TOOL_FAULTS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vm_tool {

// A new text for a file of the kernel's, which takes it whole or ends the program.
void put_text(const std::string &path, const std::string &text);
// The first half KiB of a file; empty where it can't be read.
std::string text_of(const std::string &path);

// One kind of failure ("failslab", "fail_page_alloc", "fail_make_request") of fault injection, once.
class Faults {
  public:
    // Nothing fails yet. Ends the program where the kernel has no such failures.
    explicit Faults(const std::string &kind);

    // From now on the first step fails at which `space` is used up, of this process and, where `threads`
    // says so, of the driver's threads. A step takes off `space` what step() says.
    void arm(std::uint64_t space, bool threads);

    // Nothing fails any more; whether something has.
    bool disarm();

    // How far apart two spaces must be that mean different steps: 1 where each step takes off 1 (pages do,
    // and allocations do with trak_spare.ko), and else what a small one takes, in bytes.
    std::uint64_t step() const { return step_; }

  private:
    void set(const char *name, std::uint64_t value);
    void mark_self(char c);
    static void mark_threads();

    std::string folder_;
    std::uint64_t step_;
    int own_ = -1;
};

// Memory that is there and stays.
unsigned char *locked_pages(std::size_t bytes);

// Neither code nor data nor stack of this process is to be fetched from now on: the kernel ends a process
// that gets no page for what it touches.
void stay_in_memory();

}  // namespace vm_tool

#endif
