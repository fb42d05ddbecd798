#include <gtest/gtest.h>

#include <sys/statfs.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;

// A settings record from the first default stage plus the given elements, as set-up builds
// it (the program name comes first).
std::unique_ptr<test_args> parsed(std::vector<std::string> elements, bool v2 = false) {
    auto a = std::make_unique<test_args>();
    args_defaults_stage1(a.get());
    std::string prog = "flashaging";
    std::vector<char *> argv = {prog.data()};
    for (auto &e : elements) argv.push_back(e.data());
    parse_test_args(a.get(), static_cast<int>(argv.size()), argv.data(), v2);
    return a;
}

TEST(ArgConversion, NumbersTruncateTowardZeroAndSaturate) {
    const struct {
        const char *text;
        int expected;
    } cases[] = {{" 7200.9", 7200}, {" -2.9", -2},       {" 1e3", 1000},     {" abc", 0}, {"", 0},
                 {" 1e12", INT_MAX}, {" -1e12", INT_MIN}, {" inf", INT_MAX}, {" nan", 0}};
    for (const auto &c : cases) EXPECT_EQ(arg_to_int(c.text), c.expected) << "'" << c.text << "'";
}

TEST(ArgDefaults, FieldsWithoutDefaultAndTheMeasuredTotalSize) {
    // The four version-2.0 fields get no default at all.
    auto a = parsed({});
    EXPECT_EQ(a->full_filling_times + a->reserved_space + a->test_policy + a->fix_freq, 0);

    // The second stage measures the blocks available (not free) below the work dir, less 512 MiB.
    uint64_t stage2_free = 0;
    {
        ScratchDir tmp;
        const char *dir = tmp.path().c_str();
        struct statfs st {};
        ASSERT_EQ(statfs(dir, &st), 0);
        a->aging_version = 2;
        args_defaults_stage2(a.get(), dir);
        stage2_free = uint64_t(st.f_bavail) * st.f_bsize;
    }
    EXPECT_EQ(a->aging_version, 0);
    EXPECT_NEAR(double(a->total_file_size), double(stage2_free - (512ull << 20)), double(256ull << 20));

    std::string out = capture([&] { args_defaults_stage2(a.get(), "/nonexistent/flashaging/dir"); });
    EXPECT_EQ(a->total_file_size, UINT64_MAX);
    EXPECT_TRUE(matches(out, line("INFO", "log_errno", "Failed to get stat for FS\n"))) << out;
}

TEST(ArgMatching, IntegerOptionsInOrderOfTheirTestsAndTheVersionTwoOnes) {
    const struct {
        std::vector<std::string> elements;
        int test_args::*field;
        int v1, v2;  // the value without and with the daemon's version 2.0
    } cases[] = {
        {{"-s 7200.9"}, &test_args::test_time, 7200, 7200},
        // A name alone, or name and value in two elements, are not understood.
        {{"-s"}, &test_args::test_time, -1, -1},
        {{"-s", "7200"}, &test_args::test_time, -1, -1},
        // "-spike 600" fails the "-s" test (no blank behind it) and is taken by "-spike".
        {{"-spike 600"}, &test_args::spike, 600, 600},
        {{"-spike 600"}, &test_args::test_time, -1, -1},
        {{"-seq_w_large_threshold 0.5"}, &test_args::test_time, -1, -1},
        {{"-num_samples 4", "-n 6"}, &test_args::num_samples, 4, 4},
        {{"-num_samples 4", "-n 6"}, &test_args::test_num, 6, 6},
        {{"-f 1"}, &test_args::force_erase, 1, 1},
        {{"-skip_err_state 1"}, &test_args::skip_err_state, 1, 1},
        {{"-low_vol_stime 30"}, &test_args::low_vol_stime, 30, 30},
        {{"-s 100", "-bogus 7", "", "-s 200"}, &test_args::test_time, 200, 200},
        // "-fix_freq 2" is never "-f".
        {{"-fix_freq 2"}, &test_args::force_erase, 0, 0},
        {{"-fix_freq 2"}, &test_args::fix_freq, 0, 2},
        {{"-full_filling_times 10"}, &test_args::full_filling_times, 0, 10},
        {{"-reserved_space 500"}, &test_args::reserved_space, 0, 500},
        {{"-test_policy 1"}, &test_args::test_policy, 0, 1},
    };
    for (const auto &c : cases) {
        std::string all;
        for (const auto &e : c.elements) all += "'" + e + "' ";
        EXPECT_EQ(parsed(c.elements).get()->*c.field, c.v1) << all;
        EXPECT_EQ(parsed(c.elements, true).get()->*c.field, c.v2) << all << "v2";
    }
}

TEST(ArgMatching, FloatOptionsAndTotalSizeOnlyNeedThePrefix) {
    EXPECT_FLOAT_EQ(parsed({"-mix_rw_threshold0.3"})->mix_rw_threshold, 0.3f);
    EXPECT_FLOAT_EQ(parsed({"-mix_rw_threshold=0.3"})->mix_rw_threshold, 0.0f);
    EXPECT_FLOAT_EQ(parsed({"-mix_rw_threshold 0.5"})->mix_rw_threshold, 0.5f);
    EXPECT_FLOAT_EQ(parsed({"-seq_w_large_threshold 0.5"})->seq_w_large_threshold, 0.5f);
    // The total size reads its base from the prefix.
    EXPECT_EQ(parsed({"-total_file_size 0x40000000"})->total_file_size, 1073741824u);
    EXPECT_EQ(parsed({"-total_file_size 010"})->total_file_size, 8u);
    EXPECT_EQ(parsed({"-total_file_size 1073741824"})->total_file_size, 1073741824u);
}

TEST(WorkingValues, ZeroNeverResetsAndTheFourMessagesComeInOrder) {
    const auto saved = std::make_tuple(fill_cycle, left_space, go_on_error, force_erase, g_args);
    std::tie(fill_cycle, left_space, go_on_error, force_erase) = std::make_tuple(30, 1000, 0, 0);

    auto zero = parsed({"-reserved_space 0", "-full_filling_times 0"}, true);
    g_args = zero.get();
    EXPECT_EQ(capture([] { get_args_from_config_xml(); }), "");
    EXPECT_EQ(fill_cycle, 30);
    EXPECT_EQ(left_space, 1000);

    auto a = parsed({"-f 1", "-test_policy -1", "-reserved_space 2000", "-full_filling_times 3"}, true);
    g_args = a.get();
    std::string out = capture([] { get_args_from_config_xml(); });
    EXPECT_EQ(std::make_tuple(fill_cycle, left_space, go_on_error, force_erase), std::make_tuple(3, 2000, -1, 1));
    const char *f = "get_args_from_config_xml";
    EXPECT_TRUE(matches(out, line("INFO", f, "config fill_cycle to 3\n") + line("INFO", f, "config left space to 2000MB\n") +
                                 line("INFO", f, "config go on even error happens -1\n") +
                                 line("INFO", f, "config force_erase to 1\n")))
        << out;
    std::tie(fill_cycle, left_space, go_on_error, force_erase, g_args) = saved;
}

}  // namespace
