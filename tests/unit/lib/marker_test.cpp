// tests/unit/lib/marker_test.cpp: the marker as a real file
// SPDX-License-Identifier: GPL-2.0-only
#include "lib/trak_int.h"
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Marker : testing::Test {
    fake::TempDir dir;
    fake::Durable durable;
    fake::Driver driver{durable};
    trak *t = nullptr;
    char text[256] = "";
    std::string file = dir.path("trak3.session");
    void SetUp() override {
        trak_seam seam = {};
        seam.ioctl = [](void *, uint32_t, void *) { return -EINVAL; };
        ASSERT_EQ(0, trak_open_fn(dir.path().c_str(), &seam, nullptr, &t));
    }
    void TearDown() override { trak_close(t); }
    int read() { return lt_marker_read(t, file.c_str(), text, sizeof(text)); }
    int write(const char *what) { return lt_marker_write(t, file.c_str(), what); }
    int remove() { return lt_marker_remove(t, file.c_str()); }
};

TEST_F(Marker, is_written_read_replaced_and_removed) {
    EXPECT_EQ(-ENOENT, read());
    EXPECT_EQ(0, write("session=a\nlonger than the next\n"));
    EXPECT_EQ(0, write("session=b\n"));
    EXPECT_EQ(10, read());
    EXPECT_STREQ("session=b\n", text);
    struct stat st;
    ASSERT_EQ(0, stat(file.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777u);
    EXPECT_EQ(0, remove());
    EXPECT_EQ(-ENOENT, read());
    EXPECT_EQ(0, remove()) << "what is not there is removed already";
}

TEST_F(Marker, in_a_missing_directory_is_an_error) {
    file = dir.path("none/trak3.session");
    EXPECT_EQ(-ENOENT, write("x"));
    EXPECT_EQ(-ENOENT, remove());
}

TEST_F(Marker, is_never_written_through_a_link) {
    std::string victim = dir.put("victim", "precious");
    std::filesystem::create_symlink(victim, file);
    EXPECT_EQ(-ELOOP, write("x"));
    EXPECT_EQ(-ELOOP, read()) << "there is something: not -ENOENT";
    EXPECT_EQ("precious", fake::read_file(victim));
}

TEST_F(Marker, a_pipe_or_directory_in_its_place_does_not_hang) {
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    EXPECT_LT(write("x"), 0);
    EXPECT_NE(-ENOENT, read());
    ASSERT_EQ(0, unlink(file.c_str()));
    dir.make_dir("trak3.session");
    EXPECT_EQ(-EISDIR, write("x"));
    EXPECT_EQ(-EISDIR, read());
}

TEST_F(Marker, a_full_file_system_is_an_error) {
    if (access("/dev/full", W_OK) < 0)
        GTEST_SKIP() << "no /dev/full here";
    file = "/dev/full";
    EXPECT_LT(write("x"), 0);
}

TEST_F(Marker, values_are_whole_lines) {
    char value[16];
    const char *lines = "session=a=b\nuuid=\nlong=0123456789abcdefghij\ntorn=x";
    EXPECT_EQ(0, lt_marker_value(lines, "session", value, sizeof(value)));
    EXPECT_STREQ("a=b", value);
    EXPECT_EQ(0, lt_marker_value(lines, "uuid", value, sizeof(value)));
    EXPECT_STREQ("", value);
    EXPECT_EQ(0, lt_marker_value(lines, "long", value, sizeof(value)));
    EXPECT_STREQ("0123456789abcde", value);
    EXPECT_EQ(-ENOENT, lt_marker_value(lines, "torn", value, sizeof(value)));
    EXPECT_EQ(-ENOENT, lt_marker_value(lines, "sess", value, sizeof(value)));
    EXPECT_EQ(-ENOENT, lt_marker_value("", "session", value, sizeof(value)));
}

TEST_F(Marker, session_is_what_trakd_says_and_else_the_boot) {
    dir.put("proc/sys/kernel/random/boot_id", "b00t\n");
    snprintf(t->host, sizeof(t->host), "%s", dir.path().c_str());
    ASSERT_GT(lt_session(t, text, sizeof(text)), 0);
    EXPECT_STREQ("boot-b00t", text);
    dir.put("session", "4711\n");
    ASSERT_GT(lt_session(t, text, sizeof(text)), 0);
    EXPECT_STREQ("4711", text);
}

TEST_F(Marker, guarded_calls_of_one_connection_exclude_one_another) {
    ASSERT_EQ(0, lt_guard_lock(t));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&t->guard));
    lt_guard_unlock(t);
    EXPECT_EQ(0, pthread_mutex_trylock(&t->guard));
    pthread_mutex_unlock(&t->guard);
}

}  // namespace
