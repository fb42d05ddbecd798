// The software watchdog and the abnormal-end handler.
#include "flashaging/run_control.h"

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"
#include "platform/aging_client.h"

pthread_mutex_t wdt_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t wdt_cond = PTHREAD_COND_INITIALIZER;
pthread_t wdt_thread;

void *flash_wdt_thread(void *budget_seconds) {
    let_caught_signals_in();  // started inside a hold
    const int64_t budget = static_cast<int64_t>(reinterpret_cast<intptr_t>(budget_seconds));

    // Whole seconds only: the watchdog may fire up to a second early.
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct timespec deadline {};
    deadline.tv_sec = static_cast<time_t>(now.tv_sec + budget);
    deadline.tv_nsec = 0;

    // One wait, no predicate: any wake-up disarms the watchdog for good. The caught signals
    // are held while the lock is taken: a signal sent to this thread is taken between two
    // slices of the wait with the lock released, so that the handler never ends the
    // watchdog holding it (flash_close_wdt would wait for it for ever).
    sigset_t saved;
    hold_caught_signals(&saved);
    pthread_mutex_lock(&wdt_lock);
    const int rc = held_cond_timedwait(&wdt_cond, &wdt_lock, &deadline, &saved);
    pthread_mutex_unlock(&wdt_lock);
    release_caught_signals(&saved);

    if (rc == ETIMEDOUT) {
        FLOG("flash_wdt_thread", "INFO", "[WDT] say test over!\n");
        if (g_args) g_args->test_over.store(1, std::memory_order_relaxed);
    }
    return nullptr;
}

void flash_close_wdt() {
    // Held: a main thread ended with the lock would leave the watchdog unable to end.
    sigset_t saved;
    hold_caught_signals(&saved);
    pthread_mutex_lock(&wdt_lock);
    pthread_cond_signal(&wdt_cond);
    pthread_mutex_unlock(&wdt_lock);
    release_caught_signals(&saved);
}

namespace {
thread_local bool t_ending = false;
}  // namespace

bool flash_thread_ending() { return t_ending; }

void flash_sigroutine(int sig) {
    // A second caught signal would start the handler again on top of this one, inside
    // whatever call it is in (an allocation, a stream): it waits, and since the thread ends
    // here, it goes to another thread or nowhere. Never released.
    sigset_t interrupted;
    hold_caught_signals(&interrupted);

    FLOG("flash_sigroutine", "ERROR", "SIG %d catched\n\n", sig);
    FLOG("flash_cleanEnv", "INFO", "flash agingtest abnormal, break.\n");
    dump_stack();

    const int dump_fd = store_4MB_buffers();
    if (dump_fd >= 1) {
        // The dump holds the record descriptor now; once it is closed the verdict write
        // below must fail its seek, whatever another thread opens meanwhile.
        result_fd = kClosedRecordFd;
        close(dump_fd);
    }

    for (int i = 0; i < 2; ++i) {
        flash_test *test = flash_tests[i];
        if (test && test->destroy) test->destroy(test);
    }

    flash_get_alltest_result();
    delta_result(static_cast<uint32_t>(flash_result));
    cleanEnvDone(2, flash_result);

    // SIGUSR1 is the orderly stop request; every other signal is a failure.
    if (sig == SIGUSR1)
        save_test_results_temp(nullptr, 0);
    else
        finishOtherTest(2);

    // What the standard output still holds goes out before the thread ends. Before set-up
    // the main thread is the only one and its output (a file or a pipe, not yet the
    // unbuffered log) is buffered; its end is then the process's, and bionic's thread end,
    // like the kernel's, flushes no stream.
    fflush(stdout);

    // Only the thread that caught the signal ends; the process carries on.
    t_ending = true;
    flash_end_thread();
}
