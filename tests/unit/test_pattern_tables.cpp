// Pattern tables, file mixes, pass start and the pattern directory lay-out.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "flashaging/pattern.h"
#include "unit_support.h"

using namespace ut;

namespace {

void init_quietly(const std::string &dir, uint32_t case_id) {
    capture([&] { pattern_init(dir.c_str(), case_id); });
}

TEST(PatternTables, CasesListEveryGroupAndDescInOrderAndTheBytesOfAPass) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    const int32_t group_nums[3] = {10, 10, 1};
    const int64_t pass_bytes[3] = {149696512, 242159616, 268435456};
    for (int c : {0, 1, 2, 0}) {
        SCOPED_TRACE("case " + std::to_string(c));
        const std::vector<ExpGroup> &exp = expected_case(c);
        init_file_group(static_cast<uint32_t>(c));
        ASSERT_EQ(g_file_cases[c].group_num, group_nums[c]);
        ASSERT_EQ(g_cur_group_num.load(), group_nums[c]);
        ASSERT_EQ(g_cur_groups.load(), g_file_cases[c].groups);
        EXPECT_EQ(g_group_size.load(), pass_bytes[c]);
        int64_t sum = 0;  // the independent table agrees with the printed total
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
                sum += int64_t(exp[g].file_size) * exp[g].descs[i].files;
            }
        }
        EXPECT_EQ(sum, pass_bytes[c]);
    }
}

TEST(PatternTables, UnknownCaseIdChangesNothing) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 1);
    // Hand out part of the pass so a wrongly taken reset would show.
    g_file_cases[1].groups[9].descs[0].left_num.store(1);
    EXPECT_EQ(capture([] { init_file_group(3); }), "erro case id 3\n");
    EXPECT_EQ(capture([] { init_file_group(0xFFFFFFFFu); }), "erro case id -1\n");
    EXPECT_EQ(g_cur_group_num.load(), 10);
    EXPECT_EQ(g_cur_groups.load(), g_file_cases[1].groups);
    EXPECT_EQ(g_group_size.load(), 242159616);
    EXPECT_EQ(g_file_cases[1].groups[9].descs[0].left_num.load(), 1);
}

TEST(PatternDirectory, CreatedWhenMissingEmptiedWhenThereWithMode0600AndSequenceReset) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("p");
    std::string out = capture([&] { pattern_init(dir.c_str(), 2); });
    EXPECT_TRUE(matches(out, line("INFO", "pattern_init", dir + " not exist\n"))) << out;
    EXPECT_EQ(g_cur_group_num.load(), 1);
    uint8_t *blocks[10];
    for (int i = 0; i < 10; ++i) blocks[i] = g_file_units[i].buf;
    put(dir + "7_4096_3", "old file");
    g_file_seq = 9;

    out = capture([&] { pattern_init(dir.c_str(), 1); });
    EXPECT_TRUE(matches(out, line("INFO", "pattern_init", "begin to delete the " + dir + "\n") +
                                 line("INFO", "pattern_init", "finished delete the " + dir + "\n")))
        << out;
    EXPECT_FALSE(std::filesystem::exists(dir + "7_4096_3"));
    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(g_file_seq, 0u);
    EXPECT_EQ(g_cur_groups.load(), g_file_cases[1].groups);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(g_file_units[i].buf, blocks[i]) << "the blocks are built once per process";
}

TEST(PatternDirectory, RemovalCommandIsCutAt63Characters) {
    ScratchDir tmp;
    ASSERT_LT(tmp.path().size(), 40u);  // the cut must fall well inside the scratch directory
    // "rm -rf " leaves 56 characters of the path; the directory named by those 56 is removed
    // instead of the long one.
    const std::string long_dir = tmp.path() + std::string(70, 'd') + "/";
    const std::string cut_dir = long_dir.substr(0, 56);
    std::filesystem::create_directories(long_dir);
    std::filesystem::create_directories(cut_dir);
    put(long_dir + "keep", "x");
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
