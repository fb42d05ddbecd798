// The engine's process-wide life: nothing is current before the first pattern_init, the
// blocks are built once, and once freed they stay freed. One sequence in its own program,
// since every step leaves the process changed for good.
#include <gtest/gtest.h>

#include <pthread.h>

#include <string>

#include "flashaging/pattern.h"
#include "unit_support.h"

using namespace ut;

namespace {

TEST(PatternEngineLifecycle, NothingBeforeFirstInitBlocksBuiltOnceAndFreedForGood) {
    ASSERT_FALSE(g_pattern_inited);
    for (const file_unit &u : g_file_units) EXPECT_EQ(u.buf, nullptr);
    EXPECT_EQ(g_cur_group_num.load(), 0);

    // The group counts arrive with the first pattern_init, so a case chosen before it is empty.
    init_file_group(0);
    EXPECT_EQ(g_cur_group_num.load(), 0);
    EXPECT_EQ(g_group_size.load(), 0);
    EXPECT_EQ(random_get_file_desc(3), nullptr);
    pthread_spinlock_t lock;
    pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
    uint64_t bytes = 0;
    ScratchDir tmp;
    EXPECT_EQ(random_finish_group_file(&lock, tmp.path().c_str(), &bytes), 2);
    EXPECT_EQ(g_file_seq, 0u);

    const std::string dir = tmp.sub("p");
    std::string out = capture([&] { pattern_init(dir.c_str(), 0); });
    EXPECT_TRUE(g_pattern_inited);
    EXPECT_EQ(g_group_size.load(), 149696512);
    uint8_t *blocks[10];
    for (int i = 0; i < 10; ++i) {
        blocks[i] = g_file_units[i].buf;
        ASSERT_NE(blocks[i], nullptr) << i;
    }
    EXPECT_EQ(out.find("malloc fail"), std::string::npos);

    // Now the file is chosen and written.
    EXPECT_EQ(random_finish_group_file(&lock, dir.c_str(), &bytes), 0);
    EXPECT_EQ(g_file_seq, 1u);

    capture([&] { pattern_init(dir.c_str(), 1); });
    for (int i = 0; i < 10; ++i) EXPECT_EQ(g_file_units[i].buf, blocks[i]) << "built once: " << i;
    file_unit_free();
    for (const file_unit &u : g_file_units) EXPECT_EQ(u.buf, nullptr);
    EXPECT_TRUE(g_pattern_inited);
    file_unit_free();  // a second release finds nothing to free

    // Not rebuilt: the storage filler frees the blocks only at its very end.
    out = capture([&] { pattern_init(dir.c_str(), 2); });
    for (const file_unit &u : g_file_units) EXPECT_EQ(u.buf, nullptr);
    EXPECT_EQ(g_cur_group_num.load(), 1);
    EXPECT_EQ(g_group_size.load(), 268435456);
    pthread_spin_destroy(&lock);
}

}  // namespace
