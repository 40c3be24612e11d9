// tests/unit/control/proc_test.cpp: the texts of the status tree
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/control/nodes.h"

namespace {

using control_test::Nodes;
using control_test::with_control;

std::string read_text(const std::string &path) {
    std::string text;
    EXPECT_EQ(sim::proc_read(path, &text), 0) << path;
    return text;
}

os_proc_entry *entry_of(os_proc_entry *folder, const std::string &name) {
    os_proc_entry *entry = os_proc_first_child(folder);
    while (entry != nullptr && os_proc_name(entry) != name)
        entry = os_proc_next(entry);
    return entry;
}

const std::vector<std::string> filter_names = {
    "dev_type",      "minor",          "uuid",          "name",           "dev_name",
    "started",       "use_cnt",        "hdd_major",     "hdd_minor",      "hdd_name",
    "snap_minor",    "extent_size",    "extent_cnt",    "dev_size",       "bmp_dir",
    "incr_bmp_size", "incr_bmp_dirty", "diff_bmp_size", "diff_bmp_dirty", "cowqueue_len",
    "snaps"};
const std::vector<std::string> snap_names = {
    "dev_type",       "minor",        "uuid",          "name",       "dev_name",
    "started",        "stop_pending", "del_pending",   "use_cnt",    "filter_minor",
    "hdd_major",      "hdd_minor",    "hdd_name",      "chunk_size", "cow_bmp_fname",
    "cow_data_fname", "cow_bmp_size", "cow_data_size", "snap_valid"};

void fill_common(trak_device *dev) {
    trak_strncpy0(dev->uuid, "{01}", sizeof dev->uuid);
    trak_strncpy0(dev->name, "node", sizeof dev->name);
    trak_strncpy0(dev->dev_name, "/dev/trak/node", sizeof dev->dev_name);
    dev->started = 1;
    dev->use_cnt.store(-2);
}

void fill_filter(trak_device *dev) {
    fill_common(dev);
    trak_filter *f = &dev->filter;
    f->hdd_dev = (259u << 20) | 0xabcde;
    trak_strncpy0(f->hdd_name, "/dev/sda1", sizeof f->hdd_name);
    f->extent_size = 65536;
    f->extent_cnt = 0xffffffff;
    f->dev_size = 0x123456789abcdef0;
    trak_strncpy0(f->bmp_dir, "/var/lib", sizeof f->bmp_dir);
    f->incr_bmp_size = 11;
    f->incr_bmp_dirty = 1;
    f->diff_bmp_size = 12;
    f->diff_bmp_dirty = 0;
    f->cowqueue.cnt.store(17);
}

void fill_snap(trak_device *dev) {
    fill_common(dev);
    trak_snap *s = &dev->snap;
    s->stop_pending = 1;
    s->del_pending = 2;
    s->chunk_size = 4096;
    trak_strncpy0(s->cow_bmp_fname, "/cow/bmp", sizeof s->cow_bmp_fname);
    trak_strncpy0(s->cow_data_fname, "/cow/data", sizeof s->cow_data_fname);
    s->cow_bmp_size = -5;
    s->cow_data_size = 0x0fedcba987654321;
    s->snap_valid = 3;
}

TEST(proc, tree_is_made_and_removed) {
    sim_run::boot([] {
        trak_debug = 2;
        EXPECT_EQ(trak_create_proc(), 0);
        EXPECT_LOGGED_INFO("trak_create_proc(): Creating /proc/trak filesystem");
        EXPECT_EQ(sim::proc_list("/proc/trak"),
                  (std::vector<std::string>{"chr_major", "blk_major", "debug"}));
        sim::clear_log();
        EXPECT_EQ(trak_remove_proc(), 0);
        EXPECT_FALSE(sim::proc_exists("/proc/trak"));
        EXPECT_EQ(trak_dir, nullptr);
        ASSERT_EQ(sim::log().size(), 5u) << sim_run::log_text();
        EXPECT_LOGGED_INFO("trak_remove_proc(): Removing /proc/trak tree.");
        for (const char *name : {"chr_major", "blk_major", "debug", "trak"})
            EXPECT_LOGGED_INFO(std::string("Removing ") + name + "...");
        EXPECT_NE(sim::log().back().find("Removing trak..."), std::string::npos);
    });
}

TEST(proc, removal_is_a_milestone_and_that_of_its_entries_a_detail) {
    sim_run::boot([] {
        EXPECT_EQ(trak_create_proc(), 0);
        EXPECT_EQ(trak_remove_proc(), 0);
        EXPECT_EQ(sim::log().size(), 1u) << sim_run::log_text();
        EXPECT_LOGGED_INFO("trak_remove_proc(): Removing /proc/trak tree.");
        trak_remove_proc_entry(nullptr);
    });
}

TEST(proc, each_entry_that_can_not_be_made_ends_the_creation_and_stays_where_it_is) {
    const char *messages[] = {"trak_create_proc(): Failed to create /proc/trak directory.",
                              "trak_create_proc(): Failed to create /proc/trak/chr_major.",
                              "trak_create_proc(): Failed to create /proc/trak/blk_major.",
                              "trak_create_proc(): Failed to create /proc/trak/debug."};
    for (std::size_t nth = 1; nth <= 4; ++nth) {
        sim_run::boot([&] {
            sim::fail_nth(sim::Fault::kProc, nth);
            EXPECT_EQ(trak_create_proc(), -EINVAL);
            EXPECT_LOGGED_ERROR(messages[nth - 1]);
            EXPECT_EQ(sim::proc_exists("/proc/trak"), nth > 1);
            EXPECT_EQ(sim::proc_list("/proc/trak").size(), nth > 1 ? nth - 2 : 0);
            trak_remove_proc();
        });
    }
}

TEST(proc, parameters_are_shown) {
    with_control([](Nodes &) {
        trak_blk_major = -7;
        EXPECT_EQ(read_text("/proc/trak/chr_major"), "100\n");
        EXPECT_EQ(read_text("/proc/trak/blk_major"), "-7\n");
        EXPECT_EQ(read_text("/proc/trak/debug"), "1\n");
    });
}

TEST(proc, filter_has_its_files_in_order) {
    with_control([](Nodes &nodes) {
        trak_debug = 2;
        trak_device *dev = nodes.filter(3);
        EXPECT_EQ(trak_proc_add_device(dev), 0);
        EXPECT_LOGGED_INFO(
            "trak_proc_add_device(): Creating /proc/trak/trak3 entry for trak(100, 3)");
        EXPECT_EQ(sim::proc_list("/proc/trak/trak3"), filter_names);
        EXPECT_EQ(trak_proc_del_device(dev), 0);
        EXPECT_LOGGED_INFO("trak_proc_del_device(): Removing /proc entry for trak(100, 3)");
        EXPECT_FALSE(sim::proc_exists("/proc/trak/trak3"));
    });
}

TEST(proc, snap_has_its_files_in_order) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.snap(4, nodes.filter(3));
        EXPECT_EQ(trak_proc_add_device(dev), 0);
        EXPECT_EQ(sim::proc_list("/proc/trak/trak4"), snap_names);
        EXPECT_EQ(trak_proc_del_device(dev), 0);
    });
}

TEST(proc, fields_of_a_filter_have_their_texts) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        fill_filter(dev);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        const std::map<std::string, std::string> expected = {{"dev_type", "filter\n"},
                                                             {"minor", "3\n"},
                                                             {"uuid", "{01}\n"},
                                                             {"name", "node\n"},
                                                             {"dev_name", "/dev/trak/node\n"},
                                                             {"started", "1\n"},
                                                             {"use_cnt", "-2\n"},
                                                             {"hdd_major", "259\n"},
                                                             {"hdd_minor", "703710\n"},
                                                             {"hdd_name", "/dev/sda1\n"},
                                                             {"snap_minor", ""},
                                                             {"extent_size", "65536\n"},
                                                             {"extent_cnt", "-1\n"},
                                                             {"dev_size", "1311768467463790320\n"},
                                                             {"bmp_dir", "/var/lib\n"},
                                                             {"incr_bmp_size", "11\n"},
                                                             {"incr_bmp_dirty", "1\n"},
                                                             {"diff_bmp_size", "12\n"},
                                                             {"diff_bmp_dirty", "0\n"},
                                                             {"cowqueue_len", "17\n"},
                                                             {"snaps", ""}};
        ASSERT_EQ(expected.size(), filter_names.size());
        for (const auto &[name, text] : expected)
            EXPECT_EQ(read_text("/proc/trak/trak3/" + name), text) << name;
        trak_proc_del_device(dev);
    });
}

TEST(proc, fields_of_a_snap_have_their_texts_and_its_disk_is_its_filters) {
    with_control([](Nodes &nodes) {
        trak_device *filter = nodes.filter(3);
        fill_filter(filter);
        trak_device *dev = nodes.snap(4, filter);
        fill_snap(dev);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        const std::map<std::string, std::string> expected = {
            {"dev_type", "snap\n"},
            {"minor", "4\n"},
            {"uuid", "{01}\n"},
            {"name", "node\n"},
            {"dev_name", "/dev/trak/node\n"},
            {"started", "1\n"},
            {"stop_pending", "1\n"},
            {"del_pending", "2\n"},
            {"use_cnt", "-2\n"},
            {"filter_minor", "3\n"},
            {"hdd_major", "259\n"},
            {"hdd_minor", "703710\n"},
            {"hdd_name", "/dev/sda1\n"},
            {"chunk_size", "4096\n"},
            {"cow_bmp_fname", "/cow/bmp\n"},
            {"cow_data_fname", "/cow/data\n"},
            {"cow_bmp_size", "-5\n"},
            {"cow_data_size", "1147797409030816545\n"},
            {"snap_valid", "3\n"}};
        ASSERT_EQ(expected.size(), snap_names.size());
        for (const auto &[name, text] : expected)
            EXPECT_EQ(read_text("/proc/trak/trak4/" + name), text) << name;
        trak_proc_del_device(dev);
    });
}

TEST(proc, snap_without_its_filter_shows_nothing_of_it) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.snap(4, nullptr);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        for (const char *name : {"filter_minor", "hdd_major", "hdd_minor", "hdd_name"})
            EXPECT_EQ(read_text(std::string("/proc/trak/trak4/") + name), "");
        trak_proc_del_device(dev);
    });
}

TEST(proc, snaps_of_a_filter_are_listed_in_the_order_of_creation) {
    with_control([](Nodes &nodes) {
        trak_device *filter = nodes.filter(3);
        ASSERT_EQ(trak_proc_add_device(filter), 0);
        EXPECT_EQ(read_text("/proc/trak/trak3/snaps"), "");
        nodes.snap(9, filter);
        nodes.snap(4, filter);
        EXPECT_EQ(read_text("/proc/trak/trak3/snaps"), "9\n4\n");
        EXPECT_EQ(read_text("/proc/trak/trak3/snap_minor"), "9\n4\n");
        trak_proc_del_device(filter);
    });
}

TEST(proc, all_the_snaps_that_there_can_be_fit_into_the_page) {
    with_control([](Nodes &nodes) {
        trak_device *filter = nodes.filter(0);
        std::string expected;
        for (std::int32_t minor = 255; minor > 0; --minor) {
            nodes.snap(minor, filter);
            expected += std::to_string(minor) + "\n";
        }
        ASSERT_EQ(trak_proc_add_device(filter), 0);
        EXPECT_EQ(read_text("/proc/trak/trak0/snaps"), expected);
        trak_proc_del_device(filter);
    });
}

TEST(proc, list_of_snaps_that_would_not_fit_ends_at_a_whole_line) {
    sim_run::boot([] {
        trak_max_blk_minor = 2000;
        trak_table_init();
        ASSERT_EQ(trak_table_create(), 0);
        ASSERT_EQ(trak_create_proc(), 0);
        {
            Nodes nodes;
            trak_device *filter = nodes.filter(0);
            for (std::int32_t minor = 1000; minor < 2000; ++minor)
                nodes.snap(minor, filter);
            ASSERT_EQ(trak_proc_add_device(filter), 0);
            const std::string text = read_text("/proc/trak/trak0/snaps");
            EXPECT_LT(text.size(), 4096u);
            EXPECT_GT(text.size(), 4000u);
            ASSERT_EQ(text.size() % 5, 0u);
            for (std::size_t i = 0; i < text.size() / 5; ++i)
                EXPECT_EQ(text.substr(i * 5, 5), std::to_string(1000 + i) + "\n");
            trak_proc_del_device(filter);
        }
        trak_remove_proc();
        const zuwrite_guard guard(&trak_blkdev_rwlock);
        trak_table_destroy();
    });
}

TEST(proc, longest_path_is_shown_whole) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        std::memset(dev->filter.hdd_name, 'p', 1023);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        EXPECT_EQ(read_text("/proc/trak/trak3/hdd_name"), std::string(1023, 'p') + "\n");
        trak_proc_del_device(dev);
    });
}

TEST(proc, file_of_a_node_that_is_gone_is_empty) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        EXPECT_EQ(read_text("/proc/trak/trak3/minor"), "3\n");
        nodes.remove(3);
        EXPECT_EQ(read_text("/proc/trak/trak3/minor"), "");
        trak_proc_del_device(dev);
    });
}

TEST(proc, file_that_the_type_of_the_node_lacks_is_empty) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        trak_device *snap = nodes.snap(4, dev);
        ASSERT_EQ(trak_proc_add_device(snap), 0);
        // The record at minor 3 is a snap now; its folder still has a filter's files.
        trak_blkdev_arr[3] = snap;
        EXPECT_EQ(read_text("/proc/trak/trak3/extent_size"), "");
        EXPECT_EQ(read_text("/proc/trak/trak3/minor"), "4\n");
        trak_blkdev_arr[3] = dev;
        trak_proc_del_device(snap);
        trak_proc_del_device(dev);
    });
}

// A file of ours in a folder of any name.
std::string read_in_folder(const char *folder_name) {
    os_proc_entry *folder = os_proc_mkdir(folder_name, trak_dir);
    os_proc_entry *entry = os_create_proc_entry("minor", 0444, folder);
    os_proc_set_ops(entry, trak_read_proc, nullptr, entry);
    std::string text = read_text(std::string("/proc/trak/") + folder_name + "/minor");
    trak_remove_proc_entry(folder);
    return text;
}

TEST(proc, folder_that_names_no_node_has_empty_files) {
    with_control([](Nodes &nodes) {
        nodes.filter(3);
        nodes.filter(255);
        EXPECT_EQ(read_in_folder("trak3"), "3\n");
        EXPECT_EQ(read_in_folder("trak003"), "3\n");
        EXPECT_EQ(read_in_folder("trak3x"), "3\n");
        EXPECT_EQ(read_in_folder("trak255"), "255\n");
        for (const char *name :
             {"trak", "trakx3", "trak-3", "Trak3", "tra3", "x", "trak256", "trak4294967299",
              "trak18446744073709551619", "trak99999999999999999999999999"})
            EXPECT_EQ(read_in_folder(name), "") << name;
    });
}

TEST(proc, other_file_at_the_top_is_empty) {
    with_control([](Nodes &) {
        os_proc_entry *entry = os_create_proc_entry("minor", 0444, trak_dir);
        os_proc_set_ops(entry, trak_read_proc, nullptr, entry);
        EXPECT_EQ(read_text("/proc/trak/minor"), "");
    });
}

TEST(proc, file_named_like_a_parameter_elsewhere_is_empty) {
    with_control([](Nodes &) {
        os_proc_entry *folder = os_proc_mkdir("other", trak_dir);
        os_proc_entry *entry = os_create_proc_entry("debug", 0444, folder);
        os_proc_set_ops(entry, trak_read_proc, nullptr, entry);
        EXPECT_EQ(read_text("/proc/trak/other/debug"), "");
    });
}

TEST(proc, read_ignores_the_offset_and_the_count) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        ASSERT_EQ(trak_proc_add_device(dev), 0);
        os_proc_entry *file = entry_of(entry_of(trak_dir, "trak3"), "dev_type");
        ASSERT_NE(file, nullptr);
        char page[4096];
        char *start = page;
        int eof = 0;
        EXPECT_EQ(trak_read_proc(page, &start, 5, 1, &eof, file), 7);
        EXPECT_STREQ(page, "filter\n");
        EXPECT_EQ(start, page);
        EXPECT_EQ(eof, 1);
        trak_proc_del_device(dev);
    });
}

TEST(proc, read_without_page_eof_or_data_is_einval) {
    with_control([](Nodes &) {
        os_proc_entry *file = entry_of(trak_dir, "debug");
        char page[4096];
        int eof = 0;
        EXPECT_EQ(trak_read_proc(nullptr, nullptr, 0, 0, &eof, file), -EINVAL);
        EXPECT_EQ(trak_read_proc(page, nullptr, 0, 0, nullptr, file), -EINVAL);
        EXPECT_EQ(trak_read_proc(page, nullptr, 0, 0, &eof, nullptr), -EINVAL);
        EXPECT_EQ(trak_read_proc(page, nullptr, 0, 0, &eof, file), 2);
    });
}

TEST(proc, read_is_told_like_a_command) {
    with_control([](Nodes &) {
        trak_debug = 2;
        read_text("/proc/trak/chr_major");
        EXPECT_LOGGED_INFO("trak_read_proc(): chr_major=100");
        trak_debug = 1;
        sim::clear_log();
        read_text("/proc/trak/chr_major");
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(proc, folder_that_can_not_be_made_is_an_error) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        sim::fail_nth(sim::Fault::kProc, 1);
        EXPECT_EQ(trak_proc_add_device(dev), -EINVAL);
        EXPECT_LOGGED_ERROR("trak_proc_add_device(): Failed to create /proc/trak/trak3 directory.");
        EXPECT_FALSE(sim::proc_exists("/proc/trak/trak3"));
    });
}

TEST(proc, each_file_that_can_not_be_made_takes_the_folder_with_it) {
    with_control([](Nodes &nodes) {
        trak_device *filter = nodes.filter(3);
        trak_device *snap = nodes.snap(4, filter);
        for (trak_device *dev : {filter, snap}) {
            const std::string folder = "/proc/trak/trak" + std::to_string(dev->minor);
            const auto &names = dev == filter ? filter_names : snap_names;
            for (std::size_t i = 0; i < names.size(); ++i) {
                sim::fail_nth(sim::Fault::kProc, i + 2);
                EXPECT_EQ(trak_proc_add_device(dev), -EINVAL);
                EXPECT_LOGGED_ERROR("trak_proc_add_device(): Failed to create " + folder + "/" +
                                    names[i] + ".");
                EXPECT_FALSE(sim::proc_exists(folder));
            }
        }
    });
}

TEST(proc, removing_a_node_without_a_folder_succeeds) {
    with_control([](Nodes &nodes) {
        EXPECT_EQ(trak_proc_del_device(nodes.filter(3)), 0);
        EXPECT_EQ(sim::proc_list("/proc/trak").size(), 3u);
    });
}

TEST(proc, removing_a_node_leaves_the_others) {
    with_control([](Nodes &nodes) {
        for (const std::int32_t minor : {1, 10, 11})
            ASSERT_EQ(trak_proc_add_device(nodes.filter(minor)), 0);
        trak_proc_del_device(trak_blkdev_arr[10]);
        EXPECT_EQ(sim::proc_list("/proc/trak"),
                  (std::vector<std::string>{"chr_major", "blk_major", "debug", "trak1", "trak11"}));
        trak_proc_del_device(trak_blkdev_arr[1]);
        trak_proc_del_device(trak_blkdev_arr[11]);
    });
}

TEST(proc_debug, level_that_is_written_holds_at_once) {
    with_control([](Nodes &) {
        trak_log(3, "%s(): before", "test");
        EXPECT_NOTHING_LOGGED();
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "3\n"), 2);
        EXPECT_LOGGED_INFO("trak_write_proc(): trak_debug=3");
        EXPECT_EQ(read_text("/proc/trak/debug"), "3\n");
        trak_log(3, "%s(): after", "test");
        EXPECT_LOGGED_INFO("test(): after");
    });
}

TEST(proc_debug, takes_any_number_that_ends_in_nothing_a_blank_or_a_newline) {
    with_control([](Nodes &) {
        const struct {
            const char *text;
            std::int32_t level;
        } cases[] = {{"4", 4},
                     {"2\n", 2},
                     {"3 and more", 3},
                     {"-1\n", -1},
                     {"\n", 0},
                     {" 5", 0},
                     {"-\n", 0},
                     {"007", 7},
                     {"-2147483648", INT32_MIN},
                     {"2147483647", INT32_MAX},
                     {"4294967298", 2}};
        for (const auto &c : cases) {
            trak_debug = 77;
            EXPECT_EQ(sim::proc_write("/proc/trak/debug", c.text),
                      static_cast<int>(std::strlen(c.text)))
                << c.text;
            EXPECT_EQ(trak_debug, c.level) << c.text;
        }
    });
}

TEST(proc_debug, other_text_is_einval_and_changes_nothing) {
    with_control([](Nodes &) {
        for (const char *text : {"abc", "3x", "3\t", "+3", "--3", "0x3", "3,"}) {
            EXPECT_EQ(sim::proc_write("/proc/trak/debug", text), -EINVAL) << text;
            EXPECT_EQ(trak_debug, 1);
        }
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(proc_debug, negative_level_silences_all_debug_levels) {
    with_control([](Nodes &) {
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "-1\n"), 3);
        for (int level = 1; level <= 4; ++level)
            trak_log(level, "%s(): silent", "test");
        EXPECT_NOTHING_LOGGED();
        trak_log(TRAK_LOG_ERROR, "%s(): loud", "test");
        EXPECT_LOGGED_ERROR("test(): loud");
    });
}

TEST(proc_debug, text_ends_at_the_count) {
    with_control([](Nodes &) {
        // The driver's buffer held these digits a moment ago.
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "3333333\n"), 8);
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "4"), 1);
        EXPECT_EQ(trak_debug, 4);
    });
}

TEST(proc_debug, write_of_up_to_1024_bytes_is_taken) {
    with_control([](Nodes &) {
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "3\n" + std::string(1022, 'x')), 1024);
        EXPECT_EQ(trak_debug, 3);
        // The last byte of a full buffer is the terminator's.
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", std::string(1023, '0') + "x"), 1024);
        EXPECT_EQ(trak_debug, 0);
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "4\n" + std::string(1023, 'x')), -EINVAL);
        EXPECT_EQ(trak_debug, 0);
    });
}

TEST(proc_debug, write_of_nothing_is_einval) {
    with_control([](Nodes &) {
        os_proc_entry *file = entry_of(trak_dir, "debug");
        const os_uaddr text = sim::user_alloc(1);
        EXPECT_EQ(trak_write_proc(nullptr, text, 0, file), -EINVAL);
        EXPECT_EQ(trak_write_proc(nullptr, 0, 1, file), -EINVAL);
        EXPECT_EQ(trak_write_proc(nullptr, text, 1, nullptr), -EINVAL);
        sim::user_free(text);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(proc_debug, failed_copy_is_efault_and_changes_nothing) {
    with_control([](Nodes &) {
        sim::fail_nth(sim::Fault::kCopy, 1);
        EXPECT_EQ(sim::proc_write("/proc/trak/debug", "3\n"), -EFAULT);
        EXPECT_EQ(trak_debug, 1);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(proc_debug, failed_allocation_is_enomem_even_for_a_text_too_long) {
    with_control([](Nodes &) {
        trak_log(TRAK_LOG_MILESTONE, "%s(): first message", "test");
        for (const std::size_t size : {2u, 2000u}) {
            sim::clear_log();
            sim::fail_nth(sim::Fault::kAlloc, 1);
            EXPECT_EQ(sim::proc_write("/proc/trak/debug", std::string(size, '3')), -ENOMEM);
            EXPECT_LOGGED_ERROR("trak_write_proc(): Memory allocation failed.");
        }
    });
}

TEST(proc_debug, write_to_another_file_is_taken_and_ignored) {
    with_control([](Nodes &) {
        os_proc_entry *file = entry_of(trak_dir, "chr_major");
        const os_uaddr text = sim::user_alloc(3);
        std::memcpy(sim::user_bytes(text, 3).data(), "abc", 3);
        EXPECT_EQ(trak_write_proc(nullptr, text, 3, file), 3);
        sim::user_free(text);
        EXPECT_EQ(trak_chr_major, 100);
        EXPECT_LT(sim::proc_write("/proc/trak/chr_major", "7"), 0);
    });
}

}  // namespace
