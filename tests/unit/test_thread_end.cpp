// A thread ended by the abnormal-end handler leaves nothing held that the rest of the run
// needs, whatever the C library does when it ends a thread. Each case ends a thread at one
// of the places where it holds something (a signal to it there), in a process of its own,
// twice: with pthread_exit as glibc does it (the thread's frames are unwound) and with the
// kernel's thread exit (nothing is unwound or cleaned up: stricter than bionic), then checks
// that the rest goes on within a time limit.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/pattern_internal.h"
#include "flashaging/run_control.h"
#include "flashaging/signal_hold.h"
#include "flashaging/storage_filler.h"
#include "unit_support.h"

namespace {

enum class End { kUnwind, kKernel };

std::atomic<int> g_end_kind{0};

// Stands in for the abnormal-end handler's last step only.
void end_this_thread(int) {
    if (g_end_kind.load() == 1)
        for (;;) syscall(SYS_exit, 0);
    pthread_exit(nullptr);
}

// SIGUSR1 (one of the caught signals) ends the thread that takes it; installed as signal()
// installs the product's handler (system calls restart).
void end_on_sigusr1(End end) {
    g_end_kind.store(end == End::kKernel ? 1 : 0);
    struct sigaction sa {};
    sa.sa_handler = end_this_thread;
    sa.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &sa, nullptr);
}

pid_t own_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void signal_thread(pid_t tid) { syscall(SYS_tgkill, getpid(), tid, SIGUSR1); }

// The thread's scheduler state from /proc ('S' sleeping, 'R' running; '?' when gone).
char state_of(pid_t tid) {
    const std::string stat = ut::slurp("/proc/self/task/" + std::to_string(tid) + "/stat");
    const size_t close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

// Whether the thread is seen asleep three times in a row, 20 ms apart, within `seconds`.
bool asleep(pid_t tid, double seconds) {
    int seen = 0;
    for (double waited = 0; waited < seconds; waited += 0.02) {
        seen = state_of(tid) == 'S' ? seen + 1 : 0;
        if (seen == 3) return true;
        usleep(20000);
    }
    return false;
}

struct Task {
    void (*body)(void *);
    void *arg;
    std::atomic<pid_t> tid{0};
    std::atomic<bool> returned{false};
    pthread_t thread{};
};

void *run_task(void *p) {
    auto *t = static_cast<Task *>(p);
    t->tid.store(own_tid());
    t->body(t->arg);
    t->returned.store(true);
    return nullptr;
}

// Starts body(arg) on a thread of its own and waits until it runs.
void start(Task &t, void (*body)(void *), void *arg = nullptr) {
    t.body = body;
    t.arg = arg;
    ASSERT_EQ(pthread_create(&t.thread, nullptr, run_task, &t), 0);
    while (t.tid.load() == 0) usleep(1000);
}

// Whether the task returned within `seconds` (a task stuck on a lock never does; it is left).
bool returns_within(Task &t, double seconds) {
    for (double waited = 0; waited < seconds && !t.returned.load(); waited += 0.01) usleep(10000);
    if (!t.returned.load()) return false;
    pthread_join(t.thread, nullptr);
    return true;
}

// Whether the thread ended (returned or was ended) within `seconds`. It is joined unless
// asked not to be: a joined thread's descriptor goes to the next thread started, which then
// passes for the owner of a stream lock the ended one kept.
bool ends_within(Task &t, double seconds, bool join = true) {
    for (double waited = 0; waited < seconds; waited += 0.01) {
        if (state_of(t.tid.load()) == '?' || t.returned.load()) {
            if (join) pthread_join(t.thread, nullptr);
            return true;
        }
        usleep(10000);
    }
    return false;
}

// Runs `scenario` in a child process that ends with its result: 0 when all went on. The
// thread sanitizer's runtime cannot follow a thread ended from a signal handler inside a
// blocking call (its own check fails); the plain and address builds run these.
#if defined(__SANITIZE_THREAD__)
#define EXPECT_GOES_ON(scenario, end)                                                        \
    do {                                                                                     \
        (void)&scenario;                                                                     \
        GTEST_SKIP() << "not under the thread sanitizer";                                    \
    } while (0)
#else
// The address sanitizer's runtime cannot start a thread after one ended by the kernel's
// thread exit (its per-thread record is never released: a CHECK fails in the next thread
// start), so under it only the unwinding end runs.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKernelEndRuns = false;
#else
constexpr bool kKernelEndRuns = true;
#endif
#define EXPECT_GOES_ON(scenario, end)                                                        \
    do {                                                                                     \
        if (!kKernelEndRuns && (end) == End::kKernel) break;                                 \
        GTEST_FLAG_SET(death_test_style, "fast");                                            \
        EXPECT_EXIT(_exit(scenario(end)), ::testing::ExitedWithCode(0), "") << #end;         \
    } while (0)
#endif

void quiet_stdout() {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
}

// ---- the watchdog's wait -------------------------------------------------------------------

void watchdog_body(void *) { flash_wdt_thread(reinterpret_cast<void *>(static_cast<intptr_t>(600))); }
void close_watchdog(void *) { flash_close_wdt(); }

// Ended while it waits out its budget, the watchdog must not keep wdt_lock: after a passed
// run the main thread's flash_close_wdt takes it.
int watchdog_ended_in_its_wait(End end) {
    quiet_stdout();
    end_on_sigusr1(end);
    static test_args args{};
    g_args = &args;
    pthread_mutex_init(&wdt_lock, nullptr);
    pthread_cond_init(&wdt_cond, nullptr);
    Task watchdog;
    start(watchdog, watchdog_body);
    if (!asleep(watchdog.tid, 5)) return 10;
    signal_thread(watchdog.tid);
    if (!ends_within(watchdog, 5)) return 11;
    if (watchdog.returned.load()) return 12;  // ended by the signal, not by its budget
    Task closer;
    start(closer, close_watchdog);
    if (!returns_within(closer, 5)) return 13;  // flash_close_wdt waits for the lock for ever
    return args.test_over.load() == 0 ? 0 : 14;
}

TEST(ThreadEnd, WatchdogEndedInItsWaitLeavesItsLockToFlashCloseWdt) {
    EXPECT_GOES_ON(watchdog_ended_in_its_wait, End::kUnwind);
    EXPECT_GOES_ON(watchdog_ended_in_its_wait, End::kKernel);
}

// ---- a writer and the writers' shared pattern buffers --------------------------------------

struct WriterJob {
    std::string dir;
    pthread_spinlock_t *lock;
};

void write_one_file(void *p) {
    auto *job = static_cast<WriterJob *>(p);
    uint64_t bytes = 0;
    random_finish_group_file(job->lock, job->dir.c_str(), &bytes);
}

void free_units(void *) { file_unit_free(); }
void free_shared_buffers(void *) { pattern_shared_buffers_free(); }

std::string g_pattern_dir;

// Writers ended right after they created their file, as they make their 4 MiB buffer of the
// pattern (case 2: 32 MiB files of pattern 7, no shared buffer laid down), 25 times over:
// then the next writer writes its file, and file_unit_free frees the pattern buffers.
int writers_ended_making_their_buffer(End end) {
    quiet_stdout();
    end_on_sigusr1(end);
    pattern_init(g_pattern_dir.c_str(), 2);
    const int watch = inotify_init1(IN_CLOEXEC);
    if (watch < 0 || inotify_add_watch(watch, g_pattern_dir.c_str(), IN_CREATE) < 0) return 20;
    pthread_spinlock_t lock;
    pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
    WriterJob job{g_pattern_dir, &lock};
    for (int round = 0; round < 25; ++round) {
        Task freer;
        start(freer, free_shared_buffers);
        if (!returns_within(freer, 10)) return 21;  // an ended writer kept their lock
        init_file_group(2);
        Task writer;
        start(writer, write_one_file, &job);
        struct pollfd pfd = {watch, POLLIN, 0};
        if (poll(&pfd, 1, 10000) != 1) return 22;
        signal_thread(writer.tid);
        char events[4096];
        if (read(watch, events, sizeof events) <= 0) return 23;
        if (!ends_within(writer, 10)) return 24;
    }
    Task next;
    start(next, write_one_file, &job);
    if (!returns_within(next, 60)) return 25;  // the next writer waits for an ended one's lock
    Task freer;
    start(freer, free_units);
    return returns_within(freer, 10) ? 0 : 26;
}

TEST(ThreadEnd, WriterEndedMakingItsPatternBufferStopsNoOtherWriter) {
    ut::ScratchDir tmp;
    g_pattern_dir = tmp.sub("file_pattern");
    EXPECT_GOES_ON(writers_ended_making_their_buffer, End::kUnwind);
    EXPECT_GOES_ON(writers_ended_making_their_buffer, End::kKernel);
}

// ---- the results table ---------------------------------------------------------------------

FILE *g_table_out;
std::vector<test_result> g_table;

void write_tables(void *) {
    for (;;) write_results_table(g_table_out, g_table.data(), g_table.size());
}

// Threads writing the results table are ended over and over at random moments: inside the
// header's and the lines' formatting, the stream and the frees. The process must neither
// abort (a frame that cannot be unwound at its call) nor stop (a lock left held); the last
// table is written by a thread that is not ended.
int table_writers_ended_at_random(End end) {
    quiet_stdout();
    end_on_sigusr1(end);
    g_table_out = fopen("/dev/null", "w");
    test_result r{};
    r.version = "1.0";
    r.description = "a measured result";
    r.value = 12.5f;
    r.maximum = 3.4e38f;
    r.status = 1;
    g_table.assign(2000, r);
    srand(7);
    for (int round = 0; round < 150; ++round) {
        Task writer;
        start(writer, write_tables);
        usleep(static_cast<useconds_t>(200 + rand() % 3000));
        signal_thread(writer.tid);
        if (!ends_within(writer, 10)) return 30;
    }
    g_table.resize(3);
    Task last;
    start(last, [](void *) { write_results_table(g_table_out, g_table.data(), g_table.size()); });
    return returns_within(last, 10) ? 0 : 31;
}

TEST(ThreadEnd, ResultsTableWritersEndedAtRandomNeitherAbortNorStopTheNext) {
    EXPECT_GOES_ON(table_writers_ended_at_random, End::kUnwind);
    EXPECT_GOES_ON(table_writers_ended_at_random, End::kKernel);
}

// ---- a log line ----------------------------------------------------------------------------

void log_a_line(void *) { FLOG("test_thread_end", "INFO", "a line of the log\n"); }

void drain(void *fd) {
    char buf[65536];
    while (read(static_cast<int>(reinterpret_cast<intptr_t>(fd)), buf, sizeof buf) > 0) {
    }
}

// A thread ended in the middle of a log line (its write waits for a full pipe, under the
// standard-output lock): the next log line of another thread goes out.
int log_line_ended_in_its_write(End end) {
    end_on_sigusr1(end);
    int p[2];
    if (pipe(p) != 0) return 40;
    dup2(p[1], 1);
    setvbuf(stdout, nullptr, _IONBF, 0);
    fcntl(p[1], F_SETFL, O_NONBLOCK);
    static char fill[4096];
    while (write(p[1], fill, sizeof fill) > 0 || errno == EINTR) {
    }
    fcntl(p[1], F_SETFL, 0);
    Task writer;
    start(writer, log_a_line);
    if (!asleep(writer.tid, 5)) return 41;
    signal_thread(writer.tid);
    usleep(100000);
    Task reader;
    start(reader, drain, reinterpret_cast<void *>(static_cast<intptr_t>(p[0])));
    if (!ends_within(writer, 5, false)) return 42;
    Task next;
    start(next, log_a_line);
    return returns_within(next, 5) ? 0 : 43;  // the ended thread kept standard output's lock
}

TEST(ThreadEnd, LogLineEndedInItsWriteLeavesStandardOutputToTheNextLine) {
    EXPECT_GOES_ON(log_line_ended_in_its_write, End::kUnwind);
    EXPECT_GOES_ON(log_line_ended_in_its_write, End::kKernel);
}

// ---- a shell command -----------------------------------------------------------------------

void on_sigint(int) {}
void slow_shell_command(void *) { system_rm_file("/nonexistent-flashaging-dir; sleep 1"); }

// A thread ended while system() waits for its shell: SIGINT must not stay ignored (system()
// ignores it while the shell runs, and the handler must still catch it afterwards).
int shell_command_ended_while_it_runs(End end) {
    quiet_stdout();
    end_on_sigusr1(end);
    signal(SIGINT, on_sigint);
    Task shell;
    start(shell, slow_shell_command);
    usleep(200000);
    if (!asleep(shell.tid, 5)) return 50;
    signal_thread(shell.tid);
    if (!ends_within(shell, 5)) return 51;
    usleep(1500000);  // the shell has ended
    struct sigaction now {};
    sigaction(SIGINT, nullptr, &now);
    return now.sa_handler == on_sigint ? 0 : 52;
}

TEST(ThreadEnd, ShellCommandEndedWhileItRunsLeavesSigintCaught) {
    EXPECT_GOES_ON(shell_command_ended_while_it_runs, End::kUnwind);
    EXPECT_GOES_ON(shell_command_ended_while_it_runs, End::kKernel);
}

// ---- threads started inside a hold ---------------------------------------------------------

pthread_t g_reader_handle;
std::atomic<pid_t> g_reader_tid{0};
std::atomic<bool> g_reader_returned{false};

void *reader_body(void *rec) {
    g_reader_tid.store(own_tid());
    read_disturb_fn(rec);
    g_reader_returned.store(true);
    return nullptr;
}

// A thread the program starts (here a reader, started as the storage filler starts it, with
// the caught signals held around the start) takes a caught signal sent to it: the signal
// ends it during its first pause, long before it would give up its search for files.
int reader_started_inside_a_hold_takes_a_signal(End end) {
    quiet_stdout();
    end_on_sigusr1(end);
    g_cur_group_num.store(0);  // no case: the reader searches in vain for some 10 s
    static filler rec{};
    if (held_pthread_create(&g_reader_handle, nullptr, reader_body, &rec) != 0) return 60;
    while (g_reader_tid.load() == 0) usleep(1000);
    if (!asleep(g_reader_tid.load(), 5)) return 61;
    signal_thread(g_reader_tid.load());
    for (int i = 0; i < 200; ++i) {
        if (state_of(g_reader_tid.load()) == '?') return g_reader_returned.load() ? 62 : 0;
        usleep(10000);
    }
    return 63;  // the signal waits: the reader still holds the caught signals
}

TEST(ThreadEnd, ThreadStartedInsideAHoldTakesCaughtSignals) {
    EXPECT_GOES_ON(reader_started_inside_a_hold_takes_a_signal, End::kUnwind);
    EXPECT_GOES_ON(reader_started_inside_a_hold_takes_a_signal, End::kKernel);
}

// ---- the hold itself -----------------------------------------------------------------------

std::atomic<int> g_taken{0};
pthread_mutex_t g_wait_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_wait_cond = PTHREAD_COND_INITIALIZER;
std::atomic<int> g_lock_free_in_handler{-1};

void note_signal(int) {
    g_taken.fetch_add(1);
    // The handler finds the waiter's mutex free.
    if (pthread_mutex_trylock(&g_wait_lock) == 0) {
        g_lock_free_in_handler.store(1);
        pthread_mutex_unlock(&g_wait_lock);
    } else {
        g_lock_free_in_handler.store(0);
    }
}

struct NoteSigusr1 {
    NoteSigusr1() {
        struct sigaction sa {};
        sa.sa_handler = note_signal;
        sa.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &sa, &old);
        g_taken.store(0);
    }
    ~NoteSigusr1() { sigaction(SIGUSR1, &old, nullptr); }
    struct sigaction old {};
};

TEST(SignalHold, ACaughtSignalWaitsForTheReleaseAndErrnoSurvivesIt) {
    NoteSigusr1 note;
    sigset_t saved;
    hold_caught_signals(&saved);
    pthread_kill(pthread_self(), SIGUSR1);
    EXPECT_TRUE(caught_signal_pending());
    EXPECT_EQ(g_taken.load(), 0);
    errno = ENOSPC;
    release_caught_signals(&saved);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(g_taken.load(), 1);
    EXPECT_FALSE(caught_signal_pending());
    // SIGUSR2 is not one of them: never held.
    hold_caught_signals(&saved);
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGUSR2), 0);
    for (int sig : kCaughtSignals) EXPECT_EQ(sigismember(&now, sig), 1) << sig;
    release_caught_signals(&saved);
}

timespec realtime_in(double seconds) {
    timespec t {};
    clock_gettime(CLOCK_REALTIME, &t);
    const auto whole = static_cast<time_t>(seconds);
    t.tv_sec += whole;
    t.tv_nsec += static_cast<long>((seconds - static_cast<double>(whole)) * 1e9);
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

// The sliced wait answers as one wait would: ETIMEDOUT at its deadline (a past deadline at
// once), 0 when signalled; a caught signal sent meanwhile runs the handler between two
// slices with the mutex free, and the wait goes on after it.
TEST(SignalHold, TimedWaitTakesASignalBetweenSlicesWithTheMutexFree) {
    NoteSigusr1 note;
    sigset_t saved;
    hold_caught_signals(&saved);
    pthread_mutex_lock(&g_wait_lock);
    timespec past = realtime_in(0);
    past.tv_sec -= 1;
    EXPECT_EQ(held_cond_timedwait(&g_wait_cond, &g_wait_lock, &past, &saved), ETIMEDOUT);
    timespec soon = realtime_in(0.5);
    EXPECT_EQ(held_cond_timedwait(&g_wait_cond, &g_wait_lock, &soon, &saved), ETIMEDOUT);
    timespec now = realtime_in(0);
    EXPECT_TRUE(now.tv_sec > soon.tv_sec || (now.tv_sec == soon.tv_sec && now.tv_nsec >= soon.tv_nsec));
    pthread_mutex_unlock(&g_wait_lock);
    release_caught_signals(&saved);

    std::atomic<pid_t> waiter_tid{0};
    std::atomic<int> rc{-1};
    std::thread waiter([&] {
        waiter_tid.store(own_tid());
        sigset_t mine;
        hold_caught_signals(&mine);
        pthread_mutex_lock(&g_wait_lock);
        timespec later = realtime_in(30);
        rc.store(held_cond_timedwait(&g_wait_cond, &g_wait_lock, &later, &mine));
        pthread_mutex_unlock(&g_wait_lock);
        release_caught_signals(&mine);
    });
    while (waiter_tid.load() == 0) usleep(1000);
    ASSERT_TRUE(asleep(waiter_tid.load(), 5));
    signal_thread(waiter_tid.load());
    for (int i = 0; i < 500 && g_taken.load() == 0; ++i) usleep(2000);
    EXPECT_EQ(g_taken.load(), 1);
    EXPECT_EQ(g_lock_free_in_handler.load(), 1);
    EXPECT_EQ(rc.load(), -1) << "the wait goes on after the handler";
    ASSERT_TRUE(asleep(waiter_tid.load(), 5));
    pthread_mutex_lock(&g_wait_lock);
    pthread_cond_signal(&g_wait_cond);
    pthread_mutex_unlock(&g_wait_lock);
    waiter.join();
    EXPECT_EQ(rc.load(), 0);
}

}  // namespace
