// tests/scenario/snap_cuts.cpp: the power goes while a filter with snapshots is written
// SPDX-License-Identifier: GPL-2.0-only
//
// Each snapshot is started while nobody writes and after the disk was flushed, so its image is known to
// the byte and durable. Then programs write at random, and at some point of that the power goes. After
// the next boot the snapshots that ran are resumed, newest first, and must show their images: a chunk
// whose bit survived has its old contents in the data file, and one whose bit did not is unchanged on
// the disk, whatever the disk lost or tore. A bit must never be there without its data.
#include <deque>

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
    bool ended = false;               // the power went only after all the work
};

struct Cut {
    std::uint64_t seed;
    std::uint32_t chunk_size;
    std::uint64_t sectors;
    unsigned snaps;
    unsigned writers;
    std::size_t in_flight;  // of each writer
    std::uint64_t longest;  // sectors of a write
    std::uint64_t points;   // scheduling points within which the power goes; 0: while bits are
                            // set that are not durable
    bool faults;
    unsigned writes = 200;    // of each writer, once every snap runs
    std::uint64_t flush = 0;  // the flush at which the power goes, in place of a random point
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
            1,
            40,
            15000,
            faults};
    if (below(2) == 0) {
        // Many small writes under way, the most of them durable at once: they come to chunks whose
        // bits are set and not yet safe.
        cut.chunk_size = 4096u << below(2);
        cut.sectors = 1024 + below(1024);
        cut.snaps = 1;
        cut.writers = 4;
        cut.in_flight = 200;
        cut.longest = 1;
        cut.points = 0;
    }
    return cut;
}

void flush_filter() {
    os_bdev *bdev = driver_world::open_node(0);
    EXPECT_EQ(sim::submit_device(bdev, OS_BIO_WRITE | OS_BIO_FLUSH, 0, {}), 0);
    sim::close_device(bdev);
}

sim::Request *write_somewhere(const Cut &cut, os_bdev *bdev) {
    const std::uint64_t n = 1 + sim::random(cut.longest);
    const std::uint64_t sector = sim::random(cut.sectors - n + 1);
    const bool at_once = sim::random(cut.longest == 1 ? 2 : 6) == 0;
    const std::uint32_t flags = at_once ? OS_BIO_FLUSH | OS_BIO_FUA : 0;
    Bytes data(n * kSector, static_cast<std::uint8_t>(sim::random(256)));
    return sim::start_request(bdev, OS_BIO_WRITE | flags, sector, std::move(data));
}

// Writes of random bytes, for as long as the power lasts or this many.
void write_at_random(const Cut &cut, unsigned count) {
    os_bdev *bdev = driver_world::open_node(0);
    std::deque<sim::Request *> under_way;
    for (unsigned i = 0; i < count; ++i) {
        if (under_way.size() == cut.in_flight) {
            sim::wait_request(under_way.front(), nullptr);
            under_way.pop_front();
        }
        under_way.push_back(write_somewhere(cut, bdev));
    }
    for (sim::Request *request : under_way)
        sim::wait_request(request, nullptr);
    sim::close_device(bdev);
}

// Cuts the power in the middle of the marking of some group.
void cut_while_marking() {
    const trak_atomic32 &marking = snap_world::snap(1).marking;
    for (std::uint64_t i = sim::random(4); i > 0; --i) {
        sim::wait_until([&marking] { return marking.load() != 0; });
        sim::wait_until([&marking] { return marking.load() == 0; });
    }
    for (;;) {
        sim::wait_until([&marking] { return marking.load() != 0; });
        for (std::uint64_t i = sim::random(40); i > 0 && marking.load() != 0; --i)
            sim::yield();
        if (marking.load() != 0)
            sim::power_cut();
    }
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
                if (cut.flush != 0)
                    sim::power_cut_at(sim::Fault::kFlush, cut.flush);
                else if (cut.points != 0)
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
                    if (cut.points == 0)
                        sim::spawn("cutter", cut_while_marking);
                    if (cut.faults && i + 1 == cut.snaps)
                        sim::fail_random(
                            sim::random(2) == 0 ? sim::Fault::kFlush : sim::Fault::kWrite, 20);
                    write_together(cut, i + 1 == cut.snaps ? cut.writes : 6);
                }
                story.ended = true;
                sim::power_cut();
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

struct Outcome {
    unsigned checked;  // images
    bool ended;
};

Outcome run_cut(const Cut &cut) {
    Machine machine(cut.sectors * kSector);
    snap_world::prepare(machine);
    snap_world::fill_disk(machine);
    Story story;
    until_the_cut(machine, cut, story);
    Outcome outcome{0, story.ended};
    if (!::testing::Test::HasFailure())
        after_the_cut(machine, cut, story, &outcome.checked);
    return outcome;
}

}  // namespace

TEST(snapshot, image_survives_power_cut) {
    unsigned checked = 0;
    sim::for_each_seed(
        200, [&](std::uint64_t seed) { checked += run_cut(cut_of(seed, false)).checked; });
    EXPECT_GT(checked, 0u);
    RecordProperty("images_checked", static_cast<int>(checked));
}

TEST(snapshot, image_survives_power_cut_or_was_given_up_where_syncs_fail) {
    unsigned checked = 0;
    sim::for_each_seed(100,
                       [&](std::uint64_t seed) { checked += run_cut(cut_of(seed, true)).checked; });
    EXPECT_GT(checked, 0u);
    RecordProperty("images_checked", static_cast<int>(checked));
}

// One workload a seed, run again and again: the power goes at its first flush, its second, and so on.
TEST(snapshot, image_survives_power_cut_at_every_flush) {
    unsigned checked = 0;
    std::uint64_t flushes = 0;
    sim::for_each_seed(4, [&](std::uint64_t seed) {
        Cut cut{seed,
                4096u << (seed % 3),
                96,
                1 + static_cast<unsigned>(seed % 2),
                1 + static_cast<unsigned>(seed % 3),
                2,
                24,
                1,
                false};
        cut.writes = 8;
        bool ended = false;
        for (cut.flush = 1; !ended && !::testing::Test::HasFailure(); ++cut.flush) {
            const Outcome outcome = run_cut(cut);
            checked += outcome.checked;
            ended = outcome.ended;
            ASSERT_LT(cut.flush, 2000u);
        }
        flushes += cut.flush - 2;  // the last run met none any more
        if (::testing::Test::HasFailure())
            std::printf("at flush %llu\n", static_cast<unsigned long long>(cut.flush - 1));
    });
    std::printf("flushes %llu, images %u\n", static_cast<unsigned long long>(flushes), checked);
    EXPECT_GT(checked, 0u);
}

// A snap that ran before is started anew over its old files, and the power goes in the middle of that.
// What a resume then takes must be the disk: an old bitmap beside a new data file would show zeroes.
TEST(snapshot, start_that_was_cut_off_leaves_no_old_bitmap_to_a_new_data_file) {
    unsigned resumed = 0;
    sim::for_each_seed(150, [&](std::uint64_t seed) {
        const Cut cut{seed, 4096, 64, 1, 2, 1, 64, 0, false};
        Machine machine(cut.sectors * kSector);
        snap_world::prepare(machine);
        snap_world::fill_disk(machine);
        sim::Options options;
        options.seed = seed;
        try {
            driver_world::boot_bare(
                machine,
                [&] {
                    load_filter();
                    ASSERT_EQ(snap_world::add_snap(1), 0);
                    ASSERT_EQ(driver_world::start(1), 0);
                    write_together(cut, 10);
                    flush_filter();
                    ASSERT_EQ(driver_world::stop(1), 0);
                    sim::power_cut_after(1 + sim::random(400));
                    (void)!driver_world::start(1);
                    sim::power_cut();
                },
                options);
        } catch (const sim::PowerCut &) {
        }
        if (::testing::Test::HasFailure())
            return;
        const Bytes disk = machine.disk.read(0, cut.sectors * kSector);
        // Unless nothing of the new start is left: then it is the old snap that goes on.
        const Bytes old = machine.storage.read_file(snap_world::data_path(1));
        const bool emptied = old == Bytes(old.size());
        driver_world::boot_bare(machine, [&] {
            load_filter();
            ASSERT_EQ(snap_world::add_snap(1), 0);
            if (snap_world::resume(1) == 0 && emptied) {
                ++resumed;
                EXPECT_EQ(snap_world::difference(snap_world::contents(1, 0, cut.sectors), disk),
                          "");
            }
            EXPECT_EQ(trak_cleanup(), 0);
        });
    });
    EXPECT_GT(resumed, 0u);
}
