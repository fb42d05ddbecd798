// The benchmark run after every fill: sequential and random writes and reads by eight
// workers on one freshly written 512 MiB file. Speeds are only logged; only an I/O error of
// a worker fails the check.
#include "flashaging/benchmark.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr int32_t kPrepareBufSize = 0x400000;  // 4 MiB
constexpr int kPrepareWrites = 128;            // 512 MiB file
constexpr int32_t kSeqSize = 0x80000;          // 512 KiB
constexpr int32_t kRandSize = 0x1000;          // 4 KiB
constexpr uint32_t kSeqCount = 1024;
constexpr uint32_t kRandCount = 16384;

// The next transfer number of the running mode; guarded by the spin lock below, which each
// mode sets up afresh before its workers start (a zero-filled lock is not an unlocked one in
// every C library) and never destroys. Every section under it is a few instructions with
// the caught signals held: a worker ended inside one would leave the others spinning for
// ever.
uint32_t g_bench_next;
pthread_spinlock_t g_bench_lock;

float monotonic_seconds() {
    timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<float>(static_cast<double>(ts.tv_sec) +
                              static_cast<double>(ts.tv_nsec) * 1e-9);
}

// Writes the mode's 512 MiB file with the pattern of the group. Returns false after a
// failure, which has been printed.
bool prepare_file(int fd) {
    auto *buf = static_cast<uint8_t *>(held_aligned_alloc(4096, kPrepareBufSize));
    if (buf == nullptr) {
        flash_printf("malloc size %d fail\n", kPrepareBufSize);
        close(fd);
        flash_printf("benchmark_prepare fail %d\n", -1);
        return false;
    }
    fill_unit_buffer(random_get_file_desc(held_rand()), buf, kPrepareBufSize);
    for (int i = 0; i < kPrepareWrites; ++i) {
        if (write(fd, buf, kPrepareBufSize) != kPrepareBufSize) {
            flash_printf("write fail %d\n", errno);
            close(fd);
            held_free(buf);
            flash_printf("benchmark_prepare fail %d\n", -1);
            return false;
        }
    }
    fsync(fd);
    held_free(buf);
    return true;
}

}  // namespace

bench_mode bench_mode_of(int index) {
    static constexpr const char *kNames[kBenchModes] = {"seq write", "seq read", "rand write",
                                                        "rand read"};
    bench_mode m {};
    m.name = (index >= 0 && index < kBenchModes) ? kNames[index] : "ERROR";
    m.sequential = index < 2;
    m.write = (index % 2) == 0;
    m.size = m.sequential ? kSeqSize : kRandSize;
    m.count = m.sequential ? kSeqCount : kRandCount;
    return m;
}

uint64_t bench_offset(bool sequential, uint32_t n, int32_t r) {
    if (sequential)
        return static_cast<uint64_t>(n) * kSeqSize;
    // A random 4 KiB block of the file's first 64 MiB; blocks may repeat.
    return static_cast<uint64_t>(static_cast<uint32_t>(r) & (kRandCount - 1)) * kRandSize;
}

void bench_totals(const bench_worker *workers, int n, uint64_t *total, float *elapsed) {
    uint64_t sum = 0;
    float first_start = 18446744073709551616.0f;  // 2^64
    float last_end = 0;
    for (int i = 0; i < n; ++i) {
        sum += workers[i].bytes;
        if (workers[i].start < first_start)
            first_start = workers[i].start;
        if (workers[i].end > last_end)
            last_end = workers[i].end;
    }
    *total = sum;
    *elapsed = last_end - first_start;
}

void bench_reset_transfers() {
    // No worker runs now.
    pthread_spin_init(&g_bench_lock, PTHREAD_PROCESS_PRIVATE);
    g_bench_next = 0;
}

uint32_t bench_transfers_taken() {
    sigset_t saved;
    hold_caught_signals(&saved);
    pthread_spin_lock(&g_bench_lock);
    uint32_t n = g_bench_next;
    pthread_spin_unlock(&g_bench_lock);
    release_caught_signals(&saved);
    return n;
}

void *benchmark_fn(void *arg) {
    let_caught_signals_in();  // started inside a hold
    auto *w = static_cast<bench_worker *>(arg);
    const int32_t size = w->sequential ? kSeqSize : kRandSize;
    const uint32_t count = w->sequential ? kSeqCount : kRandCount;

    auto *buf = static_cast<uint8_t *>(held_aligned_alloc_kept(&w->buf, 4096, static_cast<size_t>(size)));
    if (buf == nullptr) {
        flash_printf("malloc size %d fail\n", size);
        return nullptr;
    }
    fill_unit_buffer(random_get_file_desc(held_rand()), buf, size);
    w->start = monotonic_seconds();
    uint64_t bytes = 0;

    // The lock guards only the taking of a transfer number; every I/O runs outside it. The
    // eight workers share the descriptor and its position: the seek and the transfer are not
    // one step, on purpose (the figure is the point, not the exact placement). From the draw
    // to the unlock the caught signals are held (one hold per transfer).
    sigset_t saved;
    hold_caught_signals(&saved);
    int32_t r = rand();
    bool locked = true;
    pthread_spin_lock(&g_bench_lock);
    uint32_t n = g_bench_next;
    while (n < count) {
        const uint64_t offset = bench_offset(w->sequential, n, r);
        g_bench_next = n + 1;
        pthread_spin_unlock(&g_bench_lock);
        release_caught_signals(&saved);
        locked = false;

        ssize_t done;
        for (;;) {
            if (lseek(w->fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
                flash_printf("lseek failed %d\n", errno);
                held_free_kept(&w->buf);
                return nullptr;
            }
            done = w->write ? write(w->fd, buf, static_cast<size_t>(size))
                            : read(w->fd, buf, static_cast<size_t>(size));
            if (done > 0)
                break;
            flash_printf("w/r fail %d, offset is %llu, wr_size is %d, op_size is %d\n", errno,
                         static_cast<unsigned long long>(offset), static_cast<int>(done), size);
            w->result = errno;
            if (done < 0)
                break;
            // Nothing transferred: the same transfer again, from the seek.
        }
        if (done < 0)
            break;

        bytes += static_cast<uint64_t>(done);
        hold_caught_signals(&saved);
        r = rand();
        pthread_spin_lock(&g_bench_lock);
        locked = true;
        n = g_bench_next;
    }
    if (locked) {
        pthread_spin_unlock(&g_bench_lock);
        release_caught_signals(&saved);
    }

    w->end = monotonic_seconds();
    w->bytes = bytes;
    held_free_kept(&w->buf);
    return nullptr;
}

int benchmark_check() {
    if ((get_free_space() >> 29) == 0) {
        flash_printf("left space is less than %d, do not do benchmark\n",
                     static_cast<int>(kBenchMinFree));
        return 0;
    }

    for (int mode = 0; mode < kBenchModes; ++mode) {
        const bench_mode m = bench_mode_of(mode);
        auto *workers = static_cast<bench_worker *>(held_calloc(kBenchWorkers, sizeof(bench_worker)));
        if (workers == nullptr) {
            flash_printf("malloc size %d fail\n",
                         static_cast<int>(kBenchWorkers * sizeof(bench_worker)));
            return 0;
        }

        if (access(paths::kBenchmarkDir, F_OK) == 0)
            system_rm_file(paths::kBenchmarkDir);
        mkdir(paths::kBenchmarkDir, 0600);

        char path[64] = {};
        snprintf(path, sizeof(path), "%s%d", paths::kBenchmarkDir, held_rand());

        bench_reset_transfers();

        int fd = open(path, O_RDWR | O_CREAT | O_DIRECT, 0666);
        if (fd < 0) {
            flash_printf("open %s fail %d\n", path, errno);
            flash_printf("benchmark_prepare fail %d\n", fd);
            held_free(workers);
            return 0;
        }
        if (!prepare_file(fd)) {
            held_free(workers);
            return 0;
        }

        pthread_t handles[kBenchWorkers];
        bool started[kBenchWorkers] = {};
        for (int i = 0; i < kBenchWorkers; ++i) {
            workers[i].index = static_cast<uint32_t>(i);
            workers[i].fd = fd;
            workers[i].sequential = m.sequential ? 1 : 0;
            workers[i].write = m.write ? 1 : 0;
            int rc = held_pthread_create(&handles[i], nullptr, benchmark_fn, &workers[i]);
            if (rc != 0) {
                flash_printf("create BENCH_THREAD %d fail %d\n", i, rc);
                continue;
            }
            started[i] = true;
        }
        // A worker that never started has no handle to join. One that could not be joined may
        // still run: its buffer and the records stay its own (never freed).
        bool unjoined[kBenchWorkers] = {};
        bool any_unjoined = false;
        for (int i = 0; i < kBenchWorkers; ++i) {
            if (started[i] && pthread_join(handles[i], nullptr) != 0) {
                flash_printf("join thread %d fail\n", i);
                started[i] = false;
                unjoined[i] = true;
                any_unjoined = true;
            }
        }
        auto free_workers = [&] {
            if (any_unjoined)
                leave_to_unjoined_thread(workers);
            else
                held_free(workers);
        };
        // What a worker ended by the abnormal-end handler left behind.
        for (int i = 0; i < kBenchWorkers; ++i) {
            if (started[i]) held_free_kept(&workers[i].buf);
        }

        close(fd);
        system_rm_file(paths::kBenchmarkDir);

        // The records of workers that could not be joined are not read: such a worker may still
        // be writing its record (and meets the descriptor closed above).
        bench_worker seen[kBenchWorkers];
        int n_seen = 0;
        for (int i = 0; i < kBenchWorkers; ++i)
            if (!unjoined[i]) seen[n_seen++] = workers[i];
        for (int i = 0; i < kBenchWorkers; ++i) {
            if (unjoined[i] || workers[i].result == 0)
                continue;
            int32_t result = workers[i].result;
            flash_printf("thread %d fail %d\n", static_cast<int>(workers[i].index), result);
            flash_printf("benchmark_end fail %d\n", result);
            free_workers();
            return result;
        }

        uint64_t total = 0;
        float elapsed = 0;
        bench_totals(seen, n_seen, &total, &elapsed);
        flash_printf("size is 0x%llx, file num is %u, time cost %f\n",
                     static_cast<unsigned long long>(total), bench_transfers_taken(),
                     static_cast<double>(elapsed));
        flash_printf("%s: ==== speed is %.2fMB/s ====\n", m.name,
                     static_cast<double>(static_cast<float>(total >> 20) / elapsed));
        free_workers();
    }
    return 0;
}
