// The test list and the runner: which tests run, in what order, and how their records reach
// the results array.
#include "flashaging/framework.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdlib>

#include "flashaging/enter_h8.h"
#include "flashaging/environment.h"
#include "flashaging/framework_internal.h"
#include "flashaging/healthinfo.h"
#include "flashaging/log.h"
#include "flashaging/run_control.h"
#include "flashaging/signal_hold.h"
#include "flashaging/storage_filler.h"
#include "platform/aging_client.h"

int32_t flash_result = 1;
flash_test *flash_tests[2] = {nullptr, nullptr};
uint32_t flash_result_count = 0;
test_result *flash_results = nullptr;

namespace {

constexpr const char *kInitTag = "initialize_flash_tests";
constexpr const char *kRunTag = "run_flash_tests";

int current_test_num() { return g_args ? g_args->test_num : -1; }
int current_skip_err_state() { return g_args ? g_args->skip_err_state : 0; }

// Copies a listed test's records into the array from *place on, never at or past `limit`.
void copy_listed_records(flash_test *test, test_result *results, int32_t *place, int64_t limit,
                         int32_t total) {
    uint32_t count = 0;
    test_result *records = test->get_results ? test->get_results(test, &count) : nullptr;
    if (!records) return;
    for (uint32_t j = 0; j < count; ++j) {
        if (*place >= limit) {
            FLOG(kInitTag, "ERROR", "Total number of results grew between calls %d > %d\n", *place,
                 total);
            return;
        }
        results[*place] = records[j];
        ++*place;
    }
}

double seconds_of(const struct timeval &tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1000000.0;
}

// The daemon's client is a library whose locks this program cannot see.
int held_setprogress(int percent, int which) {
    sigset_t saved;
    hold_caught_signals(&saved);
    const int rc = setprogress(percent, which);
    release_caught_signals(&saved);
    return rc;
}

}  // namespace

const runner_ops &default_runner_ops() {
    static const runner_ops ops = {
        healthinfo_get, healthinfo_judge, fv_cleanup, fv_setup,
        device_get_flash_errors, save_test_results, held_setprogress,
    };
    return ops;
}

int build_flash_tests(const test_init_fn inits[2], const runner_ops &ops, flash_test **tests,
                      uint32_t *test_count, uint32_t *result_count, test_result **results) {
    uint32_t listed = 0;
    uint32_t total = 0;
    tests[0] = nullptr;
    tests[1] = nullptr;

    for (int k = 0; k < 2; ++k) {
        flash_test *test = inits[k] ? inits[k]() : nullptr;
        if (!test) continue;
        uint32_t count = 0;
        test_result *records = test->get_results ? test->get_results(test, &count) : nullptr;
        const bool has_record = records != nullptr && count > 0;
        const int32_t first_id = has_record ? records[0].test_id : 0;
        const int test_num = current_test_num();
        // A test is chosen by the id of its first record; one without records cannot match.
        if (test_num != -1 && (!has_record || test_num != first_id)) {
            FLOG(kInitTag, "INFO", "test_num = %d, result = %u\n", test_num,
                 static_cast<unsigned>(first_id));
            continue;
        }
        tests[listed++] = test;
        total += count;
    }

    const int32_t signed_total = static_cast<int32_t>(total);
    // Zero-filled, so places a test did not fill read as unmeasured records.
    test_result *array = nullptr;
    if (signed_total >= 0)
        array = static_cast<test_result *>(
            held_calloc(signed_total > 0 ? static_cast<size_t>(signed_total) : 1, sizeof(test_result)));
    *results = array;
    if (!array) {
        FLOG(kInitTag, "ERROR", "failed to allocate memory for all results %d\n", 0);
        return -1;
    }

    if (listed >= 1) {
        const int64_t capacity = signed_total;
        int32_t place = 0;
        copy_listed_records(tests[0], array, &place, capacity, signed_total);
        if (listed >= 2) {
            const int64_t limit = std::min<int64_t>(std::max<int64_t>(signed_total, place), capacity);
            copy_listed_records(tests[1], array, &place, limit, signed_total);
        }
    }

    ops.save(array, static_cast<uint64_t>(signed_total));
    *result_count = total;
    *test_count = listed;
    return 0;
}

int initialize_flash_tests(flash_test **tests, uint32_t *test_count, uint32_t *result_count,
                           test_result **results) {
    static const test_init_fn inits[2] = {enter_h8_init, storage_filler_init};
    return build_flash_tests(inits, default_runner_ops(), tests, test_count, result_count, results);
}

int run_flash_tests_with(const runner_ops &ops, flash_test **tests, int32_t test_count,
                         int32_t result_count, test_result *results) {
    const uint64_t save_count = result_count > 0 ? static_cast<uint64_t>(result_count) : 0;
    if (test_count < 1) {
        ops.save(results, save_count);
        ops.progress(95, 2);
        return 0;
    }

    // The array holds exactly the records counted when the list was built.
    const int64_t capacity = results ? static_cast<int64_t>(save_count) : 0;
    const int32_t listed = std::min<int32_t>(test_count, 2);
    int64_t place = 0;
    int ok = 1;

    for (int32_t i = 0; i < listed; ++i) {
        flash_test *test = tests[i];
        if (!test) continue;

        healthinfo before{};
        ops.health_get(&before);

        ops.cleanup();
        ops.setup();

        struct timeval start {};
        struct timeval end {};
        gettimeofday(&start, nullptr);
        if (test->run) test->run(test);
        gettimeofday(&end, nullptr);

        const bool driver_error = ops.driver_state() != 1;
        const int skip_err_state = current_skip_err_state();
        if (driver_error) {
            FLOG(kRunTag, "ERROR", "Test %d index failed.\n", i);
            if (skip_err_state != 0) {
                FLOG(kRunTag, "ERROR", "But skip driver errors\n");
                ok = 1;
            } else {
                FLOG(kRunTag, "ERROR", "Not skip driver errors\n");
                ok = 0;
            }
        } else {
            ok = 1;
        }

        FLOG(kRunTag, "ERROR", "case %d healthinfo:\n\n", i);
        if (ops.health_judge(&before) != 0) {
            FLOG(kRunTag, "ERROR", "case %d : healthinfo_judge failed\n\n", i);
            ok = 0;
        }

        uint32_t count = 0;
        test_result *records = test->get_results ? test->get_results(test, &count) : nullptr;
        if (records && count >= 1) {
            const double elapsed = seconds_of(end) - seconds_of(start);
            for (uint32_t j = 0; j < count; ++j) {
                const int64_t at = place + j;
                // A test that reports more records than at list building has no room for
                // them: the extra ones are reported below, never stored.
                if (at < capacity) {
                    test_result &copy = results[at];
                    copy = records[j];
                    if (driver_error && skip_err_state == 0) copy.status = 0;
                    if (!(copy.duration_sec > 0)) copy.duration_sec = elapsed;
                }
                if (records[j].status != 1 && records[j].status != 2) {
                    FLOG(kRunTag, "ERROR", "[%s] get error state. \n",
                         text_or_null(records[j].description));
                    ok = 0;
                }
                if (at >= result_count)
                    FLOG(kRunTag, "ERROR", "Total number of results grew between calls %d > %d\n",
                         static_cast<int>(at + 1), result_count);
            }
            place += count;
        }

        if (ok != 1) break;
    }

    ops.save(results, save_count);
    ops.progress(95, 2);
    return ok == 1 ? 0 : -1;
}

int run_flash_tests(flash_test **tests, int32_t test_count, int32_t result_count,
                    test_result *results) {
    return run_flash_tests_with(default_runner_ops(), tests, test_count, result_count, results);
}
