// The phone's /proc: the profile's kernel nodes, plus a real /proc/self and the command's own
// /proc/<pid> from a procfs of the phone's pid namespace, which the sanitizer runtimes need.
#include <gtest/gtest.h>

#include <cstdlib>

#include "e2e/e2e_support.h"

namespace {

using e2e::count;

TEST(SimProc, SelfAndTheCommandsPidReachTheRealProcfsWhileTheNodesStayTheProfiles) {
    std::string out;
    int status = e2e::exec(
        "default", {"proc_version = Linux version 9.9-test", "storage = mmc"},
        {"sh", "-c",
         "echo pid=$$; echo task=$(ls /proc/$$/task); readlink /proc/self/exe; grep ^Pid: /proc/self/status; "
         "echo listing; ls /proc; echo end; cat /proc/version /proc/devinfo/mmc; "
         "test -e /proc/meminfo || echo no-host-node; echo processes=$(ls /sim/proc | grep -c '^[0-9]')"},
        &out);
    ASSERT_EQ(status, 0) << out;
    // The command is a process of the phone's own pid namespace (pid 2 with the plain
    // simulator, 3 with the thread-sanitized one), with its own /proc/<pid> there.
    size_t p = out.find("pid=");
    ASSERT_NE(p, std::string::npos) << out;
    std::string pid = out.substr(p + 4, out.find('\n', p) - p - 4);
    EXPECT_TRUE(pid == "2" || pid == "3") << out;
    EXPECT_NE(out.find("pid=" + pid + "\ntask=" + pid + "\n"), std::string::npos) << out;
    // /proc/self follows whichever process looks: here readlink and grep.
    EXPECT_NE(out.find("/readlink\n"), std::string::npos) << out;
    EXPECT_EQ(count(out, "Pid:\t"), 1) << out;
    EXPECT_EQ(count(out, "Pid:\t" + pid + "\n"), 0) << "grep's own pid, not the shell's: " << out;
    // /proc holds the profile's nodes and the links, nothing else of a procfs.
    EXPECT_NE(out.find("listing\n" + pid + "\ndevinfo\nself\nthread-self\nufs_signalShow\nversion\nzarvo_healthinfo\nend\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Linux version 9.9-test\nDevice version:\tH9HQ16AECMMDAR\n"), std::string::npos) << out;
    EXPECT_NE(out.find("no-host-node\n"), std::string::npos) << out;
    // Only the phone's processes (its pid 1, the shell and the pipeline), none of the host's.
    size_t at = out.find("processes=");
    ASSERT_NE(at, std::string::npos) << out;
    EXPECT_LE(atoi(out.c_str() + at + 10), 8) << out;
}

}  // namespace

namespace {

// What the sanitized scenarios look for: the first line of any runtime's report.
TEST(SanitizedRuns, EveryRuntimesReportIsFoundInALog) {
    const char *prefix = "[2026-01-01 00:00:00.000][2][FLASH]INFO:main:50 Start Flash Aging Test!\n";
    for (const char *report : {"==2==ERROR: AddressSanitizer: heap-use-after-free on address 0x6020",
                               "==2==ERROR: LeakSanitizer: detected memory leaks",
                               "==9==LeakSanitizer has encountered a fatal error.",
                               "WARNING: ThreadSanitizer: data race (pid=2)",
                               "flashaging/pattern_read.cpp:97:5: runtime error: load of misaligned address"}) {
        EXPECT_EQ(e2e::sanitizer_report(std::string(prefix) + report + "\n    #0 0x55 in f\n"), report);
    }
    EXPECT_EQ(e2e::sanitizer_report(prefix), "");
}

}  // namespace
