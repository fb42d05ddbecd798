// Runs the real executable on a simulated phone and gives the scenario what the factory
// sees: the pass/fail record, the daemon journal, the results file and the log.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace e2e {

// The header line of the results file's table.
inline constexpr char kHeader[] =
    "version,description,test_id,result_id,units,minimum,maximum,value,stdev,num_samples,test_ran,duration_sec,"
    "status\n";

// A trigger (see sim/README.md) that fires once the storage filler's first fill has begun and
// all four of its read-back threads (threads 10-13) have chosen their files and read them.
inline constexpr char kAllReadersReading[] =
    "log:g_group_size is then thread:10-10:io then thread:11-11:io then thread:12-12:io then thread:13-13:io";

struct RunResult {
    int sim_exit = -1;         // exit status of `flashaging-sim run`
    std::string out_dir;       // the run directory the simulator filled
    std::string sim_output;    // what the simulator printed (stdout and stderr)
    std::string log;           // factory/flash_aging.log ("" when absent)
    std::string journal;       // the daemon journal ("" when absent)
    std::string record;        // raw bytes of factory/flash_aging_result.txt
    bool has_record = false;
    std::string results_csv;   // factory/flash_aging_results.csv
    bool has_results_csv = false;
    int exe_status = -1;       // the executable's exit status (-1: it did not exit)

    // Contents of a file below out_dir ("" when absent) and whether it exists.
    std::string file(const std::string &relative) const;
    bool exists(const std::string &relative) const;
    // The journal, one call per element.
    std::vector<std::string> journal_lines() const;
    // The pass/fail record up to its first zero byte ("SUCCESS", "FAIL", "SKIP", "START").
    std::string verdict_word() const;
};

// Builds a phone from sim/profiles/<profile>, with `overrides` appended to the profile
// (later lines win for single-valued keys), and runs the executable in it. When `elements`
// is given, those argument elements replace the profile's `arg` lines.
RunResult run(const std::string &profile, const std::vector<std::string> &overrides = {},
              const std::optional<std::vector<std::string>> &elements = std::nullopt);

// The first line of a sanitizer report (address, leak, undefined behaviour, thread) in
// `text`, or "". run() and exec() fail the scenario on one in what the run printed or left
// in the log, so the sanitizer builds' scenarios fail on any report.
std::string sanitizer_report(const std::string &text);

// As run(), with another executable than the build's own (e.g. the host's, to compare with).
RunResult run_exe(const std::string &exe, const std::string &profile, const std::vector<std::string> &overrides = {},
                  const std::optional<std::vector<std::string>> &elements = std::nullopt);

// Runs a command inside a phone built from the profile (`flashaging-sim exec`); returns
// its exit status and fills `output` with what it printed.
int exec(const std::string &profile, const std::vector<std::string> &overrides,
         const std::vector<std::string> &command, std::string *output = nullptr);

// As above, and tells the run folder the simulator filled (sim.log, capture/, journal).
int exec(const std::string &profile, const std::vector<std::string> &overrides,
         const std::vector<std::string> &command, std::string *output, std::string *out_dir);

// Sets FLASHAGING_SIM_TMPDIR (unless set) to /dev/shm when it has room for several phones:
// the phones' data images then live in memory. run(), exec() and run_sim() do it for the
// simulators they start; a scenario that starts one itself calls it first.
void choose_image_folder();

// Runs flashaging-sim with the given arguments; returns its exit status (128 + signal when
// killed) and fills `output` with what it printed.
int run_sim(const std::vector<std::string> &args, std::string *output = nullptr);

// Whether the daemon journal holds exactly this call line.
inline bool journal_has(const RunResult &r, const std::string &line) {
    for (const auto &l : r.journal_lines())
        if (l == line) return true;
    return false;
}

// Number of non-overlapping occurrences of `needle` in `haystack`.
int count(const std::string &haystack, const std::string &needle);

// Lines of `text` that contain `needle`.
std::vector<std::string> lines_with(const std::string &text, const std::string &needle);

}  // namespace e2e
