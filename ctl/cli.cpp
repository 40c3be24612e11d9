// ctl/cli.cpp: the command line, parsed (the one file that includes CLI11)
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/conf.h"
#include "ctl/request.h"

#include <CLI/CLI.hpp>

#include <cctype>
#include <limits>

#ifndef TRAK_VERSION
#define TRAK_VERSION "unknown"
#endif

namespace ctl {
namespace {

constexpr uint64_t largest_unit = uint64_t{1} << 31;

// A size option: text with a suffix into a 32-bit number of bytes.
CLI::Option *add_size(CLI::App &app, const char *flags, uint32_t &into, const char *help) {
    auto *option = app.add_option_function<std::string>(
        flags,
        [&into](const std::string &text) {
            auto size = parse_size(text);
            if (!size)
                throw CLI::ValidationError("\"" + text + "\" is no size: 4096, 64K and 1M are");
            if (*size > largest_unit)
                throw CLI::ValidationError("\"" + text + "\" is too large: at most 2G");
            into = static_cast<uint32_t>(*size);
        },
        help);
    return option->type_name("SIZE");
}

CLI::App *add_verb(CLI::App &app, Request &request, Verb verb, const char *name, const char *help) {
    auto *sub = app.add_subcommand(name, help);
    sub->fallthrough();
    sub->callback([&request, verb] { request.verb = verb; });
    return sub;
}

void add_minor(CLI::App &app, Request &request, const char *help) {
    app.add_option("N", request.minor, help)->required()->type_name("MINOR");
}

void add_labels(CLI::App &app, Request &request) {
    app.add_option("--minor", request.wanted_minor, "minor wanted (default: the lowest free one)")
        ->check(CLI::Range(0, std::numeric_limits<int32_t>::max()))
        ->type_name("N");
    app.add_option("--name", request.name, "name of the node's device file (default: trakN)")
        ->type_name("S");
    app.add_option("--uuid", request.uuid, "identifier (default: one is generated)")
        ->type_name("U");
}

void add_creations(CLI::App &app, Request &request) {
    auto *filter = add_verb(app, request, Verb::add_filter, "add-filter",
                            "put a filter node over a disk, guarded against crashes");
    filter->add_option("--disk", request.disk, "the disk's block special file")
        ->required()
        ->type_name("PATH");
    add_size(*filter, "--extent-size", request.unit_size, "bytes per extent, for example 64K")
        ->required();
    filter->add_option("--bmp-dir", request.bmp_dir, "directory of the bitmap files")
        ->required()
        ->type_name("DIR");
    add_labels(*filter, request);

    auto *snap = add_verb(app, request, Verb::add_snap, "add-snap",
                          "make a snapshot node on a filter (start takes the snapshot)");
    snap->add_option("--filter", request.minor, "minor of the filter")
        ->required()
        ->type_name("MINOR");
    add_size(*snap, "--chunk-size", request.unit_size, "bytes per chunk, for example 64K")
        ->required();
    snap->add_option("--cow-bmp", request.cow_bmp, "file for the COW bitmap")
        ->required()
        ->type_name("FILE");
    snap->add_option("--cow-data", request.cow_data, "file for the COW data")
        ->required()
        ->type_name("FILE");
    add_labels(*snap, request);
}

void add_lifecycle(CLI::App &app, Request &request) {
    add_minor(*add_verb(app, request, Verb::start, "start", "start a node"), request,
              "the node to start");
    add_minor(*add_verb(app, request, Verb::stop, "stop", "stop a node and save its bitmaps"),
              request, "the node to stop");
    add_minor(*add_verb(app, request, Verb::del, "delete",
                        "stop and delete a node (a filter with its snapshots)"),
              request, "the node to delete");
    auto *resume =
        add_verb(app, request, Verb::resume, "resume", "go on with a snapshot from its COW files");
    add_minor(*resume, request, "the snapshot to resume");
    resume->add_option("--valid", request.resume.snap_valid, "value of snap_valid (default: 1)")
        ->check(CLI::Range(0, 1))
        ->type_name("0|1");
    resume
        ->add_option("--stop-pending", request.resume.stop_pending,
                     "value of stop_pending (default: 0)")
        ->check(CLI::Range(0, 1))
        ->type_name("0|1");
    resume
        ->add_option("--del-pending", request.resume.del_pending,
                     "value of del_pending (default: 0)")
        ->check(CLI::Range(0, 1))
        ->type_name("0|1");
}

void add_reports(CLI::App &app, Request &request) {
    auto *list = add_verb(app, request, Verb::list, "list", "list the nodes");
    list->add_option("TYPE", request.kind, "only this type")
        ->check(CLI::IsMember({"filter", "snap"}))
        ->type_name("filter|snap");
    add_minor(*add_verb(app, request, Verb::info, "info", "everything about one node"), request,
              "the node");
    auto *status = add_verb(app, request, Verb::status, "status",
                            "what has changed on every filter, what every snapshot takes");
    status->add_flag("--watch", request.watch, "show it again and again until interrupted");
    status->add_option("--interval", request.interval_seconds, "seconds between two looks")
        ->check(CLI::Range(0.05, 86400.0))
        ->type_name("S");
    auto *debug = add_verb(app, request, Verb::debug, "debug", "show or set the debug level");
    debug
        ->add_option_function<int>(
            "LEVEL", [&request](const int &level) { request.level = level; }, "the new level")
        ->type_name("LEVEL");
}

void add_bitmaps(CLI::App &app, Request &request) {
    auto *bitmap = add_verb(app, request, Verb::bitmap, "bitmap",
                            "read, reset, replace, add to, save or load a change bitmap");
    bitmap->add_option("ACTION", request.action, "what to do")
        ->required()
        ->check(CLI::IsMember({"get", "get-clear", "clear", "set", "merge", "save", "load"}))
        ->type_name("get|get-clear|clear|set|merge|save|load");
    add_minor(*bitmap, request, "the filter");
    bitmap->add_option("TYPE", request.kind, "which bitmap")
        ->required()
        ->check(CLI::IsMember({"incr", "diff"}))
        ->type_name("incr|diff");
    bitmap
        ->add_option("--file", request.file,
                     "raw bits: written by get and get-clear, read by set and merge (- for "
                     "standard output or input)")
        ->type_name("F");

    auto *datablock = add_verb(app, request, Verb::datablock, "datablock",
                               "which extents of a snapshot hold data");
    add_minor(*datablock, request, "the snapshot");
    add_size(*datablock, "--extent-size", request.unit_size,
             "bytes per bit, for example 64K (default: the chunk size)");
    datablock->add_option("--file", request.file, "write the raw bits there")->type_name("F");

    auto *test = add_verb(app, request, Verb::test_datablock, "test-datablock",
                          "self-test of the file-system readers on an unmounted disk");
    test->add_option("PATH", request.disk, "the disk")->required()->type_name("PATH");

    auto *map = add_verb(app, request, Verb::map, "map", "a bitmap as a picture");
    add_minor(*map, request, "the node");
    map->add_option("TYPE", request.kind, "which bitmap")
        ->required()
        ->check(CLI::IsMember({"incr", "diff", "datablock"}))
        ->type_name("incr|diff|datablock");
    map->add_option("--svg", request.svg, "write an SVG picture there instead")->type_name("F");
}

void add_config(CLI::App &app, Request &request) {
    auto verb = [&](Verb which, const char *name, const char *help) {
        auto *sub = add_verb(app, request, which, name, help);
        sub->add_option("--config", request.config, "folder of *.conf files, or one such file")
            ->default_val(conf_default)
            ->type_name("PATH");
        return sub;
    };
    verb(Verb::attach_all, "attach-all", "attach and start every configured disk");
    verb(Verb::stop_all, "stop-all", "stop every filter, the configured ones in reverse order")
        ->add_option("--wait", request.wait_seconds, "seconds to wait for nodes that are in use")
        ->check(CLI::Range(0.0, 86400.0))
        ->type_name("S");
    verb(Verb::check_config, "check-config",
         "read the configuration and say what is wrong with it");
}

// What the options allow but the commands do not: a sentence, or empty.
std::string contradiction(const Request &r) {
    if (r.verb != Verb::bitmap)
        return "";
    bool takes_file =
        r.action == "get" || r.action == "get-clear" || r.action == "set" || r.action == "merge";
    if (!r.file.empty() && !takes_file)
        return "bitmap " + r.action + " takes no --file";
    if (r.file.empty() && r.action == "merge")
        return "bitmap merge needs --file, the bits to add";
    return "";
}

std::string one_line(std::string text) {
    for (char &c : text)
        if (c == '\n')
            c = ' ';
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

Early wrong(const std::string &text) {
    return {2, "trakctl: " + one_line(text) + " (\"trakctl --help\" shows how)\n"};
}

}  // namespace

std::optional<uint64_t> parse_size(const std::string &text) {
    size_t digits = 0;
    uint64_t value = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])) != 0) {
        auto digit = static_cast<uint64_t>(text[digits] - '0');
        if (value > (std::numeric_limits<uint64_t>::max() - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
        digits++;
    }
    if (digits == 0)
        return std::nullopt;
    std::string suffix = text.substr(digits);
    for (char &c : suffix)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    unsigned shift = 0;
    if (suffix.size() == 1 || (suffix.size() == 3 && suffix.substr(1) == "ib")) {
        size_t power = std::string("bkmgt").find(suffix[0]);
        if (power == std::string::npos || (power == 0 && suffix.size() == 3))
            return std::nullopt;
        shift = static_cast<unsigned>(power) * 10;
    } else if (!suffix.empty()) {
        return std::nullopt;
    }
    if (value > (std::numeric_limits<uint64_t>::max() >> shift))
        return std::nullopt;
    return value << shift;
}

std::variant<Request, Early> parse_command_line(int argc, const char *const *argv) {
    Request request;
    CLI::App app("Control of the trak block filter and snapshot driver.", "trakctl");
    app.set_version_flag("--version", "trakctl " TRAK_VERSION);
    app.add_option("--root", request.root,
                   "the driver's tree: trakd's mount point, or / for the kernel module")
        ->envname("TRAK_ROOT")
        ->type_name("DIR");
    app.add_flag("--json", request.json, "write JSON, for scripts");
    app.require_subcommand(1);
    add_creations(app, request);
    add_lifecycle(app, request);
    add_reports(app, request);
    add_bitmaps(app, request);
    add_config(app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        auto subs = app.get_subcommands();
        return Early{0, subs.empty() ? app.help() : subs.front()->help("trakctl")};
    } catch (const CLI::CallForVersion &version) {
        return Early{0, std::string(version.what()) + "\n"};
    } catch (const CLI::ParseError &error) {
        auto rest = app.remaining();
        if (!app.get_subcommands().empty() ||
            dynamic_cast<const CLI::RequiredError *>(&error) == nullptr)
            return wrong(error.what());
        return wrong(rest.empty() ? "no command given"
                                  : "unknown command \"" + rest.front() + "\"");
    }
    std::string text = contradiction(request);
    if (!text.empty())
        return wrong(text);
    request.resume.minor = request.minor;
    if (request.verb == Verb::datablock)
        request.kind = "datablock";
    return request;
}

}  // namespace ctl
