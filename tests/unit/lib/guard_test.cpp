// tests/unit/lib/guard_test.cpp: the order of marker and node, call by call
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/lib/fixture.h"

#include <cerrno>

namespace {

using Events = std::vector<std::string>;

struct Guard : fake::Connected {
    Events take() {
        Events events;
        events.swap(driver.events);
        return events;
    }
    // What a session that was cut off leaves.
    void leave_marker(uint32_t minor) {
        durable.markers[marker(minor)] = "trak_session=1\nsession=instance-0\nuuid={old}\n"
                                         "begun=2024-05-17T08:30:00Z\ndisk=/dev/image/a\n";
    }
    // The driver was restarted: nodes are gone, files remain.
    void restart() {
        driver.nodes.clear();
        driver.session += "+";
    }
    std::string value(uint32_t minor, const std::string &key) {
        const std::string &text = durable.markers.at(marker(minor));
        size_t at = text.find("\n" + key + "=");
        return at == std::string::npos ? "(none)"
                                       : text.substr(at + key.size() + 2,
                                                     text.find('\n', at + 1) - at - key.size() - 2);
    }
};

TEST_F(Guard, attach_writes_the_marker_after_the_creation_and_changes_no_bitmap) {
    EXPECT_EQ(0, attach(filter_arg()));
    EXPECT_STREQ("", why);
    EXPECT_EQ((Events{"add", "marker+ /b/trak0.session"}), take());
    EXPECT_EQ("instance-1", value(0, "session"));
    EXPECT_EQ("0", value(0, "minor"));
    EXPECT_EQ("/dev/image/a", value(0, "disk"));
    EXPECT_EQ("/nowhere", value(0, "root"));
    EXPECT_EQ(driver.nodes[0].uuid, value(0, "uuid"));
}

TEST_F(Guard, attach_hands_back_what_the_driver_chose) {
    auto arg = filter_arg();
    EXPECT_EQ(0, trak_attach_filter(t, &arg, why));
    EXPECT_EQ(0, arg.minor);
    EXPECT_STREQ("trak0", arg.name);
    EXPECT_NE('\0', arg.uuid[0]);
}

TEST_F(Guard, start_trusts_the_sessions_own_marker) {
    ASSERT_EQ(0, attach(filter_arg()));
    take();
    EXPECT_EQ(0, trak_start(t, 0, why));
    EXPECT_STREQ("", why);
    EXPECT_EQ((Events{"start 0"}), take());
}

TEST_F(Guard, stop_saves_both_bitmaps_before_the_marker_goes) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_start(t, 0, why));
    take();
    EXPECT_EQ(0, trak_stop(t, 0, why));
    EXPECT_STREQ("", why);
    EXPECT_EQ((Events{"stop 0", "save 0 incr", "save 0 diff", "marker- /b/trak0.session"}), take());
}

TEST_F(Guard, a_second_start_has_its_marker_before_the_node_runs) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_start(t, 0, why));
    ASSERT_EQ(0, trak_stop(t, 0, why));
    take();
    EXPECT_EQ(0, trak_start(t, 0, why));
    EXPECT_EQ((Events{"marker+ /b/trak0.session", "start 0"}), take());
}

TEST_F(Guard, delete_stops_in_order_first) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_start(t, 0, why));
    take();
    EXPECT_EQ(0, trak_detach(t, 0, why));
    EXPECT_EQ(
        (Events{"stop 0", "save 0 incr", "save 0 diff", "marker- /b/trak0.session", "delete 0"}),
        take());
    EXPECT_TRUE(durable.markers.empty());
}

TEST_F(Guard, an_orderly_end_leaves_the_maps_as_they_were) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_clr_bmp(t, 0, TRAK_BMP_INCR));
    ASSERT_EQ(0, trak_start(t, 0, why));
    driver.write(0, 42);
    ASSERT_EQ(0, trak_detach(t, 0, why));
    restart();
    EXPECT_EQ(0, attach(filter_arg())) << why;
    EXPECT_TRUE(driver.marked(0, TRAK_BMP_INCR, 42));
    EXPECT_FALSE(full(0, TRAK_BMP_INCR));
}

TEST_F(Guard, attach_after_a_crash_marks_everything_and_says_why) {
    raw_filter(0);  // clean files
    restart();
    leave_marker(0);
    take();
    EXPECT_EQ(TRAK_ALL_CHANGED, attach(filter_arg()));
    EXPECT_STREQ("everything counts as changed: the session of 2024-05-17T08:30:00Z on "
                 "/dev/image/a did not end in order (/b/trak0.session is there), so the bitmap "
                 "files may lack its last writes",
                 why);
    EXPECT_TRUE(full(0, TRAK_BMP_INCR));
    EXPECT_TRUE(full(0, TRAK_BMP_DIFF));
    EXPECT_EQ((Events{"add", "set 0 incr", "set 0 diff", "marker+ /b/trak0.session"}), take());
    EXPECT_EQ("instance-1+", value(0, "session"));
}

TEST_F(Guard, attach_believes_no_marker_not_even_its_own_sessions) {
    auto arg = filter_arg();
    strcpy(arg.uuid, "{always the same}");
    ASSERT_EQ(0, attach(arg));
    driver.nodes.clear();  // deleted past the guard, in the same instance
    EXPECT_EQ(TRAK_ALL_CHANGED, attach(arg));
}

TEST_F(Guard, start_tells_instances_apart_where_the_identifier_does_not) {
    auto arg = filter_arg();
    strcpy(arg.uuid, "{always the same}");
    ASSERT_EQ(0, attach(arg));
    restart();
    arg.minor = 0;
    ASSERT_EQ(0, trak_add_filter_node(t, &arg));  // past the guard
    EXPECT_EQ(TRAK_ALL_CHANGED, trak_start(t, 0, why));
    EXPECT_TRUE(full(0, TRAK_BMP_DIFF));
}

TEST_F(Guard, a_second_stop_finds_nothing_to_do_or_tell) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_stop(t, 0, why));
    take();
    EXPECT_EQ(0, trak_stop(t, 0, why));
    EXPECT_STREQ("", why);
    EXPECT_EQ((Events{"stop 0", "save 0 incr", "save 0 diff"}), take());
}

TEST_F(Guard, an_empty_or_torn_marker_counts) {
    for (const char *text : {"", "trak_session=1\nsession=inst", "\n\n=\n", "session"}) {
        restart();
        durable.markers[marker(0)] = text;
        EXPECT_EQ(TRAK_ALL_CHANGED, attach(filter_arg())) << text;
        EXPECT_STREQ("everything counts as changed: /b/trak0.session says that the last session "
                     "did not end in order, so the bitmap files may lack its last writes",
                     why);
    }
}

TEST_F(Guard, an_unreadable_marker_counts) {
    // Whichever step it is that reads the marker: its failure must end in everything-changed.
    bool seen = false;
    for (uint64_t step = 0; step < 12 && !seen; step++) {
        fake::Durable other;
        fake::Driver fresh(other);
        trak_seam seam = fresh.everything();
        trak *connection = nullptr;
        ASSERT_EQ(0, trak_open_fn("/nowhere", &seam, &fresh, &connection));
        fresh.fails_at = step;
        auto arg = filter_arg();
        seen = trak_attach_filter(connection, &arg, why) == TRAK_ALL_CHANGED;
        trak_close(connection);
    }
    EXPECT_TRUE(seen);
}

TEST_F(Guard, start_of_a_node_created_past_the_guard_heeds_an_old_marker) {
    leave_marker(0);
    raw_filter(0);
    take();
    EXPECT_EQ(TRAK_ALL_CHANGED, trak_start(t, 0, why));
    EXPECT_EQ((Events{"set 0 incr", "set 0 diff", "marker+ /b/trak0.session", "start 0"}), take());
}

TEST_F(Guard, stop_never_removes_another_sessions_marker) {
    leave_marker(0);
    raw_filter(0);
    ASSERT_EQ(0, trak_start_node(t, 0));  // past the guard as well
    EXPECT_EQ(0, trak_stop(t, 0, why));
    EXPECT_STREQ("/b/trak0.session is of another session than node 0: it stays, and the next "
                 "attach will count everything as changed",
                 why);
    EXPECT_TRUE(has_marker(0));
}

TEST_F(Guard, a_marker_that_cannot_be_written_means_no_node) {
    driver.places.clear();
    trak_seam seam = driver.everything();
    seam.marker_write = [](void *, const char *, const char *) { return -EROFS; };
    trak_close(t);
    ASSERT_EQ(0, trak_open_fn("/nowhere", &seam, &driver, &t));
    EXPECT_EQ(-EROFS, attach(filter_arg()));
    EXPECT_STREQ("can't write the session marker /b/trak0.session: Read-only file system", why);
    EXPECT_TRUE(driver.nodes.empty());
    raw_filter(0);
    EXPECT_EQ(-EROFS, trak_start(t, 0, why));
    EXPECT_FALSE(driver.nodes[0].started);
}

TEST_F(Guard, bitmaps_that_cannot_be_set_mean_no_node_and_the_old_marker_stays) {
    leave_marker(0);
    std::string old = durable.markers[marker(0)];
    driver.refuse = [](uint32_t code) { return code == TRAK_SET_BMP ? -ENOMEM : 0; };
    EXPECT_EQ(-ENOMEM, attach(filter_arg()));
    EXPECT_STREQ("/b/trak0.session says that the last session did not end in order, and the "
                 "bitmaps can't be set to everything-changed: Cannot allocate memory",
                 why);
    EXPECT_TRUE(driver.nodes.empty());
    EXPECT_EQ(old, durable.markers[marker(0)]);
}

TEST_F(Guard, a_node_that_cannot_be_taken_back_is_named) {
    leave_marker(0);
    driver.refuse = [](uint32_t code) {
        return code == TRAK_SET_BMP || code == TRAK_DEL_NODE ? -EIO : 0;
    };
    EXPECT_EQ(-EIO, attach(filter_arg()));
    EXPECT_NE(nullptr, strstr(why, " (node 0 stays, stopped: delete it)"));
}

TEST_F(Guard, a_failed_start_takes_its_new_marker_away) {
    raw_filter(0);
    driver.refuse = [](uint32_t code) { return code == TRAK_START_NODE ? -EIO : 0; };
    EXPECT_EQ(-EIO, trak_start(t, 0, why));
    EXPECT_FALSE(has_marker(0));
}

TEST_F(Guard, a_start_whose_answer_is_lost_keeps_its_marker) {
    raw_filter(0);
    driver.lose = [](uint32_t code) { return code == TRAK_START_NODE ? -EINTR : 0; };
    EXPECT_EQ(-EINTR, trak_start(t, 0, why));
    EXPECT_TRUE(driver.nodes[0].started);
    EXPECT_TRUE(has_marker(0));
}

TEST_F(Guard, a_failed_start_keeps_the_marker_of_the_attach) {
    ASSERT_EQ(0, attach(filter_arg()));
    driver.refuse = [](uint32_t code) { return code == TRAK_START_NODE ? -EIO : 0; };
    EXPECT_EQ(-EIO, trak_start(t, 0, why));
    EXPECT_TRUE(has_marker(0));
}

TEST_F(Guard, a_save_that_fails_keeps_the_marker_and_is_told) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_start(t, 0, why));
    driver.saves_fail = true;
    EXPECT_EQ(-ENOSPC, trak_stop(t, 0, why));
    EXPECT_STREQ("node 0 is stopped, but its bitmaps can't be saved (No space left on device): "
                 "unless a later stop saves them, the next attach will count everything as changed",
                 why);
    EXPECT_TRUE(has_marker(0));
    driver.saves_fail = false;
    EXPECT_EQ(0, trak_stop(t, 0, why));
    EXPECT_FALSE(has_marker(0));
}

TEST_F(Guard, an_unguarded_node_whose_save_fails_gets_a_marker) {
    raw_filter(0);
    ASSERT_EQ(0, trak_start_node(t, 0));
    driver.saves_fail = true;
    EXPECT_EQ(-ENOSPC, trak_stop(t, 0, why));
    EXPECT_TRUE(has_marker(0));
}

TEST_F(Guard, delete_goes_on_where_a_marker_covers_the_unsaved_maps) {
    ASSERT_EQ(0, attach(filter_arg()));
    ASSERT_EQ(0, trak_start(t, 0, why));
    driver.saves_fail = true;
    EXPECT_EQ(0, trak_detach(t, 0, why));
    EXPECT_STREQ("node 0 is deleted, but its bitmaps could not be saved (No space left on device): "
                 "the next attach will count everything as changed",
                 why);
    EXPECT_TRUE(driver.nodes.empty());
    EXPECT_TRUE(has_marker(0));
}

TEST_F(Guard, delete_refuses_where_neither_maps_nor_marker_can_be_saved) {
    raw_filter(0);
    ASSERT_EQ(0, trak_start_node(t, 0));
    driver.saves_fail = true;
    trak_seam seam = driver.everything();
    seam.marker_write = [](void *, const char *, const char *) { return -ENOSPC; };
    trak_close(t);
    ASSERT_EQ(0, trak_open_fn("/nowhere", &seam, &driver, &t));
    EXPECT_EQ(-ENOSPC, trak_detach(t, 0, why));
    EXPECT_STREQ("node 0 is stopped, but neither its bitmaps (No space left on device) nor a "
                 "session marker can be saved in the directory of /b/trak0.session: make room "
                 "there and stop it again",
                 why);
    EXPECT_EQ(1u, driver.nodes.size());
}

TEST_F(Guard, a_marker_that_cannot_be_removed_is_told) {
    ASSERT_EQ(0, attach(filter_arg()));
    trak_seam seam = driver.everything();
    seam.marker_remove = [](void *, const char *) { return -EROFS; };
    trak_close(t);
    ASSERT_EQ(0, trak_open_fn("/nowhere", &seam, &driver, &t));
    EXPECT_EQ(0, trak_stop(t, 0, why));
    EXPECT_STREQ("the session marker /b/trak0.session can't be removed (Read-only file system): "
                 "the next attach will count everything as changed",
                 why);
}

TEST_F(Guard, two_nodes_in_one_directory_have_markers_of_their_own) {
    ASSERT_EQ(0, attach(filter_arg("/dev/image/a")));
    ASSERT_EQ(0, attach(filter_arg("/dev/image/b")));
    ASSERT_EQ(0, trak_start(t, 0, why));
    ASSERT_EQ(0, trak_start(t, 1, why));
    ASSERT_EQ(0, trak_detach(t, 0, why));
    EXPECT_FALSE(has_marker(0));
    EXPECT_TRUE(has_marker(1));
    restart();
    EXPECT_EQ(0, attach(filter_arg("/dev/image/a", 0))) << why;
    EXPECT_EQ(TRAK_ALL_CHANGED, attach(filter_arg("/dev/image/b", 1)));
    EXPECT_FALSE(full(0, TRAK_BMP_INCR) && durable.bitmaps.empty());
}

TEST_F(Guard, files_of_another_running_driver_are_not_shared) {
    fake::TempDir other;
    other.put("proc/trak/trak0/bmp_dir", "/b\n");
    durable.markers[marker(0)] = "session=instance-9\nroot=" + other.path() + "\nminor=0\n";
    EXPECT_EQ(-EBUSY, attach(filter_arg()));
    EXPECT_EQ("node 0 of the driver at " + other.path() +
                  " uses the bitmap files beside /b/trak0.session: give another directory",
              why);
    EXPECT_TRUE(driver.nodes.empty());
    EXPECT_TRUE(has_marker(0));
    // The same marker after that driver is gone, or with another directory, is a crash.
    other.put("proc/trak/trak0/bmp_dir", "/b/c\n");
    EXPECT_EQ(TRAK_ALL_CHANGED, attach(filter_arg()));
}

TEST_F(Guard, start_of_a_snapshot_guards_its_filter) {
    raw_filter(0);
    trak_add_snap_arg snap = {};
    snap.snap_minor = -1;
    snap.chunk_size = 65536;
    ASSERT_EQ(0, trak_add_snap_node(t, &snap));
    take();
    EXPECT_EQ(0, trak_start(t, 1, why)) << why;
    EXPECT_EQ((Events{"marker+ /b/trak0.session", "start 1"}), take());
    EXPECT_EQ(0, trak_stop(t, 1, why));
    EXPECT_EQ((Events{"stop 1"}), take());
    EXPECT_TRUE(has_marker(0)) << "the filter goes on";
}

TEST_F(Guard, a_snapshot_on_a_running_filter_needs_no_marker) {
    raw_filter(0);
    ASSERT_EQ(0, trak_start(t, 0, why));
    trak_add_snap_arg snap = {};
    snap.snap_minor = -1;
    snap.chunk_size = 65536;
    ASSERT_EQ(0, trak_add_snap_node(t, &snap));
    take();
    EXPECT_EQ(0, trak_start(t, 1, why));
    EXPECT_EQ((Events{"start 1"}), take());
}

}  // namespace
