#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>

#include "flashaging/healthinfo.h"
#include "flashaging/healthinfo_internal.h"

namespace {

std::string capture(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

healthinfo reading(uint32_t rr, uint32_t bb, uint32_t tbw, uint32_t cache, uint32_t xlc) {
    healthinfo h{};
    healthinfo_set_keys(&h);
    h.entry[0].value = rr;
    h.entry[1].value = bb;
    h.entry[2].value = tbw;
    h.entry[3].value = cache;
    h.entry[4].value = xlc;
    return h;
}

TEST(HealthLine, NumberRightBehindTheKeyWithAtoiRules) {
    healthinfo h = reading(0, 0, 0, 0, 0);
    healthinfo_parse_line(&h, "TBW 12\n");
    EXPECT_EQ(h.entry[HI_TBW].value, 12u);
    healthinfo_parse_line(&h, "  eraseXLCCntAvg\t 31 cycles\n");
    EXPECT_EQ(h.entry[HI_ERASE_XLC_CNT_AVG].value, 31u);
    healthinfo_parse_line(&h, "badBlockRuntime42abc");
    EXPECT_EQ(h.entry[HI_BAD_BLOCK_RUNTIME].value, 42u);
    // A colon between key and number reads 0.
    healthinfo_parse_line(&h, "TBW: 12\n");
    EXPECT_EQ(h.entry[HI_TBW].value, 0u);
    // A negative number is stored as unsigned.
    healthinfo_parse_line(&h, "eraseCacheCntAvg -3\n");
    EXPECT_EQ(h.entry[HI_ERASE_CACHE_CNT_AVG].value, 0xFFFFFFFDu);
}

TEST(HealthLine, FirstKeyInEntryOrderWinsAndOthersAreIgnored) {
    healthinfo h = reading(1, 2, 3, 4, 5);
    // TBW comes first in the line, but readReclaim comes first in the entry order.
    healthinfo_parse_line(&h, "TBW 100 readReclaim 7\n");
    EXPECT_EQ(h.entry[HI_READ_RECLAIM].value, 7u);
    EXPECT_EQ(h.entry[HI_TBW].value, 3u);
    // A line without a key changes nothing.
    healthinfo_parse_line(&h, "readreclaim 9 tbw 9 nothing here\n");
    healthinfo_parse_line(&h, "");
    healthinfo expected = reading(7, 2, 3, 4, 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(h.entry[i].value, expected.entry[i].value) << i;
}

class HealthTool : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/flashaging_health_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        tool_ = dir_ + "/monitor_tool";
    }
    void TearDown() override {
        std::string cmd = "rm -rf " + dir_;
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    // A tool that prints `output` and exits with `status`; created without execute bits,
    // which the reading sets itself.
    void tool(const std::string &output, int status = 0) {
        std::string text = "cat <<'TOOL_END'\n" + output + "TOOL_END\nexit " + std::to_string(status) + "\n";
        if (output.empty()) text = "exit " + std::to_string(status) + "\n";
        FILE *f = fopen(tool_.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs(("#!/bin/sh\n" + text).c_str(), f);
        fclose(f);
        chmod(tool_.c_str(), 0600);
    }
    std::string dir_;
    std::string tool_;
};

TEST_F(HealthTool, ReadsTheToolOutputAndMakesItExecutable) {
    tool("readReclaim 3\nbadBlockRuntime 1\nTBW 5000\nsome other line\neraseCacheCntAvg 12\neraseXLCCntAvg 7\nTBW 6000\n", 1);
    healthinfo h{};
    EXPECT_EQ(healthinfo_get_from(&h, tool_.c_str()), 0u);
    EXPECT_STREQ(h.entry[HI_READ_RECLAIM].key, "readReclaim");
    EXPECT_EQ(h.entry[HI_READ_RECLAIM].value, 3u);
    EXPECT_EQ(h.entry[HI_BAD_BLOCK_RUNTIME].value, 1u);
    EXPECT_EQ(h.entry[HI_TBW].value, 6000u);  // a later line overwrites
    EXPECT_EQ(h.entry[HI_ERASE_CACHE_CNT_AVG].value, 12u);
    EXPECT_EQ(h.entry[HI_ERASE_XLC_CNT_AVG].value, 7u);
    struct stat st {};
    ASSERT_EQ(stat(tool_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0775u);
}

TEST_F(HealthTool, SilentToolGivesAnAllZeroReading) {
    tool("");
    healthinfo h{};
    EXPECT_EQ(healthinfo_get_from(&h, tool_.c_str()), 0u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(h.entry[i].value, 0u);
    EXPECT_STREQ(h.entry[HI_ERASE_XLC_CNT_AVG].key, "eraseXLCCntAvg");
}

TEST_F(HealthTool, MissingToolOrRecordFails) {
    EXPECT_EQ(healthinfo_get_from(nullptr, tool_.c_str()), 1u);
    healthinfo h{};
    unsigned r = 0;
    std::string out = capture([&] { r = healthinfo_get_from(&h, tool_.c_str()); });
    EXPECT_EQ(r, 1u);
    EXPECT_STREQ(h.entry[HI_TBW].key, "TBW");
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]ERROR:healthinfo_get:\d+ fail to chmod )" +
                                                 tool_ + "\n\n")))
        << out;
}

TEST_F(HealthTool, WearGateOpensUpTo30OrWithForceErase) {
    tool("eraseXLCCntAvg 31\n");
    int r = -1;
    std::string out = capture([&] { r = pe_cycle_check_from(tool_.c_str(), 0); });
    EXPECT_EQ(r, 1);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:pe_cycle_check:\d+ PE cycle is 31\n\n)")))
        << out;
    capture([&] { r = pe_cycle_check_from(tool_.c_str(), 1); });
    EXPECT_EQ(r, 0);
    capture([&] { r = pe_cycle_check_from(tool_.c_str(), -1); });
    EXPECT_EQ(r, 0);
    tool("eraseXLCCntAvg 30\n");
    capture([&] { r = pe_cycle_check_from(tool_.c_str(), 0); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(pe_cycle_get_from(tool_.c_str()), 30u);
}

TEST_F(HealthTool, FailedReadingOpensTheGateButGetReportsAllOnes) {
    int r = -1;
    std::string out = capture([&] { r = pe_cycle_check_from(tool_.c_str(), 0); });
    EXPECT_EQ(r, 0);
    EXPECT_NE(out.find("fail to chmod"), std::string::npos);
    EXPECT_EQ(out.substr(out.size() - 20), "healthinfo_get fail\n") << out;
    uint32_t pe = 0;
    out = capture([&] { pe = pe_cycle_get_from(tool_.c_str()); });
    EXPECT_EQ(pe, UINT32_MAX);
    EXPECT_EQ(out.substr(out.size() - 20), "healthinfo_get fail\n") << out;
}

constexpr uint64_t k32GiB = 34359738368ULL;

int judge(const healthinfo &before, const healthinfo &now, uint64_t cap, std::string *out) {
    int r = -1;
    *out = capture([&] { r = healthinfo_judge_values(before, now, cap); });
    return r;
}

TEST(HealthJudge, PrintsGrowthsAndWafAsPlainLines) {
    std::string out;
    // 32768 MiB x 125 / (8192 x 100) = 5.0
    EXPECT_EQ(judge(reading(1, 2, 1000, 4, 10), reading(4, 2, 9192, 3, 135), k32GiB, &out), 1);
    EXPECT_EQ(out,
              "delta readReclaim is 3\n"
              "delta badBlockRuntime is 0\n"
              "delta TBW is 8192\n"
              "delta eraseCacheCntAvg is -1\n"
              "delta eraseXLCCntAvg is 125\n"
              "WAF is 5.000000\n");
}

TEST(HealthJudge, WriteAmplificationLimitAtFive) {
    std::string out;
    EXPECT_EQ(judge(reading(0, 0, 0, 0, 0), reading(0, 0, 8192, 0, 125), k32GiB, &out), 1);
    EXPECT_EQ(judge(reading(0, 0, 0, 0, 0), reading(0, 0, 8192, 0, 124), k32GiB, &out), 0);
    EXPECT_NE(out.find("WAF is 4.960000\n"), std::string::npos) << out;
    // Capacity counts in MiB, of its low 32 bits.
    EXPECT_FLOAT_EQ(healthinfo_waf(4 * k32GiB, 125, 8192), 20.0f);
    EXPECT_FLOAT_EQ(healthinfo_waf(1ULL << 52, 125, 8192), 0.0f);  // 2^32 MiB: low 32 bits are 0
}

TEST(HealthJudge, NoTbwGrowthMeansNoWriteAmplification) {
    std::string out;
    EXPECT_EQ(judge(reading(0, 0, 500, 0, 0), reading(0, 0, 500, 0, 1000000), k32GiB, &out), 0);
    EXPECT_NE(out.find("WAF is 0.000000\n"), std::string::npos) << out;
}

TEST(HealthJudge, CounterLimitsAt29And30) {
    std::string out;
    EXPECT_EQ(judge(reading(10, 0, 0, 0, 0), reading(39, 0, 0, 0, 0), k32GiB, &out), 0);
    EXPECT_EQ(judge(reading(10, 0, 0, 0, 0), reading(40, 0, 0, 0, 0), k32GiB, &out), 1);
    EXPECT_EQ(judge(reading(0, 5, 0, 0, 0), reading(0, 34, 0, 0, 0), k32GiB, &out), 0);
    EXPECT_EQ(judge(reading(0, 5, 0, 0, 0), reading(0, 35, 0, 0, 0), k32GiB, &out), 1);
    // The cache erase count is printed but never judged.
    EXPECT_EQ(judge(reading(0, 0, 0, 0, 0), reading(0, 0, 0, 1000, 0), k32GiB, &out), 0);
}

TEST(HealthJudge, CountersThatGoDownWrapToLargeGrowths) {
    std::string out;
    // A failed new reading is all zeros: a non-zero old readReclaim fails the judgement.
    EXPECT_EQ(judge(reading(5, 0, 0, 0, 0), reading(0, 0, 0, 0, 0), k32GiB, &out), 1);
    EXPECT_NE(out.find("delta readReclaim is -5\n"), std::string::npos) << out;
    EXPECT_EQ(judge(reading(0, 1, 0, 0, 0), reading(0, 0, 0, 0, 0), k32GiB, &out), 1);
    // Wrapping across the top of the range is a small growth.
    EXPECT_EQ(judge(reading(0xFFFFFFF0u, 0, 0, 0, 0), reading(5, 0, 0, 0, 0), k32GiB, &out), 0);
    EXPECT_NE(out.find("delta readReclaim is 21\n"), std::string::npos) << out;
}

}  // namespace
