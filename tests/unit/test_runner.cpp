// The test list and the runner over two scripted tests and a scripted world.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;
using ::testing::ElementsAre;

// ---- a scripted world ------------------------------------------------------------------

std::vector<std::string> g_events;
int g_driver_answer = 1;
int g_judge_answer = 0;
std::vector<test_result> g_saved;  // the array as the last save saw it

const runner_ops kOps = {
    [](healthinfo *info) -> unsigned {
        g_events.push_back("health_get");
        info->entry[0].value = 1;
        return 1;
    },
    [](const healthinfo *before) {
        g_events.push_back(before->entry[0].value == 1 ? "judge(snapshot)" : "judge(other)");
        return g_judge_answer;
    },
    [] {
        g_events.push_back("cleanup");
        return 0;
    },
    [] { g_events.push_back("setup"); },
    [] {
        g_events.push_back("driver");
        return g_driver_answer;
    },
    [](const test_result *results, uint64_t count) {
        g_events.push_back("save " + std::to_string(count));
        g_saved.assign(results, results + (results ? count : 0));
    },
    [](int percent, int which) {
        g_events.push_back("progress " + std::to_string(percent) + " " + std::to_string(which));
        return 0;
    },
};

// A test whose operations only note their calls. The descriptor comes first so the
// operations find their test again.
struct FakeTest {
    flash_test desc;
    const char *name;
    uint32_t counts[4];  // records reported by the 1st, 2nd, 3rd and later get_results calls
    int get_calls, runs;
    uint8_t status_after_run;
    double duration_after_run;
    test_result recs[4];
};

FakeTest *fake_of(flash_test *t) { return reinterpret_cast<FakeTest *>(t); }

void make_fake(FakeTest &f, const char *name, int32_t test_id, const char *description) {
    f = FakeTest{};
    f.desc.run = [](flash_test *t) {
        FakeTest *f = fake_of(t);
        g_events.push_back(std::string("run ") + f->name);
        ++f->runs;
        usleep(1000);  // so that the measured run time is never 0
        for (test_result &r : f->recs) {
            r.status = f->status_after_run;
            r.duration_sec = f->duration_after_run;
            r.test_ran = 1;
        }
        return 0;
    };
    f.desc.get_results = [](flash_test *t, uint32_t *count) {
        FakeTest *f = fake_of(t);
        *count = f->counts[f->get_calls < 3 ? f->get_calls++ : 3];
        return f->recs;
    };
    f.name = name;
    for (uint32_t &c : f.counts) c = 1;
    f.status_after_run = 1;
    for (uint32_t i = 0; i < 4; ++i)
        f.recs[i] = test_result{"1.0", description, test_id, i + 1, "none", 0, 0, 0, 0, 0, 0, 0, 2};
}

FakeTest g_h8, g_filler;
const test_init_fn kInits[2] = {[] { return &g_h8.desc; }, [] { return &g_filler.desc; }};

class Runner : public ::testing::Test {
  protected:
    void SetUp() override { reset(); }
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
    }
    void TearDown() override {
        g_args = saved_args_;
        free(results_);
    }
    int build() {
        int rc = -9;
        log_ = capture([&] { rc = build_flash_tests(kInits, kOps, tests_, &test_count_, &result_count_, &results_); });
        return rc;
    }
    int run() {
        g_events.clear();
        int rc = -9;
        log_ = capture([&] {
            rc = run_flash_tests_with(kOps, tests_, int32_t(test_count_), int32_t(result_count_), results_);
        });
        return rc;
    }

    test_args args_{};
    test_args *saved_args_ = g_args;
    flash_test *tests_[2] = {};
    uint32_t test_count_ = 99, result_count_ = 99;
    test_result *results_ = nullptr;
    std::string log_;
};

// ---- building the list and running ------------------------------------------------------

TEST_F(Runner, AllTestsListedEnterH8FirstEachSurroundedByHealthWorkAreaAndDriverChecks) {
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(test_count_, 2u);
    EXPECT_EQ(result_count_, 2u);
    EXPECT_EQ(tests_[0], &g_h8.desc);
    EXPECT_EQ(tests_[1], &g_filler.desc);
    EXPECT_STREQ(results_[1].description, "storage filler");
    EXPECT_THAT(g_events, ElementsAre("save 2"));  // written once with the records still preset
    EXPECT_EQ(g_saved[1].status, 2);
    EXPECT_EQ(log_, "");

    g_h8.duration_after_run = 0.0;  // filled in with the measured run time
    g_filler.duration_after_run = 7.5;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(g_events, ElementsAre("health_get", "cleanup", "setup", "run h8", "driver", "judge(snapshot)", "health_get",
                                      "cleanup", "setup", "run filler", "driver", "judge(snapshot)", "save 2",
                                      "progress 95 2"));
    // Printed at ERROR even when all is well.
    EXPECT_TRUE(matches(log_, line("ERROR", "run_flash_tests", "case 0 healthinfo:\n\n") +
                                  line("ERROR", "run_flash_tests", "case 1 healthinfo:\n\n")))
        << log_;
    ASSERT_EQ(g_saved.size(), 2u);
    EXPECT_EQ(g_saved[0].status, 1);
    EXPECT_EQ(g_saved[1].test_ran, 1);
    EXPECT_GT(results_[0].duration_sec, 0.0);
    EXPECT_EQ(g_h8.recs[0].duration_sec, 0.0);
    EXPECT_EQ(results_[1].duration_sec, 7.5);
}

TEST_F(Runner, RecordsThatGrowAreReportedNotStored) {
    // While building: the second test finds no room left, the first grew into its place.
    g_h8.counts[1] = 2;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(result_count_, 2u);
    EXPECT_EQ(results_[1].test_id, 5);
    EXPECT_EQ(results_[1].result_id, 2u);
    EXPECT_TRUE(matches(log_, line("ERROR", "initialize_flash_tests", "Total number of results grew between calls 2 > 2\n")))
        << log_;

    // While running: from the third call on the test reports three records.
    reset();
    args_.test_num = 5;
    ASSERT_EQ(build(), 0);
    g_h8.counts[2] = g_h8.counts[3] = 3;
    EXPECT_EQ(run(), 0);
    EXPECT_NE(log_.find(" Total number of results grew between calls 2 > 1\n"), std::string::npos) << log_;
    EXPECT_NE(log_.find(" Total number of results grew between calls 3 > 1\n"), std::string::npos) << log_;
    EXPECT_EQ(results_[0].result_id, 1u);
    EXPECT_EQ(results_[0].status, 1);
}

TEST_F(Runner, DriverErrorFailsTheCopyAndEndsTheRunUnlessSkipped) {
    ASSERT_EQ(build(), 0);
    g_driver_answer = 0;
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(g_filler.runs, 0);
    EXPECT_NE(log_.find(" Test 0 index failed.\n"), std::string::npos) << log_;
    EXPECT_NE(log_.find(" Not skip driver errors\n"), std::string::npos) << log_;
    EXPECT_EQ(count(log_, "But skip"), 0);
    // The test passed, but its copied record is failed; the test's own record is not.
    EXPECT_EQ(results_[0].status, 0);
    EXPECT_EQ(g_h8.recs[0].status, 1);
    EXPECT_EQ(results_[1].status, 2);
    EXPECT_THAT(std::vector<std::string>(g_events.end() - 2, g_events.end()), ElementsAre("save 2", "progress 95 2"));

    reset();
    args_.skip_err_state = 1;
    ASSERT_EQ(build(), 0);
    g_driver_answer = 2;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(g_filler.runs, 1);
    EXPECT_EQ(count(log_, " index failed.\n"), 2) << log_;
    EXPECT_EQ(count(log_, " But skip driver errors\n"), 2) << log_;
    EXPECT_EQ(results_[0].status, 1);
    EXPECT_EQ(results_[1].status, 1);
}

TEST_F(Runner, FailedHealthJudgementOrErrorStatusEndsTheRunNotYetRunDoesNot) {
    ASSERT_EQ(build(), 0);
    g_judge_answer = 1;
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(g_filler.runs, 0);
    EXPECT_NE(log_.find(" case 0 : healthinfo_judge failed\n\n"), std::string::npos) << log_;
    EXPECT_EQ(results_[0].status, 1);

    const struct {
        FakeTest *test;
        uint8_t status;
        int rc, filler_runs;
    } cases[] = {{&g_h8, 0, -1, 0}, {&g_filler, 9, -1, 1}, {&g_h8, 2, 0, 1}};
    for (const auto &c : cases) {
        reset();
        ASSERT_EQ(build(), 0);
        c.test->status_after_run = c.status;
        EXPECT_EQ(run(), c.rc) << int(c.status);
        EXPECT_EQ(g_filler.runs, c.filler_runs) << int(c.status);
        EXPECT_EQ(results_[c.test == &g_h8 ? 0 : 1].status, c.status);
        const std::string error = std::string(" [") + c.test->recs[0].description + "] get error state. \n";
        EXPECT_EQ(count(log_, error), c.rc == 0 ? 0 : 1) << log_;
    }
}

}  // namespace
