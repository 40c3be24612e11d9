// ctl/cmd_all.cpp: every configured disk attached, every filter stopped, the configuration checked
// SPDX-License-Identifier: GPL-2.0-only
//
// One disk that fails is one line on standard error and a failed command; the others are attached or
// stopped all the same. Both commands may be given again: what is done already stays as it is.
#include "ctl/app.h"
#include "ctl/conf.h"
#include "ctl/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ctl {
namespace {

constexpr double step_seconds = 0.25;

// A list of results: lines of text, or one array.
struct Results {
    App &app;
    Json array = Json::array();

    void add(const Json &json, const std::string &line) {
        array.add(json);
        if (!app.request.json)
            app.out() << line << std::endl;  // at once: the next disk may be waited for
    }
    // One that failed: its line, and the whole command's status.
    void fail(Json &json, const std::string &sentence) {
        *app.world.err << "trakctl: " << sentence << std::endl;
        app.status = 1;
        array.add(json.text("state", "failed").text("error", sentence));
    }
    void end(const std::string &none) {
        if (app.request.json)
            app.out() << array.pretty();
        else if (app.status == 0 && array.line() == "[]\n")
            app.out() << none;
    }
};

Json disk_json(const ConfDisk &d) {
    Json json = Json::object();
    json.text("file", d.file).number("minor", d.minor).text("disk", d.disk);
    return json;
}

void add_faults(Results &results, const Conf &conf) {
    for (const std::string &fault : conf.faults) {
        Json json = Json::object();
        results.fail(json, fault);
    }
}

// --- attach-all -----------------------------------------------------------------------------------

// Until the disk's file is there or its time is over; `waited`: seconds so far, for all disks
// together. Names below /dev/image are trakd's own.
void wait_for_disk(const App &app, const ConfDisk &d, double &waited) {
    struct stat st;
    while (d.disk.compare(0, 11, "/dev/image/") != 0 && stat(d.disk.c_str(), &st) < 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            return;  // the driver says what is wrong
        if (waited >= d.wait_seconds)
            throw Failure{
                fmt::format("there is no disk {} after {} seconds", d.disk, d.wait_seconds)};
        if (!app.world.pause(step_seconds))
            throw Failure{fmt::format("interrupted while waiting for the disk {}", d.disk)};
        waited += step_seconds;
    }
}

// The node of this minor, where there is one already: whether. A node of something else is a Failure.
bool find_node(const App &app, const ConfDisk &d, trak_info_arg &info) {
    const auto minors = node_list(app, 0);
    if (std::find(minors.begin(), minors.end(), d.minor) == minors.end())
        return false;
    info = node_info(app, d.minor);
    if (info.dev_type != TRAK_DEV_FILTER)
        throw Failure{fmt::format("node {} is a snapshot: give the disk another minor", d.minor)};
    if (!same_disk(field_bytes(info.hdd_name), d.disk))
        throw Failure{
            fmt::format("node {} is a filter on {} already", d.minor, field_text(info.hdd_name))};
    return true;
}

// What a guarded call said although it succeeded.
struct Said {
    std::string notice;
    bool all_changed = false;
    void take(int rc, const char *why) {
        notice += why;
        all_changed = all_changed || rc == TRAK_ALL_CHANGED;
    }
};

// Whether somebody has claimed the disk: a mount, a volume group. One that is merely open is not.
bool is_claimed(const std::string &disk) {
    int fd = open(disk.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0)
        close(fd);
    return fd < 0;
}

void attach(const App &app, const ConfDisk &d, double &waited, Said &said) {
    char why[TRAK_WHY_SIZE];
    trak_add_filter_arg arg = {};
    memcpy(arg.hdd_name, d.disk.c_str(), d.disk.size() + 1);
    memcpy(arg.bmp_dir, d.bitmaps.c_str(), d.bitmaps.size() + 1);
    memcpy(arg.name, d.name.c_str(), d.name.size() + 1);
    arg.minor = static_cast<int32_t>(d.minor);
    arg.extent_size = d.extent_size;
    int rc = trak_attach_filter(app.t(), &arg, why);
    // While a disk appears udev has it open for a moment.
    while (rc == -EBUSY && waited < d.wait_seconds && !is_claimed(d.disk) &&
           app.world.pause(step_seconds)) {
        waited += step_seconds;
        rc = trak_attach_filter(app.t(), &arg, why);
    }
    if (rc < 0)
        throw Failure{why};
    said.take(rc, why);
}

void start_disk(const App &app, const ConfDisk &d, bool attached, Said &said) {
    char why[TRAK_WHY_SIZE];
    int rc = trak_start(app.t(), d.minor, why);
    if (rc >= 0) {
        announce(app, d.minor);
        return said.take(rc, why);
    }
    std::string sentence = why;
    // A node that can't be started only keeps its disk from everybody else.
    if (attached && trak_detach(app.t(), d.minor, why) < 0)
        sentence += fmt::format(" (and node {} stays: {})", d.minor, why);
    throw Failure{sentence};
}

void attach_disk(Results &results, const ConfDisk &d, double &waited) {
    App &app = results.app;
    Json json = disk_json(d);
    try {
        trak_info_arg info;
        Said said;
        bool there = find_node(app, d, info), started = there && info.started != 0;
        if (!there) {
            wait_for_disk(app, d, waited);
            attach(app, d, waited, said);
        }
        if (!started)
            start_disk(app, d, !there, said);
        info = node_info(app, d.minor);
        const char *state = started ? "already" : there ? "started" : "attached";
        json.text("state", state).text("name", field_bytes(info.name));
        json.flag("everything_changed", said.all_changed);
        if (said.notice.empty()) {
            json.null("notice");
        } else {
            json.text("notice", said.notice);
            app.notice(fmt::format("{}: {}", d.file, said.notice));
        }
        results.add(json, fmt::format("{}: node {} ({}) on {} is {}", d.file, d.minor,
                                      field_text(info.name), d.disk,
                                      started ? "started already"
                                      : there ? "started"
                                              : "attached and started"));
    } catch (const Failure &failure) {
        results.fail(json, fmt::format("{}: {}", d.file, failure.text));
    }
}

// --- stop-all -------------------------------------------------------------------------------------

struct Running {
    trak_info_arg info;
    bool configured;
};

// Every filter, in the order in which they are stopped: first those that no file names, the highest
// minor first, then the others in the reverse order of their files.
std::vector<Running> filters_to_stop(App &app, const Conf &conf) {
    std::vector<Running> first, last;
    auto minors = node_list(app, TRAK_DEV_FILTER);
    std::sort(minors.rbegin(), minors.rend());
    for (uint32_t minor : minors)
        if (std::none_of(conf.disks.begin(), conf.disks.end(),
                         [&](const ConfDisk &d) { return d.minor == minor; }))
            first.push_back({node_info(app, minor), false});
        else
            last.push_back({node_info(app, minor), true});
    auto place = [&](const Running &node) {
        return std::find_if(conf.disks.begin(), conf.disks.end(),
                            [&](const ConfDisk &d) { return d.minor == node.info.minor; });
    };
    std::sort(last.begin(), last.end(),
              [&](const Running &a, const Running &b) { return place(a) > place(b); });
    first.insert(first.end(), last.begin(), last.end());
    return first;
}

// One filter: false where it is in use and shall be tried again. A configured one goes, so that its
// disk is free; with snapshots it stays, for their files would go with it.
bool stop_filter(Results &results, const Running &node, bool last_try) {
    App &app = results.app;
    char why[TRAK_WHY_SIZE];
    uint32_t minor = node.info.minor;
    Json json = Json::object();
    json.number("minor", minor).text("name", field_bytes(node.info.name));
    json.text("disk", field_bytes(node.info.hdd_name));
    bool goes = node.configured && node_info(app, minor).snaps == 0;
    int rc = goes ? trak_detach(app.t(), minor, why) : trak_stop(app.t(), minor, why);
    if (rc == -EBUSY && !last_try)
        return false;
    if (rc < 0) {
        results.fail(json, why);
        return true;
    }
    app.notice(why);
    json.text("state", goes ? "deleted" : "stopped");
    if (why[0] == '\0')
        json.null("notice");
    else
        json.text("notice", why);
    results.add(json, fmt::format("node {} ({}) on {} is {}", minor, field_text(node.info.name),
                                  field_text(node.info.hdd_name),
                                  goes ? "stopped and deleted" : "stopped"));
    return true;
}

}  // namespace

void attach_all(App &app) {
    Conf conf = read_conf(app.request.config);
    Results results{app};
    add_faults(results, conf);
    if (!conf.disks.empty())
        app.connect();
    double waited = 0;
    for (const ConfDisk &disk : conf.disks)
        attach_disk(results, disk, waited);
    results.end(fmt::format("no disk is configured in {}\n", app.request.config));
}

void stop_all(App &app) {
    Conf conf;
    try {
        conf = read_conf(app.request.config);
    } catch (const Failure &failure) {
        app.notice(failure.text);
    }
    for (const std::string &fault : conf.faults)
        app.notice(fault);
    Results results{app};
    if (app.connect_if_loaded()) {
        auto left = filters_to_stop(app, conf);
        for (double waited = 0; !left.empty(); waited += step_seconds) {
            bool last_try = waited >= app.request.wait_seconds;
            left.erase(std::remove_if(left.begin(), left.end(),
                                      [&](const Running &node) {
                                          return stop_filter(results, node, last_try);
                                      }),
                       left.end());
            if (!left.empty() && !app.world.pause(step_seconds))
                waited = app.request.wait_seconds;  // interrupted: once more, then the truth
        }
    }
    results.end("nothing to stop\n");
}

void check_config(App &app) {
    Conf conf = read_conf(app.request.config);
    Results results{app};
    add_faults(results, conf);
    for (const ConfDisk &d : conf.disks) {
        std::string name = d.name.empty() ? fmt::format("trak{}", d.minor) : d.name;
        Json json = disk_json(d);
        json.text("state", "good").text("name", name).number("extent_size", d.extent_size);
        json.text("bmp_dir", d.bitmaps).number("wait", d.wait_seconds);
        results.add(json,
                    fmt::format("{}: node {} ({}) on {} in extents of {}, bitmaps in {}", d.file,
                                d.minor, name, d.disk, size_text(d.extent_size), d.bitmaps));
    }
    results.end(fmt::format("no disk is configured in {}\n", app.request.config));
}

}  // namespace ctl
