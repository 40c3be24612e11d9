// tests/unit/module/log_test.cpp: the system's messages
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/module/log.h"
#include "driver/module/params.h"
#include "driver/utils/trak_utils.h"
#include "os/log.h"
#include "os/task.h"
#include "tests/support/sim_run.h"

namespace {

constexpr std::int32_t all_levels[] = {1, 2, 3, 4};

TEST(log, parameters_have_their_defaults) {
    sim_run::boot([] {
        EXPECT_EQ(trak_chr_major, 100);
        EXPECT_EQ(trak_debug, 1);
        EXPECT_EQ(trak_blk_major, 100);
        EXPECT_EQ(trak_max_blk_minor, 255);
    });
}

TEST(log, debug_message_has_the_process_in_at_least_four_digits) {
    sim_run::boot([] {
        trak_log(1, "%s(): text %d", "test", 5);
        char line[64];
        std::snprintf(line, sizeof line, "<6>%04d: test(): text 5", os_current_pid());
        EXPECT_TRUE(sim_run::logged(line)) << sim_run::log_text();
    });
}

TEST(log, error_has_the_word_error_and_no_process) {
    sim_run::boot([] {
        trak_log(TRAK_LOG_ERROR, "%s(): text %s", "test", "five");
        EXPECT_TRUE(sim_run::logged("<3>ERROR: test(): text five")) << sim_run::log_text();
    });
}

TEST(log, function_name_is_the_callers) {
    sim_run::boot([] {
        struct Caller {
            static void some_function() { trak_logf(TRAK_LOG_ERROR, "%s(): n=%d", 1); }
            static void another_function() { trak_logf(TRAK_LOG_ERROR, "%s(): plain"); }
        };
        Caller::some_function();
        Caller::another_function();
        EXPECT_LOGGED_ERROR("some_function(): n=1");
        EXPECT_LOGGED_ERROR("another_function(): plain");
    });
}

TEST(log, debug_message_is_printed_while_the_level_reaches_it) {
    sim_run::boot([] {
        for (const std::int32_t debug : {INT32_MIN, -1, 0, 1, 2, 3, 4, 5, INT32_MAX}) {
            trak_debug = debug;
            for (const std::int32_t level : all_levels) {
                sim::clear_log();
                EXPECT_EQ(trak_log(level, "%s(): text", "test"), 0);
                EXPECT_EQ(sim::log().size(), debug >= level ? 1u : 0u) << debug << " " << level;
            }
        }
    });
}

TEST(log, other_levels_are_always_printed) {
    sim_run::boot([] {
        trak_debug = INT32_MIN;
        for (const std::int32_t level : {0, 5, 254, 256, -1, INT32_MAX, INT32_MIN}) {
            sim::clear_log();
            trak_log(level, "%s(): text", "test");
            EXPECT_LOGGED_INFO("test(): text");
        }
        sim::clear_log();
        trak_log(255, "%s(): text", "test");
        EXPECT_LOGGED_ERROR("test(): text");
    });
}

TEST(log, newline_is_added_once) {
    sim_run::boot([] {
        trak_log(TRAK_LOG_ERROR, "%s", "x");
        trak_log(TRAK_LOG_ERROR, "%s", "y\n");
        trak_log(1, "%s", "x");
        trak_log(1, "%s", "y\n");
        // A line of the log has lost its own newline; a second one would still stand in it.
        ASSERT_EQ(sim::log().size(), 4u);
        EXPECT_EQ(sim::log()[0], "<3>ERROR: x");
        EXPECT_EQ(sim::log()[1], "<3>ERROR: y");
        EXPECT_EQ(sim::log()[2].substr(sim::log()[2].size() - 3), ": x");
        EXPECT_EQ(sim::log()[3].substr(sim::log()[3].size() - 3), ": y");
    });
}

TEST(log, empty_text_is_a_line_of_its_own) {
    sim_run::boot([] {
        trak_log(TRAK_LOG_ERROR, "%s", "");
        trak_log(TRAK_LOG_ERROR, "%s", "\n");
        ASSERT_EQ(sim::log().size(), 2u);
        EXPECT_EQ(sim::log()[0], "<3>ERROR: ");
        EXPECT_EQ(sim::log()[1], "<3>ERROR: ");
    });
}

TEST(log, text_is_cut_at_2047_characters) {
    sim_run::boot([] {
        for (const std::size_t length : {2046u, 2047u, 2048u, 5000u}) {
            sim::clear_log();
            trak_log(TRAK_LOG_ERROR, "%s", std::string(length, 'x').c_str());
            ASSERT_EQ(sim::log().size(), 1u);
            EXPECT_EQ(sim::log()[0],
                      "<3>ERROR: " + std::string(std::min<std::size_t>(length, 2047), 'x'));
        }
        // The newline that was cut off is added again.
        sim::clear_log();
        trak_log(TRAK_LOG_ERROR, "%s\n", std::string(2047, 'x').c_str());
        EXPECT_EQ(sim::log()[0], "<3>ERROR: " + std::string(2047, 'x'));
    });
}

TEST(log, buffer_is_made_once_and_given_back) {
    sim_run::boot([] {
        EXPECT_EQ(trak_debug_buffer, nullptr);
        EXPECT_EQ(trak_debug_buffer_size, 0);
        EXPECT_EQ(trak_debug_init(), 0);
        char *const buffer = trak_debug_buffer;
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(trak_debug_buffer_size, 2048);
        EXPECT_EQ(trak_debug_init(), 0);
        EXPECT_EQ(trak_debug_buffer, buffer);
        EXPECT_EQ(trak_debug_destroy(), 0);
        EXPECT_EQ(trak_debug_buffer, nullptr);
        EXPECT_EQ(trak_debug_buffer_size, 0);
        EXPECT_EQ(trak_debug_destroy(), 0);
    });
}

TEST(log, failed_allocation_of_the_buffer_is_enomem) {
    sim_run::boot([] {
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_debug_init(), -ENOMEM);
        EXPECT_EQ(trak_debug_buffer, nullptr);
        EXPECT_EQ(trak_debug_buffer_size, 2048);
        EXPECT_NOTHING_LOGGED();
    });
}

TEST(log, first_message_makes_the_buffer_even_when_it_is_not_printed) {
    sim_run::boot([] {
        trak_log(4, "%s(): silent", "test");
        EXPECT_NOTHING_LOGGED();
        EXPECT_NE(trak_debug_buffer, nullptr);
    });
}

TEST(log, message_without_memory_for_the_buffer_is_dropped_and_the_next_tries_again) {
    sim_run::boot([] {
        sim::fail_nth(sim::Fault::kAlloc, 1);
        EXPECT_EQ(trak_log(TRAK_LOG_ERROR, "%s(): lost", "test"), 0);
        EXPECT_NOTHING_LOGGED();
        trak_log(TRAK_LOG_ERROR, "%s(): there", "test");
        EXPECT_LOGGED_ERROR("test(): there");
    });
}

void log_and_complete(os_bio *bio, int) {
    if (os_in_interrupt())
        trak_log(1, "%s(): from interrupt", "test");
    trak_log(TRAK_LOG_ERROR, "%s(): error from interrupt", "test");
    os_complete(static_cast<os_completion *>(os_bio_private(bio)));
}

TEST(log, message_from_interrupt_context_is_marked) {
    sim::Storage storage;
    storage.add_disk("sda1", os_mkdev(8, 1), 1 << 20, 512);
    sim_run::boot(storage, [] {
        trak_debug_init();
        os_bdev *bdev = trak_open_bdev(os_mkdev(8, 1), OS_FMODE_READ);
        ASSERT_NE(bdev, nullptr);
        os_bio *bio = os_bio_alloc(OS_GFP_KERNEL, 1);
        os_page *page = os_alloc_page(OS_GFP_KERNEL);
        os_completion done;
        os_init_completion(&done);
        os_bio_set_bdev(bio, bdev);
        os_bio_set_end_io(bio, log_and_complete);
        os_bio_set_private(bio, &done);
        ASSERT_TRUE(os_bio_add_page(bio, page, 4096, 0));
        os_submit_bio(0, bio);
        os_wait_for_completion(&done);
        EXPECT_TRUE(sim_run::logged("<6> int: test(): from interrupt")) << sim_run::log_text();
        EXPECT_LOGGED_ERROR("test(): error from interrupt");
        os_bio_put(bio);
        os_free_page(page);
        trak_close_bdev(bdev);
    });
}

TEST(log, messages_logged_at_the_same_time_do_not_mix_and_none_is_lost) {
    constexpr int tasks = 4, each = 5;
    bool short_seen = false;
    sim::for_each_seed(100, [&](std::uint64_t seed) {
        sim_run::boot(
            [&] {
                trak_debug_init();
                std::vector<sim::Process *> running;
                for (int t = 0; t < tasks; ++t)
                    running.push_back(sim::spawn("task", [t] {
                        const std::string text(1500, static_cast<char>('a' + t));
                        for (int i = 0; i < each; ++i) {
                            trak_log(TRAK_LOG_ERROR, "%s", text.c_str());
                            sim::yield();
                        }
                    }));
                for (sim::Process *task : running)
                    sim::join(task);
                ASSERT_EQ(sim::log().size(), std::size_t{tasks * each});
                for (const std::string &line : sim::log()) {
                    const std::string text = line.substr(std::strlen("<3>ERROR: "));
                    EXPECT_EQ(text.find_first_not_of(text[0]), std::string::npos) << line;
                    EXPECT_TRUE(text.size() == 1500 || text.size() == 511) << text.size();
                    short_seen |= text.size() == 511;
                }
            },
            seed);
    });
    // Whole, or cut where another message was being put together, which many seeds have.
    const bool many_seeds =
        sim::seed_setting("TRAK_SEED", 0) == 0 && sim::seed_setting("TRAK_SEEDS", 50) >= 50;
    EXPECT_TRUE(short_seen || !many_seeds);
}

}  // namespace
