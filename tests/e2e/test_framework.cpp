// The runner, the results file, the summary, the watchdog and the abnormal end on the
// simulated phone.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "e2e/e2e_support.h"

namespace {

using e2e::count;
using e2e::journal_has;

using e2e::kHeader;

TEST(Runner, NoTestSelectedGivesSectionsHeaderAndSuccess) {
    auto r = e2e::run("default", {}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("test_num = 7, result = 5\n"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find("test_num = 7, result = 6\n"), std::string::npos);
    EXPECT_EQ(count(r.log, "enter_h8_test begin"), 0);
    EXPECT_EQ(count(r.log, "g_group_size is"), 0);
    ASSERT_TRUE(r.has_results_csv);
    const std::string &csv = r.results_csv;
    // The five blocks, in order, then the header and no record line.
    size_t info = csv.find("Test Info:\n Product model:");
    size_t zarvo = csv.find("/proc/zarvo_healthinfo/alloc_wait:\n");
    size_t temp = csv.find("/sys/class/power_supply/battery/temp:[");
    size_t health = csv.find("Health Info:\nreadReclaim:");
    size_t signal = csv.find("\nUFS Signal Record:\n");
    size_t header = csv.find(kHeader);
    ASSERT_NE(info, std::string::npos) << csv;
    ASSERT_NE(zarvo, std::string::npos) << csv;
    ASSERT_NE(temp, std::string::npos) << csv;
    ASSERT_NE(health, std::string::npos) << csv;
    ASSERT_NE(signal, std::string::npos) << csv;
    ASSERT_NE(header, std::string::npos) << csv;
    EXPECT_LT(info, zarvo);
    EXPECT_LT(zarvo, temp);
    EXPECT_LT(temp, health);
    EXPECT_LT(health, signal);
    EXPECT_LT(signal, header);
    EXPECT_EQ(header + strlen(kHeader), csv.size()) << "no record has a value, so no line follows the header";
    EXPECT_EQ(count(csv, "/sys/class/power_supply/battery/temp:["), 4);
    EXPECT_NE(csv.find("\nDevice_version:"), std::string::npos) << "the version line has no leading blank";
    EXPECT_FALSE(r.exists("factory/flash_aging_results.csv_temp")) << "the temporary file is renamed into place";
    EXPECT_EQ(count(r.journal, "setprogress 95 2"), 1);
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
}

TEST(Runner, WatchdogEndsTheFillerEarlyAndItIsAPass) {
    // "-n 6" keeps the storage filler alone; an 8 s budget ends it during its first fill,
    // which the short phone's slow fill makes last longer than that on any machine.
    auto r = e2e::run("short", {"arg = -n 6", "arg = -s 8"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("test_num = 6, result = 5\n"), std::string::npos) << r.log;
    EXPECT_EQ(count(r.log, "enter_h8_test begin"), 0);
    EXPECT_EQ(count(r.log, "[FLASH]INFO:flash_wdt_thread:"), 1) << r.log;
    EXPECT_EQ(count(r.log, " [WDT] say test over!\n"), 1);
    EXPECT_EQ(count(r.log, " exit, wdt timeout\n"), 1) << r.log;
    EXPECT_NE(r.log.find(", ret 17185, fill "), std::string::npos) << "a writer ended by the watchdog reports 0x4321";
    EXPECT_NE(r.log.find("storage_filler total cost "), std::string::npos);
    EXPECT_NE(r.log.find("Run flashtest success, Go to the next way...\n"), std::string::npos);
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1"));
    EXPECT_EQ(count(r.journal, "finishOtherTest"), 0);
    // The work area is emptied when the filler ends.
    std::string listing = r.file("data_listing.txt");
    EXPECT_EQ(count(listing, "file_pattern"), 0) << listing;
    EXPECT_EQ(count(listing, "file_benchmark"), 0) << listing;
}

TEST(AbnormalEnd, SigtermDuringTheFillerKeepsStartAndDumpsTheBuffers) {
    // The signal comes once the benchmark's first workers are at work (the main thread waits
    // to join them), so no writer is creating pattern files while the handler removes their
    // directory. The handler ends the main thread; the process ends when the watchdog's 45 s
    // run out.
    auto r = e2e::run("short", {"seed_result = SUCCESS", "arg = -n 6", "arg = -s 45",
                                "signal = TERM@/data/format_unclear/file_benchmark then thread:2-9:io"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find("[FLASH]ERROR:flash_sigroutine:"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find(" SIG 15 catched\n\n"), std::string::npos) << r.log;
    EXPECT_NE(r.log.find("[FLASH]INFO:flash_cleanEnv:"), std::string::npos);
    EXPECT_NE(r.log.find(" flash agingtest abnormal, break.\n"), std::string::npos);
    EXPECT_NE(r.log.find("[FLASH]FATAL:storage_filler_destroy:"), std::string::npos);
    EXPECT_NE(r.log.find(" storage_filler goto destroy"), std::string::npos);
    // The record descriptor was handed to the pattern dump and closed, so the verdict
    // cannot be written: the record keeps "START" over the earlier run's word.
    EXPECT_NE(r.log.find("[END]seek /cache/factory/flash_aging_result.txt error!\n\n"), std::string::npos);
    EXPECT_EQ(r.record, std::string("STARTSS\0\0\0", 10));
    EXPECT_EQ(r.verdict_word(), "STARTSS");

    std::string dump = r.file("factory/flash_pattern");
    ASSERT_EQ(dump.size(), 8u * 1024 * 1024);
    const uint64_t first[4] = {0x44DEBD988ED375AFull, 0x3D546E7B4BA22818ull, 0x40DDD0445799AFA5ull,
                               0x3D0E0268D46FCEE6ull};
    for (int i = 0; i < 4; ++i) {
        uint64_t w;
        memcpy(&w, dump.data() + 8 * i, 8);
        EXPECT_EQ(w, first[i]) << "word " << i;
    }

    EXPECT_TRUE(journal_has(r, "dump_stack"));
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1")) << "the handler reports the verdict the run had reached";
    EXPECT_TRUE(journal_has(r, "finishOtherTest 2"));
    std::string listing = r.file("data_listing.txt");
    EXPECT_EQ(count(listing, "file_pattern"), 0) << listing;
    EXPECT_EQ(count(listing, "file_benchmark"), 0) << listing;
}

TEST(AbnormalEnd, Sigusr1WritesTheTemporaryResultsWithSectionsOnly) {
    // To the main thread, in its join of the first fill, once a writer is at work. (A signal to
    // the whole process may go to a worker, the kernel picks any thread that does not hold it
    // back, and the main sequence, living on, then writes the results file itself.)
    auto r = e2e::run("short", {"arg = -n 6", "arg = -s 30",
                                "thread_signal = USR1:0-0:futex@log:g_group_size is then thread:2-9:io"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.log.find(" SIG 10 catched\n\n"), std::string::npos) << r.log;
    ASSERT_TRUE(r.exists("factory/flash_aging_results.csv_temp"));
    std::string temp = r.file("factory/flash_aging_results.csv_temp");
    EXPECT_NE(temp.find("Test Info:\n"), std::string::npos) << temp;
    EXPECT_NE(temp.find("Health Info:\n"), std::string::npos) << temp;
    EXPECT_EQ(count(temp, "version,description,test_id"), 0) << "no table without a results array";
    // The results file in place is the one written when the test list was built.
    ASSERT_TRUE(r.has_results_csv);
    EXPECT_NE(r.results_csv.find(kHeader), std::string::npos);
    EXPECT_EQ(r.verdict_word(), "START");
    EXPECT_TRUE(journal_has(r, "dump_stack"));
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1"));
    EXPECT_EQ(count(r.journal, "finishOtherTest"), 0);
}

}  // namespace
