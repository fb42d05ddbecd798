#include <gtest/gtest.h>

#include <sys/statfs.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <regex>
#include <string>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"

namespace {

std::string capture(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

constexpr uint64_t kGiB = 1073741824ULL;

TEST(Capacity, SmallestPowerOfTwoMultipleOf32GiB) {
    EXPECT_EQ(capacity_from_total(0), 32 * kGiB);
    EXPECT_EQ(capacity_from_total(32 * kGiB), 34359738368ULL);
    EXPECT_EQ(capacity_from_total(32 * kGiB + 1), 68719476736ULL);
    EXPECT_EQ(capacity_from_total(100 * kGiB), 137438953472ULL);
    EXPECT_EQ(capacity_from_total(512 * kGiB), 512 * kGiB);
    EXPECT_EQ(capacity_from_total(1ULL << 63), 1ULL << 63);
    // Beyond any real partition the walk still ends, at its last value.
    EXPECT_EQ(capacity_from_total(UINT64_MAX), 1ULL << 63);
}

TEST(SpaceQueries, MeasureTheDirectoryWithFreeBlocksAndTotalBlocks) {
    char dir[] = "/tmp/flashaging_space_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    struct statfs st {};
    ASSERT_EQ(statfs(dir, &st), 0);
    uint64_t free_bytes = free_space_at(dir);
    // Free space counts the blocks free to the superuser (the other count is f_bavail).
    uint64_t expected = static_cast<uint64_t>(st.f_bfree) * static_cast<uint64_t>(st.f_bsize);
    uint64_t block = static_cast<uint64_t>(st.f_bsize);
    EXPECT_NEAR(static_cast<double>(free_bytes), static_cast<double>(expected), 64.0 * 1024 * 1024) << block;
    EXPECT_EQ(free_bytes % block, 0u);

    uint64_t cap = 0;
    std::string out = capture([&] { cap = total_capacity_at(dir); });
    EXPECT_EQ(cap, capacity_from_total(static_cast<uint64_t>(st.f_blocks) * block));
    std::regex line(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_total_capacity:\d+ flash capacity is )" + std::to_string(cap) + "\n");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
    rmdir(dir);
}

TEST(SpaceQueries, FailedStatfsGivesAllOnesAtTwoLevels) {
    uint64_t v = 0;
    std::string out = capture([&] { v = free_space_at("/nonexistent/flashaging"); });
    EXPECT_EQ(v, UINT64_MAX);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:get_free_space:\d+ fail to get stat for FS\n)")))
        << out;
    out = capture([&] { v = total_capacity_at("/nonexistent/flashaging"); });
    EXPECT_EQ(v, UINT64_MAX);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]ERROR:get_total_capacity:\d+ fail to get stat for FS\n)")))
        << out;
}

TEST(FreeSpaceGate, SixtyFourGiBPassesOneBlockLessSkips) {
    int r = 0;
    std::string out = capture([&] { r = free_space_gate(68719476736ULL); });
    EXPECT_EQ(r, 1);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:initialize_flashtest_env:\d+ Init Success!\n)")))
        << out;

    out = capture([&] { r = free_space_gate(68719476736ULL - 4096); });
    EXPECT_EQ(r, 2);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[FLASH\]FATAL:initialize_flashtest_env:\d+ Userdata partition is not mounted\n\n)")))
        << out;

    // The all-ones value of a failed query passes, deliberately.
    out = capture([&] { r = free_space_gate(UINT64_MAX); });
    EXPECT_EQ(r, 1);
    out = capture([&] { r = free_space_gate(0); });
    EXPECT_EQ(r, 2);
}

}  // namespace
