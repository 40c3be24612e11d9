// tests/unit/control/info_test.cpp: the information commands, byte by byte
// SPDX-License-Identifier: GPL-2.0-only
#include "abi/trak_ioctl.h"
#include "tests/unit/control/nodes.h"

namespace {

using control_test::Nodes;
using control_test::with_control;
using sim_run::command;
using sim_run::Record;

constexpr std::uint32_t list_code = 0xc4084306;
constexpr std::uint32_t info_code = 0xd9084307;
constexpr std::uint8_t sent = 0xa5;

Record info_of(std::uint32_t minor) {
    Record record(6408, sent);
    record.u32(0, minor);
    EXPECT_EQ(command(info_code, record), 0) << sim_run::log_text();
    return record;
}

// Every byte of [from, to) is as the caller sent it.
bool as_sent(const Record &record, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (record.bytes[i] != sent)
            return false;
    }
    return true;
}

// The field holds the text, then zeroes to its end.
bool holds(const Record &record, std::size_t offset, std::size_t size, const std::string &text) {
    std::string field(reinterpret_cast<const char *>(record.bytes.data()) + offset, size);
    return field == text + std::string(size - text.size(), '\0');
}

TEST(device_list, lists_the_minors_of_one_type_in_ascending_order) {
    with_control([](Nodes &nodes) {
        trak_debug = 2;
        trak_device *filter = nodes.filter(7);
        nodes.filter(3);
        nodes.snap(5, filter);
        nodes.snap(200, filter);
        Record record(1032, sent);
        record.u32(0, 1);
        EXPECT_EQ(command(list_code, record), 0);
        EXPECT_LOGGED_INFO("trak_ioctl_get_device_list(): Returning the list of FILTER devices.");
        EXPECT_EQ(record.u32(0), 1u);
        EXPECT_EQ(record.u32(4), 2u);
        EXPECT_EQ(record.u32(8), 3u);
        EXPECT_EQ(record.u32(12), 7u);
        EXPECT_TRUE(as_sent(record, 16, 1032));

        record = Record(1032, sent);
        record.u32(0, 2);
        EXPECT_EQ(command(list_code, record), 0);
        EXPECT_LOGGED_INFO("trak_ioctl_get_device_list(): Returning the list of SNAP devices.");
        EXPECT_EQ(record.u32(4), 2u);
        EXPECT_EQ(record.u32(8), 5u);
        EXPECT_EQ(record.u32(12), 200u);
        EXPECT_TRUE(as_sent(record, 16, 1032));
    });
}

TEST(device_list, leaves_out_the_highest_minor) {
    with_control([](Nodes &nodes) {
        for (const std::int32_t minor : {3, 7, 254, 255})
            nodes.filter(minor);
        Record record(1032, sent);
        record.u32(0, 1);
        EXPECT_EQ(command(list_code, record), 0);
        EXPECT_EQ(record.u32(4), 3u);
        EXPECT_EQ(record.u32(8), 3u);
        EXPECT_EQ(record.u32(12), 7u);
        EXPECT_EQ(record.u32(16), 254u);
        EXPECT_TRUE(as_sent(record, 20, 1032));
    });
}

TEST(device_list, is_empty_without_nodes) {
    with_control([](Nodes &) {
        Record record(1032, sent);
        record.u32(0, 2);
        EXPECT_EQ(command(list_code, record), 0);
        EXPECT_EQ(record.u32(4), 0u);
        EXPECT_TRUE(as_sent(record, 8, 1032));
    });
}

TEST(device_list, stops_at_256_minors) {
    sim_run::boot([] {
        trak_max_blk_minor = 400;
        trak_table_init();
        ASSERT_EQ(trak_table_create(), 0);
        ASSERT_EQ(trak_char_init(), 0);
        {
            Nodes nodes;
            for (std::int32_t minor = 10; minor < 310; ++minor)
                nodes.filter(minor);
            Record record(1032, sent);
            record.u32(0, 1);
            EXPECT_EQ(command(list_code, record), 0);
            EXPECT_EQ(record.u32(4), 256u);
            for (std::uint32_t i = 0; i < 256; ++i)
                EXPECT_EQ(record.u32(8 + 4 * i), 10 + i);
        }
        EXPECT_EQ(trak_char_destroy(), 0);
        const zuwrite_guard guard(&trak_blkdev_rwlock);
        trak_table_destroy();
    });
}

TEST(device_list, unknown_type_is_einval_and_printed_in_hexadecimal) {
    with_control([](Nodes &nodes) {
        nodes.filter(3);
        const struct {
            std::uint32_t type;
            const char *text;
        } types[] = {{0, "0x00"}, {3, "0x03"}, {0xffffffff, "0xffffffff"}, {26, "0x1a"}};
        for (const auto &t : types) {
            Record record(1032, sent);
            record.u32(0, t.type);
            const sim::Bytes before = record.bytes;
            EXPECT_EQ(command(list_code, record), -EINVAL);
            EXPECT_EQ(record.bytes, before);
            EXPECT_LOGGED_ERROR(std::string("trak_get_device_list_node(): Invalid device type ") +
                                t.text + " passed as input.");
        }
    });
}

TEST(info, filter_is_described_at_the_stated_offsets) {
    with_control([](Nodes &nodes) {
        trak_debug = 2;
        trak_device *dev = nodes.filter(3);
        dev->started = 0x11223344;
        dev->use_cnt.store(0x22334455);
        trak_strncpy0(dev->uuid, "{0123}", sizeof dev->uuid);
        trak_strncpy0(dev->name, "first", sizeof dev->name);
        trak_filter *f = &dev->filter;
        trak_strncpy0(f->hdd_name, "/dev/sda1", sizeof f->hdd_name);
        f->dev_size = 0x0123456789abcdef;
        f->extent_size = 0x00010000;
        f->extent_cnt = 40;
        f->incr_bmp_size = 0x44556677;
        f->diff_bmp_size = 0x55667788;
        trak_strncpy0(f->incr_bmp_fname, "/bmp/trak3.incr", sizeof f->incr_bmp_fname);
        trak_strncpy0(f->diff_bmp_fname, "/bmp/trak3.diff", sizeof f->diff_bmp_fname);
        std::uint8_t incr[8] = {0, 0, 0, 0, 0, 0xff, 0xff, 0xff};
        std::uint8_t diff[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0, 0, 0};
        f->incr_bmp = incr;
        f->diff_bmp = diff;
        nodes.snap(9, dev);
        nodes.snap(4, dev);

        const Record record = info_of(3);
        EXPECT_LOGGED_INFO("trak_ioctl_get_info(): Getting info on trak(100, 3)");
        EXPECT_EQ(record.u32(0), 3u);
        EXPECT_EQ(record.u32(4), 1u);
        EXPECT_EQ(record.u64(8), 0x0123456789abcdefu);
        EXPECT_EQ(record.u32(16), 0x11223344u);
        EXPECT_EQ(record.u32(20), 0x22334455u);
        EXPECT_TRUE(holds(record, 24, 39, "{0123}"));
        EXPECT_TRUE(holds(record, 63, 128, "first"));
        EXPECT_TRUE(holds(record, 191, 1024, "/dev/sda1"));
        EXPECT_TRUE(as_sent(record, 1215, 1216));
        EXPECT_EQ(record.u32(1216), 0x00010000u);
        EXPECT_EQ(record.u32(1220), 40u);
        EXPECT_EQ(record.u32(1224), 9u);
        EXPECT_EQ(record.u32(1228), 4u);
        EXPECT_TRUE(as_sent(record, 1232, 2248));
        EXPECT_EQ(record.u32(2248), 2u);
        EXPECT_EQ(record.u32(2252), 0x44556677u);
        EXPECT_EQ(record.u32(2256), 0x55667788u);
        EXPECT_TRUE(holds(record, 2260, 1024, "/bmp/trak3.incr"));
        EXPECT_TRUE(holds(record, 3284, 1024, "/bmp/trak3.diff"));
        EXPECT_EQ(record.u32(4308), 1u);
        EXPECT_EQ(record.u32(4312), 0u);
        EXPECT_EQ(record.u32(4316), 0u);
        EXPECT_EQ(record.u32(4320), 1u);
        EXPECT_TRUE(as_sent(record, 4324, 6408));
    });
}

TEST(info, missing_bitmap_leaves_its_flags_as_they_were_sent) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        dev->filter.extent_cnt = 8;
        std::uint8_t bits[8] = {1};
        dev->filter.diff_bmp = bits;
        Record record = info_of(3);
        EXPECT_TRUE(as_sent(record, 4308, 4312));
        EXPECT_EQ(record.u32(4312), 0u);
        EXPECT_TRUE(as_sent(record, 4316, 4320));
        EXPECT_EQ(record.u32(4320), 0u);
        dev->filter.incr_bmp = bits;
        dev->filter.diff_bmp = nullptr;
        record = info_of(3);
        EXPECT_EQ(record.u32(4308), 0u);
        EXPECT_TRUE(as_sent(record, 4312, 4316));
        EXPECT_EQ(record.u32(4316), 0u);
        EXPECT_TRUE(as_sent(record, 4320, 4324));
    });
}

TEST(info, snap_is_described_at_the_stated_offsets) {
    with_control([](Nodes &nodes) {
        trak_device *filter = nodes.filter(3);
        filter->filter.dev_size = 0x1122334455667788;
        trak_device *dev = nodes.snap(4, filter);
        dev->started = 1;
        dev->use_cnt.store(2);
        trak_strncpy0(dev->uuid, "{4567}", sizeof dev->uuid);
        trak_strncpy0(dev->name, "second", sizeof dev->name);
        trak_snap *s = &dev->snap;
        s->snap_valid = 0x01020304;
        s->stop_pending = 0x02030405;
        s->del_pending = 0x03040506;
        s->chunk_size = 0x04050607;
        s->chunk_cnt = 0x99887766f5060708;
        s->cow_bmp_size = 0x06070809;
        s->cow_data_size = 0x0708090a0b0c0d0e;
        trak_strncpy0(s->cow_bmp_fname, "/cow/bmp", sizeof s->cow_bmp_fname);
        trak_strncpy0(s->cow_data_fname, "/cow/data", sizeof s->cow_data_fname);

        const Record record = info_of(4);
        EXPECT_EQ(record.u32(0), 4u);
        EXPECT_EQ(record.u32(4), 2u);
        EXPECT_EQ(record.u64(8), 0x1122334455667788u);
        EXPECT_EQ(record.u32(16), 1u);
        EXPECT_EQ(record.u32(20), 2u);
        EXPECT_TRUE(holds(record, 24, 39, "{4567}"));
        EXPECT_TRUE(holds(record, 63, 128, "second"));
        EXPECT_TRUE(as_sent(record, 191, 4324));
        EXPECT_EQ(record.u32(4324), 0x01020304u);
        EXPECT_EQ(record.u32(4328), 0x02030405u);
        EXPECT_EQ(record.u32(4332), 0x03040506u);
        EXPECT_EQ(record.u32(4336), 0x04050607u);
        EXPECT_EQ(record.u32(4340), 0xf5060708u);
        EXPECT_EQ(record.u32(4344), 0x06070809u);
        EXPECT_TRUE(as_sent(record, 4348, 4352));
        EXPECT_EQ(record.u64(4352), 0x0708090a0b0c0d0eu);
        EXPECT_TRUE(holds(record, 4360, 1024, "/cow/bmp"));
        EXPECT_TRUE(holds(record, 5384, 1024, "/cow/data"));
    });
}

TEST(info, snap_without_a_filter_parent_is_einval) {
    with_control([](Nodes &nodes) {
        trak_device *other = nodes.add(8, 2);
        trak_device *orphan = nodes.snap(4, nullptr);
        orphan->snap.part_minor = 44;  // the message names this copy of the minor
        trak_device *wrong = nodes.snap(5, nullptr);
        wrong->snap.filter = other;
        for (const std::uint32_t minor : {4u, 5u}) {
            Record record(6408, sent);
            record.u32(0, minor);
            EXPECT_EQ(command(info_code, record), -EINVAL);
        }
        EXPECT_LOGGED_ERROR("trak_ioctl_get_info(): Snap device trak(100, 44) is not attached to a "
                            "filter device.");
        EXPECT_LOGGED_ERROR("trak_ioctl_get_info(): Snap device trak(100, 5) is not attached to a "
                            "filter device.");
    });
}

TEST(info, node_of_another_type_has_the_common_fields_only) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.add(4, 3);
        trak_strncpy0(dev->name, "third", sizeof dev->name);
        const Record record = info_of(4);
        EXPECT_EQ(record.u32(4), 3u);
        EXPECT_TRUE(as_sent(record, 8, 16));
        EXPECT_EQ(record.u32(16), 0u);
        EXPECT_TRUE(holds(record, 63, 128, "third"));
        EXPECT_TRUE(as_sent(record, 191, 6408));
    });
}

TEST(info, texts_that_fill_their_field_are_cut_by_one) {
    with_control([](Nodes &nodes) {
        trak_device *dev = nodes.filter(3);
        std::memset(dev->uuid, 'u', sizeof dev->uuid);
        std::memset(dev->name, 'n', sizeof dev->name);
        std::memset(dev->filter.hdd_name, 'h', sizeof dev->filter.hdd_name);
        std::memset(dev->filter.incr_bmp_fname, 'i', sizeof dev->filter.incr_bmp_fname);
        std::memset(dev->filter.diff_bmp_fname, 'd', sizeof dev->filter.diff_bmp_fname);
        Record record = info_of(3);
        EXPECT_TRUE(holds(record, 24, 39, std::string(38, 'u')));
        EXPECT_TRUE(holds(record, 63, 128, std::string(127, 'n')));
        EXPECT_TRUE(holds(record, 191, 1024, std::string(1023, 'h')));
        EXPECT_TRUE(holds(record, 2260, 1024, std::string(1023, 'i')));
        EXPECT_TRUE(holds(record, 3284, 1024, std::string(1023, 'd')));
        trak_device *snap = nodes.snap(4, dev);
        std::memset(snap->snap.cow_bmp_fname, 'b', sizeof snap->snap.cow_bmp_fname);
        std::memset(snap->snap.cow_data_fname, 'c', sizeof snap->snap.cow_data_fname);
        record = info_of(4);
        EXPECT_TRUE(holds(record, 4360, 1024, std::string(1023, 'b')));
        EXPECT_TRUE(holds(record, 5384, 1024, std::string(1023, 'c')));
    });
}

TEST(info, filter_with_too_many_snaps_shows_as_many_as_fit) {
    sim_run::boot([] {
        trak_max_blk_minor = 400;
        trak_table_init();
        ASSERT_EQ(trak_table_create(), 0);
        ASSERT_EQ(trak_char_init(), 0);
        {
            Nodes nodes;
            trak_device *filter = nodes.filter(0);
            for (std::int32_t minor = 300; minor > 0; --minor)
                nodes.snap(minor, filter);
            const Record record = info_of(0);
            EXPECT_EQ(record.u32(2248), 256u);
            for (std::uint32_t i = 0; i < 256; ++i)
                EXPECT_EQ(record.u32(1224 + 4 * i), 300 - i);
        }
        EXPECT_EQ(trak_char_destroy(), 0);
        const zuwrite_guard guard(&trak_blkdev_rwlock);
        trak_table_destroy();
    });
}

}  // namespace
