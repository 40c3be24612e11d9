// ctl/cmd_map.cpp: a bitmap as a picture
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/app.h"
#include "ctl/file.h"
#include "ctl/picture.h"
#include "ctl/text.h"

#include <fmt/format.h>

namespace ctl {
namespace {

void fetch(const App &app, const trak_info_arg &info, Bitmap &bitmap) {
    const Request &r = app.request;
    bool is_filter = info.dev_type == TRAK_DEV_FILTER;
    if (is_filter == (r.kind == "datablock"))
        throw Failure{fmt::format("node {} is a {}: it has no {} bitmap", r.minor,
                                  is_filter ? "filter" : "snapshot", r.kind)};
    int rc = is_filter ? trak_bitmap_get(app.t(), r.minor, bitmap_type(r.kind), &bitmap)
                       : trak_bitmap_datablocks(app.t(), r.minor, 0, &bitmap);
    if (rc < 0)
        fail(app, rc, fmt::format("get the {} bitmap of node {}", r.kind, r.minor));
}

}  // namespace

void map(App &app) {
    const Request &r = app.request;
    trak_info_arg info = node_info(app, r.minor);
    Bitmap bitmap;
    fetch(app, info, bitmap);
    std::string of = field_text(info.name);
    if (info.dev_type == TRAK_DEV_FILTER)
        of += " on " + field_text(info.hdd_name);
    const char *kind = r.kind == "incr"   ? "incremental changes"
                       : r.kind == "diff" ? "differential changes"
                                          : "data blocks";
    PictureInput input = {bitmap.bits,
                          bitmap.count,
                          bitmap.unit_size,
                          bitmap.dev_size,
                          fmt::format("{} of {}, {}", kind, of, size_text(bitmap.dev_size)),
                          r.kind == "datablock" ? "hold data" : "changed"};
    Json json = Json::object(), cells = Json::array();
    json.number("minor", r.minor).text("bitmap", r.kind).number("extents", bitmap.count);
    json.number("extent_size", bitmap.unit_size).number("marked_extents", bitmap.marked());
    std::string text;
    if (!r.svg.empty()) {
        std::string svg = svg_picture(input);
        OutFile file(r.svg, svg.size());
        file.commit(reinterpret_cast<const uint8_t *>(svg.data()), svg.size());
        json.text("svg", r.svg);
        text = r.svg + " written\n";
    } else {
        // Shades 0 (nothing marked) to 4 (everything) of equal parts of the disk.
        for (int shade : shades(bitmap.bits, bitmap.count, 1024))
            cells.add_number(static_cast<uint64_t>(shade));
        json.value("shades", cells);
        text = terminal_picture(input, app.world.columns, app.world.utf8);
    }
    app.result(json, text);
}

}  // namespace ctl
