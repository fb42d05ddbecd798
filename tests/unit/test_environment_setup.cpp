// Set-up pieces: the generator stream, the pass/fail record, capacity and free space.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "unit_support.h"

namespace {

using namespace ut;

constexpr uint64_t kGiB = 1073741824ULL;

TEST(PatternStream, FirstWordsOfTheGeneratorAndTheNonZeroScan) {
    std::vector<uint8_t> buf(kBuffer4MB);
    pattern_stream_fill(buf.data(), buf.size());
    const uint64_t first[4] = {0x44DEBD988ED375AFULL, 0x3D546E7B4BA22818ULL, 0x40DDD0445799AFA5ULL,
                               0x3D0E0268D46FCEE6ULL};
    for (size_t i = 0; i < 4; ++i) {
        uint64_t w = 0;
        for (int b = 7; b >= 0; --b) w = (w << 8) | buf[i * 8 + b];  // stored little-endian
        EXPECT_EQ(w, first[i]) << i;
    }
    // The stream reaches the end of the buffer.
    EXPECT_TRUE(buffer_has_nonzero_word(buf.data() + buf.size() - 256, 256));

    std::vector<uint8_t> zero(kBuffer4MB, 0);
    EXPECT_FALSE(buffer_has_nonzero_word(zero.data(), zero.size()));
    zero[zero.size() - 1] = 1;
    EXPECT_TRUE(buffer_has_nonzero_word(zero.data(), zero.size()));
    zero[zero.size() - 1] = 0;
    zero[300] = 0x80;
    EXPECT_TRUE(buffer_has_nonzero_word(zero.data(), zero.size()));
}

TEST(Marker, StartOverAnEarlierRunsBytesOrAFailedOpenThatIsNotFatal) {
    ScratchDir tmp;
    const std::string earlier = put(tmp.file("earlier"), "SUCCESS");
    int fd = -1;
    EXPECT_EQ(open_result_marker(earlier.c_str(), &fd), 1);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 5) << "the descriptor stays open behind \"START\"";
    close(fd);
    EXPECT_EQ(slurp(earlier), "STARTSS");

    // A failed open is logged (without the time prefix) and set-up goes on without a record.
    fd = 77;
    const std::string missing = tmp.file("no/such/dir/flash_aging_result.txt");
    int r = 0;
    std::string out = capture([&] { r = open_result_marker(missing.c_str(), &fd); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(fd, 77);
    EXPECT_TRUE(matches(out, bare("FATAL", "init_result", "open " + missing + " error!\n\n"))) << out;
}

TEST(Capacity, SmallestPowerOfTwoMultipleOf32GiB) {
    const uint64_t cases[][2] = {
        {0, 32 * kGiB},          {32 * kGiB, 32 * kGiB}, {32 * kGiB + 1, 64 * kGiB}, {100 * kGiB, 128 * kGiB},
        {512 * kGiB, 512 * kGiB}, {1ULL << 63, 1ULL << 63},
        {UINT64_MAX, 1ULL << 63},  // beyond any real partition the walk still ends, at its last value
    };
    for (const auto &c : cases) EXPECT_EQ(capacity_from_total(c[0]), c[1]) << c[0];
}

TEST(SpaceQueries, FreeBlocksOfTheSuperuserAndTotalBlocks) {
    ScratchDir tmp;
    struct statfs st {};
    ASSERT_EQ(statfs(tmp.path().c_str(), &st), 0);
    const uint64_t block = st.f_bsize;
    const uint64_t free_bytes = free_space_at(tmp.path().c_str());
    EXPECT_NEAR(double(free_bytes), double(uint64_t(st.f_bfree) * block), 64.0 * 1024 * 1024);
    EXPECT_EQ(free_bytes % block, 0u);

    uint64_t cap = 0;
    std::string out = capture([&] { cap = total_capacity_at(tmp.path().c_str()); });
    EXPECT_EQ(cap, capacity_from_total(uint64_t(st.f_blocks) * block));
    EXPECT_TRUE(matches(out, line("INFO", "get_total_capacity", "flash capacity is " + std::to_string(cap) + "\n")))
        << out;

    // A failed statfs gives all ones, with a message at a different level for each.
    uint64_t v = 0;
    out = capture([&] { v = free_space_at("/nonexistent/flashaging"); });
    EXPECT_EQ(v, UINT64_MAX);
    EXPECT_TRUE(matches(out, line("INFO", "get_free_space", "fail to get stat for FS\n"))) << out;
    out = capture([&] { v = total_capacity_at("/nonexistent/flashaging"); });
    EXPECT_EQ(v, UINT64_MAX);
    EXPECT_TRUE(matches(out, line("ERROR", "get_total_capacity", "fail to get stat for FS\n"))) << out;
}

TEST(FreeSpaceGate, SixtyFourGiBPassesOneBlockLessSkips) {
    // The all-ones value of a failed query passes, deliberately.
    const uint64_t cases[][2] = {{64 * kGiB, 1}, {64 * kGiB - 4096, 2}, {UINT64_MAX, 1}, {0, 2}};
    const std::string pass = line("INFO", "initialize_flashtest_env", "Init Success!\n"),
                      skip = bare("FATAL", "initialize_flashtest_env", "Userdata partition is not mounted\n\n");
    for (const auto &c : cases) {
        int r = 0;
        std::string out = capture([&] { r = free_space_gate(c[0]); });
        EXPECT_EQ(r, int(c[1])) << c[0];
        EXPECT_TRUE(matches(out, c[1] == 1 ? pass : skip)) << out;
    }
}

}  // namespace
