// The storage filler: the main aging test (test id 6).
#pragma once

#include <cstdint>

#include "flashaging/framework.h"

inline constexpr int32_t WDT_TIMEOUT_CODE = 0x4321;

struct filler {
    uint32_t group_id;
    int32_t output;  // 0 ended normally, 1 failure, WDT_TIMEOUT_CODE watchdog end
};

flash_test *storage_filler_init();
int storage_filler_run(flash_test *self);
test_result *storage_filler_get_results(flash_test *self, uint32_t *count);
int storage_filler_destroy(flash_test *self);

void *fill_fn(void *rec);          // filler *
void *read_disturb_fn(void *rec);  // filler *
