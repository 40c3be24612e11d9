// agent/report_draw.cpp: the pictures of a report, as SVG
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/report.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

namespace agent {
namespace {

constexpr uint64_t columns = 128, most_cells = 2048;
constexpr size_t shades = 4;

// The extents of cell n are [first(n), first(n + 1)).
struct Cells {
    uint64_t extents, count;
    explicit Cells(uint64_t all) : extents(all), count(std::min(all, most_cells)) {}
    uint64_t first(uint64_t n) const {
        return static_cast<uint64_t>(static_cast<unsigned __int128>(n) * extents / count);
    }
    uint64_t of(uint64_t extent) const {
        auto n = static_cast<uint64_t>(static_cast<unsigned __int128>(extent) * count / extents);
        while (n + 1 < count && first(n + 1) <= extent)
            n++;
        return n;
    }
};

std::vector<uint64_t> marked_in(const Map &map, const Cells &cells) {
    std::vector<uint64_t> marked(cells.count);
    for (Run run = map.next(0); run.count > 0; run = map.next(run.first + run.count)) {
        uint64_t at = run.first, end = run.first + run.count;
        for (uint64_t n = cells.of(at); at < end; n++) {
            uint64_t stop = std::min(end, cells.first(n + 1));
            marked[n] += stop - at;
            at = stop;
        }
    }
    return marked;
}

// Runs of cells of one shade as rectangles of one path.
std::string shade_path(const std::vector<size_t> &shade, size_t wanted) {
    std::string d;
    for (size_t i = 0; i < shade.size();) {
        size_t end = i + 1, row_end = (i / columns + 1) * columns;
        while (end < std::min(shade.size(), row_end) && shade[end] == shade[i])
            end++;
        if (shade[i] == wanted)
            d += fmt::format("M{} {}h{}v1h-{}z", i % columns, i / columns, end - i, end - i);
        i = end;
    }
    return d;
}

size_t shade_of(uint64_t marked, uint64_t all) {
    return marked == 0 ? 0 : std::min<size_t>((marked * shades - 1) / all + 1, shades);
}

// --- the timeline -----------------------------------------------------------------------------------

constexpr unsigned bar_width = 24, bars_top = 34, bars_height = 150,
                   rail = bars_top + bars_height + 16, arc_depth = 12;

// Short enough for a column.
std::string day_of(const std::string &time) {
    return time.size() >= 16 ? time.substr(5, 5) + " " + time.substr(11, 5) : time.substr(0, 11);
}

double height_of(uint64_t bytes, uint64_t most) {
    double height =
        static_cast<double>(bytes) / static_cast<double>(std::max<uint64_t>(most, 1)) * bars_height;
    return bytes > 0 ? std::max(height, 1.5) : 0;
}

// Its amount stands over it and leads away from `middle`, where the other bar is.
std::string bar(unsigned middle, bool left, uint64_t bytes, uint64_t most, const char *kind) {
    double height = height_of(bytes, most);
    unsigned x = left ? middle - bar_width - 2 : middle + 2;
    return fmt::format("<rect class=\"{} {}\" x=\"{}\" y=\"{:.1f}\" width=\"{}\" height=\"{:.1f}\" "
                       "rx=\"2\"/><text class=\"amount {}\" x=\"{}\" y=\"{:.1f}\">{}</text>",
                       left ? "read" : "image", kind, x, bars_top + bars_height - height, bar_width,
                       height, left ? "end" : "start", left ? middle - 3 : middle + 3,
                       bars_top + bars_height - height - 5, size_text(bytes));
}

// From a backup to the one that it builds on, under the rail; `depth` keeps arcs apart.
std::string arc(unsigned from, unsigned to, unsigned span) {
    unsigned depth = rail + arc_depth + std::min(span, 4u) * 7;
    return fmt::format("<path class=\"builds\" d=\"M{} {}C{} {} {} {} {} {}\"/>", from, rail + 6,
                       from, depth + 6, to, depth + 6, to, rail + 6);
}

std::string one_column(const ReportEntry &entry, unsigned middle, uint64_t most) {
    const Manifest &m = *entry.manifest;
    const char *kind = kind_name(m.kind);
    return fmt::format(
        "<g><title>{}: {} read, image of {}</title>{}{}<circle class=\"dot {}\" cx=\"{}\" "
        "cy=\"{}\" "
        "r=\"5\"/><text class=\"name\" x=\"{}\" y=\"{}\">{} {}</text><text class=\"when\" "
        "x=\"{}\" y=\"{}\">{}</text></g>",
        html_text(m.id), size_text(m.bytes_read), size_text(m.image.size),
        bar(middle, true, m.bytes_read, most, kind), bar(middle, false, m.image.size, most, kind),
        entry.fault.empty() ? kind : "bad", middle, rail, middle, rail + 62, m.number, kind, middle,
        rail + 78, html_text(day_of(m.frozen)));
}

}  // namespace

std::string map_picture(const Map &map, const AuditResult &audit, const std::string &label) {
    Cells cells(map.count());
    std::vector<uint64_t> marked = marked_in(map, cells);
    std::vector<size_t> shade(cells.count);
    for (uint64_t n = 0; n < cells.count; n++)
        shade[n] = shade_of(marked[n], cells.first(n + 1) - cells.first(n));
    uint64_t rows = (cells.count - 1) / columns + 1, across = std::min(cells.count, columns);
    std::string svg =
        fmt::format("<svg class=\"map\" role=\"img\" aria-label=\"{}\" viewBox=\"0 0 {} "
                    "{}\" preserveAspectRatio=\"none\">",
                    html_text(label), across, rows);
    for (size_t s = 0; s <= shades; s++) {
        std::string d = shade_path(shade, s);
        if (!d.empty())
            svg += fmt::format("<path class=\"s{}\" d=\"{}\"/>", s, d);
    }
    for (uint64_t extent : audit.extents)
        if (extent < map.count()) {
            uint64_t n = cells.of(extent);
            svg += fmt::format("<rect class=\"miss\" x=\"{}\" y=\"{}\" width=\"1\" height=\"1\"/>",
                               n % columns, n / columns);
        }
    return svg + "</svg>";
}

std::string timeline_picture(const std::vector<ReportEntry> &entries) {
    uint64_t most = 0;
    std::map<std::string, size_t> place;
    for (size_t i = 0; i < entries.size(); i++) {
        const Manifest &m = *entries[i].manifest;
        most = std::max({most, m.bytes_read, m.image.size});
        place[m.id] = i;
    }
    // As wide as the page where they are few; more than that are scrolled.
    auto count = static_cast<unsigned>(std::max<size_t>(entries.size(), 1));
    unsigned column = std::clamp(1000 / count, 112u, 200u);
    auto middle = [column](size_t i) { return static_cast<unsigned>(i) * column + column / 2; };
    unsigned width = count * column, height = rail + 88;
    std::string svg = fmt::format(
        "<svg class=\"timeline\" role=\"img\" aria-label=\"Bars: for each of {} backups the bytes "
        "that "
        "were read and the size of its image. The table at the end has the numbers.\" width=\"{}\" "
        "height=\"{}\" viewBox=\"0 0 {} {}\"><path class=\"rail\" d=\"M0 {}H{}\"/>",
        entries.size(), width, height, width, height, rail, width);
    for (size_t i = 0; i < entries.size(); i++) {
        auto parent = place.find(entries[i].manifest->parent);
        if (parent != place.end() && parent->second < i)
            svg += arc(middle(i), middle(parent->second),
                       static_cast<unsigned>(std::min<size_t>(i - parent->second, 100)));
    }
    for (size_t i = 0; i < entries.size(); i++)
        svg += one_column(entries[i], middle(i), most);
    return svg + "</svg>";
}

}  // namespace agent
