// tests/unit/snap/snap_resume_test.cpp: snapshots go on from their files
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/snap_world.h"

using namespace snap_world;

namespace {

const std::string kResume = "trak_ioctl_resume_snap(): ";

// A machine whose snap 1 preserved chunk 1 before the module went.
struct Left : Machine {
    Left() {
        prepare(*this);
        fill_disk(*this);
        boot(*this, [] {
            make_started_snap();
            ASSERT_EQ(write_node(0, 8, 8), 0);
        });
    }
};

void expect_refused(Left &left, int expected = -EIO) {
    boot(left, [&] {
        make_snap();
        EXPECT_EQ(resume(1), expected) << whole_log();
        EXPECT_FALSE(is_started(1));
        EXPECT_EQ(snap(1).snap_valid, 0u);
        EXPECT_EQ(snap(1).cow_data_file, nullptr);
        EXPECT_EQ(snap(1).cow_bmp_file, nullptr);
        EXPECT_EQ(snap(1).cowbmp.pages, nullptr);
        EXPECT_EQ(write_node(0, 80, 8), 0);
    });
}

}  // namespace

TEST(snap_resume, image_is_the_same_and_goes_on) {
    Left left;
    boot(
        left,
        [&] {
            make_snap();
            ASSERT_EQ(resume(1), 0);
            EXPECT_TRUE(logged(1, kResume + "Resuming snap trak(100, 1)"));
            EXPECT_TRUE(logged(2, kResume + "trak(100, 1) has been resumed successfully"));
            EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
            ASSERT_EQ(write_node(0, 8, 16, 0x77), 0);
            EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
            EXPECT_TRUE(marked(left, 1, 1));
            EXPECT_TRUE(marked(left, 1, 2));
        },
        2);
}

TEST(snap_resume, filter_and_its_thread_are_started_with_it) {
    Left left;
    boot(left, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_snap(1), 0);
        ASSERT_EQ(resume(1), 0);
        EXPECT_TRUE(is_started(0));
        EXPECT_NE(filter(0).cowthread.pid, 0);
    });
}

TEST(snap_resume, values_are_stored_as_they_are_given) {
    Left left;
    boot(left, [&] {
        make_snap();
        ASSERT_EQ(resume(1, 7, 8, 9), 0);
        EXPECT_EQ(snap(1).snap_valid, 7u);
        EXPECT_EQ(snap(1).stop_pending, 8u);
        EXPECT_EQ(snap(1).del_pending, 9u);
        EXPECT_BYTES(contents(1, 0, 8), Bytes{});  // it is defunct
    });
}

TEST(snap_resume, started_snap_is_refused) {
    Left left;
    boot(left, [&] {
        make_snap();
        ASSERT_EQ(resume(1), 0);
        EXPECT_EQ(resume(1), -EALREADY);
        EXPECT_TRUE(
            logged_error(kResume + "Can't resume snap trak(100, 1): it's been started already."));
        EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
    });
}

TEST(snap_resume, minor_without_a_node_or_without_a_snap_is_refused) {
    Left left;
    boot(left, [&] {
        make_snap();
        EXPECT_EQ(resume(2), -EINVAL);
        EXPECT_TRUE(logged_error(kResume + "Nothing is known about trak(100, 2)"));
        EXPECT_EQ(resume(5000), -EINVAL);
        EXPECT_TRUE(logged_error(kResume + "Nothing is known about trak(100, 5000)"));
        EXPECT_EQ(resume(0), -EINVAL);
        EXPECT_TRUE(logged_error(kResume + "trak(100, 0) is not a snap device"));
    });
}

TEST(snap_resume, missing_file_is_refused) {
    for (const std::string &path : {bmp_path(1), data_path(1)}) {
        Left left;
        left.storage.remove(path);
        expect_refused(left);
        EXPECT_FALSE(left.storage.exists(path));
    }
}

TEST(snap_resume, every_length_below_what_is_needed_is_refused) {
    for (const std::string &path : {bmp_path(1), data_path(1)}) {
        Left left;
        const Bytes whole = left.storage.read_file(path);
        for (std::size_t size = 0; size < whole.size(); size += size < 40 ? 1 : whole.size() / 3) {
            left.storage.write_file(path, std::span(whole).first(size));
            expect_refused(left);
            EXPECT_EQ(left.storage.read_file(path).size(), size);
        }
    }
}

TEST(snap_resume, longer_bitmap_is_taken) {
    Left left;
    Bytes bytes = left.storage.read_file(bmp_path(1));
    bytes.resize(bytes.size() + 9000, 0xff);
    left.storage.write_file(bmp_path(1), bytes);
    boot(left, [&] {
        make_snap();
        ASSERT_EQ(resume(1), 0);
        ASSERT_EQ(write_node(0, 0, 2048), 0);
        EXPECT_BYTES(contents(1, 0, 2048), pattern(0, 2048));
    });
}

TEST(snap_resume, file_that_can_not_be_opened_or_read_is_refused) {
    Left left;
    for (const std::string &path : {bmp_path(1), data_path(1)}) {
        left.storage.fail_path(path, sim::Fault::kOpen, -EACCES);
        expect_refused(left);
        left.storage.fail_path(path, sim::Fault::kOpen, 0);
    }
    left.storage.fail_path(bmp_path(1), sim::Fault::kRead, -EIO);
    expect_refused(left);
    left.storage.fail_path(bmp_path(1), sim::Fault::kRead, 0);
    boot(left, [&] {
        make_snap();
        EXPECT_EQ(resume(1), 0);
        EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
    });
}

TEST(snap_resume, given_up_snap_is_refused_because_its_data_file_was_cut) {
    Left left;
    boot(left, [&] {
        make_snap();
        ASSERT_EQ(resume(1), 0);
        left.storage.fail_path(data_path(1), sim::Fault::kWrite, -ENOSPC);
        ASSERT_EQ(write_node(0, 64, 8), 0);
        EXPECT_EQ(snap(1).snap_valid, 0u);
    });
    left.storage.fail_path(data_path(1), sim::Fault::kWrite, 0);
    EXPECT_EQ(left.storage.read_file_durable(data_path(1)).size(), 0u);
    expect_refused(left);
}

TEST(snap_resume, every_single_failure_leaves_it_stopped_and_its_files_whole) {
    Left left;
    const Bytes bmp = left.storage.read_file(bmp_path(1));
    const Bytes data = left.storage.read_file(data_path(1));
    for (const sim::Fault kind : {sim::Fault::kAlloc, sim::Fault::kOpen, sim::Fault::kRead}) {
        for (std::uint64_t nth = 1; nth < 2200; nth += nth < 60 ? 1 : 97) {
            bool reached = true;
            boot(left, [&] {
                make_snap();
                const std::uint64_t before = sim::fault_points(kind);
                sim::fail_nth(kind, nth);
                const int rc = resume(1);
                reached = sim::fault_points(kind) - before >= nth;
                sim::fail_none();
                if (rc != 0) {
                    EXPECT_TRUE(rc == -ENOMEM || rc == -EIO || rc == -EFAULT) << rc;
                    EXPECT_FALSE(is_started(1));
                    EXPECT_EQ(snap(1).cowbmp.pages, nullptr);
                    EXPECT_EQ(resume(1), 0);
                }
                EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
            });
            if (!reached || ::testing::Test::HasFailure())
                break;
        }
    }
    EXPECT_BYTES(left.storage.read_file(bmp_path(1)), bmp);
    EXPECT_BYTES(left.storage.read_file(data_path(1)), data);
}

TEST(snap_resume, several_resumed_newest_first_show_their_images) {
    Machine machine;
    prepare(machine);
    fill_disk(machine);
    const auto make = [] {
        make_snap();
        ASSERT_EQ(add_snap(2), 0);
    };
    boot(machine, [&] {
        make();
        ASSERT_EQ(start(1), 0);
        ASSERT_EQ(write_node(0, 0, 8, 1), 0);
        ASSERT_EQ(start(2), 0);
        ASSERT_EQ(write_node(0, 0, 16, 2), 0);
    });
    boot(machine, [&] {
        make();
        ASSERT_EQ(resume(2), 0);
        ASSERT_EQ(resume(1), 0);
        ASSERT_EQ(write_node(0, 0, 64, 3), 0);
        EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
        EXPECT_BYTES(contents(2, 0, 8), Bytes(4096, 1));
        EXPECT_BYTES(contents(2, 8, 56), pattern(8, 56));
    });
}

TEST(snap_resume, one_of_two_at_once_is_refused) {
    Left left;
    for (std::uint64_t seed = 1; seed <= 30; ++seed) {
        sim::Options options;
        options.seed = seed;
        boot(
            left,
            [] {
                make_snap();
                int results[2];
                sim::Process *one = sim::spawn("one", [&] { results[0] = resume(1); });
                sim::Process *two = sim::spawn("two", [&] { results[1] = resume(1); });
                sim::join(one);
                sim::join(two);
                EXPECT_EQ(std::min(results[0], results[1]), -EALREADY);
                EXPECT_EQ(std::max(results[0], results[1]), 0);
                EXPECT_BYTES(contents(1, 0, 64), pattern(0, 64));
            },
            1, options);
    }
}
