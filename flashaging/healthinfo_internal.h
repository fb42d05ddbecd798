// Health info internals reached by the unit tests: the line parser, the judgement of two
// readings, and the readings through a tool given by path.
#pragma once

#include <cstdint>
#include <cstdio>

#include "flashaging/healthinfo.h"

// Sets the five keys in their fixed order (values untouched).
void healthinfo_set_keys(healthinfo *info);

// One line of the tool's output: the first key (in entry order) found anywhere in the line
// sets its entry to the number right behind it, read with atoi rules. Lines without a key
// change nothing.
void healthinfo_parse_line(healthinfo *info, const char *line);

// Reads the tool's whole output, line by line (1024-byte pieces).
void healthinfo_read_stream(healthinfo *info, FILE *out);

// healthinfo_get with the tool at `tool`: sets the keys, gives the tool mode 0775, runs it
// and parses its output. 0 read, 1 failed.
unsigned healthinfo_get_from(healthinfo *info, const char *tool);

// Prints the five growths and the write amplification of `now` against `before` (plain
// lines) and judges them; capacity is the partition's nominal size in bytes.
// 0 within limits, 1 exceeded.
int healthinfo_judge_values(const healthinfo &before, const healthinfo &now, uint64_t capacity);

// The write amplification: capacity MiB x XLC erase growth / (TBW growth x 100), in single
// precision; 0 when TBW did not grow.
float healthinfo_waf(uint64_t capacity, uint32_t xlc_growth, uint32_t tbw_growth);

// pe_cycle_get / pe_cycle_check with the tool at `tool` and the given force_erase value.
uint32_t pe_cycle_get_from(const char *tool);
int pe_cycle_check_from(const char *tool, int force_erase_value);
