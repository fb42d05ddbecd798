// Storage health counters read through the device's health tool, and their judgement.
#pragma once

#include <cstdint>

struct healthinfo_entry {
    const char *key;
    uint32_t value;
};

// Entries in the fixed order: readReclaim, badBlockRuntime, TBW, eraseCacheCntAvg,
// eraseXLCCntAvg. Callers clear the record before a reading.
struct healthinfo {
    healthinfo_entry entry[5];
};

enum healthinfo_index : int {
    HI_READ_RECLAIM = 0,
    HI_BAD_BLOCK_RUNTIME = 1,
    HI_TBW = 2,
    HI_ERASE_CACHE_CNT_AVG = 3,
    HI_ERASE_XLC_CNT_AVG = 4,
};

unsigned healthinfo_get(healthinfo *info);          // 0 read, 1 failed
int healthinfo_judge(const healthinfo *before);     // 0 within limits, 1 exceeded
uint32_t pe_cycle_get();                            // eraseXLCCntAvg, or all ones
int pe_cycle_check();                               // 1 too worn to run, 0 go on
