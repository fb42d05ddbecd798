/* The fault injector's setting: KIND:N:ACTION[:WHEN], e.g. "alloc:12:ENOMEM",
 * "write:37:SIGTERM:after", "lock:0:count". Parsed and printed without allocating (the
 * injector parses it while the process loads). C, so that the injector can define the C
 * library's functions with the C library's own declarations. */
#ifndef FLASHAGING_INJECT_PLAN_H
#define FLASHAGING_INJECT_PLAN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum inject_kind {
    INJECT_NONE,   /* "all": counts every kind (a counting run only) */
    INJECT_ALLOC,  /* malloc, calloc, aligned_alloc, posix_memalign, memalign */
    INJECT_OPEN,   /* open, open64, openat, openat64 */
    INJECT_WRITE,  /* write, pwrite, pwrite64 */
    INJECT_READ,   /* read, pread, pread64 */
    INJECT_FSYNC,  /* fsync, fdatasync */
    INJECT_STATFS, /* statfs, statfs64 */
    INJECT_SHELL,  /* popen, system */
    INJECT_CREATE, /* pthread_create */
    INJECT_JOIN,   /* pthread_join */
    INJECT_LOCK,   /* pthread_mutex_lock, pthread_spin_lock */
    INJECT_WAIT,   /* pthread_cond_wait, pthread_cond_timedwait */
    INJECT_LOG,    /* a write of standard output: printf, vfprintf and puts to stdout */
    INJECT_KINDS
};

enum inject_action {
    INJECT_COUNT,  /* count only: the counting run of a sweep */
    INJECT_TRACE,  /* count, and record every call of the kind with its number and caller */
    INJECT_FAIL,   /* the call fails with `error` */
    INJECT_SIGNAL, /* `signo` to the calling thread, before the call or after it returns */
};

struct inject_plan {
    enum inject_kind kind;
    uint64_t n; /* the call, counted from 1, that gets the fault */
    enum inject_action action;
    int error;  /* INJECT_FAIL */
    int signo;  /* INJECT_SIGNAL */
    int after;  /* INJECT_SIGNAL: just after the call returns */
};

/* Parses the setting; 0 (plan untouched) when it is not one, else 1. ACTION is "count",
 * "trace", an error or a signal; the kind "all" (only with count) counts every kind. Errors go by their names
 * (ENOMEM, EIO, ENOSPC, EMFILE, EAGAIN, ENOENT, EINVAL, EACCES, ENFILE), signals by theirs
 * with or without "SIG" (TERM, USR1, SEGV, INT, ABRT, ...). A fault needs N >= 1; a signal
 * fits every kind, an error only a kind whose calls can fail (not lock, wait or log). WHEN
 * (before, the default, or after) is for signals only. */
int parse_inject_plan(const char *text, struct inject_plan *plan);

/* The setting as text, as parse_inject_plan reads it ("write:37:SIGTERM:after"). */
void format_inject_plan(const struct inject_plan *plan, char *out, size_t size);

/* The kind's name ("alloc", ...; "all" for INJECT_NONE). */
const char *inject_kind_name(enum inject_kind kind);

#ifdef __cplusplus
}
#endif

#endif
