// Linked into the executable of the sanitizer builds only (asan, tsan): the runtimes' options
// and suppressions travel with the executable, so a sanitized run behaves the same on the
// host, in the simulated phone and on a phone, whatever environment it is started with.
// Options in ASAN_OPTIONS, UBSAN_OPTIONS, LSAN_OPTIONS or TSAN_OPTIONS still win over these.
//
// A report fails the run where it can be seen: the runtime writes it to standard error,
// which the program moves into its log (before that: the simulator's stdout.txt), and the
// exit status is no longer 0 (1 for address, leak and undefined-behaviour reports, 66 for
// thread reports). The end-to-end scenarios look for both.
//
// Only what the program does on purpose is suppressed, each with the reason.
#include <dirent.h>
#include <sys/syscall.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "flashaging/run_control.h"

#if defined(__SANITIZE_ADDRESS__)
#define FLASHAGING_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define FLASHAGING_TSAN 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FLASHAGING_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define FLASHAGING_TSAN 1
#endif
#endif

#if defined(FLASHAGING_TSAN)
#include <sanitizer/common_interface_defs.h>
#endif

extern "C" {

#if defined(FLASHAGING_ASAN)
// Address errors end the run at once with status 1; the runtime must not raise SIGABRT,
// which the program catches as an abnormal end. The program installs its own SIGSEGV and
// SIGBUS handlers on purpose.
const char *__asan_default_options() {
    return "abort_on_error=0:halt_on_error=1:exitcode=1:allow_user_segv_handler=1:detect_leaks=1:"
           "print_summary=1";
}

const char *__ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1:exitcode=1"; }

const char *__lsan_default_suppressions() {
    return
        // The settings record is allocated once by set-up, reached through g_args for the
        // whole run and never freed: the watchdog and the abnormal-end handler may still
        // read it while the process ends.
        "leak:initialize_flashtest_env\n";
}

// The abnormal-end handler ends the thread that caught the signal, on purpose; whatever that
// thread's frames held (the filler's thread records on the main thread, an allocation it had
// just made) goes with it unfreed, since the workers still running may use it. The process
// then ends when its last thread ends: from a thread other than the main one (the only way
// the process ends there), or from the handler's own end of the last thread. The leak check
// is left out for those ends alone; a worker's buffers are kept where their starter frees
// them, so a run whose main thread lives on to its end is checked whole.
int __lsan_is_turned_off() { return gettid() != getpid() || flash_thread_ending(); }
#endif

#if defined(FLASHAGING_TSAN)
// Races are reported as they happen and the run goes on to its end, which then exits 66.
const char *__tsan_default_options() { return "halt_on_error=0:exitcode=66:report_signal_unsafe=1"; }

const char *__tsan_default_suppressions() {
    return
        // The watchdog thread is never joined: it waits out its budget (or its wake-up) and
        // ends with the process.
        "thread:flash_wdt_thread\n"
        // The abnormal-end handler logs, writes the pattern dump and the results, and calls
        // the daemon: routines that are not async-signal-safe, called from the handler on
        // purpose because the run is ending anyway.
        "signal:flash_sigroutine\n";
}
#endif

}  // extern "C"

#if defined(FLASHAGING_TSAN)
namespace {

// Live threads of this process, -1 when /proc/self/task cannot be read. A main thread that
// has ended stays listed, as a zombie, until the whole process ends: it is not counted.
int live_threads() {
    DIR *d = opendir("/proc/self/task");
    if (d == nullptr) return -1;
    int n = 0;
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        char path[300], stat[512];
        snprintf(path, sizeof path, "/proc/self/task/%s/stat", e->d_name);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;  // ended meanwhile
        ssize_t len = read(fd, stat, sizeof stat - 1);
        close(fd);
        if (len <= 0) continue;
        stat[len] = '\0';
        // "tid (name) S ...": the state follows the name's closing parenthesis.
        const char *close_paren = strrchr(stat, ')');
        char state = close_paren && close_paren[1] == ' ' ? close_paren[2] : '?';
        if (state != 'Z' && state != 'X') ++n;
    }
    closedir(d);
    return n;
}

// A process ends when its last thread ends. After an abnormal end the handler ends the main
// thread and the others finish their work; the plain build then exits 0 when the last of
// them ends. Under the thread sanitizer neither happens by itself: its own helper thread
// would outlive them all and keep the process alive for good, and a process that ends on a
// thread's way out would run the runtime's exit handlers after that thread's state is gone
// (a crash). So the helper is stopped (the runtime stops it when told that the process
// enters a sandbox, and never starts it again; it only does housekeeping that these options
// leave off) and this thread ends the process with status 0 once it is the only one left.
// That happens only after an abnormal end (otherwise main returns and exits first), so the
// runtime's end-of-process check is left out: it would report as leaked the workers that
// the ended main thread was to join, which the handler abandons on purpose. Races are
// reported in the log as they happen, before this.
void *end_with_the_last_thread(void *) {
    for (;;) {
        struct timespec pause = {0, 50 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        if (live_threads() == 1) syscall(SYS_exit_group, 0);
    }
}

__attribute__((constructor)) void take_over_the_sanitizer_helper_thread() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t t;
    // The runtime starts its helper with the first thread: this one.
    if (pthread_create(&t, &attr, end_with_the_last_thread, nullptr) == 0) __sanitizer_sandbox_on_notify(nullptr);
    pthread_attr_destroy(&attr);
}

}  // namespace
#endif
