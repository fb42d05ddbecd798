#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// ---- a scripted world for the runner ---------------------------------------------------

std::vector<std::string> g_events;
int g_driver_answer = 1;
int g_judge_answer = 0;
std::vector<test_result> g_saved;  // the array as the last save saw it
uint64_t g_saved_count = 0;
int g_saves = 0;

unsigned fake_health_get(healthinfo *info) {
    g_events.push_back("health_get");
    info->entry[0].value = 1;
    return 1;
}
int fake_health_judge(const healthinfo *before) {
    g_events.push_back(before->entry[0].value == 1 ? "judge(snapshot)" : "judge(other)");
    return g_judge_answer;
}
int fake_cleanup() {
    g_events.push_back("cleanup");
    return 0;
}
void fake_setup() { g_events.push_back("setup"); }
int fake_driver_state() {
    g_events.push_back("driver");
    return g_driver_answer;
}
void fake_save(const test_result *results, uint64_t count) {
    g_events.push_back("save " + std::to_string(count));
    ++g_saves;
    g_saved_count = count;
    g_saved.assign(results, results + (results ? count : 0));
}
int fake_progress(int percent, int which) {
    g_events.push_back("progress " + std::to_string(percent) + " " + std::to_string(which));
    return 0;
}

const runner_ops kOps = {fake_health_get, fake_health_judge, fake_cleanup, fake_setup,
                         fake_driver_state, fake_save, fake_progress};

// A test whose operations only note their calls. The descriptor comes first so the
// operations find their test again.
struct FakeTest {
    flash_test desc;
    const char *name;
    uint32_t counts[4];  // records reported by the 1st, 2nd, ... get_results call
    int get_calls;
    int runs;
    int destroys;
    uint8_t status_after_run;
    double duration_after_run;
    useconds_t run_sleep;
    test_result recs[4];
};

int occurrences(const std::string &text, const std::string &needle) {
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
        ++n;
    return n;
}

FakeTest *fake_of(flash_test *t) { return reinterpret_cast<FakeTest *>(t); }

int fake_run(flash_test *t) {
    FakeTest *f = fake_of(t);
    g_events.push_back(std::string("run ") + f->name);
    ++f->runs;
    if (f->run_sleep) usleep(f->run_sleep);
    for (test_result &r : f->recs) {
        r.status = f->status_after_run;
        r.duration_sec = f->duration_after_run;
        r.test_ran = 1;
    }
    return 0;
}
test_result *fake_get_results(flash_test *t, uint32_t *count) {
    FakeTest *f = fake_of(t);
    int call = f->get_calls < 3 ? f->get_calls : 3;
    ++f->get_calls;
    *count = f->counts[call];
    return f->recs;
}
int fake_destroy(flash_test *t) {
    ++fake_of(t)->destroys;
    return 0;
}

void make_fake(FakeTest &f, const char *name, int32_t test_id, const char *description) {
    memset(&f, 0, sizeof f);
    f.desc.run = fake_run;
    f.desc.get_results = fake_get_results;
    f.desc.destroy = fake_destroy;
    f.name = name;
    for (uint32_t &c : f.counts) c = 1;
    f.status_after_run = 1;
    for (uint32_t i = 0; i < 4; ++i) {
        test_result &r = f.recs[i];
        r.version = "1.0";
        r.description = description;
        r.test_id = test_id;
        r.result_id = i + 1;
        r.units = "none";
        r.value = 0.0f;
        r.status = 2;
    }
}

FakeTest g_h8;
FakeTest g_filler;
flash_test *h8_init() { return &g_h8.desc; }
flash_test *filler_init() { return &g_filler.desc; }
const test_init_fn kInits[2] = {h8_init, filler_init};

class Runner : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_args_ = g_args;
        reset();
    }
    // Back to a fresh world: both tests preset, default settings, nothing recorded.
    void reset() {
        free(results_);
        results_ = nullptr;
        g_args = &args_;
        args_.test_num = -1;
        args_.skip_err_state = 0;
        make_fake(g_h8, "h8", 5, "check if enter h8.");
        make_fake(g_filler, "filler", 6, "storage filler");
        g_events.clear();
        g_driver_answer = 1;
        g_judge_answer = 0;
        g_saved.clear();
        g_saved_count = 0;
        g_saves = 0;
    }
    void TearDown() override {
        g_args = saved_args_;
        free(results_);
    }

    int build() {
        testing::internal::CaptureStdout();
        int rc = build_flash_tests(kInits, kOps, tests_, &test_count_, &result_count_, &results_);
        fflush(stdout);
        log_ = testing::internal::GetCapturedStdout();
        return rc;
    }
    int run() {
        g_events.clear();
        testing::internal::CaptureStdout();
        int rc = run_flash_tests_with(kOps, tests_, static_cast<int32_t>(test_count_),
                                      static_cast<int32_t>(result_count_), results_);
        fflush(stdout);
        log_ = testing::internal::GetCapturedStdout();
        return rc;
    }

    test_args args_{};
    test_args *saved_args_ = nullptr;
    flash_test *tests_[2] = {};
    uint32_t test_count_ = 99;
    uint32_t result_count_ = 99;
    test_result *results_ = nullptr;
    std::string log_;
};

// ---- building the list -----------------------------------------------------------------

TEST_F(Runner, AllTestsListedEnterH8First) {
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(test_count_, 2u);
    EXPECT_EQ(result_count_, 2u);
    EXPECT_EQ(tests_[0], &g_h8.desc);
    EXPECT_EQ(tests_[1], &g_filler.desc);
    ASSERT_NE(results_, nullptr);
    EXPECT_EQ(results_[0].test_id, 5);
    EXPECT_EQ(results_[1].test_id, 6);
    EXPECT_STREQ(results_[1].description, "storage filler");
    // The file is written once, with every record still preset.
    EXPECT_THAT(g_events, ElementsAre("save 2"));
    EXPECT_EQ(g_saved.size(), 2u);
    EXPECT_EQ(log_, "");
}

TEST_F(Runner, DashNSelectsByFirstRecordsTestId) {
    args_.test_num = 5;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(test_count_, 1u);
    EXPECT_EQ(tests_[0], &g_h8.desc);
    EXPECT_EQ(tests_[1], nullptr);
    EXPECT_THAT(log_, HasSubstr("[FLASH]INFO:initialize_flash_tests:"));
    EXPECT_THAT(log_, HasSubstr(" test_num = 5, result = 6\n"));
    reset();
    args_.test_num = 6;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(test_count_, 1u);
    EXPECT_EQ(result_count_, 1u);
    EXPECT_EQ(tests_[0], &g_filler.desc);
    EXPECT_EQ(tests_[1], nullptr);
    EXPECT_EQ(results_[0].test_id, 6);
    EXPECT_THAT(log_, HasSubstr(" test_num = 6, result = 5\n"));
}

TEST_F(Runner, NoMatchingTestListsNothingButStillWritesTheFile) {
    args_.test_num = 7;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(test_count_, 0u);
    EXPECT_EQ(result_count_, 0u);
    EXPECT_EQ(tests_[0], nullptr);
    EXPECT_EQ(tests_[1], nullptr);
    EXPECT_NE(results_, nullptr);
    EXPECT_THAT(log_, HasSubstr(" test_num = 7, result = 5\n"));
    EXPECT_THAT(log_, HasSubstr(" test_num = 7, result = 6\n"));
    EXPECT_THAT(g_events, ElementsAre("save 0"));

    // The runner then writes the file again, reports 95 and passes.
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(g_events, ElementsAre("save 0", "progress 95 2"));
    EXPECT_EQ(g_h8.runs + g_filler.runs, 0);
}

TEST_F(Runner, RecordsThatGrowWhileBuildingAreNotStored) {
    // The second test finds no room left: the first grew into its place.
    g_h8.counts[1] = 2;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(result_count_, 2u);
    EXPECT_EQ(results_[0].test_id, 5);
    EXPECT_EQ(results_[1].test_id, 5);
    EXPECT_EQ(results_[1].result_id, 2u);
    EXPECT_THAT(log_, HasSubstr("[FLASH]ERROR:initialize_flash_tests:"));
    EXPECT_THAT(log_, HasSubstr(" Total number of results grew between calls 2 > 2\n"));

    // A lone test that grows stops at the end of the array.
    reset();
    args_.test_num = 6;
    g_filler.counts[1] = 3;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(result_count_, 1u);
    EXPECT_THAT(log_, HasSubstr(" Total number of results grew between calls 1 > 1\n"));
    EXPECT_EQ(occurrences(log_, "grew between"), 1);
}

// ---- running ---------------------------------------------------------------------------

TEST_F(Runner, EachTestIsSurroundedByHealthWorkAreaAndDriverChecks) {
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(g_events,
                ElementsAre("health_get", "cleanup", "setup", "run h8", "driver", "judge(snapshot)",
                            "health_get", "cleanup", "setup", "run filler", "driver",
                            "judge(snapshot)", "save 2", "progress 95 2"));
    // Printed at ERROR even when all is well.
    EXPECT_THAT(log_, HasSubstr("[FLASH]ERROR:run_flash_tests:"));
    EXPECT_THAT(log_, HasSubstr(" case 0 healthinfo:\n\n"));
    EXPECT_THAT(log_, HasSubstr(" case 1 healthinfo:\n\n"));
    EXPECT_THAT(log_, Not(HasSubstr("failed")));
    ASSERT_EQ(g_saved.size(), 2u);
    EXPECT_EQ(g_saved[0].status, 1);
    EXPECT_EQ(g_saved[1].status, 1);
    EXPECT_EQ(g_saved[1].test_ran, 1);
}

TEST_F(Runner, DriverErrorFailsTheCopiesAndEndsTheRun) {
    ASSERT_EQ(build(), 0);
    g_driver_answer = 0;
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(g_h8.runs, 1);
    EXPECT_EQ(g_filler.runs, 0);
    EXPECT_THAT(log_, HasSubstr(" Test 0 index failed.\n"));
    EXPECT_THAT(log_, HasSubstr(" Not skip driver errors\n"));
    EXPECT_THAT(log_, Not(HasSubstr("But skip")));
    // The test passed, but its copied record is failed; the test's own record is not.
    EXPECT_EQ(results_[0].status, 0);
    EXPECT_EQ(g_h8.recs[0].status, 1);
    EXPECT_EQ(results_[1].status, 2);
    ASSERT_GE(g_events.size(), 2u);
    EXPECT_EQ(g_events[g_events.size() - 2], "save 2");
    EXPECT_EQ(g_events.back(), "progress 95 2");
}

TEST_F(Runner, SkippedDriverErrorCountsAsGood) {
    args_.skip_err_state = 1;
    ASSERT_EQ(build(), 0);
    g_driver_answer = 2;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(g_filler.runs, 1);
    EXPECT_THAT(log_, HasSubstr(" Test 0 index failed.\n"));
    EXPECT_THAT(log_, HasSubstr(" Test 1 index failed.\n"));
    EXPECT_THAT(log_, HasSubstr(" But skip driver errors\n"));
    EXPECT_EQ(results_[0].status, 1);
    EXPECT_EQ(results_[1].status, 1);
}

TEST_F(Runner, FailedHealthJudgementEndsTheRun) {
    ASSERT_EQ(build(), 0);
    g_judge_answer = 1;
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(g_filler.runs, 0);
    EXPECT_THAT(log_, HasSubstr(" case 0 : healthinfo_judge failed\n\n"));
    EXPECT_EQ(results_[0].status, 1);
}

TEST_F(Runner, TestsOwnFailedOrErrorStatusEndsTheRun) {
    ASSERT_EQ(build(), 0);
    g_h8.status_after_run = 0;
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(g_filler.runs, 0);
    EXPECT_THAT(log_, HasSubstr("[FLASH]ERROR:run_flash_tests:"));
    EXPECT_THAT(log_, HasSubstr(" [check if enter h8.] get error state. \n"));
    EXPECT_EQ(results_[0].status, 0);

    reset();
    ASSERT_EQ(build(), 0);
    g_filler.status_after_run = 9;
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(log_, HasSubstr(" [storage filler] get error state. \n"));
    EXPECT_EQ(results_[1].status, 9);
}

TEST_F(Runner, NotYetRunStatusIsNoError) {
    ASSERT_EQ(build(), 0);
    g_h8.status_after_run = 2;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(g_filler.runs, 1);
    EXPECT_THAT(log_, Not(HasSubstr("get error state")));
}

TEST_F(Runner, MissingDurationIsTheMeasuredRunTime) {
    ASSERT_EQ(build(), 0);
    g_h8.duration_after_run = 0.0;
    g_h8.run_sleep = 2000;
    g_filler.duration_after_run = 7.5;
    EXPECT_EQ(run(), 0);
    EXPECT_GT(results_[0].duration_sec, 0.0);
    EXPECT_EQ(g_h8.recs[0].duration_sec, 0.0);
    EXPECT_EQ(results_[1].duration_sec, 7.5);
}

TEST_F(Runner, RecordsThatGrowWhileRunningAreReportedNotStored) {
    args_.test_num = 5;
    ASSERT_EQ(build(), 0);
    ASSERT_EQ(result_count_, 1u);
    // From here on the test reports three records; the array has room for one.
    g_h8.counts[2] = 3;
    g_h8.counts[3] = 3;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(log_, HasSubstr(" Total number of results grew between calls 2 > 1\n"));
    EXPECT_THAT(log_, HasSubstr(" Total number of results grew between calls 3 > 1\n"));
    EXPECT_EQ(results_[0].result_id, 1u);
    EXPECT_EQ(results_[0].status, 1);
}

}  // namespace
