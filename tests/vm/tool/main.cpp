// tests/vm/tool/main.cpp: which command of vm_tool is meant
// SPDX-License-Identifier: GPL-2.0-only
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

struct Command {
    const char *name;
    std::size_t words;
    int (*run)(const Words &);
    const char *usage;
};

constexpr Command kCommands[] = {
    {"age", 4, age, "age FOLDER SEED FILES BYTES: fills a file system with holes"},
    {"hash", 3, hash, "hash DISK EXTENT FILE: eight bytes an extent"},
    {"changed", 4, changed, "changed BEFORE AFTER BITS PERCENT: is every change marked?"},
    {"judge", 3, judge, "judge BEFORE AFTER BITS: what a map became of a crash"},
    {"scribble", 4, scribble, "scribble DISK SEED COUNT BYTES: writes at random, past the cache"},
    {"writes", 4, writes, "writes DISK SEED COUNT BYTES: the same without discards"},
    {"request", 4, request,
     "request DISK discard|secure|zeroes|zones|reset-zone AT BYTES: how it ends"},
    {"hostile", 6, hostile,
     "hostile CONTROL DISK EXT2 FOLDER SEED COUNT: calls that mean no good; EXT2: a disk to be "
     "read"},
    {"opens-as", 2, opens_as, "opens-as UID PATH: what a user without rights is told"},
    {"failing", 5, failing,
     "failing KIND first|creations|calls CONTROL DISK FOLDER: each with its steps failing"},
    {"failing-writes", 3, failing_writes,
     "failing-writes DISK SEED COUNT: writes by a process that the kernel lets fail"},
    {"shut-down", 1, shut_down, "shut-down MOUNT: XFS ends with its log written and not replayed"},
    {"sums", 1, sums, "sums FOLDER: what every file holds"},
    {"churn", 3, churn, "churn FOLDER SEED STOP: changes files until there is a file STOP"},
    {"eat", 2, eat, "eat MIB STOP: fills memory until there is a file STOP"},
};

}  // namespace

void die(const std::string &what) {
    std::printf("vm_tool: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

std::uint64_t number(const std::string &text) {
    char *end = nullptr;
    errno = 0;
    const std::uint64_t value = std::strtoull(text.c_str(), &end, 0);
    if (errno == 0 && (end == text.c_str() || *end != 0))
        errno = EINVAL;
    if (errno != 0)
        die(text);
    return value;
}

}  // namespace vm_tool

int main(int argc, char **argv) {
    using namespace vm_tool;
    const Words words(argv + (argc > 1 ? 2 : 1), argv + argc);
    for (const Command &command : kCommands)
        if (argc > 1 && std::strcmp(argv[1], command.name) == 0 && words.size() == command.words)
            return command.run(words);
    for (const Command &command : kCommands)
        std::printf("vm_tool %s\n", command.usage);
    return 2;
}
