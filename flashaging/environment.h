// Settings record, environment set-up, device properties and partition space queries.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// ---- settings --------------------------------------------------------------------------

// The one settings record of a run. Allocated zero-filled by set-up, never freed.
// Fields 6..9 get no default: they must read 0 when their option is absent.
struct test_args {
    std::atomic<uint32_t> test_over;  // set to 1 by the watchdog; read by the workers
    int test_time;
    int test_num;
    int num_samples;
    int spike;
    int full_filling_times;
    int reserved_space;
    int test_policy;
    int fix_freq;
    int force_erase;
    float seq_w_large_threshold;
    float seq_r_large_threshold;
    float seq_r_small_threshold;
    float ran_w_large_threshold;
    float ran_w_small_threshold;
    float ran_r_large_threshold;
    float ran_r_small_threshold;
    float mix_rw_threshold;
    uint64_t total_file_size;
    float seq_small_task_size;
    float seq_large_w_task_size;
    float seq_large_r_task_size;
    float ran_r_large_task_size;
    float ran_r_small_task_size;
    float ran_w_large_task_size;
    float ran_w_small_task_size;
    int max_test_voltage;
    int min_test_voltage;
    int emmc_working_voltage;
    int voltage_step;
    int voltage_chg_step;
    int voltage_chg_wait_stime;
    int low_vol_stime;
    int skip_err_state;
    int aging_version;
};

// The process-wide settings pointer (null until set-up allocates the record).
extern test_args *g_args;

// Working values the tests read, set from the settings by get_args_from_config_xml.
extern int fill_cycle;   // 30
extern int left_space;   // 1000 (MB)
extern int go_on_error;  // 0
extern int force_erase;  // 0

void get_args_from_config_xml();

// ---- set-up -----------------------------------------------------------------------------

extern int result_fd;               // pass/fail record descriptor, kept open after "START"
extern pthread_mutex_t result_lock;
extern uint8_t *scratch_4MB;        // 4 MiB, 4096-aligned
extern uint8_t *pattern_4MB;        // 4 MiB, 4096-aligned, the generator stream

int initialize_flashtest_env(int argc, char **argv);  // 0 failed, 1 go on, 2 skip
void fv_setup();
int fv_cleanup();

// ---- device properties ------------------------------------------------------------------

struct device_properties {
    char prjversion[10];
    char platform[20];
    char model[92];
    char device_version[64];
    char manufacture[64];
    char board_temperature[10];
    char bootdevice[92];
    char serialno[92];
    char build_description[128];
    char uname[256];
    int32_t storage_type;  // 0 unknown, 1 UFS, 2 eMMC, 3 simulated boot device
};

extern device_properties g_device_props;

int device_properties_init();

// ---- partition space --------------------------------------------------------------------

uint64_t get_free_space();
uint64_t get_total_capacity();
