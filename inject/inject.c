/* The fault injector: a shared library preloaded into the flashaging executable inside the
 * simulated phone (never linked into it; flashaging/ knows nothing of it). It counts the
 * executable's own calls of one kind and, at the Nth, makes that call fail with a chosen
 * error or sends a chosen signal to the calling thread just before the call or just after it
 * returns (so that the thread holds what the call took). See inject/README.md.
 *
 * Settings (environment; read and removed at load, so that the program's shell commands and
 * the health tool run without them):
 *   FLASHAGING_INJECT      KIND:N:ACTION[:WHEN] (inject_plan.h)
 *   FLASHAGING_INJECT_DIR  folder of the two files below (default /sim/inject)
 * Files:
 *   count   the number of calls of each kind counted so far: one 8-byte little-endian
 *           counter per kind, in the order of enum inject_kind (slot 0 unused), in a shared
 *           mapping of the file, so that it holds the counts however the process ends
 *   record  "armed ..." when loaded, "fired ..." when the fault is made (with the calling
 *           function's address in the executable), "call ..." for every call of the kind
 *           when tracing; one write per line
 *
 * Only calls made from the executable itself count: not the dynamic loader's, not those the
 * C library or the C++ runtime make on the program's behalf, not this library's own.
 * Counting is one atomic increment, so threads count without a lock. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "inject/inject_plan.h"

static struct inject_plan g_plan;
static uint64_t *g_count;         /* per kind, in the count file's mapping */
static int g_record_fd = -1;
static uintptr_t g_exe_start, g_exe_end, g_exe_bias;
static int g_ready;

/* Set while this library does its own work: calls made then pass straight through. */
static __thread int t_busy __attribute__((tls_model("initial-exec")));
/* Set while dlsym looks up a function of the C library: allocations then come from the
 * arena below (and are never freed), frees are dropped. */
static __thread int t_resolving __attribute__((tls_model("initial-exec")));

/* ---- the C library's own functions ------------------------------------------------------ */

static char g_boot_arena[64 * 1024] __attribute__((aligned(64)));
static size_t g_boot_used;

static int from_boot_arena(const void *p) {
    const char *c = p;
    return c >= g_boot_arena && c < g_boot_arena + sizeof g_boot_arena;
}

static void *boot_alloc(size_t size, size_t align) {
    if (align < 16) align = 16;
    size_t used = __atomic_load_n(&g_boot_used, __ATOMIC_RELAXED);
    for (;;) {
        const size_t at = (used + align - 1) & ~(align - 1);
        if (at + size > sizeof g_boot_arena || at + size < at) return NULL;
        if (__atomic_compare_exchange_n(&g_boot_used, &used, at + size, 0, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return memset(g_boot_arena + at, 0, size);
    }
}

static void *next_function(void **slot, const char *name) {
    void *f = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (f == NULL) {
        ++t_resolving;
        f = dlsym(RTLD_NEXT, name);
        --t_resolving;
        __atomic_store_n(slot, f, __ATOMIC_RELEASE);
    }
    return f;
}

/* real_NAME: the C library's NAME (the next definition after this library's). */
#define NEXT(name)                   \
    static void *name##_slot;        \
    __typeof__(&name) real_##name = (__typeof__(&name))next_function(&name##_slot, #name)

/* ---- the record ------------------------------------------------------------------------- */

static void record_line(const char *text) {
    if (g_record_fd >= 0) syscall(SYS_write, g_record_fd, text, strlen(text));
}

static int open_in(const char *dir, const char *file, int flags) {
    char path[512];
    snprintf(path, sizeof path, "%s/%s", dir, file);
    return (int)syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, 0644);
}

static int find_exe(struct dl_phdr_info *info, size_t size, void *data) {
    (void)size;
    (void)data;
    /* The first object is the executable. */
    uintptr_t lo = UINTPTR_MAX, hi = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) *ph = &info->dlpi_phdr[i];
        if (ph->p_type != PT_LOAD) continue;
        const uintptr_t start = info->dlpi_addr + ph->p_vaddr;
        if (start < lo) lo = start;
        if (start + ph->p_memsz > hi) hi = start + ph->p_memsz;
    }
    g_exe_start = lo;
    g_exe_end = hi;
    g_exe_bias = info->dlpi_addr;
    return 1;
}

__attribute__((constructor)) static void inject_load(void) {
    ++t_busy;
    const char *text = getenv("FLASHAGING_INJECT");
    const char *dir = getenv("FLASHAGING_INJECT_DIR");
    if (dir == NULL || *dir == '\0') dir = "/sim/inject";
    if (text != NULL) {
        g_record_fd = open_in(dir, "record", O_WRONLY | O_CREAT | O_APPEND);
        char line[600];
        if (parse_inject_plan(text, &g_plan)) {
            const int fd = open_in(dir, "count", O_RDWR | O_CREAT);
            if (fd >= 0 && ftruncate(fd, 4096) == 0) {
                void *m = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
                if (m != MAP_FAILED) g_count = memset(m, 0, 4096);  /* this process's counts */
            }
            if (fd >= 0) close(fd);
            dl_iterate_phdr(find_exe, NULL);
            char plan[256];
            format_inject_plan(&g_plan, plan, sizeof plan);
            snprintf(line, sizeof line, "armed %s pid %d%s\n", plan, (int)getpid(),
                     g_count == NULL ? " (no count file: nothing counted)" : "");
            g_ready = g_count != NULL;
        } else {
            snprintf(line, sizeof line, "bad setting %.500s: nothing counted\n", text);
        }
        record_line(line);
    }
    /* The program's children (its shell commands, the health tool) run without it. */
    unsetenv("LD_PRELOAD");
    unsetenv("FLASHAGING_INJECT");
    unsetenv("FLASHAGING_INJECT_DIR");
    --t_busy;
}

/* ---- counting and the fault ------------------------------------------------------------- */

enum step { STEP_PASS, STEP_FAIL, STEP_SIGNAL_BEFORE, STEP_SIGNAL_AFTER };

/* Counts a call of `kind` made from `caller` and tells what to do with it. */
static enum step count_call(enum inject_kind kind, const void *caller, const char *function) {
    if (!g_ready || t_busy != 0 || t_resolving != 0) return STEP_PASS;
    const uintptr_t ra = (uintptr_t)caller;
    if (ra < g_exe_start || ra >= g_exe_end) return STEP_PASS;
    const uint64_t n = __atomic_add_fetch(&g_count[kind], 1, __ATOMIC_RELAXED);
    if (kind != g_plan.kind) return STEP_PASS;
    char plan[256], line[512];
    if (g_plan.action == INJECT_TRACE) {
        ++t_busy;
        snprintf(line, sizeof line, "call %s %llu %s caller exe+0x%lx tid %ld\n", inject_kind_name(kind),
                 (unsigned long long)n, function, (unsigned long)(ra - g_exe_bias), (long)syscall(SYS_gettid));
        record_line(line);
        --t_busy;
        return STEP_PASS;
    }
    if (n != g_plan.n || g_plan.action == INJECT_COUNT) return STEP_PASS;
    ++t_busy;
    format_inject_plan(&g_plan, plan, sizeof plan);
    snprintf(line, sizeof line, "fired %s call %s caller exe+0x%lx tid %ld\n", plan, function,
             (unsigned long)(ra - g_exe_bias), (long)syscall(SYS_gettid));
    record_line(line);
    --t_busy;
    if (g_plan.action == INJECT_FAIL) return STEP_FAIL;
    return g_plan.after ? STEP_SIGNAL_AFTER : STEP_SIGNAL_BEFORE;
}

static void signal_self(void) { syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), g_plan.signo); }

/* Before the call: sends the signal, or sets errno and tells the caller to fail the call. */
static int fails(enum step s) {
    if (s == STEP_SIGNAL_BEFORE) signal_self();
    if (s != STEP_FAIL) return 0;
    errno = g_plan.error;
    return 1;
}

/* After the call: sends the signal (errno stays the call's). */
static void done(enum step s) {
    if (s != STEP_SIGNAL_AFTER) return;
    const int err = errno;
    signal_self();
    errno = err;
}

#define COUNT(kind, function) count_call(kind, __builtin_return_address(0), function)

/* ---- allocations ------------------------------------------------------------------------ */

void *malloc(size_t size) {
    if (t_resolving) return boot_alloc(size, 16);
    NEXT(malloc);
    const enum step s = COUNT(INJECT_ALLOC, "malloc");
    if (fails(s)) return NULL;
    void *p = real_malloc(size);
    done(s);
    return p;
}

void *calloc(size_t count, size_t size) {
    if (t_resolving) return count != 0 && size > SIZE_MAX / count ? NULL : boot_alloc(count * size, 16);
    NEXT(calloc);
    const enum step s = COUNT(INJECT_ALLOC, "calloc");
    if (fails(s)) return NULL;
    void *p = real_calloc(count, size);
    done(s);
    return p;
}

void *aligned_alloc(size_t alignment, size_t size) {
    if (t_resolving) return boot_alloc(size, alignment);
    NEXT(aligned_alloc);
    const enum step s = COUNT(INJECT_ALLOC, "aligned_alloc");
    if (fails(s)) return NULL;
    void *p = real_aligned_alloc(alignment, size);
    done(s);
    return p;
}

void *memalign(size_t alignment, size_t size) {
    if (t_resolving) return boot_alloc(size, alignment);
    NEXT(memalign);
    const enum step s = COUNT(INJECT_ALLOC, "memalign");
    if (fails(s)) return NULL;
    void *p = real_memalign(alignment, size);
    done(s);
    return p;
}

int posix_memalign(void **out, size_t alignment, size_t size) {
    if (t_resolving) {
        *out = boot_alloc(size, alignment);
        return *out == NULL ? ENOMEM : 0;
    }
    NEXT(posix_memalign);
    const enum step s = COUNT(INJECT_ALLOC, "posix_memalign");
    if (fails(s)) return g_plan.error;
    const int rc = real_posix_memalign(out, alignment, size);
    done(s);
    return rc;
}

void free(void *p) {
    if (p == NULL || from_boot_arena(p) || t_resolving) return;
    NEXT(free);
    real_free(p);
}

/* ---- files ------------------------------------------------------------------------------ */

static mode_t mode_of(int flags, va_list ap) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? (mode_t)va_arg(ap, int) : 0;
}

#define OPEN_BODY(name, call)                                   \
    va_list ap;                                                 \
    va_start(ap, flags);                                        \
    const mode_t mode = mode_of(flags, ap);                     \
    va_end(ap);                                                 \
    NEXT(name);                                                 \
    const enum step s = COUNT(INJECT_OPEN, #name);              \
    if (fails(s)) return -1;                                    \
    const int fd = call;                                        \
    done(s);                                                    \
    return fd

int open(const char *path, int flags, ...) { OPEN_BODY(open, real_open(path, flags, mode)); }
int open64(const char *path, int flags, ...) { OPEN_BODY(open64, real_open64(path, flags, mode)); }
int openat(int dirfd, const char *path, int flags, ...) { OPEN_BODY(openat, real_openat(dirfd, path, flags, mode)); }
int openat64(int dirfd, const char *path, int flags, ...) {
    OPEN_BODY(openat64, real_openat64(dirfd, path, flags, mode));
}

#define IO_BODY(kind, name, args)                               \
    NEXT(name);                                                 \
    const enum step s = COUNT(kind, #name);                     \
    if (fails(s)) return -1;                                    \
    const ssize_t n = real_##name args;                         \
    done(s);                                                    \
    return n

ssize_t write(int fd, const void *buf, size_t count) { IO_BODY(INJECT_WRITE, write, (fd, buf, count)); }
ssize_t pwrite(int fd, const void *buf, size_t count, off_t at) { IO_BODY(INJECT_WRITE, pwrite, (fd, buf, count, at)); }
ssize_t pwrite64(int fd, const void *buf, size_t count, off64_t at) {
    IO_BODY(INJECT_WRITE, pwrite64, (fd, buf, count, at));
}
ssize_t read(int fd, void *buf, size_t count) { IO_BODY(INJECT_READ, read, (fd, buf, count)); }
ssize_t pread(int fd, void *buf, size_t count, off_t at) { IO_BODY(INJECT_READ, pread, (fd, buf, count, at)); }
ssize_t pread64(int fd, void *buf, size_t count, off64_t at) { IO_BODY(INJECT_READ, pread64, (fd, buf, count, at)); }

int fsync(int fd) { IO_BODY(INJECT_FSYNC, fsync, (fd)); }
int fdatasync(int fd) { IO_BODY(INJECT_FSYNC, fdatasync, (fd)); }
int statfs(const char *path, struct statfs *buf) { IO_BODY(INJECT_STATFS, statfs, (path, buf)); }
int statfs64(const char *path, struct statfs64 *buf) { IO_BODY(INJECT_STATFS, statfs64, (path, buf)); }

/* ---- shell commands --------------------------------------------------------------------- */

FILE *popen(const char *command, const char *type) {
    NEXT(popen);
    const enum step s = COUNT(INJECT_SHELL, "popen");
    if (fails(s)) return NULL;
    FILE *f = real_popen(command, type);
    done(s);
    return f;
}

int system(const char *command) {
    NEXT(system);
    const enum step s = COUNT(INJECT_SHELL, "system");
    if (fails(s)) return -1;
    const int rc = real_system(command);
    done(s);
    return rc;
}

/* ---- threads ---------------------------------------------------------------------------- */

int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *), void *arg) {
    NEXT(pthread_create);
    const enum step s = COUNT(INJECT_CREATE, "pthread_create");
    if (fails(s)) return g_plan.error;
    const int rc = real_pthread_create(thread, attr, body, arg);
    done(s);
    return rc;
}

int pthread_join(pthread_t thread, void **result) {
    NEXT(pthread_join);
    const enum step s = COUNT(INJECT_JOIN, "pthread_join");
    if (fails(s)) return g_plan.error;
    const int rc = real_pthread_join(thread, result);
    done(s);
    return rc;
}

int pthread_mutex_lock(pthread_mutex_t *mutex) {
    NEXT(pthread_mutex_lock);
    const enum step s = COUNT(INJECT_LOCK, "pthread_mutex_lock");
    fails(s);
    const int rc = real_pthread_mutex_lock(mutex);
    done(s);
    return rc;
}

int pthread_spin_lock(pthread_spinlock_t *lock) {
    NEXT(pthread_spin_lock);
    const enum step s = COUNT(INJECT_LOCK, "pthread_spin_lock");
    fails(s);
    const int rc = real_pthread_spin_lock(lock);
    done(s);
    return rc;
}

int pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex) {
    NEXT(pthread_cond_wait);
    const enum step s = COUNT(INJECT_WAIT, "pthread_cond_wait");
    fails(s);
    const int rc = real_pthread_cond_wait(cond, mutex);
    done(s);
    return rc;
}

int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline) {
    NEXT(pthread_cond_timedwait);
    const enum step s = COUNT(INJECT_WAIT, "pthread_cond_timedwait");
    fails(s);
    const int rc = real_pthread_cond_timedwait(cond, mutex, deadline);
    done(s);
    return rc;
}

/* ---- standard output -------------------------------------------------------------------- */

int vfprintf(FILE *stream, const char *format, va_list ap) {
    NEXT(vfprintf);
    const enum step s = stream == stdout ? COUNT(INJECT_LOG, "vfprintf") : STEP_PASS;
    fails(s);
    const int n = real_vfprintf(stream, format, ap);
    done(s);
    return n;
}

int printf(const char *format, ...) {
    NEXT(vfprintf);
    const enum step s = COUNT(INJECT_LOG, "printf");
    fails(s);
    va_list ap;
    va_start(ap, format);
    const int n = real_vfprintf(stdout, format, ap);
    va_end(ap);
    done(s);
    return n;
}

int puts(const char *text) {
    NEXT(puts);
    const enum step s = COUNT(INJECT_LOG, "puts");
    fails(s);
    const int n = real_puts(text);
    done(s);
    return n;
}
