#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>

#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Collects what a section writes onto a stream.
class Sink {
  public:
    Sink() : out_(open_memstream(&buf_, &len_)) {}
    ~Sink() {
        if (out_) fclose(out_);
        free(buf_);
    }
    FILE *out() { return out_; }
    std::string text() {
        fflush(out_);
        return std::string(buf_, len_);
    }

  private:
    char *buf_ = nullptr;
    size_t len_ = 0;
    FILE *out_;
};

class Sections : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/fw_sections_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
    std::string file(const char *name, const std::string &content) {
        std::string p = dir_ + "/" + name;
        std::ofstream(p, std::ios::binary) << content;
        return p;
    }
    static void capture() { testing::internal::CaptureStdout(); }
    static std::string captured() {
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    std::string dir_;
};

TEST_F(Sections, ReadFileDropsOnlyTheFinalLineEndAndCountsIt) {
    std::string p = file("node", "a\nb\n");
    char buf[32] = {};
    EXPECT_EQ(read_file(p.c_str(), buf, sizeof buf - 1), 4);
    EXPECT_STREQ(buf, "a\nb");

    std::string q = file("node2", "350");
    char buf2[32] = {};
    EXPECT_EQ(read_file(q.c_str(), buf2, sizeof buf2 - 1), 3);
    EXPECT_STREQ(buf2, "350");
}

TEST_F(Sections, ReadFileFailures) {
    char buf[16] = {};
    capture();
    EXPECT_EQ(read_file((dir_ + "/absent").c_str(), buf, 15), -1);
    std::string out = captured();
    EXPECT_THAT(out, HasSubstr("[FLASH]INFO:log_errno:"));
    EXPECT_THAT(out, HasSubstr(" Failed to open\n"));
    EXPECT_THAT(out, HasSubstr("[FLASH]WARN:read_file:"));
    EXPECT_THAT(out, HasSubstr(" Failed to open file " + dir_ + "/absent\n"));

    capture();
    EXPECT_EQ(read_file(nullptr, buf, 15), -1);
    out = captured();
    EXPECT_THAT(out, HasSubstr(" Failed to open\n"));
    EXPECT_THAT(out, HasSubstr(" Failed to open file (null)\n"));

    std::string empty = file("empty", "");
    capture();
    EXPECT_EQ(read_file(empty.c_str(), buf, 15), -1);
    out = captured();
    EXPECT_THAT(out, HasSubstr(" Failed to read file\n"));
    EXPECT_THAT(out, HasSubstr(" Failed to read from " + empty + "\n"));

    // A null buffer fails without a word.
    capture();
    EXPECT_EQ(read_file(empty.c_str(), nullptr, 15), -1);
    EXPECT_EQ(captured(), "");
}

TEST_F(Sections, TemperatureGivesFourBracketedReadings) {
    std::string node = file("temp", "350\n");
    Sink sink;
    EXPECT_EQ(write_memory_temperature(sink.out(), node.c_str()), 0);
    std::string line = node + ":[350]\n";
    EXPECT_EQ(sink.text(), line + line + line + line);
}

TEST_F(Sections, LongTemperatureTextStaysInsideItsBuffer) {
    std::string node = file("temp", std::string(600, '7'));
    Sink sink;
    EXPECT_EQ(write_memory_temperature(sink.out(), node.c_str()), 0);
    std::string line = node + ":[" + std::string(127, '7') + "]\n";
    EXPECT_EQ(sink.text(), line + line + line + line);
}

TEST_F(Sections, MissingTemperatureNodeIsReportedFourTimes) {
    Sink sink;
    capture();
    EXPECT_EQ(write_memory_temperature(sink.out(), (dir_ + "/absent").c_str()), -1);
    std::string out = captured();
    EXPECT_EQ(sink.text(), "");
    int n = 0;
    for (size_t pos = 0;
         (pos = out.find("[save_memory_temperature]Failed to write entry in output file\n", pos)) !=
         std::string::npos;
         ++pos)
        ++n;
    EXPECT_EQ(n, 4);
}

TEST_F(Sections, ZarvoFilesWholeBelowTheirPathAndNullPlacesReportedAsMissing) {
    std::string a = file("alloc_wait", "line one\nline two\nline three\n");
    std::string b = file("iowait", "7\n");
    std::string missing = dir_ + "/cpu_loading";
    const char *places[] = {a.c_str(), missing.c_str(), b.c_str(), nullptr, nullptr};
    Sink sink;
    capture();
    EXPECT_EQ(write_zarvo_healthinfo(sink.out(), places, 5), -1);
    std::string out = captured();
    EXPECT_EQ(sink.text(), a + ":\nline one\nline two\nline three\n" + b + ":\n7\n");
    // The missing file and both empty places read like missing files.
    EXPECT_THAT(out, HasSubstr(" Failed to open file " + missing + "\n"));
    std::string null_msg = " Failed to open file (null)\n";
    size_t first = out.find(null_msg);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(out.find(null_msg, first + 1), std::string::npos);
    std::regex entry(R"(\[FLASH\]INFO:log_errno:\d+ \[save_zarvo_healthinfo\]Failed to write entry in output file\n)");
    EXPECT_EQ(std::distance(std::sregex_iterator(out.begin(), out.end(), entry), std::sregex_iterator()), 3);
}

TEST_F(Sections, ZarvoFileOfFullBufferLengthStaysTerminated) {
    std::string a = file("sched_latency", std::string(700, 'x'));
    const char *places[] = {a.c_str()};
    Sink sink;
    EXPECT_EQ(write_zarvo_healthinfo(sink.out(), places, 1), 0);
    EXPECT_EQ(sink.text(), a + ":\n" + std::string(512, 'x') + "\n");
}

TEST_F(Sections, SignalRecordItemsAndTheirErrors) {
    std::string rec = file("record",
                           "item 12 word\n"
                           "gear\t3\n"
                           "lonely\n"
                           "\n"
                           "notanumber abc\n");
    Sink sink;
    capture();
    EXPECT_EQ(write_ufs_signal_record(sink.out(), rec.c_str()), 0);
    std::string out = captured();
    EXPECT_EQ(sink.text(), "\nUFS Signal Record:\nitem: 12\ngear: 3\nnotanumber: 0\n");
    EXPECT_THAT(out, HasSubstr("[FLASH]ERROR:get_item_and_value:"));
    EXPECT_THAT(out, HasSubstr(" Failed to get value info, src:lonely, item:lonely\n\n"));
    EXPECT_THAT(out, HasSubstr(" Failed to get item info, src:\n\n\n"));
}

TEST_F(Sections, NoSignalRecordNoTitle) {
    Sink sink;
    capture();
    EXPECT_EQ(write_ufs_signal_record(sink.out(), (dir_ + "/absent").c_str()), 0);
    EXPECT_EQ(captured(), "");
    EXPECT_EQ(sink.text(), "");
}

TEST(HealthBlock, TitleThenOneLinePerCounterInEntryOrder) {
    healthinfo info{};
    const char *keys[5] = {"readReclaim", "badBlockRuntime", "TBW", "eraseCacheCntAvg",
                           "eraseXLCCntAvg"};
    for (int i = 0; i < 5; ++i) info.entry[i] = {keys[i], static_cast<uint32_t>(10 * i + 1)};
    info.entry[2].value = 4000000000u;
    Sink sink;
    EXPECT_EQ(write_healthinfo_block(sink.out(), info), 0);
    EXPECT_EQ(sink.text(),
              "Health Info:\nreadReclaim:1\nbadBlockRuntime:11\nTBW:4000000000\n"
              "eraseCacheCntAvg:31\neraseXLCCntAvg:41\n");
}

TEST(HealthBlock, FailedReadingLeavesTheBlockOut) {
    // This host has no health tool, so the reading fails.
    Sink sink;
    testing::internal::CaptureStdout();
    EXPECT_EQ(save_healthinfo(sink.out()), -1);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(sink.text(), "");
    EXPECT_THAT(out, HasSubstr(" [save_healthinfo]Failed to get health info\n"));
}

TEST(TestInfo, ExactBlockWithDeviceVersionUnindented) {
    device_properties p{};
    strcpy(p.model, "PHN110");
    strcpy(p.prjversion, "22001");
    strcpy(p.platform, "taro");
    strcpy(p.device_version, "0x0200");
    strcpy(p.manufacture, "SAMSUNG");
    strcpy(p.board_temperature, "31");
    strcpy(p.serialno, "abc123");
    strcpy(p.bootdevice, "1d84000.ufshc");
    strcpy(p.build_description, "user 12 release-keys");
    strcpy(p.uname, "Linux version 5.10");
    Sink sink;
    EXPECT_EQ(write_test_info(sink.out(), p), 0);
    EXPECT_EQ(sink.text(),
              "Test Info:\n Product model:PHN110 22001\n Board platform:taro\n"
              "Device_version:0x0200\n Manufacture:SAMSUNG\n Board temperature:31\n"
              " Serialno:abc123\n Bootdevice:1d84000.ufshc\n Build description:user 12 "
              "release-keys\n uname:Linux version 5.10\n");
}

}  // namespace
