// Read-disturb verification: five written files of one kind are read again and again, each
// time through a fresh direct-I/O open, and compared with their pattern.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "flashaging/device_paths.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "flashaging/sbmt_barrier.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr int kAttempts = 21;
constexpr int kSlots = 5;
constexpr int32_t kProbeLimit = 10000;
constexpr int32_t kMaxReadSize = 32768;
constexpr int32_t kBlockSize = 4096;

// 0 to 999 ms, so the four readers drift apart.
void random_pause() { usleep(static_cast<useconds_t>((held_rand() % 1000) * 1000)); }

// One sweep over the current case: a desc qualifies when at least one of its files has been
// handed out in this pass and the draw for it names its group. Readers take no lock; a
// left_num read a step early or late only shifts the choice.
file_desc *pick_disturb_desc() {
    const int32_t group_num = g_cur_group_num.load(std::memory_order_relaxed);
    if (group_num < 1) return nullptr;
    file_group *groups = g_cur_groups.load(std::memory_order_relaxed);
    for (int32_t g = 0; g < group_num; ++g) {
        if (groups[g].desc_num < 1) continue;
        for (int32_t i = 0; i < groups[g].desc_num; ++i) {
            file_desc &desc = groups[g].descs[i];
            const int draw = held_rand();
            if (draw % group_num == g && desc.file_num != desc.left_num.load(std::memory_order_relaxed))
                return &desc;
        }
    }
    return nullptr;
}

// Finds five existing files of desc, probing sequence numbers upward from 0 with at most
// kProbeLimit probes in all. scratch keeps the last name probed (on success, the fifth found).
bool find_disturb_files(const char *dir, const file_desc *desc, char (&slots)[kSlots][kPatternNameLen],
                        char (&scratch)[kPatternNameLen]) {
    int32_t probes = 0;
    int32_t seq = 0;
    for (int s = 0; s < kSlots; ++s) {
        const int32_t limit = probes > kProbeLimit ? probes : kProbeLimit;
        memset(scratch, 0, sizeof scratch);
        for (;;) {
            if (probes == limit) return false;
            snprintf(scratch, sizeof scratch, "%s%d_%d_%d", dir, static_cast<int>(desc->pattern_id),
                     desc->file_size, seq);
            ++probes;
            ++seq;
            if (access(scratch, R_OK) == 0) break;
        }
        memcpy(slots[s], scratch, kPatternNameLen);
        random_pause();
    }
    return true;
}

}  // namespace

int32_t read_disturb_file_in(const char *dir, void **kept) {
    char slots[kSlots][kPatternNameLen] = {};
    char scratch[kPatternNameLen] = {};

    file_desc *desc = nullptr;
    for (int attempt = 0; attempt < kAttempts && desc == nullptr; ++attempt) {
        random_pause();
        file_desc *candidate = pick_disturb_desc();
        if (candidate == nullptr) continue;
        if (find_disturb_files(dir, candidate, slots, scratch)) desc = candidate;
    }
    if (desc == nullptr) {
        FLOG("read_disturb_file", "INFO", "fail to get disturb file name\n");
        return 1;
    }

    const int32_t op_size = desc->file_size < kMaxReadSize ? desc->file_size : kMaxReadSize;
    // The fill always lays down a whole block, so never hold less than one.
    const size_t alloc_size = op_size > kBlockSize ? static_cast<size_t>(op_size) : kBlockSize;
    void *own[2] = {};
    void **slots_of_buffers = kept != nullptr ? kept : own;
    auto *rbuf = static_cast<uint8_t *>(held_aligned_alloc_kept(&slots_of_buffers[0], kBlockSize, alloc_size));
    if (rbuf == nullptr) {
        FLOG("read_disturb_file", "INFO", "malloc size %d failed\n", op_size);
        return 1;
    }
    auto *expected = static_cast<uint8_t *>(held_malloc_kept(&slots_of_buffers[1], alloc_size));
    auto free_buffers = [&] {
        held_free_kept(&slots_of_buffers[0]);
        held_free_kept(&slots_of_buffers[1]);
    };
    if (expected == nullptr) {
        FLOG("read_disturb_file", "INFO", "malloc size %d failed\n", op_size);
        free_buffers();
        return 1;
    }
    if (!pattern_fill(desc->unit, expected, op_size)) {
        // No pattern block to compare with: nothing read could be judged.
        free_buffers();
        return 1;
    }

    struct timespec start {};
    struct timespec latest {};
    clock_gettime(CLOCK_MONOTONIC, &start);
    float elapsed = 0;
    uint32_t good_reads = 0;
    bool retried = false;
    int32_t result = 1;

    int k = held_rand() % kSlots;
    int fd = open(slots[k], O_RDONLY | O_DIRECT);
    for (;;) {
        if (fd < 0) {
            // The name printed is the last one the search found, not necessarily slots[k].
            const int err = errno;
            FLOG("read_disturb_file", "INFO", "open %s failed %d\n", scratch, err);
            result = 1;
            break;
        }
        const ssize_t n = read(fd, rbuf, static_cast<size_t>(op_size));
        if (n <= 0) {
            const int err = errno;
            FLOG("read_disturb_file", "INFO", "read file %s failed %d\n", slots[k], err);
            close(fd);
            if (!retried && (err == EBADF || err == ENOENT)) {
                // Once per call: the file may just have been replaced; give it time.
                sleep(10);
                retried = true;
                fd = open(slots[k], O_RDONLY | O_DIRECT);
                continue;
            }
            result = 1;
            break;
        }
        close(fd);
        if (memcmp(rbuf, expected, static_cast<size_t>(op_size)) != 0) {
            result = 1;
            break;
        }
        clock_gettime(CLOCK_MONOTONIC, &latest);
        elapsed = timediff(latest.tv_sec, latest.tv_nsec, start.tv_sec, start.tv_nsec);
        if (should_stop_now()) {
            result = 0;
            break;
        }
        ++k;
        ++good_reads;
        if (k > kSlots - 1) k = 0;
        fd = open(slots[k], O_RDONLY | O_DIRECT);
    }

    if (good_reads > 1000) {
        const float average = elapsed / static_cast<float>(good_reads / 1000.0);
        FLOG("read_disturb_file", "INFO", "read_times is %d, average 1000 times cost %.2fs\n",
             static_cast<int>(good_reads), static_cast<double>(average));
    }
    free_buffers();
    return result;
}

int32_t read_disturb_file(void **kept) { return read_disturb_file_in(paths::kPatternDir, kept); }
