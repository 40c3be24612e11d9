// ctl/app.h: what the commands of trakctl share
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "ctl/json.h"
#include "ctl/request.h"
#include "lib/trak.h"

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace ctl {

// A command that failed: one sentence, without the program's name and without a newline.
struct Failure {
    std::string text;
};

// What surrounds a run; tests put their own in.
struct World {
    std::ostream *out, *err;
    // As trak_open().
    std::function<int(const char *root, trak **out, char *why)> open;
    bool out_is_terminal = false;
    bool utf8 = true;
    unsigned columns = 80;
    // Between two looks of status --watch: false ends it.
    std::function<bool(double seconds)> pause;
};

// One command from its words to its exit status: 0; 1 failed; 2 wrong usage.
int run(int argc, const char *const *argv, const World &world);

struct Close {
    void operator()(trak *t) const { trak_close(t); }
};

// One command under way.
struct App {
    const World &world;
    const Request &request;
    std::unique_ptr<trak, Close> connection;
    int status = 0;  // of the program, where no Failure is thrown

    // Opens the driver, or throws Failure. connect_if_loaded(): false where there is no driver.
    void connect();
    bool connect_if_loaded();
    trak *t() const { return connection.get(); }
    std::ostream &out() const { return *world.out; }
    // The result: as JSON, or as text.
    void result(const Json &json, const std::string &text) const;
    // Something that the user should know although the command succeeded.
    void notice(const std::string &sentence) const;
};

// Commands, one for each Verb, with a connection; they throw Failure.
void add_filter(App &app);
void add_snap(App &app);
void start(App &app);
void stop(App &app);
void del(App &app);
void resume(App &app);
void list(App &app);
void info(App &app);
void status(App &app);
void bitmap(App &app);
void datablock(App &app);
void test_datablock(App &app);
void map(App &app);
void debug(App &app);
// Those about the configuration make the connection themselves.
void attach_all(App &app);
void stop_all(App &app);
void check_config(App &app);

// TRAK_GET_INFO, or a Failure that names the node.
trak_info_arg node_info(const App &app, uint32_t minor);
std::vector<uint32_t> node_list(const App &app, uint32_t dev_type);
// A Failure for a command of the driver that failed with rc.
[[noreturn]] void fail(const App &app, int rc, const std::string &what);
// Lets udev look at a node of the kernel module that was just started: when it was made there was
// nothing to read yet. No harm where there is no udev.
void announce(const App &app, uint32_t minor);
uint32_t bitmap_type(const std::string &kind);  // "incr", "diff"

// A bitmap that frees itself.
struct Bitmap : trak_bitmap {
    Bitmap() : trak_bitmap{} {}
    Bitmap(const Bitmap &) = delete;
    Bitmap &operator=(const Bitmap &) = delete;
    ~Bitmap() { trak_bitmap_free(this); }
    uint64_t marked() const { return trak_bits_count(bits, count); }
    // Bytes of disk under the marked extents; the disk's end cuts the last one.
    uint64_t marked_bytes() const;
};

}  // namespace ctl
