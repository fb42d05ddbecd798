// Log lines: "[date time.ms][tid]" prefix, then "[FLASH]LEVEL:function:line message".
#pragma once

#include <cstdint>

// Writes the prefix "[%s][%d]" (local time with milliseconds, kernel thread id).
void fv_print_time();

// Writes the prefix and an INFO body naming "log_errno" with the given fixed message.
void log_errno(const char *msg);

// (a_sec + a_nsec * 1e-9) - (b_sec + b_nsec * 1e-9), narrowed to float; a is the later instant.
float timediff(int64_t a_sec, int64_t a_nsec, int64_t b_sec, int64_t b_nsec);

// The one output routine of every module: printf to standard output. The caught signals
// are held for the length of the line (signal_hold.h): standard output's lock is
// never left with an ended thread.
__attribute__((format(printf, 1, 2))) void flash_printf(const char *fmt, ...);

// The prefix of fv_print_time, then the body as flash_printf prints it: two writes, one hold.
__attribute__((format(printf, 1, 2))) void flash_log_line(const char *fmt, ...);

// Formats the prefix text into buf (at least 64 bytes) for the given wall time; used by
// fv_print_time and by tests.
void fv_format_time(char *buf, long sec, long usec);

// A log body "[FLASH]LEVEL:tag:line message" with the timestamp prefix (FLOG) or without
// it (FLOG_NP). `tag` is the speaking routine's name as the log shows it; LEVEL is one of
// "INFO", "WARN", "ERROR", "FATAL". The format is checked by the compiler.
#define FLOG(tag, level, fmt, ...) \
    flash_log_line("[FLASH]" level ":%s:%d " fmt, tag, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define FLOG_NP(tag, level, fmt, ...) \
    flash_printf("[FLASH]" level ":%s:%d " fmt, tag, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
