// tests/scenario/snap_cuts.cpp: the power goes while a filter with snapshots is written
// SPDX-License-Identifier: GPL-2.0-only
//
// Each snapshot is started while nobody writes and after the disk was flushed, so its image is known to
// the byte and durable. Then programs write at random, and at some point of that the power goes. After
// the next boot the snapshots that ran are resumed, newest first, and must show their images: a chunk
// whose bit survived has its old contents in the data file, and one whose bit did not is unchanged on
// the disk, whatever the disk lost or tore. A bit must never be there without its data.
#include "os/sim/seeds.h"
#include "tests/scenario/snap_run.h"

using namespace snap_run;

namespace {

struct Taken {
    std::uint32_t minor;
    Bytes image;
};

// What the test remembers across the cut.
struct Story {
    std::vector<std::uint32_t> made;  // snap nodes in the order of their creation
    std::vector<Taken> taken;         // snapshots in the order of their starts
};

struct Cut {
    std::uint64_t seed;
    std::uint32_t chunk_size;
    std::uint64_t sectors;
    unsigned snaps;
    unsigned writers;
    std::uint64_t longest;  // sectors of a write
    std::uint64_t points;   // scheduling points within which the power goes
    bool faults;
};

Cut cut_of(std::uint64_t seed, bool faults) {
    std::uint64_t x = seed * 0x9e3779b97f4a7c15u + 7;
    const auto below = [&x](std::uint64_t n) {
        x = x * 6364136223846793005u + 1442695040888963407u;
        return (x >> 33) % n;
    };
    Cut cut{seed,
            4096u << below(4),
            64 + below(400),
            1 + static_cast<unsigned>(below(3)),
            1 + static_cast<unsigned>(below(4)),
            40,
            15000,
            faults};
    if (below(2) == 0) {
        // Few chunks and many small writes: they meet in one chunk while it is being preserved.
        cut.chunk_size = 65536u << below(3);
        cut.sectors = (cut.chunk_size >> 9) * (1 + below(2)) - below(100);
        cut.snaps = 1;
        cut.writers = 4;
        cut.longest = 1;
        cut.points = 2500;
    }
    return cut;
}

void flush_filter() {
    os_bdev *bdev = driver_world::open_node(0);
    EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), 0);
    sim::close_device(bdev);
}

// Writes of random bytes, for as long as the power lasts or this many.
void write_at_random(const Cut &cut, unsigned count) {
    os_bdev *bdev = driver_world::open_node(0);
    for (unsigned i = 0; i < count; ++i) {
        const std::uint64_t n = 1 + sim::random(cut.longest);
        const std::uint64_t sector = sim::random(cut.sectors - n + 1);
        const std::uint32_t flags = sim::random(6) == 0 ? OS_BIO_FLUSH | OS_BIO_FUA : 0;
        Bytes data(n * kSector, static_cast<std::uint8_t>(sim::random(256)));
        sim::submit_device(bdev, OS_BIO_WRITE | flags, sector, data);
    }
    sim::close_device(bdev);
}

void write_together(const Cut &cut, unsigned count) {
    std::vector<sim::Process *> writers;
    for (unsigned i = 0; i < cut.writers; ++i)
        writers.push_back(sim::spawn("writer", [&cut, count] { write_at_random(cut, count); }));
    for (sim::Process *writer : writers)
        sim::join(writer);
}

void load_filter() {
    ASSERT_EQ(trak_init(), 0);
    ASSERT_EQ(driver_world::add_filter(0), 0);
    ASSERT_EQ(driver_world::start(0), 0);
}

// The boot that ends in the cut.
void until_the_cut(Machine &machine, const Cut &cut, Story &story) {
    sim::Options options;
    options.seed = cut.seed;
    try {
        driver_world::boot_bare(
            machine,
            [&] {
                load_filter();
                if (cut.snaps > 1)
                    sim::power_cut_after(100 + sim::random(cut.points));
                for (unsigned i = 0; i < cut.snaps; ++i) {
                    const std::uint32_t minor = i + 1;
                    const auto number = static_cast<int>(minor);
                    ASSERT_EQ(snap_world::add_snap(number, cut.chunk_size), 0);
                    story.made.push_back(minor);
                    flush_filter();
                    Bytes image = machine.disk.read(0, cut.sectors * kSector);
                    if (driver_world::start(minor) == 0)
                        story.taken.push_back({minor, std::move(image)});
                    if (cut.snaps == 1)
                        sim::power_cut_after(1 + sim::random(cut.points));
                    if (cut.faults && i + 1 == cut.snaps)
                        sim::fail_random(
                            sim::random(2) == 0 ? sim::Fault::kFlush : sim::Fault::kWrite, 20);
                    write_together(cut, i + 1 == cut.snaps ? 1000 : 6);
                }
            },
            options);
    } catch (const sim::PowerCut &) {
    }
}

// The data file is there as long as the snap was not given up.
bool is_cut_short(Machine &machine, std::uint32_t minor, std::size_t size) {
    const std::string path = snap_world::data_path(static_cast<int>(minor));
    return !machine.storage.exists(path) || machine.storage.read_file(path).size() < size;
}

void check_image(const Taken &taken, std::uint64_t sectors) {
    const Bytes shown = snap_world::contents(taken.minor, 0, sectors);
    ASSERT_EQ(shown.size(), taken.image.size());
    for (std::uint64_t s = 0; s < sectors; ++s) {
        if (std::memcmp(&shown[s * kSector], &taken.image[s * kSector], kSector) != 0) {
            ADD_FAILURE() << "snap " << taken.minor << " differs at sector " << s;
            return;
        }
    }
}

// The next boot: resumes newest first. A snapshot that was given up can't be resumed, nor can the older
// ones then be trusted, which the driver gave up with it.
void after_the_cut(Machine &machine, const Cut &cut, const Story &story, unsigned *checked) {
    driver_world::boot_bare(machine, [&] {
        load_filter();
        for (const std::uint32_t minor : story.made)
            ASSERT_EQ(snap_world::add_snap(static_cast<int>(minor), cut.chunk_size), 0);
        std::vector<const Taken *> running;
        bool newer_lost = false;
        for (std::size_t i = story.taken.size(); i-- > 0;) {
            const Taken &taken = story.taken[i];
            const int rc = snap_world::resume(taken.minor);
            if (rc == 0 && !newer_lost)
                running.push_back(&taken);
            if (rc != 0) {
                EXPECT_EQ(rc, -EIO);
                EXPECT_TRUE(cut.faults) << "resume of snap " << taken.minor;
                EXPECT_TRUE(is_cut_short(machine, taken.minor, cut.sectors * kSector));
                newer_lost = true;
            }
        }
        for (const Taken *taken : running)
            check_image(*taken, cut.sectors);
        write_together(cut, 4);
        for (const Taken *taken : running)
            check_image(*taken, cut.sectors);
        *checked += static_cast<unsigned>(running.size());
        EXPECT_EQ(trak_cleanup(), 0);
    });
}

unsigned run_cut(const Cut &cut) {
    Machine machine(cut.sectors * kSector);
    snap_world::prepare(machine);
    snap_world::fill_disk(machine);
    Story story;
    until_the_cut(machine, cut, story);
    unsigned checked = 0;
    if (!::testing::Test::HasFailure())
        after_the_cut(machine, cut, story, &checked);
    return checked;
}

}  // namespace

TEST(snapshot, image_survives_power_cut) {
    unsigned checked = 0;
    sim::for_each_seed(150, [&](std::uint64_t seed) { checked += run_cut(cut_of(seed, false)); });
    EXPECT_GT(checked, 0u);
    RecordProperty("images_checked", static_cast<int>(checked));
}

TEST(snapshot, image_survives_power_cut_or_was_given_up_where_syncs_fail) {
    unsigned checked = 0;
    sim::for_each_seed(100, [&](std::uint64_t seed) { checked += run_cut(cut_of(seed, true)); });
    EXPECT_GT(checked, 0u);
    RecordProperty("images_checked", static_cast<int>(checked));
}
