// agent/report.h: a store as one page for a browser
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/bits.h"
#include "agent/events.h"
#include "agent/store.h"

#include <string>
#include <vector>

namespace agent {

struct ReportOptions {
    std::string store, to;
    uint64_t last = 60;  // backups that the page shows one by one; its sums are of all
    bool force = false;  // overwrite a file that is no report
};

// Writes the page: HTML and SVG alone, no script, nothing from elsewhere. Its numbers are those of the
// manifests; a backup whose files are damaged or missing is shown with what is wrong. Exit status: 1
// where a manifest is damaged or a chain is broken, else 0.
int make_report(Events &events, const ReportOptions &options);

// --- parts of the page, each a piece of HTML ------------------------------------------------------

// One backup, as the page shows it.
struct ReportEntry {
    const Manifest *manifest = nullptr;
    std::string fault;       // why it can't be restored; empty: it can
    std::string picture;     // of its map: SVG; empty where the map can't be read
    std::string no_picture;  // why
};

// Text from outside as text of HTML, also within quotes: names in a store are anybody's.
std::string html_text(const std::string &text);
// 2024-05-17 08:30:00, with the whole text for machines; any text for a broken one.
std::string html_time(const std::string &time);
// 12.3 %; of nothing: a dash.
std::string share_text(uint64_t part, uint64_t whole);

// The map in at most 2048 cells, each as dark as the share of its extents that is marked; cells with
// extents that the audit named are outlined. Bounded in size, whatever the disk's.
std::string map_picture(const Map &map, const AuditResult &audit, const std::string &label);
// A column for each backup: what was read, and its image, and what each builds on.
std::string timeline_picture(const std::vector<ReportEntry> &entries);
// The style sheet.
const char *report_style();
// Phases in the order in which a backup comes by them.
std::vector<std::pair<std::string, double>> ordered_phases(const Manifest &manifest);

struct ReportPage {
    std::string folder, head_fault;
    std::vector<Manifest> all;         // that can be read
    std::vector<ReportEntry> entries;  // the shown ones, by number, ascending
    std::vector<DamagedEntry> damaged;
    uint64_t broken = 0;  // of all: can't be restored
};
std::string report_html(const ReportPage &page);

}  // namespace agent
