// ctl/app.cpp: one command from its words to its exit status
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/app.h"

#include <cerrno>
#include <cstring>
#include <ostream>

#include <fmt/format.h>

namespace ctl {
namespace {

void dispatch(App &app) {
    switch (app.request.verb) {
    case Verb::add_filter:
        return add_filter(app);
    case Verb::add_snap:
        return add_snap(app);
    case Verb::start:
        return start(app);
    case Verb::stop:
        return stop(app);
    case Verb::del:
        return del(app);
    case Verb::resume:
        return resume(app);
    case Verb::list:
        return list(app);
    case Verb::info:
        return info(app);
    case Verb::status:
        return status(app);
    case Verb::bitmap:
        return bitmap(app);
    case Verb::datablock:
        return datablock(app);
    case Verb::test_datablock:
        return test_datablock(app);
    case Verb::map:
        return map(app);
    case Verb::debug:
        return debug(app);
    case Verb::attach_all:
        return attach_all(app);
    case Verb::stop_all:
        return stop_all(app);
    case Verb::check_config:
        return check_config(app);
    }
}

bool connects_itself(Verb verb) {
    return verb == Verb::attach_all || verb == Verb::stop_all || verb == Verb::check_config;
}

int run_request(const Request &request, const World &world) {
    App app{world, request, nullptr};
    if (!connects_itself(request.verb))
        app.connect();
    dispatch(app);
    world.out->flush();
    if (!world.out->good())
        throw Failure{"can't write the result to standard output"};
    return app.status;
}

}  // namespace

int run(int argc, const char *const *argv, const World &world) {
    try {
        auto parsed = parse_command_line(argc, argv);
        if (auto *early = std::get_if<Early>(&parsed)) {
            *(early->status == 0 ? world.out : world.err) << early->text << std::flush;
            return early->status;
        }
        return run_request(std::get<Request>(parsed), world);
    } catch (const Failure &failure) {
        *world.err << "trakctl: " << failure.text << std::endl;
    } catch (const std::exception &error) {
        *world.err << "trakctl: " << error.what() << std::endl;
    }
    return 1;
}

void App::connect() {
    char why[TRAK_WHY_SIZE] = "";
    trak *t = nullptr;
    if (world.open(request.root.c_str(), &t, why) < 0)
        throw Failure{why};
    connection.reset(t);
}

bool App::connect_if_loaded() {
    char why[TRAK_WHY_SIZE] = "";
    trak *t = nullptr;
    int rc = world.open(request.root.c_str(), &t, why);
    if (rc < 0 && rc != -ENODEV)
        throw Failure{why};
    connection.reset(t);
    return rc >= 0;
}

void App::result(const Json &json, const std::string &text) const {
    out() << (request.json ? json.pretty() : text);
}

void App::notice(const std::string &sentence) const {
    if (!sentence.empty())
        *world.err << "trakctl: note: " << sentence << std::endl;
}

void fail(const App &app, int rc, const std::string &what) {
    const std::string &root = app.request.root;
    std::string log = root == "/" ? "dmesg" : root + "/log";
    switch (rc) {
    case -EOPNOTSUPP:
    case -ENOTTY:
        throw Failure{fmt::format("can't {}: this driver does not support that", what)};
    case -EINVAL:
        throw Failure{fmt::format("can't {}: the driver refused; {} says why", what, log)};
    case -ENOTCONN:
        throw Failure{fmt::format("can't {}: trakd at {} is gone; start it again", what, root)};
    default:
        throw Failure{fmt::format("can't {}: {}; {} may say more", what, strerror(-rc), log)};
    }
}

trak_info_arg node_info(const App &app, uint32_t minor) {
    trak_info_arg info;
    int rc = trak_get_info(app.t(), minor, &info);
    if (rc == -EINVAL)
        throw Failure{
            fmt::format("there is no node {}: \"trakctl list\" shows which there are", minor)};
    if (rc < 0)
        fail(app, rc, fmt::format("look at node {}", minor));
    return info;
}

std::vector<uint32_t> node_list(const App &app, uint32_t dev_type) {
    std::vector<uint32_t> minors(256);
    for (;;) {
        int count = trak_nodes(app.t(), dev_type, minors.data(), static_cast<int>(minors.size()));
        if (count < 0)
            fail(app, count, "list the nodes");
        bool whole = static_cast<size_t>(count) <= minors.size();
        minors.resize(static_cast<size_t>(count));
        if (whole)
            return minors;
    }
}

uint32_t bitmap_type(const std::string &kind) {
    return kind == "incr" ? TRAK_BMP_INCR : TRAK_BMP_DIFF;
}

uint64_t Bitmap::marked_bytes() const {
    uint64_t last = count - 1, bytes = marked() * unit_size;
    bool last_is_marked = (bits[last >> 3] >> (last & 7) & 1) != 0;
    return last_is_marked && count * unit_size > dev_size ? bytes - (count * unit_size - dev_size)
                                                          : bytes;
}

}  // namespace ctl
