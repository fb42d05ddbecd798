// The end-of-run summary, the pass/fail record and the pattern dump.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;

test_result record(const char *desc, float value, uint8_t status) {
    return test_result{"1.0", desc, 6, 2, "MB/s", 1.0f, FLT_MAX, value, 0.5f, 1, 1, 2.0, status};
}

// Saves and restores the run-wide state these routines read and write.
class RunState : public ::testing::Test {
  protected:
    void TearDown() override { std::tie(flash_result, flash_results, flash_result_count, result_fd, g_args) = saved_; }
    const std::tuple<int32_t, test_result *, uint32_t, int, test_args *> saved_{flash_result, flash_results,
                                                                               flash_result_count, result_fd, g_args};
    ScratchDir tmp_;
};

TEST_F(RunState, SummaryLogsPassOrEveryColumnOfAFailureAndClearsTheVerdict) {
    const std::string f = "flash_get_alltest_result";
    // Maximum and stdev print as numbers even for no upper limit and a single sample.
    const std::string fail_line = line("INFO", f.c_str(),
                                       "1.0, ran read, 6, 6.2, MB/s, 1.000000, 340282346638528859811704183484516925440.000000, "
                                       "12.500000, 0.500000, 1, 1, 2.000000, FAIL\n");
    const struct {
        std::vector<test_result> recs;
        int32_t verdict;
        std::string log;
    } cases[] = {
        {{record("seq write", 150.0f, 1)}, 1, line("INFO", f.c_str(), "Test[seq write] --- PASS\n")},
        {{record("seq write", 150.0f, 1), record("ran read", 12.5f, 0)},
         0,
         line("INFO", f.c_str(), "Test[seq write] --- PASS\n") + fail_line},
        {{record("enter h8", 3.0f, 2)}, 0, kPrefix + R"(.*, FAIL\n)"},  // "not yet run" with a value fails
        // The tests' own presets (value 0 and -1, whatever the status) and NaN are passed over.
        {{record("storage filler", 0.0f, 0), record("h8", -1.0f, 2), record("odd", NAN, 0)}, 2, ""},
        {{}, 2, line("ERROR", f.c_str(), "result callback is NULL!\n")},
    };
    for (const auto &c : cases) {
        std::vector<test_result> recs = c.recs;
        flash_results = recs.empty() ? nullptr : recs.data();
        flash_result_count = recs.empty() ? 3 : static_cast<uint32_t>(recs.size());
        flash_result = c.verdict == 0 ? 1 : c.verdict;
        std::string out = capture([] { flash_get_alltest_result(); });
        EXPECT_TRUE(matches(out, c.log)) << out;
        EXPECT_EQ(flash_result, c.verdict) << out;
    }
}

// A record file as set-up leaves it: `before` on disk, then "START" over its start.
int open_record(const std::string &path, const std::string &before) {
    put(path, before);
    int fd = open(path.c_str(), O_RDWR);
    EXPECT_GE(fd, 1);
    EXPECT_EQ(pwrite(fd, "START", 5, 0), 5);
    return fd;
}

TEST_F(RunState, VerdictWordsAreZeroPaddedOverTheLeftoversAndTheRecordIsClosedAfter) {
    const std::string path = tmp_.file("flash_aging_result.txt");
    const std::string success("SUCCESS\0\0\0", 10);
    const struct {
        uint32_t verdict;
        std::string before, bytes;
    } cases[] = {{1, "", success},
                 {0, success, std::string("FAIL\0\0\0\0\0\0", 10)},  // an earlier run's word, "STARTSS" meanwhile
                 {2, "", std::string("SKIP\0\0\0\0\0\0", 10)},
                 {7, "", success}};
    for (const auto &c : cases) {
        // (clang 14, the compiler of Android 13 trees, cannot capture a structured binding.)
        const uint32_t verdict = c.verdict;
        const std::string &before = c.before, &bytes = c.bytes;
        int fd = open_record(path, before);
        EXPECT_EQ(slurp(path), "START" + (before.size() > 5 ? before.substr(5) : ""));
        std::string out = capture([&] { write_verdict_record(fd, path.c_str(), verdict); });
        EXPECT_EQ(slurp(path), bytes) << verdict;
        EXPECT_EQ(fd, kClosedRecordFd);
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0644u);
        if (geteuid() == 0) {
            EXPECT_EQ(out, "");
            EXPECT_EQ(st.st_uid, 1000u);
            EXPECT_EQ(st.st_gid, 1000u);
        }
        // A second call finds the record closed: no time prefix, FATAL, the path, an empty line.
        out = capture([&] { write_verdict_record(fd, path.c_str(), verdict == 0 ? 1 : 0); });
        EXPECT_TRUE(matches(out, bare("FATAL", "delta_result", "[END]seek " + path + " error!\n\n"))) << out;
        EXPECT_EQ(slurp(path), bytes);
    }
    // No descriptor, no word.
    result_fd = 0;
    EXPECT_EQ(capture([] { delta_result(1); }), "");
    EXPECT_EQ(result_fd, 0);
}

// ---- pattern dump ----------------------------------------------------------------------

TEST_F(RunState, PatternDumpHoldsPatternThenScratchAndTakesOverTheRecordDescriptor) {
    constexpr size_t kHalf = 4194304;
    std::vector<uint8_t> pattern(kHalf), scratch(kHalf);
    for (size_t i = 0; i < kHalf; ++i) {
        pattern[i] = static_cast<uint8_t>(i * 7 + 1);
        scratch[i] = static_cast<uint8_t>(i * 13 + 5);
    }
    uint8_t *const saved_buffers[2] = {pattern_4MB, scratch_4MB};
    pattern_4MB = pattern.data();
    scratch_4MB = scratch.data();
    test_args args{};
    g_args = &args;
    const std::string dump = tmp_.file("flash_pattern");
    result_fd = 0;
    int fd = -1;
    std::string out = capture([&] { fd = store_4MB_buffers_at(dump.c_str()); });
    ASSERT_GE(fd, 1);
    EXPECT_EQ(result_fd, fd);
    close(fd);
    EXPECT_TRUE(slurp(dump) == std::string(pattern.begin(), pattern.end()) + std::string(scratch.begin(), scratch.end()));
    struct stat st {};
    ASSERT_EQ(stat(dump.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_TRUE(geteuid() != 0 || out.empty()) << out;

    // Version 2, a dump that cannot be opened and missing buffers all leave the record alone.
    result_fd = 5;
    unlink(dump.c_str());
    args.aging_version = 2;
    EXPECT_EQ(capture([&] { EXPECT_EQ(store_4MB_buffers_at(dump.c_str()), 0); }), "");
    EXPECT_NE(access(dump.c_str(), F_OK), 0) << "version 2 writes no dump";
    args.aging_version = 0;
    const std::string bad = tmp_.file("no_dir/flash_pattern");
    int rc = 0;
    out = capture([&] { rc = store_4MB_buffers_at(bad.c_str()); });
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(matches(out, bare("FATAL", "store_4MB_buffers", "open " + bad + " error!\n\n"))) << out;
    // Before set-up has allocated the buffers the dump cannot be written.
    for (const char *missing : {"pattern_4MB", "scratch_4MB"}) {
        pattern_4MB = strcmp(missing, "pattern_4MB") == 0 ? nullptr : pattern.data();
        scratch_4MB = strcmp(missing, "scratch_4MB") == 0 ? nullptr : scratch.data();
        out = capture([&] { rc = store_4MB_buffers_at(dump.c_str()); });
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(matches(out, bare("FATAL", "store_4MB_buffers", "[START]write " + dump + "  " + missing + " error!\n")))
            << out;
    }
    EXPECT_EQ(result_fd, 5);
    pattern_4MB = saved_buffers[0];
    scratch_4MB = saved_buffers[1];
}

}  // namespace
