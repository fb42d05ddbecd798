// The writers' barrier and the stop test of the storage filler's worker loops.
//
// The barrier gives up after 10 s, has no generation counter (a woken waiter does not check
// again) and does not take a waiter that gave up off the count, so a late arrival can still
// complete a count that includes it.
#include "flashaging/sbmt_barrier.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "flashaging/environment.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"

std::atomic<uint8_t> g_filler_stop{0};

namespace {

constexpr int kErrTextLen = 20;
constexpr time_t kWaitSeconds = 10;

// strerror_r comes in two flavours; both end up as text in buf, cut to fit.
[[maybe_unused]] const char *err_text_result(int /*xsi_rc*/, char *buf) { return buf; }
[[maybe_unused]] const char *err_text_result(const char *gnu_text, char *buf) {
    if (gnu_text != buf) snprintf(buf, kErrTextLen, "%s", gnu_text);
    return buf;
}

const char *err_text(int err, char (&buf)[kErrTextLen]) {
    buf[0] = '\0';
    // The message catalogue behind the text is read under the C library's lock.
    sigset_t saved;
    hold_caught_signals(&saved);
    const char *text = err_text_result(strerror_r(err, buf, sizeof buf), buf);
    release_caught_signals(&saved);
    return text;
}

}  // namespace

int sbmt_barrier_init(sbmt_barrier *b, uint32_t count) {
    char text[kErrTextLen];
    b->threshold = count;
    b->arrived = 0;
    if (pthread_mutex_init(&b->mutex, nullptr) != 0) {
        const int err = errno;
        FLOG("sbmt_barrier_init", "ERROR", "Creating the barrier mutex failed with %d, %s\n", err,
             err_text(err, text));
        return 0;
    }
    if (pthread_cond_init(&b->cond, nullptr) != 0) {
        const int err = errno;
        FLOG("sbmt_barrier_init", "ERROR", "Creating the barrier cond failed with %d, %s\n", err,
             err_text(err, text));
        pthread_mutex_destroy(&b->mutex);
        return 0;
    }
    return 1;
}

int sbmt_barrier_wait(sbmt_barrier *b) {
    char text[kErrTextLen];
    // A writer never holds the mutex with the caught signals let in: one ended there would
    // keep the other seven waiting. A signal sent to a waiting writer is taken between two
    // slices of its wait, with the mutex released (held_cond_timedwait); it still counts as
    // arrived, so a late writer can complete the count.
    sigset_t saved;
    hold_caught_signals(&saved);
    if (pthread_mutex_lock(&b->mutex) != 0) {
        const int err = errno;
        FLOG("sbmt_barrier_wait", "ERROR", "Locking the barrier mutex failed with %d, %s\n", err,
             err_text(err, text));
        release_caught_signals(&saved);
        return -1;
    }

    int result = 0;
    b->arrived += 1;
    if (b->arrived >= b->threshold) {
        // Reset before waking the others, so the next pass counts from 0 while they leave.
        b->arrived = 0;
        if (pthread_cond_broadcast(&b->cond) != 0) {
            const int err = errno;
            FLOG("sbmt_barrier_wait", "ERROR", "Brodcast the barrier cond failed with %d, %s\n", err,
                 err_text(err, text));
            result = -1;
        }
    } else {
        struct timeval now {};
        gettimeofday(&now, nullptr);
        struct timespec deadline {};
        deadline.tv_sec = now.tv_sec + kWaitSeconds;
        deadline.tv_nsec = now.tv_usec * 1000;
        const int rc = held_cond_timedwait(&b->cond, &b->mutex, &deadline, &saved);
        if (rc != 0) {
            // The number is the wait's own answer (110 on a timeout); the text stays errno's.
            FLOG("sbmt_barrier_wait", "ERROR", "Wait the barrier cond failed with %d, %s\n", rc,
                 err_text(errno, text));
            result = -1;
        }
    }

    if (pthread_mutex_unlock(&b->mutex) != 0) {
        const int err = errno;
        FLOG("sbmt_barrier_wait", "ERROR", "Unlock the barrier mutex failed with %d, %s\n", err,
             err_text(err, text));
        release_caught_signals(&saved);
        return -1;
    }
    release_caught_signals(&saved);
    return result;
}

int sbmt_barrier_destroy(sbmt_barrier *b) {
    char text[kErrTextLen];
    bool mutex_ok = true;
    if (pthread_mutex_destroy(&b->mutex) != 0) {
        const int err = errno;
        FLOG("sbmt_barrier_destroy", "ERROR", "Destroying the barrier mutex failed with %d, %s\n", err,
             err_text(err, text));
        mutex_ok = false;
    }
    if (pthread_cond_destroy(&b->cond) != 0) {
        const int err = errno;
        FLOG("sbmt_barrier_destroy", "ERROR", "Destroying the barrier cond failed with %d, %s\n", err,
             err_text(err, text));
        return 0;
    }
    return mutex_ok ? 1 : 0;
}

int should_stop_now() {
    const test_args *args = g_args;
    if (args != nullptr && args->test_over.load(std::memory_order_relaxed) == 1) return 1;
    if ((g_filler_stop.load(std::memory_order_relaxed) & 1) != 0) return 1;
    return 0;
}
