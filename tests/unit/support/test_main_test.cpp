// tests/unit/support/test_main_test.cpp: the test programs' own main()
// SPDX-License-Identifier: GPL-2.0-only
// Each test runs this very program again on one of the tests of the suite Inner.
#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Outcome {
    int status;
    std::string output;
};

Outcome run_inner(const std::string &environment, const std::string &test) {
    std::array<char, 512> self{};
    if (readlink("/proc/self/exe", self.data(), self.size() - 1) < 0)
        return {-1, "no /proc/self/exe"};
    const std::string command =
        "env " + environment + " '" + self.data() + "' --gtest_filter=Inner." + test + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return {-1, "popen failed"};
    std::string output;
    std::array<char, 4096> part;
    while (const size_t got = fread(part.data(), 1, part.size(), pipe))
        output.append(part.data(), got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

void *sleep_for_ever(void *) {
    for (;;)
        pause();
}

TEST(Inner, skips) {
    GTEST_SKIP() << "no such device here";
}

TEST(Inner, hangs) {
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, sleep_for_ever, nullptr), 0);
    sleep_for_ever(nullptr);
}

TEST(test_main, skipped_test_fails_in_ci) {
    const Outcome got = run_inner("CI=true", "skips");
    EXPECT_EQ(got.status, 1) << got.output;
    EXPECT_NE(got.output.find("no such device here"), std::string::npos) << got.output;
    EXPECT_EQ(got.output.find("[  SKIPPED ]"), std::string::npos) << got.output;
}

TEST(test_main, skipped_test_is_reported_as_skipped_elsewhere) {
    const Outcome got = run_inner("CI=", "skips");
    EXPECT_EQ(got.status, 0) << got.output;
    EXPECT_NE(got.output.find("[  SKIPPED ]"), std::string::npos) << got.output;
}

TEST(test_main, hung_test_ends_and_prints_the_stack_of_each_thread) {
    const Outcome got = run_inner("TRAK_TEST_WATCH=1", "hangs");
    EXPECT_EQ(got.status, 124) << got.output;
    EXPECT_NE(got.output.find("*** end of stacks"), std::string::npos) << got.output;
    const size_t first = got.output.find("--- thread ");
    ASSERT_NE(first, std::string::npos) << got.output;
    EXPECT_NE(got.output.find("--- thread ", first + 1), std::string::npos) << got.output;
}

}  // namespace
