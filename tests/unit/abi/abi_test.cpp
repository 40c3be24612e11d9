// tests/unit/abi/abi_test.cpp: command codes and record layouts against values written down by hand
// SPDX-License-Identifier: GPL-2.0-only
#include "abi/trak_ioctl.h"

#include "abi_from_c.h"

#include <gtest/gtest.h>
#include <linux/ioctl.h>

#include <cstring>
#include <set>
#include <vector>

namespace {

struct Row {
    const char *record, *field;
    size_t offset, width;
};

const std::vector<Row> by_hand = {
#define RECORD(r, size) {#r, "", 0, size},
#define FIELD(r, f, off, width) {#r, #f, off, width},
#include "layout.h"
#undef RECORD
#undef FIELD
};

const std::vector<Row> compiled_as_cpp = {
#define RECORD(r, size) {#r, "", 0, sizeof(trak_##r##_arg)},
#define FIELD(r, f, off, width) {#r, #f, offsetof(trak_##r##_arg, f), sizeof(trak_##r##_arg::f)},
#include "layout.h"
#undef RECORD
#undef FIELD
};

void expect_row(const Row &want, const char *record, const char *field, size_t offset,
                size_t width) {
    SCOPED_TRACE(std::string(want.record) + "." + want.field);
    EXPECT_STREQ(want.record, record);
    EXPECT_STREQ(want.field, field);
    EXPECT_EQ(want.offset, offset);
    EXPECT_EQ(want.width, width);
}

TEST(abi, records_have_the_offsets_written_by_hand_in_cpp) {
    ASSERT_EQ(by_hand.size(), compiled_as_cpp.size());
    for (size_t i = 0; i < by_hand.size(); i++) {
        const Row &got = compiled_as_cpp[i];
        expect_row(by_hand[i], got.record, got.field, got.offset, got.width);
    }
}

TEST(abi, records_have_the_offsets_written_by_hand_in_c) {
    ASSERT_EQ(by_hand.size(), abi_c_row_count);
    for (size_t i = 0; i < by_hand.size(); i++) {
        const abi_row &got = abi_c_rows[i];
        expect_row(by_hand[i], got.record, got.field, got.offset, got.width);
    }
}

TEST(abi, records_have_the_same_layout_without_compiler_alignment) {
    // Every integer lies on a multiple of its width: hosts that align 64-bit integers to 4 agree.
    for (const Row &row : by_hand) {
        if (*row.field != '\0' && (row.width == 4 || row.width == 8)) {
            EXPECT_EQ(0u, row.offset % row.width) << row.record << "." << row.field;
        }
    }
}

struct Code {
    const char *name;
    uint32_t nr, code, compiled;
    size_t size;
    int back;
};

const std::vector<Code> codes = {
#define CODE(name, nr, code, size, back) {#name, nr, code, name, size, back},
#include "codes.h"
#undef CODE
};

TEST(abi, there_are_seventeen_commands_numbered_without_gap) {
    ASSERT_EQ(17u, codes.size());
    for (size_t i = 0; i < codes.size(); i++)
        EXPECT_EQ(i + 1, codes[i].nr);
}

TEST(abi, codes_are_those_written_by_hand_in_cpp_and_in_c) {
    ASSERT_EQ(codes.size(), abi_c_code_count);
    for (size_t i = 0; i < codes.size(); i++) {
        EXPECT_EQ(codes[i].code, codes[i].compiled) << codes[i].name;
        EXPECT_STREQ(codes[i].name, abi_c_codes[i].name);
        EXPECT_EQ(codes[i].code, abi_c_codes[i].code) << codes[i].name;
    }
}

TEST(abi, codes_decode_as_the_platform_decodes_them) {
    for (const Code &c : codes) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(static_cast<uint32_t>('C'), _IOC_TYPE(c.compiled));
        EXPECT_EQ(c.nr, _IOC_NR(c.compiled));
        EXPECT_EQ(c.size, _IOC_SIZE(c.compiled));
        EXPECT_EQ(c.back ? _IOC_READ | _IOC_WRITE : _IOC_WRITE, _IOC_DIR(c.compiled));
        EXPECT_EQ(_IOC_NR(c.compiled), TRAK_IOC_NR(c.compiled));
        EXPECT_EQ(_IOC_TYPE(c.compiled), TRAK_IOC_GET_TYPE(c.compiled));
        EXPECT_EQ(_IOC_SIZE(c.compiled), TRAK_IOC_SIZE(c.compiled));
        EXPECT_EQ(_IOC_DIR(c.compiled), TRAK_IOC_DIR(c.compiled));
    }
}

TEST(abi, type_codes_are_fixed) {
    EXPECT_EQ(1u, TRAK_DEV_FILTER);
    EXPECT_EQ(2u, TRAK_DEV_SNAP);
    EXPECT_EQ(0u, TRAK_BMP_DIFF);
    EXPECT_EQ(1u, TRAK_BMP_INCR);
}

}  // namespace
