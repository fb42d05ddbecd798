// The fault campaign: signals at every phase of a run, a partition that fills up, a health
// tool that goes away or prints garbage, a battery node that disappears. Every case is held
// to what the program promises whatever happens: a pass/fail record with a verdict word (or
// "START" after an abnormal end, with the 8 MiB buffer dump and the handler's daemon calls),
// a results file that is whole, no crash, and an end within the watchdog budget plus a
// margin (the profile's timeout; a run that needs it counts as a hang).
#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"

namespace {

using e2e::count;
using e2e::journal_has;

using e2e::kHeader;

enum class Sig { kNone, kTerm, kInt, kUsr1, kSegv };

struct Case {
    const char *name;
    std::vector<std::string> overrides;  // added to the default phone
    Sig sig = Sig::kNone;                // the signal the case sends, if any
    bool may_miss = false;  // the signal may come after the run's end, or after the verdict was written
};

// The case's name stands for it in test lists.
void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

const char *sig_name(Sig s) {
    switch (s) {
    case Sig::kTerm: return "TERM";
    case Sig::kInt: return "INT";
    case Sig::kUsr1: return "USR1";
    case Sig::kSegv: return "SEGV";
    default: return "";
    }
}
int sig_number(Sig s) {
    switch (s) {
    case Sig::kTerm: return 15;
    case Sig::kInt: return 2;
    case Sig::kUsr1: return 10;
    case Sig::kSegv: return 11;
    default: return 0;
    }
}

// A results file is whole: it ends with a line end and, once its table began, every line
// after the header has the header's thirteen columns.
void expect_whole_results(const std::string &csv, const std::string &what) {
    ASSERT_FALSE(csv.empty()) << what;
    EXPECT_EQ(csv.back(), '\n') << what << " ends in the middle of a line";
    size_t header = csv.find(kHeader);
    ASSERT_NE(header, std::string::npos) << what << " has no table header:\n" << csv;
    std::istringstream rows(csv.substr(header + sizeof kHeader - 1));
    std::string row;
    while (std::getline(rows, row)) EXPECT_EQ(count(row, ","), 12) << what << ": " << row;
}

// What every run owes, whatever the fault.
void expect_promises(const e2e::RunResult &r, const Case &c) {
    // The simulator's status: 0 the program ran to its end; 3 the timeout (a hang); 4 killed
    // by a signal (a crash).
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    const std::string stdout_text = r.file("stdout.txt");
    for (const char *crash : {"terminate called", "Segmentation fault", "Aborted"}) {
        EXPECT_EQ(count(r.log, crash), 0) << crash;
        EXPECT_EQ(count(stdout_text, crash), 0) << crash;
    }
    ASSERT_TRUE(r.has_record);

    const bool caught = c.sig != Sig::kNone && count(r.log, " SIG " + std::to_string(sig_number(c.sig)) + " catched\n\n") > 0;
    if (c.sig != Sig::kNone && !c.may_miss) {
        EXPECT_TRUE(caught) << "the signal was not caught:\n" << r.log;
    }
    const std::string word = r.verdict_word();
    if (caught) {
        // The dump took the record's descriptor: the verdict cannot be written, "START" stays.
        if (c.may_miss && (word == "SUCCESS" || word == "FAIL")) {
            // Caught after the summary wrote the verdict: the word stays, padded to 10 bytes.
            EXPECT_EQ(r.record.size(), 10u);
        } else {
            EXPECT_EQ(word, "START");
            EXPECT_EQ(r.record.substr(0, 5), "START");
        }
        const size_t dump = r.file("factory/flash_pattern").size();
        if (c.may_miss && dump != (8u << 20)) {
            // Caught once the summary had freed the two buffers: nothing to write from.
            EXPECT_EQ(dump, 0u);
            EXPECT_EQ(count(r.log, "[START]write /cache/factory/flash_pattern  pattern_4MB error!\n"), 1) << r.log;
        } else {
            EXPECT_EQ(dump, 8u << 20);
        }
        EXPECT_TRUE(journal_has(r, "dump_stack"));
        EXPECT_GE(count(r.journal, "cleanEnvDone 2 "), 1);
        if (c.sig == Sig::kUsr1) {
            // The handler does not call it for SIGUSR1; the main sequence does when the handler
            // ran on another thread (the kernel picks the thread) and the run then failed.
            const bool main_failed = r.log.find(" flash aging cost time :") != std::string::npos &&
                                     journal_has(r, "cleanEnvDone 2 0");
            EXPECT_EQ(count(r.journal, "finishOtherTest"), main_failed ? 1 : 0) << r.journal;
            // The temporary results file (sections only) stays unless the main thread went
            // on and wrote the results file through that name.
            const bool on_main = r.log.find("][2][FLASH]ERROR:flash_sigroutine") != std::string::npos;
            if (on_main) {
                EXPECT_TRUE(r.exists("factory/flash_aging_results.csv_temp"));
            }
            if (r.exists("factory/flash_aging_results.csv_temp")) {
                std::string temp = r.file("factory/flash_aging_results.csv_temp");
                EXPECT_NE(temp.find("Test Info:\n"), std::string::npos);
                EXPECT_EQ(temp.back(), '\n');
            }
        } else {
            EXPECT_TRUE(journal_has(r, "finishOtherTest 2"));
        }
    } else {
        EXPECT_TRUE(word == "SUCCESS" || word == "FAIL" || word == "SKIP") << word;
        EXPECT_EQ(r.record.size(), 10u) << "the verdict word, padded with zeros to 10 bytes";
        const std::string done = word == "SUCCESS" ? "cleanEnvDone 2 1" : word == "FAIL" ? "cleanEnvDone 2 0" : "cleanEnvDone 2 2";
        EXPECT_TRUE(journal_has(r, done)) << r.journal;
        EXPECT_EQ(count(r.journal, "finishOtherTest 2"), word == "FAIL" ? 1 : 0) << r.journal;
    }
    if (r.has_results_csv) expect_whole_results(r.results_csv, "flash_aging_results.csv");
}

class Campaign : public ::testing::TestWithParam<Case> {};

TEST_P(Campaign, KeepsItsPromises) {
    const Case &c = GetParam();
    auto r = e2e::run("short", c.overrides);
    expect_promises(r, c);
    // The outcome, for the campaign's table.
    std::string sig_at = "-";
    if (c.sig != Sig::kNone) {
        // Where it was caught: the thread, and the log line just before.
        const std::string mark = " SIG " + std::to_string(sig_number(c.sig)) + " catched";
        size_t at = r.log.find(mark);
        if (at == std::string::npos) {
            sig_at = "not caught";
        } else {
            size_t start = r.log.rfind('\n', at);
            start = start == std::string::npos ? 0 : start + 1;
            size_t prev_end = start > 0 ? start - 1 : 0;
            while (prev_end > 0 && r.log[prev_end - 1] == '\n') --prev_end;
            size_t prev = r.log.rfind('\n', prev_end > 0 ? prev_end - 1 : 0);
            prev = prev == std::string::npos ? 0 : prev + 1;
            std::string before = prev < prev_end ? r.log.substr(prev, prev_end - prev) : "";
            size_t body = before.find("[FLASH]");
            if (body != std::string::npos) before = before.substr(body);
            sig_at = "caught by thread " + r.log.substr(r.log.find("][", start) + 2, r.log.find("][FLASH", start) - r.log.find("][", start) - 2) +
                     " after \"" + before.substr(0, 90) + "\"";
        }
    }
    std::string wall = "?";
    auto ended = e2e::lines_with(r.sim_output, "after ");
    if (!ended.empty()) wall = ended.front().substr(ended.front().rfind("after ") + 6);
    printf("[campaign] %s: record %s, %s, wall %s\n", c.name, r.verdict_word().c_str(),
           c.sig == Sig::kNone ? "no signal" : ("signal " + sig_at).c_str(), wall.c_str());
}

std::string case_name(const ::testing::TestParamInfo<Case> &info) { return info.param.name; }

// A short run of the storage filler: one fill of about 600 MiB, one cycle, the watchdog at
// `budget` seconds. The benchmark runs at 1000 MiB/s, so that its shortest mode still lasts
// a good part of a second and the events below find its workers at work.
std::vector<std::string> short_run(int budget, std::vector<std::string> more = {}) {
    std::vector<std::string> o = {"arg =", "arg = -n 6", "arg = -s " + std::to_string(budget),
                                  "arg = -reserved_space 65100", "arg = -full_filling_times 1",
                                  "pace =", "pace = 1000:1000@/data/format_unclear/file_benchmark",
                                  "timeout = " + std::to_string(budget + 60)};
    o.insert(o.end(), more.begin(), more.end());
    return o;
}

// The events that start each phase. A benchmark mode starts after the speed line of the mode
// before it (the first after the preparation file appears) and is under way once one of its
// eight workers (threads 2-9) is in a read or write.
const std::string kFirstPass = "log:g_group_size is";
const std::string kWorkers = " then thread:2-9:io";
const std::string kBench = "/data/format_unclear/file_benchmark";

// The phases a signal is sent in, each as a trigger (and what the phase needs). The budget
// is the watchdog's: after a signal ends the main thread, the run ends when it runs out, so
// it is the case's wall time; it is several times what the phase takes to come on an idle
// machine, so that a loaded one still reaches it.
struct Phase {
    const char *name;
    std::vector<std::string> setup;  // profile lines besides the signal
    std::string when;                // the signal's trigger
    int budget;
    bool may_miss = false;
};

const std::vector<Phase> &phases() {
    static const std::vector<Phase> p = {
        // The wear gate's health reading, made slow, holds set-up for 3 s: the main thread
        // reads the tool's output.
        {"Setup", {"tool_fault = slow:3@0"}, "log:config left space to then thread:0-0:io", 20},
        {"FirstPass", {}, kFirstPass + kWorkers, 20},
        // The main thread writes the 512 MiB preparation file.
        {"BenchPrep", {}, kBench, 40},
        {"BenchSeqWrite", {}, kBench + kWorkers, 40},
        {"BenchSeqRead", {}, "log:seq write: ====" + kWorkers, 40},
        {"BenchRandWrite", {}, "log:seq read: ====" + kWorkers, 45},
        {"BenchRandRead", {}, "log:rand write: ====" + kWorkers, 50},
        // The cycle's judgement after the last mode, with a slow health tool from then on:
        // the main thread reads the tool's output.
        {"HealthJudge", {"tool_fault = slow:3@log:rand write: ===="}, "log:rand read: ==== then thread:0-0:io", 50},
        // After the filler, the runner's judgement and the summary follow within moments.
        {"Summary", {}, "log:Run flashtest success", 60, true},
    };
    return p;
}

std::vector<Case> signal_cases(bool ci) {
    std::vector<Case> out;
    static std::vector<std::string> names;  // keeps the names alive
    names.reserve(64);
    for (const Phase &ph : phases()) {
        for (Sig s : {Sig::kTerm, Sig::kInt, Sig::kUsr1, Sig::kSegv}) {
            // CI's share: every phase once, the signals taken in turn.
            // The summary (a whole run of the filler) and the random-read mode (the longest)
            // are left to the full campaign.
            const std::string phase = ph.name;
            const bool in_ci = phase != "Summary" && phase != "BenchRandRead" &&
                               (&ph - &phases()[0]) % 4 == static_cast<int>(s) - 1;
            if (in_ci != ci) continue;
            names.push_back(std::string(ph.name) + "_" + sig_name(s));
            std::vector<std::string> more = ph.setup;
            more.push_back(std::string("signal = ") + sig_name(s) + "@" + ph.when);
            int budget = ph.budget;
            if (std::string(ph.name) == "Summary") budget = 3600;
            out.push_back({names.back().c_str(), short_run(budget, more), s, ph.may_miss});
        }
    }
    return out;
}

// Faults other than a signal to the whole process.
std::vector<Case> fault_cases(bool ci) {
    const std::string pass = kFirstPass;
    std::vector<Case> all = {
        // CI's share.
        {"ToolGarbageMidRun", short_run(30, {"tool_fault = garbage@" + pass})},
        {"FullDuringFirstPass",
         short_run(30, {"data_free_mib = 65600", "arg = -reserved_space 1", std::string("ballast_at = ") + e2e::kAllReadersReading,
                        "pe_per_gib = 8", "host_room_gib = 4"})},
        // A writer blocked in a futex: its barrier wait at the end of a pass, or the lock of
        // the shared pattern buffers.
        {"BarrierWaitThread_TERM", short_run(20, {"thread_signal = TERM:2-9:futex@" + pass}), Sig::kTerm},
        // The rest.
        {"ToolRemovedMidRun", short_run(30, {"tool_fault = remove@" + pass})},
        {"ToolGoneFromStart", short_run(30, {"tool_fault = remove@0"})},
        {"ToolGarbageThenBack", short_run(30, {"tool_fault = garbage@" + pass, "tool_fault = restore@log:seq write: ===="})},
        {"BatteryNodeRemoved", short_run(30, {"battery_remove_at = " + pass})},
        // The node goes while the filler sleeps on the hot battery (the main thread in its 10 s sleep).
        {"BatteryRemovedWhileHot",
         short_run(40, {"battery_temp = 520", "battery_remove_at = " + pass + " then thread:0-0:sleep"})},
        {"FullAtBenchPrep", short_run(30, {"ballast_at = " + kBench, "host_room_gib = 4"})},
        {"FullDuringBenchMode", short_run(30, {"ballast_at = log:seq write: ====", "host_room_gib = 4"})},
        {"FullAtNextCycle",
         short_run(60, {"arg = -full_filling_times 5", "ballast_at = log:fill_cycle 0/", "host_room_gib = 4"})},
        {"ReaderChoiceThread_SEGV", short_run(20, {"thread_signal = SEGV:10-13:sleep@" + pass}), Sig::kSegv},
        {"WriterThread_INT", short_run(20, {"thread_signal = INT:2-9:io@" + pass}), Sig::kInt},
        // The second SIGTERM comes once the first was caught: the main thread has it blocked
        // in its handler or has ended, so a worker thread catches it.
        {"TwoTerms", short_run(20, {"signal = TERM@" + pass + kWorkers, "signal = TERM@log:SIG 15 catched"}),
         Sig::kTerm},
        // The enter-H8 writer (thread 2) in one of its 3 s sleeps.
        {"EnterH8Thread_USR1",
         {"arg =", "arg = -n 5", "arg = -s 400", "timeout = 120", "thread_signal = USR1:2:sleep@log:enter_h8_test begin"},
         Sig::kUsr1},
        // Both tests: the signal after the enter-H8 test's 5 minutes (it has no shorter form),
        // while the runner reads the (slow) health tool before the filler.
        {"BetweenTests_TERM",
         {"arg =", "arg = -s 310", "arg = -reserved_space 65100", "arg = -full_filling_times 1", "timeout = 420",
          "tool_fault = slow:3@log:enter_h8_test end", "signal = TERM@log:enter_h8_test end then thread:0-0:io"},
         Sig::kTerm},
    };
    std::vector<Case> out;
    for (size_t i = 0; i < all.size(); ++i)
        if ((i < 3) == ci) out.push_back(all[i]);
    return out;
}

// CI runs one program, the full campaign both.
#if FLASHAGING_CAMPAIGN_FULL
INSTANTIATE_TEST_SUITE_P(FullSignals, Campaign, ::testing::ValuesIn(signal_cases(false)), case_name);
INSTANTIATE_TEST_SUITE_P(FullFaults, Campaign, ::testing::ValuesIn(fault_cases(false)), case_name);
#else
INSTANTIATE_TEST_SUITE_P(Signals, Campaign, ::testing::ValuesIn(signal_cases(true)), case_name);
INSTANTIATE_TEST_SUITE_P(Faults, Campaign, ::testing::ValuesIn(fault_cases(true)), case_name);
#endif

}  // namespace
