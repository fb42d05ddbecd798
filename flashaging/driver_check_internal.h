// Driver check internals reached by the unit tests.
#pragma once

#include <cstdio>

#include "flashaging/environment.h"

// Reads the UniPro error totals from the signal-record text: the PA line first, then the
// DL line somewhere after it. A count whose line is missing (or comes too early) stays 0.
void driver_error_counts(FILE *record, int *pa_count, int *dl_count);

// driver_state_check over the node at `path`: the start line, then, when the node can be
// read, the PA / DL counts line.
void driver_state_check_at(const char *path);

// device_get_flash_errors over the given record: classifies the boot device when the kind
// is not yet known; 1 for a known kind, 0 (after the error line) otherwise.
int flash_errors_check(device_properties *props);
