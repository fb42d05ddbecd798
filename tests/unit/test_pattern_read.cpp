// Read-disturb verification over pattern files prepared by the test itself.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "flashaging/environment.h"
#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "flashaging/sbmt_barrier.h"
#include "test_pattern_support.h"

using namespace pattern_test;

namespace {

const char *const kPrefix = R"(\[[^\]]+\]\[\d+\])";

// Case 2 is current (one group, one desc: pattern 7, 32 MiB files) with one file handed out,
// and five files 7_33554432_1..5 exist. The reader looks only at their first 32 KiB, so the
// files hold 64 KiB: the pattern, then a second half that differs from it.
class ReadDisturb : public ::testing::Test {
  protected:
    void SetUp() override {
        g_filler_stop.store(0);
        g_args = &args_;
        dir_ = tmp_.sub("file_pattern");
        capture_stdout([&] { pattern_init(dir_.c_str(), 2); });
        desc_ = &g_cur_groups.load()[0].descs[0];
        ASSERT_EQ(desc_->file_size, 33554432);
        desc_->left_num.store(desc_->file_num - 1);
        for (int seq = 1; seq <= 5; ++seq) write_whole(name(seq), file_bytes(7, 32768));
    }
    void TearDown() override {
        g_args = nullptr;
        g_filler_stop.store(0);
    }

    std::string name(int seq) const { return dir_ + "7_33554432_" + std::to_string(seq); }

    // size bytes of the pattern followed by as many bytes that are not the pattern.
    static std::vector<uint8_t> file_bytes(int id, size_t size) {
        std::vector<uint8_t> data = pattern_bytes(id, size);
        data.resize(2 * size, 0x5A);
        return data;
    }

    int32_t run_reader(std::string *out) {
        int32_t result = -1;
        *out = capture_stdout([&] { result = read_disturb_file_in(dir_.c_str()); });
        return result;
    }

    ScratchDir tmp_;
    std::string dir_;
    file_desc *desc_ = nullptr;
    test_args args_{};
};

TEST_F(ReadDisturb, GoodFilesAndStopFlagEndWithZeroAndNoSummary) {
    g_filler_stop.store(1);
    std::string out;
    EXPECT_EQ(run_reader(&out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(ReadDisturb, WatchdogTestOverAlsoStops) {
    args_.test_over.store(1);
    std::string out;
    EXPECT_EQ(run_reader(&out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(ReadDisturb, CorruptedFileFailsWithoutMessage) {
    std::vector<uint8_t> data = file_bytes(7, 32768);
    data[20000] ^= 0x01;
    write_whole(name(3), data);
    std::string out;
    EXPECT_EQ(run_reader(&out), 1);
    EXPECT_EQ(out, "");
}

// Small files are compared over their own size only: past 4096 bytes these files do not hold
// the pattern, which a longer read would see.
TEST_F(ReadDisturb, SmallFilesAreReadAtTheirOwnSize) {
    capture_stdout([&] { pattern_init(dir_.c_str(), 0); });
    g_cur_group_num.store(1);  // only case 0's 4096-byte group
    file_desc *small = &g_cur_groups.load()[0].descs[1];
    ASSERT_EQ(small->pattern_id, 1);
    ASSERT_EQ(small->file_num, 5);
    small->left_num.store(4);
    for (int seq = 1; seq <= 5; ++seq) write_whole(dir_ + "1_4096_" + std::to_string(seq), file_bytes(1, 4096));
    g_filler_stop.store(1);
    std::string out;
    EXPECT_EQ(run_reader(&out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(ReadDisturb, SummaryAfterMoreThanAThousandGoodReads) {
    // Stop once this thread has made 1500 read calls (its own I/O counters tell).
    const pid_t reader_tid = gettid();
    std::atomic<bool> finished{false};
    std::thread stopper([&] {
        const std::string io = "/proc/self/task/" + std::to_string(reader_tid) + "/io";
        auto syscr = [&] {
            std::ifstream in(io);
            std::string key;
            long long value = 0;
            while (in >> key >> value)
                if (key == "syscr:") return value;
            return -1LL;
        };
        const long long base = syscr();
        while (!finished.load()) {
            if (syscr() - base >= 1500) {
                g_filler_stop.store(1);
                return;
            }
            usleep(5000);
        }
    });
    std::string out;
    const int32_t result = run_reader(&out);
    finished.store(true);
    stopper.join();
    EXPECT_EQ(result, 0);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        out, m,
        std::regex(std::string(kPrefix) +
                   R"(\[FLASH\]INFO:read_disturb_file:\d+ read_times is (\d+), average 1000 times cost \d+\.\d\ds\n)")))
        << out;
    EXPECT_GT(std::stoi(m[1]), 1000);
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
    EXPECT_TRUE(std::regex_match(out, std::regex(std::string(kPrefix) + R"(\[FLASH\]INFO:read_disturb_file:\d+ open )" +
                                                 re_escape(name(5)) + " failed 6\\n")))
        << out;
}

// An empty file reads 0 bytes; errno still holds ENOENT from the search's first probe, so the
// reader waits 10 s and tries the same file once more, then fails.
TEST_F(ReadDisturb, EmptyReadIsRetriedOnceThenFails) {
    write_whole(name(3), {});
    std::string out;
    EXPECT_EQ(run_reader(&out), 1);
    const std::string line =
        std::string(kPrefix) + R"(\[FLASH\]INFO:read_disturb_file:\d+ read file )" + re_escape(name(3)) + " failed 2\\n";
    EXPECT_TRUE(std::regex_match(out, std::regex(line + line))) << out;
}

TEST_F(ReadDisturb, NoCaseCurrentGivesUpAfter21Attempts) {
    g_cur_group_num.store(0);
    std::string out;
    EXPECT_EQ(run_reader(&out), 1);
    EXPECT_TRUE(std::regex_match(
        out, std::regex(std::string(kPrefix) + R"(\[FLASH\]INFO:read_disturb_file:\d+ fail to get disturb file name\n)")))
        << out;
}

}  // namespace
