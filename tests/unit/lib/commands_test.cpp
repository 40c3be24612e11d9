// tests/unit/lib/commands_test.cpp: each function sends its command's record and returns its result
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace {

// A control device that remembers one command and answers as told.
struct Probe {
    uint32_t code = 0;
    std::vector<uint8_t> record;
    int answer = 0;
    std::function<void(uint8_t *)> fill;
    trak *t = nullptr;

    Probe() {
        trak_seam seam = {};
        seam.ioctl = [](void *ctx, uint32_t code, void *record) {
            auto *self = static_cast<Probe *>(ctx);
            auto *bytes = static_cast<uint8_t *>(record);
            self->code = code;
            self->record.assign(bytes, bytes + TRAK_IOC_SIZE(code));
            if (self->fill)
                self->fill(bytes);
            return self->answer;
        };
        EXPECT_EQ(0, trak_open_fn("/nowhere", &seam, this, &t));
    }
    ~Probe() { trak_close(t); }
    uint32_t at(size_t offset) const {
        uint32_t value;
        memcpy(&value, record.data() + offset, 4);
        return value;
    }
    uint64_t at64(size_t offset) const {
        uint64_t value;
        memcpy(&value, record.data() + offset, 8);
        return value;
    }
};

TEST(commands, minor_commands_send_four_bytes) {
    struct {
        int (*call)(trak *, uint32_t);
        uint32_t code;
    } table[] = {{trak_del_node, 0x40044303u},
                 {trak_start_node, 0x40044304u},
                 {trak_stop_node, 0x40044305u}};
    for (const auto &row : table) {
        Probe probe;
        EXPECT_EQ(0, row.call(probe.t, 7));
        EXPECT_EQ(row.code, probe.code);
        ASSERT_EQ(4u, probe.record.size());
        EXPECT_EQ(7u, probe.at(0));
    }
}

TEST(commands, short_bitmap_commands_send_minor_and_type) {
    struct {
        int (*call)(trak *, uint32_t, uint32_t);
        uint32_t code;
    } table[] = {
        {trak_load_bmp, 0x40084308u}, {trak_save_bmp, 0x40084309u}, {trak_clr_bmp, 0x4008430au}};
    for (const auto &row : table) {
        Probe probe;
        EXPECT_EQ(0, row.call(probe.t, 9, TRAK_BMP_INCR));
        EXPECT_EQ(row.code, probe.code);
        ASSERT_EQ(8u, probe.record.size());
        EXPECT_EQ(9u, probe.at(0));
        EXPECT_EQ(1u, probe.at(4));
    }
}

TEST(commands, long_bitmap_commands_send_size_and_address) {
    uint8_t bits[5] = {};
    auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(bits));
    auto check = [&](Probe &probe, uint32_t code) {
        EXPECT_EQ(code, probe.code);
        ASSERT_EQ(24u, probe.record.size());
        EXPECT_EQ(3u, probe.at(0));
        EXPECT_EQ(0u, probe.at(4));
        EXPECT_EQ(5u, probe.at(8));
        EXPECT_EQ(0u, probe.at(12));
        EXPECT_EQ(address, probe.at64(16));
    };
    Probe probe;
    EXPECT_EQ(0, trak_set_bmp(probe.t, 3, TRAK_BMP_DIFF, bits, 5));
    check(probe, 0x4018430bu);
    EXPECT_EQ(0, trak_merge_bmp(probe.t, 3, TRAK_BMP_DIFF, bits, 5));
    check(probe, 0x4018430cu);
    EXPECT_EQ(0, trak_get_bmp(probe.t, 3, TRAK_BMP_DIFF, bits, 5));
    check(probe, 0xc018430du);
    EXPECT_EQ(0, trak_get_and_clr_bmp(probe.t, 3, TRAK_BMP_DIFF, bits, 5));
    check(probe, 0xc018430eu);
}

TEST(commands, set_without_bits_sends_nothing_to_copy) {
    Probe probe;
    EXPECT_EQ(0, trak_set_bmp(probe.t, 3, TRAK_BMP_INCR, nullptr, 0));
    EXPECT_EQ(0u, probe.at(8));
    EXPECT_EQ(0u, probe.at64(16));
}

TEST(commands, creations_and_list_pass_the_record_both_ways) {
    Probe probe;
    probe.fill = [](uint8_t *record) { record[0] = 'Z'; };
    trak_add_filter_arg filter = {};
    filter.minor = -1;
    EXPECT_EQ(0, trak_add_filter_node(probe.t, &filter));
    EXPECT_EQ(0xc8b04301u, probe.code);
    EXPECT_EQ(0xffffffffu, probe.at(1024));
    EXPECT_EQ('Z', filter.hdd_name[0]);
    trak_add_snap_arg snap = {};
    EXPECT_EQ(0, trak_add_snap_node(probe.t, &snap));
    EXPECT_EQ(0xc8b44302u, probe.code);
    EXPECT_EQ(uint32_t{'Z'}, snap.filter_minor);
    trak_device_list_arg list = {};
    list.dev_type = TRAK_DEV_SNAP;
    EXPECT_EQ(0, trak_get_device_list(probe.t, &list));
    EXPECT_EQ(0xc4084306u, probe.code);
    EXPECT_EQ(2u, probe.at(0));
}

TEST(commands, info_is_emptied_before_it_is_sent) {
    Probe probe;
    trak_info_arg info;
    memset(&info, 0xaa, sizeof(info));
    EXPECT_EQ(0, trak_get_info(probe.t, 5, &info));
    EXPECT_EQ(0xd9084307u, probe.code);
    EXPECT_EQ(5u, probe.at(0));
    for (size_t i = 4; i < probe.record.size(); i++)
        ASSERT_EQ(0, probe.record[i]) << i;
}

TEST(commands, deleting_an_unknown_node_is_einval_with_its_sign) {
    Probe probe;
    probe.answer = 22;
    EXPECT_EQ(-EINVAL, trak_del_node(probe.t, 1));
}

TEST(commands, errors_pass_unchanged) {
    Probe probe;
    probe.answer = -EOPNOTSUPP;
    trak_resume_arg resume = {1, 1, 0, 0};
    EXPECT_EQ(-EOPNOTSUPP, trak_resume_snap(probe.t, &resume));
    EXPECT_EQ(0x40104311u, probe.code);
    EXPECT_EQ(1u, probe.at(4));
    EXPECT_EQ(-EOPNOTSUPP, trak_test_datablock(probe.t, "/dev/x"));
    EXPECT_EQ(0x44004310u, probe.code);
}

TEST(commands, datablock_returns_the_size_written_only_on_success) {
    Probe probe;
    probe.fill = [](uint8_t *record) { record[8] = 3; };
    int32_t size = 10;
    uint8_t bits[10];
    EXPECT_EQ(0, trak_get_datablock_bmp(probe.t, 4, 65536, bits, &size));
    EXPECT_EQ(0xc018430fu, probe.code);
    EXPECT_EQ(65536u, probe.at(4));
    EXPECT_EQ(10u, probe.at(8));
    EXPECT_EQ(3, size);
    probe.answer = -EINVAL;
    size = 10;
    EXPECT_EQ(-EINVAL, trak_get_datablock_bmp(probe.t, 4, 65536, bits, &size));
    EXPECT_EQ(10, size);
}

TEST(commands, test_datablock_refuses_a_path_without_room_for_its_terminator) {
    Probe probe;
    EXPECT_EQ(-ENAMETOOLONG, trak_test_datablock(probe.t, std::string(1024, 'x').c_str()));
    EXPECT_EQ(0u, probe.code);
    EXPECT_EQ(0, trak_test_datablock(probe.t, std::string(1023, 'x').c_str()));
    EXPECT_EQ(0, probe.record[1023]);
}

}  // namespace
