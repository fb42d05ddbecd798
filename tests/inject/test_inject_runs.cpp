// The fault injector preloaded into the real executable: it counts only the program's own
// calls, and the reactions it brings out are the program's own, line for line: a failed
// allocation of the storage filler's worker arrays skips the fill but is no failure, a
// writer that cannot be started fails the cycle, and a signal at a writer's spin lock ends
// that writer alone, the main sequence going on to its own end.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The executable's function that makes the call returning to an address of the injector's
// record ("0x1a2b"): the innermost one that is not one of the program's held_* call wrappers
// (inlined into their callers).
std::string function_at(const std::string &address) {
    char before[32];
    snprintf(before, sizeof before, "0x%llx", std::stoull(address, nullptr, 16) - 1);
    const std::string cmd = std::string("addr2line -f -C -i -e ") + FLASHAGING_BIN + " " + before;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) return "?";
    char line[512] = {};
    std::string found = "?";
    for (int i = 0; fgets(line, sizeof line, p) != nullptr; ++i) {
        if (i % 2 != 0) continue;  // file:line
        std::string name = line;
        const std::string anonymous = "(anonymous namespace)::";
        for (size_t at; (at = name.find(anonymous)) != std::string::npos;) name.erase(at, anonymous.size());
        name = name.substr(0, name.find_first_of("(\n"));  // the arguments
        const size_t colons = name.rfind("::");
        if (colons != std::string::npos) name = name.substr(colons + 2);
        if (name.rfind("held_", 0) != 0) {
            found = name;
            break;
        }
    }
    pclose(p);
    return found;
}

// The number of the first (or last) call of a trace ("call KIND N FUNCTION caller exe+0x...")
// made by `function` of the executable; 0 when there is none.
unsigned first_call_from(const std::string &record, const std::string &function, bool last = false) {
    const std::regex call(R"(call \S+ (\d+) \S+ caller exe\+(0x[0-9a-f]+))");
    std::istringstream lines(record);
    std::string line;
    unsigned found = 0;
    while (std::getline(lines, line)) {
        std::smatch m;
        if (std::regex_search(line, m, call) && function_at(m[2]) == function) {
            found = std::stoul(m[1]);
            if (!last) break;
        }
    }
    return found;
}

// Whether the log holds `body` as a whole line behind the timestamp prefix.
bool has_line(const std::string &log, const std::string &body_re) {
    return std::regex_search(log, std::regex(R"((^|\n)\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[\d+\])" + body_re + "\n"));
}

int run_alone(const std::string &plan, const std::string &dir) {
    // Under the address sanitizer, as the simulator runs it: the runtime accepts a library
    // preloaded before it only when told, and the loader's list is out of the leak check.
    const std::string cmd = std::string("rm -rf ") + dir + " && mkdir -p " + dir + " && echo leak:_dl_map_object_deps >" +
                            dir + "/leak-suppressions && ASAN_OPTIONS=verify_asan_link_order=0 LSAN_OPTIONS=suppressions=" +
                            dir + "/leak-suppressions:print_suppressions=0 LD_PRELOAD=" +
                            FLASHAGING_INJECT_LIB + " FLASHAGING_INJECT=" + plan + " FLASHAGING_INJECT_DIR=" + dir +
                            " " + FLASHAGING_BIN + " >" + dir + "/out.txt 2>&1";
    const int st = system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

uint64_t count_of(const std::string &dir, int kind) {
    const std::string counts = slurp(dir + "/count");
    uint64_t v = 0;
    if (counts.size() >= static_cast<size_t>(8 * (kind + 1))) memcpy(&v, counts.data() + 8 * kind, 8);
    return v;
}

// Outside a phone the program finds no daemon and ends after its first log line: two writes
// of standard output (the prefix and the body), and no call of another kind of its own,
// whatever the C library and the loader did to start it.
TEST(Injector, CountsOnlyTheProgramsOwnCalls) {
    const std::string dir = std::string(FLASHAGING_TEST_OUT) + "/Injector.CountsAlone";
    ASSERT_EQ(run_alone("all:0:count", dir), 0) << slurp(dir + "/out.txt");
    EXPECT_EQ(count_of(dir, 12), 2u) << "log";
    for (int kind = 1; kind <= 11; ++kind) EXPECT_EQ(count_of(dir, kind), 0u) << "kind " << kind;
    EXPECT_EQ(slurp(dir + "/record").rfind("armed all:0:count pid ", 0), 0u) << slurp(dir + "/record");
    // The program's shell commands and tools run without it.
    EXPECT_EQ(slurp(dir + "/out.txt").find("LD_PRELOAD"), std::string::npos);

    // The second write of the line: the signal goes to the thread once the line is out.
    ASSERT_EQ(run_alone("log:2:SIGTERM:after", dir), 0);
    const std::string out = slurp(dir + "/out.txt");
    EXPECT_NE(out.find("Connecting Aging UI deamon service...\n"), std::string::npos) << out;
    EXPECT_TRUE(has_line(out, R"(\[FLASH\]ERROR:flash_sigroutine:\d+ SIG 15 catched\n)")) << out;
    EXPECT_NE(slurp(dir + "/record").find("fired log:2:SIGTERM:after call vfprintf caller exe+0x"), std::string::npos);
}

// A trace of the kind, then the fault at the first (or last) call a function makes.
struct Fault {
    e2e::RunResult run;
    std::string record;
};

Fault fault_at_first_call(const std::string &kind, const std::string &function, const std::string &fault,
                          bool last = false) {
    Fault f;
    auto trace = e2e::run("sweep", {"inject = " + kind + ":0:trace", std::string("inject_lib = ") + FLASHAGING_INJECT_LIB});
    const unsigned n = first_call_from(slurp(trace.out_dir + "/inject/record"), function, last);
    EXPECT_GT(n, 0u) << "no " << kind << " call from " << function;
    if (n == 0) return f;
    f.run = e2e::run("sweep", {"inject = " + kind + ":" + std::to_string(n) + ":" + fault,
                               std::string("inject_lib = ") + FLASHAGING_INJECT_LIB});
    f.record = slurp(f.run.out_dir + "/inject/record");
    EXPECT_NE(f.record.find("fired " + kind + ":" + std::to_string(n) + ":" + fault), std::string::npos) << f.record;
    // Loaded into the executable alone: the shell commands and the health tool run without it.
    EXPECT_EQ(e2e::count(f.record, "armed "), 1) << f.record;
    return f;
}

// SIGTERM caught by one worker, which the handler ended; the main sequence went on to its end:
// the handler's report and the main sequence's, "START" kept in the record (the buffer dump
// took its descriptor).
void expect_one_worker_ended_and_the_main_sequence_went_on(const e2e::RunResult &r) {
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:flash_sigroutine:\d+ SIG 15 catched\n)")) << r.log;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]INFO:flash_agingcost:\d+ flash aging cost time :\d+\.\d+\(S\) )")) << r.log;
    EXPECT_EQ(r.verdict_word(), "START");
    EXPECT_EQ(e2e::count(r.journal, "dump_stack"), 1) << r.journal;
    EXPECT_EQ(e2e::count(r.journal, "cleanEnvDone 2 "), 2) << r.journal;
}

TEST(Injector, FailedAllocationOfTheFillersWorkerArraysSkipsTheFillButPasses) {
    Fault f = fault_at_first_call("alloc", "filler_run_workers", "ENOMEM");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:storage_filler:\d+ malloc failed)")) << r.log;
    EXPECT_EQ(e2e::count(r.log, "fill_fn"), 0) << "no writer started";
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]INFO:storage_filler_run:\d+ fill_cycle 0/1 cost \d+\.\d\ds)")) << r.log;
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_TRUE(e2e::journal_has(r, "cleanEnvDone 2 1")) << r.journal;
    EXPECT_EQ(e2e::count(r.journal, "finishOtherTest"), 0) << r.journal;
}

TEST(Injector, WriterThatCannotStartFailsTheCycle) {
    Fault f = fault_at_first_call("create", "filler_run_workers", "EAGAIN");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:storage_filler:\d+ create w_th 0 failed)")) << r.log;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:storage_filler_run:\d+ storage_filler cycle 0 fail 11)")) << r.log;
    EXPECT_EQ(e2e::count(r.log, "benchmark"), 0) << "the cycle ends before the benchmark";
    EXPECT_EQ(r.verdict_word(), "FAIL");
    EXPECT_TRUE(e2e::journal_has(r, "cleanEnvDone 2 0")) << r.journal;
    EXPECT_EQ(e2e::count(r.journal, "finishOtherTest 2"), 1) << r.journal;
}

// The first writer cannot be joined: the cycle fails (with the join's error, or with the failure
// of a reader stopped before it found files, which the outputs' check puts after it), and the
// threads' records are left to that writer, which may still run (listed as kept: under the
// address sanitizer the leak check reported them lost).
TEST(Injector, WriterThatCannotBeJoinedFailsTheCycleAndKeepsItsRecords) {
    Fault f = fault_at_first_call("join", "filler_run_workers", "EINVAL");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(r.exe_status, 0) << r.sim_output;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:storage_filler:\d+ join thread 0 failed)")) << r.log;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:storage_filler_run:\d+ storage_filler cycle 0 fail (22|1))")) << r.log;
    EXPECT_EQ(r.verdict_word(), "FAIL");
    EXPECT_TRUE(e2e::journal_has(r, "cleanEnvDone 2 0")) << r.journal;
}

// SIGTERM to the first writer just after it took the spin lock of its choice of a file: it
// holds the signal until it lets go of the lock, then the handler ends it alone. The main
// sequence goes on to its end: two verdict reports to the daemon, the handler's (with its
// finishOtherTest) and the main sequence's, and "START" stays in the record (the buffer
// dump took its descriptor).
TEST(Injector, SignalAtAWritersSpinLockEndsThatWriterAlone) {
    // Before the writers only the watchdog locks (once), so this is the first writer's lock.
    Fault f = fault_at_first_call("lock", "random_finish_group_file", "SIGTERM:after");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(f.record, m, std::regex(R"(fired lock:\d+:SIGTERM:after call pthread_spin_lock caller exe\+(0x[0-9a-f]+) tid (\d+))")))
        << f.record;
    EXPECT_EQ(function_at(m[1]), "random_finish_group_file");
    EXPECT_NE(r.log.find("][" + std::string(m[2]) + "][FLASH]ERROR:flash_sigroutine:"), std::string::npos)
        << "caught by the writer that took the lock";
    expect_one_worker_ended_and_the_main_sequence_went_on(r);
    const int finishes = e2e::count(r.journal, "finishOtherTest 2");
    EXPECT_TRUE(finishes == 1 || (finishes == 2 && e2e::journal_has(r, "cleanEnvDone 2 0"))) << r.journal;
}

// SIGTERM to the first reader just after it allocated its read buffer: the handler ends that
// reader alone and the main sequence goes on to its end, where the address sanitizer's leak
// check runs (the buffer went with the ended reader; it is now kept in the reader's record,
// which the cycle frees after the join).
TEST(Injector, ReaderEndedHoldingItsBufferLeavesItToTheCycle) {
    Fault f = fault_at_first_call("alloc", "read_disturb_file_in", "SIGTERM:after");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(r.exe_status, 0) << r.sim_output;
    expect_one_worker_ended_and_the_main_sequence_went_on(r);
}

// SIGTERM to the main thread at its last allocation, after the verdict (the clean-up before its
// own report to the daemon): the handler reports and ends it, the process's last thread, and
// the process ends there (under the address sanitizer the leak check then named what the
// ended thread had just allocated and failed the run).
TEST(Injector, MainThreadEndedAfterTheVerdictEndsTheProcessCleanly) {
    Fault f = fault_at_first_call("alloc", "fv_cleanup", "SIGTERM", /*last=*/true);
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(r.exe_status, 0) << r.sim_output;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:flash_sigroutine:\d+ SIG 15 catched\n)")) << r.log;
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_EQ(e2e::count(r.journal, "dump_stack"), 1) << r.journal;
    EXPECT_EQ(e2e::count(r.journal, "cleanEnvDone 2 "), 1) << "the handler's only: " << r.journal;
    EXPECT_EQ(e2e::count(r.journal, "finishOtherTest 2"), 1) << r.journal;
}

// SIGTERM just after the pass/fail record is created, before it says START: the signal waits
// until the record says START and the handler has its descriptor, so the handler's verdict
// goes into it (it was left empty, a record with no word at all).
TEST(Injector, SignalJustAfterTheRecordIsCreatedFindsItSayingStart) {
    Fault f = fault_at_first_call("open", "open_result_marker", "SIGTERM:after");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    ASSERT_TRUE(r.has_record);
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:flash_sigroutine:\d+ SIG 15 catched\n)")) << r.log;
    EXPECT_EQ(r.log.find("Init Success!"), std::string::npos) << "the main thread ended in set-up";
    EXPECT_EQ(r.verdict_word(), "SUCCESS") << "the verdict the handler saw: nothing had failed";
    EXPECT_EQ(e2e::count(r.journal, "dump_stack"), 1) << r.journal;
}

// SIGTERM to the main thread while it writes the results file through its temporary name
// (an allocation of the memory-temperature section): the signal waits until the file is in
// place, so no half-written temporary file stays beside it. (With the kernel's thread exit,
// the strict-end build, an empty one stayed: the ended thread's stream was never flushed.)
TEST(Injector, SignalWhileTheResultsAreWrittenLeavesNoTemporaryFile) {
    Fault f = fault_at_first_call("alloc", "write_memory_temperature", "SIGTERM");
    const e2e::RunResult &r = f.run;
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_TRUE(has_line(r.log, R"(\[FLASH\]ERROR:flash_sigroutine:\d+ SIG 15 catched\n)")) << r.log;
    EXPECT_FALSE(r.exists("factory/flash_aging_results.csv_temp"));
    ASSERT_TRUE(r.has_results_csv);
    EXPECT_NE(r.results_csv.find("\nversion,description,test_id,result_id,units,minimum,maximum,value,stdev,"
                                 "num_samples,test_ran,duration_sec,status\n"),
              std::string::npos)
        << r.results_csv;
    EXPECT_EQ(r.results_csv.back(), '\n');
    EXPECT_EQ(r.verdict_word(), "START");
    EXPECT_EQ(e2e::count(r.journal, "dump_stack"), 1) << r.journal;
}

}  // namespace
