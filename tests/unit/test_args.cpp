#include <gtest/gtest.h>

#include <unistd.h>

#include <climits>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"

namespace {

// Builds a settings record from the first default stage plus the given elements, as set-up
// does (the program name comes first in the vector).
std::unique_ptr<test_args> parsed(std::vector<std::string> elements, bool v2 = false) {
    auto a = std::make_unique<test_args>();
    args_defaults_stage1(a.get());
    std::vector<char *> argv;
    std::string prog = "flashaging";
    argv.push_back(prog.data());
    for (auto &e : elements) argv.push_back(e.data());
    parse_test_args(a.get(), static_cast<int>(argv.size()), argv.data(), v2);
    return a;
}

TEST(ArgConversion, NumbersTruncateTowardZeroAndSaturate) {
    EXPECT_EQ(arg_to_int(" 7200.9"), 7200);
    EXPECT_EQ(arg_to_int(" -2.9"), -2);
    EXPECT_EQ(arg_to_int(" 1e3"), 1000);
    EXPECT_EQ(arg_to_int(" abc"), 0);
    EXPECT_EQ(arg_to_int(""), 0);
    EXPECT_EQ(arg_to_int(" 1e12"), INT_MAX);
    EXPECT_EQ(arg_to_int(" -1e12"), INT_MIN);
    EXPECT_EQ(arg_to_int(" inf"), INT_MAX);
    EXPECT_EQ(arg_to_int(" nan"), 0);
}

TEST(ArgDefaults, NoOptionsKeepTheDefaultsAndZeroFilledVersionFields) {
    auto a = parsed({});
    EXPECT_EQ(a->test_time, -1);
    EXPECT_EQ(a->test_num, -1);
    EXPECT_EQ(a->num_samples, 3);
    EXPECT_EQ(a->spike, 1);
    EXPECT_EQ(a->force_erase, 0);
    EXPECT_FLOAT_EQ(a->seq_w_large_threshold, 0.22f);
    EXPECT_FLOAT_EQ(a->mix_rw_threshold, 0.23f);
    // The four version-2.0 fields get no default at all.
    EXPECT_EQ(a->full_filling_times, 0);
    EXPECT_EQ(a->reserved_space, 0);
    EXPECT_EQ(a->test_policy, 0);
    EXPECT_EQ(a->fix_freq, 0);
}

TEST(ArgDefaults, SecondStageMeasuresTheWorkDirAndClearsTheVersion) {
    test_args a{};
    a.aging_version = 2;
    char dir[] = "/tmp/flashaging_args_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    args_defaults_stage2(&a, dir);
    EXPECT_EQ(a.aging_version, 0);
    EXPECT_EQ(a.max_test_voltage, 2950000);
    EXPECT_EQ(a.min_test_voltage, 2750000);
    EXPECT_EQ(a.voltage_step, 50000);
    EXPECT_EQ(a.voltage_chg_wait_stime, 720);
    EXPECT_FLOAT_EQ(a.seq_small_task_size, 0.92f);
    EXPECT_FLOAT_EQ(a.ran_w_small_task_size, 0.04f);
    // Available (not free) blocks, less 512 MiB.
    EXPECT_NE(a.total_file_size, UINT64_MAX);
    rmdir(dir);

    testing::internal::CaptureStdout();
    args_defaults_stage2(&a, "/nonexistent/flashaging/dir");
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(a.total_file_size, UINT64_MAX);
    EXPECT_NE(out.find("[FLASH]INFO:log_errno:"), std::string::npos) << out;
    EXPECT_NE(out.find(" Failed to get stat for FS\n"), std::string::npos) << out;
}

TEST(ArgMatching, IntegerOptionsNeedABlankBehindTheName) {
    EXPECT_EQ(parsed({"-s 7200.9"})->test_time, 7200);
    // A name alone, or name and value in two elements, are not understood.
    EXPECT_EQ(parsed({"-s"})->test_time, -1);
    EXPECT_EQ(parsed({"-s", "7200"})->test_time, -1);
    // "-spike 600" fails the "-s" test and is taken by "-spike".
    auto a = parsed({"-spike 600"});
    EXPECT_EQ(a->spike, 600);
    EXPECT_EQ(a->test_time, -1);
    a = parsed({"-num_samples 4", "-n 6"});
    EXPECT_EQ(a->num_samples, 4);
    EXPECT_EQ(a->test_num, 6);
    EXPECT_EQ(parsed({"-f 1"})->force_erase, 1);
    EXPECT_EQ(parsed({"-skip_err_state 1"})->skip_err_state, 1);
    EXPECT_EQ(parsed({"-low_vol_stime 30"})->low_vol_stime, 30);
}

TEST(ArgMatching, FloatOptionsAndTotalSizeOnlyNeedThePrefix) {
    EXPECT_FLOAT_EQ(parsed({"-mix_rw_threshold0.3"})->mix_rw_threshold, 0.3f);
    EXPECT_FLOAT_EQ(parsed({"-mix_rw_threshold=0.3"})->mix_rw_threshold, 0.0f);
    EXPECT_FLOAT_EQ(parsed({"-mix_rw_threshold 0.5"})->mix_rw_threshold, 0.5f);
    // "-s" does not take the "-seq_" names.
    auto a = parsed({"-seq_w_large_threshold 0.5"});
    EXPECT_FLOAT_EQ(a->seq_w_large_threshold, 0.5f);
    EXPECT_EQ(a->test_time, -1);
}

TEST(ArgMatching, TotalFileSizeReadsItsBaseFromThePrefix) {
    EXPECT_EQ(parsed({"-total_file_size 0x40000000"})->total_file_size, 1073741824u);
    EXPECT_EQ(parsed({"-total_file_size 010"})->total_file_size, 8u);
    EXPECT_EQ(parsed({"-total_file_size 1073741824"})->total_file_size, 1073741824u);
}

TEST(ArgMatching, VersionTwoOptionsOnlyWhenTheDaemonSpeaksIt) {
    auto a = parsed({"-fix_freq 2", "-full_filling_times 10", "-reserved_space 500", "-test_policy 1"});
    // "-fix_freq 2" fails "-f" (next character i) and nothing else takes it.
    EXPECT_EQ(a->fix_freq, 0);
    EXPECT_EQ(a->force_erase, 0);
    EXPECT_EQ(a->full_filling_times, 0);
    EXPECT_EQ(a->reserved_space, 0);
    EXPECT_EQ(a->test_policy, 0);

    a = parsed({"-fix_freq 2", "-full_filling_times 10", "-reserved_space 500", "-test_policy 1"}, true);
    EXPECT_EQ(a->fix_freq, 2);
    EXPECT_EQ(a->force_erase, 0);
    EXPECT_EQ(a->full_filling_times, 10);
    EXPECT_EQ(a->reserved_space, 500);
    EXPECT_EQ(a->test_policy, 1);
}

TEST(ArgMatching, LaterElementOverridesAndUnknownElementsAreSkipped) {
    auto a = parsed({"-s 100", "-bogus 7", "", "-s 200"});
    EXPECT_EQ(a->test_time, 200);
    // Only the program name: nothing is parsed.
    test_args b{};
    args_defaults_stage1(&b);
    char prog[] = "flashaging";
    char *argv[] = {prog, nullptr};
    parse_test_args(&b, 1, argv, true);
    EXPECT_EQ(b.test_time, -1);
}

// Saves and restores the process-wide working values around a test.
class WorkingValues : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_[0] = fill_cycle;
        saved_[1] = left_space;
        saved_[2] = go_on_error;
        saved_[3] = force_erase;
        saved_args_ = g_args;
        fill_cycle = 30;
        left_space = 1000;
        go_on_error = 0;
        force_erase = 0;
    }
    void TearDown() override {
        fill_cycle = saved_[0];
        left_space = saved_[1];
        go_on_error = saved_[2];
        force_erase = saved_[3];
        g_args = saved_args_;
    }
    std::string config(test_args *a) {
        g_args = a;
        testing::internal::CaptureStdout();
        get_args_from_config_xml();
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    int saved_[4]{};
    test_args *saved_args_ = nullptr;
};

TEST_F(WorkingValues, FullFillingTimesNeedsVersionTwo) {
    auto a = parsed({"-full_filling_times 10"});
    EXPECT_EQ(config(a.get()), "");
    EXPECT_EQ(fill_cycle, 30);

    auto b2 = parsed({"-full_filling_times 10"}, true);
    std::string out = config(b2.get());
    EXPECT_EQ(fill_cycle, 10);
    std::regex line(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_args_from_config_xml:\d+ config fill_cycle to 10\n)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST_F(WorkingValues, ZeroNeverResetsAndTheFourMessagesComeInOrder) {
    auto a = parsed({"-reserved_space 0"}, true);
    EXPECT_EQ(config(a.get()), "");
    EXPECT_EQ(left_space, 1000);

    auto b2 = parsed({"-f 1", "-test_policy -1", "-reserved_space 2000", "-full_filling_times 3"}, true);
    std::string out = config(b2.get());
    EXPECT_EQ(fill_cycle, 3);
    EXPECT_EQ(left_space, 2000);
    EXPECT_EQ(go_on_error, -1);
    EXPECT_EQ(force_erase, 1);
    std::regex lines(
        R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_args_from_config_xml:\d+ config fill_cycle to 3\n)"
        R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_args_from_config_xml:\d+ config left space to 2000MB\n)"
        R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_args_from_config_xml:\d+ config go on even error happens -1\n)"
        R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_args_from_config_xml:\d+ config force_erase to 1\n)");
    EXPECT_TRUE(std::regex_match(out, lines)) << out;
}

}  // namespace
