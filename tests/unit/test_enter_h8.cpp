#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "flashaging/enter_h8.h"

namespace fs = std::filesystem;

namespace {

// Collects what the code under test prints on standard output.
struct CapturedStdout {
    CapturedStdout() { testing::internal::CaptureStdout(); }
    std::string take() {
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
};

// A scratch directory on the disk (not tmpfs), so O_DIRECT opens work.
class EnterH8Loop : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/var/tmp/enter_h8_test.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        root_ = templ;
        dir_ = root_ + "/enter_h8";
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string root_;
    std::string dir_;
};

std::vector<unsigned char> read_all(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

TEST(EnterH8Descriptor, PresetRecordAndOperations) {
    flash_test *t = enter_h8_init();
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->run, enter_h8_run);
    EXPECT_EQ(t->get_results, enter_h8_get_results);
    EXPECT_EQ(t->destroy, enter_h8_destroy);

    uint32_t count = 0;
    test_result *r = t->get_results(t, &count);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(r, &t->results[0]);
    EXPECT_STREQ(r->version, "1.0");
    EXPECT_STREQ(r->description, "check if enter h8.");
    EXPECT_EQ(r->test_id, 5);
    EXPECT_EQ(r->result_id, 1u);
    EXPECT_STREQ(r->units, "none");
    EXPECT_EQ(r->minimum, 0.0f);
    EXPECT_EQ(r->maximum, 0.0f);
    EXPECT_EQ(r->value, -1.0f);  // not measured until the run replaces it by 0
    EXPECT_EQ(r->stdev, 0.0f);
    EXPECT_EQ(r->num_samples, 0u);
    EXPECT_EQ(r->test_ran, 0);
    EXPECT_EQ(r->duration_sec, 0.0);
    EXPECT_EQ(r->status, 2);
}

TEST(EnterH8Descriptor, DestroyOnlyLogsWithoutPrefix) {
    CapturedStdout cap;
    enter_h8_destroy(enter_h8_init());
    EXPECT_TRUE(std::regex_match(cap.take(),
                                 std::regex(R"(\[FLASH\]FATAL:enter_h8_destroy:\d+ enter h8 thread destroy\n)")));
}

TEST_F(EnterH8Loop, WritesBlocksOf0x55AndRemovesItsDirectory) {
    // The file outside the directory survives the final removal, so its bytes can be read.
    const std::string file = root_ + "/kept_tmp";
    CapturedStdout cap;
    enter_h8_write_loop(dir_.c_str(), file.c_str(), 5, 1000, nullptr);
    std::string out = cap.take();

    std::vector<unsigned char> data = read_all(file);
    ASSERT_EQ(data.size(), 5u * 4096u);
    for (size_t i = 0; i < data.size(); ++i)
        ASSERT_EQ(data[i], 0x55) << "byte " << i;

    EXPECT_FALSE(fs::exists(dir_));
    EXPECT_NE(out.find("[FLASH]INFO:enter_h8_write:"), std::string::npos);
    EXPECT_NE(out.find(" " + dir_ + " not exist\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" sleep interval:1000, write count:5\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("failed to write"), std::string::npos) << out;
}

TEST_F(EnterH8Loop, OldDirectoryIsEmptiedAndTheFileInsideIsRemovedAtTheEnd) {
    fs::create_directories(dir_ + "/old/deeper");
    std::ofstream(dir_ + "/old/deeper/junk") << "left from an earlier run";
    const std::string file = dir_ + "/enter_h8_tmp";

    CapturedStdout cap;
    enter_h8_write_loop(dir_.c_str(), file.c_str(), 2, 0, nullptr);
    std::string out = cap.take();

    EXPECT_NE(out.find(" begin to delete the " + dir_ + "\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("not exist"), std::string::npos) << out;
    EXPECT_NE(out.find(" sleep interval:0, write count:2\n"), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(dir_));
}

TEST_F(EnterH8Loop, FailedOpenLeavesTheDirectoryAndNamesTheContext) {
    const std::string file = root_ + "/missing/enter_h8_tmp";
    CapturedStdout cap;
    enter_h8_write_loop(dir_.c_str(), file.c_str(), 3, 0, nullptr);
    std::string out = cap.take();

    EXPECT_NE(out.find("[FLASH]ERROR:enter_h8_write:"), std::string::npos) << out;
    EXPECT_NE(out.find(" create file " + file + " fail, ctx (nil).\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("sleep interval"), std::string::npos) << out;
    EXPECT_TRUE(fs::is_directory(dir_));  // made before the open, kept after it failed
    EXPECT_EQ(fs::status(dir_).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(EnterH8Loop, EveryFailedWriteIsLoggedAndTheLoopGoesOn) {
    // A child with a file size limit of 0 bytes: every write fails (EFBIG). Its output goes
    // to a pipe, which the limit does not touch.
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    const std::string file = dir_ + "/enter_h8_tmp";
    fflush(stdout);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        dup2(pipefd[1], STDOUT_FILENO);
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim {0, 0};
        setrlimit(RLIMIT_FSIZE, &lim);
        enter_h8_write_loop(dir_.c_str(), file.c_str(), 4, 0, nullptr);
        fflush(stdout);
        _exit(0);
    }
    close(pipefd[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(pipefd[0], buf, sizeof(buf))) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(pipefd[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    std::regex failed(R"(\[FLASH\]ERROR:enter_h8_write:\d+ failed to write, w_size -1\n)");
    auto count = std::distance(std::sregex_iterator(out.begin(), out.end(), failed), std::sregex_iterator());
    EXPECT_EQ(count, 4) << out;
    EXPECT_NE(out.find(" sleep interval:0, write count:4\n"), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(dir_));
}

}  // namespace
