#include "flashaging/signal_hold.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iterator>

namespace {

constexpr long kSliceNs = 200L * 1000 * 1000;

void caught_set(sigset_t *set) {
    sigemptyset(set);
    for (int sig : kCaughtSignals) sigaddset(set, sig);
}

}  // namespace

void hold_caught_signals(sigset_t *saved) {
    sigset_t caught;
    caught_set(&caught);
    pthread_sigmask(SIG_BLOCK, &caught, saved);
}

void release_caught_signals(const sigset_t *saved) {
    const int err = errno;
    pthread_sigmask(SIG_SETMASK, saved, nullptr);
    errno = err;
}

void let_caught_signals_in() {
    sigset_t caught;
    caught_set(&caught);
    pthread_sigmask(SIG_UNBLOCK, &caught, nullptr);
}

bool caught_signal_pending() {
    sigset_t pending;
    sigemptyset(&pending);
    if (sigpending(&pending) != 0) return false;
    for (int sig : kCaughtSignals)
        if (sigismember(&pending, sig) == 1) return true;
    return false;
}

int held_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline,
                        const sigset_t *saved) {
    for (;;) {
        struct timespec slice {};
        clock_gettime(CLOCK_REALTIME, &slice);
        slice.tv_nsec += kSliceNs;
        if (slice.tv_nsec >= 1000000000L) {
            slice.tv_sec += 1;
            slice.tv_nsec -= 1000000000L;
        }
        const bool last = slice.tv_sec > deadline->tv_sec ||
                          (slice.tv_sec == deadline->tv_sec && slice.tv_nsec >= deadline->tv_nsec);
        const int rc = pthread_cond_timedwait(cond, mutex, last ? deadline : &slice);
        if (rc != ETIMEDOUT || last) return rc;
        if (caught_signal_pending()) {
            // The handler runs here, holding nothing, and ends the thread. Should it come back
            // (a handler of someone else's), the wait goes on.
            pthread_mutex_unlock(mutex);
            release_caught_signals(saved);
            sigset_t again;
            hold_caught_signals(&again);
            pthread_mutex_lock(mutex);
        }
    }
}

namespace {
std::atomic<void *> g_left_to_unjoined[64];
std::atomic<unsigned> g_left_count{0};
}  // namespace

void leave_to_unjoined_thread(void *p) {
    const unsigned at = g_left_count.fetch_add(1, std::memory_order_relaxed);
    if (at < std::size(g_left_to_unjoined)) g_left_to_unjoined[at].store(p, std::memory_order_relaxed);
}
