#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "flashaging/healthinfo.h"
#include "flashaging/healthinfo_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;

healthinfo reading(uint32_t rr, uint32_t bb, uint32_t tbw, uint32_t cache, uint32_t xlc) {
    healthinfo h{};
    healthinfo_set_keys(&h);
    const uint32_t values[5] = {rr, bb, tbw, cache, xlc};
    for (int i = 0; i < 5; ++i) h.entry[i].value = values[i];
    return h;
}

TEST(HealthLine, FirstKeyInEntryOrderSetsTheNumberRightBehindIt) {
    const struct {
        const char *line;
        int entry;  // -1: nothing changes
        uint32_t value;
    } cases[] = {
        {"TBW 12\n", HI_TBW, 12},
        {"  eraseXLCCntAvg\t 31 cycles\n", HI_ERASE_XLC_CNT_AVG, 31},
        {"badBlockRuntime42abc", HI_BAD_BLOCK_RUNTIME, 42},
        {"TBW: 12\n", HI_TBW, 0},                                     // a colon between reads 0
        {"eraseCacheCntAvg -3\n", HI_ERASE_CACHE_CNT_AVG, 0xFFFFFFFDu},  // stored as unsigned
        {"TBW 100 readReclaim 7\n", HI_READ_RECLAIM, 7},              // readReclaim comes first in entry order
        {"readreclaim 9 tbw 9 nothing here\n", -1, 0},
        {"", -1, 0},
    };
    for (const auto &c : cases) {
        healthinfo h = reading(1, 2, 3, 4, 5);
        healthinfo expected = h;
        if (c.entry >= 0) expected.entry[c.entry].value = c.value;
        healthinfo_parse_line(&h, c.line);
        for (int i = 0; i < 5; ++i) EXPECT_EQ(h.entry[i].value, expected.entry[i].value) << c.line << " entry " << i;
    }
}

class HealthTool : public ::testing::Test {
  protected:
    // A tool that prints `output` and exits with `status`; created without execute bits,
    // which the reading sets itself.
    void tool(const std::string &output, int status = 0) {
        put(tool_, "#!/bin/sh\n" + (output.empty() ? "" : "cat <<'TOOL_END'\n" + output + "TOOL_END\n") + "exit " +
                       std::to_string(status) + "\n");
        chmod(tool_.c_str(), 0600);
    }
    ScratchDir tmp_;
    std::string tool_ = tmp_.file("monitor_tool");
};

TEST_F(HealthTool, ReadsTheToolOutputAndMakesItExecutable) {
    tool("readReclaim 3\nbadBlockRuntime 1\nTBW 5000\nsome other line\neraseCacheCntAvg 12\neraseXLCCntAvg 7\nTBW 6000\n", 1);
    healthinfo h{};
    EXPECT_EQ(healthinfo_get_from(&h, tool_.c_str()), 0u);
    const uint32_t expected[5] = {3, 1, 6000, 12, 7};  // a later line overwrites
    for (int i = 0; i < 5; ++i) EXPECT_EQ(h.entry[i].value, expected[i]) << i;
    struct stat st {};
    ASSERT_EQ(stat(tool_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0775u);

    tool("");
    h = healthinfo{};
    EXPECT_EQ(healthinfo_get_from(&h, tool_.c_str()), 0u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(h.entry[i].value, 0u) << "a silent tool reads all zeros";
    EXPECT_STREQ(h.entry[HI_ERASE_XLC_CNT_AVG].key, "eraseXLCCntAvg");
}

TEST_F(HealthTool, WearGateClosesAbove30UnlessForcedAndAFailedReadingOpensIt) {
    const struct {
        int wear, force, gate;
    } cases[] = {{31, 0, 1}, {31, 1, 0}, {31, -1, 0}, {30, 0, 0}};
    for (const auto &c : cases) {
        tool("eraseXLCCntAvg " + std::to_string(c.wear) + "\n");
        int r = -1;
        std::string out = capture([&] { r = pe_cycle_check_from(tool_.c_str(), c.force); });
        EXPECT_EQ(r, c.gate) << c.wear << " " << c.force;
        EXPECT_TRUE(matches(out, line("INFO", "pe_cycle_check", "PE cycle is " + std::to_string(c.wear) + "\n\n"))) << out;
    }
    EXPECT_EQ(pe_cycle_get_from(tool_.c_str()), 30u);

    // No tool: the reading fails, the gate opens and the wear reads all ones.
    unlink(tool_.c_str());
    EXPECT_EQ(healthinfo_get_from(nullptr, tool_.c_str()), 1u);
    healthinfo h{};
    unsigned r = 0;
    std::string out = capture([&] { r = healthinfo_get_from(&h, tool_.c_str()); });
    EXPECT_EQ(r, 1u);
    EXPECT_STREQ(h.entry[HI_TBW].key, "TBW");
    EXPECT_TRUE(matches(out, line("ERROR", "healthinfo_get", "fail to chmod " + tool_ + "\n\n"))) << out;
    int gate = -1;
    out = capture([&] { gate = pe_cycle_check_from(tool_.c_str(), 0); });
    EXPECT_EQ(gate, 0);
    EXPECT_TRUE(out.ends_with("healthinfo_get fail\n")) << out;
    uint32_t pe = 0;
    out = capture([&] { pe = pe_cycle_get_from(tool_.c_str()); });
    EXPECT_EQ(pe, UINT32_MAX);
    EXPECT_TRUE(out.ends_with("healthinfo_get fail\n")) << out;
}

constexpr uint64_t k32GiB = 34359738368ULL;

TEST(HealthJudge, PrintsGrowthsAndWafAsPlainLines) {
    // 32768 MiB x 125 / (8192 x 100) = 5.0
    int r = -1;
    const healthinfo before = reading(1, 2, 1000, 4, 10), now = reading(4, 2, 9192, 3, 135);
    std::string out = capture([&] { r = healthinfo_judge_values(before, now, k32GiB); });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(out,
              "delta readReclaim is 3\n"
              "delta badBlockRuntime is 0\n"
              "delta TBW is 8192\n"
              "delta eraseCacheCntAvg is -1\n"
              "delta eraseXLCCntAvg is 125\n"
              "WAF is 5.000000\n");
    // Capacity counts in MiB, of its low 32 bits.
    EXPECT_FLOAT_EQ(healthinfo_waf(4 * k32GiB, 125, 8192), 20.0f);
    EXPECT_FLOAT_EQ(healthinfo_waf(1ULL << 52, 125, 8192), 0.0f);  // 2^32 MiB: low 32 bits are 0
}

TEST(HealthJudge, LimitsAt29And30AndWafFiveAndCountersThatWrap) {
    const struct {
        healthinfo before, now;
        int expected;
        const char *line;
    } cases[] = {
        {reading(10, 0, 0, 0, 0), reading(39, 0, 0, 0, 0), 0, "delta readReclaim is 29\n"},
        {reading(10, 0, 0, 0, 0), reading(40, 0, 0, 0, 0), 1, "delta readReclaim is 30\n"},
        {reading(0, 5, 0, 0, 0), reading(0, 34, 0, 0, 0), 0, "delta badBlockRuntime is 29\n"},
        {reading(0, 5, 0, 0, 0), reading(0, 35, 0, 0, 0), 1, "delta badBlockRuntime is 30\n"},
        {reading(0, 0, 0, 0, 0), reading(0, 0, 0, 1000, 0), 0, "delta eraseCacheCntAvg is 1000\n"},  // never judged
        {reading(0, 0, 0, 0, 0), reading(0, 0, 8192, 0, 125), 1, "WAF is 5.000000\n"},
        {reading(0, 0, 0, 0, 0), reading(0, 0, 8192, 0, 124), 0, "WAF is 4.960000\n"},
        {reading(0, 0, 500, 0, 0), reading(0, 0, 500, 0, 1000000), 0, "WAF is 0.000000\n"},  // no TBW growth
        // A failed new reading is all zeros: a non-zero old count fails the judgement.
        {reading(5, 0, 0, 0, 0), reading(0, 0, 0, 0, 0), 1, "delta readReclaim is -5\n"},
        {reading(0, 1, 0, 0, 0), reading(0, 0, 0, 0, 0), 1, "delta badBlockRuntime is -1\n"},
        // Wrapping across the top of the range is a small growth.
        {reading(0xFFFFFFF0u, 0, 0, 0, 0), reading(5, 0, 0, 0, 0), 0, "delta readReclaim is 21\n"},
    };
    for (const auto &c : cases) {
        int r = -1;
        std::string out = capture([&] { r = healthinfo_judge_values(c.before, c.now, k32GiB); });
        EXPECT_EQ(r, c.expected) << c.line;
        EXPECT_NE(out.find(c.line), std::string::npos) << out;
    }
}

}  // namespace
