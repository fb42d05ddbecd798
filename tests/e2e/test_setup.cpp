// Set-up on the simulated phone: the gates, the device-information node and the watchdog
// budget, as the factory sees them in the pass/fail record, the journal and the log.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "e2e/e2e_support.h"

namespace {

using e2e::count;
using e2e::journal_has;

bool path_exists(const char *path) {
    struct stat st;
    return stat(path, &st) == 0;
}

TEST(Start, OutsideAnyPhoneExitsAtOnceAndCreatesNothing) {
    // On a workstation there is no daemon: the executable must end at once and leave the
    // host's /cache and /data as they were.
    const bool had_factory = path_exists("/cache/factory");
    const bool had_work = path_exists("/data/format_unclear");
    // A cross build's executable runs here through its CPU emulator (none for a host build).
    int status = system(FLASHAGING_EMULATOR " " FLASHAGING_BIN " >/dev/null 2>&1");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(path_exists("/cache/factory"), had_factory);
    EXPECT_EQ(path_exists("/data/format_unclear"), had_work);
}

TEST(Start, FailedArgumentFetchExits255AndDoesNothingElse) {
    std::string output, dir;
    int status = e2e::exec("default", {"args_fail = yes"}, {"/system/bin/flashaging"}, &output, &dir);
    EXPECT_EQ(status, 255) << output;
    EXPECT_FALSE(path_exists((dir + "/factory/flash_aging.log").c_str()));
    EXPECT_FALSE(path_exists((dir + "/factory/flash_aging_result.txt").c_str()));
    e2e::RunResult r;
    r.out_dir = dir;
    std::string journal = r.file("journal");
    EXPECT_EQ(journal, "connect_aging_server 2 -> 1\nget_aging_args 2 -> -1\n");
}

TEST(Setup, HealthyUfsPhoneInitialisesAndGoesOn) {
    // "-n 7" selects no test, so the run goes from set-up straight to the verdict.
    auto r = e2e::run("default", {}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(count(r.log, "[FLASH]INFO:initialize_flashtest_env:"), 1) << r.log;
    EXPECT_NE(r.log.find(" Init Success!\n"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find("[FLASH]INFO:main:"), std::string::npos);
    EXPECT_NE(r.log.find(" Start Flash Aging Test!\n"), std::string::npos);
    EXPECT_NE(r.log.find("Run flashtest success, Go to the next way...\n"), std::string::npos);
    EXPECT_NE(r.log.find("[FLASH]INFO:flash_agingcost:"), std::string::npos);
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    ASSERT_EQ(r.record.size(), 10u);
    EXPECT_EQ(r.record, std::string("SUCCESS\0\0\0", 10));
    EXPECT_TRUE(journal_has(r, "connect_aging_server 2 -> 1"));
    EXPECT_TRUE(journal_has(r, "setprogress 95 2"));
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1"));
    EXPECT_EQ(count(r.journal, "finishOtherTest"), 0);
    // No options on a UFS phone: the sample count is capped to 0 and the budget is spent.
    EXPECT_NE(r.log.find(" [WDT] test_time:-1, spike_time:1, test_smp:0, testtime:-1\n"), std::string::npos)
        << r.log;
}

TEST(Setup, WornPhoneIsSkippedUnlessForced) {
    auto skipped = e2e::run("default", {"pe_start = 31"}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(skipped.sim_exit, 0) << skipped.sim_output;
    EXPECT_NE(skipped.log.find("PE cycle is 31\n\n"), std::string::npos) << skipped.log;
    EXPECT_NE(skipped.log.find("[FLASH]FATAL:initialize_flashtest_env:"), std::string::npos);
    EXPECT_NE(skipped.log.find("PE > 30 or get healthinfo fail, can't perform flash agingtest\n\n"),
              std::string::npos);
    EXPECT_NE(skipped.log.find("skip flashtest!\n\n"), std::string::npos);
    EXPECT_EQ(count(skipped.log, "[WDT]"), 0) << "a skipped run starts no watchdog";
    EXPECT_EQ(skipped.record, std::string("SKIP\0\0\0\0\0\0", 10));
    EXPECT_TRUE(journal_has(skipped, "cleanEnvDone 2 2"));
    EXPECT_EQ(count(skipped.journal, "finishOtherTest"), 0);

    auto forced = e2e::run("default", {"pe_start = 31"}, std::vector<std::string>{"-f 1", "-n 7"});
    ASSERT_EQ(forced.sim_exit, 0) << forced.sim_output;
    EXPECT_NE(forced.log.find("config force_erase to 1\n"), std::string::npos) << forced.log;
    EXPECT_NE(forced.log.find("Init Success!\n"), std::string::npos);
    EXPECT_EQ(forced.verdict_word(), "SUCCESS");
    EXPECT_TRUE(journal_has(forced, "cleanEnvDone 2 1"));
}

TEST(Setup, PhoneWithThirtyCyclesStillRuns) {
    auto r = e2e::run("default", {"pe_start = 30"}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("PE cycle is 30\n\n"), std::string::npos) << r.log;
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
}

TEST(Setup, DataPartitionUnder64GiBFreeIsSkipped) {
    auto r = e2e::run("default", {"data_size_gib = 40"}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("[FLASH]FATAL:initialize_flashtest_env:"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find(" Userdata partition is not mounted\n\n"), std::string::npos) << r.log;
    EXPECT_EQ(count(r.log, "Init Success!"), 0);
    EXPECT_EQ(r.record, std::string("SKIP\0\0\0\0\0\0", 10));
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 2"));
    EXPECT_EQ(count(r.journal, "finishOtherTest"), 0);
    EXPECT_FALSE(r.has_results_csv) << "a skipped run builds no test list";
}

TEST(Setup, PhoneWithoutDeviceInformationFailsSetup) {
    auto r = e2e::run("default", {"storage = none"}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("Init device properties error\n"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find("Init flashtest env fail\n\n"), std::string::npos);
    EXPECT_EQ(r.record, std::string("FAIL\0\0\0\0\0\0", 10));
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 0"));
    EXPECT_TRUE(journal_has(r, "finishOtherTest 2"));
}

TEST(Setup, WatchdogBudgetOfAUfsRun) {
    auto r = e2e::run("default", {},
                      std::vector<std::string>{"-s 3600", "-num_samples 4", "-spike 600",
                                               "-total_file_size 1073741824", "-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("[FLASH]INFO:flash_wdt_thread_start:"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find(" [WDT] test_time:3600, spike_time:600, test_smp:4, testtime:6000\n"),
              std::string::npos)
        << r.log;
    EXPECT_NE(r.log.find(" software watchdog init success!\n"), std::string::npos);
    EXPECT_EQ(count(r.log, "[WDT] say test over!"), 0);
}

TEST(Setup, EmmcPhoneCapsSamplesAtItsOwnRate) {
    // 3600 s at 180 MiB/s over 64 GiB allows 9 full passes: 20 samples become 9.
    auto r = e2e::run("emmc", {},
                      std::vector<std::string>{"-s 3600", "-num_samples 20", "-total_file_size 68719476736", "-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find(" [WDT] test_time:3600, spike_time:1, test_smp:9, testtime:3609\n"), std::string::npos)
        << r.log;
    EXPECT_NE(r.results_csv.find("\n Bootdevice:sdhci\n"), std::string::npos) << r.results_csv;
    EXPECT_EQ(count(r.results_csv, "UFS Signal Record"), 0);
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
}

TEST(Setup, VersionOneDaemonIgnoresTheVersionTwoOptions) {
    auto r = e2e::run("default", {"aging_version = 1.0"},
                      std::vector<std::string>{"-full_filling_times 10", "-reserved_space 5000", "-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(count(r.log, "aging version is 2.0"), 0) << r.log;
    EXPECT_EQ(count(r.log, "config fill_cycle to"), 0);
    EXPECT_EQ(count(r.log, "config left space to"), 0);
    EXPECT_TRUE(journal_has(r, "connect_aging_server 3 -> 0"));

    auto v2 = e2e::run("default", {"aging_version = 2.0"},
                       std::vector<std::string>{"-full_filling_times 10", "-reserved_space 5000", "-n 7"});
    ASSERT_EQ(v2.sim_exit, 0) << v2.sim_output;
    EXPECT_NE(v2.log.find(" aging version is 2.0\n"), std::string::npos) << v2.log;
    EXPECT_NE(v2.log.find(" config fill_cycle to 10\n"), std::string::npos);
    EXPECT_NE(v2.log.find(" config left space to 5000MB\n"), std::string::npos);
}

TEST(Setup, EarlierVerdictBytesStayBehindStart) {
    // An earlier run's "SUCCESS" is overwritten by the new verdict only; "SKIP" keeps the
    // zero padding of the ten bytes.
    auto r = e2e::run("default", {"seed_result = SUCCESS", "pe_start = 31"}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(r.record, std::string("SKIP\0\0\0\0\0\0", 10));
}

}  // namespace
