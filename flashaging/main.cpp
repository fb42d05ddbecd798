// Entry point: the fixed run sequence of the flash aging test.
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/log.h"
#include "flashaging/run_control.h"
#include "flashaging/signal_hold.h"
#include "platform/aging_client.h"

namespace {

struct timeval flash_start_time;
struct timeval flash_end_time;

double seconds_of(const struct timeval &tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

// Sizes the watchdog from the settings and starts it; it is never joined.
void flash_wdt_thread_start() {
    int64_t budget = static_cast<int64_t>(g_args->test_time) +
                     static_cast<int64_t>(g_args->num_samples) * static_cast<int64_t>(g_args->spike);
    FLOG("flash_wdt_thread_start", "INFO", "[WDT] test_time:%d, spike_time:%d, test_smp:%d, testtime:%ld\n",
         g_args->test_time, g_args->spike, g_args->num_samples, static_cast<long>(budget));
    pthread_mutex_init(&wdt_lock, nullptr);
    pthread_cond_init(&wdt_cond, nullptr);
    held_pthread_create(&wdt_thread, nullptr, flash_wdt_thread,
                        reinterpret_cast<void *>(static_cast<intptr_t>(budget)));
    FLOG("flash_wdt_thread_start", "INFO", "software watchdog init success!\n");
}

}  // namespace

int main(int argc, char **argv) {
    uint32_t flash_test_count = 0;

    signal(SIGHUP, SIG_IGN);
    for (int sig : kCaughtSignals) signal(sig, flash_sigroutine);

    FLOG("main", "INFO", "Connecting Aging UI deamon service...\n");
    // The daemon's client is a library of its own whose locks this program cannot see: its
    // calls are made with the caught signals held, like the C library's.
    sigset_t saved;
    hold_caught_signals(&saved);
    const int connected = connect_aging_server(2);
    release_caught_signals(&saved);
    if (connected == 0) return 0;
    gettimeofday(&flash_start_time, nullptr);
    hold_caught_signals(&saved);
    const int fetched = get_aging_args(2, &argc, &argv);
    release_caught_signals(&saved);
    if (fetched < 0) return -1;

    FLOG("main", "INFO", "Start init flash Aging Test env!\n");
    flash_result = initialize_flashtest_env(argc, argv);
    if (flash_result == 2) {
        FLOG_NP("main", "FATAL", "skip flashtest!\n\n");
    } else if (flash_result == 0) {
        FLOG_NP("main", "FATAL", "Init flashtest env fail\n\n");
    } else {
        FLOG("main", "INFO", "Start Flash Aging Test!\n");
        if (initialize_flash_tests(flash_tests, &flash_test_count, &flash_result_count, &flash_results) != 0) {
            FLOG_NP("main", "FATAL", "Init flashtest testlist fail\n");
            flash_result = 0;
        } else {
            flash_wdt_thread_start();
            if (run_flash_tests(flash_tests, static_cast<int32_t>(flash_test_count),
                                static_cast<int32_t>(flash_result_count), flash_results) != 0) {
                // The watchdog stays armed on this path; it dies with the process.
                flash_result = 0;
                FLOG_NP("main", "FATAL", "Run flashtest testlist fail\n");
            } else {
                driver_state_check();
                FLOG("main", "INFO", "Run flashtest success, Go to the next way...\n");
                flash_close_wdt();
            }
        }
    }

    flash_get_alltest_result();
    delta_result(static_cast<uint32_t>(flash_result));
    fv_cleanup();
    held_free(scratch_4MB);
    scratch_4MB = nullptr;
    held_free(pattern_4MB);
    pattern_4MB = nullptr;
    if (flash_results) {
        held_free(flash_results);
        flash_results = nullptr;
    }

    gettimeofday(&flash_end_time, nullptr);
    double cost = seconds_of(flash_end_time) - seconds_of(flash_start_time);
    FLOG("flash_agingcost", "INFO", "flash aging cost time :%f(S) \n", cost);

    hold_caught_signals(&saved);
    cleanEnvDone(2, flash_result);
    if (flash_result == 0) finishOtherTest(2);
    release_caught_signals(&saved);
    return 0;
}
