// tests/unit/user/log_test.cpp: the kernel log keeps the newest lines and says what it dropped
// SPDX-License-Identifier: GPL-2.0-only
#include "os/log.h"

#include <thread>

#include "user_testing.h"

namespace {

class user_log : public user_testing::PlatformTest {
  protected:
    void restart(std::size_t bytes) {
        user::stop();
        options_.log_bytes = bytes;
        SetUp();
    }
};

TEST_F(user_log, it_keeps_every_line_since_the_start_in_order) {
    os_printk("<6>%s %d\n", "one", 1);
    os_printk("<3>two\n");
    EXPECT_EQ(user::log_text(), "<6>one 1\n<3>two\n");
    EXPECT_EQ(user::log_lines(), 2u);
    restart(1000);
    EXPECT_EQ(user::log_text(), "");
    EXPECT_EQ(user::log_lines(), 0u);
}

TEST_F(user_log, a_full_log_drops_the_oldest_lines_and_says_how_many) {
    restart(100);
    for (int i = 0; i < 20; i++)
        os_printk("<6>line %02d ...\n", i);  // 15 bytes each
    EXPECT_EQ(user::log_text(), "<4>log: 14 older lines were dropped\n"
                                "<6>line 14 ...\n<6>line 15 ...\n<6>line 16 ...\n"
                                "<6>line 17 ...\n<6>line 18 ...\n<6>line 19 ...\n");
    EXPECT_EQ(user::log_lines(), 20u);
}

TEST_F(user_log, a_line_larger_than_the_log_is_kept_alone) {
    restart(10);
    os_printk("<6>small\n");
    std::string large(9000, 'x');
    os_printk("<6>%s\n", large.c_str());
    EXPECT_EQ(user::log_text(), "<4>log: 1 older lines were dropped\n<6>" + large + "\n");
}

TEST_F(user_log, lines_of_many_threads_are_never_mixed) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; i++)
                os_printk("<6>%s\n", std::string(100, static_cast<char>('a' + t)).c_str());
        });
    for (std::thread &thread : threads)
        thread.join();
    std::string text = user::log_text();
    ASSERT_EQ(text.size(), 2000u * 104);
    int wrong = 0;
    for (std::size_t at = 0; at < text.size(); at += 104)
        wrong += text.compare(at, 104, "<6>" + std::string(100, text[at + 3]) + "\n") != 0;
    EXPECT_EQ(wrong, 0);
}

TEST_F(user_log, a_sink_sees_each_line_until_it_is_taken_away) {
    std::string seen;
    user::set_log_sink(
        [](void *data, const char *text, std::size_t size) {
            static_cast<std::string *>(data)->append(text, size);
        },
        &seen);
    os_printk("<6>heard\n");
    user::set_log_sink(nullptr, nullptr);
    os_printk("<6>unheard\n");
    EXPECT_EQ(seen, "<6>heard\n");
}

TEST(user_printf, lengths_are_of_the_whole_text_and_the_buffer_always_ends) {
    char buf[8];
    EXPECT_EQ(os_snprintf(buf, sizeof(buf), "%05d|%x|%llu", 42, 255u, 1ull << 40), 22);
    EXPECT_STREQ(buf, "00042|f");
}

}  // namespace
