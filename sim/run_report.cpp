// Writes the run report of a finished `run` into its folder, with a bounded wait.
#include "sim/run_report.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/util.h"

#ifndef FLASHAGING_REPORT_TOOL
#define FLASHAGING_REPORT_TOOL ""
#endif

namespace sim {
namespace {

constexpr double kReportTimeoutS = 120;

bool executable(const std::string &p) { return !p.empty() && access(p.c_str(), X_OK) == 0; }

std::string find_tool() {
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

// The last non-empty line of `text`.
std::string last_line(const std::string &text) {
    size_t end = text.find_last_not_of("\n \t");
    if (end == std::string::npos) return "";
    size_t start = text.rfind('\n', end);
    start = start == std::string::npos ? 0 : start + 1;
    return text.substr(start, end + 1 - start);
}

// Runs argv with output captured; kills it after `timeout` seconds. Returns the wait
// status, -1 when it could not start, -2 at the timeout.
int run_bounded(const std::string &tool, const std::string &out, std::string &output, double timeout) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return -1;
    }
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) dup2(devnull, 0);
        execl(tool.c_str(), tool.c_str(), out.c_str(), static_cast<char *>(nullptr));
        dprintf(2, "cannot start %s: %s\n", tool.c_str(), strerror(errno));
        _exit(127);
    }
    close(fds[1]);
    double deadline = monotonic_seconds() + timeout;
    bool open_pipe = true;
    int status = 0;
    for (;;) {
        if (open_pipe) {
            struct pollfd p = {fds[0], POLLIN, 0};
            if (poll(&p, 1, 100) > 0) {
                char buf[4096];
                ssize_t n = read(fds[0], buf, sizeof buf);
                if (n > 0 && output.size() < (1u << 20)) output.append(buf, static_cast<size_t>(n));
                if (n == 0 || (n < 0 && errno != EINTR)) open_pipe = false;
            }
        } else {
            usleep(50 * 1000);
        }
        pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) break;
        if (monotonic_seconds() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            close(fds[0]);
            return -2;
        }
    }
    close(fds[0]);
    return status;
}

}  // namespace

void write_run_report(const std::string &out) {
    std::string tool = find_tool();
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
    int st = run_bounded(tool, out, output, kReportTimeoutS);
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
