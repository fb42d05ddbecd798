// The bring-up check tools/phone-check in the simulated phone: one phone per problem a new
// phone model can have, each with the exact line the check must print for it; and
// scripts/phone-check, which runs the check through adb (here a stand-in adb that plays a
// simulated phone with mksh and toybox's commands, as a phone has them).
#include <gtest/gtest.h>

#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"

namespace {

// The source tree: FLASHAGING_PROFILES is its sim/profiles.
std::string top() {
    std::string profiles = FLASHAGING_PROFILES;
    return profiles.substr(0, profiles.size() - std::string("/sim/profiles").size());
}
std::string profile(const std::string &name) { return top() + "/sim/profiles/" + name; }

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

bool has_line(const std::string &text, const std::string &line) {
    for (const auto &l : lines_of(text))
        if (l == line) return true;
    return false;
}

// A data_listing.txt without its sizes: "<type> <path>" lines.
std::vector<std::string> entries(const std::string &listing) {
    std::vector<std::string> out;
    for (const auto &l : lines_of(listing)) {
        const size_t size_end = l.find(' ', 2);
        out.push_back(l.substr(0, 2) + (size_end == std::string::npos ? "" : l.substr(size_end + 1)));
    }
    return out;
}

// The lines that are not OK (the first and last are the check's title and summary).
std::vector<std::string> not_ok(const std::string &text) {
    std::vector<std::string> lines;
    for (const auto &l : lines_of(text))
        if (l.rfind("WARN  ", 0) == 0 || l.rfind("FAIL  ", 0) == 0) lines.push_back(l);
    return lines;
}

struct Check {
    int status = -1;
    std::string output, dir;
};

// tools/phone-check run in a phone of the profile (a path below sim/profiles).
Check check(const std::string &name, const std::vector<std::string> &overrides = {}) {
    Check c;
    c.status = e2e::exec(profile(name), overrides, {top() + "/tools/phone-check"}, &c.output, &c.dir);
    return c;
}

// Runs a shell command line on the host; returns its exit status and what it printed.
int host_shell(const std::string &command, std::string *output) {
    FILE *p = popen((command + " 2>&1").c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    output->clear();
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) output->append(buf, n);
    int status = pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char kTitle[] = "phone-check: what flashaging needs on this phone, and what it found";

// The default phone, line by line.
const std::vector<std::string> kHealthy = {
    kTitle,
    "OK    root                    uid 0",
    "OK    shell                   /bin/sh",
    "OK    health tool             /system/bin/monitor_tool",
    "OK    health tool mode        chmod 0775 possible",
    "OK    health tool executable  mode 0755",
    "OK    health counters         readReclaim 3, badBlockRuntime 0, TBW 12000, eraseCacheCntAvg 8, eraseXLCCntAvg 5",
    "OK    /cache/factory          writable",
    "OK    /data free space        66000 MiB free, the gate needs 65536 MiB",
    "OK    /data file system       ext4 (rw,relatime,discard,noinit_itable)",
    "OK    /data encryption        none (ro.crypto.state unset)",
    "OK    direct I/O write        16 MiB written with O_DIRECT in /data",
    "OK    direct I/O read-back    16 MiB read with O_DIRECT, 16 MiB of them from the device",
    "OK    ro.serialno             SIM0123456789",
    "OK    ro.product.model        SIMPHONE-1",
    "OK    ro.build.description    simphone-user 13 TP1A.220624.014 eng.sim release-keys",
    "OK    ro.product.prjversion   22801",
    "OK    ro.board.platform       sm8450",
    "OK    battery temperature     350 (35.0 C)",
    "OK    device information      ufs: version H9HQ16AECMMDAR, manufacturer SK Hynix",
    "OK    signal record           link errors: PA 0, DL 0",
    "phone-check: 0 FAIL, 0 WARN, 20 OK",
};

TEST(PhoneCheck, HealthyPhoneIsAllOkAndKeepsNothing) {
    Check c = check("default");
    EXPECT_EQ(c.status, 0) << c.output;
    EXPECT_EQ(lines_of(c.output), kHealthy) << c.output;
    // The scratch file is gone, nothing else was made on /data or in /cache/factory.
    e2e::RunResult r;
    r.out_dir = c.dir;
    EXPECT_EQ(entries(r.file("data_listing.txt")), (std::vector<std::string>{"f .sim_ballast", "d lost+found"}));
    std::string listing;
    host_shell("ls -A '" + c.dir + "/factory'", &listing);
    EXPECT_EQ(listing, "");
}

TEST(PhoneCheck, RemovedHealthToolFailsEveryToolLine) {
    Check c = check("bringup-no-tool");
    EXPECT_EQ(c.status, 1) << c.output;
    EXPECT_EQ(not_ok(c.output),
              (std::vector<std::string>{
                  "FAIL  health tool             no /system/bin/monitor_tool -- the run will pass without aging; install "
                  "the maker's health tool there",
                  "FAIL  health tool mode        not checked: no health tool",
                  "FAIL  health tool executable  not checked: no health tool",
                  "FAIL  health counters         not read: no health tool",
              }))
        << c.output;
    EXPECT_TRUE(has_line(c.output, "phone-check: 4 FAIL, 0 WARN, 16 OK")) << c.output;
}

TEST(PhoneCheck, ToolOnAReadOnlySystemFailsItsModeAndTheRunPassesWithoutAging) {
    Check c = check("bringup-tool-read-only");
    EXPECT_EQ(c.status, 1) << c.output;
    EXPECT_EQ(not_ok(c.output),
              (std::vector<std::string>{
                  "FAIL  health tool mode        read-only mount (/system) -- the run will pass without aging; remount "
                  "/system read-write",
                  "FAIL  health tool executable  mode 0644 -- the run will pass without aging; install it with mode 0755 "
                  "on a read-write /system",
                  "FAIL  health counters         not read: the tool is not executable -- see health tool executable",
              }))
        << c.output;

    // What the check warns of: every reading fails at the chmod, the filler returns at once,
    // and the run ends SUCCESS without a pattern file written.
    auto r = e2e::run(profile("bringup-tool-read-only"));
    EXPECT_EQ(r.verdict_word(), "SUCCESS") << r.sim_output;
    EXPECT_TRUE(e2e::journal_has(r, "cleanEnvDone 2 1")) << r.journal;
    const std::regex chmod_failed(R"(\[[^\]]+\]\[\d+\]\[FLASH\]ERROR:healthinfo_get:\d+ fail to chmod /system/bin/monitor_tool)");
    int failed = 0;
    for (const auto &l : lines_of(r.log)) failed += std::regex_match(l, chmod_failed);
    EXPECT_GE(failed, 3) << r.log;
    EXPECT_EQ(entries(r.file("data_listing.txt")),
              (std::vector<std::string>{"f .sim_ballast", "d format_unclear", "d lost+found"}));

    // On a writable /system the program gives the tool its mode itself: a warning only.
    c = check("default", {"health_tool_mode = 0644"});
    EXPECT_EQ(c.status, 0) << c.output;
    EXPECT_EQ(not_ok(c.output),
              (std::vector<std::string>{
                  "WARN  health tool executable  mode 0644 -- the program makes it 0775 before each reading; install it "
                  "with mode 0755",
                  "WARN  health counters         not read: the tool is not executable -- see health tool executable",
              }))
        << c.output;
}

TEST(PhoneCheck, HealthCountersOfAWornDeviceOrASilentTool) {
    Check c = check("worn");
    EXPECT_EQ(c.status, 0) << c.output;
    EXPECT_EQ(not_ok(c.output), (std::vector<std::string>{
                                    "WARN  health counters         readReclaim 3, badBlockRuntime 0, TBW 12000, "
                                    "eraseCacheCntAvg 8, eraseXLCCntAvg 31 -- P/E over 30: the wear gate skips the run "
                                    "(SKIP); a fresh device, or -f 1 to run anyway",
                                }))
        << c.output;
    c = check("default", {"health_tool = silent"});
    EXPECT_EQ(not_ok(c.output),
              (std::vector<std::string>{
                  "WARN  health counters         the tool printed none -- every reading is 0: the P/E count never grows "
                  "and only the time budget ends the run; check the tool",
              }))
        << c.output;
}

TEST(PhoneCheck, SmallPartitionFailsTheFreeSpaceGateByOneMiB) {
    Check c = check("small");
    EXPECT_EQ(c.status, 1) << c.output;
    EXPECT_EQ(not_ok(c.output), (std::vector<std::string>{
                                    "FAIL  /data free space        65535 MiB free, the gate needs 65536 MiB -- the run "
                                    "will be skipped (SKIP); free 1 MiB more on /data",
                                }))
        << c.output;
}

TEST(PhoneCheck, MissingNodesFailTheDeviceInformationAndWarnOfTheOthers) {
    Check c = check("bringup-no-nodes");
    EXPECT_EQ(c.status, 1) << c.output;
    EXPECT_EQ(not_ok(c.output),
              (std::vector<std::string>{
                  "WARN  battery temperature     no /sys/class/power_supply/battery/temp -- the storage filler cannot "
                  "wait while the battery is hot; the results file has no temperature",
                  "FAIL  device information      no /proc/devinfo/ufs, mmc or emmc -- set-up fails (Init device "
                  "properties error) and the run ends FAIL; the kernel must provide one",
                  "WARN  signal record           no /proc/ufs_signalShow/record or /proc/ufs_signalShow/record_upload -- "
                  "the results file has no UFS Signal Record section and the log no link error counts",
              }))
        << c.output;

    // An eMMC kernel with only /proc/devinfo/mmc: the program reads /proc/devinfo/emmc.
    c = check("default", {"storage = mmc", "ufs_signal = no"});
    EXPECT_EQ(c.status, 1) << c.output;
    EXPECT_EQ(not_ok(c.output), (std::vector<std::string>{
                                    "FAIL  device information      /proc/devinfo/mmc without /proc/devinfo/emmc -- set-up "
                                    "fails (Init device properties error) and the run ends FAIL; for eMMC the program "
                                    "reads /proc/devinfo/emmc",
                                }))
        << c.output;
    c = check("emmc");
    EXPECT_EQ(c.status, 0) << c.output;
    EXPECT_TRUE(has_line(c.output, "OK    signal record           none (eMMC)")) << c.output;
}

TEST(PhoneCheck, LongAndEmptyPropertiesWarn) {
    Check c = check("bringup-long-property");
    EXPECT_EQ(c.status, 0) << c.output;
    EXPECT_EQ(not_ok(c.output),
              (std::vector<std::string>{
                  "WARN  ro.product.model        unset -- the results file shows unknown",
                  "WARN  ro.build.description    120 bytes -- over 91: the program reads \"Must use "
                  "__system_property_read_callback() to read\" instead; shorten it",
              }))
        << c.output;
    EXPECT_TRUE(has_line(c.output, "OK    ro.product.prjversion   22801-EVT2-B (the results file keeps 9 characters)"))
        << c.output;
}

TEST(PhoneCheck, DirectIoServedFromMemoryIsTold) {
    // The work folder on a tmpfs, which takes O_DIRECT from Linux 6.6 on and serves it from
    // memory, as f2fs does for files it cannot do direct I/O for.
    Check c = check("default", {"work_dir_tmpfs = yes"});
    struct utsname u {};
    uname(&u);
    int major = 0, minor = 0;
    sscanf(u.release, "%d.%d", &major, &minor);
    if (major > 6 || (major == 6 && minor >= 6)) {
        EXPECT_TRUE(has_line(c.output, "OK    direct I/O write        16 MiB written with O_DIRECT in /data/format_unclear"))
            << c.output;
        EXPECT_TRUE(has_line(c.output, "WARN  direct I/O read-back    16 MiB read with O_DIRECT, 0 MiB of them from the "
                                       "device -- O_DIRECT is served from the page cache here: the read-back checks "
                                       "and speeds measure memory, not the flash"))
            << c.output;
    } else {
        EXPECT_TRUE(has_line(c.output, "WARN  direct I/O read-back    not checked: nothing written -- judge by the file "
                                       "system and encryption lines"))
            << c.output;
    }
    EXPECT_TRUE(has_line(c.output, "OK    /data file system       tmpfs (rw,relatime,size=65536k,mode=775)")) << c.output;
}

// scripts/phone-check with the stand-in adb first on the PATH, playing a phone of `name`.
int phone_check_script(const std::string &name, const std::string &state, const std::string &args, std::string *out,
                       const std::string &env = "") {
    host_shell("rm -rf '" + state + "' && mkdir -p '" + state + "'", out);
    return host_shell(env + "PATH='" + top() + "/tests/e2e/stand_in_adb':\"$PATH\" STAND_IN_ADB_SIM='" FLASHAGING_SIM_BIN
                      "' STAND_IN_ADB_PROFILE='" + profile(name) + "' STAND_IN_ADB_STATE='" + state + "' '" + top() +
                          "/scripts/phone-check' " + args,
                      out);
}

TEST(PhoneCheckScript, RunsTheCheckThroughAdbWithThePhonesShellAndLeavesNothing) {
    const std::string state = std::string(FLASHAGING_TEST_OUT) + "/PhoneCheckScript.adb";
    std::string out;
    int status = phone_check_script("default", state, "SER123", &out);
    EXPECT_EQ(status, 0) << out;
    // The same table as the check run directly, but for the few KiB the pushed copy takes.
    std::vector<std::string> expected = kHealthy;
    expected[8] = "OK    /data free space        65999 MiB free, the gate needs 65536 MiB";
    EXPECT_EQ(lines_of(out), expected) << out;
    e2e::RunResult adb;
    adb.out_dir = state;
    EXPECT_EQ(adb.file("journal"),
              "adb -s SER123 get-state\n"
              "adb -s SER123 push " + top() + "/tools/phone-check /data/local/tmp/phone-check\n"
              "adb -s SER123 shell sh /data/local/tmp/phone-check; status=$?; rm -f /data/local/tmp/phone-check; "
              "exit $status\n");
    // The check's copy is removed with the scratch file.
    EXPECT_EQ(entries(adb.file("phone.0/data_listing.txt")),
              (std::vector<std::string>{"f .sim_ballast", "d local", "d local/tmp", "d lost+found"}));
}

TEST(PhoneCheckScript, FailLineExitsOneNoAdbOrNoPhoneTwo) {
    const std::string state = std::string(FLASHAGING_TEST_OUT) + "/PhoneCheckScript.fail";
    std::string out;
    EXPECT_EQ(phone_check_script("bringup-no-tool", state, "", &out), 1) << out;
    EXPECT_TRUE(has_line(out, "phone-check: 4 FAIL, 0 WARN, 16 OK")) << out;
    e2e::RunResult adb;
    adb.out_dir = state;
    EXPECT_EQ(e2e::count(adb.file("journal"), "adb get-state\n"), 1) << "no serial: adb's own choice";

    EXPECT_EQ(phone_check_script("default", state, "one two", &out), 2);
    EXPECT_EQ(out, "usage: scripts/phone-check [SERIAL]\n");
    EXPECT_EQ(phone_check_script("default", state, "SER404", &out, "STAND_IN_ADB_NO_PHONE=1 "), 2);
    EXPECT_EQ(out, "phone-check: no phone to check: error: no devices/emulators found\n");
    // A PATH without adb (only what the script needs besides it).
    const std::string bin = std::string(FLASHAGING_TEST_OUT) + "/PhoneCheckScript.bin";
    host_shell("rm -rf '" + bin + "' && mkdir -p '" + bin + "' && ln -s \"$(command -v dirname)\" '" + bin + "/dirname'",
               &out);
    EXPECT_EQ(host_shell("PATH='" + bin + "' '" + top() + "/scripts/phone-check'", &out), 2);
    EXPECT_EQ(out, "phone-check: no adb here (Debian package adb: scripts/deps.sh adb)\n");
}

}  // namespace
