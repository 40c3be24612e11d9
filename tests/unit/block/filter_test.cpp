// tests/unit/block/filter_test.cpp: creation of filter nodes: every refusal, every default, every undoing
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/block/filter.h"

#include "os/sim/seeds.h"
#include "os/task.h"
#include "tests/unit/block/bitmap_image.h"

using namespace driver_world;

namespace {

constexpr os_dev_t kSecondDisk = 8u << 20 | 32u;

Machine &with_second_disk(Machine &machine, std::uint64_t size = kDiskSize) {
    machine.storage.add_disk("sdc", kSecondDisk, size, 512);
    return machine;
}

// Asks for a node that can't be: the errno and one message are the answer, and nothing is left.
void expect_refused(trak_add_filter_arg arg, int err, const std::string &message) {
    sim::clear_log();
    EXPECT_EQ(command(TRAK_ADD_FILTER_NODE, arg), err);
    EXPECT_TRUE(logged_error("trak_ioctl_add_filter_node(): " + message)) << whole_log();
    EXPECT_EQ(node(0), nullptr);
    EXPECT_TRUE(sim::nodes().empty());
}

bool is_braced_identifier(const std::string &s) {
    if (s.size() != 38 || s.front() != '{' || s.back() != '}')
        return false;
    for (std::size_t i = 1; i < 37; ++i) {
        const bool dash = i == 9 || i == 14 || i == 19 || i == 24;
        if (dash ? s[i] != '-' : !std::strchr("0123456789abcdef", s[i]))
            return false;
    }
    return true;
}

}  // namespace

TEST(filter, a_new_node_is_there_stopped_and_everything_counts_as_changed) {
    Machine machine;
    boot(machine, [&] {
        trak_add_filter_arg arg = filter_arg();
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, arg), 0);
        EXPECT_EQ(arg.minor, 0);
        EXPECT_STREQ(arg.name, "trak0");
        EXPECT_TRUE(is_braced_identifier(arg.uuid)) << arg.uuid;
        const trak_device &dev = *node(0);
        EXPECT_EQ(dev.dev_type, 1u);
        EXPECT_EQ(dev.started, 0u);
        EXPECT_EQ(dev.use_cnt.load(), 0);
        EXPECT_EQ(dev.minor, 0);
        EXPECT_STREQ(dev.uuid, arg.uuid);
        EXPECT_STREQ(dev.name, "trak0");
        EXPECT_STREQ(dev.dev_name, "/dev/trak/trak0");
        const trak_filter &f = dev.filter;
        EXPECT_EQ(f.hdd_dev, kDisk);
        EXPECT_STREQ(f.hdd_name, kDiskPath);
        EXPECT_EQ(f.part_minor, 0u);
        EXPECT_EQ(f.extent_size, 4096u);
        EXPECT_EQ(f.extent_shift, 12);
        EXPECT_EQ(f.extent_cnt, 256u);
        EXPECT_EQ(f.dev_size, kDiskSize);
        EXPECT_STREQ(f.bmp_dir, "/bmp");
        EXPECT_STREQ(f.incr_bmp_fname, kIncrFile);
        EXPECT_STREQ(f.diff_bmp_fname, kDiffFile);
        EXPECT_EQ(f.incr_bmp_size, 32);
        EXPECT_EQ(f.diff_bmp_size, 32);
        EXPECT_EQ(f.incr_bmp_dirty, 1u);
        EXPECT_EQ(f.diff_bmp_dirty, 1u);
        EXPECT_EQ(incr_bmp(0), all_ones(32));
        EXPECT_EQ(diff_bmp(0), all_ones(32));
        EXPECT_EQ(sim::nodes(), std::vector<os_dev_t>{node_dev(0)});
        EXPECT_TRUE(machine.storage.exists("/dev/trak/trak0"));
        EXPECT_TRUE(sim::proc_exists("/proc/trak/trak0"));
        EXPECT_FALSE(machine.storage.exists(kIncrFile));
    });
}

TEST(filter, empty_disk_name_is_refused_before_any_lookup) {
    Machine machine;
    boot(machine, [&] {
        expect_refused(filter_arg(-1, 4096, ""), -EINVAL, "Empty HDD name passed as input.");
        EXPECT_EQ(sim::count_log("lookup"), 0u);
    });
}

TEST(filter, missing_disk_is_refused_with_enoent_whatever_the_lookup_said) {
    Machine machine;
    machine.storage.write_file("/plain", Bytes{1});
    boot(machine, [&] {
        expect_refused(filter_arg(-1, 4096, "/dev/none"), -ENOENT,
                       "Unable to lookup /dev/none: rc=-2");
        expect_refused(filter_arg(-1, 4096, "/plain/x"), -ENOENT,
                       "Unable to lookup /plain/x: rc=-20");
        expect_refused(filter_arg(-1, 4096, "dev/sdb"), -ENOENT,
                       "Unable to lookup dev/sdb: rc=-22");
    });
}

TEST(filter, what_is_no_block_device_is_refused) {
    Machine machine;
    machine.storage.write_file("/plain", Bytes{1});
    machine.storage.chmod_special("/dev/tty", OS_S_IFCHR | 0600, os_mkdev(4, 1));
    boot(machine, [&] {
        expect_refused(filter_arg(-1, 4096, "/plain"), -EINVAL, "/plain is not a block device.");
        expect_refused(filter_arg(-1, 4096, "/bmp"), -EINVAL, "/bmp is not a block device.");
        expect_refused(filter_arg(-1, 4096, "/dev/tty"), -EINVAL,
                       "/dev/tty is not a block device.");
    });
}

TEST(filter, path_without_an_inode_is_refused) {
    Machine machine;
    machine.storage.hide_inode(kDiskPath, true);
    boot(machine, [&] {
        expect_refused(filter_arg(), -EINVAL, "Unable to derive major/minor numbers for /dev/sdb");
        machine.storage.hide_inode(kDiskPath, false);
        EXPECT_EQ(add_filter(), 0);
    });
}

TEST(filter, symbolic_links_to_the_disk_are_followed) {
    Machine machine;
    machine.storage.symlink(kDiskPath, "/dev/mydisk");
    boot(machine, [&] {
        EXPECT_EQ(add_filter(-1, 4096, "/dev/mydisk"), 0);
        EXPECT_EQ(filter(0).hdd_dev, kDisk);
        EXPECT_STREQ(filter(0).hdd_name, "/dev/mydisk");
    });
}

TEST(filter, disk_that_cannot_be_opened_is_refused) {
    Machine machine;
    machine.storage.chmod_special("/dev/ghost", OS_S_IFBLK | 0600, os_mkdev(9, 7));
    boot(machine, [&] {
        expect_refused(filter_arg(-1, 4096, "/dev/ghost"), -EINVAL,
                       "Unable to open HDD device /dev/ghost (9, 7)");
    });
}

TEST(filter, second_filter_on_a_disk_is_refused) {
    Machine machine;
    boot(machine, [&] {
        ASSERT_EQ(add_filter(3), 0);
        EXPECT_EQ(add_filter(), -EINVAL);
        EXPECT_TRUE(logged_error("trak_ioctl_add_filter_node(): Found a duplicate trak3 node going "
                                 "to the same HDD device /dev/sdb"));
        EXPECT_EQ(sim::nodes().size(), 1u);
    });
}

TEST(filter, mounted_disk_is_refused) {
    Machine machine;
    machine.disk.set_mounted(true);
    boot(machine, [&] {
        expect_refused(filter_arg(), -EBUSY, "Can't attach to mounted HDD device /dev/sdb");
    });
}

TEST(filter, disk_that_somebody_has_open_is_refused) {
    Machine machine;
    machine.disk.set_openers(1);
    boot(machine, [&] {
        expect_refused(filter_arg(), -EBUSY, "Can't attach to an open HDD device /dev/sdb");
        machine.disk.set_openers(0);
        EXPECT_EQ(add_filter(), 0);
    });
}

TEST(filter, extent_sizes_that_do_not_fit_are_refused) {
    Machine machine;
    boot(machine, [&] {
        const std::string power = "Extent size must be a power of 2";
        const std::string page = "Extent size can't be smaller than page size (4096B)";
        const std::string block = "Extent size must be a multiple of block size (512B)";
        for (const std::uint32_t size : {0u, 3u, 6144u, 12288u, 0x80000001u, 0xffffffffu})
            expect_refused(filter_arg(-1, size), -EINVAL, power);
        for (const std::uint32_t size : {1u, 2u, 256u})
            expect_refused(filter_arg(-1, size), -EINVAL, block);
        for (const std::uint32_t size : {512u, 1024u, 2048u})
            expect_refused(filter_arg(-1, size), -EINVAL, page);
        ASSERT_EQ(add_filter(-1, 4096), 0);
    });
    Machine large_blocks(kDiskSize, 8192);
    boot(large_blocks, [&] {
        expect_refused(filter_arg(-1, 4096), -EINVAL,
                       "Extent size must be a multiple of block size (8192B)");
        EXPECT_EQ(add_filter(-1, 8192), 0);
    });
}

TEST(filter, lowest_free_minor_is_chosen_and_written_back) {
    Machine machine;
    with_second_disk(machine).storage.add_disk("sdd", 8u << 20 | 48u, kDiskSize, 512);
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_filter(1, 4096, "/dev/sdc"), 0);
        trak_add_filter_arg arg = filter_arg(-7, 4096, "/dev/sdd");
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, arg), 0);
        EXPECT_EQ(arg.minor, 2);
        EXPECT_STREQ(arg.name, "trak2");
        EXPECT_TRUE(is_braced_identifier(arg.uuid));
        EXPECT_STREQ(node(2)->name, "trak2");
        ASSERT_EQ(del(0), 0);
        trak_add_filter_arg again = filter_arg();
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, again), 0);
        EXPECT_EQ(again.minor, 0);
    });
}

TEST(filter, minors_end_at_the_parameter) {
    Machine machine;
    with_second_disk(machine);
    boot_bare(machine, [&] {
        trak_max_blk_minor = 1;
        ASSERT_EQ(trak_init(), 0);
        expect_refused(filter_arg(2), -EINVAL, "Minor number 2 is too big: max=1");
        expect_refused(filter_arg(0x7fffffff), -EINVAL,
                       "Minor number 2147483647 is too big: max=1");
        ASSERT_EQ(add_filter(1), 0);
        ASSERT_EQ(add_filter(-1, 4096, "/dev/sdc"), 0);
        machine.storage.add_disk("sdd", 8u << 20 | 48u, kDiskSize, 512);
        trak_add_filter_arg arg = filter_arg(-1, 4096, "/dev/sdd");
        EXPECT_EQ(command(TRAK_ADD_FILTER_NODE, arg), -ENOSPC);
        EXPECT_EQ(arg.minor, -1);
        EXPECT_TRUE(logged_error("trak_ioctl_add_filter_node(): All 2 of TRAK minor nodes have "
                                 "already been used up."));
        EXPECT_NE(node(0), nullptr);
        EXPECT_NE(node(1), nullptr);
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

TEST(filter, given_texts_are_kept_and_cut_at_their_fields) {
    Machine machine;
    boot(machine, [&] {
        trak_add_filter_arg arg = filter_arg();
        std::memset(arg.uuid, 'u', sizeof arg.uuid);
        std::memset(arg.name, 'n', sizeof arg.name);
        const trak_add_filter_arg sent = arg;
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, arg), 0);
        EXPECT_EQ(std::string(node(0)->uuid), std::string(38, 'u'));
        EXPECT_EQ(std::string(node(0)->name), std::string(127, 'n'));
        EXPECT_EQ(std::memcmp(arg.uuid, sent.uuid, sizeof arg.uuid), 0);
        EXPECT_EQ(std::memcmp(arg.name, sent.name, sizeof arg.name), 0);
        EXPECT_TRUE(machine.storage.exists("/dev/trak/" + std::string(127, 'n')));
        EXPECT_EQ(del(0), 0);
        EXPECT_FALSE(machine.storage.exists("/dev/trak/" + std::string(127, 'n')));
    });
}

TEST(filter, texts_without_an_end_are_cut) {
    Machine machine;
    boot(machine, [&] {
        trak_add_filter_arg arg = filter_arg();
        std::memset(arg.hdd_name, '/', sizeof arg.hdd_name);
        std::memset(arg.bmp_dir, 'd', sizeof arg.bmp_dir);
        arg.minor = 0x2f2f2f2f;
        EXPECT_NE(command(TRAK_ADD_FILTER_NODE, arg), 0);
        arg = filter_arg();
        std::memset(arg.bmp_dir, '/', sizeof arg.bmp_dir);
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, arg), 0);
        EXPECT_STREQ(filter(0).bmp_dir, "/");
    });
}

TEST(filter, bitmap_directory_loses_its_trailing_slashes) {
    Machine machine;
    with_second_disk(machine);
    machine.storage.mkdir("/var/x");
    boot(machine, [&] {
        ASSERT_EQ(add_filter(2, 4096, kDiskPath, "/"), 0);
        EXPECT_STREQ(filter(2).bmp_dir, "/");
        EXPECT_STREQ(filter(2).incr_bmp_fname, "//trak2.incr");
        ASSERT_EQ(add_filter(0, 4096, "/dev/sdc", "/var/x///"), 0);
        EXPECT_STREQ(filter(0).bmp_dir, "/var/x");
        EXPECT_STREQ(filter(0).incr_bmp_fname, "/var/x/trak0.incr");
        EXPECT_STREQ(filter(0).diff_bmp_fname, "/var/x/trak0.diff");
    });
}

TEST(filter, sizes_of_small_and_uneven_disks_are_rounded_up) {
    for (const auto &[size, extents, bytes] : {std::tuple{1u, 1u, 1},
                                               {4095u, 1u, 1},
                                               {4096u, 1u, 1},
                                               {4097u, 2u, 1},
                                               {8u * 4096, 8u, 1},
                                               {8u * 4096 + 1, 9u, 2}}) {
        Machine machine(size, 1);
        boot(machine, [&, size = size, extents = extents, bytes = bytes] {
            ASSERT_EQ(add_filter(), 0) << whole_log();
            EXPECT_EQ(filter(0).extent_cnt, extents) << size;
            EXPECT_EQ(filter(0).incr_bmp_size, bytes) << size;
            EXPECT_EQ(filter(0).diff_bmp_size, bytes) << size;
        });
    }
}

TEST(filter, sixteen_tib_fit_in_large_extents) {
    Machine machine(std::uint64_t{16} << 40);
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0, 1 << 20), 0);
        EXPECT_EQ(filter(0).extent_cnt, 1u << 24);
        EXPECT_EQ(filter(0).incr_bmp_size, 1 << 21);
        ASSERT_EQ(start(0), 0);
        ASSERT_EQ(bmp_command(TRAK_CLR_BMP, 0, TRAK_BMP_INCR), 0);
        EXPECT_EQ(write_node(0, (std::uint64_t{16} << 31) - 8, 8), 0);
        EXPECT_EQ(incr_bmp(0).back(), 0x80);
    });
}

// Counted in 32 bits, with bytes by a signed shift: more than 2^31 extents have no size.
TEST(filter, more_extents_than_a_signed_count_holds_are_refused) {
    for (const auto &[size, shown] :
         {std::pair{(std::uint64_t{1} << 43) + 1, "-268435455+-268435455"},
          {std::uint64_t{1} << 44, "0+0"},
          {(std::uint64_t{1} << 44) + 4096, "1+1"}}) {
        Machine machine(size);
        boot(machine, [&, shown = shown] {
            expect_refused(filter_arg(), -ENOMEM,
                           std::string("Failed to allocate ") + shown +
                               " bytes of memory for bitmaps");
        });
    }
}

TEST(filter, an_empty_disk_is_refused) {
    Machine machine(0);
    boot(machine, [&] {
        expect_refused(filter_arg(), -ENOMEM, "Failed to allocate 0+0 bytes of memory for bitmaps");
    });
}

TEST(filter, existing_bitmap_files_are_loaded) {
    Machine machine;
    Bytes incr(32, 0), diff(32, 0);
    incr[3] = 8;
    diff[3] = diff[4] = 8;
    machine.storage.write_file(kIncrFile, bitmap_image(incr));
    machine.storage.write_file(kDiffFile, bitmap_image(diff));
    boot(
        machine,
        [&] {
            ASSERT_EQ(add_filter(0), 0);
            EXPECT_EQ(incr_bmp(0), incr);
            EXPECT_EQ(diff_bmp(0), diff);
            EXPECT_EQ(filter(0).incr_bmp_dirty, 0u);
            const std::string log = whole_log();
            EXPECT_LT(log.find("Loading Differential"), log.find("Loading Incremental"));
        },
        2);
}

TEST(filter, node_without_its_special_file_is_created_all_the_same) {
    Machine machine;
    machine.storage.remove("/dev/trak");
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        EXPECT_STREQ(node(0)->dev_name, "");
        EXPECT_EQ(start(0), 0);
    });
}

TEST(filter, what_stood_at_the_special_file_is_replaced) {
    Machine machine;
    machine.storage.write_file("/dev/trak/trak0", Bytes{1, 2, 3});
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        EXPECT_STREQ(node(0)->dev_name, "/dev/trak/trak0");
        EXPECT_THROW(machine.storage.read_file("/dev/trak/trak0"), std::logic_error);
    });
}

// Whatever allocation or opening fails: a stated errno, nothing left, and the next attempt works. The
// node that comes out never has a map that says less than "everything changed".
TEST(filter, every_failed_step_of_a_creation_is_undone) {
    for (const sim::Fault kind : {sim::Fault::kAlloc, sim::Fault::kOpen, sim::Fault::kRead,
                                  sim::Fault::kProc, sim::Fault::kCopy}) {
        Machine machine;
        bool done = false;
        for (std::uint64_t nth = 1; !done; ++nth) {
            SCOPED_TRACE(testing::Message()
                         << "fault " << static_cast<unsigned>(kind) << " nth " << nth);
            boot(machine, [&] {
                const std::uint64_t before = sim::fault_points(kind);
                sim::fail_nth(kind, nth);
                const int rc = add_filter(0);
                done = sim::fault_points(kind) - before < nth;
                sim::fail_none();
                EXPECT_TRUE(rc == 0 || rc == -ENOMEM || rc == -EIO || rc == -EINVAL ||
                            rc == -ENOENT || rc == -EFAULT)
                    << rc;
                if (done) {
                    EXPECT_EQ(rc, 0);
                }
                if (node(0)) {
                    EXPECT_EQ(incr_bmp(0), all_ones(32));
                    EXPECT_EQ(diff_bmp(0), all_ones(32));
                    EXPECT_EQ(filter(0).incr_bmp_dirty + filter(0).diff_bmp_dirty, 2u);
                    EXPECT_EQ(del(0), 0);
                }
                EXPECT_TRUE(sim::nodes().empty());
                EXPECT_EQ(add_filter(0), 0);
                EXPECT_EQ(del(0), 0);
            });
            ASSERT_LT(nth, 200u);
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

TEST(filter, messages_of_failed_allocations_are_the_stated_ones) {
    const char *const wanted[] = {
        "trak_ioctl_add_filter_node(): Memory allocation failure",
        "trak_ioctl_add_filter_node(): Failed to allocate 32+32 bytes of memory for bitmaps",
        "trak_block_load_bmp(): Failed to allocate 32 bytes.",
        "trak_aio_init(): Memory allocation failed.",
        "trak_ioctl_add_filter_node(): Failed to allocate new generic disk.",
    };
    std::vector<std::size_t> seen(std::size(wanted));
    Machine machine;
    for (std::uint64_t nth = 1; nth < 40; ++nth) {
        boot(machine, [&] {
            sim::fail_nth(sim::Fault::kAlloc, nth);
            const int rc = add_filter(0);
            for (std::size_t i = 0; i < std::size(wanted); ++i) {
                if (!logged_error(wanted[i]))
                    continue;
                seen[i]++;
                EXPECT_EQ(rc, i == 2 ? 0 : i == 3 ? -EIO : -ENOMEM) << wanted[i];
            }
        });
    }
    EXPECT_EQ(seen[0], 1u);
    EXPECT_EQ(seen[1], 2u);
    EXPECT_EQ(seen[2], 2u);
    EXPECT_GE(seen[3], 1u);
    EXPECT_EQ(seen[4], 2u);
}

TEST(filter, disk_that_can_not_be_added_is_taken_back) {
    Machine machine;
    boot(machine, [&] {
        const std::string message =
            "trak_ioctl_add_filter_node(): Failed to add new generic disk: rc=-12";
        int rc = 0;
        for (std::uint64_t nth = 1; nth < 60 && !logged_error(message); ++nth) {
            if (rc == 0 && node(0) != nullptr) {
                ASSERT_EQ(del(0), 0);
            }
            sim::fail_nth(sim::Fault::kOpen, nth);
            rc = add_filter(0);
            sim::fail_none();
        }
        EXPECT_TRUE(logged_error(message));
        EXPECT_EQ(rc, -ENOMEM);
        EXPECT_EQ(node(0), nullptr);
        EXPECT_TRUE(sim::nodes().empty());
        EXPECT_EQ(add_filter(0), 0);
    });
}

TEST(filter, two_creations_at_once_leave_a_sound_table) {
    sim::for_each_seed(40, [](std::uint64_t seed) {
        Machine machine;
        with_second_disk(machine);
        sim::Options options;
        options.seed = seed;
        boot(
            machine,
            [&] {
                int rc[2] = {1, 1};
                sim::Process *a =
                    sim::spawn("a", [&] { rc[0] = add_filter(-1, 4096, "/dev/sdc"); });
                sim::Process *b = sim::spawn("b", [&] { rc[1] = add_filter(); });
                sim::join(a);
                sim::join(b);
                EXPECT_EQ(rc[0], 0);
                EXPECT_EQ(rc[1], 0);
                EXPECT_EQ(sim::nodes().size(), 2u);
            },
            1, options);
    });
}

// ---- the minor that is taken ------------------------------------------------------------------

TEST(orphan, a_refused_creation_empties_the_entry_of_a_taken_minor) {
    Machine machine;
    with_second_disk(machine);
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(start(0), 0);
        EXPECT_EQ(add_filter(0, 4096, "/dev/sdc"), -EINVAL);
        EXPECT_TRUE(
            logged_error("trak_ioctl_add_filter_node(): Device minor number 0 is already taken"));
        EXPECT_EQ(node(0), nullptr);
        EXPECT_EQ(stop(0), -EINVAL);
        EXPECT_EQ(del(0), 22);
        EXPECT_EQ(sim::nodes().size(), 1u);
        EXPECT_EQ(write_node(0, 0, 1), -EINVAL);  // the open is refused
        EXPECT_TRUE(logged_error("trak_block_open(): Unable to find trak(100, 0)"));
        EXPECT_EQ(add_filter(1), -EBUSY);  // its disk stays open
    });
    boot(machine, [&] { EXPECT_EQ(add_filter(), 0); });
}

TEST(orphan, requests_of_who_has_it_open_are_refused_and_never_reach_another_disk) {
    Machine machine;
    with_second_disk(machine);
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(start(0), 0);
        os_bdev *bdev = open_node(0);
        ASSERT_NE(bdev, nullptr);
        ASSERT_EQ(add_filter(0, 4096, "/dev/sdc"), -EINVAL);
        EXPECT_EQ(sim::write_device(bdev, 0, Bytes(512, 9)), -EINVAL);
        EXPECT_TRUE(
            logged_error("trak_make_request(): Nothing is known about TRAK device with minor=0"));
        // The device number is in use: nobody else gets the minor yet.
        EXPECT_EQ(add_filter(0, 4096, "/dev/sdc"), -EINVAL);
        trak_add_filter_arg arg = filter_arg(-1, 4096, "/dev/sdc");
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, arg), 0);
        EXPECT_EQ(arg.minor, 1);
        EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), -EINVAL);
        sim::close_device(bdev);
        EXPECT_TRUE(logged_error("trak_block_release(): Unable to find trak(100, 0)"));
        EXPECT_EQ(machine.disk.read(0, 1)[0], 0);
        os_module_put();  // which the refused release kept, as it is defined
    });
}

// A table entry alone does not make a node answer for another one's disk.
TEST(orphan, a_disk_is_served_by_the_node_that_it_was_made_for_alone) {
    Machine machine;
    with_second_disk(machine);
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_filter(1, 4096, "/dev/sdc"), 0);
        ASSERT_EQ(start(0), 0);
        ASSERT_EQ(start(1), 0);
        os_bdev *bdev = open_node(0);
        trak_device *first = node(0);
        trak_blkdev_arr[0] = node(1);
        EXPECT_EQ(sim::write_device(bdev, 0, Bytes(512, 9)), -EINVAL);
        EXPECT_EQ(sim::device_ioctl(bdev, 0x1260, 0), -EINVAL);
        EXPECT_EQ(node(1)->use_cnt.load(), 0);
        trak_blkdev_arr[0] = first;
        EXPECT_EQ(machine.storage.disk(kSecondDisk).read(0, 1)[0], 0);
        sim::close_device(bdev);
    });
}

TEST(orphan, its_minor_serves_another_node_once_it_is_closed) {
    Machine machine;
    with_second_disk(machine);
    boot(machine, [&] {
        ASSERT_EQ(add_filter(0), 0);
        ASSERT_EQ(add_filter(0, 4096, "/dev/sdc"), -EINVAL);
        trak_add_filter_arg arg = filter_arg(-1, 4096, "/dev/sdc");
        ASSERT_EQ(command(TRAK_ADD_FILTER_NODE, arg), 0);
        EXPECT_EQ(arg.minor, 0);
        EXPECT_EQ(filter(0).hdd_dev, kSecondDisk);
        EXPECT_EQ(start(0), 0);
        EXPECT_EQ(write_node(0, 0, 1, 0x77), 0);
        EXPECT_EQ(machine.storage.disk(kSecondDisk).read(0, 1)[0], 0x77);
        EXPECT_EQ(machine.disk.read(0, 1)[0], 0);
        EXPECT_TRUE(sim::proc_exists("/proc/trak/trak0"));
        // And the same again.
        ASSERT_EQ(stop(0), 0);
        EXPECT_EQ(add_filter(0, 4096, "/dev/sdb"), -EBUSY);
    });
}
