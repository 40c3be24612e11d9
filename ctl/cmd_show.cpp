// ctl/cmd_show.cpp: list, info and status
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/app.h"
#include "ctl/text.h"

#include <cerrno>
#include <ostream>

#include <fmt/format.h>

namespace ctl {
namespace {

bool is_filter(const trak_info_arg &info) {
    return info.dev_type == TRAK_DEV_FILTER;
}

const char *type_text(const trak_info_arg &info) {
    return is_filter(info) ? "filter" : "snap";
}

// A snapshot's state in one word, a filter's too.
const char *state_text(const trak_info_arg &info) {
    if (!is_filter(info) && info.del_pending != 0)
        return "delete pending";
    if (!is_filter(info) && info.stop_pending != 0)
        return info.started != 0 ? "stop pending" : "defunct";
    if (info.started == 0)
        return "stopped";
    return is_filter(info) ? "started" : info.snap_valid != 0 ? "valid" : "INVALID";
}

Json common(const trak_info_arg &info) {
    Json json = Json::object();
    json.number("minor", info.minor).text("type", type_text(info));
    json.text("name", field_bytes(info.name)).text("uuid", field_bytes(info.uuid));
    json.flag("started", info.started != 0).number("use_cnt", info.use_cnt);
    json.number("dev_size", info.dev_size);
    return json;
}

int64_t filter_of(const App &app, uint32_t snap) {
    return trak_filter_of(app.t(), snap);
}

void add_filter_of(Json &json, int64_t filter) {
    if (filter >= 0)
        json.integer("filter", filter);
    else
        json.null("filter");
}

Json usage_json(const trak_cow_usage &usage) {
    Json json = Json::object();
    json.number("chunks_preserved", usage.chunks_preserved).number("chunks", usage.chunks);
    json.number("bytes_preserved", usage.bytes_preserved);
    json.number("bytes_allocated", usage.bytes_allocated);
    json.number("volume_bytes", usage.volume_bytes);
    json.real("part_of_volume",
              static_cast<double>(usage.bytes_preserved) / static_cast<double>(usage.volume_bytes));
    return json;
}

// COW usage into the object; null where the files can't be read (the snap was never started).
bool add_usage(Json &json, const trak_info_arg &snap, trak_cow_usage &usage) {
    bool known = trak_cow_usage_get(&snap, &usage) == 0;
    if (known)
        json.value("cow", usage_json(usage));
    else
        json.null("cow");
    return known;
}

// What is known of a started snap's free space; `known` is false where it is not started.
struct Datablocks {
    trak_datablock_usage usage;
    bool known;
};

Datablocks datablocks_of(const App &app, const trak_info_arg &snap) {
    Datablocks data = {};
    data.known = snap.started != 0 && trak_datablock_usage_get(app.t(), &snap, &data.usage) == 0;
    return data;
}

Json datablocks_json(const trak_datablock_usage &usage) {
    Json json = Json::object();
    if (usage.built < 0)
        json.null("built");
    else
        json.flag("built", usage.built != 0);
    if (usage.file_system[0] == '\0')
        json.null("file_system");
    else
        json.text("file_system", usage.file_system);
    json.number("unit_size", usage.unit_size).number("units", usage.units);
    json.number("units_with_data", usage.units_with_data);
    json.number("bytes_with_data", usage.bytes_with_data);
    json.real("part_of_volume",
              static_cast<double>(usage.bytes_with_data) / static_cast<double>(usage.volume_bytes));
    return json;
}

void add_datablocks(Json &json, const Datablocks &data) {
    if (data.known)
        json.value("datablocks", datablocks_json(data.usage));
    else
        json.null("datablocks");
}

std::string datablocks_text(const Datablocks &data) {
    const trak_datablock_usage &usage = data.usage;
    if (!data.known)
        return "unknown";
    if (usage.built == 0)
        return "no map: everything counts as data";
    if (usage.built < 0)
        return "everything counts as data";
    return fmt::format("{} ({}) on {}", size_text(usage.bytes_with_data),
                       percent_text(usage.bytes_with_data, usage.volume_bytes),
                       usage.file_system[0] != '\0' ? usage.file_system : "an unknown file system");
}

Json bitmap_file_json(uint32_t size, const std::string &file, uint32_t clear, uint32_t full) {
    Json json = Json::object();
    json.number("size", size).text("file", file).flag("clear", clear != 0).flag("full", full != 0);
    return json;
}

Json incr_json(const trak_info_arg &info) {
    return bitmap_file_json(info.incr_bmp_size, field_bytes(info.incr_bmp_fname),
                            info.incr_bmp_clear, info.incr_bmp_full);
}

Json diff_json(const trak_info_arg &info) {
    return bitmap_file_json(info.diff_bmp_size, field_bytes(info.diff_bmp_fname),
                            info.diff_bmp_clear, info.diff_bmp_full);
}

Json filter_json(const trak_info_arg &info) {
    Json json = common(info), snaps = Json::array();
    for (uint32_t i = 0; i < info.snaps && i < TRAK_LIST_MAX; i++)
        snaps.add_number(info.snap_minors[i]);
    json.text("disk", field_bytes(info.hdd_name)).number("extent_size", info.extent_size);
    json.number("extent_cnt", info.extent_cnt).value("snaps", snaps);
    json.value("incr", incr_json(info)).value("diff", diff_json(info));
    return json;
}

Json snap_json(const trak_info_arg &info, int64_t filter) {
    Json json = common(info);
    add_filter_of(json, filter);
    json.flag("valid", info.snap_valid != 0).flag("stop_pending", info.stop_pending != 0);
    json.flag("del_pending", info.del_pending != 0).number("chunk_size", info.chunk_size);
    json.number("chunk_cnt", info.chunk_cnt).number("cow_bmp_size", info.cow_bmp_size);
    json.number("cow_data_size", info.cow_data_size);
    json.text("cow_bmp", field_bytes(info.cow_bmp_fname));
    json.text("cow_data", field_bytes(info.cow_data_fname));
    return json;
}

std::string usage_text(const trak_cow_usage &usage) {
    return fmt::format("{} of {} chunks preserved ({}, {} of the volume), {} allocated",
                       usage.chunks_preserved, usage.chunks, size_text(usage.bytes_preserved),
                       percent_text(usage.bytes_preserved, usage.volume_bytes),
                       size_text(usage.bytes_allocated));
}

const char *fill_text(uint32_t clear, uint32_t full) {
    return clear != 0  ? "nothing has changed"
           : full != 0 ? "everything counts as changed"
                       : "partly changed";
}

using Rows = std::vector<std::vector<std::string>>;

Rows filter_rows(const trak_info_arg &info) {
    std::string snaps;
    for (uint32_t i = 0; i < info.snaps && i < TRAK_LIST_MAX; i++)
        snaps += fmt::format("{}{}", i == 0 ? "" : " ", info.snap_minors[i]);
    return {{"disk", field_text(info.hdd_name)},
            {"extents", fmt::format("{} of {}", info.extent_cnt, size_text(info.extent_size))},
            {"snapshots", snaps.empty() ? "none" : snaps},
            {"incremental", fill_text(info.incr_bmp_clear, info.incr_bmp_full)},
            {"  file", field_text(info.incr_bmp_fname)},
            {"differential", fill_text(info.diff_bmp_clear, info.diff_bmp_full)},
            {"  file", field_text(info.diff_bmp_fname)}};
}

Rows snap_rows(const trak_info_arg &info, int64_t filter, const std::string &usage,
               const std::string &data) {
    return {{"filter", filter >= 0 ? std::to_string(filter) : "unknown"},
            {"chunks", fmt::format("{} of {}", info.chunk_cnt, size_text(info.chunk_size))},
            {"COW bitmap", field_text(info.cow_bmp_fname)},
            {"COW data", field_text(info.cow_data_fname)},
            {"COW usage", usage.empty() ? "unknown" : usage},
            {"data blocks", data}};
}

}  // namespace

void list(App &app) {
    const std::string &kind = app.request.kind;
    uint32_t type = kind.empty() ? 0 : kind == "filter" ? TRAK_DEV_FILTER : TRAK_DEV_SNAP;
    Json json = Json::array();
    Rows rows = {{"MINOR", "TYPE", "STATE", "SIZE", "NAME", "DISK"}};
    for (uint32_t minor : node_list(app, type)) {
        trak_info_arg info;
        if (trak_get_info(app.t(), minor, &info) < 0)
            continue;  // deleted since the list was made
        Json node = common(info);
        std::string of;
        if (is_filter(info)) {
            of = field_text(info.hdd_name);
            node.text("disk", field_bytes(info.hdd_name));
        } else {
            int64_t filter = filter_of(app, minor);
            of = filter >= 0 ? fmt::format("snapshot of {}", filter) : "snapshot";
            add_filter_of(node, filter);
            node.flag("valid", info.snap_valid != 0);
        }
        json.add(node);
        rows.push_back({std::to_string(minor), type_text(info), state_text(info),
                        size_text(info.dev_size), field_text(info.name), of});
    }
    app.result(json, rows.size() == 1 ? "no nodes\n" : table_text(rows));
}

void info(App &app) {
    trak_info_arg info = node_info(app, app.request.minor);
    Rows rows = {{"minor", std::to_string(info.minor)},
                 {"type", type_text(info)},
                 {"state", state_text(info)},
                 {"name", field_text(info.name)},
                 {"identifier", field_text(info.uuid)},
                 {"size", fmt::format("{} ({} bytes)", size_text(info.dev_size), info.dev_size)},
                 {"opens", std::to_string(info.use_cnt)}};
    Rows more;
    Json json = Json::object();
    if (is_filter(info)) {
        json = filter_json(info);
        more = filter_rows(info);
    } else {
        int64_t filter = filter_of(app, info.minor);
        trak_cow_usage usage;
        json = snap_json(info, filter);
        bool known = add_usage(json, info, usage);
        Datablocks data = datablocks_of(app, info);
        add_datablocks(json, data);
        more = snap_rows(info, filter, known ? usage_text(usage) : "", datablocks_text(data));
    }
    rows.insert(rows.end(), more.begin(), more.end());
    app.result(json, table_text(rows));
}

namespace {

// One bitmap of a filter in the status: how much of the disk it marks, and whether its file lags.
std::string add_change(const App &app, Json &json, Json change, uint32_t minor, const char *kind) {
    Bitmap bitmap;
    int64_t dirty = -1;
    std::string text = "unknown";
    if (trak_bitmap_get(app.t(), minor, bitmap_type(kind), &bitmap) == 0) {
        uint64_t marked = bitmap.marked();
        change.number("changed_extents", marked).number("changed_bytes", bitmap.marked_bytes());
        text = fmt::format("{} ({})", size_text(bitmap.marked_bytes()),
                           percent_text(marked, bitmap.count));
    } else {
        change.null("changed_extents").null("changed_bytes");
    }
    std::string field = fmt::format("trak{}/{}_bmp_dirty", minor, kind);
    if (trak_status_number(app.t(), field.c_str(), &dirty) == 0)
        change.flag("dirty", dirty != 0);
    else
        change.null("dirty");
    json.value(kind, change);
    return text;
}

Json snap_status(const App &app, const trak_info_arg &info, uint32_t filter, Rows &rows) {
    Json json = snap_json(info, filter);
    Datablocks data = datablocks_of(app, info);
    trak_cow_usage usage;
    std::string text = "-";
    if (add_usage(json, info, usage))
        text = fmt::format("{} ({}), {} allocated", size_text(usage.bytes_preserved),
                           percent_text(usage.bytes_preserved, usage.volume_bytes),
                           size_text(usage.bytes_allocated));
    add_datablocks(json, data);
    rows.push_back({"  " + std::to_string(info.minor), state_text(info),
                    std::to_string(info.use_cnt), size_text(info.dev_size), "COW", text,
                    field_text(info.name)});
    if (data.known)
        rows.push_back({"", "", "", "", "data", datablocks_text(data), ""});
    return json;
}

Json filter_status(const App &app, const trak_info_arg &info, Rows &rows) {
    Json json = filter_json(info);
    int64_t queued = 0;
    std::string field = fmt::format("trak{}/cowqueue_len", info.minor);
    if (trak_status_number(app.t(), field.c_str(), &queued) == 0)
        json.integer("cowqueue_len", queued);
    else
        json.null("cowqueue_len");
    std::string incr = add_change(app, json, incr_json(info), info.minor, "incr");
    std::string diff = add_change(app, json, diff_json(info), info.minor, "diff");
    rows.push_back({std::to_string(info.minor), state_text(info), std::to_string(info.use_cnt),
                    size_text(info.dev_size), incr, diff, field_text(info.hdd_name)});
    Json snaps = Json::array();
    for (uint32_t i = 0; i < info.snaps && i < TRAK_LIST_MAX; i++) {
        trak_info_arg snap;
        if (trak_get_info(app.t(), info.snap_minors[i], &snap) == 0)
            snaps.add(snap_status(app, snap, info.minor, rows));
    }
    json.value("snapshots", snaps);
    return json;
}

void show_status(const App &app, bool compact) {
    Json json = Json::object(), filters = Json::array();
    Rows rows = {{"NODE", "STATE", "USE", "SIZE", "INCREMENTAL", "DIFFERENTIAL", "DISK"}};
    for (uint32_t minor : node_list(app, TRAK_DEV_FILTER)) {
        trak_info_arg info;
        if (trak_get_info(app.t(), minor, &info) == 0)
            filters.add(filter_status(app, info, rows));
    }
    json.text("root", app.request.root).value("filters", filters);
    if (app.request.json)
        app.out() << (compact ? json.line() : json.pretty());
    else
        app.out() << (rows.size() == 1 ? "no nodes\n" : table_text(rows));
}

}  // namespace

void status(App &app) {
    if (!app.request.watch)
        return show_status(app, false);
    bool first = true;
    do {
        if (app.world.out_is_terminal && !app.request.json)
            app.out() << "\x1b[H\x1b[2J";
        else if (!app.request.json && !first)
            app.out() << "\n";
        show_status(app, true);
        app.out().flush();
        first = false;
    } while (app.out().good() && app.world.pause(app.request.interval_seconds));
}

}  // namespace ctl
