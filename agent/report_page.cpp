// agent/report_page.cpp: the HTML of a report
// SPDX-License-Identifier: GPL-2.0-only
//
// Each number of a manifest stands in an element whose data-field names its place there (in an element
// whose data-id names the backup) and whose value attribute is the number itself.
#include "agent/report.h"

#include <algorithm>

#include <fmt/format.h>

namespace agent {
namespace {

using Fields = std::vector<std::pair<const char *, uint64_t>>;

std::string number(const char *field, uint64_t value) {
    return fmt::format("<data data-field=\"{}\" value=\"{}\">{}</data>", field, value, value);
}

std::string bytes(const char *field, uint64_t value) {
    return fmt::format("<data data-field=\"{}\" value=\"{}\" title=\"{} bytes\">{}</data>", field,
                       value, value, html_text(size_text(value)));
}

std::string seconds_text(double seconds) {
    return seconds < 59.95 ? fmt::format("{:.2f} s", std::max(seconds, 0.0))
                           : duration_text(std::min(seconds, 1e12));
}

std::string seconds(const std::string &phase, double value) {
    return fmt::format("<data data-field=\"seconds.{}\" value=\"{:.3f}\">{}</data>",
                       html_text(phase), value, seconds_text(value));
}

uint64_t extents_of(const Manifest &m) {
    return (m.node.size - 1) / m.node.extent_size + 1;
}

double total_seconds(const Manifest &m) {
    double total = 0;
    for (const auto &[phase, seconds] : m.seconds)
        total += std::max(seconds, 0.0);
    return total;
}

uint64_t stored(const Manifest &m) {
    return m.image.size + m.hashes.size + m.map.size;
}

// --- a bar in parts ---------------------------------------------------------------------------------

struct Part {
    const char *shade;
    std::string name, value;  // HTML
    double size;
};

std::string parts_bar(const std::string &label, const std::vector<Part> &parts) {
    double total = 0, at = 0;
    for (const Part &part : parts)
        total += part.size;
    std::string bar =
        fmt::format("<svg class=\"parts\" role=\"img\" aria-label=\"{}\" viewBox=\"0 0 "
                    "1000 10\" preserveAspectRatio=\"none\">",
                    html_text(label));
    std::string names;
    for (const Part &part : parts) {
        double width = total > 0 ? part.size / total * 1000 : 0;
        bar += fmt::format("<rect class=\"{}\" x=\"{:.2f}\" y=\"0\" width=\"{:.2f}\" "
                           "height=\"10\"/>",
                           part.shade, at, width);
        at += width;
        names += fmt::format("<li><i class=\"{}\"></i>{} <b>{}</b></li>", part.shade, part.name,
                             part.value);
    }
    return bar + "</svg><ul class=\"key\">" + names + "</ul>";
}

// What became of the bytes that the map named.
std::string fate_bar(const Manifest &m) {
    std::vector<Part> parts = {
        {"p-data", "new data", bytes("bytes.written", m.bytes_written),
         static_cast<double>(m.bytes_written)},
        {"p-zero", "zeros", bytes("bytes.zero", m.bytes_zero), static_cast<double>(m.bytes_zero)}};
    if (m.kind != Kind::full)
        parts.push_back({"p-same", "as before", bytes("bytes.unchanged", m.bytes_unchanged),
                         static_cast<double>(m.bytes_unchanged)});
    return parts_bar("What was read: new data, zeros, and what was as before", parts);
}

std::string phase_bar(const Manifest &m) {
    static constexpr const char *shades[] = {"p-1", "p-2", "p-3", "p-4", "p-5", "p-6"};
    std::vector<Part> parts;
    for (const auto &[phase, value] : ordered_phases(m))
        parts.push_back({shades[parts.size() % 6], html_text(phase), seconds(phase, value),
                         std::clamp(value, 0.0, 1e12)});
    return parts_bar("Time spent, by phase", parts);
}

std::string audit_text(const Manifest &m) {
    if (m.audit.blocks == 0)
        return "<p class=\"audit none\">Nothing was audited.</p>";
    std::string blocks = number("audit.blocks", m.audit.blocks);
    std::string differing = number("audit.differing", m.audit.differing);
    if (m.audit.differing == 0)
        return fmt::format(
            "<p class=\"audit good\"><span aria-hidden=\"true\">✓</span> Audit: {} blocks "
            "that no map called changed were compared, {} differ.</p>",
            blocks, differing);
    std::string extents;
    for (uint64_t extent : m.audit.extents)
        extents += fmt::format("{}{}", extents.empty() ? "" : ", ", extent);
    return fmt::format(
        "<p class=\"audit bad\"><span aria-hidden=\"true\">✕</span> Audit: {} of {} blocks "
        "differ although no map called them changed: something wrote past the filter. "
        "Extents {}. Make a full backup.</p>",
        differing, blocks, extents);
}

// --- one backup -------------------------------------------------------------------------------------

std::string map_figure(const ReportEntry &entry) {
    const Manifest &m = *entry.manifest;
    std::string drawn = entry.picture;
    if (drawn.empty())
        drawn = fmt::format("<p class=\"audit bad\">There is no picture of its map: {}</p>",
                            html_text(entry.no_picture));
    std::string same;
    if (m.kind != Kind::full)
        same = fmt::format("; {} of them were as before",
                           number("extents.unchanged", m.extents_unchanged));
    return fmt::format("<figure>{}<figcaption>{} of {} extents copied, {}{}</figcaption></figure>",
                       drawn, number("extents.copied", m.extents_copied), extents_of(m),
                       share_text(m.extents_copied, extents_of(m)), same);
}

std::string card(const ReportEntry &entry) {
    const Manifest &m = *entry.manifest;
    std::string html = fmt::format("<article data-id=\"{0}\"><header><h3>{0}</h3><span "
                                   "class=\"kind {1}\">{1}</span><p>{2}{3}</p>"
                                   "</header>",
                                   html_text(m.id), kind_name(m.kind), html_time(m.frozen),
                                   m.parent.empty() ? "" : " · builds on " + html_text(m.parent));
    if (!entry.fault.empty())
        html += fmt::format("<p class=\"audit bad\">It can't be restored: {}</p>",
                            html_text(entry.fault));
    if (!m.reason.empty())
        html += fmt::format("<p class=\"why\">A full backup, because {}.</p>", html_text(m.reason));
    html += map_figure(entry);
    html += fmt::format("<div class=\"two\"><section><h4>Read: {}, {} of the disk</h4>{}</section>"
                        "<section><h4>Time: {}</h4>{}</section></div>",
                        bytes("bytes.read", m.bytes_read), share_text(m.bytes_read, m.node.size),
                        fate_bar(m), seconds_text(total_seconds(m)), phase_bar(m));
    return html + audit_text(m) + "</article>\n";
}

// --- sums and the table -----------------------------------------------------------------------------

std::string tile(const char *name, const std::string &value, const std::string &more) {
    return fmt::format("<div><dt>{}</dt><dd>{}<small>{}</small></dd></div>", name, value, more);
}

std::string tiles(const ReportPage &page) {
    uint64_t size = 0, blocks = 0, differing = 0, reported = 0, same = 0;
    for (const Manifest &m : page.all) {
        size += stored(m);
        blocks += m.audit.blocks;
        differing += m.audit.differing;
        reported += m.kind == Kind::full ? 0 : m.bytes_read;
        same += m.bytes_unchanged;
    }
    const Manifest &last = page.all.back();
    std::string html = "<dl class=\"tiles\">";
    html +=
        tile("Points", fmt::format("{}", page.all.size() - page.broken),
             page.broken + page.damaged.size() == 0
                 ? "all of them whole"
                 : fmt::format("<em>{} broken or damaged</em>", page.broken + page.damaged.size()));
    html += tile("Latest", html_text(last.id), html_time(last.frozen));
    html += tile("Store", bytes("sum.stored", size), "images, hashes and maps");
    html += tile("Over-reported", bytes("sum.unchanged", same),
                 share_text(same, reported) + " of what maps called changed; not written again");
    html += tile("Audited blocks", number("sum.audited", blocks),
                 differing == 0
                     ? "none differs"
                     : fmt::format("<em>{} differ</em>", number("sum.differing", differing)));
    return html + "</dl>\n";
}

Fields counts_of(const Manifest &m) {
    return {{"extents.mapped", m.extents_mapped}, {"extents.after_freeze", m.extents_after_freeze},
            {"extents.copied", m.extents_copied}, {"extents.unchanged", m.extents_unchanged},
            {"audit.blocks", m.audit.blocks},     {"audit.differing", m.audit.differing}};
}

Fields sizes_of(const Manifest &m) {
    return {{"bytes.mapped", m.bytes_mapped},
            {"bytes.read", m.bytes_read},
            {"bytes.written", m.bytes_written},
            {"bytes.zero", m.bytes_zero},
            {"bytes.unchanged", m.bytes_unchanged},
            {"bytes.audited", m.bytes_audited},
            {"image.size", m.image.size},
            {"hashes.size", m.hashes.size},
            {"map.size", m.map.size}};
}

std::string row(const Manifest &m) {
    std::string html = fmt::format(
        "<tr data-id=\"{0}\"><th scope=\"row\">{0}</th><td>{1}</td><td>{2}</td>", html_text(m.id),
        html_time(m.frozen), m.parent.empty() ? "–" : html_text(m.parent));
    for (const auto &[field, value] : counts_of(m))
        html += "<td>" + number(field, value) + "</td>";
    for (const auto &[field, value] : sizes_of(m))
        html += "<td>" + bytes(field, value) + "</td>";
    return html + fmt::format("<td>{}</td></tr>\n", seconds_text(total_seconds(m)));
}

std::string table(const ReportPage &page) {
    std::string html = "<div class=\"wide\" tabindex=\"0\" role=\"region\" aria-label=\"All "
                       "numbers\"><table><thead>"
                       "<tr><th rowspan=\"2\">Backup</th><th rowspan=\"2\">Frozen (UTC)</th><th "
                       "rowspan=\"2\">Builds on"
                       "</th><th colspan=\"4\">Extents</th><th colspan=\"2\">Audit, blocks</th><th "
                       "colspan=\"6\">Bytes"
                       "</th><th colspan=\"3\">Files</th><th rowspan=\"2\">Time</th></tr><tr>";
    for (const char *name :
         {"in map", "after freeze", "copied", "as before", "compared", "differ", "in map", "read",
          "new data", "zeros", "as before", "audited", "image", "hashes", "map"})
        html += fmt::format("<th scope=\"col\">{}</th>", name);
    html += "</tr></thead><tbody>\n";
    for (auto entry = page.entries.rbegin(); entry != page.entries.rend(); ++entry)
        html += row(*entry->manifest);
    return html + "</tbody></table></div>\n";
}

std::string faults(const ReportPage &page) {
    std::string items;
    if (!page.head_fault.empty())
        items += "<li>" + html_text(page.head_fault) + "</li>";
    for (size_t i = 0; i < std::min<size_t>(page.damaged.size(), 100); i++)
        items += fmt::format("<li><b>{}</b>: {}</li>", html_text(page.damaged[i].id),
                             html_text(page.damaged[i].why));
    if (page.damaged.size() > 100)
        items += fmt::format("<li>and {} more</li>", page.damaged.size() - 100);
    return items.empty() ? "" : "<ul class=\"faults\" role=\"alert\">" + items + "</ul>\n";
}

std::string head(const ReportPage &page) {
    std::string title = "Backups", under;
    if (!page.all.empty()) {
        const NodeId &node = page.all.back().node;
        title = "Backups of " + html_text(node.disk);
        under = fmt::format("<p>{} in extents of {}, node {} {}</p>",
                            html_text(size_text(node.size)), html_text(size_text(node.extent_size)),
                            html_text(node.name), html_text(node.uuid));
    }
    return fmt::format(
        "<html lang=\"en\"><head><meta charset=\"utf-8\"><meta "
        "http-equiv=\"Content-Security-Policy\" "
        "content=\"default-src 'none'; style-src 'unsafe-inline'; img-src data:\"><meta "
        "name=\"viewport\" content=\"width=device-width, initial-scale=1\"><meta "
        "name=\"color-scheme\" "
        "content=\"light dark\"><link rel=\"icon\" "
        "href=\"data:,\"><title>{}</title><style>{}</style>"
        "</head><body><header class=\"top\"><h1>{}</h1>{}<p class=\"path\">{}</p></header><main>\n",
        title, report_style(), title, under, html_text(page.folder));
}

constexpr const char *map_key =
    "<p class=\"lead\">Each strip is the whole disk, from its begin (upper left) to its end (lower "
    "right). <span class=\"scale\">nothing <i class=\"s0\"></i><i class=\"s1\"></i><i "
    "class=\"s2\"></i><i class=\"s3\"></i><i class=\"s4\"></i> all</span> of a cell's extents were "
    "copied.</p>\n";

}  // namespace

std::string report_html(const ReportPage &page) {
    std::string html = head(page) + faults(page);
    if (page.all.empty())
        html += "<p class=\"lead\">There is no backup in this store.</p>\n";
    else
        html += tiles(page);
    if (!page.entries.empty()) {
        html += "<section><h2>The chain</h2><p class=\"lead\"><span class=\"scale\"><i "
                "class=\"hollow\"></i> read from the disk <i class=\"s4\"></i> image</span> An arc "
                "leads "
                "from a backup to the one that it builds on.</p><div class=\"wide\" tabindex=\"0\" "
                "role=\"region\" aria-label=\"The chain\">" +
                timeline_picture(page.entries) + "</div></section>\n";
        if (page.entries.size() < page.all.size())
            html += fmt::format(
                "<p class=\"lead\">The {} backups before these are in the sums only.</p>\n",
                page.all.size() - page.entries.size());
        html += "<section><h2>What changed</h2>";
        html += map_key;
        for (auto entry = page.entries.rbegin(); entry != page.entries.rend(); ++entry)
            html += card(*entry);
        html += "</section>\n<section><h2>All numbers</h2>" + table(page) + "</section>\n";
    }
    return html +
           fmt::format("</main><footer><p>Made by {} from the manifests of the store, {}.</p>"
                       "</footer></body></html>\n",
                       html_text(page.all.empty() ? "trak-backup" : page.all.back().tool),
                       html_time(now_text()));
}

}  // namespace agent
