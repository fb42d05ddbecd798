#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char *kHeader =
    "version,description,test_id,result_id,units,minimum,maximum,value,stdev,num_samples,"
    "test_ran,duration_sec,status\n";

test_result measured(float value, uint8_t status) {
    test_result r{};
    r.version = "1.0";
    r.description = "seq write";
    r.test_id = 6;
    r.result_id = 1;
    r.units = "MB/s";
    r.minimum = 100.0f;
    r.maximum = 200.0f;
    r.value = value;
    r.stdev = 1.5f;
    r.num_samples = 1;
    r.test_ran = 1;
    r.duration_sec = 3.25;
    r.status = status;
    return r;
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class TempDir : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/fw_results_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
    std::string path(const char *name) const { return dir_ + "/" + name; }
    std::string dir_;
};

// Runs the table writer on an in-memory stream and returns what it wrote.
std::string table_of(const test_result *results, uint64_t count, int *rc = nullptr) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&buf, &len);
    int r = write_results_table(out, results, count);
    fclose(out);
    std::string text(buf, len);
    free(buf);
    if (rc) *rc = r;
    return text;
}

TEST(ResultLine, AllColumnsInOrderWithSixDecimals) {
    test_result r = measured(150.25f, 1);
    EXPECT_EQ(format_result_line(r),
              "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,150.250000,,1,1,3.250000,PASS\n");
}

TEST(ResultLine, OptionalColumns) {
    test_result r = measured(150.25f, 1);
    // The largest float means no upper limit: an empty column.
    r.maximum = FLT_MAX;
    EXPECT_THAT(format_result_line(r), HasSubstr(",100.000000,,150.250000,"));
    // A long maximum is cut to 15 characters.
    r.maximum = 1e10f;
    EXPECT_THAT(format_result_line(r), HasSubstr(",100.000000,10000000000.000,150.250000,"));
    // Stdev only for more than one sample.
    r.num_samples = 1;
    EXPECT_THAT(format_result_line(r), HasSubstr(",150.250000,,1,"));
    r.num_samples = 2;
    EXPECT_THAT(format_result_line(r), HasSubstr(",150.250000,1.500000,2,"));
}

TEST(ResultLine, StatusWords) {
    test_result r = measured(12.5f, 0);
    EXPECT_THAT(format_result_line(r), ::testing::EndsWith(",Fail\n"));
    r.status = 1;
    EXPECT_THAT(format_result_line(r), ::testing::EndsWith(",PASS\n"));
    r.status = 2;
    EXPECT_THAT(format_result_line(r), ::testing::EndsWith(",Todo\n"));
    r.status = 7;
    EXPECT_THAT(format_result_line(r), ::testing::EndsWith(",Fail\n"));
}

TEST(ResultsTable, HeaderThenOneLinePerMeasuredRecord) {
    test_result recs[4] = {measured(0.0f, 1), measured(12.5f, 0), measured(-1.0f, 2),
                           measured(NAN, 1)};
    int rc = 1;
    std::string text = table_of(recs, 4, &rc);
    EXPECT_EQ(rc, 0);
    std::string expected = std::string(kHeader) +
                           "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,12.500000,,1,1,"
                           "3.250000,Fail\n"
                           "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,nan,,1,1,3.250000,PASS\n";
    EXPECT_EQ(text, expected);
}

TEST(ResultsTable, NoRecordsGivesTheHeaderOnly) {
    test_result none[1] = {};
    EXPECT_EQ(table_of(none, 0), kHeader);
    // The tests' own records keep value 0 (or -1): still the header alone.
    test_result presets[2] = {measured(-1.0f, 2), measured(0.0f, 1)};
    EXPECT_EQ(table_of(presets, 2), kHeader);
}

TEST_F(TempDir, NullArrayWritesTheSectionsWithoutHeader) {
    std::string temp = path("results.csv_temp");
    testing::internal::CaptureStdout();
    int rc = save_test_results_temp_at(temp.c_str(), nullptr, 0);
    fflush(stdout);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, 0);
    std::string text = slurp(temp);
    EXPECT_THAT(text, ::testing::StartsWith("Test Info:\n"));
    EXPECT_THAT(text, Not(HasSubstr("version,description")));
}

TEST_F(TempDir, RecordsFollowTheSectionsAfterTheHeader) {
    std::string temp = path("results.csv_temp");
    test_result recs[2] = {measured(0.0f, 2), measured(12.5f, 0)};
    testing::internal::CaptureStdout();
    int rc = save_test_results_temp_at(temp.c_str(), recs, 2);
    fflush(stdout);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, 0);
    std::string text = slurp(temp);
    EXPECT_THAT(text, ::testing::StartsWith("Test Info:\n"));
    size_t header = text.find(kHeader);
    ASSERT_NE(header, std::string::npos);
    EXPECT_EQ(text.substr(header + strlen(kHeader)),
              "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,12.500000,,1,1,3.250000,Fail\n");
}

TEST_F(TempDir, TempFileThatCannotBeCreatedIsReported) {
    std::string temp = path("missing_dir/results.csv_temp");
    testing::internal::CaptureStdout();
    int rc = save_test_results_temp_at(temp.c_str(), nullptr, 0);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, -1);
    EXPECT_THAT(out, HasSubstr("[FLASH]INFO:log_errno:"));
    EXPECT_THAT(out, HasSubstr(" Can't create output file.\n"));
}

TEST_F(TempDir, InstallMovesTheFileIntoPlaceWithModeAndOwner) {
    std::string temp = path("results.csv_temp");
    std::string final_path = path("results.csv");
    {
        std::ofstream(temp) << "new";
        std::ofstream(final_path) << "old";
    }
    chmod(temp.c_str(), 0600);
    testing::internal::CaptureStdout();
    install_results_file(temp.c_str(), final_path.c_str());
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(slurp(final_path), "new");
    EXPECT_NE(access(temp.c_str(), F_OK), 0);
    struct stat st {};
    ASSERT_EQ(stat(final_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    if (geteuid() == 0) {
        EXPECT_EQ(st.st_uid, 1000u);
        EXPECT_EQ(st.st_gid, 1000u);
        EXPECT_EQ(out, "");
    }
}

TEST_F(TempDir, FailedRenameKeepsTheOldFileAndStops) {
    std::string final_path = path("results.csv");
    std::ofstream(final_path) << "old";
    chmod(final_path.c_str(), 0600);
    testing::internal::CaptureStdout();
    install_results_file(path("absent_temp").c_str(), final_path.c_str());
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_THAT(out, HasSubstr(" Failed to replace the result output file\n"));
    EXPECT_THAT(out, Not(HasSubstr("chmod")));
    EXPECT_EQ(slurp(final_path), "old");
    struct stat st {};
    ASSERT_EQ(stat(final_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

}  // namespace
