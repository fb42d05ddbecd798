// The storage filler: the main aging test (test id 6).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "flashaging/framework.h"
#include "flashaging/healthinfo.h"
#include "flashaging/sbmt_barrier.h"

inline constexpr int32_t WDT_TIMEOUT_CODE = 0x4321;

struct filler {
    uint32_t group_id;
    // 0 ended normally, 1 failure, WDT_TIMEOUT_CODE watchdog end. Written by its own thread;
    // read by the cycle after the joins, or while the threads still run when a start failed.
    std::atomic<int32_t> output;
    // The buffers the thread works with while it has them (a reader's two, a writer's own
    // pattern buffer): a thread that the abnormal-end handler ended leaves them here, and the
    // cycle frees them after the join.
    void *kept[2] = {};
};

flash_test *storage_filler_init();
int storage_filler_run(flash_test *self);
test_result *storage_filler_get_results(flash_test *self, uint32_t *count);
int storage_filler_destroy(flash_test *self);

void *fill_fn(void *rec);          // filler *
void *read_disturb_fn(void *rec);  // filler *

// ---- shared state of one fill cycle ------------------------------------------------------

extern pthread_spinlock_t g_filler_lock;  // the writers' choice of the next file
extern sbmt_barrier g_filler_barrier;     // the eight writers meet here after each pass

// ---- the pieces of a cycle, callable on their own ----------------------------------------

inline constexpr int kFillerWriters = 8;
inline constexpr int kFillerReaders = 4;
inline constexpr int kBatteryHotLimit = 490;  // tenths of a degree: 49.0 C

// True when a writer must stop: free <= margin or free - margin <= reserve (unsigned).
bool filler_space_reached(uint64_t free_bytes, uint64_t margin, uint64_t reserve);

// Free bytes (free blocks x block size, as the superuser sees them) of the file system that
// holds `path`; all ones after a failed statfs, which is logged.
uint64_t filler_free_space(const char *path);

// The writer's loop over passes of the current file group: writes pattern files into `dir`
// until the reserve is reached on the file system of `space_path`, a write fails or a stop
// is requested. Stores the result in rec->output and raises g_filler_stop on its way out.
void filler_write_files(filler *rec, const char *dir, const char *space_path);

// Waits while the battery is hot: reads the temperature, and while it is above 490 sleeps
// 10 s at a time, logging every tenth sleep. Returns the number of sleeps.
int filler_wait_battery(int (*read_temp)(), void (*sleep_seconds)(unsigned));

// How a cycle starts a worker thread (pthread_create's shape).
using filler_thread_start = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

// One fill of the current group: eight writers and four readers started, joined and
// scanned. Returns the fill result (0, a thread start/join error number, or the first
// nonzero thread output). When a start fails, the outputs are taken as they stand at that
// moment; the threads already started are then stopped and joined.
int32_t filler_run_workers(uint32_t group, filler_thread_start start = pthread_create);

// What a cycle calls after its fill.
struct filler_cycle_steps {
    int (*benchmark)();
    int (*judge)(const healthinfo *before);
};

// Decides on a cycle's fill result, runs the benchmark and the cycle's health judgement.
// Returns true when the test must end now; *result holds the run's result either way.
bool filler_cycle_end(int cycle, int32_t fill_result, int go_on, const healthinfo *cycle_rec,
                      const filler_cycle_steps &steps, int32_t *result);

// The test's status byte for the run's result: 1 for 0 and for a watchdog end, else 0.
uint8_t filler_verdict(int32_t result);
