// Inner routines of the test framework: the pieces behind the fixed-path shells of
// framework.h, taking their inputs (paths, texts, operations) as arguments.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/healthinfo.h"

// A descriptor number that no open can ever return (the kernel's table never grows that
// far). The pass/fail record descriptor is pointed at it once the record file is closed, so
// a later verdict write fails its seek instead of landing in a file another thread opened.
inline constexpr int kClosedRecordFd = INT_MAX;

// Printable form of a text pointer: "(null)" for a null pointer, as printf shows it.
inline const char *text_or_null(const char *s) { return s ? s : "(null)"; }

// ---- runner -----------------------------------------------------------------------------

// Everything the runner reaches outside the tests themselves.
struct runner_ops {
    unsigned (*health_get)(healthinfo *info);
    int (*health_judge)(const healthinfo *before);
    int (*cleanup)();
    void (*setup)();
    int (*driver_state)();  // 1 acceptable
    void (*save)(const test_result *results, uint64_t count);
    int (*progress)(int percent, int which);
};

// The operations of a real run: health tool, work area, driver check, results file, daemon.
const runner_ops &default_runner_ops();

using test_init_fn = flash_test *(*)();

// initialize_flash_tests with the two test inits (in list order) and operations given.
int build_flash_tests(const test_init_fn inits[2], const runner_ops &ops, flash_test **tests,
                      uint32_t *test_count, uint32_t *result_count, test_result **results);

// run_flash_tests with the operations given.
int run_flash_tests_with(const runner_ops &ops, flash_test **tests, int32_t test_count,
                         int32_t result_count, test_result *results);

// ---- results file -----------------------------------------------------------------------

// One table line of the results file ("" when it cannot be formatted).
std::string format_result_line(const test_result &r);

// The header and one line per measured record onto an open stream; 0, or -1 when a line
// could not be formatted.
int write_results_table(FILE *out, const test_result *results, uint64_t count);

// save_test_results_temp writing to `path`.
int save_test_results_temp_at(const char *path, const test_result *results, uint64_t count);

// Moves `temp_path` over `final_path` and gives it mode 0644 and owner 1000:1000.
void install_results_file(const char *temp_path, const char *final_path);

// ---- report sections --------------------------------------------------------------------

int write_test_info(FILE *out, const device_properties &props);
int write_zarvo_healthinfo(FILE *out, const char *const *places, size_t n_places);
int write_memory_temperature(FILE *out, const char *node);
int write_healthinfo_block(FILE *out, const healthinfo &info);
int write_ufs_signal_record(FILE *out, const char *record_path);

// The "UFS Signal Record:" title, then one "item: value" line per line of the open record
// (lines without an item or a value are logged and skipped). Returns 0.
int write_ufs_signal_lines(FILE *out, FILE *in);

// ---- summary and pattern record ---------------------------------------------------------

// delta_result on a given descriptor slot; `path` names the record file (mode, owner,
// messages). After a successful write the descriptor is closed and the slot set to
// kClosedRecordFd.
void write_verdict_record(int &fd, const char *path, uint32_t verdict);

// store_4MB_buffers writing to `path`.
int store_4MB_buffers_at(const char *path);
