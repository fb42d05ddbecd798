// The report sections of the results file, written from given texts; their order in the
// file is checked by the end-to-end scenarios.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;

TEST(ReadFile, DropsOnlyTheFinalLineEndAndCountsItOrSaysWhyNot) {
    ScratchDir tmp;
    char buf[32] = {};
    EXPECT_EQ(read_file(put(tmp.file("node"), "a\nb\n").c_str(), buf, sizeof buf - 1), 4);
    EXPECT_STREQ(buf, "a\nb");
    memset(buf, 0, sizeof buf);
    EXPECT_EQ(read_file(put(tmp.file("node2"), "350").c_str(), buf, sizeof buf - 1), 3);
    EXPECT_STREQ(buf, "350");

    const std::string absent = tmp.file("absent"), empty = put(tmp.file("empty"), "");
    const auto log = [](const std::string &errno_line, const std::string &warning) {
        return line("INFO", "log_errno", errno_line + "\n") + line("WARN", "read_file", warning + "\n");
    };
    const struct {
        const char *path;
        std::string log;
    } failures[] = {
        {absent.c_str(), log("Failed to open", "Failed to open file " + absent)},
        {nullptr, log("Failed to open", "Failed to open file (null)")},
        {empty.c_str(), log("Failed to read file", "Failed to read from " + empty)},
    };
    for (const auto &f : failures) {
        int64_t n = 0;
        std::string out = capture([&] { n = read_file(f.path, buf, 15); });
        EXPECT_EQ(n, -1);
        EXPECT_TRUE(matches(out, f.log)) << out;
    }
    // A null buffer fails without a word.
    EXPECT_EQ(capture([&] { EXPECT_EQ(read_file(empty.c_str(), nullptr, 15), -1); }), "");
}

TEST(Temperature, FourBracketedReadingsCutToTheBufferOrFourReports) {
    ScratchDir tmp;
    const std::pair<std::string, std::string> cases[] = {{"350\n", "350"}, {std::string(600, '7'), std::string(127, '7')}};
    int rc = 9;
    for (const auto &[content, shown] : cases) {
        const std::string node = put(tmp.file("temp"), content), reading = node + ":[" + shown + "]\n";
        EXPECT_EQ(written([&](FILE *out) { return write_memory_temperature(out, node.c_str()); }, &rc),
                  reading + reading + reading + reading);
        EXPECT_EQ(rc, 0);
    }
    std::string text = "?";
    std::string out = capture([&] {
        text = written([&](FILE *f) { return write_memory_temperature(f, tmp.file("absent").c_str()); }, &rc);
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(text, "");
    EXPECT_EQ(count(out, "[save_memory_temperature]Failed to write entry in output file\n"), 4) << out;
}

TEST(Zarvo, FilesWholeBelowTheirPathAndMissingOrNullPlacesReported) {
    ScratchDir tmp;
    const std::string a = put(tmp.file("alloc_wait"), "line one\nline two\nline three\n");
    const std::string b = put(tmp.file("iowait"), "7\n");
    const std::string missing = tmp.file("cpu_loading");
    const char *places[] = {a.c_str(), missing.c_str(), b.c_str(), nullptr, nullptr};
    int rc = 9;
    std::string text;
    std::string out = capture([&] { text = written([&](FILE *f) { return write_zarvo_healthinfo(f, places, 5); }, &rc); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(text, a + ":\nline one\nline two\nline three\n" + b + ":\n7\n");
    EXPECT_EQ(count(out, " Failed to open file " + missing + "\n"), 1) << out;
    EXPECT_EQ(count(out, " Failed to open file (null)\n"), 2) << out;
    EXPECT_EQ(count_re(out, bare("INFO", "log_errno", "[save_zarvo_healthinfo]Failed to write entry in output file\n")), 3)
        << out;

    // A file of the full buffer length stays terminated.
    const std::string full = put(tmp.file("sched_latency"), std::string(700, 'x'));
    const char *one[] = {full.c_str()};
    EXPECT_EQ(written([&](FILE *f) { return write_zarvo_healthinfo(f, one, 1); }, &rc),
              full + ":\n" + std::string(512, 'x') + "\n");
    EXPECT_EQ(rc, 0);
}

TEST(SignalRecord, ItemsAndTheirErrorsAndNoTitleWithoutARecord) {
    ScratchDir tmp;
    const std::string rec = put(tmp.file("record"), "item 12 word\ngear\t3\nlonely\n\nnotanumber abc\n");
    int rc = 9;
    std::string text;
    std::string out = capture([&] { text = written([&](FILE *f) { return write_ufs_signal_record(f, rec.c_str()); }, &rc); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(text, "\nUFS Signal Record:\nitem: 12\ngear: 3\nnotanumber: 0\n");
    EXPECT_EQ(count_re(out, bare("ERROR", "get_item_and_value", "Failed to get value info, src:lonely, item:lonely\n\n")), 1)
        << out;
    EXPECT_EQ(count_re(out, bare("ERROR", "get_item_and_value", "Failed to get item info, src:\n\n\n")), 1) << out;

    const std::string absent = tmp.file("absent");
    out = capture([&] { text = written([&](FILE *f) { return write_ufs_signal_record(f, absent.c_str()); }, &rc); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(text + out, "");
}

TEST(HealthBlock, TitleThenOneLinePerCounterOrNothingWhenTheReadingFails) {
    healthinfo info{};
    const char *keys[5] = {"readReclaim", "badBlockRuntime", "TBW", "eraseCacheCntAvg", "eraseXLCCntAvg"};
    for (int i = 0; i < 5; ++i) info.entry[i] = {keys[i], static_cast<uint32_t>(10 * i + 1)};
    info.entry[2].value = 4000000000u;
    int rc = 9;
    EXPECT_EQ(written([&](FILE *f) { return write_healthinfo_block(f, info); }, &rc),
              "Health Info:\nreadReclaim:1\nbadBlockRuntime:11\nTBW:4000000000\neraseCacheCntAvg:31\neraseXLCCntAvg:41\n");
    EXPECT_EQ(rc, 0);

    // This host has no health tool, so the reading fails.
    std::string text;
    std::string out = capture([&] { text = written([](FILE *f) { return save_healthinfo(f); }, &rc); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(text, "");
    EXPECT_NE(out.find(" [save_healthinfo]Failed to get health info\n"), std::string::npos) << out;
}

TEST(TestInfo, ExactBlockWithDeviceVersionUnindented) {
    const device_properties p{"22001", "taro", "PHN110", "0x0200", "SAMSUNG", "31", "1d84000.ufshc", "abc123",
                              "user 12 release-keys", "Linux version 5.10", 1};
    int rc = 9;
    EXPECT_EQ(written([&](FILE *f) { return write_test_info(f, p); }, &rc),
              "Test Info:\n Product model:PHN110 22001\n Board platform:taro\nDevice_version:0x0200\n Manufacture:SAMSUNG\n"
              " Board temperature:31\n Serialno:abc123\n Bootdevice:1d84000.ufshc\n Build description:user 12 "
              "release-keys\n uname:Linux version 5.10\n");
    EXPECT_EQ(rc, 0);

    // A kernel version as long as its field has no terminator: the line stops at the field.
    device_properties full = p;
    memset(full.uname, 'k', sizeof full.uname);
    full.storage_type = 0x41414141;  // "AAAA" right behind the field
    const std::string text = written([&](FILE *f) { return write_test_info(f, full); }, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(text.substr(text.find(" uname:")), " uname:" + std::string(256, 'k') + "\n");
}

}  // namespace
