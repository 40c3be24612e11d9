// tests/vm/tool/failing.cpp: the driver's calls while the kernel makes their own steps fail
// SPDX-License-Identifier: GPL-2.0-only
//
// A kernel with fault injection lets the next allocation, page or request of a marked task fail after so
// many ("space", faults.h). A call is repeated with more and more of them, until nothing is left in it
// that could fail: then each of its first allocations, pages or requests has failed once, and later ones
// at distances that grow. (Where the kernel counts bytes, small ones that follow large ones are passed
// over.)
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <map>

#include "tests/vm/tool/failing_steps.h"
#include "tests/vm/tool/faults.h"
#include "tests/vm/tool/vm_tool.h"

namespace vm_tool {
namespace {

using Tally = std::map<std::string, unsigned>;

// How many of a call's first steps are struck each, and how far apart the later ones are, as a part of what
// lies before them.
struct Pace {
    std::uint64_t each, part;
};
// The first creation is long, and what it does after its pools every creation does.
constexpr Pace kUsual = {300, 16}, kFirst = {24, 8};
constexpr unsigned kMostPlaces = 1000;

bool is_stated(const Step &step, int rc) {
    for (const int one : {0, ENOMEM, EIO, EFAULT})
        if (rc == one)
            return true;
    return std::find(step.stated.begin(), step.stated.end(), rc) != step.stated.end();
}

// One step with one failure in it, after so much; false when nothing was left that could fail.
bool once(Node &node, const Step &step, Faults &faults, std::uint64_t space, Tally &tally) {
    const bool has_snap = step.before == kSnapStarted && step.hold == kOpen;
    build(node, step.before);
    if (step.writes)
        clean_map(node);
    if (step.hold == kClosed)
        close_nodes(node);
    faults.arm(space, has_snap);
    const int rc = step.run(node);
    const bool failed = faults.disarm();
    if (!is_stated(step, rc))
        wrong(std::string(step.name) + " failed with what is not stated", rc);
    if (!failed && rc != 0)
        wrong(std::string(step.name) + " failed without a failure", rc);
    if (failed)
        ++tally[rc == 0 ? "passed" : std::strerror(rc)];
    if (has_snap)
        ++tally[judge_snap(node)];
    if (step.writes && rc == 0)
        judge_map(node);
    if (rc != 0 && step.again)
        must("the same step again", step.run(node));
    clear_away(node);
    return failed;
}

// "creations", the first of them, or every other call.
std::span<const Step> steps_of(const std::string &what) {
    if (what == "first")
        return creations().first(1);
    if (what == "creations")
        return creations();
    if (what == "calls")
        return calls();
    errno = EINVAL;
    die(what);
}

unsigned sweep(Node &node, const Step &step, const Pace &pace, Faults &faults) {
    Tally tally;
    const std::uint64_t each = pace.each * faults.step();
    unsigned places = 0;
    for (std::uint64_t space = 1; once(node, step, faults, space, tally); ++places) {
        if (places == kMostPlaces)
            wrong(std::string(step.name) + " has no end", 0);
        space += space < each ? faults.step() : space / pace.part;
    }
    std::printf("%s: %u failures", step.name, places);
    for (const auto &[what, count] : tally)
        std::printf(", %s %u", what.c_str(), count);
    std::printf("\n");
    return places;
}

}  // namespace

int failing(const Words &words) {
    Node node;
    node.control = open(words[2].c_str(), O_RDWR | O_CLOEXEC);
    node.proc = open("/proc/trak/debug", O_RDONLY | O_CLOEXEC);
    if (node.control < 0 || node.proc < 0)
        die(words[2]);
    node.disk = words[3];
    node.folder = words[4];
    node.bits = locked_pages(65536);
    node.page = locked_pages(kPage);
    node.old_page = locked_pages(kPage);
    stay_in_memory();
    Faults faults(words[0]);
    unsigned all = 0;
    clear_away(node);
    for (const Step &step : steps_of(words[1]))
        all += sweep(node, step, words[1] == "first" ? kFirst : kUsual, faults);
    std::printf("%u failures in all\n", all);
    return all == 0 ? 1 : 0;
}

}  // namespace vm_tool
