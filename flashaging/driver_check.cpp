// The storage driver checks: the UFS link's error totals after a passed run, and the
// boot-device kind asked after every test.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "flashaging/device_paths.h"
#include "flashaging/driver_check_internal.h"
#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"
#include "flashaging/run_control.h"

namespace {

constexpr const char *kPaLabel = "unipro_PA_err_total_cnt:";
constexpr const char *kDlLabel = "unipro_DL_err_total_cnt:";
constexpr size_t kLabelLen = 24;

}  // namespace

void driver_error_counts(FILE *record, int *pa_count, int *dl_count) {
    int pa = 0;
    int dl = 0;
    char line[256];
    while (fgets(line, sizeof line, record) != nullptr) {
        if (strncmp(line, kPaLabel, kLabelLen) == 0) {
            if (sscanf(line, "unipro_PA_err_total_cnt:\t\t%d\n", &pa) != 1) pa = 0;
            break;
        }
    }
    // The DL total is only looked for behind the PA line.
    while (fgets(line, sizeof line, record) != nullptr) {
        if (strncmp(line, kDlLabel, kLabelLen) == 0) {
            if (sscanf(line, "unipro_DL_err_total_cnt:\t\t%d\n", &dl) != 1) dl = 0;
            break;
        }
    }
    *pa_count = pa;
    *dl_count = dl;
}

void driver_state_check_at(const char *path) {
    FLOG("driver_state_check", "INFO", "Run driver_state_check start!\n\n");
    // eMMC devices have no such node.
    if (access(path, F_OK) != 0) return;
    // The node is read with the caught signals held (the stream's buffer comes from the
    // allocator); it is a kernel node and answers at once.
    sigset_t saved;
    hold_caught_signals(&saved);
    FILE *record = fopen(path, "r");
    int pa = 0;
    int dl = 0;
    if (record != nullptr) driver_error_counts(record, &pa, &dl);
    release_caught_signals(&saved);
    if (record == nullptr) return;
    FLOG("driver_state_check", "INFO", "PA_cnt_value= %d; DL_cnt_value == %d\n\n", pa, dl);
    held_fclose(record);
}

void driver_state_check() {
    driver_state_check_at(paths::kUfsSignalRecordUpload);
}

int flash_errors_check(device_properties *props) {
    if (props->storage_type == 0) {
        int kind = classify_bootdevice(props->bootdevice);
        if (kind != 0) {
            props->storage_type = kind;
            return 1;
        }
    } else if (props->storage_type >= 1 && props->storage_type <= 3) {
        return 1;
    }
    // Only a boot device of unknown kind counts as a driver error; no counter is read.
    FLOG("device_get_flash_errors", "ERROR", "Error reported by the driver %d\n", 0);
    return 0;
}

int device_get_flash_errors() {
    return flash_errors_check(&g_device_props);
}
