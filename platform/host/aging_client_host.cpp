// Host aging client: plays the daemon from files of the simulated phone and keeps a
// journal of every call it receives, so a run can be checked from the outside.
#include "platform/aging_client.h"
#include "platform/host/daemon_paths.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool exists(const char *path) { return access(path, F_OK) == 0; }

// One write per line with O_APPEND, so lines of different threads never mix. The journal is
// the daemon's record of what it was told, not the program's I/O: it is written with the
// kernel's calls directly, so that the fault injector (which counts the program's calls of
// the C library) never reaches it.
__attribute__((format(printf, 1, 2))) void journal(const char *fmt, ...) {
    if (!exists(host_doors::kDaemonDir)) return;
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line - 1, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    if (n > static_cast<int>(sizeof line) - 2) n = static_cast<int>(sizeof line) - 2;
    line[n++] = '\n';
    const int fd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, host_doors::kDaemonJournal, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (fd < 0) return;
    syscall(SYS_write, fd, line, static_cast<size_t>(n));
    syscall(SYS_close, fd);
}

bool read_text(const char *path, std::string &out) {
    FILE *f = fopen(path, "re");
    if (!f) return false;
    char buf[4096];
    size_t n;
    out.clear();
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    fclose(f);
    return true;
}

}  // namespace

extern "C" int connect_aging_server(int which) {
    int answer = 0;
    if (exists(host_doors::kDaemonDir)) {
        if (which == 3) {
            std::string v;
            answer = (read_text(host_doors::kDaemonVersion, v) && v.rfind("2.0", 0) == 0) ? 1 : 0;
        } else {
            answer = exists(host_doors::kDaemonUnreachable) ? 0 : 1;
        }
    }
    journal("connect_aging_server %d -> %d", which, answer);
    return answer;
}

extern "C" int get_aging_args(int which, int *argc, char ***argv) {
    if (!exists(host_doors::kDaemonDir) || exists(host_doors::kDaemonArgsFail) || !argc || !argv) {
        journal("get_aging_args %d -> -1", which);
        return -1;
    }
    std::string text;
    read_text(host_doors::kDaemonArgs, text);
    // The vector lives until the process ends, as the daemon's own would.
    static std::vector<std::string> elements;
    static std::vector<char *> vec;
    elements.clear();
    elements.emplace_back(*argc > 0 && *argv && (*argv)[0] ? (*argv)[0] : "flashaging");
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string el = text.substr(pos, end - pos);
        if (!el.empty() && el.back() == '\r') el.pop_back();
        if (!el.empty()) elements.push_back(el);
        pos = end + 1;
    }
    vec.clear();
    for (auto &e : elements) vec.push_back(e.data());
    vec.push_back(nullptr);
    *argc = static_cast<int>(elements.size());
    *argv = vec.data();
    journal("get_aging_args %d -> 0 (%d elements)", which, *argc - 1);
    return 0;
}

extern "C" int setprogress(int percent, int which) {
    journal("setprogress %d %d", percent, which);
    return 0;
}

extern "C" int get_node_temp(const char *node, int which) {
    int value = -1;
    std::string text;
    if (node && read_text(node, text)) {
        errno = 0;
        char *end = nullptr;
        long v = strtol(text.c_str(), &end, 10);
        if (end != text.c_str()) value = static_cast<int>(v);
    }
    journal("get_node_temp %s %d -> %d", node ? node : "(null)", which, value);
    return value;
}

extern "C" int cleanEnvDone(int which, int verdict) {
    journal("cleanEnvDone %d %d", which, verdict);
    return 0;
}

extern "C" int finishOtherTest(int which) {
    journal("finishOtherTest %d", which);
    return 0;
}

extern "C" void dump_stack(void) {
    journal("dump_stack");
    void *frames[32];
    int n = backtrace(frames, 32);
    backtrace_symbols_fd(frames, n, STDOUT_FILENO);
}
