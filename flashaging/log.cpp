#include "flashaging/log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "flashaging/signal_hold.h"

namespace {

// The prefix, for a thread that holds the caught signals (localtime_r takes the time zone's
// lock, the write standard output's).
void print_prefix() {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    char text[64];
    fv_format_time(text, tv.tv_sec, tv.tv_usec);
    printf("[%s][%d]", text, static_cast<int>(gettid()));
}

}  // namespace

void fv_format_time(char *buf, long sec, long usec) {
    struct tm tmv {};
    time_t t = static_cast<time_t>(sec);
    localtime_r(&t, &tmv);
    snprintf(buf, 64, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", tmv.tm_year + 1900, tmv.tm_mon + 1,
             tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, usec / 1000);
}

void fv_print_time() {
    sigset_t saved;
    hold_caught_signals(&saved);
    print_prefix();
    release_caught_signals(&saved);
}

void log_errno(const char *msg) {
    FLOG("log_errno", "INFO", "%s\n", msg);
}

float timediff(int64_t a_sec, int64_t a_nsec, int64_t b_sec, int64_t b_nsec) {
    double a = static_cast<double>(a_sec) + static_cast<double>(a_nsec) * 1e-9;
    double b = static_cast<double>(b_sec) + static_cast<double>(b_nsec) * 1e-9;
    return static_cast<float>(a - b);
}

void flash_printf(const char *fmt, ...) {
    sigset_t saved;
    hold_caught_signals(&saved);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stdout, fmt, ap);
    va_end(ap);
    release_caught_signals(&saved);
}

void flash_log_line(const char *fmt, ...) {
    sigset_t saved;
    hold_caught_signals(&saved);
    print_prefix();
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stdout, fmt, ap);
    va_end(ap);
    release_caught_signals(&saved);
}
