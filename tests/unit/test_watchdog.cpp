// The software watchdog and the signal handler's abnormal end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <tuple>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/run_control.h"
#include "stand_in_aging_client.h"
#include "unit_support.h"

namespace {

using namespace ut;
using ::testing::ElementsAre;

void *budget_arg(int64_t seconds) { return reinterpret_cast<void *>(static_cast<intptr_t>(seconds)); }

class RunControl : public ::testing::Test {
  protected:
    void SetUp() override { g_args = &args_; }
    void TearDown() override { g_args = saved_args_; }
    test_args args_{};
    test_args *saved_args_ = g_args;
};

TEST_F(RunControl, WatchdogBudgetRunsOutOnceAndRaisesTestOverSpentBudgetAtOnce) {
    for (int64_t budget : {1, 0, -1}) {
        args_.test_over.store(0);
        std::string out = capture([&] {
            pthread_t t;
            ASSERT_EQ(pthread_create(&t, nullptr, flash_wdt_thread, budget_arg(budget)), 0);
            ASSERT_EQ(pthread_join(t, nullptr), 0);
        });
        EXPECT_TRUE(matches(out, line("INFO", "flash_wdt_thread", "[WDT] say test over!\n"))) << budget << ": " << out;
        EXPECT_EQ(args_.test_over.load(), 1u) << budget;
    }
}

TEST_F(RunControl, WatchdogClosedBeforeTheDeadlineSaysNothing) {
    std::atomic<bool> done{false};
    std::string out = capture([&] {
        std::thread t([&] {
            flash_wdt_thread(budget_arg(600));
            done.store(true);
        });
        // A signal sent before the watchdog waits is lost, so keep closing until it has ended.
        while (!done.load()) {
            flash_close_wdt();
            usleep(2000);
        }
        t.join();
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(args_.test_over.load(), 0u);
}

int g_destroyed;

// A signal while the list is being built: the listed test is destroyed, there is no results
// array to sum up and no record to write, and only the handler's thread ends. Returns what
// the handler printed; the stand-in client's journal holds what the daemon was told.
// Sets up the half-built list and runs the handler on the calling thread, which it ends.
[[noreturn, maybe_unused]] void abnormal_end_with_a_half_built_list_on_this_thread(test_args &args, int sig) {
    args.aging_version = 2;  // keeps the dump away from the phone's fixed path
    static flash_test listed{};
    listed.destroy = [](flash_test *) { return 0; };
    flash_tests[0] = &listed;
    flash_tests[1] = nullptr;
    flash_results = nullptr;
    result_fd = 0;
    flash_result = 1;
    flash_sigroutine(sig);
}

std::string abnormal_end_with_a_half_built_list(test_args &args, int sig) {
    const auto saved = std::make_tuple(flash_tests[0], flash_tests[1], flash_results, result_fd, flash_result);
    args.aging_version = 2;  // keeps the dump away from the phone's fixed path
    flash_test listed{};
    listed.destroy = [](flash_test *) {
        ++g_destroyed;
        return 0;
    };
    flash_tests[0] = &listed;
    flash_tests[1] = nullptr;
    flash_results = nullptr;
    result_fd = 0;
    flash_result = 1;
    g_destroyed = 0;
    stand_in::clear_journal();
    static int g_sig;
    g_sig = sig;
    std::string out = capture([] {
        pthread_t t;
        auto handler = [](void *) -> void * { flash_sigroutine(g_sig); };
        ASSERT_EQ(pthread_create(&t, nullptr, handler, nullptr), 0);
        ASSERT_EQ(pthread_join(t, nullptr), 0);
    });
    std::tie(flash_tests[0], flash_tests[1], flash_results, result_fd, flash_result) = saved;

    const std::string number = std::to_string(sig);
    const size_t sig_line = out.find(" SIG " + number + " catched\n\n"),
                 abnormal = out.find(" flash agingtest abnormal, break.\n"),
                 summary = out.find(" result callback is NULL!\n");
    EXPECT_NE(summary, std::string::npos) << out;
    EXPECT_LT(sig_line, abnormal) << out;
    EXPECT_LT(abnormal, summary) << out;
    EXPECT_EQ(g_destroyed, 1);
    return out;
}

TEST_F(RunControl, AbnormalEndTellsTheDaemonTheVerdictSoFarAndThatTheTestFailed) {
    std::string out = abnormal_end_with_a_half_built_list(args_, SIGTERM);
    EXPECT_TRUE(out.ends_with(" result callback is NULL!\n")) << out;
    EXPECT_THAT(stand_in::journal(), ElementsAre("dump_stack", "cleanEnvDone 2 1", "finishOtherTest 2"));
}

TEST_F(RunControl, OrderlyStopRequestWritesTheTemporaryResultsFileInsteadOfFailingTheTest) {
    // The orderly stop writes the temporary results file at its fixed place, which on a
    // factory phone holds the results of the phone's own run.
    if (access("/cache/factory", F_OK) == 0) GTEST_SKIP() << "/cache/factory exists: this is a phone";
    std::string out = abnormal_end_with_a_half_built_list(args_, SIGUSR1);
    EXPECT_THAT(stand_in::journal(), ElementsAre("dump_stack", "cleanEnvDone 2 1"));
    const std::string summary = " result callback is NULL!\n";
    const size_t at = out.find(summary);
    ASSERT_NE(at, std::string::npos) << out;
    EXPECT_TRUE(matches(out.substr(at + summary.size()), line("INFO", "log_errno", "Can't create output file.\n")))
        << out;
}

// A signal before set-up, when the thread that takes it is the process's only thread and its
// output still goes to a buffered standard output (a file or a pipe, not yet the unbuffered
// log file): the handler's end of the thread ends the process, and bionic's thread end, like
// the kernel's, flushes no stream. The handler's lines must be out first.
TEST_F(RunControl, AbnormalEndOfTheOnlyThreadLeavesItsLinesInABufferedOutput) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a child of a threaded process: not under the thread sanitizer";
#else
    ScratchDir tmp;
    const std::string path = tmp.file("stdout.txt");
    fflush(stdout);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, 1) < 0) _exit(2);
        setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        printf("before the signal\n");
        // The handler runs on a thread of its own and the main thread leaves by the kernel's
        // exit, so that the C library ends the process with the handler's thread without a
        // flush of its streams (as bionic does at the end of a process's last thread).
        static test_args *child_args;
        child_args = &args_;
        pthread_t t;
        auto handler = [](void *) -> void * { abnormal_end_with_a_half_built_list_on_this_thread(*child_args, SIGTERM); };
        if (pthread_create(&t, nullptr, handler, nullptr) != 0) _exit(3);
        for (;;) syscall(SYS_exit, 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string out = slurp(path);
    EXPECT_EQ(out.rfind("before the signal\n", 0), 0u) << out;
    EXPECT_NE(out.find(" SIG 15 catched\n\n"), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with(" result callback is NULL!\n")) << out;
#endif
}

}  // namespace
