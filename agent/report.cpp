// agent/report.cpp: what a report shows, gathered from a store
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/report.h"

#include "agent/list.h"

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <fmt/format.h>

namespace agent {
namespace {

// Each report begins with this, so that no other file is overwritten by mistake.
constexpr const char *first_line = "<!doctype html><!-- trak-backup report -->\n";

void draw_map(const Store &store, ReportEntry &entry) {
    const Manifest &m = *entry.manifest;
    std::string path = store.path(m.map.file);
    try {
        auto bytes = files::read_file(path);
        if (!bytes)
            throw Failure(fmt::format("{} is missing", path));
        Map map = map_from_file(path, *bytes, m.run);
        if (map.disk_size() != m.node.size || map.unit_size() != m.node.extent_size ||
            map.marked() != m.extents_copied)
            throw Failure(fmt::format("{} is another backup's", path));
        entry.picture = map_picture(
            map, m.audit,
            fmt::format("Map of {}: {} of {} extents, from the disk's begin to its end.", m.id,
                        m.extents_copied, map.count()));
    } catch (const Failure &failure) {
        entry.no_picture = failure.text;
    }
}

ReportPage gather(const Store &store, uint64_t last) {
    ReportPage page;
    page.folder = store.folder();
    page.head_fault = store.head_fault();
    page.all = store.backups();
    page.damaged = store.damaged();
    size_t left_out = page.all.size() - std::min<size_t>(page.all.size(), last);
    for (size_t i = 0; i < page.all.size(); i++) {
        ReportEntry entry;
        entry.manifest = &page.all[i];
        entry.fault = fault_of(store, page.all[i]);
        page.broken += entry.fault.empty() ? 0 : 1;
        if (i < left_out)
            continue;
        check_interrupt();
        draw_map(store, entry);
        page.entries.push_back(std::move(entry));
    }
    return page;
}

void refuse_foreign(const std::string &path) {
    if (!files::exists(path))
        return;
    std::array<char, 64> head = {};
    std::string wanted = first_line;
    files::Fd fd = files::open_file(path, O_RDONLY | O_NONBLOCK, 0);
    size_t got = files::read_at(fd.get(), head.data(), wanted.size(), 0, path);
    if (wanted != std::string(head.data(), got))
        throw Failure(fmt::format("{} is there and no report: --force overwrites it", path));
}

}  // namespace

std::vector<std::pair<std::string, double>> ordered_phases(const Manifest &manifest) {
    static constexpr std::array<const char *, 6> order = {"map",   "snapshot", "copy",
                                                          "audit", "check",    "seal"};
    auto rank = [](const std::string &name) {
        return std::find(order.begin(), order.end(), name) - order.begin();
    };
    auto phases = manifest.seconds;
    std::stable_sort(phases.begin(), phases.end(),
                     [&](const auto &a, const auto &b) { return rank(a.first) < rank(b.first); });
    // Any store may come by: more than these is nothing that this program wrote.
    if (phases.size() > 16)
        phases.resize(16);
    return phases;
}

int make_report(Events &events, const ReportOptions &options) {
    Store store(options.store, Store::existing);
    files::Fd lock = store.lock_for_reading();
    store.scan();
    if (!options.force)
        refuse_foreign(options.to);
    ReportPage page = gather(store, options.last);
    std::string text = first_line + report_html(page);
    files::replace_durably(options.to, text);
    uint64_t faults = page.broken + page.damaged.size();
    events.say("report",
               {{"path", options.to},
                {"size", text.size()},
                {"backups", page.all.size()},
                {"shown", page.entries.size()},
                {"faults", faults}},
               fmt::format("{}: {} of {} backups, {}", options.to, page.entries.size(),
                           page.all.size(), size_text(text.size())));
    return faults > 0 ? status_failed : status_ok;
}

}  // namespace agent
