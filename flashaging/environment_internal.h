// Environment internals shared by its source files and reached by the unit tests: the pure
// pieces of argument parsing, set-up, device properties and the space queries, each taking
// its input (and its paths) as arguments.
#pragma once

#include <cstddef>
#include <cstdint>

#include "flashaging/environment.h"

// ---- settings ---------------------------------------------------------------------------

// Reads a number the way the integer options do: strtod, then truncation toward zero,
// saturating at the int range. Text that is not a number reads 0, and so does NaN.
int arg_to_int(const char *text);

// First default stage: run limits, the "-f" field and the eight thresholds.
void args_defaults_stage1(test_args *args);

// Second default stage, once the work directory exists: total_file_size from the blocks
// available at `workdir` minus 512 MiB (all ones when statfs fails, after a log_errno line),
// the task sizes, voltages, times, skip_err_state, and aging_version back to 0.
void args_defaults_stage2(test_args *args, const char *workdir);

// Walks argv[1..argc-1] once; each element is "option value" in one piece. `v2` admits the
// options the daemon offers only with aging version 2.0. Nothing happens when argc < 2.
void parse_test_args(test_args *args, int argc, char **argv, bool v2);

// Copies the four working values from `args` as get_args_from_config_xml does.
void apply_working_values(const test_args *args);

// ---- set-up -----------------------------------------------------------------------------

inline constexpr size_t kBuffer4MB = 4194304;

// Fills buf[0, len) with the generator stream: little-endian 64-bit words of the linear
// congruential sequence seeded with 99098, top bit cleared. len is a multiple of 8.
void pattern_stream_fill(uint8_t *buf, size_t len);

// True when some 64-bit word of buf[0, len) is non-zero (scanned in 256-byte blocks).
bool buffer_has_nonzero_word(const uint8_t *buf, size_t len);

// Opens the pass/fail record at `path` (read/write, created 0644, never truncated) and
// writes "START" over its first five bytes. Returns 1 with the descriptor in *fd, 0 when
// set-up must fail (the descriptor was 0, or the seek or write failed; the descriptor is
// closed), -1 when the open failed with a negative descriptor (set-up goes on without it).
int open_result_marker(const char *path, int *fd);

// The free-space gate: prints "Init Success!" and returns 1 when at least 64 GiB are free
// (tested by a right shift of 36, so the all-ones failure value passes), else prints
// "Userdata partition is not mounted" and returns 2.
int free_space_gate(uint64_t free_bytes);

// ---- device properties ------------------------------------------------------------------

// The nodes device_properties_init reads; the default set holds the phone's paths.
struct device_node_paths {
    const char *proc_version;
    const char *devinfo_ufs;
    const char *devinfo_mmc;
    const char *devinfo_emmc;
};

extern const device_node_paths kDeviceNodePaths;

// Reads a property into a field of `field_size` bytes: 92-byte read with the default
// "unknown", its last byte forced to NUL, then cut to fit the field with a terminator.
void read_property(char *field, size_t field_size, const char *key);

// The first bytes of the kernel version node into uname, at most size bytes: a shorter text
// is NUL-terminated, one of size bytes or more fills the field without a terminator. Returns 0, -1 when the node cannot be opened ("unknown"), or the read's
// negative result ("unknown-ro").
int read_kernel_version(char *uname, size_t size, const char *path);

// "ufs", "sdhci" or "SIMULATED bootdevice", by which device-information node exists.
const char *choose_bootdevice(const device_node_paths &nodes);

// 1 UFS ("ufs"), 2 eMMC ("sdhci" or "sdcc"), 3 simulated ("SIMULATED bootdevice"), 0 none.
int classify_bootdevice(const char *bootdevice);

// Value extraction from the device-information text, starting at a found label and ending
// before `end`: the value is what follows the last tab before the line end (the label
// itself when the line has no tab). On a line end, the newline becomes NUL, the value goes
// into field (64 bytes, cut at 63 characters), *after points behind the line end and the
// result is true. Without a line end nothing is copied and the result is false.
bool extract_device_value(char *label, const char *end, char *field, char **after);

// Parses the device-information text read from `path` (text[0, len), NUL-terminated at
// len): the "Device version:" and "Device manufacture:" values. Returns 0 or -1 and logs
// the missing labels with the path.
int storage_info_from_text(char *text, size_t len, char *device_version, char *manufacture,
                           const char *path);

// Reads the device-information node at `path` once (512 bytes at most) and parses it.
int storage_info_from_node(const char *path, char *device_version, char *manufacture);

// The sample cap: the number of full passes over total_file_size that fit in test_time at
// the nominal write rate of the storage kind (1 UFS, 2 eMMC; others leave it alone).
// Returns the new num_samples.
int num_samples_cap(int num_samples, int test_time, uint64_t total_file_size, int storage_type);

// device_properties_init over the given record, settings and nodes.
int device_properties_init_with(device_properties *props, test_args *args,
                                const device_node_paths &nodes);

// ---- partition space --------------------------------------------------------------------

// The smallest 2^k x 32 GiB not below `total` bytes (k taken modulo 32).
uint64_t capacity_from_total(uint64_t total);

// get_free_space / get_total_capacity measured at `dir`, with the same messages.
uint64_t free_space_at(const char *dir);
uint64_t total_capacity_at(const char *dir);
