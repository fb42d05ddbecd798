// Throughput check of four access modes, eight workers each on one shared file.
#pragma once

#include <cstdint>

struct bench_worker {
    uint32_t index;
    int32_t fd;
    int32_t result;
    uint8_t sequential;
    uint8_t write;
    float start;
    float end;
    uint64_t bytes;
};

int benchmark_check();            // 0 passed or skipped, else the first failing worker's errno
void *benchmark_fn(void *worker);  // bench_worker *
