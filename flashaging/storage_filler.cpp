// The storage filler: fill cycles of eight pattern writers and four read-disturb readers,
// a benchmark and a health judgement after each fill, cycles counted by the device's own
// program/erase growth.
#include "flashaging/storage_filler.h"

#include <pthread.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "flashaging/benchmark.h"
#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/signal_hold.h"
#include "platform/aging_client.h"

pthread_spinlock_t g_filler_lock;
sbmt_barrier g_filler_barrier;

namespace {

flash_test g_storage_filler;

float seconds_since(const timespec &from) {
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return timediff(now.tv_sec, now.tv_nsec, from.tv_sec, from.tv_nsec);
}

// The watchdog's word; the settings record exists for the whole run of a test.
bool watchdog_test_over() {
    return g_args != nullptr && g_args->test_over.load(std::memory_order_relaxed) == 1;
}

int read_battery_temp() {
    // The daemon's client is a library whose locks this program cannot see.
    sigset_t saved;
    hold_caught_signals(&saved);
    const int temp = get_node_temp(paths::kBatteryTemp, 0);
    release_caught_signals(&saved);
    return temp;
}

void sleep_whole_seconds(unsigned seconds) {
    sleep(seconds);
}

}  // namespace

// ---- descriptor --------------------------------------------------------------------------

flash_test *storage_filler_init() {
    g_storage_filler.run = storage_filler_run;
    g_storage_filler.get_results = storage_filler_get_results;
    g_storage_filler.destroy = storage_filler_destroy;
    test_result &r = g_storage_filler.results[0];
    r.version = nullptr;
    r.description = "storage filler";
    r.test_id = 6;
    r.result_id = 1;
    r.units = nullptr;
    r.minimum = 0;
    r.maximum = 0;
    r.value = 0;
    r.stdev = 0;
    r.num_samples = 0;
    r.test_ran = 0;
    r.duration_sec = 0;
    r.status = 2;
    return &g_storage_filler;
}

test_result *storage_filler_get_results(flash_test *self, uint32_t *count) {
    *count = 1;
    return &self->results[0];
}

int storage_filler_destroy(flash_test * /*self*/) {
    FLOG_NP("storage_filler_destroy", "FATAL", "storage_filler goto destroy\n");
    system_rm_file(paths::kPatternDir);
    return system_rm_file(paths::kBenchmarkDir);
}

// ---- writers and readers -----------------------------------------------------------------

bool filler_space_reached(uint64_t free_bytes, uint64_t margin, uint64_t reserve) {
    return free_bytes <= margin || free_bytes - margin <= reserve;
}

uint64_t filler_free_space(const char *path) {
    struct statfs st {};
    if (statfs(path, &st) != 0) {
        FLOG("get_free_space", "INFO", "fail to get stat for FS\n");
        return ~uint64_t{0};
    }
    return static_cast<uint64_t>(st.f_bfree) * static_cast<uint64_t>(st.f_bsize);
}

void filler_write_files(filler *rec, const char *dir, const char *space_path) {
    // The writer stops at the reserve plus two passes' worth of room, so the benchmark and
    // the files still being written by the other writers have space.
    const uint64_t reserve = static_cast<uint64_t>(static_cast<int64_t>(left_space) << 20);
    uint64_t free_bytes = filler_free_space(space_path);
    const uint64_t margin =
        static_cast<uint64_t>(2 * g_group_size.load(std::memory_order_relaxed));

    int32_t runs = 0;
    int32_t ret = 0;
    uint64_t written = 0;
    timespec start {};
    clock_gettime(CLOCK_MONOTONIC, &start);

    if (!filler_space_reached(free_bytes, margin, reserve)) {
        int32_t status = 0;
        for (;;) {
            while (status == 0)
                status = random_finish_group_file(&g_filler_lock, dir, &written, &rec->kept[0]);
            if (status == 1) {
                ret = 1;
                break;
            }
            if (status == 2) {
                // Pass over (or disk full): wait for the other writers, then start a new
                // pass. Free space is measured again only here, after a whole pass.
                if (sbmt_barrier_wait(&g_filler_barrier) != 0) {
                    FLOG("fill_fn", "ERROR", "barrier wait failed\n");
                    ret = 0;
                    break;
                }
                init_file_group(rec->group_id);
                free_bytes = filler_free_space(space_path);
                status = 0;
            }
            // Any other status is carried on as it is: the loop then only checks for stop.
            if (watchdog_test_over() || (g_filler_stop.load(std::memory_order_relaxed) & 1))
                break;
            runs += 1;
            if (filler_space_reached(free_bytes, margin, reserve))
                break;
        }
    }

    g_filler_stop.store(1, std::memory_order_relaxed);
    float cost = seconds_since(start);
    const int32_t output = watchdog_test_over() ? WDT_TIMEOUT_CODE : ret;
    rec->output.store(output, std::memory_order_relaxed);
    unsigned long long mb = written >> 20;
    FLOG("fill_fn", "INFO", "runs %d, ret %d, fill %lluMB,  speed is %.2f MB/s, cost is %.2fs\n",
         runs, output, mb, static_cast<double>(static_cast<float>(mb) / cost),
         static_cast<double>(cost));
}

void *fill_fn(void *rec) {
    let_caught_signals_in();  // started inside a hold
    filler_write_files(static_cast<filler *>(rec), paths::kPatternDir, paths::kWorkDir);
    return nullptr;
}

void *read_disturb_fn(void *rec) {
    let_caught_signals_in();  // started inside a hold
    auto *r = static_cast<filler *>(rec);
    r->output.store(read_disturb_file(r->kept), std::memory_order_relaxed);
    g_filler_stop.store(1, std::memory_order_relaxed);
    return nullptr;
}

// ---- one cycle ---------------------------------------------------------------------------

int filler_wait_battery(int (*read_temp)(), void (*sleep_seconds)(unsigned)) {
    int slept = 0;
    if (read_temp() <= kBatteryHotLimit)
        return 0;
    do {
        sleep_seconds(10);
        slept += 1;
        if (slept % 10 == 0)
            FLOG("storage_filler", "INFO", "BATTERY_TEMP higher than %d, sleep %ds\n\n",
                 kBatteryHotLimit, 10 * slept);
    } while (read_temp() > kBatteryHotLimit);
    return slept;
}

int32_t filler_run_workers(uint32_t group, filler_thread_start start) {
    constexpr int kThreads = kFillerWriters + kFillerReaders;
    auto *handles = static_cast<pthread_t *>(held_malloc(kThreads * sizeof(pthread_t)));
    auto *recs = static_cast<filler *>(held_calloc(kThreads, sizeof(filler)));
    if (handles == nullptr || recs == nullptr) {
        // Skips the fill; the cycle goes on with the benchmark.
        FLOG("storage_filler", "ERROR", "malloc failed\n");
        held_free(handles);
        held_free(recs);
        return 0;
    }

    g_filler_stop.store(0, std::memory_order_relaxed);
    pthread_spin_init(&g_filler_lock, PTHREAD_PROCESS_PRIVATE);
    sbmt_barrier_init(&g_filler_barrier, kFillerWriters);

    int32_t fill = 0;
    int started = 0;
    for (int i = 0; i < kThreads; ++i) {
        int rc;
        // Held: a thread start takes the C library's thread-list locks.
        sigset_t saved;
        hold_caught_signals(&saved);
        if (i < kFillerWriters) {
            recs[i].group_id = group;
            rc = start(&handles[i], nullptr, fill_fn, &recs[i]);
        } else {
            rc = start(&handles[i], nullptr, read_disturb_fn, &recs[i]);
        }
        release_caught_signals(&saved);
        if (rc != 0) {
            if (i < kFillerWriters)
                FLOG("storage_filler", "ERROR", "create w_th %d failed\n", i);
            else
                FLOG("storage_filler", "ERROR", "create r_th %d failed\n", i - kFillerWriters);
            fill = rc;
            break;
        }
        started += 1;
    }

    // The outputs the cycle is judged by. After a failed start they are those of that
    // moment: what the started threads report once they are told to stop (a reader that
    // found no files, a writer that met the watchdog) is not the cycle's result.
    int32_t outputs[kThreads] = {};

    // A thread that could not be joined may still use its record: such records are never
    // read nor freed.
    bool unjoined[kThreads] = {};
    bool any_unjoined = false;
    if (started < kThreads) {
        // The cycle is over without the missing threads: stop the started ones and wait for
        // them, so that nothing they use goes away under them.
        for (int i = 0; i < started; ++i) outputs[i] = recs[i].output.load(std::memory_order_relaxed);
        g_filler_stop.store(1, std::memory_order_relaxed);
        for (int i = 0; i < started; ++i) {
            if (pthread_join(handles[i], nullptr) != 0) {
                unjoined[i] = true;
                any_unjoined = true;
            }
        }
    } else {
        for (int i = 0; i < kThreads; ++i) {
            int rc = pthread_join(handles[i], nullptr);
            if (rc == 0)
                continue;
            unjoined[i] = true;
            if (!any_unjoined) {
                FLOG("storage_filler", "ERROR", "join thread %d failed\n",
                     i < kFillerWriters ? i : i - kFillerWriters);
                fill = rc;
                // The remaining threads are stopped and still joined, without more lines.
                g_filler_stop.store(1, std::memory_order_relaxed);
            }
            any_unjoined = true;
        }
        for (int i = 0; i < kThreads; ++i)
            if (!unjoined[i]) outputs[i] = recs[i].output.load(std::memory_order_relaxed);
    }

    sbmt_barrier_destroy(&g_filler_barrier);
    pthread_spin_destroy(&g_filler_lock);

    // What a thread ended by the abnormal-end handler left behind (a thread that could not be
    // joined may still be using its buffers).
    for (int i = 0; i < started; ++i) {
        if (unjoined[i]) continue;
        for (void *&kept : recs[i].kept) held_free_kept(&kept);
    }

    for (int i = 0; i < kThreads; ++i) {
        if (outputs[i] == 0)  // also a thread that could not be joined: its record is not read
            continue;
        FLOG("storage_filler", "ERROR", "filler[%d].output is %d\n", i, outputs[i]);
        fill = outputs[i];
        break;
    }

    if (!any_unjoined) {
        held_free(handles);
        held_free(recs);
    } else {
        leave_to_unjoined_thread(handles);
        leave_to_unjoined_thread(recs);
    }
    return fill;
}

bool filler_cycle_end(int cycle, int32_t fill_result, int go_on, const healthinfo *cycle_rec,
                      const filler_cycle_steps &steps, int32_t *result) {
    if (fill_result == WDT_TIMEOUT_CODE) {
        FLOG("storage_filler_run", "ERROR", "storage_filler cycle %d exit, wdt timeout\n", cycle);
        *result = WDT_TIMEOUT_CODE;
        return true;
    }
    if (fill_result != 0) {
        FLOG("storage_filler_run", "ERROR", "storage_filler cycle %d fail %d\n", cycle,
             fill_result);
        *result = fill_result;
        if (go_on == 0)
            return true;
    }

    int bench = steps.benchmark();
    if (bench != 0) {
        *result = bench;
        FLOG("storage_filler_run", "ERROR", "benchmark_check cycle %d fail %d\n", cycle, bench);
        if (go_on == 0)
            return true;
    }

    // Only the last health judgement counts: it overwrites a failure kept above.
    *result = steps.judge(cycle_rec);
    if (*result != 0) {
        FLOG("storage_filler_run", "ERROR", "healthinfo_judge cycle %d fail %d\n", cycle,
             *result);
        if (go_on == 0)
            return true;
    }
    return false;
}

uint8_t filler_verdict(int32_t result) {
    return (result == 0 || result == WDT_TIMEOUT_CODE) ? 1 : 0;
}

// ---- the test ----------------------------------------------------------------------------

int storage_filler_run(flash_test *self) {
    healthinfo start_rec;
    healthinfo cycle_rec;
    memset(&start_rec, 0, sizeof(start_rec));
    memset(&cycle_rec, 0, sizeof(cycle_rec));
    if (healthinfo_get(&start_rec) != 0)
        return 0;
    const uint32_t pe_start = pe_cycle_get();
    if (static_cast<int32_t>(pe_start) < 0)
        return 0;

    const int cycles = fill_cycle;
    const int go_on = go_on_error;
    const filler_cycle_steps steps {benchmark_check, healthinfo_judge};

    timespec total_start {};
    clock_gettime(CLOCK_MONOTONIC, &total_start);
    int32_t result = 0;

    if (cycles >= 0) {
        int cycle = 0;
        for (;;) {
            timespec cycle_start {};
            clock_gettime(CLOCK_MONOTONIC, &cycle_start);

            const int32_t group = cycle % 3;
            pattern_init(paths::kPatternDir, static_cast<uint32_t>(group));
            FLOG("storage_filler_run", "INFO", "g_group_size is %lld\n",
                 static_cast<long long>(g_group_size.load(std::memory_order_relaxed)));

            memset(&cycle_rec, 0, sizeof(cycle_rec));
            healthinfo_get(&cycle_rec);

            filler_wait_battery(read_battery_temp, sleep_whole_seconds);

            int32_t fill = filler_run_workers(static_cast<uint32_t>(group));
            if (filler_cycle_end(cycle, fill, go_on, &cycle_rec, steps, &result))
                break;

            FLOG("storage_filler_run", "INFO", "fill_cycle %d/%d cost %.2fs\n", cycle, cycles,
                 static_cast<double>(seconds_since(cycle_start)));

            // Cycles are counted by the device's wear, not by the loop: a fill that did not
            // raise the P/E count repeats under the same number.
            const uint32_t pe_now = pe_cycle_get();
            if (static_cast<int32_t>(pe_now) < 0) {
                result |= 1;
                break;
            }
            cycle = static_cast<int32_t>(pe_now - pe_start);
            if (cycle > cycles)
                break;
        }
    }

    system_rm_file(paths::kPatternDir);
    system_rm_file(paths::kBenchmarkDir);
    file_unit_free();
    if (healthinfo_judge(&start_rec) != 0) {
        FLOG("storage_filler_run", "ERROR", "healthinfo_judge fail\n");
        result |= 1;  // leaves a watchdog end (odd) as it is
    }
    FLOG("storage_filler_run", "INFO", "storage_filler total cost %.2fs\n",
         static_cast<double>(seconds_since(total_start)));

    self->results[0].status = filler_verdict(result);
    return 0;
}
