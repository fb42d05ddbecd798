#include "sim/profile.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "sim/fault_events.h"
#include "sim/inject_run.h"
#include "sim/pace.h"
#include "sim/phone_bringup.h"
#include "sim/util.h"

namespace sim {

namespace {

bool parse_number(const std::string &s, double &out) {
    if (s.empty()) return false;
    errno = 0;
    char *end = nullptr;
    double v = strtod(s.c_str(), &end);
    if (errno != 0 || end == s.c_str() || *end != '\0' || !std::isfinite(v)) return false;
    out = v;
    return true;
}

bool parse_integer(const std::string &s, int64_t &out) {
    if (s.empty()) return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(s.c_str(), &end, 10);
    if (errno != 0 || end == s.c_str() || *end != '\0') return false;
    out = v;
    return true;
}

bool parse_bool(const std::string &s, bool &out) {
    if (s == "yes" || s == "true" || s == "on" || s == "1") {
        out = true;
        return true;
    }
    if (s == "no" || s == "false" || s == "off" || s == "0") {
        out = false;
        return true;
    }
    return false;
}

std::vector<std::string> split_list(const std::string &s) {
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= s.size()) {
        size_t comma = s.find(',', pos);
        if (comma == std::string::npos) comma = s.size();
        std::string part = trim(std::string_view(s).substr(pos, comma - pos));
        if (!part.empty()) parts.push_back(part);
        pos = comma + 1;
    }
    return parts;
}

bool parse_battery(const std::string &value, Profile &p, std::string &why) {
    if (value == "none") {
        p.battery = false;
        p.battery_temp.clear();
        return true;
    }
    std::vector<TempStep> steps;
    for (const auto &part : split_list(value)) {
        TempStep step;
        size_t at = part.find('@');
        int64_t v = 0;
        if (!parse_integer(trim(std::string_view(part).substr(0, at)), v) ||
            (at != std::string::npos && !parse_trigger(trim(std::string_view(part).substr(at + 1)), step.when))) {
            why = "expected VALUE@WHEN, ... (e.g. 520@0, 480@40 or 480@log:TEXT), got '" + part + "'";
            return false;
        }
        step.value = static_cast<long>(v);
        // A plain time orders the schedule; a step on an event counts as coming after them.
        const Trigger &w = step.when;
        const bool timed = w.path.empty() && w.log.empty() && w.thread_state.empty() && w.then.empty();
        step.at = timed ? w.seconds : 1e300;
        steps.push_back(step);
    }
    if (steps.empty()) {
        why = "no temperature given";
        return false;
    }
    std::stable_sort(steps.begin(), steps.end(), [](const TempStep &a, const TempStep &b) { return a.at < b.at; });
    p.battery = true;
    p.battery_temp = steps;
    return true;
}

bool parse_jump(const std::string &value, Jump &j, std::string &why) {
    std::string left;
    if (!split_at(value, left, j.at)) {
        why = "expected COUNTER+N@WHEN (e.g. badBlockRuntime+40@30), got '" + value + "'";
        return false;
    }
    size_t sign = left.find_last_of("+-");
    if (sign == std::string::npos || sign == 0) {
        why = "expected COUNTER+N or COUNTER-N, got '" + left + "'";
        return false;
    }
    std::string name = trim(std::string_view(left).substr(0, sign));
    int64_t n = 0;
    if (!parse_integer(trim(std::string_view(left).substr(sign + 1)), n) || n < 0) {
        why = "bad amount in '" + left + "'";
        return false;
    }
    auto it = std::find(kCounterNames.begin(), kCounterNames.end(), name);
    if (it == kCounterNames.end()) {
        why = "unknown counter '" + name +
              "' (readReclaim, badBlockRuntime, TBW, eraseCacheCntAvg, eraseXLCCntAvg)";
        return false;
    }
    j.counter = static_cast<int>(it - kCounterNames.begin());
    j.delta = left[sign] == '-' ? -n : n;
    return true;
}

// Applies one "key = value" line. `why` explains a refusal.
bool apply(Profile &p, const std::string &key, const std::string &value, std::string &why) {
    auto number = [&](double &field, double min) {
        double v;
        if (!parse_number(value, v) || v < min) {
            why = "expected a number" + std::string(min > -1e300 ? " >= " + std::to_string(min) : "");
            return false;
        }
        field = v;
        return true;
    };
    auto integer = [&](int64_t &field) {
        if (!parse_integer(value, field)) {
            why = "expected an integer";
            return false;
        }
        return true;
    };
    auto boolean = [&](bool &field) {
        if (!parse_bool(value, field)) {
            why = "expected yes or no";
            return false;
        }
        return true;
    };
    auto trigger = [&](Trigger &t) {
        if (!parse_trigger(value, t)) {
            why = "expected SECONDS, /PHONE/PATH, /PHONE/PATH+SECONDS, log:TEXT or log+SECONDS:TEXT";
            return false;
        }
        return true;
    };

    if (key.rfind("prop.", 0) == 0) {
        std::string prop = key.substr(5);
        if (prop.empty() || prop.find_first_of("= \t") != std::string::npos) {
            why = "bad property name";
            return false;
        }
        for (auto &kv : p.props) {
            if (kv.first == prop) {
                kv.second = value;
                return true;
            }
        }
        p.props.emplace_back(prop, value);
        return true;
    }
    if (key.rfind("zarvo.", 0) == 0) {
        std::string file = key.substr(6);
        if (std::find(kZarvoFiles.begin(), kZarvoFiles.end(), file) == kZarvoFiles.end()) {
            why = "unknown health info file (alloc_wait, cpu_loading, iowait, iowait_hung, para_update, "
                  "sched_latency)";
            return false;
        }
        p.zarvo_text[file] = value;
        return true;
    }
    if (key == "timeout") {
        p.timeout_set = true;
        return number(p.timeout, 0.001);
    }
    if (key == "host_room_gib") return number(p.host_room_gib, 0);
    if (key == "data_size_gib") {
        p.data_size_set = true;
        p.data_free_mib = -1;
        return number(p.data_size_gib, 0.0625);
    }
    if (key == "data_free_mib") {
        if (!integer(p.data_free_mib)) return false;
        if (p.data_free_mib < 16) {
            why = "expected at least 16";
            return false;
        }
        p.data_size_set = false;
        return true;
    }
    if (key == "write_mib_s") return number(p.write_mib_s, 0);
    if (key == "read_mib_s") return number(p.read_mib_s, 0);
    if (key == "ballast_at") {
        p.ballast = true;
        return trigger(p.ballast_at);
    }
    if (key == "ballast_leave_mib") {
        if (!integer(p.ballast_leave_mib)) return false;
        if (p.ballast_leave_mib < 0) {
            why = "expected 0 or more";
            return false;
        }
        return true;
    }
    if (key == "seed_result") {
        if (value.empty() || value == "none") {
            p.seed = false;
            return true;
        }
        if (value.size() > 10) {
            why = "the pass/fail record holds at most 10 bytes";
            return false;
        }
        p.seed = true;
        p.seed_result = value;
        return true;
    }
    if (key == "proc_version") {
        p.proc_version = value;
        return true;
    }
    if (key == "storage") {
        std::vector<std::string> kinds;
        for (const auto &k : split_list(value)) {
            if (k == "none") continue;
            if (k != "ufs" && k != "mmc" && k != "emmc") {
                why = "expected ufs, mmc, emmc or none";
                return false;
            }
            kinds.push_back(k);
        }
        p.storage = kinds;
        return true;
    }
    if (key == "device_version") {
        p.device_version = value;
        return true;
    }
    if (key == "manufacture") {
        p.manufacture = value;
        return true;
    }
    if (key == "devinfo_raw") {
        p.devinfo_raw_set = true;
        p.devinfo_raw = value;
        return true;
    }
    if (key == "ufs_signal") return boolean(p.ufs_signal);
    if (key == "pa_err_total") return integer(p.pa_err_total);
    if (key == "dl_err_total") return integer(p.dl_err_total);
    if (key == "ufs_record_raw") {
        p.ufs_record_raw_set = true;
        p.ufs_record_raw = value;
        return true;
    }
    if (key == "ufs_record_upload_raw") {
        p.ufs_record_upload_raw_set = true;
        p.ufs_record_upload_raw = value;
        return true;
    }
    if (key == "zarvo_healthinfo") return boolean(p.zarvo);
    if (key == "battery_temp") return parse_battery(value, p, why);
    if (key == "health_tool") {
        if (value != "yes" && value != "no" && value != "silent") {
            why = "expected yes, no or silent";
            return false;
        }
        p.health_tool = value;
        return true;
    }
    if (key == "pe_start") return integer(p.pe_start);
    if (key == "pe_per_gib") return number(p.pe_per_gib, 0);
    if (key == "waf") return number(p.waf, 0.01);
    if (key == "tbw_start") return integer(p.tbw_start);
    if (key == "read_reclaim_start") return integer(p.read_reclaim_start);
    if (key == "read_reclaim_per_gib") return number(p.read_reclaim_per_gib, 0);
    if (key == "bad_block_start") return integer(p.bad_block_start);
    if (key == "bad_block_per_gib") return number(p.bad_block_per_gib, 0);
    if (key == "cache_pe_start") return integer(p.cache_pe_start);
    if (key == "cache_pe_per_gib") return number(p.cache_pe_per_gib, 0);
    if (key == "jump") {
        if (value.empty()) {
            p.jumps.clear();
            return true;
        }
        Jump j;
        if (!parse_jump(value, j, why)) return false;
        p.jumps.push_back(j);
        return true;
    }
    if (key == "daemon") return boolean(p.daemon);
    if (key == "aging_version") {
        if (value.empty()) {
            why = "expected a version such as 2.0 or 1.0";
            return false;
        }
        p.aging_version = value;
        return true;
    }
    if (key == "daemon_unreachable") return boolean(p.daemon_unreachable);
    if (key == "args_fail") return boolean(p.args_fail);
    if (key == "arg") {
        if (value.empty())
            p.args.clear();
        else
            p.args.push_back(value);
        return true;
    }
    if (key == "corrupt_pattern_at") {
        if (value.empty() || value == "none") {
            p.corrupt = false;
            return true;
        }
        p.corrupt = true;
        return trigger(p.corrupt_at);
    }
    if (key == "signal") {
        return list_key(p.signals, value, why, "expected NAME@WHEN (e.g. TERM@30, USR1@/data/format_unclear/file_pattern+5)",
                        [](const std::string &v, SignalEvent &e) {
                            return split_at(v, e.name, e.at) && (e.signo = signal_number(e.name)) != 0;
                        });
    }
    if (key == "capture") {
        return list_key(p.captures, value, why, "expected /PHONE/PATH@WHEN", [](const std::string &v, Capture &c) {
            return split_at(v, c.path, c.at) && !c.path.empty() && c.path[0] == '/';
        });
    }
    bool fault_ok = false;
    if (apply_fault_key(p, key, value, fault_ok, why)) return fault_ok;
    if (apply_pace_key(p, key, value, fault_ok, why)) return fault_ok;
    if (apply_bringup_key(p, key, value, fault_ok, why)) return fault_ok;
    if (apply_inject_key(p, key, value, fault_ok, why)) return fault_ok;
    why = "unknown key";
    return false;
}

}  // namespace

bool parse_seconds(const std::string &text, double &out) {
    double v = 0;
    if (!parse_number(text, v) || v < 0) return false;
    out = v;
    return true;
}

bool split_at(const std::string &value, std::string &left, Trigger &t) {
    size_t at = value.find('@');
    if (at == std::string::npos) return false;
    left = trim(std::string_view(value).substr(0, at));
    return parse_trigger(trim(std::string_view(value).substr(at + 1)), t);
}

bool parse_trigger(const std::string &text, Trigger &t) {
    // "A then B then C": each stage is looked for once the one before it has fired.
    const std::string sep = " then ";
    size_t then = text.find(sep);
    if (then != std::string::npos) {
        Trigger first, next;
        if (!parse_trigger(trim(std::string_view(text).substr(0, then)), first) ||
            !parse_trigger(trim(std::string_view(text).substr(then + sep.size())), next))
            return false;
        // One flat list of later stages: B, then B's own later stages.
        std::vector<Trigger> later = next.then;
        next.then.clear();
        next.text = next.text.substr(0, next.text.find(sep));
        first.then.push_back(next);
        first.then.insert(first.then.end(), later.begin(), later.end());
        first.text = text;
        t = first;
        return true;
    }
    Trigger r;
    r.text = text;
    if (text.empty()) return false;
    if (text.rfind("log", 0) == 0) return parse_log_trigger(text, t);
    if (text.rfind("thread", 0) == 0) return parse_thread_trigger(text, t);
    if (text[0] == '/') {
        size_t plus = text.find_last_of('+');
        double secs = 0;
        if (plus != std::string::npos && parse_number(trim(std::string_view(text).substr(plus + 1)), secs)) {
            if (secs < 0) return false;
            r.path = trim(std::string_view(text).substr(0, plus));
            r.seconds = secs;
        } else {
            r.path = text;
        }
        if (r.path.size() > 1 && r.path.back() == '/') r.path.pop_back();
        t = r;
        return true;
    }
    if (!parse_seconds(text, r.seconds)) return false;
    t = r;
    return true;
}

int signal_number(const std::string &name) {
    static const std::pair<const char *, int> table[] = {
        {"HUP", SIGHUP},   {"INT", SIGINT},   {"QUIT", SIGQUIT}, {"ILL", SIGILL},   {"TRAP", SIGTRAP},
        {"ABRT", SIGABRT}, {"BUS", SIGBUS},   {"FPE", SIGFPE},   {"KILL", SIGKILL}, {"USR1", SIGUSR1},
        {"SEGV", SIGSEGV}, {"USR2", SIGUSR2}, {"PIPE", SIGPIPE}, {"ALRM", SIGALRM}, {"TERM", SIGTERM},
        {"CONT", SIGCONT}, {"STOP", SIGSTOP},
    };
    std::string n = name;
    if (n.rfind("SIG", 0) == 0) n = n.substr(3);
    for (const auto &[text, num] : table)
        if (n == text) return num;
    int64_t v = 0;
    if (parse_integer(n, v) && v > 0 && v < 65) return static_cast<int>(v);
    return 0;
}

namespace {

// Applies the lines of one profile text; `include = FILE` lines read FILE (relative to `dir`)
// at that place.
bool apply_text(const std::string &text, const std::string &source, const std::string &dir, int depth, Profile &p,
                std::string &error) {
    size_t pos = 0;
    int lineno = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = trim(std::string_view(text).substr(pos, end - pos));
        pos = end + 1;
        ++lineno;
        if (line.empty() || line[0] == '#') continue;
        std::string where = (source.empty() ? "" : source + " ") + "line " + std::to_string(lineno);
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            error = where + ": expected 'key = value', got '" + line + "'";
            return false;
        }
        std::string key = trim(std::string_view(line).substr(0, eq));
        std::string value = unescape(trim(std::string_view(line).substr(eq + 1)));
        if (key == "include") {
            if (depth >= 8 || dir.empty()) {
                error = where + ": include: " + (dir.empty() ? "not allowed here" : "nested too deep");
                return false;
            }
            std::string path = value.empty() || value[0] == '/' ? value : dir + "/" + value;
            std::string inc;
            if (!read_file(path, inc)) {
                error = where + ": include: cannot read " + path;
                return false;
            }
            if (!apply_text(inc, path, dir_of(path), depth + 1, p, error)) return false;
            continue;
        }
        std::string why;
        if (!apply(p, key, value, why)) {
            error = where + ": " + key + ": " + why;
            return false;
        }
    }
    return true;
}

}  // namespace

bool parse_profile(const std::string &text, Profile &p, std::string &error) {
    if (!apply_text(text, "", "", 0, p, error)) return false;
    p.text = text;
    return true;
}

bool load_profile(const std::string &path, const std::vector<std::string> &extra_lines, Profile &p,
                  std::string &error) {
    std::string text;
    if (!read_file(path, text)) {
        error = "cannot read profile " + path + ": " + strerror(errno);
        return false;
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    p.file = path;
    if (!apply_text(text, path, dir_of(path), 0, p, error)) {
        error = "bad profile: " + error;
        return false;
    }
    std::string extra;
    for (const auto &l : extra_lines) extra += l + "\n";
    if (!apply_text(extra, "--set", dir_of(path), 0, p, error)) {
        error = "bad profile: " + error;
        return false;
    }
    p.text = text + extra;
    return true;
}

}  // namespace sim
