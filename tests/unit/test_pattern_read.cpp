// Read-disturb verification over pattern files prepared by the test itself.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "flashaging/environment.h"
#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "flashaging/sbmt_barrier.h"
#include "unit_support.h"

using namespace ut;

namespace {

// Case 2 is current (one group, one desc: pattern 7, 32 MiB files) with one file handed out,
// and five files 7_33554432_1..5 exist. The reader looks only at their first 32 KiB, so the
// files hold 64 KiB: the pattern, then a second half that differs from it.
class ReadDisturb : public ::testing::Test {
  protected:
    void SetUp() override {
        g_filler_stop.store(0);
        g_args = &args_;
        capture([&] { pattern_init(dir_.c_str(), 2); });
        file_desc *desc = &g_cur_groups.load()[0].descs[0];
        ASSERT_EQ(desc->file_size, 33554432);
        desc->left_num.store(desc->file_num - 1);
        for (int seq = 1; seq <= 5; ++seq) put(name(seq), file_bytes(7, 32768));
    }
    void TearDown() override {
        g_args = nullptr;
        g_filler_stop.store(0);
    }
    std::string name(int seq) const { return dir_ + "7_33554432_" + std::to_string(seq); }
    // size bytes of the pattern followed by as many bytes that are not the pattern.
    static std::string file_bytes(int id, size_t size) { return pattern_bytes(id, size) + std::string(size, '\x5A'); }
    int32_t run_reader(std::string *out) {
        int32_t result = -1;
        *out = capture([&] { result = read_disturb_file_in(dir_.c_str()); });
        return result;
    }

    ScratchDir tmp_;
    std::string dir_ = tmp_.sub("file_pattern");
    test_args args_{};
};

TEST_F(ReadDisturb, GoodFilesEndSilentlyOnTheStopFlagOrTheWatchdog) {
    std::string out;
    g_filler_stop.store(1);
    EXPECT_EQ(run_reader(&out), 0);
    EXPECT_EQ(out, "");
    g_filler_stop.store(0);
    args_.test_over.store(1);
    EXPECT_EQ(run_reader(&out), 0);
    EXPECT_EQ(out, "");

    // Small files are compared over their own size only: past 4096 bytes these files do not
    // hold the pattern, which a longer read would see.
    capture([&] { pattern_init(dir_.c_str(), 0); });
    g_cur_group_num.store(1);  // only case 0's 4096-byte group
    file_desc *small = &g_cur_groups.load()[0].descs[1];
    ASSERT_EQ(small->pattern_id, 1);
    small->left_num.store(small->file_num - 1);
    for (int seq = 1; seq <= 5; ++seq) put(dir_ + "1_4096_" + std::to_string(seq), file_bytes(1, 4096));
    EXPECT_EQ(run_reader(&out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(ReadDisturb, CorruptionPastTheFirstBlockFailsWithoutMessage) {
    std::string data = file_bytes(7, 32768);
    data[20000] ^= 0x01;
    put(name(3), data);
    std::string out;
    EXPECT_EQ(run_reader(&out), 1);
    EXPECT_EQ(out, "");
}

// The message names the last file the search found (the fifth), not the one that failed.
TEST_F(ReadDisturb, OpenFailureNamesTheLastFoundFile) {
    unlink(name(2).c_str());
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(name(2).size(), sizeof addr.sun_path);
    strcpy(addr.sun_path, name(2).c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);  // opens fail with ENXIO
    std::string out;
    EXPECT_EQ(run_reader(&out), 1);
    close(sock);
    EXPECT_TRUE(matches(out, line("INFO", "read_disturb_file", "open " + name(5) + " failed 6\n"))) << out;
}

// An empty file reads 0 bytes; errno still holds ENOENT from the search's first probe, so the
// reader waits 10 s and tries the same file once more, then fails.
TEST_F(ReadDisturb, EmptyReadIsRetriedOnceThenFails) {
    put(name(3), "");
    std::string out;
    EXPECT_EQ(run_reader(&out), 1);
    const std::string once = line("INFO", "read_disturb_file", "read file " + name(3) + " failed 2\n");
    EXPECT_TRUE(matches(out, once + once)) << out;
}

// Without the pattern's block there is nothing to compare with: the reader ends with 1 before
// it reads (these empty files would otherwise log failed reads and a retry).
TEST_F(ReadDisturb, MissingPatternBlockEndsWithOneBeforeReading) {
    for (int seq = 1; seq <= 5; ++seq) put(name(seq), "");
    file_unit *unit = g_cur_groups.load()[0].descs[0].unit;
    uint8_t *block = std::exchange(unit->buf, nullptr);
    std::string out;
    const int32_t result = run_reader(&out);
    unit->buf = block;
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(matches(out, R"(factory/agingtest/flashaging/pattern line \d+ invalid pointer\n)")) << out;
}

}  // namespace
