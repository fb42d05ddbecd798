// The benchmark's figures and its workers' failure branches; the four modes at full size run
// in the end-to-end scenarios.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>

#include "flashaging/benchmark.h"
#include "flashaging/pattern.h"
#include "unit_support.h"

namespace {

using namespace ut;

TEST(BenchmarkFigures, OffsetsStayInsideTheFileAndTotalsSpanAllWorkers) {
    EXPECT_STREQ(bench_mode_of(3).name, "rand read");
    EXPECT_STREQ(bench_mode_of(4).name, "ERROR");
    EXPECT_STREQ(bench_mode_of(-1).name, "ERROR");
    EXPECT_EQ(bench_offset(true, 0, 12345), 0u);
    EXPECT_EQ(bench_offset(true, 1023, 0), 1023ull * 0x80000);
    // Random transfers land on a 4 KiB block of the first 64 MiB, whatever the draw.
    EXPECT_EQ(bench_offset(false, 7, 16384), 0u);
    EXPECT_EQ(bench_offset(false, 7, 16385), 4096u);
    EXPECT_EQ(bench_offset(false, 0, 0x7fffffff), 16383ull * 4096);

    bench_worker w[3] = {};
    w[0] = {0, 0, 0, 0, 0, 10.0f, 12.0f, 1 << 20, nullptr};
    w[1] = {1, 0, 0, 0, 0, 9.5f, 13.0f, 3 << 20, nullptr};
    // A worker that stopped on a failed seek: no end, no bytes; it only moves the start.
    w[2] = {2, 0, 0, 0, 0, 11.0f, 0.0f, 0, nullptr};
    uint64_t total = 0;
    float elapsed = 0;
    bench_totals(w, 3, &total, &elapsed);
    EXPECT_EQ(total, 4u << 20);
    EXPECT_FLOAT_EQ(elapsed, 3.5f);
}

class BenchmarkWorker : public ::testing::Test {
  protected:
    void SetUp() override {
        // Pattern blocks and a current file group for the workers' buffers.
        capture([&] { pattern_init(tmp_.sub("pattern").c_str(), 2); });
        bench_reset_transfers();
    }
    ScratchDir tmp_;
};

TEST_F(BenchmarkWorker, FailedSeekIsNoFailureAndLeavesNoEnd) {
    bench_worker w{};
    w.fd = -1;
    w.sequential = 1;
    w.write = 1;
    EXPECT_EQ(capture([&] { benchmark_fn(&w); }), "lseek failed " + std::to_string(EBADF) + "\n");
    EXPECT_EQ(w.result, 0);
    EXPECT_EQ(w.end, 0.0f);
    EXPECT_EQ(w.bytes, 0u);
    EXPECT_GT(w.start, 0.0f);
    EXPECT_EQ(bench_transfers_taken(), 1u);  // the transfer was taken before the seek
}

TEST_F(BenchmarkWorker, FailedWriteRecordsErrnoAndEndsTheWorker) {
    const std::string path = put(tmp_.file("ro"), "");
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    bench_worker w{};
    w.fd = fd;
    w.write = 1;  // random write on a read-only descriptor
    std::string out = capture([&] { benchmark_fn(&w); });
    close(fd);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, std::regex(R"(w/r fail (\d+), offset is (\d+), wr_size is -1, op_size is 4096\n)")))
        << out;
    EXPECT_EQ(std::stoi(m[1]), EBADF);
    EXPECT_LT(std::stoull(m[2]), 64ull << 20);
    EXPECT_EQ(w.result, EBADF);
    EXPECT_GT(w.end, 0.0f);  // a failed transfer still ends the worker normally
    EXPECT_EQ(w.bytes, 0u);
    EXPECT_EQ(bench_transfers_taken(), 1u);
}

}  // namespace
