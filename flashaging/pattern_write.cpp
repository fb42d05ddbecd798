// Random group writing: the writers pick a file the current pass still owes, under the
// shared spin lock, and write it whole with direct I/O outside the lock.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr int32_t kBlockSize = 4096;
constexpr int32_t kMaxWriteSize = 4194304;  // one writer's buffer; bigger files take several writes

// The writers' pattern buffers, one per pattern, shared by all writers. A write buffer of
// its own per file cost each writer more CPU than its direct I/O: a fresh allocation of a
// few MiB is a fresh mapping whose pages all fault in and are zeroed, the doubling fill then
// copies the whole buffer (about 1.5 GiB of copies per 4 GiB written), and the unmapping
// interrupts the other writers. Here each pattern is laid down once, by the same doubling
// fill, over the largest write any file of that pattern needs (at most 4 MiB; 16.5 MiB for
// all ten), and direct I/O only reads from it. They are laid down by pattern_init on the
// main thread for the patterns of its case, before any writer starts (so the writers take
// no lock for them), and freed with the pattern blocks by file_unit_free, when no writer
// runs.
struct shared_pattern {
    std::atomic<uint8_t *> buf{nullptr};  // published once laid down
    int32_t size = 0;                     // bytes laid down
    const uint8_t *block = nullptr;       // the unit's block it was laid down from
};
shared_pattern g_shared_patterns[std::size(g_file_units)];

// The largest write of any file of this pattern in the three mixes.
int32_t largest_write(const file_unit *unit) {
    int32_t largest = 0;
    for (const file_case &fc : g_file_cases) {
        for (int32_t g = 0; g < fc.group_num; ++g) {
            const file_group &group = fc.groups[g];
            for (int32_t i = 0; i < group.desc_num; ++i) {
                const file_desc &d = group.descs[i];
                if (&g_file_units[d.pattern_id % std::size(g_file_units)] != unit) continue;
                const int32_t op = d.file_size < kMaxWriteSize ? d.file_size : kMaxWriteSize;
                if (op > largest) largest = op;
            }
        }
    }
    return largest;
}

// The unit's shared buffer holding at least size bytes of its pattern, or null when there is
// none (not laid down, no pattern block, or a size beyond the mixes): the caller then makes
// its own buffer.
const uint8_t *shared_pattern_buffer(const file_unit *unit, int32_t size) {
    const std::less<const file_unit *> before;  // a total order, also for units of elsewhere
    if (unit == nullptr || before(unit, g_file_units) || !before(unit, std::end(g_file_units))) return nullptr;
    const shared_pattern &sp = g_shared_patterns[unit - g_file_units];
    const uint8_t *buf = sp.buf.load(std::memory_order_acquire);
    if (buf == nullptr || sp.block != unit->buf || sp.size < size) return nullptr;
    return buf;
}

void record_step(pattern_fill_trace *trace, int64_t to, int64_t len) {
    if (trace == nullptr) return;
    if (trace->count < static_cast<int>(std::size(trace->steps)))
        trace->steps[trace->count] = {static_cast<int32_t>(to), static_cast<int32_t>(len)};
    ++trace->count;
}

}  // namespace

bool pattern_fill(const file_unit *unit, uint8_t *dst, int32_t size, pattern_fill_trace *trace) {
    if (unit == nullptr || unit->buf == nullptr || dst == nullptr) {
        flash_printf("%s line %d invalid pointer\n", paths::kPatternSourcePath, __LINE__);
        return false;
    }
    // The block goes first whatever the size.
    memcpy(dst, unit->buf, kBlockSize);
    record_step(trace, 0, kBlockSize);

    // Then double what is already there while the doubled length still fits in half the size,
    // and copy the rest in one go: a handful of large copies instead of one per pattern.
    int64_t n = kBlockSize;
    if (size >= 2 * kBlockSize) {
        do {
            memcpy(dst + n, dst, static_cast<size_t>(n));
            record_step(trace, n, n);
            n *= 2;
        } while (n <= size / 2);
    }
    if (size > n) {
        memcpy(dst + n, dst, static_cast<size_t>(size - n));
        record_step(trace, n, size - n);
    }
    return true;
}

void fill_unit_buffer(file_desc *desc, uint8_t *buf, int32_t size) {
    if (desc == nullptr || buf == nullptr) {
        flash_printf("%s line %d invalid pointer\n", paths::kPatternSourcePath, __LINE__);
        return;
    }
    pattern_fill(desc->unit, buf, size);
}

file_desc *random_get_file_desc(int32_t r) {
    const int32_t group_num = g_cur_group_num.load(std::memory_order_relaxed);
    if (group_num < 1) return nullptr;
    file_group *groups = g_cur_groups.load(std::memory_order_relaxed);

    int32_t total = 0;
    for (int32_t g = 0; g < group_num; ++g) {
        if (groups[g].desc_num < 1) continue;
        for (int32_t i = 0; i < groups[g].desc_num; ++i) total += groups[g].descs[i].file_num;
    }
    if (total == 0) return nullptr;  // no mix of ours has an empty pass
    const int32_t target = r % total;

    // The walk does not stop at the target: every later group still hands over its first
    // desc, so the pick lands in the last non-empty group. The benchmark relies on the
    // pattern that this gives.
    int32_t running = 0;
    file_desc *chosen = nullptr;
    for (int32_t g = 0; g < group_num; ++g) {
        if (groups[g].desc_num < 1) continue;
        for (int32_t i = 0; i < groups[g].desc_num; ++i) {
            running += groups[g].descs[i].file_num;
            chosen = &groups[g].descs[i];
            if (running >= target) break;
        }
    }
    return chosen;
}

int32_t random_finish_group_file(pthread_spinlock_t *lock, const char *dir, uint64_t *bytes_written, void **kept) {
    // The caught signals are held from the draw to the end of the choice: a writer ended
    // holding the generator's lock or the spin lock would stop every other writer.
    sigset_t saved;
    hold_caught_signals(&saved);
    const int r = rand();  // drawn before the lock so the lock stays short

    pthread_spin_lock(lock);
    const int32_t group_num = g_cur_group_num.load(std::memory_order_relaxed);
    if (group_num < 1) {
        pthread_spin_unlock(lock);
        release_caught_signals(&saved);
        return 2;
    }
    file_group *groups = g_cur_groups.load(std::memory_order_relaxed);
    int32_t left_total = 0;
    for (int32_t g = 0; g < group_num; ++g) {
        if (groups[g].desc_num < 1) continue;
        for (int32_t i = 0; i < groups[g].desc_num; ++i)
            left_total += groups[g].descs[i].left_num.load(std::memory_order_relaxed);
    }
    if (left_total < 1) {
        pthread_spin_unlock(lock);
        release_caught_signals(&saved);
        return 2;
    }
    // Weighted by what each kind still owes; a kind with nothing left is never picked.
    int32_t target = r % left_total;
    file_desc *chosen = nullptr;
    for (int32_t g = 0; g < group_num && chosen == nullptr; ++g) {
        if (groups[g].desc_num < 1) continue;
        for (int32_t i = 0; i < groups[g].desc_num; ++i) {
            target -= groups[g].descs[i].left_num.load(std::memory_order_relaxed);
            if (target < 0) {
                chosen = &groups[g].descs[i];
                break;
            }
        }
    }
    if (chosen == nullptr) {
        pthread_spin_unlock(lock);
        release_caught_signals(&saved);
        return 2;
    }
    chosen->left_num.fetch_sub(1, std::memory_order_relaxed);
    pthread_spin_unlock(lock);

    const uint8_t pattern_id = chosen->pattern_id;
    const int32_t file_size = chosen->file_size;
    pthread_spin_lock(lock);
    const uint32_t seq = ++g_file_seq;
    pthread_spin_unlock(lock);
    release_caught_signals(&saved);

    char name[kPatternNameLen] = {};
    snprintf(name, sizeof name, "%s%u_%d_%u", dir, static_cast<unsigned>(pattern_id), file_size, seq);

    const int fd = open(name, O_RDWR | O_CREAT | O_DIRECT, 0666);
    if (fd < 0) {
        const int err = errno;
        FLOG("random_finish_group_file", "INFO", "open %s failed %d\n", name, err);
        return err == ENOSPC ? 2 : 1;
    }

    const int32_t op_size = file_size < kMaxWriteSize ? file_size : kMaxWriteSize;
    const uint8_t *buf = shared_pattern_buffer(chosen->unit, op_size);
    void *own_slot = nullptr;
    void **own = kept != nullptr ? kept : &own_slot;
    if (buf == nullptr) {
        // The fill always lays down a whole block, so never hand out less than one.
        const size_t alloc_size = op_size > kBlockSize ? static_cast<size_t>(op_size) : kBlockSize;
        auto *made = static_cast<uint8_t *>(held_aligned_alloc_kept(own, kBlockSize, alloc_size));
        if (made == nullptr) {
            FLOG("random_finish_group_file", "INFO", "malloc size %d failed\n", op_size);
            close(fd);
            return 1;
        }
        if (!pattern_fill(chosen->unit, made, op_size)) {
            // No pattern block (its allocation failed): a file of whatever the fresh buffer
            // holds would be no pattern file. The writer stops.
            close(fd);
            held_free_kept(own);
            return 1;
        }
        buf = made;
    }

    if (file_size >= 1) {
        int32_t written = 0;
        for (;;) {
            // Always the whole buffer from its start: every file size is a multiple of it.
            const ssize_t ret = write(fd, buf, static_cast<size_t>(op_size));
            if (ret < 0) {
                const int err = errno;
                const unsigned long long free_space = get_free_space();
                FLOG("random_finish_group_file", "ERROR",
                     "write fail %d, errno is %d, free space is %llu, op_size is %d\n",
                     static_cast<int>(ret), err, free_space, op_size);
                const int32_t result = errno == ENOSPC ? 2 : 1;
                close(fd);
                held_free_kept(own);
                return result;
            }
            written += static_cast<int32_t>(ret);
            *bytes_written += static_cast<uint32_t>(ret);
            if (written >= file_size) break;
        }
    }
    close(fd);
    held_free_kept(own);
    return 0;
}

void pattern_shared_buffers_lay_down(uint32_t case_id) {
    if (case_id >= std::size(g_file_cases)) return;
    const file_case &fc = g_file_cases[case_id];
    for (int32_t g = 0; g < fc.group_num; ++g) {
        const file_group &group = fc.groups[g];
        for (int32_t i = 0; i < group.desc_num; ++i) {
            const file_unit *unit = &g_file_units[group.descs[i].pattern_id % std::size(g_file_units)];
            shared_pattern &sp = g_shared_patterns[unit - g_file_units];
            if (unit->buf == nullptr || sp.buf.load(std::memory_order_relaxed) != nullptr) continue;
            const int32_t want = largest_write(unit);
            // The fill always lays down a whole block. Without memory the writers make their own.
            const size_t bytes = want > kBlockSize ? static_cast<size_t>(want) : kBlockSize;
            auto *buf = static_cast<uint8_t *>(held_aligned_alloc(kBlockSize, bytes));
            if (buf == nullptr) continue;
            pattern_fill(unit, buf, want);
            sp.size = want;
            sp.block = unit->buf;
            sp.buf.store(buf, std::memory_order_release);
        }
    }
}

void pattern_shared_buffers_free() {
    for (shared_pattern &sp : g_shared_patterns) {
        held_free(sp.buf.exchange(nullptr, std::memory_order_relaxed));
        sp.size = 0;
        sp.block = nullptr;
    }
}
