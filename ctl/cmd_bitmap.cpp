// ctl/cmd_bitmap.cpp: reading, resetting, replacing, saving and loading bitmaps
// SPDX-License-Identifier: GPL-2.0-only
//
// bitmap get-clear takes marks out of the driver, so they must arrive somewhere: the file's room is
// reserved first, no signal ends the program in between, and where the result can't be written the
// marks are merged back.
#include "ctl/app.h"
#include "ctl/file.h"
#include "ctl/text.h"

#include <cerrno>
#include <optional>
#include <ostream>

#include <fmt/format.h>

namespace ctl {
namespace {

const char *kind_text(const std::string &kind) {
    return kind == "incr" ? "incremental" : kind == "diff" ? "differential" : "data-block";
}

std::string which(const Request &r) {
    return fmt::format("{} bitmap of node {}", kind_text(r.kind), r.minor);
}

// A node that has change bitmaps.
trak_info_arg filter_info(const App &app) {
    trak_info_arg info = node_info(app, app.request.minor);
    if (info.dev_type != TRAK_DEV_FILTER)
        throw Failure{fmt::format("node {} is a snapshot and has no change bitmaps: give its "
                                  "filter",
                                  info.minor)};
    return info;
}

Json runs_json(const Bitmap &bitmap, std::string &text) {
    Json runs = Json::array();
    uint64_t start = 0, length = 0, from = 0;
    while ((length = trak_bits_run(bitmap.bits, bitmap.count, from, &start)) > 0) {
        uint64_t offset = start * bitmap.unit_size;
        uint64_t end = (start + length) * bitmap.unit_size;
        if (end > bitmap.dev_size)
            end = bitmap.dev_size;
        Json run = Json::object();
        run.number("first", start).number("count", length);
        run.number("offset", offset).number("bytes", end - offset);
        runs.add(run);
        text += fmt::format("{} {} {}\n", start, length, end - offset);
        from = start + length;
    }
    return runs;
}

// What a bitmap says: a summary, and where no file takes the bits, every run of marked extents.
void show(const App &app, const Bitmap &bitmap, const char *extent_word) {
    const Request &r = app.request;
    uint64_t marked = bitmap.marked();
    Json json = Json::object();
    json.number("minor", r.minor).text("bitmap", r.kind);
    json.number("size", bitmap.size).number("extents", bitmap.count);
    json.number("extent_size", bitmap.unit_size).number("marked_extents", marked);
    json.number("marked_bytes", bitmap.marked_bytes());
    std::string text = fmt::format("# {}: {} of {} {} ({}, {}), {} each\n", which(r), marked,
                                   bitmap.count, extent_word, size_text(bitmap.marked_bytes()),
                                   percent_text(marked, bitmap.count), size_text(bitmap.unit_size));
    if (!r.file.empty()) {
        json.text("file", r.file);
    } else {
        text += "# first count bytes\n";
        json.value("runs", runs_json(bitmap, text));
    }
    app.result(json, text);
}

// The bits to where --file says, and the summary.
void deliver(const App &app, const Bitmap &bitmap, std::optional<OutFile> &file,
             const char *extent_word) {
    if (app.request.file == "-") {
        app.out().write(reinterpret_cast<const char *>(bitmap.bits),
                        static_cast<std::streamsize>(bitmap.size));
    } else {
        if (file)
            file->commit(bitmap.bits, bitmap.size);
        show(app, bitmap, extent_word);
    }
    app.out().flush();
    if (!app.out().good())
        throw Failure{"can't write the bitmap to standard output"};
}

void prepare_file(const App &app, std::optional<OutFile> &file, uint64_t size) {
    if (!app.request.file.empty() && app.request.file != "-")
        file.emplace(app.request.file, size);
}

void get(const App &app) {
    const Request &r = app.request;
    filter_info(app);
    Bitmap bitmap;
    std::optional<OutFile> file;
    int rc = trak_bitmap_get(app.t(), r.minor, bitmap_type(r.kind), &bitmap);
    if (rc < 0)
        fail(app, rc, "get the " + which(r));
    prepare_file(app, file, bitmap.size);
    deliver(app, bitmap, file, "extents changed");
}

void get_clear(const App &app) {
    const Request &r = app.request;
    trak_info_arg info = filter_info(app);
    std::optional<OutFile> file;
    prepare_file(app, file, r.kind == "incr" ? info.incr_bmp_size : info.diff_bmp_size);

    Uninterrupted until_done;
    Bitmap bitmap;
    int rc = trak_bitmap_take(app.t(), r.minor, bitmap_type(r.kind), &bitmap);
    if (rc < 0)
        fail(app, rc, "get and clear the " + which(r));
    try {
        deliver(app, bitmap, file, "extents changed");
    } catch (const Failure &failure) {
        rc = trak_merge_bmp(app.t(), r.minor, bitmap_type(r.kind), bitmap.bits, bitmap.size);
        throw Failure{fmt::format("{}; {}", failure.text,
                                  rc == 0 ? "the marks were put back"
                                          : "the marks could NOT be put back: make a full backup")};
    }
}

// A command that changes or moves a bitmap and returns nothing.
void done(const App &app, int rc, const char *what) {
    const Request &r = app.request;
    if (rc < 0)
        fail(app, rc, fmt::format("{} the {}", what, which(r)));
    Json json = Json::object();
    json.number("minor", r.minor).text("bitmap", r.kind).text("action", r.action);
    app.result(json, fmt::format("{}: {} done\n", which(r), r.action));
}

void set(const App &app) {
    const Request &r = app.request;
    trak_info_arg info = filter_info(app);
    uint32_t type = bitmap_type(r.kind);
    if (r.file.empty())
        return done(app, trak_set_bmp(app.t(), r.minor, type, nullptr, 0), "set");
    uint32_t size = type == TRAK_BMP_INCR ? info.incr_bmp_size : info.diff_bmp_size;
    auto bits = read_exactly(r.file, size);
    int rc = r.action == "set" ? trak_set_bmp(app.t(), r.minor, type, bits.data(), size)
                               : trak_merge_bmp(app.t(), r.minor, type, bits.data(), size);
    done(app, rc, r.action == "set" ? "set" : "merge into");
}

void load(const App &app) {
    const Request &r = app.request;
    filter_info(app);
    done(app, trak_load_bmp(app.t(), r.minor, bitmap_type(r.kind)), "load");
    // The driver answers a file that it can't trust with a success and a full bitmap.
    trak_info_arg info = node_info(app, r.minor);
    if ((r.kind == "incr" ? info.incr_bmp_full : info.diff_bmp_full) != 0)
        app.notice(fmt::format("everything counts as changed in the {}: its file says so, or was "
                               "not to be trusted",
                               which(r)));
}

}  // namespace

void bitmap(App &app) {
    const Request &r = app.request;
    if (r.action == "get")
        return get(app);
    if (r.action == "get-clear")
        return get_clear(app);
    if (r.action == "set" || r.action == "merge")
        return set(app);
    if (r.action == "load")
        return load(app);
    filter_info(app);
    if (r.action == "clear")
        return done(app, trak_clr_bmp(app.t(), r.minor, bitmap_type(r.kind)), "clear");
    done(app, trak_save_bmp(app.t(), r.minor, bitmap_type(r.kind)), "save");
}

void datablock(App &app) {
    const Request &r = app.request;
    trak_info_arg info = node_info(app, r.minor);
    if (info.dev_type != TRAK_DEV_SNAP)
        throw Failure{
            fmt::format("node {} is a filter: data blocks are known of snapshots only", r.minor)};
    if (r.unit_size != 0 &&
        ((r.unit_size & (r.unit_size - 1)) != 0 || r.unit_size < info.chunk_size))
        throw Failure{fmt::format("the extent size must be a power of two and at least the "
                                  "snapshot's chunk size, {}",
                                  size_text(info.chunk_size))};
    Bitmap bitmap;
    std::optional<OutFile> file;
    int rc = trak_bitmap_datablocks(app.t(), r.minor, r.unit_size, &bitmap);
    if (rc < 0)
        fail(app, rc, "get the " + which(r));
    prepare_file(app, file, bitmap.size);
    deliver(app, bitmap, file, "extents hold data");
}

}  // namespace ctl
