// The storage filler on the simulated phone: fill cycles, read-back, benchmark, the end on
// wear, and its faults (a corrupted pattern file, a hot battery, a full partition).
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"

namespace fs = std::filesystem;

namespace {

using e2e::count;
using e2e::journal_has;

// The patterns, written out here on their own so that the files are checked against the
// tables and not against the program's idea of them.
std::vector<uint8_t> pattern_bytes(int id) {
    static const uint8_t p8[7][8] = {
        {0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55}, {0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00},
        {0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF}, {0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33},
        {0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10}, {0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF},
        {0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55},
    };
    static const int parts[3][8] = {{0, 1, 2, 0, 3, 4, 5, 6}, {0, 6, 5, 4, 3, 2, 1, 0}, {0, 2, 4, 5, 0, 5, 3, 1}};
    if (id < 7) return std::vector<uint8_t>(p8[id], p8[id] + 8);
    std::vector<uint8_t> out;
    for (int part : parts[id - 7]) out.insert(out.end(), p8[part], p8[part] + 8);
    return out;
}

// The (pattern id, file size) kinds of case 0, the mix of the first cycle.
bool in_case0(int pattern, long size) {
    static const std::map<long, std::vector<int>> kinds = {
        {4096, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},   {16384, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {32768, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},  {196608, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {262144, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}}, {524288, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {1048576, {0, 4, 7, 8, 9}},               {8388608, {7, 8, 9}},
        {16777216, {7, 8}},                       {33554432, {7}},
    };
    auto it = kinds.find(size);
    if (it == kinds.end()) return false;
    for (int p : it->second)
        if (p == pattern) return true;
    return false;
}

struct Cycle {
    long long group_size = 0;
    int number = -1;
    int count = 0;
    std::string text;  // the log from this cycle's "g_group_size" line to the next one
};

// Splits the log at the "g_group_size is" lines: one piece per cycle.
std::vector<Cycle> cycles_of(const std::string &log) {
    std::vector<Cycle> out;
    std::regex start(R"(\[FLASH\]INFO:storage_filler_run:\d+ g_group_size is (\d+)\n)");
    std::vector<std::pair<size_t, long long>> marks;
    for (auto it = std::sregex_iterator(log.begin(), log.end(), start); it != std::sregex_iterator(); ++it)
        marks.emplace_back(static_cast<size_t>(it->position()), std::stoll((*it)[1]));
    for (size_t i = 0; i < marks.size(); ++i) {
        Cycle c;
        c.group_size = marks[i].second;
        size_t end = i + 1 < marks.size() ? marks[i + 1].first : log.size();
        c.text = log.substr(marks[i].first, end - marks[i].first);
        std::smatch m;
        if (std::regex_search(c.text, m, std::regex(R"(\[FLASH\]INFO:storage_filler_run:\d+ fill_cycle (-?\d+)/(-?\d+) cost [0-9]+\.[0-9]{2}s\n)"))) {
            c.number = std::stoi(m[1]);
            c.count = std::stoi(m[2]);
        }
        out.push_back(c);
    }
    return out;
}

// Checks every captured pattern file byte for byte; returns the number of whole files.
int check_pattern_files(const fs::path &dir, int *partial) {
    int whole = 0;
    *partial = 0;
    std::regex name_re(R"((\d)_(\d+)_(\d+))");
    for (const auto &e : fs::directory_iterator(dir)) {
        const std::string name = e.path().filename().string();
        std::smatch m;
        EXPECT_TRUE(std::regex_match(name, m, name_re)) << name;
        if (m.empty()) continue;
        const int pattern = std::stoi(m[1]);
        const long size = std::stol(m[2]);
        EXPECT_GE(std::stol(m[3]), 1) << name << ": sequence numbers start at 1";
        EXPECT_TRUE(in_case0(pattern, size)) << name << " is no kind of the first cycle's mix";
        const std::vector<uint8_t> p = pattern_bytes(pattern);
        std::ifstream in(e.path(), std::ios::binary);
        std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (data.empty()) continue;  // beyond the capture's size limit: left empty
        EXPECT_LE(static_cast<long>(data.size()), size) << name;
        for (size_t k = 0; k < data.size(); ++k) {
            if (static_cast<uint8_t>(data[k]) != p[k % p.size()]) {
                ADD_FAILURE() << name << ": byte " << k << " is " << int(static_cast<uint8_t>(data[k]))
                              << ", the pattern has " << int(p[k % p.size()]);
                break;
            }
        }
        if (static_cast<long>(data.size()) == size)
            ++whole;
        else
            ++*partial;  // the copy that reached the capture's size limit
    }
    return whole;
}

TEST(Filler, DefaultPhoneFillsCyclesAndEndsOnWear) {
    // The pattern folder is copied when the first benchmark starts: the first fill is over
    // and its files stay until the next cycle begins.
    auto r = e2e::run("default", {"capture = /data/format_unclear/file_pattern@/data/format_unclear/file_benchmark"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1")) << r.journal;

    std::vector<Cycle> cycles = cycles_of(r.log);
    ASSERT_GE(cycles.size(), 2u) << r.log;
    const long long sizes[3] = {149696512, 242159616, 268435456};
    int previous = -1;
    for (const Cycle &c : cycles) {
        SCOPED_TRACE("cycle " + std::to_string(c.number));
        ASSERT_GE(c.number, 0) << "every cycle ends with its fill_cycle line:\n" << c.text;
        EXPECT_EQ(c.group_size, sizes[c.number % 3]) << "the mix is the cycle number mod 3";
        EXPECT_GE(c.number, previous) << "cycles are numbered by the device's wear";
        previous = c.number;

        // Eight writers, all ended normally; no thread reported a failure. A writer that
        // meets the reserve leaves without the barrier, so the others of that pass may give
        // up their wait after 10 s ("barrier wait failed") and still end with ret 0: how
        // often depends on the machine's load, not on the program.
        EXPECT_EQ(count(c.text, "[FLASH]INFO:fill_fn:"), 8);
        EXPECT_EQ(count(c.text, ", ret 0, fill "), 8) << c.text;
        EXPECT_EQ(count(c.text, "filler["), 0) << c.text;

        // The benchmark: four modes in order, each with its size line and speed line.
        std::regex bench(
            R"(size is 0x20000000, file num is 1024, time cost [0-9.]+\nseq write: ==== speed is [0-9.]+MB/s ====\n)"
            R"((?:[^\n]*\n)*?size is 0x20000000, file num is 1024, time cost [0-9.]+\nseq read: ==== speed is [0-9.]+MB/s ====\n)"
            R"((?:[^\n]*\n)*?size is 0x4000000, file num is 16384, time cost [0-9.]+\nrand write: ==== speed is [0-9.]+MB/s ====\n)"
            R"((?:[^\n]*\n)*?size is 0x4000000, file num is 16384, time cost [0-9.]+\nrand read: ==== speed is [0-9.]+MB/s ====\n)");
        EXPECT_TRUE(std::regex_search(c.text, bench)) << c.text;
        EXPECT_EQ(count(c.text, ": ==== speed is "), 4);
        EXPECT_EQ(count(c.text, "benchmark_end fail"), 0);
    }
    EXPECT_EQ(cycles.front().number, 0);
    EXPECT_GT(cycles.front().count, 0);
    // The readers verified: their summaries after more than 1000 good reads.
    EXPECT_GE(count(r.log, "[FLASH]INFO:read_disturb_file:"), 1) << r.log;
    EXPECT_NE(r.log.find(", average 1000 times cost "), std::string::npos);
    EXPECT_EQ(count(r.log, "storage_filler cycle"), 0);
    EXPECT_EQ(count(r.log, "healthinfo_judge"), 0);
    EXPECT_EQ(count(r.log, " storage_filler total cost "), 1);
    std::string listing = r.file("data_listing.txt");
    EXPECT_EQ(count(listing, "file_pattern"), 0) << listing;
    EXPECT_EQ(count(listing, "file_benchmark"), 0) << listing;

    // The first cycle's files, read back here.
    fs::path captured;
    if (fs::exists(r.out_dir + "/capture"))
        for (const auto &e : fs::recursive_directory_iterator(r.out_dir + "/capture"))
            if (e.is_directory() && e.path().filename() == "file_pattern") captured = e.path();
    ASSERT_FALSE(captured.empty()) << r.sim_output;
    int partial = 0;
    int whole = check_pattern_files(captured, &partial);
    EXPECT_GE(whole, 20) << "whole files checked";
    EXPECT_LE(partial, 1);
}

TEST(Filler, CorruptedPatternFileFailsTheRunThroughAReader) {
    // Once all four readers read their files, a byte of one of them is flipped.
    auto r = e2e::run("short", {std::string("corrupt_pattern_at = ") + e2e::kAllReadersReading});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    std::string sim_log = r.file("sim.log");
    EXPECT_NE(sim_log.find("corrupt: flipped one byte of /data/format_unclear/file_pattern/"), std::string::npos)
        << sim_log;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.log, m,
                                  std::regex(R"(\[FLASH\]ERROR:storage_filler:\d+ filler\[(8|9|10|11)\]\.output is 1\n)")))
        << "a reader's failure is the cycle's result:\n" << r.log;
    EXPECT_EQ(count(r.log, "].output is "), 1);
    // The reader failed on the comparison, not on finding or reading its files.
    EXPECT_EQ(count(r.log, "fail to get disturb file name"), 0) << r.log;
    EXPECT_FALSE(std::regex_search(r.log, std::regex(R"(read_disturb_file:\d+ (read file|open) )"))) << r.log;
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"(\[FLASH\]ERROR:storage_filler_run:\d+ storage_filler cycle 0 fail 1\n)")))
        << r.log;
    EXPECT_EQ(count(r.log, ": ==== speed is "), 0) << "no benchmark after a failed fill";
    EXPECT_FALSE(std::regex_search(r.log, std::regex(R"( fill_cycle -?\d+/)"))) << "the cycle did not finish";
    EXPECT_EQ(count(r.log, " storage_filler total cost "), 1);
    EXPECT_EQ(r.verdict_word(), "FAIL");
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 0")) << r.journal;
}

TEST(Filler, HotBatteryHoldsTheCycleAndTheWatchdogEndIsAPass) {
    // Hot until the line after the tenth 10 s sleep (100 s: the wait's own length): the
    // battery cools as the line is logged, so the filler goes on after that sleep or the
    // next. The watchdog's 30 s budget runs out meanwhile, so the writers end with the
    // watchdog's code.
    auto r = e2e::run("short", {"battery_temp = 520@0, 480@log:BATTERY_TEMP higher than 490"},
                      std::vector<std::string>{"-n 6", "-s 30", "-reserved_space 65100", "-full_filling_times 1"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_EQ(count(r.log, "BATTERY_TEMP"), 1) << r.log;
    size_t hot = r.log.find("BATTERY_TEMP higher than 490, sleep 100s\n\n");
    ASSERT_NE(hot, std::string::npos) << r.log;
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"(\[FLASH\]INFO:storage_filler:\d+ BATTERY_TEMP higher)")));
    size_t first_group = r.log.find("g_group_size is 149696512\n");
    size_t first_writer = r.log.find("[FLASH]INFO:fill_fn:");
    ASSERT_NE(first_group, std::string::npos);
    ASSERT_NE(first_writer, std::string::npos);
    EXPECT_LT(first_group, hot);
    EXPECT_LT(hot, first_writer) << "no writer starts before the battery has cooled";

    EXPECT_EQ(count(r.log, " [WDT] say test over!\n"), 1);
    EXPECT_EQ(count(r.log, ", ret 17185, fill "), 8) << r.log;
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"(\[FLASH\]ERROR:storage_filler:\d+ filler\[0\]\.output is 17185\n)")));
    EXPECT_TRUE(std::regex_search(
        r.log, std::regex(R"(\[FLASH\]ERROR:storage_filler_run:\d+ storage_filler cycle 0 exit, wdt timeout\n)")));
    EXPECT_EQ(count(r.log, ": ==== speed is "), 0);
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1")) << r.journal;
}

TEST(Filler, FullPartitionEndsEachFillCleanly) {
    // A small reserve, and the disk all but filled up under the writers in the middle of a
    // pass: they run into ENOSPC, meet at the barrier, find no room and stop; the benchmark is
    // skipped for lack of space. A fast-wearing device ends the test after that one cycle
    // (later cycles on the emptied disk would write too few files for the readers). The disk
    // fills once the readers have their files and a new pass has begun: a writer waited at the
    // end-of-pass barrier, then all eight are writing again, with most of the pass still to
    // write, so they meet the full disk mid-pass (measured only after a whole pass, free space
    // would otherwise stop them cleanly at the reserve).
    std::string new_pass = std::string(e2e::kAllReadersReading) + " then thread:2-9:futex";
    for (int writer = 2; writer <= 9; ++writer)
        new_pass += " then thread:" + std::to_string(writer) + "-" + std::to_string(writer) + ":io";
    auto r = e2e::run("default",
                      {"ballast_at = " + new_pass, "ballast_leave_mib = 20", "pe_per_gib = 8", "host_room_gib = 4"},
                      std::vector<std::string>{"-n 6", "-s 3600", "-reserved_space 100", "-full_filling_times 1"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"((open /data/format_unclear/file_pattern/\S+ failed 28|write fail -1, errno is 28,))")))
        << "the writers met a full disk:\n" << r.log;
    EXPECT_GE(count(r.log, "left space is less than 536870912, do not do benchmark\n"), 1) << r.log;
    EXPECT_EQ(count(r.log, "filler["), 0) << r.log;
    EXPECT_EQ(count(r.log, "storage_filler cycle"), 0);
    EXPECT_EQ(count(r.log, "barrier wait failed"), 0) << "all eight writers meet after a full disk";
    std::vector<Cycle> cycles = cycles_of(r.log);
    ASSERT_GE(cycles.size(), 1u);
    for (const Cycle &c : cycles) {
        EXPECT_GE(c.number, 0) << c.text;
        EXPECT_EQ(count(c.text, ", ret 0, fill "), 8) << c.text;
    }
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1")) << r.journal;
}

}  // namespace

namespace {

TEST(EnterH8, HundredBlocksOf0x55ThreeSecondsApart) {
    // The test at its real length (about five minutes). The file is copied halfway through.
    auto r = e2e::run("default", {"capture = /data/format_unclear/enter_h8@/data/format_unclear/enter_h8+150"},
                      std::vector<std::string>{"-n 5", "-s 3600"});
    ASSERT_EQ(r.sim_exit, 0) << r.sim_output;
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"(\[FLASH\]INFO:enter_h8_test:\d+ enter_h8_test begin\n)")));
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"(\[FLASH\]INFO:enter_h8_write:\d+ /data/format_unclear/enter_h8 not exist\n)")))
        << r.log;
    EXPECT_TRUE(std::regex_search(
        r.log, std::regex(R"(\[FLASH\]INFO:enter_h8_write:\d+ sleep interval:3000000, write count:100\n)")));
    EXPECT_TRUE(std::regex_search(r.log, std::regex(R"(\[FLASH\]INFO:enter_h8_test:\d+ enter_h8_test end\n)")));
    EXPECT_EQ(count(r.log, "failed to write"), 0);
    EXPECT_EQ(count(r.log, "g_group_size is"), 0) << "the storage filler is not selected";
    EXPECT_EQ(r.verdict_word(), "SUCCESS");
    EXPECT_TRUE(journal_has(r, "cleanEnvDone 2 1")) << r.journal;
    EXPECT_EQ(count(r.file("data_listing.txt"), "enter_h8"), 0) << "the directory is removed at the end";

    fs::path file;
    if (fs::exists(r.out_dir + "/capture"))
        for (const auto &e : fs::recursive_directory_iterator(r.out_dir + "/capture"))
            if (e.is_regular_file() && e.path().filename() == "enter_h8_tmp") file = e.path();
    ASSERT_FALSE(file.empty()) << r.sim_output;
    std::ifstream in(file, std::ios::binary);
    std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(data.size() % 4096, 0u);
    // About 50 blocks after 150 s of 3 s sleeps; never all of them yet.
    EXPECT_GE(data.size(), 40u * 4096);
    EXPECT_LT(data.size(), 100u * 4096);
    for (size_t k = 0; k < data.size(); ++k)
        ASSERT_EQ(static_cast<uint8_t>(data[k]), 0x55) << "byte " << k;
}

}  // namespace
