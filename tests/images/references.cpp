// tests/images/references.cpp: parsing what dumpe2fs, debugreiserfs and xfs_db print
// SPDX-License-Identifier: GPL-2.0-only
//
// Nothing here is shared with the readers: every block is in use but those that a tool lists as free.
#include "tests/images/references.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>

namespace images {
namespace {

// The number after a key; nothing where the key is not there.
std::optional<std::uint64_t> after(const std::string &text, const std::string &key) {
    const std::size_t at = text.find(key);
    std::uint64_t number = 0;
    if (at == std::string::npos ||
        std::sscanf(text.c_str() + at + key.size(), " %lu", &number) != 1)
        return {};
    return number;
}

// A reference with all blocks in use; nothing where the image can't have so many.
std::optional<Reference> all_used(const std::string &image, std::optional<std::uint64_t> block_size,
                                  std::optional<std::uint64_t> blocks) {
    const std::uint64_t bytes = std::filesystem::file_size(image);
    if (!block_size || !blocks || *block_size == 0 || *blocks > bytes / *block_size)
        return {};
    Reference reference;
    reference.block_size = static_cast<std::uint32_t>(*block_size);
    reference.used.assign(*blocks, true);
    return reference;
}

// Marks [from, from + count) as free; false where there are no such blocks.
bool set_free(Reference &reference, std::uint64_t from, std::uint64_t count) {
    const std::uint64_t size = reference.used.size();
    if (from > size || count > size - from)
        return false;
    const auto begin = reference.used.begin() + static_cast<std::ptrdiff_t>(from);
    std::fill(begin, begin + static_cast<std::ptrdiff_t>(count), false);
    return true;
}

Reference must(const std::optional<Reference> &reference, const std::string &image) {
    EXPECT_TRUE(reference.has_value()) << image;
    return reference.value_or(Reference{});
}

}  // namespace

std::optional<Reference> ask_dumpe2fs(const std::string &image) {
    const std::optional<std::string> text = try_run("dumpe2fs " + image);
    if (!text)
        return {};
    std::optional<Reference> reference =
        all_used(image, after(*text, "\nBlock size:"), after(*text, "\nBlock count:"));
    std::istringstream lines(*text);
    for (std::string line; reference && std::getline(lines, line);) {
        const std::string key = "  Free blocks: ";
        if (line.rfind(key, 0) != 0)
            continue;
        std::istringstream ranges(line.substr(key.size()));
        for (std::string range; std::getline(ranges, range, ',');) {
            std::uint64_t from = 0, to = 0;
            const int n = std::sscanf(range.c_str(), " %lu-%lu", &from, &to);
            if (n >= 1 && !set_free(*reference, from, n == 2 ? to - from + 1 : 1))
                return {};
        }
    }
    return reference;
}

std::optional<Reference> ask_debugreiserfs(const std::string &image) {
    const std::optional<std::string> text = try_run("debugreiserfs -m " + image);
    if (!text)
        return {};
    std::optional<Reference> reference = all_used(image, after(*text, "Blocksize: "),
                                                  after(*text, "Count of blocks on the device: "));
    // "Busy (0-8211) Free(8212-32767)": the first run of a line has a blank, the others have none.
    for (std::size_t at = text->find("Free"); reference && at != std::string::npos;
         at = text->find("Free", at + 1)) {
        std::uint64_t from = 0, to = 0;
        if (std::sscanf(text->c_str() + at, "Free (%lu-%lu)", &from, &to) == 2 &&
            (to < from || !set_free(*reference, from, to - from + 1)))
            return {};
    }
    return reference;
}

// The extents in the leaves of each group's tree by block number, which are printed as "1:[start,count]".
std::optional<Reference> ask_xfs_db(const std::string &image) {
    const std::optional<std::string> super =
        try_run("xfs_db -r -c 'sb 0' -c 'p blocksize dblocks agblocks agcount' " + image);
    if (!super)
        return {};
    std::optional<Reference> reference =
        all_used(image, after(*super, "blocksize = "), after(*super, "dblocks = "));
    const std::uint64_t agblocks = after(*super, "agblocks = ").value_or(0);
    const std::uint64_t agcount = after(*super, "agcount = ").value_or(0);
    if (!reference || agblocks == 0 || agcount > 1000)
        return {};
    reference->group = agblocks;
    std::string commands;
    for (std::uint64_t ag = 0; ag < agcount; ++ag)
        commands += " -c 'agf " + std::to_string(ag) + "' -c 'p seqno' -c 'addr bnoroot' -c btdump";
    const std::optional<std::string> trees = try_run("xfs_db -r" + commands + " " + image);
    if (!trees)
        return {};
    std::istringstream lines(*trees);
    std::uint64_t ag = 0, next = 0;
    bool leaf = false;
    for (std::string line; std::getline(lines, line);) {
        std::uint64_t n = 0, start = 0, count = 0;
        if (line.rfind("seqno = ", 0) == 0)
            ag = next++;
        else if (line.rfind("bnobt level ", 0) == 0)
            leaf = line.rfind("bnobt level 0 ", 0) == 0;
        else if (leaf && std::sscanf(line.c_str(), "%lu:[%lu,%lu]", &n, &start, &count) == 3 &&
                 !set_free(*reference, ag * agblocks + start, count))
            return {};
    }
    return next == agcount ? reference : std::nullopt;
}

Reference dumpe2fs(const std::string &image) {
    return must(ask_dumpe2fs(image), image);
}
Reference debugreiserfs(const std::string &image) {
    return must(ask_debugreiserfs(image), image);
}
Reference xfs_db(const std::string &image) {
    return must(ask_xfs_db(image), image);
}

std::size_t turns(const Reference &reference) {
    std::size_t count = 0;
    for (std::size_t b = 1; b < reference.used.size(); ++b)
        count += reference.used[b] != reference.used[b - 1];
    return count;
}

std::uint64_t field(const std::string &text, const std::string &name) {
    const std::optional<std::uint64_t> number = after(text, name + " = ");
    EXPECT_TRUE(number.has_value()) << name;
    return number.value_or(0);
}

}  // namespace images
