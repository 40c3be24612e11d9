// ctl/cmd_node.cpp: making, starting, stopping, deleting and resuming nodes
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/app.h"
#include "ctl/text.h"

#include <cstring>
#include <fstream>

#include <fmt/format.h>

namespace ctl {
namespace {

// A guarded call of libtrak: its sentence is the failure, or the notice.
struct Why {
    char text[TRAK_WHY_SIZE] = "";
    int checked(const App &app, int rc) const {
        if (rc < 0)
            throw Failure{text};
        app.notice(text);
        return rc;
    }
};

// Put text into a field of a record; what does not fit is refused, not cut.
template <size_t N> void fill(char (&field)[N], const std::string &text, const char *what) {
    if (text.size() >= N)
        throw Failure{fmt::format("the {} is too long: at most {} characters", what, N - 1)};
    memcpy(field, text.c_str(), text.size() + 1);
}

Json creation(uint32_t minor, const char *type, const std::string &name, const std::string &uuid) {
    Json json = Json::object();
    json.number("minor", minor).text("type", type).text("name", name).text("uuid", uuid);
    return json;
}

void add_notice(Json &json, const Why &why) {
    if (why.text[0] == '\0')
        json.null("notice");
    else
        json.text("notice", why.text);
}

void changed_state(App &app, int rc, const Why &why, const char *key, bool value,
                   const std::string &text) {
    Json json = Json::object();
    json.number("minor", app.request.minor).flag(key, value);
    json.flag("everything_changed", rc == TRAK_ALL_CHANGED);
    add_notice(json, why);
    app.result(json, fmt::format("node {} {}\n", app.request.minor, text));
}

}  // namespace

void add_filter(App &app) {
    const Request &r = app.request;
    trak_add_filter_arg arg = {};
    fill(arg.hdd_name, r.disk, "disk's path");
    fill(arg.bmp_dir, r.bmp_dir, "bitmap directory's path");
    fill(arg.uuid, r.uuid, "identifier");
    fill(arg.name, r.name, "name");
    arg.minor = r.wanted_minor;
    arg.extent_size = r.unit_size;
    Why why;
    int rc = why.checked(app, trak_attach_filter(app.t(), &arg, why.text));

    Json json = creation(static_cast<uint32_t>(arg.minor), "filter", field_bytes(arg.name),
                         field_bytes(arg.uuid));
    json.text("disk", field_bytes(arg.hdd_name)).number("extent_size", arg.extent_size);
    json.text("bmp_dir", field_bytes(arg.bmp_dir));
    json.flag("everything_changed", rc == TRAK_ALL_CHANGED);
    add_notice(json, why);
    app.result(json, fmt::format("node {} ({}) filters {} in extents of {}; it is stopped\n",
                                 arg.minor, field_text(arg.name), field_text(arg.hdd_name),
                                 size_text(arg.extent_size)));
}

void add_snap(App &app) {
    const Request &r = app.request;
    trak_add_snap_arg arg = {};
    fill(arg.cow_bmp_fname, r.cow_bmp, "COW bitmap file's path");
    fill(arg.cow_data_fname, r.cow_data, "COW data file's path");
    fill(arg.uuid, r.uuid, "identifier");
    fill(arg.name, r.name, "name");
    arg.filter_minor = r.minor;
    arg.snap_minor = r.wanted_minor;
    arg.chunk_size = r.unit_size;
    Why why;
    why.checked(app, trak_attach_snap(app.t(), &arg, why.text));

    Json json = creation(static_cast<uint32_t>(arg.snap_minor), "snap", field_bytes(arg.name),
                         field_bytes(arg.uuid));
    json.number("filter", arg.filter_minor).number("chunk_size", arg.chunk_size);
    json.text("cow_bmp", field_bytes(arg.cow_bmp_fname));
    json.text("cow_data", field_bytes(arg.cow_data_fname));
    add_notice(json, why);
    app.result(json, fmt::format("node {} ({}) is a snapshot of node {} in chunks of {}; start it "
                                 "to take the snapshot\n",
                                 arg.snap_minor, field_text(arg.name), arg.filter_minor,
                                 size_text(arg.chunk_size)));
}

void announce(const App &app, uint32_t minor) {
    if (strcmp(trak_root(app.t()), "/") != 0)
        return;
    // A file that isn't there is not made: the stream is for reading and writing.
    std::fstream(fmt::format("/sys/class/block/trak{}/uevent", minor)) << "change\n";
}

void start(App &app) {
    Why why;
    int rc = why.checked(app, trak_start(app.t(), app.request.minor, why.text));
    announce(app, app.request.minor);
    changed_state(app, rc, why, "started", true, "is started");
}

void stop(App &app) {
    Why why;
    int rc = why.checked(app, trak_stop(app.t(), app.request.minor, why.text));
    bool runs = node_info(app, app.request.minor).started != 0;
    changed_state(app, rc, why, "started", runs, runs ? "goes on for now" : "is stopped");
}

void del(App &app) {
    Why why;
    int rc = why.checked(app, trak_detach(app.t(), app.request.minor, why.text));
    bool there = false;
    for (uint32_t minor : node_list(app, 0))
        there = there || minor == app.request.minor;
    changed_state(app, rc, why, "deleted", !there, there ? "goes on for now" : "is deleted");
}

void resume(App &app) {
    Why why;
    int rc = why.checked(app, trak_resume(app.t(), &app.request.resume, why.text));
    changed_state(app, rc, why, "started", true, "is resumed");
}

void debug(App &app) {
    int level = 0;
    if (app.request.level) {
        int rc = trak_debug_set(app.t(), *app.request.level);
        if (rc < 0)
            throw Failure{fmt::format("can't set the debug level: {}", strerror(-rc))};
    }
    int rc = trak_debug_get(app.t(), &level);
    if (rc < 0)
        throw Failure{fmt::format("can't read the debug level: {}", strerror(-rc))};
    Json json = Json::object();
    json.integer("debug", level);
    app.result(json, fmt::format("{}\n", level));
}

void test_datablock(App &app) {
    const std::string &disk = app.request.disk;
    int rc = trak_test_datablock(app.t(), disk.c_str());
    if (rc == -EBUSY)
        throw Failure{fmt::format("can't test {}: it is mounted; unmount it first", disk)};
    if (rc < 0)
        fail(app, rc, "test " + disk);
    Json json = Json::object();
    json.text("disk", disk).flag("passed", true);
    app.result(json, disk + ": passed\n");
}

}  // namespace ctl
