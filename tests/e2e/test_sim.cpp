// The device simulator itself: the phone it builds is what the profile says, its health
// tool follows the bytes written, its faults land where they should, and nothing of a run
// stays on the host afterwards, whether the run ended, timed out, crashed or was interrupted.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "e2e/e2e_support.h"

namespace {

using e2e::count;

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The counters of each monitor_tool call, in output order.
std::vector<std::map<std::string, long long>> tool_readings(const std::string &output) {
    std::vector<std::map<std::string, long long>> readings;
    std::istringstream in(output);
    std::string key;
    long long value;
    while (in >> key >> value) {
        if (key == "readReclaim") readings.emplace_back();
        if (!readings.empty()) readings.back()[key] = value;
    }
    return readings;
}

// What a run left on the host: its temporary folder (named in sim.log), any loop device,
// mount, process or cgroup that still refers to it.
struct Leftovers {
    std::string tmp;  // /var/tmp/flashaging-sim.XXXXXX
    std::vector<std::string> found;
};

Leftovers leftovers_of(const std::string &out_dir) {
    Leftovers l;
    std::smatch m;
    std::string log = slurp(out_dir + "/sim.log");
    if (std::regex_search(log, m, std::regex("temporary folder (\\S+)"))) l.tmp = m[1];
    if (l.tmp.empty()) {
        l.found.push_back("no temporary folder named in sim.log");
        return l;
    }
    struct stat st;
    if (stat(l.tmp.c_str(), &st) == 0) l.found.push_back("folder " + l.tmp);
    std::string name = l.tmp.substr(l.tmp.find_last_of('/') + 1);
    std::string losetup;
    FILE *p = popen("losetup -a 2>/dev/null", "r");
    if (p) {
        char buf[512];
        while (fgets(buf, sizeof buf, p)) losetup += buf;
        pclose(p);
    }
    if (losetup.find(name) != std::string::npos) l.found.push_back("loop device: " + losetup);
    std::string mounts = slurp("/proc/self/mountinfo");
    if (mounts.find(name) != std::string::npos) l.found.push_back("mount of " + name);
    if (DIR *d = opendir("/proc")) {
        while (struct dirent *e = readdir(d)) {
            if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
            char root[4096];
            ssize_t n = readlink((std::string("/proc/") + e->d_name + "/root").c_str(), root, sizeof root - 1);
            if (n > 0) {
                root[n] = '\0';
                if (std::string(root).find(name) != std::string::npos)
                    l.found.push_back(std::string("process ") + e->d_name);
            }
        }
        closedir(d);
    }
    for (const char *cg : {"/sys/fs/cgroup/blkio/", "/sys/fs/cgroup/"})
        if (stat((std::string(cg) + name).c_str(), &st) == 0) l.found.push_back(std::string("cgroup ") + cg + name);
    return l;
}

std::string joined(const std::vector<std::string> &v) {
    std::string s;
    for (const auto &x : v) s += x + "\n";
    return s;
}

TEST(SimHealthTool, CountersFollowTheBytesWrittenToData) {
    std::string out, dir;
    int status = e2e::exec("default",
                           {"pe_start = 5", "pe_per_gib = 4", "read_reclaim_start = 3", "read_reclaim_per_gib = 40",
                            "bad_block_start = 0", "bad_block_per_gib = 8", "cache_pe_start = 8",
                            "cache_pe_per_gib = 12", "tbw_start = 12000", "waf = 2"},
                           {"sh", "-c",
                            "monitor_tool && dd if=/dev/zero of=/data/f bs=1M count=256 oflag=direct status=none && "
                            "monitor_tool"},
                           &out, &dir);
    ASSERT_EQ(status, 0) << out;
    auto r = tool_readings(out);
    ASSERT_EQ(r.size(), 2u) << out;
    // Nothing written yet: the profile's starting values.
    EXPECT_EQ(r[0]["readReclaim"], 3);
    EXPECT_EQ(r[0]["badBlockRuntime"], 0);
    EXPECT_EQ(r[0]["TBW"], 12000);
    EXPECT_EQ(r[0]["eraseCacheCntAvg"], 8);
    EXPECT_EQ(r[0]["eraseXLCCntAvg"], 5);
    // 256 MiB and a little file-system metadata, a quarter GiB: P/E +1 (4 per GiB), read
    // reclaim +10, bad blocks +2, cache erases +3; TBW grows so that the program's
    // capacity MiB x dP/E / (dTBW x 100) is the profile's write amplification:
    // 131072 x 1 / (655 x 100) = 2.001 on this 128 GiB (nominal) partition.
    EXPECT_EQ(r[1]["eraseXLCCntAvg"], 6);
    EXPECT_EQ(r[1]["readReclaim"], 13);
    EXPECT_EQ(r[1]["badBlockRuntime"], 2);
    EXPECT_EQ(r[1]["eraseCacheCntAvg"], 11);
    EXPECT_EQ(r[1]["TBW"], 12655);
    double waf = 131072.0 * 1 / ((r[1]["TBW"] - r[0]["TBW"]) * 100.0);
    EXPECT_NEAR(waf, 2.0, 0.01);
    // The tool's output form: key, one blank, decimal, one counter per line, fixed order.
    EXPECT_NE(out.find("readReclaim 3\nbadBlockRuntime 0\nTBW 12000\neraseCacheCntAvg 8\neraseXLCCntAvg 5\n"),
              std::string::npos)
        << out;
}

TEST(SimHealthTool, JumpsLandAtTheirTimeAndTheToolCanBeSilentOrAbsent) {
    std::string out;
    int status = e2e::exec("default", {"jump = badBlockRuntime+40@1", "jump = readReclaim-3@1"},
                           {"sh", "-c", "monitor_tool; sleep 3; monitor_tool"}, &out);
    ASSERT_EQ(status, 0) << out;
    auto r = tool_readings(out);
    ASSERT_EQ(r.size(), 2u) << out;
    EXPECT_EQ(r[0]["badBlockRuntime"], 0);
    EXPECT_EQ(r[1]["badBlockRuntime"], 40);
    EXPECT_EQ(r[1]["readReclaim"], 0) << "3 less than the start of 3";

    // A counter pushed below zero wraps as the device's 32-bit counter would.
    status = e2e::exec("default", {"jump = readReclaim-4@0"}, {"sh", "-c", "sleep 1; monitor_tool"}, &out);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("readReclaim 4294967295\n"), std::string::npos) << out;

    status = e2e::exec("default", {"health_tool = silent"}, {"sh", "-c", "monitor_tool; echo rc=$?"}, &out);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "rc=0\n");
    status = e2e::exec("default", {"health_tool = no"}, {"sh", "-c", "test -e /system/bin/monitor_tool"}, &out);
    EXPECT_EQ(status, 1) << "no health tool in the phone";
}

TEST(SimPhone, KernelNodesPropertiesAndDaemonFilesAreWhatTheProfileSays) {
    std::string out;
    int status = e2e::exec(
        "default",
        {"storage = emmc", "device_version = V1.2", "manufacture = Maker X", "proc_version = Linux version 9.9-test",
         "ufs_signal = yes", "pa_err_total = 12", "dl_err_total = 3", "zarvo.iowait = two\\nlines\\n",
         "prop.ro.serialno = SERIAL42", "prop.ro.product.model = MODEL 7", "prop.ro.serialno = SERIAL43", "arg =",
         "arg = -n 6", "arg = -s 100", "aging_version = 1.0"},
        {"sh", "-c",
         "cat /proc/version /proc/devinfo/emmc /system/build.prop /proc/zarvo_healthinfo/iowait "
         "/proc/ufs_signalShow/record_upload /sim/daemon/args /sim/daemon/aging_version; "
         "ls /proc/devinfo /proc/zarvo_healthinfo; test -e /sim/daemon/unreachable || echo reachable"},
        &out);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("Linux version 9.9-test\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Device version:\tV1.2\nDevice manufacture:\tMaker X\n"), std::string::npos) << out;
    // Later lines win; the property file holds each key once, in first-seen order.
    EXPECT_NE(out.find("ro.serialno=SERIAL43\nro.product.model=MODEL 7\n"), std::string::npos) << out;
    EXPECT_EQ(count(out, "ro.serialno="), 1);
    EXPECT_NE(out.find("two\nlines\n"), std::string::npos) << out;
    EXPECT_NE(out.find("unipro_PA_err_total_cnt:\t\t12\n"), std::string::npos) << out;
    EXPECT_NE(out.find("unipro_DL_err_total_cnt:\t\t3\n"), std::string::npos) << out;
    EXPECT_NE(out.find("-n 6\n-s 100\n1.0\n"), std::string::npos) << "an empty arg line clears the list: " << out;
    EXPECT_EQ(count(out, "-reserved_space"), 0);
    EXPECT_NE(out.find("\nemmc\n"), std::string::npos) << "only the emmc node: " << out;
    EXPECT_EQ(count(out, "ufs\n"), 0) << out;
    EXPECT_NE(out.find("alloc_wait\ncpu_loading\niowait\niowait_hung\npara_update\nsched_latency\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("reachable\n"), std::string::npos);

    status = e2e::exec("default", {"storage = none", "ufs_signal = no", "zarvo_healthinfo = no", "daemon = no"},
                       {"sh", "-c", "ls /proc; ls /proc/devinfo; ls /sim"}, &out);
    ASSERT_EQ(status, 0) << out;
    EXPECT_EQ(count(out, "ufs_signalShow"), 0) << out;
    EXPECT_EQ(count(out, "zarvo"), 0) << out;
    EXPECT_EQ(count(out, "daemon"), 0) << "daemon = no: no daemon folder: " << out;
}

TEST(SimPhone, BatteryTemperatureFollowsItsSchedule) {
    std::string out;
    int status = e2e::exec("default", {"battery_temp = 520@0, 480@2"},
                           {"sh", "-c",
                            "cat /sys/class/power_supply/battery/temp; sleep 4; "
                            "cat /sys/class/power_supply/battery/temp"},
                           &out);
    ASSERT_EQ(status, 0) << out;
    EXPECT_EQ(out, "520\n480\n");
}

TEST(SimPhone, DataPartitionHasTheFreeSpaceAskedForAndRealEnospc) {
    std::string out;
    // statfs free blocks x block size, as the program's free-space gate measures it.
    int status = e2e::exec("default", {"data_free_mib = 65535"}, {"stat", "-f", "-c", "%f %S", "/data"}, &out);
    ASSERT_EQ(status, 0) << out;
    unsigned long long blocks = 0, bsize = 0;
    ASSERT_EQ(sscanf(out.c_str(), "%llu %llu", &blocks, &bsize), 2) << out;
    EXPECT_EQ(blocks * bsize, 65535ULL << 20);

    // A small partition fills up for real: the write fails with "No space left on device".
    status = e2e::exec("default", {"data_size_gib = 0.125", "write_mib_s = 0"},
                       {"sh", "-c", "dd if=/dev/zero of=/data/f bs=1M count=1024 oflag=direct; echo rc=$?"}, &out);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("No space left on device"), std::string::npos) << out;
    EXPECT_EQ(count(out, "rc=0"), 0) << out;

    // The ballast takes the space at its time, leaving what the profile says.
    status = e2e::exec("default", {"ballast_at = 1", "ballast_leave_mib = 100"},
                       {"sh", "-c", "stat -f -c '%f %S' /data; sleep 3; stat -f -c '%f %S' /data"}, &out);
    ASSERT_EQ(status, 0) << out;
    unsigned long long b1 = 0, s1 = 0, b2 = 0, s2 = 0;
    ASSERT_EQ(sscanf(out.c_str(), "%llu %llu %llu %llu", &b1, &s1, &b2, &s2), 4) << out;
    EXPECT_EQ(b1 * s1, 66000ULL << 20);
    EXPECT_EQ(b2 * s2, 100ULL << 20);
}

TEST(SimFaults, CorruptionFlipsOneByteOfACompleteFileBeingReadAndCaptureKeepsIt) {
    // Two pattern files of pattern 0 (AA 55 ...): one complete, one whose name promises more
    // than it holds. The reader loop makes both "being read".
    const char *script =
        "d=/data/format_unclear/file_pattern; mkdir -p $d; "
        "head -c 8192 /dev/zero | tr '\\000' '\\252' > /tmp/aa; "
        "dd if=/tmp/aa of=$d/0_8192_1 bs=8192 count=1 oflag=direct status=none; "
        "dd if=/tmp/aa of=$d/0_16384_2 bs=4096 count=1 oflag=direct status=none; "
        "for i in $(seq 50); do dd if=$d/0_8192_1 of=/dev/null bs=4096 count=1 iflag=direct status=none; "
        "dd if=$d/0_16384_2 of=/dev/null bs=4096 count=1 iflag=direct status=none; sleep 0.1; done";
    std::string out, dir;
    int status = e2e::exec("default",
                           {"corrupt_pattern_at = /data/format_unclear/file_pattern+1",
                            "capture = /data/format_unclear/file_pattern@4"},
                           {"sh", "-c", script}, &out, &dir);
    ASSERT_EQ(status, 0) << out;
    std::string log = slurp(dir + "/sim.log");
    EXPECT_NE(log.find("corrupt: flipped one byte of /data/format_unclear/file_pattern/0_8192_1 (byte "),
              std::string::npos)
        << log;
    std::string complete = slurp(dir + "/capture/4/file_pattern/0_8192_1");
    std::string partial = slurp(dir + "/capture/4/file_pattern/0_16384_2");
    ASSERT_EQ(complete.size(), 8192u);
    ASSERT_EQ(partial.size(), 4096u);
    int changed = 0, changed_at = -1;
    for (size_t i = 0; i < complete.size(); ++i) {
        if (static_cast<unsigned char>(complete[i]) != 0xAA) {
            ++changed;
            changed_at = static_cast<int>(i);
        }
    }
    EXPECT_EQ(changed, 1);
    EXPECT_LT(changed_at, 4096) << "within the first block, where the program compares";
    EXPECT_EQ(partial, std::string(4096, '\xAA')) << "an incomplete file is left alone";
}

TEST(SimFaults, SignalReachesTheCommand) {
    std::string out;
    int status = e2e::exec("default", {"signal = USR1@1"},
                           {"sh", "-c", "trap 'echo got USR1; exit 7' USR1; i=0; while [ $i -lt 100 ]; do sleep 0.1; "
                                        "i=$((i+1)); done; echo no signal"},
                           &out);
    EXPECT_EQ(status, 7) << out;
    EXPECT_EQ(out, "got USR1\n");
}

TEST(SimTeardown, NothingStaysAfterARunEndsOrIsKilledAtItsTimeout) {
    // The executable's run with no test selected: it ends by itself.
    auto r = e2e::run("default", {}, std::vector<std::string>{"-n 7"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.journal.find("connect_aging_server 2 -> 1\n"), std::string::npos) << r.journal;
    EXPECT_NE(r.journal.find("get_aging_args 2 -> 0 (1 elements)\n"), std::string::npos) << r.journal;
    EXPECT_NE(r.journal.find("cleanEnvDone 2 1\n"), std::string::npos) << r.journal;
    EXPECT_NE(r.sim_output.find("  daemon   cleanEnvDone 2 1\n"), std::string::npos) << r.sim_output;
    EXPECT_NE(r.sim_output.find("  verdict  SUCCESS\n"), std::string::npos) << r.sim_output;
    EXPECT_NE(r.file("stdout.txt").find("Connecting Aging UI deamon service...\n"), std::string::npos);
    EXPECT_TRUE(r.exists("data_listing.txt"));
    auto left = leftovers_of(r.out_dir);
    EXPECT_TRUE(left.found.empty()) << joined(left.found);

    // The full storage filler run, killed by a 3 s profile timeout.
    auto k = e2e::run("default", {"timeout = 3"});
    EXPECT_EQ(k.sim_exit, 3) << k.sim_output;
    EXPECT_NE(k.sim_output.find("timeout: the executable ran longer than 3 s and was killed"), std::string::npos)
        << k.sim_output;
    EXPECT_EQ(k.verdict_word(), "START");
    left = leftovers_of(k.out_dir);
    EXPECT_TRUE(left.found.empty()) << joined(left.found);
}

TEST(SimTeardown, NothingStaysAfterACrashOrAnInterruption) {
    std::string out, dir;
    int status = e2e::exec("default", {}, {"sh", "-c", "sleep 1 & kill -SEGV $$"}, &out, &dir);
    EXPECT_EQ(status, 128 + SIGSEGV) << out;
    auto left = leftovers_of(dir);
    EXPECT_TRUE(left.found.empty()) << joined(left.found);

    // Ctrl-C on a running simulation: the executable is killed mid-run, the phone goes.
    std::string run_dir = std::string(FLASHAGING_TEST_OUT) + "/SimTeardown.interrupted";
    ASSERT_EQ(system(("rm -rf '" + run_dir + "'").c_str()), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        e2e::choose_image_folder();
        execl(FLASHAGING_SIM_BIN, FLASHAGING_SIM_BIN, "run", "--profile", FLASHAGING_PROFILES "/default", "--out",
              run_dir.c_str(), "--exe", FLASHAGING_BIN, static_cast<char *>(nullptr));
        _exit(127);
    }
    // Interrupted once the writers are at work: the first fill's line is in the log.
    bool filling = false;
    for (int i = 0; i < 1200 && !filling; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        filling = slurp(run_dir + "/factory/flash_aging.log").find(" g_group_size is ") != std::string::npos;
    }
    EXPECT_TRUE(filling);
    kill(pid, SIGINT);
    int wstatus = 0;
    ASSERT_EQ(waitpid(pid, &wstatus, 0), pid);
    ASSERT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(WEXITSTATUS(wstatus), 130);
    EXPECT_NE(slurp(run_dir + "/sim.log").find("interrupted after"), std::string::npos);
    left = leftovers_of(run_dir);
    EXPECT_TRUE(left.found.empty()) << joined(left.found);
}

TEST(SimRun, DaemonAbsentMeansTheExecutableEndsAtOnceAndCreatesNothing) {
    auto r = e2e::run("default", {"daemon = no"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_FALSE(r.exists("journal"));
    EXPECT_FALSE(r.has_record);
    EXPECT_FALSE(r.exists("factory/flash_aging.log"));
    DIR *d = opendir((r.out_dir + "/factory").c_str());
    ASSERT_NE(d, nullptr);
    int entries = 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') ++entries;
    closedir(d);
    EXPECT_EQ(entries, 0);
    EXPECT_NE(r.file("stdout.txt").find("Connecting Aging UI deamon service...\n"), std::string::npos);
    EXPECT_NE(r.sim_output.find("(no journal: the daemon was never called)"), std::string::npos) << r.sim_output;
}

TEST(SimRun, ElementsAfterTheDashesReplaceTheProfilesAndASeededRecordIsThere) {
    std::string out, dir;
    int status = e2e::exec("default", {"seed_result = SUCCESS"},
                           {"sh", "-c", "od -An -c /cache/factory/flash_aging_result.txt"}, &out, &dir);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("S   U   C   C   E   S   S  \\0  \\0  \\0"), std::string::npos) << out;

    auto r = e2e::run("default", {"daemon_unreachable = no"}, std::vector<std::string>{"-n 7", "-s 5"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_NE(r.journal.find("get_aging_args 2 -> 0 (2 elements)\n"), std::string::npos) << r.journal;
    EXPECT_NE(r.file("sim.log").find("argument elements: -n 7 | -s 5"), std::string::npos);
}

TEST(SimCommand, RefusesBadProfilesNonRootAndMissingRoomInOneLine) {
    std::string out;
    std::string bad = std::string(FLASHAGING_TEST_OUT) + "/bad.profile";
    std::ofstream(bad) << "storage = ufs\nno_such_key = 1\n";
    int status = e2e::run_sim({"run", "--profile", bad, "--out", std::string(FLASHAGING_TEST_OUT) + "/bad"}, &out);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "flashaging-sim: bad profile: " + bad + " line 2: no_such_key: unknown key\n");

    status = e2e::exec("default", {"host_room_gib = 100000"}, {"true"}, &out);
    EXPECT_EQ(status, 125);
    EXPECT_EQ(count(out, "\n"), 1) << out;
    EXPECT_EQ(out.rfind("flashaging-sim: not enough room on the host: ", 0), 0u) << out;

    if (access("/usr/bin/setpriv", X_OK) == 0) {
        std::string cmd = std::string("/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups ") +
                          FLASHAGING_SIM_BIN + " exec --profile " + FLASHAGING_PROFILES + "/default -- true 2>&1";
        FILE *p = popen(cmd.c_str(), "r");
        ASSERT_NE(p, nullptr);
        std::string text;
        char buf[512];
        while (fgets(buf, sizeof buf, p)) text += buf;
        int st = pclose(p);
        EXPECT_EQ(WEXITSTATUS(st), 125);
        EXPECT_EQ(text, "flashaging-sim: needs root: it mounts file systems and sets up a loop device (run it as root)\n");
    }

    status = e2e::run_sim({"run", "--profile"}, &out);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(out.rfind("usage: flashaging-sim run", 0), 0u) << out;
}

TEST(SimCommand, EveryShippedProfileBuildsAPhone) {
    DIR *d = opendir(FLASHAGING_PROFILES);
    ASSERT_NE(d, nullptr);
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    closedir(d);
    EXPECT_GE(names.size(), 13u);
    for (const auto &n : names) {
        std::string out;
        int status = e2e::exec(n, {}, {"test", "-d", "/data/lost+found"}, &out);
        EXPECT_EQ(status, 0) << n << ": " << out;
    }
}

}  // namespace

namespace {

// The lines of sim.log that hold `needle`, in order.
std::vector<std::string> sim_lines(const e2e::RunResult &r, const std::string &needle) {
    return e2e::lines_with(r.file("sim.log"), needle);
}

TEST(SimEvents, StagesComeInTurnThreadStatesTriggerAndThePaceChanges) {
    // A jump after three stages: the first fill's line, a writer (thread 2-9) in a read or
    // write, then the benchmark's first speed line; and the short phone's pace change as
    // the benchmark folder appears.
    auto r = e2e::run("short", {"jump = readReclaim+1@log:g_group_size is then thread:2-9:io then log:seq write: ===="});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    auto stages = sim_lines(r, "] event: stage ");
    ASSERT_EQ(stages.size(), 3u) << r.file("sim.log");
    EXPECT_NE(stages[0].find("event: stage 1 of 3 (log:g_group_size is) met at +"), std::string::npos) << stages[0];
    EXPECT_NE(stages[1].find("event: stage 2 of 3 (thread:2-9:io) met at +"), std::string::npos) << stages[1];
    EXPECT_NE(stages[2].find("event: stage 3 of 3 (log:seq write: ====) met at +"), std::string::npos) << stages[2];
    auto jump = sim_lines(r, "): jump readReclaim+1");
    ASSERT_EQ(jump.size(), 1u) << r.file("sim.log");
    // Each stage is met no earlier than the one before it, and the jump comes last.
    auto at = [](const std::string &line) { return std::stod(line.substr(line.rfind("+") + 1)); };
    EXPECT_LE(at(stages[0]), at(stages[1]));
    EXPECT_LE(at(stages[1]), at(stages[2]));
    auto fired = jump[0].substr(jump[0].find("event at +") + 10);
    EXPECT_LE(at(stages[2]), std::stod(fired));
    // The benchmark's first speed line was logged before the jump's stage was met.
    EXPECT_NE(r.log.find("seq write: ==== speed is "), std::string::npos);

    auto pace = sim_lines(r, "(/data/format_unclear/file_benchmark): pace read 0 MiB/s, write 0 MiB/s");
    EXPECT_EQ(pace.size(), 1u) << r.file("sim.log");
    EXPECT_TRUE(sim_lines(r, "the pace stays").empty()) << r.file("sim.log");
    EXPECT_EQ(sim_lines(r, "I/O pace of /data: read 60 MiB/s, write 60 MiB/s").size(), 1u);
}

TEST(SimEvents, BadTriggersAndPacesAreRefusedInOneLine) {
    for (const char *line : {"pace = 10:20", "pace = 10@5", "signal = TERM@thread:2-9:busy",
                             "signal = TERM@log:x then 5x", "battery_temp = 520@0, 480@thread:1"}) {
        std::string profile = std::string(FLASHAGING_TEST_OUT) + "/bad-trigger.profile";
        std::ofstream(profile) << "include = " << FLASHAGING_PROFILES << "/default\n" << line << "\n";
        std::string out;
        int status = e2e::run_sim({"run", "--profile", profile, "--out", std::string(FLASHAGING_TEST_OUT) + "/bad-trigger"},
                                  &out);
        EXPECT_EQ(status, 1) << line << "\n" << out;
        EXPECT_EQ(e2e::count(out, "\n"), 1) << line << "\n" << out;
        EXPECT_NE(out.find("line 2"), std::string::npos) << line << "\n" << out;
    }
}

}  // namespace
