// Pattern tables, file mixes, pass start and the pattern directory lay-out.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "flashaging/pattern.h"
#include "test_pattern_support.h"

using namespace pattern_test;

namespace {

void init_quietly(const std::string &dir, uint32_t case_id) {
    capture_stdout([&] { pattern_init(dir.c_str(), case_id); });
}

TEST(PatternTables, UnitsHoldTheTenPatternsAndTheirBlocks) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    for (int id = 0; id < 10; ++id) {
        SCOPED_TRACE(id);
        const file_unit &u = g_file_units[id];
        const std::vector<uint8_t> p = expected_pattern(id);
        ASSERT_EQ(u.len, static_cast<int32_t>(p.size()));
        EXPECT_EQ(0, memcmp(u.pattern, p.data(), p.size()));
        ASSERT_NE(u.buf, nullptr);
        size_t bad = 0;
        EXPECT_TRUE(holds_pattern(u.buf, 4096, id, &bad)) << "block byte " << bad;
    }
}

TEST(PatternTables, CasesListEveryGroupAndDescInOrder) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    const int32_t group_nums[3] = {10, 10, 1};
    for (int c = 0; c < 3; ++c) {
        SCOPED_TRACE("case " + std::to_string(c));
        const std::vector<ExpGroup> &exp = expected_case(c);
        init_file_group(static_cast<uint32_t>(c));
        ASSERT_EQ(g_file_cases[c].group_num, group_nums[c]);
        ASSERT_EQ(g_cur_group_num.load(), group_nums[c]);
        ASSERT_EQ(g_cur_groups.load(), g_file_cases[c].groups);
        for (size_t g = 0; g < exp.size(); ++g) {
            const file_group &group = g_file_cases[c].groups[g];
            ASSERT_EQ(group.desc_num, static_cast<int32_t>(exp[g].descs.size())) << "group " << g;
            for (size_t i = 0; i < exp[g].descs.size(); ++i) {
                SCOPED_TRACE("group " + std::to_string(g) + " desc " + std::to_string(i));
                const file_desc &d = group.descs[i];
                EXPECT_EQ(d.pattern_id, exp[g].descs[i].pattern);
                EXPECT_EQ(d.file_num, exp[g].descs[i].files);
                EXPECT_EQ(d.left_num.load(), exp[g].descs[i].files);  // a fresh pass owes them all
                EXPECT_EQ(d.file_size, exp[g].file_size);
                EXPECT_EQ(d.unit, &g_file_units[d.pattern_id]);
            }
        }
    }
}

TEST(PatternTables, GroupSizeIsTheBytesOfOnePass) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    EXPECT_EQ(g_group_size.load(), 149696512);
    init_file_group(1);
    EXPECT_EQ(g_group_size.load(), 242159616);
    init_file_group(2);
    EXPECT_EQ(g_group_size.load(), 268435456);
    init_file_group(0);
    EXPECT_EQ(g_group_size.load(), 149696512);

    // The independent tables agree with the printed totals.
    const int64_t totals[3] = {149696512, 242159616, 268435456};
    const int files[3] = {190, 44, 8};
    for (int c = 0; c < 3; ++c) {
        int64_t sum = 0;
        for (const ExpGroup &g : expected_case(c))
            for (const ExpDesc &d : g.descs) sum += static_cast<int64_t>(g.file_size) * d.files;
        EXPECT_EQ(sum, totals[c]);
        EXPECT_EQ(expected_file_count(c), files[c]);
    }
}

TEST(PatternTables, UnknownCaseIdChangesNothing) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 1);
    // Hand out part of the pass so a wrongly taken reset would show.
    g_file_cases[1].groups[9].descs[0].left_num.store(1);

    std::string out = capture_stdout([] { init_file_group(3); });
    EXPECT_EQ(out, "erro case id 3\n");
    out = capture_stdout([] { init_file_group(0xFFFFFFFFu); });
    EXPECT_EQ(out, "erro case id -1\n");

    EXPECT_EQ(g_cur_group_num.load(), 10);
    EXPECT_EQ(g_cur_groups.load(), g_file_cases[1].groups);
    EXPECT_EQ(g_group_size.load(), 242159616);
    EXPECT_EQ(g_file_cases[1].groups[9].descs[0].left_num.load(), 1);
}

TEST(PatternDirectory, MissingDirectoryIsReportedAndCreated) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("fresh");
    const std::string out = capture_stdout([&] { pattern_init(dir.c_str(), 2); });
    const std::regex shape(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:pattern_init:\d+ )" + re_escape(dir) + R"( not exist\n)");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;

    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(g_cur_group_num.load(), 1);
}

TEST(PatternDirectory, ExistingDirectoryIsEmptiedAndSequenceReset) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("again");
    init_quietly(dir, 0);
    uint8_t *blocks[10];
    for (int i = 0; i < 10; ++i) blocks[i] = g_file_units[i].buf;
    std::ofstream(dir + "7_4096_3") << "old file";
    g_file_seq = 9;

    const std::string out = capture_stdout([&] { pattern_init(dir.c_str(), 1); });
    const std::string pre = R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:pattern_init:\d+ )";
    const std::regex shape(pre + "begin to delete the " + re_escape(dir) + "\\n" + pre + "finished delete the " +
                           re_escape(dir) + "\\n");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;

    EXPECT_FALSE(std::filesystem::exists(dir + "7_4096_3"));
    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(g_file_seq, 0u);
    EXPECT_EQ(g_cur_groups.load(), g_file_cases[1].groups);
    // The blocks are built once per process.
    for (int i = 0; i < 10; ++i) EXPECT_EQ(g_file_units[i].buf, blocks[i]) << i;
}

TEST(PatternDirectory, RemovalCommandIsCutAt63Characters) {
    ScratchDir tmp;
    // The cut must fall well inside the scratch directory.
    ASSERT_LT(tmp.path().size(), 40u);
    // "rm -rf " leaves 56 characters of the path; the directory named by those 56 is removed
    // instead of the long one.
    const std::string long_dir = tmp.path() + std::string(70, 'd') + "/";
    const std::string cut_dir = long_dir.substr(0, 56);
    ASSERT_EQ(cut_dir.size(), 56u);
    std::filesystem::create_directories(long_dir);
    std::filesystem::create_directories(cut_dir);
    std::ofstream(long_dir + "keep") << "x";

    EXPECT_EQ(system_rm_file(long_dir.c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(cut_dir));
    EXPECT_TRUE(std::filesystem::exists(long_dir + "keep"));

    // pattern_init formats its command the same way.
    std::filesystem::create_directories(cut_dir);
    init_quietly(long_dir, 0);
    EXPECT_FALSE(std::filesystem::exists(cut_dir));
    EXPECT_TRUE(std::filesystem::exists(long_dir + "keep"));
}

}  // namespace
