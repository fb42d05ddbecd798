#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"

namespace {

std::string capture(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

uint64_t word_at(const std::vector<uint8_t> &buf, size_t i) {
    uint64_t w = 0;
    for (int b = 7; b >= 0; --b) w = (w << 8) | buf[i * 8 + b];  // stored little-endian
    return w;
}

TEST(PatternStream, FirstWordsOfTheGenerator) {
    std::vector<uint8_t> buf(kBuffer4MB);
    pattern_stream_fill(buf.data(), buf.size());
    EXPECT_EQ(word_at(buf, 0), 0x44DEBD988ED375AFULL);
    EXPECT_EQ(word_at(buf, 1), 0x3D546E7B4BA22818ULL);
    EXPECT_EQ(word_at(buf, 2), 0x40DDD0445799AFA5ULL);
    EXPECT_EQ(word_at(buf, 3), 0x3D0E0268D46FCEE6ULL);
    EXPECT_EQ(buf[0], 0xAF);
    // Every word has its top bit cleared, and the stream is the same on every fill.
    uint64_t x = 99098;
    for (size_t i = 0; i < buf.size() / 8; ++i) {
        x = x * 0x369DEA0F31A53F85ULL + 0xB504F32DULL;
        ASSERT_EQ(word_at(buf, i), x & 0x7FFFFFFFFFFFFFFFULL) << i;
    }
}

TEST(PatternStream, ScanFindsAnyNonZeroWord) {
    std::vector<uint8_t> buf(kBuffer4MB, 0);
    EXPECT_FALSE(buffer_has_nonzero_word(buf.data(), buf.size()));
    buf[buf.size() - 1] = 1;
    EXPECT_TRUE(buffer_has_nonzero_word(buf.data(), buf.size()));
    buf[buf.size() - 1] = 0;
    buf[300] = 0x80;
    EXPECT_TRUE(buffer_has_nonzero_word(buf.data(), buf.size()));
}

class Marker : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/flashaging_marker_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/flash_aging_result.txt";
    }
    void TearDown() override {
        std::string cmd = "rm -rf " + dir_;
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    std::string contents() {
        std::string s;
        FILE *f = fopen(path_.c_str(), "rb");
        if (!f) return s;
        char buf[64];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
        fclose(f);
        return s;
    }
    std::string dir_;
    std::string path_;
};

TEST_F(Marker, CreatedWithStartAndMode0644) {
    int fd = -1;
    mode_t old = umask(0);
    EXPECT_EQ(open_result_marker(path_.c_str(), &fd), 1);
    umask(old);
    ASSERT_GT(fd, 0);
    close(fd);
    EXPECT_EQ(contents(), "START");
    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(Marker, KeepsTheBytesOfAnEarlierRunBehindStart) {
    FILE *f = fopen(path_.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fputs("SUCCESS", f);
    fclose(f);
    int fd = -1;
    EXPECT_EQ(open_result_marker(path_.c_str(), &fd), 1);
    // The descriptor stays open, positioned behind "START".
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 5);
    close(fd);
    EXPECT_EQ(contents(), "STARTSS");
}

TEST_F(Marker, FailedOpenIsLoggedAndNotFatal) {
    int fd = 77;
    std::string missing = dir_ + "/no/such/dir/flash_aging_result.txt";
    int r = 0;
    std::string out = capture([&] { r = open_result_marker(missing.c_str(), &fd); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(fd, 77);
    // Without the timestamp prefix.
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[FLASH\]FATAL:init_result:\d+ open )" + missing + " error!\n\n")))
        << out;
}

}  // namespace
