#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/healthinfo.h"
#include "flashaging/pattern.h"
#include "flashaging/sbmt_barrier.h"
#include "flashaging/storage_filler.h"

namespace fs = std::filesystem;

namespace {

struct CapturedStdout {
    CapturedStdout() { testing::internal::CaptureStdout(); }
    std::string take() {
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
};

int count_matches(const std::string &text, const std::string &re) {
    std::regex r(re);
    return static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), r), std::sregex_iterator()));
}

// ---- descriptor --------------------------------------------------------------------------

TEST(StorageFillerDescriptor, PresetRecordAndOperations) {
    flash_test *t = storage_filler_init();
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->run, storage_filler_run);
    EXPECT_EQ(t->get_results, storage_filler_get_results);
    EXPECT_EQ(t->destroy, storage_filler_destroy);

    uint32_t count = 0;
    test_result *r = t->get_results(t, &count);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(r, &t->results[0]);
    EXPECT_EQ(r->version, nullptr);
    EXPECT_STREQ(r->description, "storage filler");
    EXPECT_EQ(r->test_id, 6);
    EXPECT_EQ(r->result_id, 1u);
    EXPECT_EQ(r->units, nullptr);
    EXPECT_EQ(r->value, 0.0f);  // the test reports only its verdict
    EXPECT_EQ(r->num_samples, 0u);
    EXPECT_EQ(r->test_ran, 0);
    EXPECT_EQ(r->status, 2);
}

// ---- the writer's space test -------------------------------------------------------------

TEST(FillerSpace, StopsAtMarginPlusReserveComparedUnsigned) {
    const uint64_t margin = 2 * 268435456ull;
    const uint64_t reserve = 1000ull << 20;
    EXPECT_TRUE(filler_space_reached(margin + reserve, margin, reserve));
    EXPECT_FALSE(filler_space_reached(margin + reserve + 1, margin, reserve));
    // At or below the margin: no subtraction that could wrap around.
    EXPECT_TRUE(filler_space_reached(margin, margin, 0));
    EXPECT_TRUE(filler_space_reached(100, margin, reserve));
    EXPECT_FALSE(filler_space_reached(margin + 1, margin, 0));
    // A failed measurement (all ones) never stops the filling.
    EXPECT_FALSE(filler_space_reached(~0ull, margin, reserve));
    // A negative reserve setting widens to a huge reserve: nothing is written.
    const uint64_t negative_reserve = static_cast<uint64_t>(static_cast<int64_t>(-1) << 20);
    EXPECT_TRUE(filler_space_reached(~0ull - 1, margin, negative_reserve));
}

TEST(FillerSpace, MeasuresFreeBlocksOfTheSuperuser) {
    struct statfs st {};
    ASSERT_EQ(statfs("/var/tmp", &st), 0);
    const uint64_t free_now = filler_free_space("/var/tmp");
    const uint64_t expected = uint64_t(st.f_bfree) * st.f_bsize;
    // The disk is shared with other work: allow it to move by a little.
    EXPECT_NEAR(double(free_now), double(expected), double(256ull << 20));
    // Not the smaller count left to unprivileged users.
    const uint64_t user_free = uint64_t(st.f_bavail) * st.f_bsize;
    if (expected - user_free > (1ull << 30)) {
        EXPECT_GT(free_now, user_free + (512ull << 20));
    }
}

TEST(FillerSpace, FailedStatfsMeansUnlimited) {
    CapturedStdout cap;
    EXPECT_EQ(filler_free_space("/nonexistent/flashaging/dir"), ~0ull);
    EXPECT_TRUE(std::regex_match(
        cap.take(),
        std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_free_space:\d+ fail to get stat for FS\n)")));
}

// ---- battery throttle --------------------------------------------------------------------

std::vector<int> g_temps;
size_t g_temp_reads;
std::vector<unsigned> g_sleeps;

int fake_temp() {
    int t = g_temps[std::min(g_temp_reads, g_temps.size() - 1)];
    ++g_temp_reads;
    return t;
}
void fake_sleep(unsigned s) { g_sleeps.push_back(s); }

int throttle(std::vector<int> temps, std::string *out) {
    g_temps = std::move(temps);
    g_temp_reads = 0;
    g_sleeps.clear();
    CapturedStdout cap;
    int n = filler_wait_battery(fake_temp, fake_sleep);
    *out = cap.take();
    return n;
}

TEST(FillerBattery, At490NoWait) {
    std::string out;
    EXPECT_EQ(throttle({490}, &out), 0);
    EXPECT_TRUE(g_sleeps.empty());
    EXPECT_EQ(g_temp_reads, 1u);
    EXPECT_EQ(out, "");
}

TEST(FillerBattery, HotWaitsInTenSecondStepsAndSpeaksEveryHundredSeconds) {
    std::string out;
    // Hot at the first reading and after nine sleeps: ten sleeps, one line after 100 s.
    std::vector<int> temps(10, 491);
    temps.push_back(490);
    EXPECT_EQ(throttle(temps, &out), 10);
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(10, 10u));
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:storage_filler:\d+ BATTERY_TEMP higher than 490, sleep 100s\n\n)")))
        << out;

    // Cooling after nine sleeps: silent.
    temps.assign(9, 600);
    temps.push_back(400);
    EXPECT_EQ(throttle(temps, &out), 9);
    EXPECT_EQ(out, "");

    // 25 sleeps: the lines say 100 and 200.
    temps.assign(25, 491);
    temps.push_back(-5);
    EXPECT_EQ(throttle(temps, &out), 25);
    EXPECT_EQ(count_matches(out, "BATTERY_TEMP higher than 490, sleep 100s\n\n"), 1);
    EXPECT_EQ(count_matches(out, "BATTERY_TEMP higher than 490, sleep 200s\n\n"), 1);
    EXPECT_EQ(count_matches(out, "BATTERY_TEMP"), 2);
}

// ---- the decision after a fill -----------------------------------------------------------

int g_bench_result, g_bench_calls, g_judge_result, g_judge_calls;
const healthinfo *g_judged;
int fake_bench() { ++g_bench_calls; return g_bench_result; }
int fake_judge(const healthinfo *h) { ++g_judge_calls; g_judged = h; return g_judge_result; }

struct CycleEnd {
    bool end;
    int32_t result;
    std::string out;
};

CycleEnd cycle_end(int cycle, int32_t fill, int go_on, int bench, int judge) {
    g_bench_result = bench;
    g_judge_result = judge;
    g_bench_calls = g_judge_calls = 0;
    g_judged = nullptr;
    static healthinfo rec {};
    CycleEnd r {};
    r.result = -77;
    CapturedStdout cap;
    r.end = filler_cycle_end(cycle, fill, go_on, &rec, filler_cycle_steps {fake_bench, fake_judge},
                             &r.result);
    r.out = cap.take();
    if (g_judge_calls > 0) {
        EXPECT_EQ(g_judged, &rec);
    }
    return r;
}

TEST(FillerCycleEnd, CleanCycleRunsBenchmarkAndJudgement) {
    CycleEnd r = cycle_end(3, 0, 0, 0, 0);
    EXPECT_FALSE(r.end);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(g_bench_calls, 1);
    EXPECT_EQ(g_judge_calls, 1);
    EXPECT_EQ(r.out, "");
}

TEST(FillerCycleEnd, WatchdogEndStopsAtOnceAndIsAPass) {
    for (int go_on : {0, 1}) {
        CycleEnd r = cycle_end(4, WDT_TIMEOUT_CODE, go_on, 0, 0);
        EXPECT_TRUE(r.end);
        EXPECT_EQ(r.result, WDT_TIMEOUT_CODE);
        EXPECT_EQ(g_bench_calls + g_judge_calls, 0);
        EXPECT_EQ(count_matches(r.out, R"(ERROR:storage_filler_run:\d+ storage_filler cycle 4 exit, wdt timeout\n)"), 1)
            << r.out;
        // The final judgement ORs 1 into the result: 0x4321 is odd and stays a pass.
        EXPECT_EQ(filler_verdict(r.result | 1), 1);
    }
}

TEST(FillerCycleEnd, FailedFillEndsUnlessGoingOn) {
    CycleEnd r = cycle_end(2, 1, 0, 0, 0);
    EXPECT_TRUE(r.end);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(g_bench_calls, 0);
    EXPECT_EQ(count_matches(r.out, R"(ERROR:storage_filler_run:\d+ storage_filler cycle 2 fail 1\n)"), 1) << r.out;
    EXPECT_EQ(filler_verdict(r.result), 0);

    // Going on: the benchmark fails too, but only the last health judgement counts.
    r = cycle_end(2, 11, 1, 5, 0);
    EXPECT_FALSE(r.end);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(g_bench_calls, 1);
    EXPECT_EQ(g_judge_calls, 1);
    EXPECT_EQ(count_matches(r.out, R"(storage_filler cycle 2 fail 11\n)"), 1) << r.out;
    EXPECT_EQ(count_matches(r.out, R"(ERROR:storage_filler_run:\d+ benchmark_check cycle 2 fail 5\n)"), 1) << r.out;
}

TEST(FillerCycleEnd, FailedBenchmarkOrJudgement) {
    CycleEnd r = cycle_end(0, 0, 0, 5, 0);
    EXPECT_TRUE(r.end);
    EXPECT_EQ(r.result, 5);
    EXPECT_EQ(g_judge_calls, 0);

    r = cycle_end(1, 0, 0, 0, 1);
    EXPECT_TRUE(r.end);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(count_matches(r.out, R"(ERROR:storage_filler_run:\d+ healthinfo_judge cycle 1 fail 1\n)"), 1) << r.out;

    r = cycle_end(1, 0, 1, 0, 1);
    EXPECT_FALSE(r.end);  // going on; the failure stays in the result for the next step
    EXPECT_EQ(r.result, 1);
}

TEST(FillerVerdict, PassOnlyForZeroAndWatchdogEnd) {
    EXPECT_EQ(filler_verdict(0), 1);
    EXPECT_EQ(filler_verdict(WDT_TIMEOUT_CODE), 1);
    EXPECT_EQ(filler_verdict(1), 0);
    EXPECT_EQ(filler_verdict(0 | 1), 0);
    EXPECT_EQ(filler_verdict(WDT_TIMEOUT_CODE + 1), 0);
    EXPECT_EQ(filler_verdict(-1), 0);
    EXPECT_EQ(filler_verdict(12), 0);  // a thread start error number
}

// ---- the writers -------------------------------------------------------------------------

class FillerWriters : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/var/tmp/filler_test.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        root_ = templ;
        dir_ = root_ + "/file_pattern/";
        saved_args_ = g_args;
        saved_left_ = left_space;
        g_args = &args_;
        args_.test_over.store(0);
        g_filler_stop.store(0);
    }
    void TearDown() override {
        g_args = saved_args_;
        left_space = saved_left_;
        fs::remove_all(root_);
    }

    struct Writer {
        filler rec;
        const char *dir;
        const char *space;
    };
    static void *writer(void *arg) {
        auto *w = static_cast<Writer *>(arg);
        filler_write_files(&w->rec, w->dir, w->space);
        return nullptr;
    }

    // Runs n writers of group `group` the way a cycle does (lock, barrier of n).
    std::vector<filler> run_writers(int n, uint32_t group, std::string *out) {
        std::vector<Writer> ws(n);
        std::vector<pthread_t> th(n);
        pthread_spin_init(&g_filler_lock, PTHREAD_PROCESS_PRIVATE);
        sbmt_barrier_init(&g_filler_barrier, n);
        CapturedStdout cap;
        for (int i = 0; i < n; ++i) {
            ws[i] = Writer {filler {group, -1}, dir_.c_str(), root_.c_str()};
            EXPECT_EQ(pthread_create(&th[i], nullptr, writer, &ws[i]), 0);
        }
        for (pthread_t t : th)
            pthread_join(t, nullptr);
        *out = cap.take();
        sbmt_barrier_destroy(&g_filler_barrier);
        pthread_spin_destroy(&g_filler_lock);
        std::vector<filler> recs;
        for (const Writer &w : ws)
            recs.push_back(w.rec);
        return recs;
    }

    test_args args_ {};
    test_args *saved_args_ = nullptr;
    int saved_left_ = 0;
    std::string root_;
    std::string dir_;
};

TEST_F(FillerWriters, NoRoomWritesNothingAndStopsTheOthers) {
    pattern_init(dir_.c_str(), 2);
    left_space = INT_MAX;  // a reserve larger than any disk
    std::string out;
    std::vector<filler> recs = run_writers(1, 2, &out);
    EXPECT_EQ(recs[0].output, 0);
    EXPECT_EQ(g_filler_stop.load() & 1, 1);
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:fill_fn:\d+ runs 0, ret 0, fill 0MB,  speed is [0-9.]+ MB/s, cost is [0-9.]+s\n)")))
        << out;
    EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(FillerWriters, WatchdogEndGivesTheTimeoutCode) {
    pattern_init(dir_.c_str(), 2);
    left_space = INT_MAX;
    args_.test_over.store(1);
    std::string out;
    std::vector<filler> recs = run_writers(1, 2, &out);
    EXPECT_EQ(recs[0].output, WDT_TIMEOUT_CODE);
    EXPECT_NE(out.find("runs 0, ret 17185, fill 0MB"), std::string::npos) << out;
}

TEST_F(FillerWriters, EightWritersFillPassesOfPatternFilesUpToTheReserve) {
    pattern_init(dir_.c_str(), 2);  // 8 files of 32 MiB per pass
    const uint64_t margin = 2 * uint64_t(g_group_size.load());
    // Room for about three passes above the reserve (each pass is 256 MiB); other work on
    // the same disk may move the free space a little.
    const uint64_t free_now = filler_free_space(root_.c_str());
    ASSERT_GT(free_now, margin + (3ull << 30)) << "not enough disk for this test";
    left_space = int((free_now - margin - (600ull << 20)) >> 20);

    std::string out;
    std::vector<filler> recs = run_writers(8, 2, &out);
    for (const filler &f : recs)
        EXPECT_EQ(f.output, 0);
    EXPECT_EQ(g_filler_stop.load() & 1, 1);
    EXPECT_EQ(count_matches(out, R"(INFO:fill_fn:\d+ runs \d+, ret 0, fill \d+MB,  speed is )"), 8) << out;
    EXPECT_EQ(out.find("write fail"), std::string::npos) << out;

    // Every file is a whole 32 MiB of pattern 7, named 7_33554432_<seq> from 1 upward.
    const std::vector<uint8_t> p7 = {0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0x33, 0x00, 0x33,
                                     0x00, 0x33, 0x00, 0x33, 0x00, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF,
                                     0x00, 0xFF, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0x77,
                                     0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x10, 0x01, 0x01, 0x10,
                                     0x10, 0x01, 0x01, 0x10, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF,
                                     0xEF, 0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55};
    std::vector<int> seqs;
    uint64_t bytes = 0;
    for (const auto &e : fs::directory_iterator(dir_)) {
        std::smatch m;
        std::string name = e.path().filename().string();
        ASSERT_TRUE(std::regex_match(name, m, std::regex(R"(7_33554432_(\d+))"))) << name;
        seqs.push_back(std::stoi(m[1]));
        ASSERT_EQ(fs::file_size(e.path()), 33554432u) << name;
        bytes += fs::file_size(e.path());
        std::ifstream in(e.path(), std::ios::binary);
        std::vector<char> data(33554432);
        in.read(data.data(), static_cast<std::streamsize>(data.size()));
        ASSERT_EQ(in.gcount(), static_cast<std::streamsize>(data.size()));
        for (size_t k = 0; k < data.size(); k += 4093)
            ASSERT_EQ(static_cast<uint8_t>(data[k]), p7[k % 64]) << name << " byte " << k;
    }
    // More than one pass, all numbers 1..N used once.
    std::sort(seqs.begin(), seqs.end());
    ASSERT_GE(seqs.size(), 16u);
    for (size_t i = 0; i < seqs.size(); ++i)
        EXPECT_EQ(seqs[i], int(i) + 1);
    EXPECT_GE(bytes, 512ull << 20);
}

}  // namespace
