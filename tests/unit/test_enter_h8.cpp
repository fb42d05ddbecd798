// The enter-H8 descriptor and the branches of its write loop that a real run does not take;
// the whole test (100 blocks, 3 s apart) runs in the end-to-end scenarios.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "flashaging/enter_h8.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace ut;

TEST(EnterH8Descriptor, PresetRecordAndDestroyLineWithoutPrefix) {
    flash_test *t = enter_h8_init();
    ASSERT_NE(t, nullptr);
    uint32_t count = 0;
    test_result *r = t->get_results(t, &count);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(r->test_id, 5);
    EXPECT_EQ(r->value, -1.0f);  // not measured until the run replaces it by 0
    std::string out = capture([&] { t->destroy(t); });
    EXPECT_TRUE(matches(out, bare("FATAL", "enter_h8_destroy", "enter h8 thread destroy\n"))) << out;
}

TEST(EnterH8Loop, OldDirectoryIsEmptiedAndBlocksOf0x55Written) {
    ScratchDir tmp;
    const std::string dir = tmp.file("enter_h8");
    fs::create_directories(dir + "/old/deeper");
    put(dir + "/old/deeper/junk", "left from an earlier run");
    // The file outside the directory survives the final removal, so its bytes can be read.
    const std::string file = tmp.file("kept_tmp");
    std::string out = capture([&] { enter_h8_write_loop(dir.c_str(), file.c_str(), 5, 0, nullptr); });
    EXPECT_EQ(slurp(file), std::string(5 * 4096, '\x55'));
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_TRUE(matches(out, line("INFO", "enter_h8_write", "begin to delete the " + dir + "\n") +
                                 line("INFO", "enter_h8_write", "sleep interval:0, write count:5\n")))
        << out;
}

TEST(EnterH8Loop, FailedOpenLeavesTheDirectoryAndNamesTheContext) {
    ScratchDir tmp;
    const std::string dir = tmp.file("enter_h8"), file = tmp.file("missing/enter_h8_tmp");
    std::string out = capture([&] { enter_h8_write_loop(dir.c_str(), file.c_str(), 3, 0, nullptr); });
    EXPECT_TRUE(matches(out, line("INFO", "enter_h8_write", dir + " not exist\n") +
                                 line("ERROR", "enter_h8_write", "create file " + file + " fail, ctx " + null_pointer_text() + ".\n")))
        << out;
    EXPECT_TRUE(fs::is_directory(dir));  // made before the open, kept after it failed
    EXPECT_EQ(fs::status(dir).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

TEST(EnterH8Loop, EveryFailedWriteIsLoggedAndTheLoopGoesOn) {
    // A file size limit of 0 bytes makes every write fail (EFBIG). The output goes to a pipe,
    // which the limit does not touch.
    ScratchDir tmp;
    const std::string dir = tmp.file("enter_h8"), file = dir + "/enter_h8_tmp";
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    fflush(stdout);
    const int saved_stdout = dup(STDOUT_FILENO);
    dup2(pipefd[1], STDOUT_FILENO);
    close(pipefd[1]);
    auto old_handler = signal(SIGXFSZ, SIG_IGN);
    struct rlimit old {};
    getrlimit(RLIMIT_FSIZE, &old);
    struct rlimit none {0, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    enter_h8_write_loop(dir.c_str(), file.c_str(), 4, 0, nullptr);
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, old_handler);
    fflush(stdout);
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    close(pipefd[0]);

    EXPECT_EQ(count_re(out, bare("ERROR", "enter_h8_write", "failed to write, w_size -1\n")), 4) << out;
    EXPECT_NE(out.find(" sleep interval:0, write count:4\n"), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(dir));
}

}  // namespace
