#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include "flashaging/benchmark.h"
#include "flashaging/pattern.h"

namespace fs = std::filesystem;

namespace {

struct CapturedStdout {
    CapturedStdout() { testing::internal::CaptureStdout(); }
    std::string take() {
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
};

TEST(BenchmarkModes, TableInOrder) {
    const struct {
        const char *name;
        bool sequential, write;
        int32_t size;
        uint32_t count;
    } expected[4] = {
        {"seq write", true, true, 0x80000, 1024},
        {"seq read", true, false, 0x80000, 1024},
        {"rand write", false, true, 0x1000, 16384},
        {"rand read", false, false, 0x1000, 16384},
    };
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        bench_mode m = bench_mode_of(i);
        EXPECT_STREQ(m.name, expected[i].name);
        EXPECT_EQ(m.sequential, expected[i].sequential);
        EXPECT_EQ(m.write, expected[i].write);
        EXPECT_EQ(m.size, expected[i].size);
        EXPECT_EQ(m.count, expected[i].count);
        // Every mode moves the whole file (sequential) or 64 MiB (random).
        EXPECT_EQ(uint64_t(m.size) * m.count, m.sequential ? 512ull << 20 : 64ull << 20);
    }
    EXPECT_STREQ(bench_mode_of(4).name, "ERROR");
    EXPECT_STREQ(bench_mode_of(-1).name, "ERROR");
}

TEST(BenchmarkModes, OffsetsStayInsideTheFile) {
    EXPECT_EQ(bench_offset(true, 0, 12345), 0u);
    EXPECT_EQ(bench_offset(true, 1023, 0), 1023ull * 0x80000);
    // Random transfers land on a 4 KiB block of the first 64 MiB, whatever the draw.
    EXPECT_EQ(bench_offset(false, 7, 0), 0u);
    EXPECT_EQ(bench_offset(false, 7, 16384), 0u);
    EXPECT_EQ(bench_offset(false, 7, 16385), 4096u);
    EXPECT_EQ(bench_offset(false, 0, 0x7fffffff), 16383ull * 4096);
}

TEST(BenchmarkTotals, SpanFromFirstStartToLastEndAndSumOfBytes) {
    bench_worker w[3] = {};
    w[0].start = 10.0f; w[0].end = 12.0f; w[0].bytes = 1 << 20;
    w[1].start = 9.5f;  w[1].end = 13.0f; w[1].bytes = 3 << 20;
    // A worker that stopped on a failed seek: no end, no bytes; it only moves the start.
    w[2].start = 11.0f; w[2].end = 0.0f;  w[2].bytes = 0;
    uint64_t total = 0;
    float elapsed = 0;
    bench_totals(w, 3, &total, &elapsed);
    EXPECT_EQ(total, 4u << 20);
    EXPECT_FLOAT_EQ(elapsed, 3.5f);
}

class BenchmarkWorker : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/var/tmp/bench_test.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        root_ = templ;
        // Pattern blocks and a current file group for the workers' buffers.
        pattern_init((root_ + "/pattern/").c_str(), 2);
        bench_reset_transfers();
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string root_;
};

TEST_F(BenchmarkWorker, FailedSeekIsNoFailureAndLeavesNoEnd) {
    bench_worker w {};
    w.fd = -1;
    w.sequential = 1;
    w.write = 1;
    CapturedStdout cap;
    benchmark_fn(&w);
    std::string out = cap.take();
    EXPECT_EQ(out, "lseek failed " + std::to_string(EBADF) + "\n");
    EXPECT_EQ(w.result, 0);
    EXPECT_EQ(w.end, 0.0f);
    EXPECT_EQ(w.bytes, 0u);
    EXPECT_GT(w.start, 0.0f);
    EXPECT_EQ(bench_transfers_taken(), 1u);  // the transfer was taken before the seek
}

TEST_F(BenchmarkWorker, FailedWriteRecordsErrnoAndEndsTheWorker) {
    const std::string path = root_ + "/ro";
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);

    bench_worker w {};
    w.fd = fd;
    w.write = 1;  // random write on a read-only descriptor
    CapturedStdout cap;
    benchmark_fn(&w);
    std::string out = cap.take();
    close(fd);

    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        out, m, std::regex(R"(w/r fail (\d+), offset is (\d+), wr_size is -1, op_size is 4096\n)")))
        << out;
    EXPECT_EQ(std::stoi(m[1]), EBADF);
    EXPECT_EQ(std::stoull(m[2]) % 4096, 0u);
    EXPECT_LT(std::stoull(m[2]), 64ull << 20);
    EXPECT_EQ(w.result, EBADF);
    EXPECT_GT(w.end, 0.0f);  // a failed transfer still ends the worker normally
    EXPECT_EQ(w.bytes, 0u);
    EXPECT_EQ(bench_transfers_taken(), 1u);
}

TEST_F(BenchmarkWorker, EightWorkersShareOneCounterAndTakeEveryTransferOnce) {
    // A sparse file beyond 64 MiB: every random read lies inside it, even when another
    // worker has just moved the shared position.
    const std::string path = root_ + "/bench";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_DIRECT, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 128 << 20), 0);

    bench_worker w[8] = {};
    pthread_t th[8];
    for (int i = 0; i < 8; ++i) {
        w[i].index = i;
        w[i].fd = fd;
        ASSERT_EQ(pthread_create(&th[i], nullptr, benchmark_fn, &w[i]), 0);
    }
    for (pthread_t t : th)
        pthread_join(t, nullptr);
    close(fd);

    uint64_t total = 0;
    float elapsed = 0;
    bench_totals(w, 8, &total, &elapsed);
    for (const bench_worker &x : w)
        EXPECT_EQ(x.result, 0);
    EXPECT_EQ(total, 64ull << 20);  // 16384 transfers of 4 KiB, none lost, none twice
    EXPECT_EQ(bench_transfers_taken(), 16384u);
    EXPECT_GE(elapsed, 0.0f);
}

}  // namespace
