// Faults for the fault campaign: the health tool taken away, replaced or slowed, the battery
// node removed, a signal to one chosen thread, and triggers on lines of the program's log.
#include "sim/fault_events.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "sim/phone_internal.h"
#include "sim/util.h"

namespace sim {

namespace {

constexpr const char *kToolCopy = "/sim/tool/monitor_tool";  // the real tool, kept for slow and restore
constexpr const char *kBatteryNode = "/sys/class/power_supply/battery/temp";
constexpr const char *kLog = "/cache/factory/flash_aging.log";

// What a broken health tool prints: binary noise, keys without numbers, numbers out of range,
// a negative count and a line far longer than the program's line buffer.
constexpr const char *kGarbageTool =
    "#!/bin/sh\n"
    "# a health tool gone wrong (flashaging-sim)\n"
    "head -c 3000 /dev/urandom\n"
    "printf '\\nreadReclaim\\nbadBlockRuntime -40\\nTBW 99999999999999999999\\n'\n"
    "printf 'eraseXLCCntAvg%05000d\\n' 7\n"
    "printf 'eraseCacheCntAvg=12\\n\\000\\377\\n'\n";

bool parse_tool_fault(const std::string &value, ToolFault &f) {
    std::string action;
    if (!split_at(value, action, f.at)) return false;
    if (action.rfind("slow:", 0) == 0) {
        f.action = "slow";
        return parse_seconds(action.substr(5), f.delay);
    }
    f.action = action;
    return action == "remove" || action == "garbage" || action == "restore";
}

bool valid_state(const std::string &state) {
    return state == "any" || state == "futex" || state == "sleep" || state == "io";
}

// "FIRST-LAST" or "N".
bool parse_range(const std::string &range, int &first, int &last) {
    size_t dash = range.find('-');
    char *end = nullptr;
    first = static_cast<int>(strtol(range.c_str(), &end, 10));
    if (end == range.c_str()) return false;
    if (dash == std::string::npos) {
        if (*end != '\0') return false;
        last = first;
    } else {
        const char *rest = range.c_str() + dash + 1;
        last = static_cast<int>(strtol(rest, &end, 10));
        if (end == rest || *end != '\0') return false;
    }
    return first >= 0 && last >= first;
}

// "NAME:FIRST-LAST[:STATE]" or "NAME:N[:STATE]".
bool parse_thread_signal(const std::string &value, ThreadSignal &ts) {
    std::string left;
    if (!split_at(value, left, ts.at)) return false;
    size_t c1 = left.find(':');
    if (c1 == std::string::npos) return false;
    ts.name = left.substr(0, c1);
    ts.signo = signal_number(ts.name);
    if (ts.signo == 0) return false;
    std::string range = left.substr(c1 + 1);
    size_t c2 = range.find(':');
    if (c2 != std::string::npos) {
        ts.state = range.substr(c2 + 1);
        range = range.substr(0, c2);
        if (!valid_state(ts.state)) return false;
    }
    return parse_range(range, ts.first, ts.last);
}

// ---- the program's threads, seen from the host -------------------------------------------

long field_of_stat(const std::string &stat_text, int field) {
    // Fields after the command name (which may hold blanks) start behind the last ')'.
    size_t close = stat_text.rfind(')');
    if (close == std::string::npos) return -1;
    int n = 2;
    const char *p = stat_text.c_str() + close + 1;
    while (*p) {
        while (*p == ' ') ++p;
        ++n;
        if (n == field) return strtol(p, nullptr, 10);
        while (*p && *p != ' ') ++p;
    }
    return -1;
}

std::vector<pid_t> numbered_entries(const std::string &dir) {
    std::vector<pid_t> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            char *end = nullptr;
            long v = strtol(e->d_name, &end, 10);
            if (end != e->d_name && *end == '\0') out.push_back(static_cast<pid_t>(v));
        }
        closedir(d);
    }
    return out;
}

std::vector<pid_t> children_of(pid_t parent) {
    std::vector<pid_t> out;
    for (pid_t pid : numbered_entries("/proc")) {
        std::string text;
        if (read_file("/proc/" + std::to_string(pid) + "/stat", text) && field_of_stat(text, 4) == parent)
            out.push_back(pid);
    }
    return out;
}

// Whether a process is the program: its name, or, run through a CPU emulator (whose name
// the process then has), the program's path as the emulator's first argument.
bool is_program(pid_t pid) {
    std::string comm, cmdline;
    const std::string dir = "/proc/" + std::to_string(pid);
    if (read_file(dir + "/comm", comm) && trim(comm) == "flashaging") return true;
    if (!read_file(dir + "/cmdline", cmdline)) return false;
    size_t first_end = cmdline.find('\0');
    if (first_end == std::string::npos || base_of(cmdline.substr(0, first_end)).rfind("qemu-", 0) != 0) return false;
    size_t second_end = cmdline.find('\0', first_end + 1);
    return cmdline.substr(first_end + 1, second_end - first_end - 1) == kPhoneExe;
}

// The program: the child of the phone's first process, which is this process's child.
pid_t program_pid() {
    for (pid_t init : children_of(getpid())) {
        for (pid_t child : children_of(init))
            if (is_program(child)) return child;
    }
    return -1;
}

bool state_matches(const std::string &state, long syscall_no) {
    if (state == "any") return true;
    if (state == "futex") return syscall_no == SYS_futex;
    if (state == "sleep") return syscall_no == SYS_nanosleep || syscall_no == SYS_clock_nanosleep;
    if (state == "io")
        return syscall_no == SYS_read || syscall_no == SYS_write || syscall_no == SYS_pread64 ||
               syscall_no == SYS_pwrite64 || syscall_no == SYS_openat;
    return false;
}

// Whether the program runs through a CPU emulator (its process then bears the emulator's name).
bool emulated(pid_t pid) {
    std::string comm;
    return read_file("/proc/" + std::to_string(pid) + "/comm", comm) && trim(comm) != "flashaging";
}

// Whether the program is a thread-sanitizer build: its runtime starts a thread of its own
// at the program's first thread start, just before that thread.
bool thread_sanitized(pid_t pid) {
    std::string maps;
    return read_file("/proc/" + std::to_string(pid) + "/maps", maps) && maps.find("libtsan") != std::string::npos;
}

// The program's threads in the order of creation (tid order), its main thread first. Under
// qemu-user the process has one thread of the emulator's own, started before the program's
// code runs, and under the thread sanitizer one of its runtime, started with the program's
// first thread: either is always the second in tid order and has no place. (The emulator's
// signal mask cannot tell it apart: it blocks every signal in any thread while it changes a
// mask.)
std::vector<pid_t> program_threads(pid_t pid) {
    std::vector<pid_t> tids = numbered_entries("/proc/" + std::to_string(pid) + "/task");
    std::sort(tids.begin(), tids.end());
    if (tids.size() > 1 && (emulated(pid) || thread_sanitized(pid))) tids.erase(tids.begin() + 1);
    return tids;
}

struct FoundThread {
    pid_t pid = -1, tid = -1;
    int place = -1;
    size_t count = 0;
    long syscall_no = -1;
};

// The first thread of the program at a place in [first, last] whose system call matches.
bool find_thread(int first, int last, const std::string &state, FoundThread &found) {
    pid_t pid = program_pid();
    if (pid <= 0) return false;
    std::vector<pid_t> tids = program_threads(pid);
    for (int i = first; i <= last && i < static_cast<int>(tids.size()); ++i) {
        std::string sc;
        if (!read_file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tids[i]) + "/syscall", sc)) continue;
        long no = sc.rfind("running", 0) == 0 ? -1 : strtol(sc.c_str(), nullptr, 10);
        if (!state_matches(state, no)) continue;
        found = {pid, tids[i], i, tids.size(), no};
        return true;
    }
    return false;
}

// Sends the signal to the first matching thread, looking again every 5 ms for up to 20 s.
void signal_thread(const ThreadSignal &ts) {
    const double until = monotonic_seconds() + 20;
    do {
        FoundThread t;
        if (find_thread(ts.first, ts.last, ts.state, t) && syscall(SYS_tgkill, t.pid, t.tid, ts.signo) == 0) {
            logf("thread signal: %s to thread %d of %zu (tid %d, system call %ld)", ts.name.c_str(), t.place,
                 t.count, static_cast<int>(t.tid), t.syscall_no);
            return;
        }
        usleep(5000);
    } while (monotonic_seconds() < until);
    logf("thread signal: no thread %d-%d in state %s within 20 s; %s not sent", ts.first, ts.last,
         ts.state.c_str(), ts.name.c_str());
}

void apply_tool_fault(const PhoneSpec &s, const ToolFault &f, const std::shared_ptr<std::string> &real) {
    const std::string tool = in_phone(s, kPhoneTool);
    bool ok = true;
    if (f.action == "remove") {
        ok = unlink(tool.c_str()) == 0 || errno == ENOENT;
    } else if (f.action == "garbage") {
        ok = write_file_atomic(tool, kGarbageTool, 0755);
    } else if (f.action == "slow") {
        char script[256];
        snprintf(script, sizeof script, "#!/bin/sh\n# a slow health tool (flashaging-sim)\nsleep %g\nexec %s \"$@\"\n",
                 f.delay, kToolCopy);
        ok = !real->empty() && write_file_atomic(tool, script, 0755);
    } else if (f.action == "restore") {
        ok = !real->empty() && write_file_atomic(tool, *real, 0755);
    }
    logf("tool fault: %s%s", f.action.c_str(), ok ? "" : " failed");
}

}  // namespace

bool parse_log_trigger(const std::string &text, Trigger &t) {
    Trigger r;
    r.text = text;
    size_t colon = text.find(':');
    if (colon == std::string::npos || colon + 1 >= text.size()) return false;
    std::string head = text.substr(0, colon);
    if (head != "log") {
        if (head.rfind("log+", 0) != 0 || !parse_seconds(head.substr(4), r.seconds)) return false;
    }
    r.log = text.substr(colon + 1);
    t = r;
    return true;
}

bool parse_thread_trigger(const std::string &text, Trigger &t) {
    // "thread:FIRST-LAST:STATE" or "thread+SECONDS:FIRST-LAST:STATE".
    Trigger r;
    r.text = text;
    size_t c1 = text.find(':');
    if (c1 == std::string::npos) return false;
    std::string head = text.substr(0, c1);
    if (head != "thread" && (head.rfind("thread+", 0) != 0 || !parse_seconds(head.substr(7), r.seconds))) return false;
    std::string rest = text.substr(c1 + 1);
    size_t c2 = rest.find(':');
    if (c2 == std::string::npos) return false;
    r.thread_state = rest.substr(c2 + 1);
    if (!valid_state(r.thread_state) || !parse_range(rest.substr(0, c2), r.thread_first, r.thread_last)) return false;
    t = r;
    return true;
}

bool apply_fault_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why) {
    if (key == "tool_fault") {
        ok = list_key(p.tool_faults, value, why, "expected remove, garbage, slow:SECONDS or restore, then @WHEN",
                      parse_tool_fault);
        return true;
    }
    if (key == "battery_remove_at") {
        ok = true;
        if (value.empty()) {
            p.battery_remove = false;
            return true;
        }
        ok = parse_trigger(value, p.battery_remove_at);
        p.battery_remove = ok;
        if (!ok) why = "expected WHEN";
        return true;
    }
    if (key == "thread_signal") {
        ok = list_key(p.thread_signals, value, why,
                      "expected NAME:FIRST-LAST[:any|futex|sleep|io]@WHEN (e.g. TERM:2-9:futex@log:g_group_size)",
                      parse_thread_signal);
        return true;
    }
    return false;
}

std::vector<FaultEvent> campaign_fault_events(const PhoneSpec &s) {
    const Profile &p = *s.profile;
    std::vector<FaultEvent> events;
    auto real = std::make_shared<std::string>();
    if (!p.tool_faults.empty() && read_file(in_phone(s, kPhoneTool), *real)) {
        if (!make_dirs(dir_of(in_phone(s, kToolCopy))) || !write_file(in_phone(s, kToolCopy), *real, 0755))
            logf("warning: cannot keep a copy of the health tool at %s", kToolCopy);
    }
    auto at_start = [](const Trigger &t) { return t.path.empty() && t.log.empty() && t.seconds <= 0; };
    for (const ToolFault &f : p.tool_faults) {
        if (at_start(f.at)) {
            apply_tool_fault(s, f, real);
            continue;
        }
        events.push_back({f.at, "health tool: " + f.action, [&s, f, real] { apply_tool_fault(s, f, real); }});
    }
    if (p.battery_remove) {
        auto remove = [&s] {
            bool ok = unlink(in_phone(s, kBatteryNode).c_str()) == 0;
            logf("battery node %s%s", kBatteryNode, ok ? " removed" : ": cannot remove it");
        };
        if (at_start(p.battery_remove_at)) remove();
        else events.push_back({p.battery_remove_at, "remove the battery node", remove});
    }
    for (const ThreadSignal &ts : p.thread_signals)
        events.push_back({ts.at,
                          "signal " + ts.name + " to a thread " + std::to_string(ts.first) + "-" +
                              std::to_string(ts.last) + " (" + ts.state + ")",
                          [ts] { signal_thread(ts); }});
    return events;
}

void LogWatch::poll(const PhoneSpec &s) {
    int fd = open(in_phone(s, kLog).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    char buf[65536];
    for (;;) {
        ssize_t n = pread(fd, buf, sizeof buf, offset_);
        if (n <= 0) break;
        offset_ += n;
        partial_.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    size_t end = partial_.rfind('\n');
    if (end != std::string::npos) {
        lines_.append(partial_, 0, end + 1);
        partial_.erase(0, end + 1);
    }
}

bool LogWatch::seen(const std::string &text) { return lines_.find(text) != std::string::npos; }

bool trigger_condition(const PhoneSpec &s, const Trigger &t, LogWatch &log) {
    if (!t.log.empty()) return log.seen(t.log);
    if (!t.thread_state.empty()) {
        FoundThread found;
        return find_thread(t.thread_first, t.thread_last, t.thread_state, found);
    }
    return exists(in_phone(s, t.path));
}

}  // namespace sim
