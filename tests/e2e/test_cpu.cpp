// The phone's build on the phone's CPU. A cross build's executable runs in the simulated
// phone through its CPU emulator and must do there what the host's executable does: the
// same verdict, journal and results file, and the same log lines but for time stamps,
// thread ids and what was measured.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"

namespace {

bool cross_build() { return FLASHAGING_EMULATOR[0] != '\0'; }

// The log's lines in sorted order (the threads' lines interleave differently in every run),
// without the "[time][thread id]" prefixes, which may stand anywhere in a line since a
// prefix and its body are two writes. In the lines of measurements (speeds, costs, read
// counts, amounts a writer happened to fill, the health counters' growth, which follows the
// bytes the writers' random choices put down) every number is masked. Lines that only the
// host's load brings are left out: a transfer of the benchmark tried again after another
// worker moved the shared file position, a writer's 10 s give-up at the barrier, and a
// reader's count line, which it prints only after 1000 good reads (an emulated reader may
// not get there within a fill).
std::vector<std::string> comparable_log(const std::string &log) {
    static const std::regex measured(R"(speed is|cost|read_times is|runs \d+, ret|^delta \w+ is |^WAF is )");
    static const std::regex prefix(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[\d+\])");
    static const std::regex timing(
        R"(w/r fail 0, .* wr_size is 0, |barrier wait failed|Wait the barrier cond failed with 110|read_times is )");
    static const std::regex number(R"(\d+(\.\d+)?)");
    std::vector<std::string> lines;
    std::istringstream in(std::regex_replace(log, prefix, ""));
    std::string line;
    while (std::getline(in, line)) {
        if (std::regex_search(line, timing)) continue;
        if (std::regex_search(line, measured)) line = std::regex_replace(line, number, "#");
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The results file with the health counters' values masked: they follow the bytes written.
std::string comparable_results(const std::string &csv) {
    static const std::regex counter(R"((\n(readReclaim|badBlockRuntime|TBW|eraseCacheCntAvg|eraseXLCCntAvg):)\d+)");
    return std::regex_replace(csv, counter, "$1#");
}

TEST(PhoneCpu, DefaultPhoneRunOfTheCrossBuildIsTheHostExecutablesRun) {
    if (!cross_build()) GTEST_SKIP() << "a host build: its executable is the host's own";
    auto phone = e2e::run("default");
    ASSERT_EQ(phone.sim_exit, 0) << phone.sim_output;
    auto host = e2e::run_exe(FLASHAGING_HOST_BIN, "default");
    ASSERT_EQ(host.sim_exit, 0) << host.sim_output;

    // Each ran to its planned end, on the CPU the summary names.
    for (const auto *r : {&phone, &host})
        EXPECT_EQ(e2e::lines_with(r->sim_output, "the executable ended (exit status 0) after ").size(), 1u)
            << r->sim_output;
    EXPECT_EQ(e2e::lines_with(phone.sim_output, "  cpu  "),
              std::vector<std::string>{"  cpu      aarch64 (emulated by qemu-aarch64-static)"});
    EXPECT_EQ(e2e::lines_with(host.sim_output, "  cpu  ").size(), 1u);
    EXPECT_EQ(e2e::lines_with(host.sim_output, " (the host's CPU)").size(), 1u) << host.sim_output;

    // What the factory sees is the same.
    EXPECT_EQ(phone.verdict_word(), "SUCCESS");
    EXPECT_EQ(phone.record, host.record);
    EXPECT_EQ(phone.journal, host.journal);
    EXPECT_TRUE(e2e::journal_has(phone, "cleanEnvDone 2 1")) << phone.journal;
    ASSERT_TRUE(phone.has_results_csv);
    EXPECT_EQ(comparable_results(phone.results_csv), comparable_results(host.results_csv));
    EXPECT_NE(comparable_results(phone.results_csv).find("\nTBW:#\n"), std::string::npos) << phone.results_csv;
    auto phone_log = comparable_log(phone.log), host_log = comparable_log(host.log);
    EXPECT_GT(phone_log.size(), 50u);
    EXPECT_EQ(phone_log, host_log);
}

}  // namespace
