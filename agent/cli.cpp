// agent/cli.cpp: the command line, parsed (the one file that includes CLI11)
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/request.h"
#include "agent/steps.h"
#include "agent/version.h"

#include <CLI/CLI.hpp>

namespace agent {
namespace {

CLI::App *add_verb(CLI::App &app, Request &request, Verb verb, const char *name, const char *help) {
    auto *sub = app.add_subcommand(name, help);
    sub->fallthrough();
    sub->callback([&request, verb] { request.verb = verb; });
    return sub;
}

void add_store(CLI::App &app, Request &request) {
    app.add_option("--store", request.store, "folder of the disk's backups")
        ->required()
        ->type_name("DIR");
}

void add_node(CLI::App &app, Request &request) {
    app.add_option("--disk", request.disk, "the filter node: its name or minor")
        ->required()
        ->type_name("NODE");
    app.add_option("--cow-dir", request.cow_dir,
                   "folder for what is overwritten meanwhile (default: the store)")
        ->type_name("DIR");
    app.add_option("--chunk-size", request.chunk_size,
                   "chunk size of the snapshot (default: 64K; a filter's snapshots share it)")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE");
    app.add_option("--cow-reserve", request.cow_reserve,
                   "room that must be free there (default: 1% of the disk, 1M to 1G)")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE");
}

// For tests: hidden.
void add_steps(CLI::App &app, Request &request) {
    auto *stop =
        app.add_option("--stop-at", request.stop_at)->envname("TRAK_BACKUP_STOP_AT")->group("");
    auto *kill =
        app.add_option("--kill-at", request.kill_at)->envname("TRAK_BACKUP_KILL_AT")->group("");
    CLI::Validator step(
        [](const std::string &text) {
            return is_step(text) ? "" : "\"" + text + "\" is no step: --list-steps shows them";
        },
        "STEP");
    stop->check(step);
    kill->check(step);
}

void add_backup(CLI::App &app, Request &request, Verb verb, const char *name, const char *help) {
    auto *sub = add_verb(app, request, verb, name, help);
    add_node(*sub, request);
    add_store(*sub, request);
    if (verb != Verb::full)
        sub->add_flag("--no-full", request.no_full, "fail where a full backup would be needed");
    if (verb == Verb::incr)
        sub->add_option("--audit-sample", request.audit_sample,
                        "unchanged blocks to compare with the chain; 0: none")
            ->check(CLI::Range(int64_t{0}, int64_t{1} << 40))
            ->type_name("N");
    add_steps(*sub, request);
}

void add_readers(CLI::App &app, Request &request) {
    auto *list = add_verb(app, request, Verb::list, "list", "the backups of a store");
    add_store(*list, request);
    auto *restore = add_verb(app, request, Verb::restore, "restore",
                             "write a point of a chain to an image file or a disk");
    add_store(*restore, request);
    restore->add_option("--point", request.point, "which backup (default: the latest)")
        ->type_name("ID");
    restore->add_option("--to", request.to, "file or block device")->required()->type_name("PATH");
    restore->add_flag("--force", request.force, "overwrite a file that is there, or a disk");
    restore->add_flag("--keep-going", request.keep_going, "although blocks are damaged");
    auto *verify = add_verb(app, request, Verb::verify, "verify",
                            "compare every file of a store with what it was when it was made");
    add_store(*verify, request);
    verify->add_flag("--quick", request.quick, "the files' checksums only, not the points' blocks");
}

void add_others(CLI::App &app, Request &request) {
    auto *audit = add_verb(app, request, Verb::audit, "audit",
                           "compare what no map calls changed with the chain");
    add_node(*audit, request);
    add_store(*audit, request);
    add_steps(*audit, request);
    audit->add_flag("--all", request.all, "all of it, not a sample");
    audit->add_option("--sample", request.audit_sample, "blocks to compare (default: 4096)")
        ->check(CLI::Range(int64_t{1}, int64_t{1} << 40))
        ->type_name("N");
    auto *prune = add_verb(app, request, Verb::prune, "prune",
                           "remove old backups; those that stay can all be restored");
    add_store(*prune, request);
    prune->add_option("--keep-count", request.keep_count, "keep the newest N")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    prune->add_option("--keep-days", request.keep_days, "keep those of the last N days")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    prune->add_flag("--dry-run", request.dry_run, "say what would go");
    auto *report = add_verb(app, request, Verb::report, "report",
                            "write a page for a browser: the chain, what changed, what it cost");
    add_store(*report, request);
    report->add_option("--to", request.to, "the page's file")->required()->type_name("FILE");
    report->add_option("--last", request.last, "the newest N one by one (default: 60)")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1000}))
        ->type_name("N");
    report->add_flag("--force", request.force, "overwrite a file that is no report");
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
    return {2, "trak-backup: " + one_line(text) + " (\"trak-backup --help\" shows how)\n"};
}

std::string contradiction(const Request &request) {
    if (request.verb == Verb::prune && request.keep_count == 0 && request.keep_days == 0)
        return "prune: give --keep-count or --keep-days";
    if (request.verb == Verb::audit && request.all && request.audit_sample > 0)
        return "audit: --all and --sample exclude each other";
    return "";
}

}  // namespace

std::variant<Request, Early> parse_command_line(int argc, const char *const *argv) {
    Request request;
    bool list_steps = false;
    CLI::App app("Backups of disks under the trak block filter.", "trak-backup");
    app.set_version_flag("--version", tool_name);
    app.add_option("--root", request.root,
                   "the driver's tree: trakd's mount point, or / for the kernel module")
        ->envname("TRAK_ROOT")
        ->type_name("DIR");
    app.add_flag("--json", request.json, "one event a line, as JSON");
    app.add_flag("--list-steps", list_steps)->group("");
    app.require_subcommand(0, 1);
    add_backup(app, request, Verb::full, "full", "back up all that holds data");
    add_backup(app, request, Verb::incr, "incr", "back up what changed since the last backup");
    add_backup(app, request, Verb::diff, "diff", "back up what changed since the last full one");
    add_readers(app, request);
    add_others(app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        auto subs = app.get_subcommands();
        return Early{0, subs.empty() ? app.help() : subs.front()->help("trak-backup")};
    } catch (const CLI::CallForVersion &version) {
        return Early{0, std::string(version.what()) + "\n"};
    } catch (const CLI::ParseError &error) {
        auto rest = app.remaining();
        return wrong(rest.empty() || !app.get_subcommands().empty()
                         ? error.what()
                         : "unknown command \"" + rest.front() + "\"");
    }
    if (list_steps) {
        request.verb = Verb::steps;
        return request;
    }
    if (app.get_subcommands().empty())
        return wrong("no command given");
    std::string text = contradiction(request);
    if (!text.empty())
        return wrong(text);
    return request;
}

}  // namespace agent
