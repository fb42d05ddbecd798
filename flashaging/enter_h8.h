// The enter-H8 test (test id 5): one writer, a 4 KiB block every 3 s, 100 times.
#pragma once

#include <cstdint>

#include "flashaging/framework.h"

flash_test *enter_h8_init();
int enter_h8_run(flash_test *self);
test_result *enter_h8_get_results(flash_test *self, uint32_t *count);
int enter_h8_destroy(flash_test *self);

void *enter_h8_write(void *ctx);
