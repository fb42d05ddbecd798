// The storage filler's pieces: the space test, the battery wait, the decision after a fill,
// the verdict, and a writer that finds no room. Whole cycles run in the end-to-end scenarios.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/statfs.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/healthinfo.h"
#include "flashaging/pattern.h"
#include "flashaging/sbmt_barrier.h"
#include "flashaging/storage_filler.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace ut;

TEST(FillerSpace, StopsAtMarginPlusReserveComparedUnsigned) {
    const uint64_t margin = 2 * 268435456ull, reserve = 1000ull << 20;
    // A negative reserve setting widens to a huge reserve: nothing is written.
    const uint64_t negative_reserve = static_cast<uint64_t>(static_cast<int64_t>(-1) << 20);
    const struct {
        uint64_t free_bytes, reserve;
        bool reached;
    } cases[] = {
        {margin + reserve, reserve, true}, {margin + reserve + 1, reserve, false},
        {margin, 0, true},  // at or below the margin: no subtraction that could wrap around
        {100, reserve, true}, {margin + 1, 0, false},
        {~0ull, reserve, false},  // a failed measurement (all ones) never stops the filling
        {~0ull - 1, negative_reserve, true},
    };
    for (const auto &c : cases) EXPECT_EQ(filler_space_reached(c.free_bytes, margin, c.reserve), c.reached) << c.free_bytes;
}

TEST(FillerSpace, MeasuresFreeBlocksOfTheSuperuserOrAllOnes) {
    ScratchDir tmp;
    struct statfs st {};
    ASSERT_EQ(statfs(tmp.path().c_str(), &st), 0);
    const uint64_t free_now = filler_free_space(tmp.path().c_str());
    // The disk is shared with other work: allow it to move by a little.
    EXPECT_NEAR(double(free_now), double(uint64_t(st.f_bfree) * st.f_bsize), double(256ull << 20));
    // Not the smaller count left to unprivileged users.
    const uint64_t user_free = uint64_t(st.f_bavail) * st.f_bsize;
    EXPECT_TRUE(uint64_t(st.f_bfree) * st.f_bsize - user_free <= (1ull << 30) || free_now > user_free + (512ull << 20));

    uint64_t v = 0;
    std::string out = capture([&] { v = filler_free_space("/nonexistent/flashaging/dir"); });
    EXPECT_EQ(v, ~0ull);
    EXPECT_TRUE(matches(out, line("INFO", "get_free_space", "fail to get stat for FS\n"))) << out;
}

// ---- battery wait ------------------------------------------------------------------------

std::vector<int> g_temps;
size_t g_temp_reads;
std::vector<unsigned> g_sleeps;

TEST(FillerBattery, HotWaitsInTenSecondStepsAndSpeaksEveryHundredSeconds) {
    const auto hot_then = [](int hot, int reading, int cool) {
        std::vector<int> temps(hot, reading);
        temps.push_back(cool);
        return temps;
    };
    const std::string hot_line = "BATTERY_TEMP higher than 490, sleep %ds\n\n";
    const struct {
        std::vector<int> temps;
        int sleeps;
        std::string log;
    } cases[] = {
        {{490}, 0, ""},
        // Hot at the first reading and after nine sleeps: ten sleeps, one line after 100 s.
        {hot_then(10, 491, 490), 10, line("INFO", "storage_filler", "BATTERY_TEMP higher than 490, sleep 100s\n\n")},
        {hot_then(9, 600, 400), 9, ""},
        {hot_then(25, 491, -5), 25,
         line("INFO", "storage_filler", "BATTERY_TEMP higher than 490, sleep 100s\n\n") +
             line("INFO", "storage_filler", "BATTERY_TEMP higher than 490, sleep 200s\n\n")},
    };
    for (const auto &c : cases) {
        g_temps = c.temps;
        g_temp_reads = 0;
        g_sleeps.clear();
        int n = -1;
        std::string out = capture([&] {
            n = filler_wait_battery([] { return g_temps[std::min(g_temp_reads++, g_temps.size() - 1)]; },
                                    [](unsigned s) { g_sleeps.push_back(s); });
        });
        EXPECT_EQ(n, c.sleeps);
        EXPECT_EQ(g_sleeps, std::vector<unsigned>(c.sleeps, 10u));
        EXPECT_EQ(g_temp_reads, c.temps.size());
        EXPECT_TRUE(matches(out, c.log)) << out;
    }
}

// ---- the decision after a fill -----------------------------------------------------------

int g_bench_result, g_bench_calls, g_judge_result, g_judge_calls;
const healthinfo *g_judged;

TEST(FillerCycleEnd, WatchdogEndsAtOnceFailuresEndUnlessGoingOnLastJudgementCounts) {
    const auto error = [](const std::string &body) { return line("ERROR", "storage_filler_run", body); };
    const struct {
        int cycle, fill, go_on, bench, judge;
        bool end;
        int result, bench_calls, judge_calls;
        std::string log;
    } cases[] = {
        {3, 0, 0, 0, 0, false, 0, 1, 1, ""},
        {4, WDT_TIMEOUT_CODE, 0, 0, 0, true, WDT_TIMEOUT_CODE, 0, 0, error("storage_filler cycle 4 exit, wdt timeout\n")},
        {4, WDT_TIMEOUT_CODE, 1, 0, 0, true, WDT_TIMEOUT_CODE, 0, 0, error("storage_filler cycle 4 exit, wdt timeout\n")},
        {2, 1, 0, 0, 0, true, 1, 0, 0, error("storage_filler cycle 2 fail 1\n")},
        // Going on: the benchmark fails too, but only the last health judgement counts.
        {2, 11, 1, 5, 0, false, 0, 1, 1, error("storage_filler cycle 2 fail 11\n") + error("benchmark_check cycle 2 fail 5\n")},
        {0, 0, 0, 5, 0, true, 5, 1, 0, error("benchmark_check cycle 0 fail 5\n")},
        {1, 0, 0, 0, 1, true, 1, 1, 1, error("healthinfo_judge cycle 1 fail 1\n")},
        // Going on, the failure stays in the result for the next step.
        {1, 0, 1, 0, 1, false, 1, 1, 1, error("healthinfo_judge cycle 1 fail 1\n")},
    };
    static const healthinfo rec{};
    const filler_cycle_steps steps{[] {
                                       ++g_bench_calls;
                                       return g_bench_result;
                                   },
                                   [](const healthinfo *h) {
                                       g_judged = h;
                                       ++g_judge_calls;
                                       return g_judge_result;
                                   }};
    for (const auto &c : cases) {
        SCOPED_TRACE("fill " + std::to_string(c.fill) + " go_on " + std::to_string(c.go_on));
        g_bench_result = c.bench;
        g_judge_result = c.judge;
        g_bench_calls = g_judge_calls = 0;
        g_judged = nullptr;
        int32_t result = -77;
        bool end = false;
        std::string out = capture([&] { end = filler_cycle_end(c.cycle, c.fill, c.go_on, &rec, steps, &result); });
        EXPECT_EQ(end, c.end);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(g_bench_calls, c.bench_calls);
        EXPECT_EQ(g_judge_calls, c.judge_calls);
        EXPECT_EQ(g_judged, c.judge_calls ? &rec : nullptr);
        EXPECT_TRUE(matches(out, c.log)) << out;
    }
}

TEST(FillerVerdict, PassOnlyForZeroAndWatchdogEnd) {
    // The final judgement ORs 1 into a watchdog end: 0x4321 is odd and stays a pass.
    const std::pair<int32_t, uint8_t> cases[] = {{0, 1}, {WDT_TIMEOUT_CODE, 1}, {WDT_TIMEOUT_CODE | 1, 1}, {1, 0},
                                                 {WDT_TIMEOUT_CODE + 1, 0}, {-1, 0}, {12, 0}};
    for (const auto &[result, verdict] : cases) EXPECT_EQ(filler_verdict(result), verdict) << result;
}

// ---- the writer --------------------------------------------------------------------------

TEST(FillerWriter, NoRoomWritesNothingAndStopsTheOthers) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("file_pattern");
    capture([&] { pattern_init(dir.c_str(), 2); });
    test_args args{};
    test_args *saved_args = g_args;
    const int saved_left = left_space;
    g_args = &args;
    g_filler_stop.store(0);
    left_space = INT_MAX;  // a reserve larger than any disk
    pthread_spin_init(&g_filler_lock, PTHREAD_PROCESS_PRIVATE);
    sbmt_barrier_init(&g_filler_barrier, 1);
    filler rec{2, -1};
    std::string out = capture([&] { filler_write_files(&rec, dir.c_str(), tmp.path().c_str()); });
    sbmt_barrier_destroy(&g_filler_barrier);
    pthread_spin_destroy(&g_filler_lock);
    g_args = saved_args;
    left_space = saved_left;

    EXPECT_EQ(rec.output, 0);
    EXPECT_EQ(g_filler_stop.load() & 1, 1);
    EXPECT_TRUE(matches(out, line("INFO", "fill_fn", "runs 0, ret 0, fill 0MB,  speed is ") +
                                 R"([0-9.]+ MB/s, cost is [0-9.]+s\n)"))
        << out;
    EXPECT_TRUE(fs::is_empty(dir));
}

// ---- a cycle whose threads cannot all be started ----------------------------------------

// Stand-ins for the twelve workers: the start seam runs these instead of the real writers
// and readers. A worker may report at once (before the failed start) and again once the
// stop flag tells it to end (as a reader that found no files, or a writer that saw the
// watchdog, would).
struct FakeWorker {
    int32_t at_once = 0;
    int32_t when_stopped = 0;
    filler *rec = nullptr;
    std::atomic<bool> reported{false};
};
FakeWorker g_fakes[kFillerWriters + kFillerReaders];
std::atomic<int> g_starts;
int g_fail_at, g_fail_errno;

void *fake_worker(void *arg) {
    auto *w = static_cast<FakeWorker *>(arg);
    if (w->at_once != 0) w->rec->output.store(w->at_once);
    w->reported.store(true);
    while ((g_filler_stop.load() & 1) == 0) usleep(1000);
    if (w->when_stopped != 0) w->rec->output.store(w->when_stopped);
    return nullptr;
}

int fake_start(pthread_t *handle, const pthread_attr_t *, void *(*)(void *), void *rec) {
    const int i = g_starts++;
    if (i == g_fail_at) {
        // The failure comes once the started workers have made their early reports.
        for (int k = 0; k < i; ++k)
            while (!g_fakes[k].reported.load()) usleep(1000);
        return g_fail_errno;
    }
    g_fakes[i].rec = static_cast<filler *>(rec);
    return pthread_create(handle, nullptr, fake_worker, &g_fakes[i]);
}

TEST(FillerWorkers, FailedStartJudgesTheRecordsAsTheyStoodThen) {
    const auto error = [](const std::string &body) { return line("ERROR", "storage_filler", body); };
    const struct {
        int fail_at;
        std::map<int, int32_t> at_once, when_stopped;
        int32_t fill;
        std::string log;
    } cases[] = {
        // Nothing reported when writer 5 could not start: the start's error number is the
        // result, whatever the stopped threads say afterwards.
        {5, {}, {{0, 1}, {3, WDT_TIMEOUT_CODE}}, EAGAIN, error("create w_th 5 failed\n")},
        // Reader 1 had already failed when reader 2 could not start: its output is the result.
        {10, {{9, 1}}, {{0, WDT_TIMEOUT_CODE}, {8, 1}}, 1,
         error("create r_th 2 failed\n") + error("filler[9].output is 1\n")},
        // Every thread started: the outputs after the joins count.
        {-1, {}, {{3, 1}, {11, WDT_TIMEOUT_CODE}}, 1, error("filler[3].output is 1\n")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("fail at " + std::to_string(c.fail_at));
        for (int i = 0; i < kFillerWriters + kFillerReaders; ++i) {
            g_fakes[i].at_once = c.at_once.count(i) ? c.at_once.at(i) : 0;
            g_fakes[i].when_stopped = c.when_stopped.count(i) ? c.when_stopped.at(i) : 0;
            g_fakes[i].rec = nullptr;
            g_fakes[i].reported.store(false);
        }
        g_starts = 0;
        g_fail_at = c.fail_at;
        g_fail_errno = EAGAIN;
        if (c.fail_at < 0) {
            // All start; they are stopped from here once all have reported.
            std::thread stopper([] {
                while (g_starts < kFillerWriters + kFillerReaders) usleep(1000);
                for (auto &w : g_fakes)
                    while (!w.reported.load()) usleep(1000);
                g_filler_stop.store(1);
            });
            int32_t fill = -1;
            const std::string out = capture([&] { fill = filler_run_workers(2, fake_start); });
            stopper.join();
            EXPECT_EQ(fill, c.fill);
            EXPECT_TRUE(matches(out, c.log)) << out;
            continue;
        }
        int32_t fill = -1;
        const std::string out = capture([&] { fill = filler_run_workers(2, fake_start); });
        EXPECT_EQ(fill, c.fill);
        EXPECT_TRUE(matches(out, c.log)) << out;
        EXPECT_EQ(g_filler_stop.load() & 1, 1) << "the started threads are told to stop";
    }
}

}  // namespace
