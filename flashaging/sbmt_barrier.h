// The writers' barrier (gives up after 10 s, no generation counter) and the stop test.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct sbmt_barrier {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    uint32_t threshold;
    uint32_t arrived;
};

int sbmt_barrier_init(sbmt_barrier *b, uint32_t count);  // 1 ok, 0 failed
int sbmt_barrier_wait(sbmt_barrier *b);                  // 0 released, -1 failed or timed out
int sbmt_barrier_destroy(sbmt_barrier *b);               // 1 ok, 0 failed

// The storage filler's workers' stop flag; bit 0 is tested.
extern std::atomic<uint8_t> g_filler_stop;

int should_stop_now();  // 1 when the watchdog said test over or the workers were told to stop
