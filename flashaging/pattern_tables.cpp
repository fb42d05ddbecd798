// The ten data patterns, the three file mixes and the engine's process-wide state:
// building the pattern blocks, laying out the pattern directory and starting a pass.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "flashaging/device_paths.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "flashaging/signal_hold.h"

namespace {

// ---- data patterns (bytes in memory and disk order) ---------------------------------------

constexpr uint8_t kPattern0[8] = {0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55};
constexpr uint8_t kPattern1[8] = {0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00};
constexpr uint8_t kPattern2[8] = {0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF};
constexpr uint8_t kPattern3[8] = {0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33};
constexpr uint8_t kPattern4[8] = {0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10};
constexpr uint8_t kPattern5[8] = {0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF};
constexpr uint8_t kPattern6[8] = {0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55};

// 8-byte patterns 0, 1, 2, 0, 3, 4, 5, 6.
constexpr uint8_t kPattern7[64] = {
    0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55,  // 0
    0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00,  // 1
    0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF,  // 2
    0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55,  // 0
    0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33,  // 3
    0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10,  // 4
    0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF,  // 5
    0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55,  // 6
};

// 8-byte patterns 0, 6, 5, 4, 3, 2, 1, 0.
constexpr uint8_t kPattern8[64] = {
    0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55,  // 0
    0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55,  // 6
    0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF,  // 5
    0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10,  // 4
    0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33,  // 3
    0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF,  // 2
    0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00,  // 1
    0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55,  // 0
};

// 8-byte patterns 0, 2, 4, 5, 0, 5, 3, 1.
constexpr uint8_t kPattern9[64] = {
    0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55,  // 0
    0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF,  // 2
    0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10,  // 4
    0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF,  // 5
    0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55,  // 0
    0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF,  // 5
    0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33,  // 3
    0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00,  // 1
};

constexpr int32_t kBlockSize = 4096;

// ---- file mixes ----------------------------------------------------------------------------

// A desc as the static table holds it: nothing left, no unit until a pass starts.
constexpr file_desc D(uint8_t pattern_id, int32_t file_num, int32_t file_size) {
    return file_desc{pattern_id, file_num, 0, file_size, nullptr};
}

#define GROUP(descs) file_group{static_cast<int32_t>(std::size(descs)), descs}

// Case 0: 10 groups, 190 files, 149,696,512 bytes per pass.
file_desc c0_g0[] = {D(0, 4, 4096), D(1, 5, 4096), D(2, 4, 4096), D(3, 2, 4096), D(4, 2, 4096),
                     D(5, 2, 4096), D(6, 2, 4096), D(7, 2, 4096), D(8, 2, 4096), D(9, 2, 4096)};
file_desc c0_g1[] = {D(0, 5, 16384), D(1, 5, 16384), D(2, 5, 16384), D(3, 5, 16384), D(4, 5, 16384),
                     D(5, 5, 16384), D(6, 5, 16384), D(7, 5, 16384), D(8, 5, 16384), D(9, 5, 16384)};
file_desc c0_g2[] = {D(0, 5, 32768), D(1, 2, 32768), D(2, 5, 32768), D(3, 2, 32768), D(4, 3, 32768),
                     D(5, 3, 32768), D(6, 5, 32768), D(7, 5, 32768), D(8, 5, 32768), D(9, 5, 32768)};
file_desc c0_g3[] = {D(0, 3, 196608), D(1, 2, 196608), D(2, 3, 196608), D(3, 2, 196608),
                     D(4, 3, 196608), D(5, 3, 196608), D(6, 3, 196608), D(7, 5, 196608),
                     D(8, 3, 196608), D(9, 3, 196608)};
file_desc c0_g4[] = {D(0, 2, 262144), D(1, 2, 262144), D(2, 2, 262144), D(3, 2, 262144),
                     D(4, 2, 262144), D(5, 2, 262144), D(6, 2, 262144), D(7, 2, 262144),
                     D(8, 2, 262144), D(9, 2, 262144)};
file_desc c0_g5[] = {D(0, 1, 524288), D(1, 1, 524288), D(2, 1, 524288), D(3, 1, 524288),
                     D(4, 1, 524288), D(5, 1, 524288), D(6, 1, 524288), D(7, 1, 524288),
                     D(8, 1, 524288), D(9, 1, 524288)};
file_desc c0_g6[] = {D(0, 1, 1048576), D(4, 1, 1048576), D(7, 1, 1048576), D(8, 1, 1048576),
                     D(9, 1, 1048576)};
file_desc c0_g7[] = {D(7, 1, 8388608), D(8, 1, 8388608), D(9, 1, 8388608)};
file_desc c0_g8[] = {D(7, 2, 16777216), D(8, 2, 16777216)};
file_desc c0_g9[] = {D(7, 1, 33554432)};

file_group c0_groups[] = {GROUP(c0_g0), GROUP(c0_g1), GROUP(c0_g2), GROUP(c0_g3), GROUP(c0_g4),
                          GROUP(c0_g5), GROUP(c0_g6), GROUP(c0_g7), GROUP(c0_g8), GROUP(c0_g9)};

// Case 1: 10 groups, 44 files, 242,159,616 bytes per pass.
file_desc c1_g0[] = {D(0, 1, 4096), D(2, 1, 4096), D(4, 1, 4096), D(5, 1, 4096), D(7, 1, 4096)};
file_desc c1_g1[] = {D(0, 1, 16384), D(2, 1, 16384), D(4, 1, 16384), D(5, 1, 16384), D(7, 1, 16384)};
file_desc c1_g2[] = {D(0, 1, 32768), D(2, 1, 32768), D(4, 1, 32768), D(5, 1, 32768), D(7, 1, 32768)};
file_desc c1_g3[] = {D(0, 1, 196608), D(2, 1, 196608), D(4, 1, 196608), D(5, 1, 196608),
                     D(7, 1, 196608)};
file_desc c1_g4[] = {D(0, 1, 262144), D(2, 1, 262144), D(4, 1, 262144), D(5, 1, 262144),
                     D(7, 1, 262144)};
file_desc c1_g5[] = {D(0, 1, 524288), D(2, 1, 524288), D(4, 1, 524288), D(5, 1, 524288),
                     D(7, 1, 524288)};
file_desc c1_g6[] = {D(0, 1, 1048576), D(7, 1, 1048576)};
file_desc c1_g7[] = {D(7, 4, 8388608)};
file_desc c1_g8[] = {D(7, 4, 16777216)};
file_desc c1_g9[] = {D(7, 4, 33554432)};

file_group c1_groups[] = {GROUP(c1_g0), GROUP(c1_g1), GROUP(c1_g2), GROUP(c1_g3), GROUP(c1_g4),
                          GROUP(c1_g5), GROUP(c1_g6), GROUP(c1_g7), GROUP(c1_g8), GROUP(c1_g9)};

// Case 2: 1 group, 8 files, 268,435,456 bytes per pass.
file_desc c2_g0[] = {D(7, 8, 33554432)};

file_group c2_groups[] = {GROUP(c2_g0)};

#undef GROUP

// Group counts, filled into the cases by the first pattern_init.
constexpr int32_t kCaseGroupNum[3] = {static_cast<int32_t>(std::size(c0_groups)),
                                      static_cast<int32_t>(std::size(c1_groups)),
                                      static_cast<int32_t>(std::size(c2_groups))};

}  // namespace

// ---- engine state ----------------------------------------------------------------------------

file_unit g_file_units[10] = {
    {nullptr, 8, kPattern0},  {nullptr, 8, kPattern1},  {nullptr, 8, kPattern2},
    {nullptr, 8, kPattern3},  {nullptr, 8, kPattern4},  {nullptr, 8, kPattern5},
    {nullptr, 8, kPattern6},  {nullptr, 64, kPattern7}, {nullptr, 64, kPattern8},
    {nullptr, 64, kPattern9},
};

file_case g_file_cases[3] = {
    {0, 0, c0_groups},
    {1, 0, c1_groups},
    {2, 0, c2_groups},
};

std::atomic<file_group *> g_cur_groups{nullptr};
std::atomic<int32_t> g_cur_group_num{0};
std::atomic<int64_t> g_group_size{0};
uint32_t g_file_seq = 0;
bool g_pattern_inited = false;

// ---- operations ------------------------------------------------------------------------------

void pattern_init(const char *dir, uint32_t case_id) {
    if (!g_pattern_inited) {
        for (file_unit &unit : g_file_units) {
            auto *block = static_cast<uint8_t *>(held_malloc(kBlockSize));
            if (block == nullptr) {
                // One shot: the blocks that could not be made stay empty for the process.
                flash_printf("%s line %d malloc fail\n", paths::kPatternSourcePath, __LINE__);
                break;
            }
            const int32_t copies = kBlockSize / unit.len;
            for (int32_t i = 0; i < copies; ++i)
                memcpy(block + static_cast<size_t>(i) * static_cast<size_t>(unit.len), unit.pattern,
                       static_cast<size_t>(unit.len));
            unit.buf = block;
        }
        for (int c = 0; c < 3; ++c) g_file_cases[c].group_num = kCaseGroupNum[c];
        g_pattern_inited = true;
    }

    const bool exists = access(dir, F_OK) == 0;
    if (!exists) {
        FLOG("pattern_init", "INFO", "%s not exist\n", dir);
    } else {
        FLOG("pattern_init", "INFO", "begin to delete the %s\n", dir);
        char cmd[kPatternNameLen] = {};
        snprintf(cmd, sizeof cmd, "rm -rf %s", dir);
        int rc = held_system(cmd);  // a failed removal shows up later as open failures
        (void)rc;
        FLOG("pattern_init", "INFO", "finished delete the %s\n", dir);
    }
    // Owner read and write only, no search bit: the writers run as root.
    mkdir(dir, 0600);
    g_file_seq = 0;
    init_file_group(case_id);
    pattern_shared_buffers_lay_down(case_id);
}

void init_file_group(uint32_t case_id) {
    if (case_id >= 3) {
        flash_printf("erro case id %d\n", static_cast<int>(case_id));
        return;
    }
    file_case &fc = g_file_cases[case_id];
    g_cur_group_num.store(fc.group_num, std::memory_order_relaxed);
    g_cur_groups.store(fc.groups, std::memory_order_relaxed);

    // Every writer restarts the pass after the barrier; the size is summed locally and
    // stored once so no reader ever sees a partial sum.
    int64_t size = 0;
    for (int32_t g = 0; g < fc.group_num; ++g) {
        file_group &group = fc.groups[g];
        if (group.desc_num < 1) continue;
        for (int32_t i = 0; i < group.desc_num; ++i) {
            file_desc &desc = group.descs[i];
            desc.left_num.store(desc.file_num, std::memory_order_relaxed);
            // The unit of a desc never changes; it is written only the first time, so the
            // writers that restart the pass together only read it.
            file_unit *unit = &g_file_units[desc.pattern_id];
            if (desc.unit != unit) desc.unit = unit;
            size += static_cast<int64_t>(desc.file_size) * static_cast<int64_t>(desc.file_num);
        }
    }
    g_group_size.store(size, std::memory_order_relaxed);
    held_srand(static_cast<unsigned>(time(nullptr)));
}

void file_unit_free() {
    pattern_shared_buffers_free();
    for (file_unit &unit : g_file_units) {
        if (unit.buf != nullptr) {
            held_free(unit.buf);
            unit.buf = nullptr;
        }
    }
}

int system_rm_file(const char *path) {
    char cmd[kPatternNameLen] = {};
    snprintf(cmd, sizeof cmd, "rm -rf %s", path);
    return held_system(cmd);
}
