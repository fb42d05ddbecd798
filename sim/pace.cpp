#include "sim/pace.h"

#include <cstdio>
#include <cstdlib>

#include "sim/throttle.h"
#include "sim/util.h"

namespace sim {

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

bool parse_rate(const std::string &text, double &out) {
    char *end = nullptr;
    const std::string t = trim(text);
    out = strtod(t.c_str(), &end);
    return !t.empty() && end != t.c_str() && *end == '\0' && out >= 0;
}

bool parse_pace(const std::string &value, PaceStep &step) {
    std::string left;
    if (!split_at(value, left, step.at)) return false;
    size_t colon = left.find(':');
    return colon != std::string::npos && parse_rate(left.substr(0, colon), step.read_mib_s) &&
           parse_rate(left.substr(colon + 1), step.write_mib_s);
}

}  // namespace

bool apply_pace_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why) {
    if (key != "pace") return false;
    ok = true;
    if (value.empty()) {
        p.paces.clear();
        return true;
    }
    PaceStep step;
    ok = parse_pace(value, step);
    if (ok) p.paces.push_back(step);
    else why = "expected READ:WRITE@WHEN in MiB/s (e.g. 800:800@/data/format_unclear/file_benchmark)";
    return true;
}

std::vector<FaultEvent> pace_events(const PhoneSpec &s) {
    std::vector<FaultEvent> events;
    for (const PaceStep &step : s.profile->paces) {
        char what[96];
        snprintf(what, sizeof what, "pace read %g MiB/s, write %g MiB/s", step.read_mib_s, step.write_mib_s);
        events.push_back({step.at, what, [&s, step] {
                              std::string why;
                              if (!throttle_set(s.throttle, static_cast<uint64_t>(step.read_mib_s * kMiB),
                                                static_cast<uint64_t>(step.write_mib_s * kMiB), why))
                                  logf("warning: the pace stays: %s", why.c_str());
                          }});
    }
    return events;
}

}  // namespace sim
