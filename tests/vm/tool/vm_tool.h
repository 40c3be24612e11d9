// tests/vm/tool/vm_tool.h: the commands of vm_tool, the one program that the guest's suites call
// SPDX-License-Identifier: GPL-2.0-only
//
// Everything is decided by a seed: the same call does the same again. A command returns its exit
// status, and ends the program with a message where a call of the system fails that must not.
#ifndef TRAK_TESTS_VM_TOOL_VM_TOOL_H
#define TRAK_TESTS_VM_TOOL_VM_TOOL_H

#include <cstdint>
#include <string>
#include <vector>

namespace vm_tool {

using Words = std::vector<std::string>;

int age(const Words &words);
int hash(const Words &words);
int changed(const Words &words);
int judge(const Words &words);
int scribble(const Words &words);
int writes(const Words &words);
int request(const Words &words);
int hostile(const Words &words);
int opens_as(const Words &words);
int failing(const Words &words);
int failing_writes(const Words &words);
int shut_down(const Words &words);
int sums(const Words &words);
int churn(const Words &words);
int eat(const Words &words);

// Ends the program: what failed, and errno's meaning.
[[noreturn]] void die(const std::string &what);
std::uint64_t number(const std::string &text);

// SplitMix64.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = state_ += 0x9E3779B97F4A7C15u;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9u;
        z = (z ^ z >> 27) * 0x94D049BB133111EBu;
        return z ^ z >> 31;
    }
    std::uint64_t below(std::uint64_t limit) { return next() % limit; }

  private:
    std::uint64_t state_;
};

}  // namespace vm_tool

#endif
