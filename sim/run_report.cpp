// Writes the run report of a finished `run` into its folder, with a bounded wait.
#include "sim/run_report.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/util.h"

#ifndef FLASHAGING_REPORT_TOOL
#define FLASHAGING_REPORT_TOOL ""
#endif

namespace sim {
namespace {

constexpr double kReportTimeoutS = 120;

bool executable(const std::string &p) { return !p.empty() && access(p.c_str(), X_OK) == 0; }

}  // namespace

std::string report_tool() {
    if (const char *env = getenv("FLASHAGING_REPORT")) return env;
    if (executable(FLASHAGING_REPORT_TOOL)) return FLASHAGING_REPORT_TOOL;
    const char *path = getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        std::string cand = dirs.substr(start, end - start) + "/flashaging-report";
        if (end > start && executable(cand)) return cand;
        start = end + 1;
    }
    return "";
}

namespace {

// The last non-empty line of `text`.
std::string last_line(const std::string &text) {
    size_t end = text.find_last_not_of("\n \t");
    if (end == std::string::npos) return "";
    size_t start = text.rfind('\n', end);
    start = start == std::string::npos ? 0 : start + 1;
    return text.substr(start, end + 1 - start);
}

}  // namespace

void write_run_report(const std::string &out) {
    std::string tool = report_tool();
    if (tool == "none" || (getenv("FLASHAGING_REPORT") && tool.empty())) return;
    if (tool.empty()) {
        printf("  report   (none: flashaging-report not found)\n");
        logf("report: flashaging-report not found");
        return;
    }
    // A report left by an earlier run in this folder must not pass for this one's.
    unlink((out + "/report.html").c_str());
    unlink((out + "/summary.json").c_str());
    fflush(stdout);
    std::string output;
    double t0 = monotonic_seconds();
    int st = run_command({tool, out}, &output, kReportTimeoutS);
    logf("report: %s %s -> %s in %.1f s", tool.c_str(), out.c_str(),
         st == -2 ? "timeout" : st == -1 ? "not started" : describe_status(st).c_str(), monotonic_seconds() - t0);
    std::string path = out + "/report.html";
    if (st >= 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0 && exists(path)) {
        printf("  report   %s\n", path.c_str());
    } else {
        std::string why = st == -2 ? "it ran longer than 120 s" : st == -1 ? "it could not be started" : last_line(output);
        if (why.empty()) why = describe_status(st);
        printf("  report   (not written: %s)\n", why.c_str());
        logf("report output: %s", output.c_str());
    }
    fflush(stdout);
}

}  // namespace sim
