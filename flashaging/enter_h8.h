// The enter-H8 test (test id 5): one writer, a 4 KiB block every 3 s, 100 times.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "flashaging/framework.h"

flash_test *enter_h8_init();
int enter_h8_run(flash_test *self);
test_result *enter_h8_get_results(flash_test *self, uint32_t *count);
int enter_h8_destroy(flash_test *self);

void *enter_h8_write(void *ctx);

inline constexpr int kEnterH8Writes = 100;
inline constexpr useconds_t kEnterH8SleepUs = 3000000;

// The writer's work: (re)creates `dir`, then `count` times sleeps `sleep_us` and writes one
// 4096-byte block of 0x55 to `file` with direct I/O; removes `dir` at the end. `ctx` is the
// thread's argument, only printed when the file cannot be created.
void enter_h8_write_loop(const char *dir, const char *file, int count, useconds_t sleep_us,
                         void *ctx);
