// Pattern engine internals shared by its source files and reached by the unit tests.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "flashaging/pattern.h"

// One copy of the doubling fill: destination[0, len) goes to destination[to, to + len);
// the very first step (to == 0) is the copy of the unit's 4096-byte block itself.
struct pattern_fill_step {
    int32_t to;
    int32_t len;
    friend bool operator==(const pattern_fill_step &, const pattern_fill_step &) = default;
};

// Optional record of the copies one doubling fill made (for tests).
struct pattern_fill_trace {
    int count = 0;
    pattern_fill_step steps[40] = {};
};

// Fills dst[0, size) with the unit's pattern: the 4096-byte block, then copies of what is
// already there, doubling each time, then one last copy for the remainder. dst must hold
// at least 4096 bytes and at least size bytes. Prints the "invalid pointer" line, leaves
// dst alone and returns false when the unit has no block; true when dst was filled.
bool pattern_fill(const file_unit *unit, uint8_t *dst, int32_t size, pattern_fill_trace *trace = nullptr);

// Lays down the pattern buffers that the writers share, for the patterns of a case that have
// none yet (pattern_init calls it on the main thread, before the writers start).
void pattern_shared_buffers_lay_down(uint32_t case_id);

// Frees the pattern buffers that the writers share (file_unit_free calls it with the pattern
// blocks; no writer may be running).
void pattern_shared_buffers_free();

// The read-disturb loop over the pattern files in dir (ending in a slash);
// read_disturb_file() runs it on the work area's pattern directory.
int32_t read_disturb_file_in(const char *dir, void **kept = nullptr);

// Size of the zeroed buffers that file names and shell commands are formatted into.
inline constexpr int kPatternNameLen = 64;
