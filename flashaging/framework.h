// Test descriptor and result record, the test list and runner, the results file with its
// report sections, and the end-of-run summary with the pass/fail record.
#pragma once

#include <cstdint>
#include <cstdio>

// One measured result: one line of the results file.
struct test_result {
    const char *version;
    const char *description;
    int32_t test_id;
    uint32_t result_id;
    const char *units;
    float minimum;
    float maximum;  // the largest finite float means "no upper limit"
    float value;    // not greater than 0 = not measured
    float stdev;
    uint32_t num_samples;
    uint8_t test_ran;
    double duration_sec;
    uint8_t status;  // 0 failed, 1 passed, 2 not yet run; anything else an error state
};

// A test, driven through its operations; its one result record lies right behind them.
struct flash_test {
    int (*run)(flash_test *self);
    test_result *(*get_results)(flash_test *self, uint32_t *count);
    int (*destroy)(flash_test *self);
    test_result results[1];
};

// ---- run-wide state ---------------------------------------------------------------------

extern int32_t flash_result;            // 0 failed, 1 passed or going on, 2 skipped
extern flash_test *flash_tests[2];      // the test list
extern uint32_t flash_result_count;     // records in flash_results
extern test_result *flash_results;      // the results array

// ---- test list and runner ---------------------------------------------------------------

int initialize_flash_tests(flash_test **tests, uint32_t *test_count, uint32_t *result_count,
                           test_result **results);
int run_flash_tests(flash_test **tests, int32_t test_count, int32_t result_count,
                    test_result *results);

// ---- results file and report sections ---------------------------------------------------

int save_test_results_temp(const test_result *results, uint64_t count);
void save_test_results(const test_result *results, uint64_t count);

int64_t read_file(const char *path, char *buf, uint64_t max);
int save_test_info(FILE *out);
int save_zarvo_healthinfo(FILE *out);
int save_memory_temperature(FILE *out);
int save_healthinfo(FILE *out);
int save_ufs_signal_record(FILE *out);

// ---- summary and pattern record ---------------------------------------------------------

void flash_get_alltest_result();
void delta_result(uint32_t verdict);
int store_4MB_buffers();
