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
    // The worker's transfer buffer while it has one: a worker that the abnormal-end handler
    // ended leaves it here, and the mode's thread frees it after the join.
    void *buf;
};

int benchmark_check();            // 0 passed or skipped, else the first failing worker's errno
void *benchmark_fn(void *worker);  // bench_worker *

// ---- the modes and their figures ---------------------------------------------------------

inline constexpr int kBenchModes = 4;
inline constexpr int kBenchWorkers = 8;
inline constexpr uint64_t kBenchMinFree = 0x20000000;  // 512 MiB

struct bench_mode {
    const char *name;     // "seq write", "seq read", "rand write", "rand read"; else "ERROR"
    bool sequential;      // modes 0 and 1
    bool write;           // modes 0 and 2
    int32_t size;         // bytes per transfer: 512 KiB sequential, 4 KiB random
    uint32_t count;       // transfers per mode: 1024 sequential, 16384 random
};

// The mode of index 0..3 (any other index is named "ERROR").
bench_mode bench_mode_of(int index);

// Byte offset of transfer n (sequential) or of the random draw r (random) in a mode.
uint64_t bench_offset(bool sequential, uint32_t n, int32_t r);

// Total bytes and elapsed seconds of a mode from its worker records: the sum of the bytes,
// and the latest end minus the earliest start in single precision.
void bench_totals(const bench_worker *workers, int n, uint64_t *total, float *elapsed);

// The transfer counter of the running mode: reset (with its lock) at each mode's start while
// no worker runs, and the number of transfers taken so far (printed as "file num").
void bench_reset_transfers();
uint32_t bench_transfers_taken();
