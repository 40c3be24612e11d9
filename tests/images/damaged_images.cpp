// tests/images/damaged_images.cpp: real file systems with fields changed here and there
// SPDX-License-Identifier: GPL-2.0-only
//
// Property   Whatever was changed: the map is not valid, or no block that the file system's own tool
//            still reports as in use is called free. Where the change itself made a block free (its bit,
//            its extent), the tool sees that too; where the tool refuses the image, nothing is said
//            beyond that the build ends.
//
// TRAK_SEEDS=N changes in so many ways, TRAK_SEED=N in the one way N alone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>

#include "tests/images/image_check.h"
#include "tests/images/references.h"

namespace {

using namespace images;

constexpr std::uint64_t kMiB = 1u << 20;
constexpr std::uint32_t kChunk = 4096;
constexpr std::uint64_t kSeeds = 120;

using Bytes = std::vector<std::uint8_t>;

// A number on the image.
struct Field {
    std::uint64_t at;
    unsigned width;  // bytes
};

struct Layout {
    std::string image;
    bool big_endian = false;
    std::vector<Field> fields;
    // Bytes of a bitmap of blocks: a bit may be cleared and another set, so that counts stay.
    std::vector<Field> bitmaps;
    // Records of free extents (start, count): one may be shifted, so that counts stay.
    std::vector<std::uint64_t> extents;
};

// What is changed is taken back at the end.
class Damage {
  public:
    Damage(const Layout &layout, std::uint64_t seed) : layout_(layout), random_(seed) {
        const unsigned changes = 1 + random_() % 3;
        for (unsigned n = 0; n < changes; ++n) {
            const unsigned way = random_() % 8;
            if (way == 0 && !layout.bitmaps.empty())
                move_bit(layout.bitmaps[random_() % layout.bitmaps.size()]);
            else if (way < 3 && !layout.extents.empty())
                shift_extent(layout.extents[random_() % layout.extents.size()]);
            else
                change(layout.fields[random_() % layout.fields.size()]);
        }
    }
    ~Damage() {
        for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo)
            copy_over(layout_.image, undo->first, undo->second);
    }
    Damage(const Damage &) = delete;
    Damage &operator=(const Damage &) = delete;
    const std::string &text() const { return text_; }

  private:
    std::uint64_t get(const Field &field) const {
        std::uint64_t value = 0;
        const Bytes bytes = bytes_of(layout_.image, field.at, field.width);
        for (unsigned i = 0; i < field.width; ++i)
            value = value << 8 | bytes[layout_.big_endian ? i : field.width - 1 - i];
        return value;
    }
    void put(const Field &field, std::uint64_t value) {
        Bytes bytes(field.width);
        for (unsigned i = 0; i < field.width; ++i)
            bytes[layout_.big_endian ? field.width - 1 - i : i] =
                static_cast<std::uint8_t>(value >> (8 * i));
        undo_.emplace_back(field.at, bytes_of(layout_.image, field.at, field.width));
        text_ += std::to_string(field.width) + " bytes at " + std::to_string(field.at) + ": " +
                 std::to_string(get(field)) + " -> " + std::to_string(value) + "\n";
        copy_over(layout_.image, field.at, bytes);
    }
    std::uint64_t other_value(std::uint64_t is) {
        switch (random_() % 9) {
        case 0:
            return 0;
        case 1:
            return 1;
        case 2:
            return ~std::uint64_t{0};
        case 3:
            return is + 1;
        case 4:
            return is - 1;
        case 5:
            return is ^ std::uint64_t{1} << random_() % 64;
        case 6:
            return is * 2;
        case 7:
            return get(layout_.fields[random_() % layout_.fields.size()]);
        default:
            return random_();
        }
    }
    void change(const Field &field) { put(field, other_value(get(field))); }
    void move_bit(const Field &bitmap) {
        const Bytes bytes = bytes_of(layout_.image, bitmap.at, bitmap.width);
        const std::uint64_t bits = std::uint64_t{bitmap.width} * 8, from = random_() % bits;
        std::uint64_t set = from, clear = from;
        const auto is_set = [&](std::uint64_t bit) { return bytes[bit / 8] >> (bit % 8) & 1; };
        for (std::uint64_t n = 0; n < bits && !is_set(set); ++n)
            set = (set + 1) % bits;
        for (std::uint64_t n = 0; n < bits && is_set(clear); ++n)
            clear = (clear + 1) % bits;
        for (const std::uint64_t bit : {set, clear})
            put({bitmap.at + bit / 8, 1}, get({bitmap.at + bit / 8, 1}) ^ 1u << (bit % 8));
    }
    void shift_extent(std::uint64_t at) { put({at, 4}, get({at, 4}) + 1 - 2 * (random_() % 2)); }

    const Layout &layout_;
    std::mt19937_64 random_;
    std::vector<std::pair<std::uint64_t, Bytes>> undo_;
    std::string text_;
};

std::uint64_t setting(const char *name, std::uint64_t otherwise) {
    const char *text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 0) : otherwise;
}

void expect_nothing_free_wrongly(const Map &map, const Reference &reference) {
    const std::uint64_t size = reference.block_size;
    for (std::uint64_t b = 0; b < reference.used.size(); ++b) {
        if (!reference.used[b])
            continue;
        for (std::uint64_t c = b * size / kChunk; c <= ((b + 1) * size - 1) / kChunk; ++c)
            ASSERT_TRUE(c >= map.used.size() || map.used[c])
                << "block " << b << " of " << size << " bytes is in use";
    }
}

using Ask = std::function<std::optional<Reference>(const std::string &)>;

void try_damages(const Layout &layout, const Ask &ask) {
    ASSERT_TRUE(map_of(layout.image, kChunk).valid) << "of the image as it was made";
    const std::uint64_t only = setting("TRAK_SEED", 0);
    const std::uint64_t last = only != 0 ? only : setting("TRAK_SEEDS", kSeeds);
    std::uint64_t valid = 0, compared = 0;
    for (std::uint64_t seed = only != 0 ? only : 1; seed <= last; ++seed) {
        const Damage damage(layout, seed);
        SCOPED_TRACE("TRAK_SEED=" + std::to_string(seed) + "\n" + damage.text());
        const Map map = map_of(layout.image, kChunk);
        valid += map.valid;
        const std::optional<Reference> reference = map.valid ? ask(layout.image) : std::nullopt;
        compared += reference.has_value();
        if (reference)
            expect_nothing_free_wrongly(map, *reference);
        if (::testing::Test::HasFailure())
            return;
    }
    std::printf("%lu damages: %lu with a valid map, %lu of them compared\n", last, valid, compared);
    if (only == 0 && last >= kSeeds) {
        EXPECT_GE(compared, last / 20) << "hardly anything was compared";
        EXPECT_LT(valid, last) << "no damage was found";
    }
}

class DamagedImages : public ::testing::Test {
  protected:
    std::string make(std::uint64_t bytes, const std::string &command) {
        const std::string image = folder_ / "damaged.img";
        make_image(image, bytes);
        run(command + " " + image);
        return image;
    }
    Folder folder_;
};

void add(Layout &layout, std::uint64_t base, std::initializer_list<Field> fields) {
    for (const Field &field : fields)
        layout.fields.push_back({base + field.at, field.width});
}

TEST_F(DamagedImages, of_ext3_call_nothing_free_that_dumpe2fs_calls_used) {
    if (!have("mke2fs") || !have("dumpe2fs"))
        GTEST_SKIP() << "e2fsprogs is not installed";
    Layout layout;
    layout.image = make(20 * kMiB, "mke2fs -q -F -t ext3 -b 1024 -J size=1 -d /usr/include/linux");
    for (int often = 0; often < 3; ++often)
        add(layout, 1024,
            {{0, 4},
             {4, 4},
             {12, 4},
             {20, 4},
             {24, 4},
             {28, 4},
             {32, 4},
             {36, 4},
             {40, 4},
             {56, 2},
             {58, 2},
             {76, 4},
             {88, 2},
             {92, 4},
             {96, 4},
             {100, 4}});
    // The descriptors' flags are left out: ext3 has none, and yet dumpe2fs adds the inode table of a
    // group that is flagged to what the bitmaps say.
    for (std::uint64_t group = 0; group < 3; ++group) {
        const std::uint64_t desc = 2048 + group * 32;
        add(layout, desc, {{0, 4}, {0, 4}, {4, 4}, {8, 4}, {12, 2}, {12, 2}, {14, 2}});
        const Bytes where = bytes_of(layout.image, desc, 4);
        const std::uint64_t block = where[0] | where[1] << 8;
        layout.bitmaps.push_back({block * 1024, 1024});
        for (std::uint64_t at = 0; at < 1024; at += 128)
            layout.fields.push_back({block * 1024 + at, 4});
    }
    try_damages(layout, ask_dumpe2fs);
}

TEST_F(DamagedImages, of_reiserfs_call_nothing_free_that_debugreiserfs_calls_used) {
    if (!have("mkreiserfs") || !have("debugreiserfs"))
        GTEST_SKIP() << "reiserfsprogs is not installed";
    Layout layout;
    layout.image = make(160 * kMiB, "mkreiserfs -q -f -f");
    add(layout, 65536,
        {{0, 4},
         {4, 4},
         {8, 4},
         {12, 4},
         {16, 4},
         {20, 4},
         {24, 4},
         {28, 4},
         {44, 2},
         {46, 2},
         {50, 2},
         {52, 4},
         {58, 4},
         {64, 4},
         {68, 2},
         {70, 2},
         {72, 2},
         {74, 2},
         {76, 4}});
    for (const std::uint64_t block : {std::uint64_t{17}, std::uint64_t{32768}}) {
        layout.bitmaps.push_back({block * 4096, 4096});
        layout.bitmaps.push_back({block * 4096, 256});
        layout.fields.push_back({block * 4096, 4});
        layout.fields.push_back({block * 4096 + 64, 4});
    }
    const std::uint64_t journal = 18, blocks = 8192;  // its header comes after them
    add(layout, (journal + blocks) * 4096, {{0, 4}, {4, 4}, {8, 4}});
    try_damages(layout, ask_debugreiserfs);
}

TEST_F(DamagedImages, of_xfs_call_nothing_free_that_xfs_db_calls_used) {
    if (!have("mkfs.xfs") || !have("xfs_db"))
        GTEST_SKIP() << "xfsprogs is not installed";
    Layout layout;
    layout.big_endian = true;
    layout.image = make(64 * kMiB, "mkfs.xfs --unsupported -q -f -m crc=0,finobt=0 -b size=1024 "
                                   "-d agcount=4 -l size=4m");
    add(layout, 0, {{0, 4}, {4, 4}, {8, 8}, {84, 4}, {88, 4}, {96, 4}, {100, 2}, {102, 2}});
    for (std::uint64_t ag = 0; ag < 4; ++ag) {
        const std::uint64_t start = ag * 16 * kMiB;
        add(layout, start, {{0, 4}, {4, 4}});
        add(layout, start + 512,
            {{0, 4},
             {8, 4},
             {12, 4},
             {16, 4},
             {16, 4},
             {20, 4},
             {28, 4},
             {32, 4},
             {52, 4},
             {52, 4}});
        const Bytes root = bytes_of(layout.image, start + 512 + 16, 4);
        const std::uint64_t leaf = start + (root[2] << 8 | root[3]) * std::uint64_t{1024};
        const Bytes records = bytes_of(layout.image, leaf + 6, 2);
        add(layout, leaf, {{0, 4}, {4, 2}, {6, 2}, {8, 4}, {12, 4}});
        for (std::uint64_t n = 0; n < records[1]; ++n) {
            layout.extents.push_back(leaf + 16 + n * 8);
            add(layout, leaf + 16 + n * 8, {{0, 4}, {4, 4}});
        }
    }
    try_damages(layout, ask_xfs_db);
}

}  // namespace
