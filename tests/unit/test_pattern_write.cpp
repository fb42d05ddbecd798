// Doubling fill, the two random walks and the direct-I/O pattern files on disk.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "unit_support.h"

using namespace ut;

namespace {

void init_quietly(const std::string &dir, uint32_t case_id) {
    capture([&] { pattern_init(dir.c_str(), case_id); });
}

struct SpinLock {
    SpinLock() { pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE); }
    ~SpinLock() { pthread_spin_destroy(&lock); }
    pthread_spinlock_t lock;
};

const std::string kInvalidPointer = R"(factory/agingtest/flashaging/pattern line \d+ invalid pointer\n)";

// ---- doubling fill -----------------------------------------------------------------------------

TEST(DoublingFill, CopiesDoubleThenTheRemainderAndStopAtTheEnd) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    std::vector<pattern_fill_step> four_mib = {{0, 4096}};
    for (int32_t n = 4096; n <= 2097152; n *= 2) four_mib.push_back({n, n});
    const struct {
        int32_t size;
        std::vector<pattern_fill_step> steps;
    } cases[] = {
        {4096, {{0, 4096}}},
        {12288, {{0, 4096}, {4096, 4096}, {8192, 4096}}},
        {196608,
         {{0, 4096}, {4096, 4096}, {8192, 8192}, {16384, 16384}, {32768, 32768}, {65536, 65536}, {131072, 65536}}},
        {4194304, four_mib},
    };
    for (const auto &fc : cases) {
        for (int id : {0, 6, 7, 9}) {
            SCOPED_TRACE("size " + std::to_string(fc.size) + " pattern " + std::to_string(id));
            // A guard area past the end must stay untouched.
            std::vector<uint8_t> buf(static_cast<size_t>(fc.size) + 8192, 0xC5);
            pattern_fill_trace trace;
            pattern_fill(&g_file_units[id], buf.data(), fc.size, &trace);
            EXPECT_EQ(std::vector<pattern_fill_step>(trace.steps, trace.steps + trace.count), fc.steps);
            size_t bad = 0;
            EXPECT_TRUE(holds_pattern(buf.data(), static_cast<size_t>(fc.size), id, &bad)) << "byte " << bad;
            EXPECT_EQ(std::vector<uint8_t>(buf.begin() + fc.size, buf.end()), std::vector<uint8_t>(8192, 0xC5));
        }
    }
}

TEST(DoublingFill, UnitBufferUsesTheDescPatternAndNullPointersWriteNothing) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    file_desc *desc = &g_cur_groups.load()[3].descs[4];  // pattern 4, 196608 bytes
    ASSERT_EQ(desc->pattern_id, 4);
    std::vector<uint8_t> buf(196608);
    EXPECT_EQ(capture([&] { fill_unit_buffer(desc, buf.data(), 196608); }), "");
    EXPECT_TRUE(holds_pattern(buf.data(), buf.size(), 4));

    std::vector<uint8_t> untouched(8192, 0x3C);
    std::string out = capture([&] { fill_unit_buffer(nullptr, untouched.data(), 8192); });
    EXPECT_TRUE(matches(out, kInvalidPointer)) << out;
    EXPECT_EQ(untouched, std::vector<uint8_t>(8192, 0x3C));
    out = capture([&] { fill_unit_buffer(desc, nullptr, 4096); });
    EXPECT_TRUE(matches(out, kInvalidPointer)) << out;
}

// ---- random_get_file_desc ----------------------------------------------------------------------

TEST(RandomGetFileDesc, AlwaysLandsOnTheLastGroupsPattern7Desc) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    srand(12345);
    for (uint32_t c = 0; c < 3; ++c) {
        SCOPED_TRACE(c);
        init_file_group(c);
        file_desc *last = &g_cur_groups.load()[g_cur_group_num.load() - 1].descs[0];
        for (int32_t r : {0, 1, 7, 27, 43, 44, 100, 189, 190, 191, 12345, rand(), rand(), rand(), RAND_MAX}) {
            file_desc *d = random_get_file_desc(r);
            ASSERT_EQ(d, last) << "r " << r;
            EXPECT_EQ(d->pattern_id, 7);
            EXPECT_EQ(d->file_size, 33554432);
        }
        EXPECT_EQ(last->left_num.load(), last->file_num) << "only a look: nothing is handed out";
    }
}

// ---- random_finish_group_file: the choice ------------------------------------------------------

// The file names of the open-failure lines in out. With one writer the output must be nothing
// but whole lines; with several, a prefix and its body may be split by another thread's line,
// so only the bodies are taken.
std::vector<std::string> failed_opens(const std::string &out, bool one_writer = true) {
    const std::regex form((one_writer ? kPrefix : "") + bare("INFO", "random_finish_group_file", "open ") +
                          R"((\S+) failed 2\n)");
    std::vector<std::string> names;
    size_t consumed = 0;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), form); it != std::sregex_iterator(); ++it) {
        EXPECT_TRUE(!one_writer || static_cast<size_t>(it->position()) == consumed) << "stray output: " << out;
        consumed = static_cast<size_t>(it->position() + it->length());
        names.push_back((*it)[1]);
    }
    EXPECT_TRUE(!one_writer || consumed == out.size()) << "stray output: " << out;
    return names;
}

// Each file the pass owes is handed out exactly once, whatever becomes of it afterwards: a
// directory that does not exist makes every open fail (ENOENT), so the choice is counted
// without I/O.
TEST(RandomFinishGroupFile, PassHandsOutExactlyTheTableThenEnds) {
    for (uint32_t c = 0; c < 3; ++c) {
        SCOPED_TRACE("case " + std::to_string(c));
        ScratchDir tmp;
        init_quietly(tmp.path(), c);
        const std::string missing = tmp.sub("missing");
        const int files = expected_file_count(static_cast<int>(c));
        SpinLock lock;
        uint64_t bytes = 0;
        const std::string out = capture([&] {
            for (int i = 0; i < files; ++i) ASSERT_EQ(random_finish_group_file(&lock.lock, missing.c_str(), &bytes), 1);
        });
        const std::vector<std::string> names = failed_opens(out);
        ASSERT_EQ(names.size(), static_cast<size_t>(files));

        std::map<std::pair<int, int>, int> handed_out;
        const std::regex name_form(re_escape(missing) + R"((\d+)_(\d+)_(\d+))");
        for (size_t i = 0; i < names.size(); ++i) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(names[i], m, name_form)) << names[i];
            EXPECT_EQ(std::stoul(m[3]), i + 1) << "sequence numbers start at 1 and rise by one";
            ++handed_out[{std::stoi(m[1]), std::stoi(m[2])}];
        }
        for (const ExpGroup &g : expected_case(static_cast<int>(c)))
            for (const ExpDesc &d : g.descs)
                EXPECT_EQ((handed_out[{d.pattern, g.file_size}]), d.files) << d.pattern << "_" << g.file_size;
        EXPECT_EQ(bytes, 0u);

        // The pass is over: no file, no number used.
        std::string more = capture([&] { EXPECT_EQ(random_finish_group_file(&lock.lock, missing.c_str(), &bytes), 2); });
        EXPECT_EQ(more, "");
        EXPECT_EQ(g_file_seq, static_cast<uint32_t>(files));
        // A new pass goes on with the numbers.
        init_file_group(c);
        more = capture([&] { EXPECT_EQ(random_finish_group_file(&lock.lock, missing.c_str(), &bytes), 1); });
        const std::vector<std::string> next = failed_opens(more);
        ASSERT_EQ(next.size(), 1u);
        EXPECT_TRUE(next[0].ends_with("_" + std::to_string(files + 1))) << next[0];
    }
}

// Eight writers at once: every file is handed out once and numbered once.
TEST(RandomFinishGroupFile, ConcurrentWritersShareOnePass) {
    ScratchDir tmp;
    init_quietly(tmp.sub("p"), 1);
    const std::string missing = tmp.sub("missing");
    SpinLock lock;
    std::atomic<int> calls{0};
    std::string out = capture([&] {
        std::vector<std::thread> writers;
        for (int i = 0; i < 8; ++i)
            writers.emplace_back([&] {
                uint64_t bytes = 0;
                int r;
                while ((r = random_finish_group_file(&lock.lock, missing.c_str(), &bytes)) == 1) ++calls;
                EXPECT_EQ(r, 2);
            });
        for (std::thread &w : writers) w.join();
    });
    EXPECT_EQ(calls.load(), 44);
    EXPECT_EQ(g_file_seq, 44u);
    const std::vector<std::string> names = failed_opens(out, false);
    EXPECT_EQ(names.size(), 44u);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 44u);
}

// ---- random_finish_group_file: the files on disk -----------------------------------------------

// The choice of one pass is checked above; here the bytes, sizes and modes of its files.
TEST(RandomFinishGroupFile, OnePassOfCase0WritesEveryFileWithItsPattern) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("file_pattern");
    init_quietly(dir, 0);
    SpinLock lock;
    uint64_t bytes = 0;
    const std::string out = capture([&] {
        for (int i = 0; i < 190; ++i) ASSERT_EQ(random_finish_group_file(&lock.lock, dir.c_str(), &bytes), 0) << i;
        EXPECT_EQ(random_finish_group_file(&lock.lock, dir.c_str(), &bytes), 2);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(bytes, 149696512u);

    const mode_t mask = umask(0);
    umask(mask);
    std::set<int> patterns;
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(name, m, std::regex(R"((\d)_(\d+)_\d+)")));
        ++files;
        patterns.insert(std::stoi(m[1]));
        struct stat st {};
        ASSERT_EQ(stat(entry.path().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0666u & ~static_cast<unsigned>(mask));
        const std::string data = slurp(entry.path());
        ASSERT_EQ(data.size(), std::stoul(m[2]));
        size_t bad = 0;
        EXPECT_TRUE(holds_pattern(data.data(), data.size(), std::stoi(m[1]), &bad)) << "byte " << bad;
    }
    EXPECT_EQ(files, 190);
    EXPECT_EQ(patterns.size(), 10u);
}

// Without pattern blocks (their allocation failed at the first pattern_init) a writer has
// nothing to fill its buffer from: it fails instead of writing whatever the buffer held.
TEST(RandomFinishGroupFile, MissingPatternBlockFailsWithoutWritingTheFile) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("file_pattern");
    init_quietly(dir, 0);
    g_cur_group_num.store(1);  // case 0's 4096-byte files only
    uint8_t *blocks[std::size(g_file_units)];
    for (size_t i = 0; i < std::size(g_file_units); ++i) blocks[i] = std::exchange(g_file_units[i].buf, nullptr);
    SpinLock lock;
    uint64_t bytes = 0;
    int32_t result = -1;
    const std::string out = capture([&] { result = random_finish_group_file(&lock.lock, dir.c_str(), &bytes); });
    for (size_t i = 0; i < std::size(g_file_units); ++i) g_file_units[i].buf = blocks[i];

    EXPECT_EQ(result, 1);
    EXPECT_EQ(bytes, 0u);
    EXPECT_TRUE(matches(out, kInvalidPointer)) << out;
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        ++files;
        EXPECT_EQ(std::filesystem::file_size(entry.path()), 0u) << entry.path();
    }
    EXPECT_EQ(files, 1);
}

}  // namespace
