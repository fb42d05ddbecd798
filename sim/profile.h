// A phone profile: small "key = value" text files under sim/profiles/ (see sim/README.md).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sim {

// When a timed event fires: `seconds` after the executable started, or, when `path` is set,
// `seconds` after that phone path first exists.
struct Trigger {
    double seconds = 0;
    std::string path;
    std::string log;   // when set: `seconds` after a line of the program's log holds this text
    // When `thread_state` is set: `seconds` after a thread of the program whose place in the
    // order of creation lies in [thread_first, thread_last] is in that system call state.
    std::string thread_state;
    int thread_first = 0, thread_last = 0;
    std::string text;  // as written in the profile
    // "A then B": B is looked for only once A has fired, and B's seconds count from there.
    std::vector<Trigger> then;
};

// The health tool's five counters, in the order the program reads them.
enum Counter { kReadReclaim, kBadBlockRuntime, kTBW, kEraseCacheCntAvg, kEraseXLCCntAvg, kCounterCount };
inline constexpr std::array<const char *, kCounterCount> kCounterNames = {
    "readReclaim", "badBlockRuntime", "TBW", "eraseCacheCntAvg", "eraseXLCCntAvg"};

struct Jump {
    int counter = 0;
    int64_t delta = 0;
    Trigger at;
};

struct SignalEvent {
    int signo = 0;
    std::string name;
    Trigger at;
};

struct Capture {
    std::string path;
    Trigger at;
};

// The health tool taken away, replaced by a garbage printer, made slow or put back.
struct ToolFault {
    std::string action;  // remove, garbage, slow, restore
    double delay = 0;    // slow: seconds before it prints
    Trigger at;
};

// A signal to one thread of the program: the first whose place in the order of creation
// (0 the main thread) lies in [first, last] and whose current system call matches `state`.
struct ThreadSignal {
    int signo = 0;
    std::string name;
    int first = 0, last = 0;
    std::string state = "any";  // any, futex, sleep, io
    Trigger at;
};
// The flash's pace from a moment on (MiB/s, 0 = the host's speed).
struct PaceStep {
    double read_mib_s = 0, write_mib_s = 0;
    Trigger at;
};

struct TempStep {
    long value = 0;
    double at = 0;   // seconds into the run, when `when` is a plain time
    Trigger when;    // when the step begins
};

struct Profile {
    std::string file;  // where it was read from
    std::string text;  // the text as read (overrides included)

    // Run.
    bool timeout_set = false;
    double timeout = 1800;       // seconds; `run` uses 1800 when unset, `exec` none
    double host_room_gib = -1;   // room the run needs on the host; -1 = estimate

    // /data.
    bool data_size_set = false;
    double data_size_gib = 66;   // size of the sparse image
    int64_t data_free_mib = -1;  // exact free space (statfs f_bfree) at start; -1 = as mkfs leaves it
    double write_mib_s = 200;    // the flash's pace (MiB/s, 0 = the host's speed)
    double read_mib_s = 400;
    std::vector<PaceStep> paces;  // later changes of the pace
    bool ballast = false;
    Trigger ballast_at;
    int64_t ballast_leave_mib = 0;

    // /cache/factory.
    bool seed = false;
    std::string seed_result;

    // Kernel nodes.
    std::string proc_version =
        "Linux version 5.10.198-android13-4-sim (builder@flashaging-sim) (Android clang version 14.0.7) #1 SMP "
        "PREEMPT Mon Jan 1 00:00:00 UTC 2024";
    std::vector<std::string> storage = {"ufs"};
    std::string device_version = "SIMUFS31-128G";
    std::string manufacture = "SIMVENDOR";
    bool devinfo_raw_set = false;
    std::string devinfo_raw;
    bool ufs_signal = true;
    int64_t pa_err_total = 0;
    int64_t dl_err_total = 0;
    bool ufs_record_raw_set = false;
    std::string ufs_record_raw;
    bool ufs_record_upload_raw_set = false;
    std::string ufs_record_upload_raw;
    bool zarvo = true;
    std::map<std::string, std::string> zarvo_text;
    bool battery = true;
    std::vector<TempStep> battery_temp = {{350, 0, {}}};
    std::vector<std::pair<std::string, std::string>> props;  // build.prop, in first-seen order

    // Health tool and device model.
    std::string health_tool = "yes";  // yes, no, silent
    int health_tool_mode = 0755;      // the tool's file mode
    bool system_read_only = false;    // /system mounted read-only, as on a production image
    bool work_dir_tmpfs = false;      // /data/format_unclear a tmpfs: O_DIRECT served from memory
    int64_t pe_start = 5;
    double pe_per_gib = 0.5;
    double waf = 2.0;
    int64_t tbw_start = 12000;
    int64_t read_reclaim_start = 3;
    double read_reclaim_per_gib = 0.2;
    int64_t bad_block_start = 0;
    double bad_block_per_gib = 0;
    int64_t cache_pe_start = 8;
    double cache_pe_per_gib = 0.5;
    std::vector<Jump> jumps;

    // The daemon.
    bool daemon = true;
    std::string aging_version = "2.0";
    bool daemon_unreachable = false;
    bool args_fail = false;
    std::vector<std::string> args;

    // Faults.
    bool corrupt = false;
    Trigger corrupt_at;
    std::vector<SignalEvent> signals;
    std::vector<Capture> captures;
    std::vector<ToolFault> tool_faults;
    bool battery_remove = false;
    Trigger battery_remove_at;
    std::vector<ThreadSignal> thread_signals;

    // The fault injector (sim/inject_run.h): its setting ("" none) and library ("" the build's).
    std::string inject;
    std::string inject_lib;
};

// The six files of /proc/zarvo_healthinfo/, in the program's order.
inline constexpr std::array<const char *, 6> kZarvoFiles = {"alloc_wait", "cpu_loading", "iowait",
                                                            "iowait_hung", "para_update", "sched_latency"};

// Parses profile text into `p` (which holds the defaults). On a bad line returns false and
// sets `error` to "line N: ...".
bool parse_profile(const std::string &text, Profile &p, std::string &error);

// Reads a profile file, then the extra lines (they override the file's lines).
bool load_profile(const std::string &path, const std::vector<std::string> &extra_lines, Profile &p,
                  std::string &error);

// Parses "30", "2.5", "/phone/path", "/phone/path+3".
bool parse_trigger(const std::string &text, Trigger &t);

// "LEFT@TRIGGER" -> LEFT, TRIGGER; the first '@' separates them.
bool split_at(const std::string &value, std::string &left, Trigger &t);

// A finite, non-negative number of seconds ("30", "2.5").
bool parse_seconds(const std::string &text, double &out);

// A key that lists events: an empty value clears the list, any other adds what `parse`
// makes of it, or fails with `expected` as the reason.
template <typename T, typename Parse>
bool list_key(std::vector<T> &list, const std::string &value, std::string &why, const char *expected, Parse parse) {
    if (value.empty()) {
        list.clear();
        return true;
    }
    T item;
    if (!parse(value, item)) {
        why = expected;
        return false;
    }
    list.push_back(item);
    return true;
}

// Signal number of "TERM", "SIGTERM", "USR1", "15", ...; 0 when unknown.
int signal_number(const std::string &name);

}  // namespace sim
