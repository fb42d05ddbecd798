#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/run_control.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

int occurrences(const std::string &text, const std::string &needle) {
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
        ++n;
    return n;
}

void *budget_arg(int64_t seconds) { return reinterpret_cast<void *>(static_cast<intptr_t>(seconds)); }

class Watchdog : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_args_ = g_args;
        g_args = &args_;
    }
    void TearDown() override { g_args = saved_args_; }
    test_args args_{};
    test_args *saved_args_ = nullptr;
};

TEST_F(Watchdog, BudgetRunsOutOnceAndRaisesTestOver) {
    testing::internal::CaptureStdout();
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, nullptr, flash_wdt_thread, budget_arg(1)), 0);
    ASSERT_EQ(pthread_join(t, nullptr), 0);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(occurrences(out, "[WDT] say test over!\n"), 1);
    EXPECT_THAT(out, HasSubstr("[FLASH]INFO:flash_wdt_thread:"));
    EXPECT_EQ(args_.test_over.load(), 1u);
}

TEST_F(Watchdog, SpentBudgetFiresAtOnce) {
    for (int64_t budget : {0, -1}) {
        args_.test_over.store(0);
        testing::internal::CaptureStdout();
        flash_wdt_thread(budget_arg(budget));
        fflush(stdout);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(occurrences(out, "[WDT] say test over!\n"), 1) << budget;
        EXPECT_EQ(args_.test_over.load(), 1u) << budget;
    }
}

TEST_F(Watchdog, ClosedBeforeTheDeadlineSaysNothing) {
    std::atomic<bool> done{false};
    testing::internal::CaptureStdout();
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
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "");
    EXPECT_EQ(args_.test_over.load(), 0u);
}

// ---- abnormal end ----------------------------------------------------------------------

int g_destroyed[2];
int destroy_first(flash_test *) {
    ++g_destroyed[0];
    return 0;
}
int destroy_second(flash_test *) {
    ++g_destroyed[1];
    return 0;
}

void *catch_signal(void *sig) {
    flash_sigroutine(static_cast<int>(reinterpret_cast<intptr_t>(sig)));
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class AbnormalEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_ = {g_args, flash_tests[0], flash_tests[1], flash_results, flash_result_count,
                  flash_result, result_fd};
        // Version 2 keeps the dump away from the phone's fixed path.
        args_.aging_version = 2;
        g_args = &args_;
        g_destroyed[0] = g_destroyed[1] = 0;
        first_.destroy = destroy_first;
        second_.destroy = destroy_second;
        char tmpl[] = "/tmp/fw_sig_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        g_args = saved_.args;
        flash_tests[0] = saved_.t0;
        flash_tests[1] = saved_.t1;
        flash_results = saved_.results;
        flash_result_count = saved_.count;
        flash_result = saved_.result;
        result_fd = saved_.fd;
        std::system(("rm -rf " + dir_).c_str());
    }
    // Delivers the handler on a thread of its own, which it must end.
    std::string handle_on_thread(int sig) {
        testing::internal::CaptureStdout();
        pthread_t t;
        EXPECT_EQ(pthread_create(&t, nullptr, catch_signal,
                                 reinterpret_cast<void *>(static_cast<intptr_t>(sig))),
                  0);
        EXPECT_EQ(pthread_join(t, nullptr), 0);
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    struct {
        test_args *args;
        flash_test *t0, *t1;
        test_result *results;
        uint32_t count;
        int32_t result;
        int fd;
    } saved_{};
    test_args args_{};
    flash_test first_{};
    flash_test second_{};
    std::string dir_;
};

TEST_F(AbnormalEnd, SavesWhatItCanAndEndsOnlyItsThread) {
    flash_tests[0] = &first_;
    flash_tests[1] = &second_;
    test_result rec{};
    rec.description = "seq write";
    rec.value = 10.0f;
    rec.status = 1;
    flash_results = &rec;
    flash_result_count = 1;
    flash_result = 1;
    std::string record = dir_ + "/flash_aging_result.txt";
    std::ofstream(record, std::ios::binary) << "START";
    result_fd = open(record.c_str(), O_RDWR);
    ASSERT_GE(result_fd, 1);

    std::string out = handle_on_thread(SIGTERM);

    size_t sig_line = out.find(" SIG 15 catched\n\n");
    size_t abnormal = out.find(" flash agingtest abnormal, break.\n");
    size_t summary = out.find(" Test[seq write] --- PASS\n");
    ASSERT_NE(sig_line, std::string::npos) << out;
    ASSERT_NE(abnormal, std::string::npos) << out;
    ASSERT_NE(summary, std::string::npos) << out;
    EXPECT_LT(sig_line, abnormal);
    EXPECT_LT(abnormal, summary);
    EXPECT_THAT(out, HasSubstr("[FLASH]ERROR:flash_sigroutine:"));
    EXPECT_THAT(out, HasSubstr("[FLASH]INFO:flash_cleanEnv:"));
    EXPECT_EQ(g_destroyed[0], 1);
    EXPECT_EQ(g_destroyed[1], 1);
    // The verdict is left as the run had it; with version 2 the record gets the word.
    EXPECT_EQ(flash_result, 1);
    EXPECT_EQ(slurp(record), std::string("SUCCESS\0\0\0", 10));
}

TEST_F(AbnormalEnd, BeforeTheTestListExists) {
    flash_tests[0] = nullptr;
    flash_tests[1] = nullptr;
    flash_results = nullptr;
    result_fd = 0;
    std::string out = handle_on_thread(SIGUSR1);
    EXPECT_THAT(out, HasSubstr(" SIG 10 catched\n\n"));
    EXPECT_THAT(out, HasSubstr(" result callback is NULL!\n"));
    EXPECT_EQ(g_destroyed[0] + g_destroyed[1], 0);
    // The orderly stop writes the temporary results file, here where there is no such place.
    if (access("/cache/factory", F_OK) != 0) {
        EXPECT_THAT(out, HasSubstr(" Can't create output file.\n"));
    }
}

}  // namespace
