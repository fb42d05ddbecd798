// The caught signals held back from a thread while it is inside a section that takes a lock
// the rest of the run needs: the C library's own (the standard-output lock of a log line,
// malloc's arena lock, the random generator's lock, the stream list of fopen and popen, the
// signal dispositions that system() changes for its duration) and the program's (the
// watchdog's mutex, the barrier's mutex, the spin locks).
//
// The abnormal-end handler ends the thread that caught a signal, and how much of the thread's
// state that releases depends on the C library: glibc's pthread_exit unwinds the thread's
// frames (and aborts the process when a frame cannot be unwound at the call it is in), bionic's
// runs only the cleanup handlers, and the kernel's thread exit releases nothing. A thread that
// holds the caught signals while it holds such a lock takes a signal that arrives meanwhile
// only once it has let go, so an ended thread never holds anything, whatever ends it.
//
// A held signal is only deferred: a signal sent to the whole process goes to a thread that
// does not hold it, and one sent to this thread runs the handler as soon as the section is
// left. Each hold and each release is one system call.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <malloc.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>

// The ten signals the abnormal-end handler is installed for, in the order of installation.
inline constexpr int kCaughtSignals[10] = {SIGINT, SIGTERM, SIGALRM, SIGBUS,  SIGFPE,
                                           SIGILL, SIGSEGV, SIGTRAP, SIGABRT, SIGUSR1};

// Holds the caught signals back from the calling thread; *saved receives its mask as it was.
void hold_caught_signals(sigset_t *saved);
// Gives the calling thread its mask back; a caught signal that came meanwhile is taken now.
void release_caught_signals(const sigset_t *saved);

// Whether a caught signal waits for the calling thread (sent to it or to the process).
bool caught_signal_pending();

// pthread_cond_timedwait on the real-time clock, for a thread that holds the caught signals
// and `mutex` (saved: its mask before the hold). The wait is cut into slices of at most
// 200 ms; between two slices a caught signal waiting for this thread is let in with the
// mutex released, so that the handler never ends the thread while the mutex is held or
// while the thread is inside the wait. Returns the wait's first answer other than a slice's
// own time-out: 0 when woken (signalled or spuriously), ETIMEDOUT at the deadline, or an
// error. A slice that ends is no wake-up.
int held_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline,
                        const sigset_t *saved);

// ---- C library calls with the caught signals held ------------------------------------------
// Each takes the lock or the process-wide state named above for the length of the call
// only; errno is the call's own. Always inlined, so that the call comes from the function
// that makes it (as a fault injector sees the program's calls).
// The shell of system() and popen() starts with the held mask (the C library hands the
// caller's mask on); the commands of this program need no signal. A thread inherits the mask
// of the moment it is started: one started here (or inside any other hold) begins with the
// caught signals held, and each thread body of the program lets them in first thing
// (let_caught_signals_in), as a thread started outside a hold has them.

// Memory left to a thread that could not be joined: it may still run and use it, so it is never
// freed. It stays listed for the rest of the run, so that a leak check sees it kept, not lost
// (room for 64: one or two a cycle whose join failed; past that it is only not listed).
void leave_to_unjoined_thread(void *p);

// Lets the caught signals in for the calling thread (the first step of every thread body).
void let_caught_signals_in();

[[gnu::always_inline]] inline void *held_malloc(size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    void *p = malloc(size);
    release_caught_signals(&saved);
    return p;
}

[[gnu::always_inline]] inline void *held_calloc(size_t count, size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    void *p = calloc(count, size);
    release_caught_signals(&saved);
    return p;
}

[[gnu::always_inline]] inline void *held_aligned_alloc(size_t alignment, size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    void *p = aligned_alloc(alignment, size);
    release_caught_signals(&saved);
    return p;
}

[[gnu::always_inline]] inline void *held_memalign(size_t alignment, size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    void *p = memalign(alignment, size);
    release_caught_signals(&saved);
    return p;
}

[[gnu::always_inline]] inline void held_free(void *p) {
    if (p == nullptr) return;
    sigset_t saved;
    hold_caught_signals(&saved);
    free(p);
    release_caught_signals(&saved);
}

// A buffer kept in a slot of a record that outlives the thread: allocated and put in the slot
// in one held step, freed and taken out of it in one held step. A thread that the handler
// ends leaves it in the slot, and whoever joins the thread frees it there; it is freed once.
[[gnu::always_inline]] inline void *held_aligned_alloc_kept(void **slot, size_t alignment, size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    void *p = aligned_alloc(alignment, size);
    *slot = p;
    release_caught_signals(&saved);
    return p;
}

[[gnu::always_inline]] inline void *held_malloc_kept(void **slot, size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    void *p = malloc(size);
    *slot = p;
    release_caught_signals(&saved);
    return p;
}

[[gnu::always_inline]] inline void held_free_kept(void **slot) {
    if (*slot == nullptr) return;
    sigset_t saved;
    hold_caught_signals(&saved);
    free(*slot);
    *slot = nullptr;
    release_caught_signals(&saved);
}

[[gnu::always_inline]] inline int held_rand() {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int r = rand();
    release_caught_signals(&saved);
    return r;
}

[[gnu::always_inline]] inline void held_srand(unsigned seed) {
    sigset_t saved;
    hold_caught_signals(&saved);
    srand(seed);
    release_caught_signals(&saved);
}

[[gnu::always_inline]] inline int held_system(const char *command) {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int rc = system(command);
    release_caught_signals(&saved);
    return rc;
}

[[gnu::always_inline]] inline FILE *held_popen(const char *command, const char *mode) {
    sigset_t saved;
    hold_caught_signals(&saved);
    FILE *f = popen(command, mode);
    release_caught_signals(&saved);
    return f;
}

[[gnu::always_inline]] inline int held_pclose(FILE *stream) {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int rc = pclose(stream);
    release_caught_signals(&saved);
    return rc;
}

[[gnu::always_inline]] inline FILE *held_fopen(const char *path, const char *mode) {
    sigset_t saved;
    hold_caught_signals(&saved);
    FILE *f = fopen(path, mode);
    release_caught_signals(&saved);
    return f;
}

[[gnu::always_inline]] inline int held_fclose(FILE *stream) {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int rc = fclose(stream);
    release_caught_signals(&saved);
    return rc;
}

[[gnu::always_inline]] inline char *held_fgets(char *line, int size, FILE *stream) {
    sigset_t saved;
    hold_caught_signals(&saved);
    char *r = fgets(line, size, stream);
    release_caught_signals(&saved);
    return r;
}

[[gnu::always_inline]] inline int held_setvbuf(FILE *stream, char *buf, int mode, size_t size) {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int rc = setvbuf(stream, buf, mode, size);
    release_caught_signals(&saved);
    return rc;
}

[[gnu::always_inline]] inline int held_pthread_create(pthread_t *thread, const pthread_attr_t *attr,
                                                     void *(*body)(void *), void *arg) {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int rc = pthread_create(thread, attr, body, arg);
    release_caught_signals(&saved);
    return rc;
}
