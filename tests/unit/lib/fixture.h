// tests/unit/lib/fixture.h: a connection to a made-up driver with directories of its own
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "tests/unit/lib/fake_driver.h"

#include <gtest/gtest.h>

#include <cstring>

namespace fake {

// Markers, places and files are made up too: nothing touches the machine.
struct Connected : testing::Test {
    Durable durable;
    Driver driver{durable};
    trak *t = nullptr;
    char why[TRAK_WHY_SIZE] = "";

    void SetUp() override {
        trak_seam seam = driver.everything();
        ASSERT_EQ(0, trak_open_fn("/nowhere", &seam, &driver, &t));
    }
    void TearDown() override { trak_close(t); }

    static trak_add_filter_arg filter_arg(const char *disk = "/dev/image/a", int32_t minor = -1) {
        trak_add_filter_arg arg = {};
        strcpy(arg.hdd_name, disk);
        strcpy(arg.bmp_dir, "/b");
        arg.minor = minor;
        arg.extent_size = 65536;
        return arg;
    }
    int attach(trak_add_filter_arg arg) { return trak_attach_filter(t, &arg, why); }
    // A filter past the guard, with clean bitmaps.
    void raw_filter(uint32_t minor, const char *disk = "/dev/image/raw") {
        trak_add_filter_arg arg = filter_arg(disk, static_cast<int32_t>(minor));
        ASSERT_EQ(0, trak_add_filter_node(t, &arg));
        ASSERT_EQ(0, trak_clr_bmp(t, minor, TRAK_BMP_INCR));
        ASSERT_EQ(0, trak_clr_bmp(t, minor, TRAK_BMP_DIFF));
    }
    std::string marker(uint32_t minor) const {
        return "/b/trak" + std::to_string(minor) + ".session";
    }
    bool has_marker(uint32_t minor) const { return durable.markers.count(marker(minor)) != 0; }
    bool full(uint32_t minor, uint32_t type) const {
        const Node &node = driver.nodes.at(minor);
        return trak_bits_count(node.bits[type].data(), node.extents()) == node.extents();
    }
};

}  // namespace fake
