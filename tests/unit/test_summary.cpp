#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

test_result record(const char *desc, float value, uint8_t status) {
    test_result r{};
    r.version = "1.0";
    r.description = desc;
    r.test_id = 6;
    r.result_id = 2;
    r.units = "MB/s";
    r.minimum = 1.0f;
    r.maximum = FLT_MAX;
    r.value = value;
    r.stdev = 0.5f;
    r.num_samples = 1;
    r.test_ran = 1;
    r.duration_sec = 2.0;
    r.status = status;
    return r;
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Saves and restores the run-wide state these routines read and write.
class RunState : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_result_ = flash_result;
        saved_results_ = flash_results;
        saved_count_ = flash_result_count;
        saved_fd_ = result_fd;
        saved_args_ = g_args;
        char tmpl[] = "/tmp/fw_summary_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        flash_result = saved_result_;
        flash_results = saved_results_;
        flash_result_count = saved_count_;
        result_fd = saved_fd_;
        g_args = saved_args_;
        std::system(("rm -rf " + dir_).c_str());
    }
    std::string path(const char *name) const { return dir_ + "/" + name; }
    static void capture() { testing::internal::CaptureStdout(); }
    static std::string captured() {
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    std::string summary_of(std::vector<test_result> &recs) {
        flash_results = recs.data();
        flash_result_count = static_cast<uint32_t>(recs.size());
        capture();
        flash_get_alltest_result();
        return captured();
    }

    int32_t saved_result_ = 1;
    test_result *saved_results_ = nullptr;
    uint32_t saved_count_ = 0;
    int saved_fd_ = 0;
    test_args *saved_args_ = nullptr;
    std::string dir_;
};

TEST_F(RunState, PassedRecordsLogPassAndKeepTheVerdict) {
    std::vector<test_result> recs = {record("seq write", 150.0f, 1)};
    flash_result = 1;
    std::string out = summary_of(recs);
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:flash_get_alltest_result:\d+ Test\[seq write\] --- PASS\n)")))
        << out;
    EXPECT_EQ(flash_result, 1);
}

TEST_F(RunState, FailedRecordLogsEveryColumnAndClearsTheVerdict) {
    std::vector<test_result> recs = {record("seq write", 150.0f, 1), record("ran read", 12.5f, 0)};
    flash_result = 1;
    std::string out = summary_of(recs);
    // Maximum and stdev print as numbers even for no upper limit and a single sample.
    EXPECT_THAT(out, HasSubstr("[FLASH]INFO:flash_get_alltest_result:"));
    EXPECT_THAT(out, HasSubstr(" 1.0, ran read, 6, 6.2, MB/s, 1.000000, "
                               "340282346638528859811704183484516925440.000000, 12.500000, "
                               "0.500000, 1, 1, 2.000000, FAIL\n"));
    EXPECT_THAT(out, HasSubstr("Test[seq write] --- PASS\n"));
    EXPECT_EQ(flash_result, 0);
}

TEST_F(RunState, TodoWithAPositiveValueCountsAsFailed) {
    std::vector<test_result> recs = {record("enter h8", 3.0f, 2)};
    flash_result = 1;
    std::string out = summary_of(recs);
    EXPECT_THAT(out, HasSubstr(", FAIL\n"));
    EXPECT_EQ(flash_result, 0);
}

TEST_F(RunState, UnmeasuredRecordsAreSilent) {
    // The tests' own presets: value 0 and -1, whatever the status; NaN is passed over too.
    std::vector<test_result> recs = {record("storage filler", 0.0f, 0), record("h8", -1.0f, 2),
                                     record("odd", NAN, 0)};
    flash_result = 2;
    EXPECT_EQ(summary_of(recs), "");
    EXPECT_EQ(flash_result, 2);
}

TEST_F(RunState, NoResultsArray) {
    flash_results = nullptr;
    flash_result_count = 3;
    flash_result = 1;
    capture();
    flash_get_alltest_result();
    std::string out = captured();
    EXPECT_THAT(out, HasSubstr("[FLASH]ERROR:flash_get_alltest_result:"));
    EXPECT_THAT(out, HasSubstr(" result callback is NULL!\n"));
    EXPECT_EQ(flash_result, 1);
}

// ---- pass/fail record ------------------------------------------------------------------

class VerdictRecord : public RunState {
  protected:
    // A record file as set-up leaves it: `before` on disk, then "START" over its start.
    int open_record(const std::string &before) {
        record_ = path("flash_aging_result.txt");
        std::ofstream(record_, std::ios::binary) << before;
        int fd = open(record_.c_str(), O_RDWR);
        EXPECT_GE(fd, 1);
        EXPECT_EQ(pwrite(fd, "START", 5, 0), 5);
        return fd;
    }
    std::string record_;
};

TEST_F(VerdictRecord, WordsAreZeroPaddedToTenBytes) {
    struct Case {
        uint32_t verdict;
        std::string bytes;
    } cases[] = {
        {1, std::string("SUCCESS\0\0\0", 10)},
        {0, std::string("FAIL\0\0\0\0\0\0", 10)},
        {2, std::string("SKIP\0\0\0\0\0\0", 10)},
        {7, std::string("SUCCESS\0\0\0", 10)},
    };
    for (const Case &c : cases) {
        int fd = open_record("");
        capture();
        write_verdict_record(fd, record_.c_str(), c.verdict);
        std::string out = captured();
        EXPECT_EQ(slurp(record_), c.bytes) << c.verdict;
        EXPECT_EQ(fd, kClosedRecordFd);
        struct stat st {};
        ASSERT_EQ(stat(record_.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0644u);
        if (geteuid() == 0) {
            EXPECT_EQ(out, "");
            EXPECT_EQ(st.st_uid, 1000u);
            EXPECT_EQ(st.st_gid, 1000u);
        }
    }
}

TEST_F(VerdictRecord, EarlierRunsLeftoversUntilTheNewVerdict) {
    int fd = open_record(std::string("SUCCESS\0\0\0", 10));
    EXPECT_EQ(slurp(record_), std::string("STARTSS\0\0\0", 10));
    write_verdict_record(fd, record_.c_str(), 0);
    EXPECT_EQ(slurp(record_), std::string("FAIL\0\0\0\0\0\0", 10));
}

TEST_F(VerdictRecord, NoDescriptorNoWord) {
    result_fd = 0;
    capture();
    delta_result(1);
    EXPECT_EQ(captured(), "");
    EXPECT_EQ(result_fd, 0);
}

TEST_F(VerdictRecord, SecondCallFindsTheRecordClosed) {
    int fd = open_record("");
    write_verdict_record(fd, record_.c_str(), 1);
    capture();
    write_verdict_record(fd, record_.c_str(), 0);
    std::string out = captured();
    // No timestamp prefix, FATAL, the record's path, an empty line.
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[FLASH\]FATAL:delta_result:\d+ \[END\]seek )" + record_ + R"( error!\n\n)")))
        << out;
    EXPECT_EQ(slurp(record_), std::string("SUCCESS\0\0\0", 10));
}

// ---- pattern dump ----------------------------------------------------------------------

class PatternDump : public RunState {
  protected:
    void SetUp() override {
        RunState::SetUp();
        saved_pattern_ = pattern_4MB;
        saved_scratch_ = scratch_4MB;
        pattern_.assign(kHalf, 0);
        scratch_.assign(kHalf, 0);
        for (size_t i = 0; i < kHalf; ++i) {
            pattern_[i] = static_cast<uint8_t>(i * 7 + 1);
            scratch_[i] = static_cast<uint8_t>(i * 13 + 5);
        }
        pattern_4MB = pattern_.data();
        scratch_4MB = scratch_.data();
        args_ = new test_args{};
        g_args = args_;
    }
    void TearDown() override {
        pattern_4MB = saved_pattern_;
        scratch_4MB = saved_scratch_;
        RunState::TearDown();
        delete args_;
    }
    static constexpr size_t kHalf = 4194304;
    std::vector<uint8_t> pattern_, scratch_;
    uint8_t *saved_pattern_ = nullptr;
    uint8_t *saved_scratch_ = nullptr;
    test_args *args_ = nullptr;
};

TEST_F(PatternDump, PatternThenScratchAndTheRecordDescriptorIsReplaced) {
    std::string dump = path("flash_pattern");
    result_fd = 0;
    capture();
    int fd = store_4MB_buffers_at(dump.c_str());
    std::string out = captured();
    ASSERT_GE(fd, 1);
    EXPECT_EQ(result_fd, fd);
    close(fd);
    std::string bytes = slurp(dump);
    ASSERT_EQ(bytes.size(), 2 * kHalf);
    EXPECT_EQ(memcmp(bytes.data(), pattern_.data(), kHalf), 0);
    EXPECT_EQ(memcmp(bytes.data() + kHalf, scratch_.data(), kHalf), 0);
    struct stat st {};
    ASSERT_EQ(stat(dump.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    if (geteuid() == 0) {
        EXPECT_EQ(out, "");
    }
}

TEST_F(PatternDump, AbnormalEndLeavesStartInTheRecord) {
    // The handler's order: dump, close the dump, then the verdict.
    std::string record = path("flash_aging_result.txt");
    std::ofstream(record, std::ios::binary) << std::string("SUCCESS\0\0\0", 10);
    result_fd = open(record.c_str(), O_RDWR);
    ASSERT_EQ(pwrite(result_fd, "START", 5, 0), 5);
    const int record_fd = result_fd;

    int fd = store_4MB_buffers_at(path("flash_pattern").c_str());
    ASSERT_GE(fd, 1);
    EXPECT_EQ(result_fd, fd);
    result_fd = kClosedRecordFd;  // as the handler leaves it when it closes the dump
    close(fd);
    capture();
    write_verdict_record(result_fd, record.c_str(), 1);
    std::string out = captured();
    close(record_fd);
    EXPECT_THAT(out, HasSubstr("[FLASH]FATAL:delta_result:"));
    EXPECT_THAT(out, HasSubstr(" [END]seek " + record + " error!\n\n"));
    EXPECT_EQ(slurp(record), std::string("STARTSS\0\0\0", 10));
}

TEST_F(PatternDump, AgingVersionTwoWritesNothing) {
    args_->aging_version = 2;
    result_fd = 5;
    std::string dump = path("flash_pattern");
    capture();
    EXPECT_EQ(store_4MB_buffers_at(dump.c_str()), 0);
    EXPECT_EQ(captured(), "");
    EXPECT_NE(access(dump.c_str(), F_OK), 0);
    EXPECT_EQ(result_fd, 5);
}

TEST_F(PatternDump, UnopenableDumpAndMissingBuffers) {
    result_fd = 5;
    std::string bad = path("no_dir/flash_pattern");
    capture();
    EXPECT_EQ(store_4MB_buffers_at(bad.c_str()), -1);
    std::string out = captured();
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[FLASH\]FATAL:store_4MB_buffers:\d+ open )" + bad +
                                                  R"( error!\n\n)")))
        << out;

    // Before set-up has allocated the buffers the dump cannot be written.
    pattern_4MB = nullptr;
    std::string dump = path("flash_pattern");
    capture();
    EXPECT_EQ(store_4MB_buffers_at(dump.c_str()), -1);
    out = captured();
    EXPECT_THAT(out, HasSubstr(" [START]write " + dump + "  pattern_4MB error!\n"));
    EXPECT_EQ(result_fd, 5);

    pattern_4MB = pattern_.data();
    scratch_4MB = nullptr;
    capture();
    EXPECT_EQ(store_4MB_buffers_at(dump.c_str()), -1);
    out = captured();
    EXPECT_THAT(out, HasSubstr(" [START]write " + dump + "  scratch_4MB error!\n"));
    EXPECT_EQ(result_fd, 5);
}

}  // namespace
