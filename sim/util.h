// Small helpers of the device simulator: its own log, files, directory trees, commands.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// The simulator's own log (DIR/sim.log). Every process of the simulator appends to the
// same descriptor, one write per line.
void log_open(const std::string &path);
void log_close();
__attribute__((format(printf, 1, 2))) void logf(const char *fmt, ...);

// "flashaging-sim: <message>" on standard error, also logged.
__attribute__((format(printf, 1, 2))) void errorf(const char *fmt, ...);

double monotonic_seconds();

bool exists(const std::string &path);
bool is_dir(const std::string &path);
bool read_file(const std::string &path, std::string &out);
bool write_file(const std::string &path, std::string_view data, mode_t mode = 0644);
// Writes a temporary file beside `path` and renames it into place, so a reader sees the
// old or the new text, never a part.
bool write_file_atomic(const std::string &path, std::string_view data, mode_t mode = 0644);
bool make_dirs(const std::string &path, mode_t mode = 0755);
// Removes a tree without crossing into other file systems; false when something stayed.
bool remove_tree(const std::string &path);

std::string dir_of(const std::string &path);
std::string base_of(const std::string &path);
std::string trim(std::string_view s);

// Runs a command (searched in PATH), waits for it; returns the wait status, or -1 when it
// could not be started. Standard output and error are appended to `output` when given (up
// to 1 MiB). With a `timeout` (seconds, >= 0) the command is killed when it runs longer,
// and the answer is -2.
int run_command(const std::vector<std::string> &argv, std::string *output, double timeout = -1);

// Copies a file or a tree (symbolic links copied as links) below `to`, stopping once
// `budget` bytes of file data have been copied; returns the bytes copied and sets
// *truncated when the budget cut it short.
uint64_t copy_tree(const std::string &from, const std::string &to, uint64_t budget, bool *truncated);

// One line per entry below `root`, sorted: "<type> <size> <relative path>", type d, f, l
// or o (other).
std::string list_tree(const std::string &root, size_t max_entries);

// Text of a wait status: "exit status 0", "signal 9 (Killed)".
std::string describe_status(int status);

// Replaces \t, \n, \r, \\ and \xHH by the bytes they stand for.
std::string unescape(std::string_view s);

}  // namespace sim
