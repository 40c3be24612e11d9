// tests/unit/readers/xfs_log_test.cpp: XFS with a log: what may wait in it, and what may not
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/readers/xfs_world.h"

namespace {

using namespace xfs_world;

constexpr std::uint32_t kLogBlock = 64, kLogSectors = 256;
constexpr char kRefused[] = "xfs_reader_init(): The log of hdd(8, 16) must be replayed first.";

Bytes op(unsigned flags, const Bytes &data) {
    Bytes bytes(12);
    put_be(bytes, 0, 0x1234, 4);
    put_be(bytes, 4, data.size(), 4);
    bytes[8] = 0x69;
    bytes[9] = static_cast<std::uint8_t>(flags);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

struct Ops {
    Bytes bytes;
    std::uint32_t count = 0;
    Ops &add(unsigned flags, const Bytes &data) {
        const Bytes more = op(flags, data);
        bytes.insert(bytes.end(), more.begin(), more.end());
        ++count;
        return *this;
    }
    Ops &begin() {
        Bytes header(16);
        put_le(header, 0, 0x5452414E, 4);
        return add(0x01, {}).add(0, header);
    }
    // An item: its format, and one region of data.
    Ops &item(unsigned type, std::uint64_t sector) {
        Bytes format(24);
        put_le(format, 0, type, 2);
        put_le(format, 2, 2, 2);
        put_le(format, 8, sector, 8);
        return add(0, format).add(0, Bytes(128, 0x5A));
    }
    Ops &commit() { return add(0x02, {}); }
};

Ops buffer(std::uint64_t sector) {
    return Ops().begin().item(0x123C, sector).commit();
}
Ops inode() {
    return Ops().begin().item(0x123B, 77).commit();
}
Ops unmount() {
    return Ops().add(0x20, Bytes(8, 0x6E));
}

// The ring as it stands on the disk; lsn() of the next record.
class Ring {
  public:
    explicit Ring(std::uint32_t begin = 0, std::uint32_t cycle = 1)
        : sectors_(kLogSectors, Bytes(512)), at_(begin), cycle_(cycle) {
        for (std::uint32_t i = 0; i < kLogSectors; ++i)
            put_be(sectors_[i], 0, i < begin ? cycle : cycle - 1, 4);
    }
    std::uint64_t lsn() const { return std::uint64_t{cycle_} << 32 | at_; }
    // Writes a record whose replay would begin at `tail`; where its header lies.
    std::uint32_t add(const Ops &ops, std::uint64_t tail) {
        Bytes header(512), data = ops.bytes;
        data.resize((data.size() + 511) / 512 * 512);
        put_be(header, 0, 0xFEEDBABE, 4);
        put_be(header, 4, cycle_, 4);
        put_be(header, 8, 2, 4);
        put_be(header, 12, data.size(), 4);
        put_be(header, 16, lsn(), 8);
        put_be(header, 24, tail, 8);
        put_be(header, 40, ops.count, 4);
        put_be(header, 300, 1, 4);
        put_be(header, 320, 32768, 4);
        const std::uint32_t where = at_;
        for (std::size_t s = 0; s < data.size() / 512; ++s)
            std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(s * 512), 4,
                        header.begin() + static_cast<std::ptrdiff_t>(44 + s * 4));
        put(header);
        for (std::size_t s = 0; s < data.size() / 512; ++s) {
            const auto from = data.begin() + static_cast<std::ptrdiff_t>(s * 512);
            Bytes sector(from, from + 512);
            put_be(sector, 0, cycle_, 4);
            put(sector);
        }
        return where;
    }
    Bytes &sector(std::uint32_t at) { return sectors_.at(at); }
    void write(XfsDisk &disk) const {
        for (std::uint32_t i = 0; i < kLogSectors; ++i)
            disk.disk.write(std::uint64_t{kLogBlock} * 512 + i * 512, sectors_[i]);
        patch_be(disk, 48, kLogBlock, 8);
        patch_be(disk, 96, kLogSectors, 4);
        patch_be(disk, 124, 12, 1);
    }

  private:
    void put(const Bytes &sector) {
        sectors_[at_] = sector;
        if (++at_ == kLogSectors) {
            at_ = 0;
            ++cycle_;
        }
    }
    std::vector<Bytes> sectors_;
    std::uint32_t at_, cycle_;
};

Xfs small() {
    Xfs fs(512, 4096, 4096 * 2);
    fs.free[0] = {{1000, 500}};
    return fs;
}

void expect_taken(const Ring &ring, const std::string &what) {
    SCOPED_TRACE(what);
    const Xfs fs = small();
    XfsDisk disk(fs);
    ring.write(disk);
    on_reader(disk, kXfs, [&](void *context) { expect_extents(context, fs); });
}

void expect_left(const Ring &ring, const std::string &what) {
    SCOPED_TRACE(what);
    XfsDisk disk(small());
    ring.write(disk);
    expect_refused(disk, kXfs, kRefused);
}

TEST(xfs_log, that_was_never_written_is_quiet) {
    expect_taken(Ring(0, 1), "zeroes");
}

// Wherever the head is: in the first cycle, in a later one, at the ring's ends, across them.
TEST(xfs_log, that_ends_with_an_unmount_is_quiet) {
    for (const std::uint32_t cycle : {1u, 2u, 900u})
        for (const std::uint32_t at : {0u, 1u, 2u, 100u, 200u, 252u, 253u, 254u, 255u}) {
            if (cycle == 1 && at != 0)
                continue;
            Ring ring(at, cycle);
            if (cycle > 1 && at < 250)
                ring.add(buffer(9), ring.lsn());
            ring.add(unmount(), ring.lsn());
            expect_taken(ring, std::to_string(cycle) + "/" + std::to_string(at));
        }
}

// As a freeze leaves it: everything is written home, then the superblock is logged again.
TEST(xfs_log, of_superblocks_and_inodes_alone_is_quiet) {
    for (const std::uint32_t at : {0u, 60u, 246u, 248u, 250u, 251u, 252u}) {
        Ring ring(at, 5);
        ring.add(buffer(9), ring.lsn());
        const std::uint64_t tail = ring.lsn();
        ring.add(buffer(0), tail);
        ring.add(inode(), tail);
        ring.add(buffer(0), tail);
        expect_taken(ring, std::to_string(at));
    }
}

TEST(xfs_log, with_a_buffer_to_write_home_is_refused) {
    for (const std::uint32_t at : {0u, 60u, 246u, 248u, 250u, 251u, 252u}) {
        Ring ring(at, 5);
        const std::uint64_t tail = ring.lsn();
        ring.add(buffer(9), tail);
        ring.add(buffer(0), tail);
        ring.add(buffer(0), tail);
        expect_left(ring, std::to_string(at));
    }
    Ring last;
    const std::uint64_t tail = last.lsn();
    last.add(buffer(0), tail);
    last.add(buffer(9), tail);
    expect_left(last, "in the last record");
}

TEST(xfs_log, with_what_is_not_known_is_refused) {
    const auto of = [](const Ops &ops) {
        Ring ring;
        ring.add(ops, ring.lsn());
        return ring;
    };
    expect_left(of(Ops().begin().item(0x1236, 0).commit()), "another item");
    expect_left(of(Ops().begin().add(0x04, Bytes(24)).commit()), "a piece of an item");
    expect_left(of(Ops().add(0, Bytes(24))), "the end of a transaction that began before");
    expect_left(of(Ops().begin().item(0x123C, 0)), "a transaction without its end");
    Ring many(0, 1);
    const std::uint64_t tail = many.lsn();
    for (int n = 0; n < 70; ++n)
        many.add(buffer(0), tail);
    expect_left(many, "many records");
}

TEST(xfs_log, that_is_damaged_is_refused) {
    const auto after = [](const std::function<void(Ring &)> &damage) {
        Ring ring(40, 3);
        const std::uint64_t tail = ring.lsn();
        ring.add(buffer(0), tail);
        const std::uint32_t where = ring.add(buffer(0), tail);
        EXPECT_EQ(where, 42u);
        damage(ring);
        return ring;
    };
    expect_taken(after([](Ring &) {}), "whole");
    for (const auto &change : {std::pair{0u, 1u},
                               {4u, 9u},
                               {8u, 3u},
                               {12u, 0u},
                               {12u, 0x7FFFFFFFu},
                               {12u, 1024u},
                               {16u, 9u},
                               {20u, 9u},
                               {24u, 9u},
                               {28u, 300u},
                               {28u, 41u},
                               {40u, 0xFFFFFFFFu},
                               {300u, 2u}})
        expect_left(
            after([&](Ring &ring) { put_be(ring.sector(42), change.first, change.second, 4); }),
            "header of the last record, " + std::to_string(change.first));
    expect_left(after([](Ring &ring) { put_be(ring.sector(41), 0, 2, 4); }), "a sector of before");
    expect_left(after([](Ring &ring) { put_be(ring.sector(255), 0, 7, 4); }), "no ring");
    expect_left(after([](Ring &ring) { ring.sector(40) = Bytes(512, 3); }),
                "no record at the tail");
}

TEST(xfs_log, that_is_elsewhere_or_cannot_be_read_is_refused) {
    for (const auto &[field, value] : {std::pair{48u, 0u}, {48u, 4096u * 3}, {96u, 0x7FFFFFFFu}}) {
        XfsDisk disk(small());
        Ring().write(disk);
        patch_be(disk, field, value, field == 48 ? 8 : 4);
        expect_refused(disk, kXfs, kRefused);
    }
    XfsDisk disk(small());
    Ring().write(disk);
    fail_bytes(disk, (kLogBlock + kLogSectors - 1) * 512, 512);
    expect_refused(disk, kXfs, kRefused);
}

}  // namespace
