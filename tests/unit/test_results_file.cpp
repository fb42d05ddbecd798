#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;

const std::string kHeader =
    "version,description,test_id,result_id,units,minimum,maximum,value,stdev,num_samples,test_ran,duration_sec,status\n";
const std::string kFailLine = "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,12.500000,,1,1,3.250000,Fail\n";

test_result measured(float value, uint8_t status) {
    return test_result{"1.0", "seq write", 6, 1, "MB/s", 100.0f, 200.0f, value, 1.5f, 1, 1, 3.25, status};
}

// The table writer on an in-memory stream: what it wrote.
std::string table_of(const test_result *results, uint64_t count, int *rc) {
    return written([&](FILE *out) { return write_results_table(out, results, count); }, rc);
}

TEST(ResultLine, ColumnsOptionalColumnsAndStatusWords) {
    test_result r = measured(150.25f, 1);
    EXPECT_EQ(format_result_line(r), "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,150.250000,,1,1,3.250000,PASS\n");
    const struct {
        float maximum;
        uint32_t samples;
        uint8_t status;
        const char *part;
    } cases[] = {
        {FLT_MAX, 1, 1, ",100.000000,,150.250000,,1,1,3.250000,PASS\n"},  // no upper limit: an empty column
        {1e10f, 1, 1, ",100.000000,10000000000.000,150.250000,"},         // cut to 15 characters
        {200.0f, 2, 1, ",150.250000,1.500000,2,"},                        // stdev only for more than one sample
        {200.0f, 1, 0, ",Fail\n"},
        {200.0f, 1, 2, ",Todo\n"},
        {200.0f, 1, 7, ",Fail\n"},
    };
    for (const auto &c : cases) {
        r.maximum = c.maximum;
        r.num_samples = c.samples;
        r.status = c.status;
        std::string text = format_result_line(r);
        EXPECT_NE(text.find(c.part), std::string::npos) << text;
    }
}

TEST(ResultsTable, HeaderThenOneLinePerMeasuredRecord) {
    test_result recs[4] = {measured(0.0f, 1), measured(12.5f, 0), measured(-1.0f, 2), measured(NAN, 1)};
    int rc = 1;
    EXPECT_EQ(table_of(recs, 4, &rc),
              kHeader + kFailLine + "1.0,seq write,6,6.1,MB/s,100.000000,200.000000,nan,,1,1,3.250000,PASS\n");
    EXPECT_EQ(rc, 0);
    // No records, or only the tests' own presets (value 0 or -1): the header alone.
    EXPECT_EQ(table_of(recs, 0, &rc), kHeader);
    EXPECT_EQ(table_of(recs, 1, &rc), kHeader);
    EXPECT_EQ(table_of(recs + 2, 1, &rc), kHeader);
}

TEST(ResultsTemp, RecordsFollowTheSectionsAndAnUncreatableFileIsReported) {
    ScratchDir tmp;
    const std::string temp = tmp.file("results.csv_temp");
    test_result recs[2] = {measured(0.0f, 2), measured(12.5f, 0)};
    int rc = 1;
    capture([&] { rc = save_test_results_temp_at(temp.c_str(), recs, 2); });
    EXPECT_EQ(rc, 0);
    std::string text = slurp(temp);
    EXPECT_TRUE(text.starts_with("Test Info:\n")) << text;
    EXPECT_TRUE(text.ends_with("\n" + kHeader + kFailLine)) << text;

    std::string out = capture([&] { rc = save_test_results_temp_at(tmp.file("absent/x").c_str(), nullptr, 0); });
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(matches(out, line("INFO", "log_errno", "Can't create output file.\n"))) << out;
}

TEST(ResultsInstall, MovesTheFileIntoPlaceWithModeAndOwnerOrKeepsTheOldOne) {
    ScratchDir tmp;
    const std::string temp = put(tmp.file("results.csv_temp"), "new"), final_path = put(tmp.file("results.csv"), "old");
    chmod(temp.c_str(), 0600);
    chmod(final_path.c_str(), 0600);
    std::string out = capture([&] { install_results_file(tmp.file("absent").c_str(), final_path.c_str()); });
    EXPECT_NE(out.find(" Failed to replace the result output file\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("chmod"), std::string::npos) << out;
    EXPECT_EQ(slurp(final_path), "old");
    struct stat st {};
    ASSERT_EQ(stat(final_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    out = capture([&] { install_results_file(temp.c_str(), final_path.c_str()); });
    EXPECT_EQ(slurp(final_path), "new");
    EXPECT_NE(access(temp.c_str(), F_OK), 0);
    ASSERT_EQ(stat(final_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    if (geteuid() == 0) {
        EXPECT_EQ(st.st_uid, 1000u);
        EXPECT_EQ(st.st_gid, 1000u);
        EXPECT_EQ(out, "");
    }
}

}  // namespace
