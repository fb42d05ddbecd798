// The live view: the report tool's watch on the run folder, beside the phone.
#include "sim/live_view.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sim/run_report.h"
#include "sim/util.h"

namespace sim {
namespace {

constexpr double kEndWaitS = 15;
constexpr double kTermWaitS = 5;

// Waits for `pid` up to `seconds`; true once it has ended (and was reaped).
bool wait_for(pid_t pid, double seconds) {
    double until = monotonic_seconds() + seconds;
    for (;;) {
        int st = 0;
        pid_t w = waitpid(pid, &st, WNOHANG);
        if (w == pid || (w < 0 && errno != EINTR)) {
            if (w == pid) logf("live view: ended (%s)", describe_status(st).c_str());
            return true;
        }
        if (monotonic_seconds() >= until) return false;
        usleep(50000);
    }
}

}  // namespace

pid_t start_live_view(const std::string &out, pid_t phone) {
    if (!isatty(STDOUT_FILENO)) return -1;
    std::string tool = report_tool();
    if (tool.empty() || tool == "none") return -1;
    std::vector<std::string> args = {tool, "watch", "--while-pid", std::to_string(phone), out};
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        logf("live view: cannot fork: %s", strerror(errno));
        return -1;
    }
    if (pid == 0) {
        int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (null >= 0) dup2(null, STDIN_FILENO);
        signal(SIGPIPE, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
    logf("live view: %s watch --while-pid %d %s (pid %d)", tool.c_str(), static_cast<int>(phone), out.c_str(),
         static_cast<int>(pid));
    return pid;
}

void end_live_view(pid_t view) {
    if (view <= 0) return;
    if (wait_for(view, kEndWaitS)) return;
    logf("live view: still running %g s after the phone; stopping it", kEndWaitS);
    kill(view, SIGTERM);
    if (wait_for(view, kTermWaitS)) return;
    kill(view, SIGKILL);
    wait_for(view, kTermWaitS);
}

}  // namespace sim
