// agent/app.cpp: one command from its words to its exit status
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/app.h"

#include "agent/backup.h"
#include "agent/list.h"
#include "agent/prune.h"
#include "agent/report.h"
#include "agent/request.h"
#include "agent/restore.h"
#include "agent/verify.h"

#include <memory>
#include <ostream>

#include <fmt/format.h>

namespace agent {
namespace {

struct Close {
    void operator()(trak *t) const { trak_close(t); }
};

int list_steps(const World &world) {
    for (const StepName &step : step_names())
        *world.out << fmt::format("{:<18}{}{}{}  {}\n", step.name, step.full ? "full " : "-    ",
                                  step.incr ? "incr " : "-    ", step.diff ? "diff" : "-   ",
                                  step.meaning);
    return status_ok;
}

// Commands that the driver takes part in.
int with_driver(const Request &r, const World &world, Events &events) {
    char why[TRAK_WHY_SIZE] = "";
    trak *t = nullptr;
    if (world.open(r.root.c_str(), &t, why) < 0)
        throw Failure(why);
    std::unique_ptr<trak, Close> connection(t);
    Driver driver(t);
    std::unique_ptr<ImageTool> images = qemu_tool();
    Steps steps;
    steps.stop_at = r.stop_at;
    steps.kill_at = r.kill_at;
    Context context = {driver, *images, events, steps};
    if (r.verb == Verb::audit)
        return make_audit(context, {r.disk, r.store, r.cow_dir, r.chunk_size, r.cow_reserve, r.all,
                                    r.audit_sample});
    BackupOptions options;
    options.kind = r.verb == Verb::full   ? Kind::full
                   : r.verb == Verb::incr ? Kind::incr
                                          : Kind::diff;
    options.disk = r.disk;
    options.store = r.store;
    options.cow_dir = r.cow_dir;
    options.chunk_size = r.chunk_size;
    options.no_full = r.no_full;
    options.audit_sample = r.audit_sample;
    options.cow_reserve = r.cow_reserve;
    return make_backup(context, options);
}

int dispatch(const Request &r, const World &world, Events &events) {
    switch (r.verb) {
    case Verb::steps:
        return list_steps(world);
    case Verb::list:
        return list_backups(events, r.store);
    case Verb::restore: {
        RestoreOptions options = {r.store, r.point, r.to, r.force, r.keep_going};
        return restore(*qemu_tool(), events, options);
    }
    case Verb::full:
    case Verb::incr:
    case Verb::diff:
        return with_driver(r, world, events);
    case Verb::audit:
        return with_driver(r, world, events);
    case Verb::verify:
        return verify(*qemu_tool(), events, {r.store, r.quick});
    case Verb::report: {
        ReportOptions options = {r.store, r.to, r.last, r.force};
        return make_report(events, options);
    }
    case Verb::prune:
        return prune(*qemu_tool(), events, {r.store, r.keep_count, r.keep_days, r.dry_run});
    }
    return status_failed;
}

}  // namespace

int run(int argc, const char *const *argv, const World &world) {
    auto parsed = parse_command_line(argc, argv);
    if (auto *early = std::get_if<Early>(&parsed)) {
        *(early->status == 0 ? world.out : world.err) << early->text << std::flush;
        return early->status;
    }
    const Request &request = std::get<Request>(parsed);
    Events events;
    events.out = world.out;
    events.err = world.err;
    events.json = request.json;
    events.terminal = world.err_is_terminal;
    events.columns = world.columns;
    try {
        return dispatch(request, world, events);
    } catch (const Failure &failure) {
        events.error(failure.text);
    } catch (const Interrupted &interrupt) {
        events.error("interrupted; " +
                     (interrupt.left.empty() ? "nothing is left half-done" : interrupt.left));
        return status_interrupted;
    } catch (const std::exception &error) {
        events.error(error.what());
    }
    return status_failed;
}

}  // namespace agent
