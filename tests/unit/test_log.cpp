#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "flashaging/log.h"
#include "unit_support.h"

namespace {

using namespace ut;

TEST(LogPrefix, DateTimeWithTruncatedMillisecondsThenThreadId) {
    setenv("TZ", "UTC", 1);
    tzset();
    char buf[64];
    const struct {
        time_t sec;
        long usec;
        const char *text;
    } cases[] = {{1736240703, 0, "2025-01-07 09:05:03.000"},
                 {1709647629, 999999, "2024-03-05 14:07:09.999"},  // never rounded up to the next second
                 {1709647629, 42999, "2024-03-05 14:07:09.042"}};
    for (const auto &c : cases) {
        fv_format_time(buf, c.sec, c.usec);
        EXPECT_STREQ(buf, c.text);
    }
    std::string out = capture([] { fv_print_time(); });
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, std::regex(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\]\[(\d+)\])"))) << out;
    EXPECT_EQ(std::stoi(m[1]), static_cast<int>(gettid()));
}

TEST(LogLine, BodyWithAndWithoutPrefixAndLogErrno) {
    std::string out = capture([] {
        FLOG("init_result", "FATAL", "open %s error!\n\n", "/x");
        FLOG_NP("main", "FATAL", "skip flashtest!\n\n");
        log_errno("Failed to open");
    });
    EXPECT_TRUE(matches(out, line("FATAL", "init_result", "open /x error!\n\n") + bare("FATAL", "main", "skip flashtest!\n\n") +
                                 line("INFO", "log_errno", "Failed to open\n")))
        << out;
}

TEST(Timediff, LaterMinusEarlierWithoutClamping) {
    EXPECT_FLOAT_EQ(timediff(10, 0, 9, 500000000), 0.5f);
    EXPECT_FLOAT_EQ(timediff(9, 500000000, 10, 0), -0.5f);
    EXPECT_FLOAT_EQ(timediff(100, 250000000, 100, 0), 0.25f);
}

}  // namespace
