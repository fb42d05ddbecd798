// The writers' barrier (10 s give-up, no generation counter) and the stop test.
#include <gtest/gtest.h>

#include <pthread.h>

#include <cerrno>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/log.h"
#include "flashaging/sbmt_barrier.h"

namespace {

template <typename F>
std::string capture_stdout(F &&f) {
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

uint32_t arrived_of(sbmt_barrier *b) {
    pthread_mutex_lock(&b->mutex);
    const uint32_t n = b->arrived;
    pthread_mutex_unlock(&b->mutex);
    return n;
}

size_t count_matches(const std::string &text, const std::regex &re) {
    return static_cast<size_t>(std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

TEST(SbmtBarrier, InitSetsCountsAndDestroySucceeds) {
    sbmt_barrier b;
    b.threshold = 99;
    b.arrived = 42;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(sbmt_barrier_init(&b, 8), 1);
        EXPECT_EQ(b.threshold, 8u);
        EXPECT_EQ(b.arrived, 0u);
        EXPECT_EQ(sbmt_barrier_destroy(&b), 1);
    });
    EXPECT_EQ(out, "");
}

TEST(SbmtBarrier, ThresholdOneReleasesEveryWaitAtOnce) {
    sbmt_barrier b;
    ASSERT_EQ(sbmt_barrier_init(&b, 1), 1);
    std::string out = capture_stdout([&] {
        for (int i = 0; i < 5; ++i) EXPECT_EQ(sbmt_barrier_wait(&b), 0);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(arrived_of(&b), 0u);
    EXPECT_EQ(sbmt_barrier_destroy(&b), 1);
}

TEST(SbmtBarrier, FullCountReleasesAllAndTheNextPassCountsFromZero) {
    sbmt_barrier b;
    ASSERT_EQ(sbmt_barrier_init(&b, 4), 1);
    std::string out = capture_stdout([&] {
        for (int pass = 0; pass < 3; ++pass) {
            std::vector<int> results(4, -2);
            std::vector<std::thread> threads;
            for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { results[i] = sbmt_barrier_wait(&b); });
            for (std::thread &t : threads) t.join();
            for (int r : results) EXPECT_EQ(r, 0) << "pass " << pass;
            EXPECT_EQ(arrived_of(&b), 0u);
        }
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(sbmt_barrier_destroy(&b), 1);
}

// Seven of eight arrive: each gives up after 10 s with the wait's own code (110) and the text
// of errno cut to 19 characters; the seven stay counted, so the eighth releases at once.
TEST(SbmtBarrier, MissingArrivalTimesOutAndLateArrivalCompletesTheCount) {
    sbmt_barrier b;
    ASSERT_EQ(sbmt_barrier_init(&b, 8), 1);
    capture_stdout([] { fv_print_time(); });  // the first local-time conversion is done
    std::vector<int> results(7, -2);
    std::string out = capture_stdout([&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 7; ++i)
            threads.emplace_back([&, i] {
                errno = ENOTRECOVERABLE;  // "State not recoverable", 21 characters
                results[i] = sbmt_barrier_wait(&b);
            });
        for (std::thread &t : threads) t.join();
    });
    for (int r : results) EXPECT_EQ(r, -1);
    // Lines of different threads may be split between prefix and body; count the bodies.
    const std::regex body(R"(\[FLASH\]ERROR:sbmt_barrier_wait:\d+ Wait the barrier cond failed with 110, State not recoverab\n)");
    EXPECT_EQ(count_matches(out, body), 7u) << out;
    const std::regex prefix(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[\d+\])");
    EXPECT_EQ(count_matches(out, prefix), 7u) << out;
    EXPECT_EQ(arrived_of(&b), 7u);

    out = capture_stdout([&] { EXPECT_EQ(sbmt_barrier_wait(&b), 0); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(arrived_of(&b), 0u);
    EXPECT_EQ(sbmt_barrier_destroy(&b), 1);
}

TEST(ShouldStopNow, StopFlagBitZeroOrWatchdogTestOver) {
    test_args args{};
    g_args = nullptr;
    g_filler_stop.store(0);
    EXPECT_EQ(should_stop_now(), 0);  // no settings yet: not over
    g_filler_stop.store(1);
    EXPECT_EQ(should_stop_now(), 1);
    g_filler_stop.store(2);
    EXPECT_EQ(should_stop_now(), 0);  // only bit 0 counts
    g_filler_stop.store(3);
    EXPECT_EQ(should_stop_now(), 1);

    g_filler_stop.store(0);
    g_args = &args;
    EXPECT_EQ(should_stop_now(), 0);
    args.test_over.store(2);
    EXPECT_EQ(should_stop_now(), 0);  // over means exactly 1
    args.test_over.store(1);
    EXPECT_EQ(should_stop_now(), 1);
    g_args = nullptr;
}

}  // namespace
