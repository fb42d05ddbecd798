#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "flashaging/log.h"

namespace {

class LocalTimeUtc : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(LocalTimeUtc, PrefixTimeHasDateAndTruncatedMilliseconds) {
    char buf[64];
    // 2025-01-07 09:05:03 UTC, no microseconds.
    fv_format_time(buf, 1736240703, 0);
    EXPECT_STREQ(buf, "2025-01-07 09:05:03.000");
    // 999,999 microseconds truncate to 999, never round up to the next second.
    fv_format_time(buf, 1709647629, 999999);
    EXPECT_STREQ(buf, "2024-03-05 14:07:09.999");
    fv_format_time(buf, 1709647629, 42999);
    EXPECT_STREQ(buf, "2024-03-05 14:07:09.042");
}

TEST(LogLine, PrefixIsTimeAndThreadIdWithoutNewline) {
    testing::internal::CaptureStdout();
    fv_print_time();
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    std::regex shape(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\]\[(\d+)\])");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, shape)) << out;
    EXPECT_EQ(std::stoi(m[1]), static_cast<int>(gettid()));
}

TEST(LogLine, LogErrnoIsAnInfoLineNamingItself) {
    testing::internal::CaptureStdout();
    log_errno("Failed to open");
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    std::regex shape(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:log_errno:\d+ Failed to open\n)");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

TEST(LogLine, BodyWithAndWithoutPrefix) {
    testing::internal::CaptureStdout();
    FLOG("init_result", "FATAL", "open %s error!\n\n", "/x");
    FLOG_NP("main", "FATAL", "skip flashtest!\n\n");
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    std::regex shape(
        R"(\[[^\]]+\]\[\d+\]\[FLASH\]FATAL:init_result:\d+ open /x error!\n\n\[FLASH\]FATAL:main:\d+ skip flashtest!\n\n)");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

TEST(Timediff, LaterMinusEarlierWithoutClamping) {
    EXPECT_FLOAT_EQ(timediff(10, 0, 9, 500000000), 0.5f);
    EXPECT_FLOAT_EQ(timediff(9, 500000000, 10, 0), -0.5f);
    EXPECT_FLOAT_EQ(timediff(100, 250000000, 100, 0), 0.25f);
}

}  // namespace
