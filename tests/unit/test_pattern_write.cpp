// Doubling fill, the two random walks and the direct-I/O pattern files on disk.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
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
#include "flashaging/sbmt_barrier.h"
#include "test_pattern_support.h"

using namespace pattern_test;

namespace {

void init_quietly(const std::string &dir, uint32_t case_id) {
    capture_stdout([&] { pattern_init(dir.c_str(), case_id); });
}

class SpinLock {
  public:
    SpinLock() { pthread_spin_init(&lock_, PTHREAD_PROCESS_PRIVATE); }
    ~SpinLock() { pthread_spin_destroy(&lock_); }
    pthread_spinlock_t *get() { return &lock_; }

  private:
    pthread_spinlock_t lock_;
};

// The desc of the current case with the given pattern and size.
file_desc *find_desc(int pattern, int size) {
    file_group *groups = g_cur_groups.load();
    for (int32_t g = 0; g < g_cur_group_num.load(); ++g)
        for (int32_t i = 0; i < groups[g].desc_num; ++i)
            if (groups[g].descs[i].pattern_id == pattern && groups[g].descs[i].file_size == size)
                return &groups[g].descs[i];
    return nullptr;
}

std::vector<pattern_fill_step> steps_of(const pattern_fill_trace &t) {
    return std::vector<pattern_fill_step>(t.steps, t.steps + t.count);
}

// ---- doubling fill -----------------------------------------------------------------------------

struct FillCase {
    int32_t size;
    std::vector<pattern_fill_step> steps;
};

TEST(DoublingFill, CopiesDoubleThenTheRemainder) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    std::vector<pattern_fill_step> four_mib = {{0, 4096}};
    for (int32_t n = 4096; n <= 2097152; n *= 2) four_mib.push_back({n, n});
    const FillCase cases[] = {
        {4096, {{0, 4096}}},
        {8192, {{0, 4096}, {4096, 4096}}},
        {196608, {{0, 4096}, {4096, 4096}, {8192, 8192}, {16384, 16384}, {32768, 32768}, {65536, 65536},
                  {131072, 65536}}},
        {12288, {{0, 4096}, {4096, 4096}, {8192, 4096}}},
        {4194304, four_mib},
    };
    for (const FillCase &fc : cases) {
        for (int id : {0, 6, 7, 9}) {
            SCOPED_TRACE("size " + std::to_string(fc.size) + " pattern " + std::to_string(id));
            // A guard area past the end must stay untouched.
            std::vector<uint8_t> buf(static_cast<size_t>(fc.size) + 8192, 0xC5);
            pattern_fill_trace trace;
            pattern_fill(&g_file_units[id], buf.data(), fc.size, &trace);
            EXPECT_EQ(steps_of(trace), fc.steps);
            size_t bad = 0;
            EXPECT_TRUE(holds_pattern(buf.data(), static_cast<size_t>(fc.size), id, &bad)) << "byte " << bad;
            for (size_t k = static_cast<size_t>(fc.size); k < buf.size(); ++k)
                ASSERT_EQ(buf[k], 0xC5) << "written past the end at " << k;
        }
    }
}

TEST(DoublingFill, UnitBufferUsesTheDescPattern) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    file_desc *desc = find_desc(4, 196608);
    ASSERT_NE(desc, nullptr);
    std::vector<uint8_t> buf(196608);
    EXPECT_EQ(capture_stdout([&] { fill_unit_buffer(desc, buf.data(), 196608); }), "");
    EXPECT_TRUE(holds_pattern(buf.data(), buf.size(), 4));
}

TEST(DoublingFill, NullPointersAreReportedAndNothingIsWritten) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    const std::regex shape(R"(factory/agingtest/flashaging/pattern line \d+ invalid pointer\n)");
    std::vector<uint8_t> buf(8192, 0x3C);
    std::string out = capture_stdout([&] { fill_unit_buffer(nullptr, buf.data(), 8192); });
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
    for (uint8_t b : buf) ASSERT_EQ(b, 0x3C);

    out = capture_stdout([&] { fill_unit_buffer(find_desc(7, 4096), nullptr, 4096); });
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

// ---- random_get_file_desc ----------------------------------------------------------------------

TEST(RandomGetFileDesc, AlwaysLandsOnTheLastGroupsPattern7Desc) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    srand(12345);
    for (uint32_t c = 0; c < 3; ++c) {
        SCOPED_TRACE(c);
        init_file_group(c);
        file_group *groups = g_cur_groups.load();
        file_desc *last = &groups[g_cur_group_num.load() - 1].descs[0];
        std::vector<int32_t> draws = {0, 1, 7, 27, 100, 189, 190, 191, 43, 44, 12345, RAND_MAX};
        for (int i = 0; i < 50; ++i) draws.push_back(rand());
        for (int32_t r : draws) {
            file_desc *d = random_get_file_desc(r);
            ASSERT_EQ(d, last) << "r " << r;
            EXPECT_EQ(d->pattern_id, 7);
            EXPECT_EQ(d->file_size, 33554432);
        }
        // Only a look: nothing is handed out.
        EXPECT_EQ(last->left_num.load(), last->file_num);
    }
}

TEST(RandomGetFileDesc, NoCaseCurrentGivesNull) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    const int32_t saved = g_cur_group_num.load();
    g_cur_group_num.store(0);
    EXPECT_EQ(random_get_file_desc(5), nullptr);
    std::vector<uint8_t> buf(4096, 0x11);
    const std::string out = capture_stdout([&] { fill_unit_buffer(random_get_file_desc(rand()), buf.data(), 4096); });
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(factory/agingtest/flashaging/pattern line \d+ invalid pointer\n)")))
        << out;
    for (uint8_t b : buf) ASSERT_EQ(b, 0x11);
    g_cur_group_num.store(saved);
}

// ---- random_finish_group_file: the choice ------------------------------------------------------

struct OpenFailure {
    std::string name;
    int err;
};

// The open-failure lines in out. With one writer the output must be nothing but whole lines;
// with several, a prefix and its body may be split by another thread's line, so only the
// bodies are counted.
std::vector<OpenFailure> open_failures(const std::string &out, bool one_writer = true) {
    static const std::regex line(
        R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:random_finish_group_file:\d+ open (\S+) failed (\d+)\n)");
    static const std::regex body(R"(\[FLASH\]INFO:random_finish_group_file:\d+ open (\S+) failed (\d+)\n)");
    std::vector<OpenFailure> found;
    size_t consumed = 0;
    const std::regex &form = one_writer ? line : body;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), form); it != std::sregex_iterator(); ++it) {
        if (one_writer) {
            EXPECT_EQ(static_cast<size_t>(it->position()), consumed) << "stray output";
        }
        consumed = static_cast<size_t>(it->position() + it->length());
        found.push_back({(*it)[1], std::stoi((*it)[2])});
    }
    if (one_writer) {
        EXPECT_EQ(consumed, out.size()) << "stray output";
    }
    return found;
}

// Each file the pass owes is handed out exactly once, whatever becomes of it afterwards: a
// directory that does not exist makes every open fail, so the choice is counted without I/O.
TEST(RandomFinishGroupFile, PassHandsOutExactlyTheTableThenEnds) {
    for (uint32_t c = 0; c < 3; ++c) {
        SCOPED_TRACE("case " + std::to_string(c));
        ScratchDir tmp;
        init_quietly(tmp.path(), c);
        const std::string missing = tmp.sub("missing");
        const int files = expected_file_count(static_cast<int>(c));
        SpinLock lock;
        uint64_t bytes = 0;

        std::vector<int32_t> results;
        const std::string out = capture_stdout([&] {
            for (int i = 0; i < files; ++i)
                results.push_back(random_finish_group_file(lock.get(), missing.c_str(), &bytes));
        });
        for (int32_t r : results) ASSERT_EQ(r, 1);
        const std::vector<OpenFailure> fails = open_failures(out);
        ASSERT_EQ(fails.size(), static_cast<size_t>(files));

        std::map<std::pair<int, int>, int> handed_out;
        const std::regex name_form(re_escape(missing) + R"((\d+)_(\d+)_(\d+))");
        for (size_t i = 0; i < fails.size(); ++i) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(fails[i].name, m, name_form)) << fails[i].name;
            EXPECT_EQ(fails[i].err, ENOENT);
            EXPECT_EQ(std::stoul(m[3]), i + 1) << "sequence numbers start at 1 and rise by one";
            ++handed_out[{std::stoi(m[1]), std::stoi(m[2])}];
        }
        for (const ExpGroup &g : expected_case(static_cast<int>(c)))
            for (const ExpDesc &d : g.descs)
                EXPECT_EQ((handed_out[{d.pattern, g.file_size}]), d.files)
                    << "pattern " << d.pattern << " size " << g.file_size;
        EXPECT_EQ(bytes, 0u);

        // The pass is over: no file, no number used.
        std::string more = capture_stdout([&] { EXPECT_EQ(random_finish_group_file(lock.get(), missing.c_str(), &bytes), 2); });
        EXPECT_EQ(more, "");
        EXPECT_EQ(g_file_seq, static_cast<uint32_t>(files));

        // A new pass goes on with the numbers.
        init_file_group(c);
        more = capture_stdout([&] { EXPECT_EQ(random_finish_group_file(lock.get(), missing.c_str(), &bytes), 1); });
        const std::vector<OpenFailure> next = open_failures(more);
        ASSERT_EQ(next.size(), 1u);
        EXPECT_TRUE(next[0].name.ends_with("_" + std::to_string(files + 1))) << next[0].name;
    }
}

TEST(RandomFinishGroupFile, NoCaseCurrentEndsThePassAtOnce) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 0);
    const int32_t saved = g_cur_group_num.load();
    g_cur_group_num.store(0);
    SpinLock lock;
    uint64_t bytes = 0;
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(random_finish_group_file(lock.get(), tmp.path().c_str(), &bytes), 2); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(g_file_seq, 0u);
    g_cur_group_num.store(saved);
}

TEST(RandomFinishGroupFile, FileNameIsCutAt63Characters) {
    ScratchDir tmp;
    ASSERT_LT(tmp.path().size(), 60u);
    init_quietly(tmp.path(), 2);
    const std::string missing = tmp.path() + std::string(60 - tmp.path().size(), 'n') + "/";
    ASSERT_EQ(missing.size(), 61u);
    SpinLock lock;
    uint64_t bytes = 0;
    const std::string out = capture_stdout([&] { random_finish_group_file(lock.get(), missing.c_str(), &bytes); });
    const std::vector<OpenFailure> fails = open_failures(out);
    ASSERT_EQ(fails.size(), 1u);
    EXPECT_EQ(fails[0].name, (missing + "7_33554432_1").substr(0, 63));
}

// ---- random_finish_group_file: the files on disk -----------------------------------------------

TEST(RandomFinishGroupFile, OnePassOfCase0WritesEveryFileWithItsPattern) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("file_pattern");
    init_quietly(dir, 0);
    SpinLock lock;
    uint64_t bytes = 0;
    const std::string out = capture_stdout([&] {
        for (int i = 0; i < 190; ++i) ASSERT_EQ(random_finish_group_file(lock.get(), dir.c_str(), &bytes), 0) << i;
        EXPECT_EQ(random_finish_group_file(lock.get(), dir.c_str(), &bytes), 2);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(bytes, 149696512u);

    const mode_t mask = umask(0);
    umask(mask);
    std::map<std::pair<int, int>, int> on_disk;
    std::set<unsigned long> seqs;
    const std::regex name_form(R"((\d)_(\d+)_(\d+))");
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        std::smatch m;
        ASSERT_TRUE(std::regex_match(name, m, name_form)) << name;
        const int id = std::stoi(m[1]);
        const size_t size = std::stoul(m[2]);
        seqs.insert(std::stoul(m[3]));
        ++on_disk[{id, static_cast<int>(size)}];

        SCOPED_TRACE(name);
        struct stat st {};
        ASSERT_EQ(stat(entry.path().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0666u & ~static_cast<unsigned>(mask));
        const std::vector<uint8_t> data = read_whole(entry.path());
        ASSERT_EQ(data.size(), size);
        size_t bad = 0;
        EXPECT_TRUE(holds_pattern(data.data(), data.size(), id, &bad)) << "byte " << bad;
    }
    EXPECT_EQ(seqs.size(), 190u);
    EXPECT_EQ(*seqs.begin(), 1u);
    EXPECT_EQ(*seqs.rbegin(), 190u);
    for (const ExpGroup &g : expected_case(0))
        for (const ExpDesc &d : g.descs)
            EXPECT_EQ((on_disk[{d.pattern, g.file_size}]), d.files) << "pattern " << d.pattern << " size " << g.file_size;
}

// Eight writers at once: every file is handed out once and numbered once.
TEST(RandomFinishGroupFile, ConcurrentWritersShareOnePass) {
    ScratchDir tmp;
    const std::string dir = tmp.sub("p");
    init_quietly(dir, 1);
    const std::string missing = tmp.sub("missing");
    SpinLock lock;
    struct Writer {
        pthread_t th;
        pthread_spinlock_t *lock;
        const std::string *dir;
        uint64_t bytes = 0;
        int calls = 0;
        int last = 0;
    };
    Writer writers[8];
    std::string out = capture_stdout([&] {
        for (Writer &w : writers) {
            w.lock = lock.get();
            w.dir = &missing;
            pthread_create(
                &w.th, nullptr,
                [](void *arg) -> void * {
                    auto *w = static_cast<Writer *>(arg);
                    int r;
                    while ((r = random_finish_group_file(w->lock, w->dir->c_str(), &w->bytes)) == 1) ++w->calls;
                    w->last = r;
                    return nullptr;
                },
                &w);
        }
        for (Writer &w : writers) pthread_join(w.th, nullptr);
    });
    int calls = 0;
    for (const Writer &w : writers) {
        calls += w.calls;
        EXPECT_EQ(w.last, 2);
    }
    EXPECT_EQ(calls, 44);
    EXPECT_EQ(g_file_seq, 44u);
    const std::vector<OpenFailure> fails = open_failures(out, false);
    ASSERT_EQ(fails.size(), 44u);
    std::set<std::string> names;
    for (const OpenFailure &f : fails) names.insert(f.name);
    EXPECT_EQ(names.size(), 44u);
}

// As in the storage filler: eight writers meet at the barrier after each pass and every one of
// them restarts the pass itself, while a reader looks at the counts without the lock.
TEST(RandomFinishGroupFile, WritersRestartingPassesTogetherWithAReaderLooking) {
    ScratchDir tmp;
    init_quietly(tmp.path(), 1);
    const std::string missing = tmp.sub("missing");
    SpinLock lock;
    sbmt_barrier barrier;
    ASSERT_EQ(sbmt_barrier_init(&barrier, 8), 1);
    std::atomic<int> writers_left{8};
    std::atomic<int> barrier_failures{0};
    int64_t seen_size = 0;
    file_desc *seen_desc = nullptr;

    const std::string out = capture_stdout([&] {
        std::vector<std::thread> threads;
        for (int w = 0; w < 8; ++w)
            threads.emplace_back([&] {
                uint64_t bytes = 0;
                for (int passes = 0;;) {
                    if (random_finish_group_file(lock.get(), missing.c_str(), &bytes) != 2) continue;
                    if (++passes == 3) break;
                    if (sbmt_barrier_wait(&barrier) != 0) ++barrier_failures;
                    init_file_group(1);
                }
                --writers_left;
            });
        threads.emplace_back([&] {
            while (writers_left.load() > 0) {
                seen_desc = random_get_file_desc(rand());
                seen_size = g_group_size.load();
                file_group *groups = g_cur_groups.load();
                for (int32_t g = 0; g < g_cur_group_num.load(); ++g)
                    for (int32_t i = 0; i < groups[g].desc_num; ++i) EXPECT_GE(groups[g].descs[i].left_num.load(), 0);
            }
        });
        for (std::thread &t : threads) t.join();
    });
    EXPECT_EQ(barrier_failures.load(), 0);
    EXPECT_EQ(seen_size, 242159616);
    ASSERT_NE(seen_desc, nullptr);
    EXPECT_EQ(seen_desc->file_size, 33554432);
    // Each restart refills the counts, so at least three passes' worth of files were named.
    EXPECT_GE(open_failures(out, false).size(), 3u * 44u);
    EXPECT_EQ(sbmt_barrier_destroy(&barrier), 1);
}

}  // namespace
