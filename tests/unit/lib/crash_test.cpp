// tests/unit/lib/crash_test.cpp: whatever step a crash or a failure hits, no written extent is lost
// SPDX-License-Identifier: GPL-2.0-only
//
// A script of guarded calls runs against the made-up driver; the machine dies before step k, or
// step k fails, for every k. The driver's dirty flags never reach the files by themselves here:
// each write falls into the window that the guard is there for. Then the machine comes back, the
// disk is attached again, and every extent written since the last full backup must be marked.
#include "tests/unit/lib/fixture.h"

#include <cerrno>

namespace {

using fake::Driver;
using fake::Durable;

trak_add_filter_arg arg_of(int32_t minor) {
    trak_add_filter_arg arg = {};
    strcpy(arg.hdd_name, "/dev/image/a");
    strcpy(arg.bmp_dir, "/b");
    strcpy(arg.uuid, "{the same every time}");  // the user's own: it tells no instances apart
    arg.minor = minor;
    arg.extent_size = 65536;
    return arg;
}

struct Machine {
    Driver driver;
    trak *t = nullptr;
    char why[TRAK_WHY_SIZE] = "";
    explicit Machine(Durable &durable) : driver(durable) {
        trak_seam seam = driver.everything();
        EXPECT_EQ(0, trak_open_fn("/nowhere", &seam, &driver, &t));
    }
    ~Machine() { trak_close(t); }
    bool attach() {
        auto arg = arg_of(0);
        return trak_attach_filter(t, &arg, why) >= 0;
    }
};

// Full backup, then two sessions with writes, stops in order and a restart of a node. A caller that
// is told of a failure goes on with what remains possible, as a stubborn script would.
void script(Machine &m) {
    if (!m.attach())
        return;
    if (trak_clr_bmp(m.t, 0, TRAK_BMP_INCR) == 0)
        m.driver.durable.written.clear();
    (void)!trak_start(m.t, 0, m.why);
    m.driver.write(0, 1);
    (void)!trak_stop(m.t, 0, m.why);
    m.driver.write(0, 2);
    (void)!trak_start(m.t, 0, m.why);
    m.driver.write(0, 3);
    (void)!trak_detach(m.t, 0, m.why);
    m.driver.write(0, 4);
    if (!m.driver.dead() && m.driver.nodes.count(0) == 0)
        (void)m.attach();
    (void)!trak_start(m.t, 0, m.why);
    m.driver.write(0, 5);
}

void expect_nothing_lost(Durable &durable, const std::string &what) {
    Machine m(durable);
    m.driver.session = "instance-2";
    ASSERT_TRUE(m.attach()) << what << ": " << m.why;
    for (uint32_t extent : durable.written)
        ASSERT_TRUE(m.driver.marked(0, TRAK_BMP_INCR, extent)) << what << ", extent " << extent;
}

uint64_t steps_of_a_whole_run() {
    Durable durable;
    Machine m(durable);
    script(m);
    EXPECT_EQ((std::set<uint32_t>{1, 3, 5}), durable.written);
    return m.driver.steps;
}

TEST(crash, no_written_extent_is_lost_whatever_step_it_comes_before) {
    uint64_t steps = steps_of_a_whole_run();
    ASSERT_GT(steps, 25u);
    size_t written = 0;
    for (uint64_t k = 0; k <= steps; k++) {
        Durable durable;
        {
            Machine m(durable);
            m.driver.dies_at = k;
            script(m);
        }
        written += durable.written.size();
        expect_nothing_lost(durable, "dead before step " + std::to_string(k));
    }
    EXPECT_GT(written, steps) << "the script hardly wrote anything: it shows nothing";
}

TEST(crash, no_written_extent_is_lost_whatever_step_failed_before_it) {
    uint64_t steps = steps_of_a_whole_run();
    for (uint64_t k = 0; k <= steps; k++) {
        Durable durable;
        {
            Machine m(durable);
            m.driver.fails_at = k;
            script(m);
        }
        expect_nothing_lost(durable, "step " + std::to_string(k) + " failed");
    }
}

TEST(crash, no_written_extent_is_lost_where_saves_fail_in_silence) {
    Durable durable;
    {
        Machine m(durable);
        ASSERT_TRUE(m.attach());
        ASSERT_EQ(0, trak_clr_bmp(m.t, 0, TRAK_BMP_INCR));
        durable.written.clear();
        ASSERT_EQ(0, trak_start(m.t, 0, m.why));
        m.driver.saves_fail = true;
        ASSERT_TRUE(m.driver.write(0, 1));
        EXPECT_EQ(-ENOSPC, trak_stop(m.t, 0, m.why));
        EXPECT_EQ(0, trak_detach(m.t, 0, m.why));
    }
    expect_nothing_lost(durable, "saves fail");
}

// The check itself: without the guard, the same window does lose writes.
TEST(crash, the_window_is_there_without_the_guard) {
    Durable durable;
    {
        Machine m(durable);
        auto arg = arg_of(0);
        ASSERT_EQ(0, trak_add_filter_node(m.t, &arg));
        ASSERT_EQ(0, trak_clr_bmp(m.t, 0, TRAK_BMP_INCR));
        ASSERT_EQ(0, trak_start_node(m.t, 0));
        ASSERT_TRUE(m.driver.write(0, 1));
    }
    Machine m(durable);
    ASSERT_TRUE(m.attach());
    EXPECT_FALSE(m.driver.marked(0, TRAK_BMP_INCR, 1));
}

}  // namespace
