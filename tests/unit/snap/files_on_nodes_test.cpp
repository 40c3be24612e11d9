// tests/unit/snap/files_on_nodes_test.cpp: files of the driver that lie on a file system on a node
// SPDX-License-Identifier: GPL-2.0-only
//
// Minor 5 is a filter over a disk of its own; what is done to the files below /onnode reads and writes
// that node. The other nodes keep their COW files or bitmaps there. None may ever wait for a lock while
// whoever has the lock waits for a file there.
#include "os/sim/seeds.h"
#include "tests/support/snap_world.h"

namespace files_on_nodes_test {

using namespace snap_world;

constexpr os_dev_t kHostDisk = 8u << 20 | 64u;
constexpr std::uint32_t kHost = 5;

void with_host(std::uint64_t seed, const std::function<void(Machine &)> &fn) {
    Machine machine(256 * 1024);
    prepare(machine);
    fill_disk(machine);
    machine.storage.add_disk("sde", kHostDisk, 256 * 1024, 512);
    machine.storage.add_disk("sdf", 8u << 20 | 80u, 256 * 1024, 512);
    sim::Options options;
    options.seed = seed;
    boot(
        machine,
        [&] {
            ASSERT_EQ(add_filter(kHost, 4096, "/dev/sde"), 0);
            ASSERT_EQ(start(kHost), 0);
            os_bdev *host = open_node(kHost);
            ASSERT_NE(host, nullptr);
            machine.storage.mkdir("/onnode");
            machine.storage.mount("/onnode", node_dev(kHost));
            sim::attach_file_system(node_dev(kHost));
            sim::host_files("/onnode", host);
            fn(machine);
            sim::host_files("/onnode", nullptr);
            sim::close_device(host);
        },
        1, options);
}

int add_hosted_snap(std::int32_t minor, std::uint32_t filter_minor = 0) {
    trak_add_snap_arg arg = snap_arg(minor, 4096, filter_minor);
    const std::string bmp = "/onnode/bmp" + std::to_string(minor);
    const std::string data = "/onnode/data" + std::to_string(minor);
    std::memset(arg.cow_bmp_fname, 0, sizeof arg.cow_bmp_fname);
    std::memset(arg.cow_data_fname, 0, sizeof arg.cow_data_fname);
    std::strncpy(arg.cow_bmp_fname, bmp.c_str(), sizeof arg.cow_bmp_fname);
    std::strncpy(arg.cow_data_fname, data.c_str(), sizeof arg.cow_data_fname);
    return command(TRAK_ADD_SNAP_NODE, arg);
}

// Writes of both filters while snaps with files on the host come and go.
void use_hosted_snaps() {
    const Bytes image = pattern(0, 512);
    ASSERT_EQ(add_filter(0), 0);
    ASSERT_EQ(start(0), 0);
    ASSERT_EQ(add_hosted_snap(1), 0);
    ASSERT_EQ(start(1), 0);
    sim::Process *const tasks[] = {
        sim::spawn("writer",
                   [] {
                       for (std::uint64_t s = 0; s < 512; s += 64)
                           EXPECT_EQ(write_node(0, s, 24), 0);
                   }),
        sim::spawn("writer of the host",
                   [] {
                       for (std::uint64_t s = 0; s < 512; s += 64)
                           EXPECT_EQ(write_node(kHost, s, 8), 0);
                   }),
        sim::spawn("admin",
                   [] {
                       for (int i = 0; i < 2; ++i) {
                           EXPECT_EQ(add_hosted_snap(2), 0);
                           EXPECT_EQ(del(2), 0);
                       }
                       EXPECT_EQ(add_hosted_snap(2), 0);
                       EXPECT_EQ(start(2), 0);
                       EXPECT_EQ(del(2), 0);  // only marked: the older snap 1 runs
                   }),
        sim::spawn("builder",
                   [] {
                       EXPECT_EQ(add_filter(7, 4096, "/dev/sdf", "/onnode"), 0);
                       EXPECT_EQ(start(7), 0);
                       EXPECT_EQ(write_node(7, 0, 8), 0);
                       EXPECT_EQ(del(7), 0);
                   }),
    };
    for (sim::Process *task : tasks)
        sim::join(task);
    EXPECT_BYTES(contents(1, 0, 512), image);
}

TEST(files_on_nodes, another_filters_node_bears_cow_files_and_bitmaps_under_load) {
    sim::for_each_seed(
        40, [](std::uint64_t seed) { with_host(seed, [](Machine &) { use_hosted_snaps(); }); });
}

TEST(files_on_nodes, snapshot_of_the_host_freezes_it_under_snaps_that_live_on_it) {
    sim::for_each_seed(12, [](std::uint64_t seed) {
        with_host(seed, [](Machine &) {
            ASSERT_EQ(add_filter(0), 0);
            ASSERT_EQ(start(0), 0);
            ASSERT_EQ(add_hosted_snap(1), 0);
            ASSERT_EQ(start(1), 0);
            ASSERT_EQ(add_snap(6, 4096, kHost), 0);
            sim::Process *writer = sim::spawn("writer", [] {
                for (std::uint64_t s = 0; s < 512; s += 64)
                    EXPECT_EQ(write_node(0, s, 24), 0);
            });
            EXPECT_EQ(start(6), 0);
            sim::join(writer);
            EXPECT_BYTES(contents(1, 0, 512), pattern(0, 512));
            EXPECT_EQ(contents(6, 0, 512).size(), 512u * 512);
        });
    });
}

// Empty, or what ended the boot: snaps of two filters keep their COW files on each other's node, and both
// nodes are written.
std::string use_each_others_nodes(std::uint64_t seed) {
    try {
        with_host(seed, [](Machine &machine) {
            ASSERT_EQ(add_filter(0), 0);
            ASSERT_EQ(start(0), 0);
            os_bdev *first = open_node(0);
            machine.storage.mkdir("/onfirst");
            machine.storage.mount("/onfirst", node_dev(0));
            sim::host_files("/onfirst", first);
            ASSERT_EQ(add_hosted_snap(1), 0);
            ASSERT_EQ(start(1), 0);
            trak_add_snap_arg arg = snap_arg(6, 4096, kHost);
            std::strcpy(arg.cow_bmp_fname, "/onfirst/bmp");
            std::strcpy(arg.cow_data_fname, "/onfirst/data");
            ASSERT_EQ(command(TRAK_ADD_SNAP_NODE, arg), 0);
            ASSERT_EQ(start(6), 0);
            sim::Process *writer = sim::spawn("writer of the host", [] {
                for (std::uint64_t s = 0; s < 512; s += 64)
                    EXPECT_EQ(write_node(kHost, s, 8), 0);
            });
            for (std::uint64_t s = 0; s < 512; s += 64)
                EXPECT_EQ(write_node(0, s, 8), 0);
            sim::join(writer);
            sim::host_files("/onfirst", nullptr);
            sim::close_device(first);
        });
    } catch (const sim::Failure &failure) {
        return failure.what();
    }
    return {};
}

// Each filter's kcowd writes to a file whose node has a write for it wait for the other one's. The command
// takes such files; libtrak refuses them in advance.
TEST(files_on_nodes, snaps_with_their_files_on_each_others_node_wait_for_each_other) {
    std::uint64_t waiting = 0;
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        const std::string failure = use_each_others_nodes(seed);
        if (failure.empty())
            continue;
        ++waiting;
        EXPECT_NE(failure.find("deadlock: every task sleeps"), std::string::npos) << failure;
    }
    EXPECT_GT(waiting, 0u);
}

// Whoever writes what is not preserved yet waits; nobody else does.
TEST(files_on_nodes, cow_file_that_stalls_holds_up_the_writes_that_need_it_alone) {
    sim::for_each_seed(10, [](std::uint64_t seed) {
        with_host(seed, [](Machine &machine) {
            ASSERT_EQ(add_filter(0), 0);
            ASSERT_EQ(start(0), 0);
            ASSERT_EQ(add_hosted_snap(1), 0);
            ASSERT_EQ(start(1), 0);
            os_bdev *bdev = open_node(0);
            EXPECT_EQ(sim::write_device(bdev, 0, Bytes(4096, 1)), 0);  // preserved
            machine.storage.disk(kHostDisk).hold(true);
            bool done = false;
            sim::Process *writer = sim::spawn("writer", [&done, bdev] {
                EXPECT_EQ(sim::write_device(bdev, 64, Bytes(4096, 2)), 0);
                done = true;
            });
            sim::sleep_ms(100);
            EXPECT_FALSE(done);
            EXPECT_EQ(sim::write_device(bdev, 0, Bytes(4096, 3)), 0);
            Bytes bytes(512);
            EXPECT_EQ(sim::read_device(bdev, 128, bytes), 0);
            EXPECT_BYTES(contents(1, 128, 8), pattern(128, 8));
            trak_info_arg info{};
            EXPECT_EQ(command(TRAK_GET_INFO, info), 0);
            EXPECT_FALSE(done);
            machine.storage.disk(kHostDisk).hold(false);
            sim::join(writer);
            sim::close_device(bdev);
            EXPECT_BYTES(contents(1, 0, 512), pattern(0, 512));
        });
    });
}

TEST(files_on_nodes, bitmaps_on_another_node_are_saved_and_loaded) {
    sim::for_each_seed(10, [](std::uint64_t seed) {
        with_host(seed, [](Machine &) {
            ASSERT_EQ(add_filter(0, 4096, kDiskPath, "/onnode"), 0);
            ASSERT_EQ(start(0), 0);
            ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
            EXPECT_EQ(write_node(0, 8, 8), 0);
            EXPECT_EQ(del(0), 0);
            ASSERT_EQ(add_filter(0, 4096, kDiskPath, "/onnode"), 0);
            EXPECT_EQ(incr_bmp(0)[0], 2);
        });
    });
}

}  // namespace files_on_nodes_test
