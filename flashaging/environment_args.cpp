// The settings record of a run: defaults, the argument elements, and the working values.
#include <sys/statfs.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "flashaging/log.h"

test_args *g_args = nullptr;

int fill_cycle = 30;
int left_space = 1000;
int go_on_error = 0;
int force_erase = 0;

namespace {

enum class arg_kind { integer, real, u64 };

struct arg_option {
    const char *name;
    arg_kind kind;
    bool v2_only;
    int test_args::*int_field;
    float test_args::*float_field;
    uint64_t test_args::*u64_field;
};

constexpr arg_option int_opt(const char *name, int test_args::*f, bool v2 = false) {
    return {name, arg_kind::integer, v2, f, nullptr, nullptr};
}
constexpr arg_option real_opt(const char *name, float test_args::*f) {
    return {name, arg_kind::real, false, nullptr, f, nullptr};
}

// The order is the order of the tests: the version-2.0 names first, then the short names,
// whose blank test keeps them from taking the longer names that begin with them.
const arg_option kOptions[] = {
    int_opt("-full_filling_times", &test_args::full_filling_times, true),
    int_opt("-reserved_space", &test_args::reserved_space, true),
    int_opt("-test_policy", &test_args::test_policy, true),
    int_opt("-fix_freq", &test_args::fix_freq, true),

    int_opt("-f", &test_args::force_erase),
    int_opt("-s", &test_args::test_time),
    int_opt("-n", &test_args::test_num),
    int_opt("-spike", &test_args::spike),
    int_opt("-num_samples", &test_args::num_samples),

    real_opt("-seq_w_large_threshold", &test_args::seq_w_large_threshold),
    real_opt("-seq_r_large_threshold", &test_args::seq_r_large_threshold),
    real_opt("-seq_r_small_threshold", &test_args::seq_r_small_threshold),
    real_opt("-ran_w_large_threshold", &test_args::ran_w_large_threshold),
    real_opt("-ran_w_small_threshold", &test_args::ran_w_small_threshold),
    real_opt("-ran_r_large_threshold", &test_args::ran_r_large_threshold),
    real_opt("-ran_r_small_threshold", &test_args::ran_r_small_threshold),
    real_opt("-mix_rw_threshold", &test_args::mix_rw_threshold),
    {"-total_file_size", arg_kind::u64, false, nullptr, nullptr, &test_args::total_file_size},
    real_opt("-seq_small_task_size", &test_args::seq_small_task_size),
    real_opt("-seq_large_w_task_size", &test_args::seq_large_w_task_size),
    real_opt("-seq_large_r_task_size", &test_args::seq_large_r_task_size),
    real_opt("-ran_r_large_task_size", &test_args::ran_r_large_task_size),
    real_opt("-ran_r_small_task_size", &test_args::ran_r_small_task_size),
    real_opt("-ran_w_large_task_size", &test_args::ran_w_large_task_size),
    real_opt("-ran_w_small_task_size", &test_args::ran_w_small_task_size),

    int_opt("-max_test_voltage", &test_args::max_test_voltage),
    int_opt("-min_test_voltage", &test_args::min_test_voltage),
    int_opt("-emmc_working_voltage", &test_args::emmc_working_voltage),
    int_opt("-voltage_chg_step", &test_args::voltage_chg_step),
    int_opt("-voltage_chg_wait_stime", &test_args::voltage_chg_wait_stime),
    int_opt("-low_vol_stime", &test_args::low_vol_stime),
    int_opt("-skip_err_state", &test_args::skip_err_state),
};

// Tries the options in order; the first that matches takes the element.
void apply_element(test_args *args, const char *elem, bool v2) {
    for (const arg_option &opt : kOptions) {
        if (opt.v2_only && !v2) continue;
        size_t len = strlen(opt.name);
        if (strncmp(elem, opt.name, len) != 0) continue;
        const char *value = elem + len;
        switch (opt.kind) {
        case arg_kind::integer:
            // An integer option needs a blank right behind its name; otherwise the element
            // goes on to the following options ("-spike 600" is not "-s").
            if (*value != ' ') continue;
            args->*opt.int_field = arg_to_int(value);
            return;
        case arg_kind::real:
            args->*opt.float_field = strtof(value, nullptr);
            return;
        case arg_kind::u64:
            args->*opt.u64_field = strtoull(value, nullptr, 0);
            return;
        }
    }
}

}  // namespace

int arg_to_int(const char *text) {
    double v = strtod(text, nullptr);
    // NaN has no integer value; it reads 0 like any other text that is not a number.
    if (std::isnan(v)) return 0;
    if (v >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (v <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(v);  // truncation toward zero
}

void args_defaults_stage1(test_args *args) {
    args->test_over.store(0, std::memory_order_relaxed);
    args->test_time = -1;
    args->test_num = -1;
    args->num_samples = 3;
    args->spike = 1;
    args->force_erase = 0;
    args->seq_w_large_threshold = 0.22f;
    args->seq_r_large_threshold = 0.08f;
    args->seq_r_small_threshold = 0.10f;
    args->ran_w_large_threshold = 0.07f;
    args->ran_w_small_threshold = 0.11f;
    args->ran_r_large_threshold = 0.08f;
    args->ran_r_small_threshold = 0.11f;
    args->mix_rw_threshold = 0.23f;
}

void args_defaults_stage2(test_args *args, const char *workdir) {
    struct statfs st {};
    if (statfs(workdir, &st) == 0) {
        // Blocks available to unprivileged users, less a 512 MiB margin (wraps when less
        // than that is available).
        args->total_file_size = static_cast<uint64_t>(st.f_bavail) * static_cast<uint64_t>(st.f_bsize) -
                                536870912ULL;
    } else {
        log_errno("Failed to get stat for FS");
        args->total_file_size = UINT64_MAX;
    }
    args->seq_small_task_size = 0.92f;
    args->seq_large_w_task_size = 1.0f;
    args->seq_large_r_task_size = 1.0f;
    args->ran_r_large_task_size = 0.17f;
    args->ran_r_small_task_size = 0.67f;
    args->ran_w_large_task_size = 0.17f;
    args->ran_w_small_task_size = 0.04f;
    args->max_test_voltage = 2950000;
    args->min_test_voltage = 2750000;
    args->emmc_working_voltage = 2950000;
    args->voltage_step = 50000;
    args->voltage_chg_step = 1;
    args->voltage_chg_wait_stime = 720;
    args->low_vol_stime = 720;
    args->skip_err_state = 0;
    // Cleared after the version report set it; the buffer set-up and the pattern record
    // therefore always take their version-1 path.
    args->aging_version = 0;
}

void parse_test_args(test_args *args, int argc, char **argv, bool v2) {
    if (args == nullptr || argv == nullptr || argc < 2) return;
    for (int i = 1; i < argc; ++i) {
        if (argv[i] != nullptr) apply_element(args, argv[i], v2);
    }
}

void apply_working_values(const test_args *args) {
    if (args->full_filling_times != 0) {
        fill_cycle = args->full_filling_times;
        FLOG("get_args_from_config_xml", "INFO", "config fill_cycle to %d\n", fill_cycle);
    }
    if (args->reserved_space != 0) {
        left_space = args->reserved_space;
        FLOG("get_args_from_config_xml", "INFO", "config left space to %dMB\n", left_space);
    }
    if (args->test_policy != 0) {
        go_on_error = args->test_policy;
        FLOG("get_args_from_config_xml", "INFO", "config go on even error happens %d\n", go_on_error);
    }
    if (args->force_erase != 0) {
        force_erase = args->force_erase;
        FLOG("get_args_from_config_xml", "INFO", "config force_erase to %d\n", force_erase);
    }
}

void get_args_from_config_xml() {
    if (g_args != nullptr) apply_working_values(g_args);
}
