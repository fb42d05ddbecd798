#include "sim/util.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

int g_log_fd = -1;

__attribute__((format(printf, 1, 0))) void vlog_line(const char *fmt, va_list ap) {
    if (g_log_fd < 0) return;
    char line[2048];
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    int n = snprintf(line, sizeof line, "[%04d-%02d-%02d %02d:%02d:%02d.%03ld][%d] ", tm.tm_year + 1900,
                     tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000,
                     static_cast<int>(getpid()));
    if (n < 0) return;
    int m = vsnprintf(line + n, sizeof line - static_cast<size_t>(n) - 1, fmt, ap);
    if (m < 0) return;
    size_t len = std::min(sizeof line - 2, static_cast<size_t>(n) + static_cast<size_t>(m));
    while (len > 0 && line[len - 1] == '\n') --len;
    line[len++] = '\n';
    ssize_t w = write(g_log_fd, line, len);
    (void)w;
}

}  // namespace

void log_open(const std::string &path) {
    log_close();
    g_log_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

void log_close() {
    if (g_log_fd >= 0) close(g_log_fd);
    g_log_fd = -1;
}

void logf(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vlog_line(fmt, ap);
    va_end(ap);
}

void errorf(const char *fmt, ...) {
    char msg[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    fprintf(stderr, "flashaging-sim: %s\n", msg);
    fflush(stderr);
    logf("error: %s", msg);
}

double monotonic_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool is_dir(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool read_file(const std::string &path, std::string &out) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            close(fd);
            return false;
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

namespace {

bool write_all(int fd, const char *p, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool write_file(const std::string &path, std::string_view data, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    bool ok = write_all(fd, data.data(), data.size());
    if (close(fd) != 0) ok = false;
    if (ok) chmod(path.c_str(), mode);
    return ok;
}

bool write_file_atomic(const std::string &path, std::string_view data, mode_t mode) {
    std::string tmp = path + ".sim-new";
    if (!write_file(tmp, data, mode)) return false;
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool make_dirs(const std::string &path, mode_t mode) {
    if (path.empty()) return false;
    std::string cur;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        cur = path.substr(0, next);
        if (!cur.empty() && !is_dir(cur)) {
            if (mkdir(cur.c_str(), mode) != 0 && errno != EEXIST) return false;
        }
        pos = next + 1;
    }
    return is_dir(path);
}

namespace {

bool remove_tree_at(int parent, const char *name, dev_t dev) {
    struct stat st;
    if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return unlinkat(parent, name, 0) == 0 || errno == ENOENT;
    if (st.st_dev != dev) return false;  // a mount point: never cross into it
    int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return false;
    DIR *d = fdopendir(fd);
    if (!d) {
        close(fd);
        return false;
    }
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        names.emplace_back(e->d_name);
    }
    bool ok = true;
    for (const auto &n : names) ok = remove_tree_at(dirfd(d), n.c_str(), dev) && ok;
    closedir(d);
    if (unlinkat(parent, name, AT_REMOVEDIR) != 0 && errno != ENOENT) ok = false;
    return ok;
}

}  // namespace

bool remove_tree(const std::string &path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    return remove_tree_at(AT_FDCWD, path.c_str(), st.st_dev);
}

std::string dir_of(const std::string &path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string base_of(const std::string &path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.find_last_of('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string trim(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r' || s[b] == '\n')) ++b;
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) --e;
    return std::string(s.substr(b, e - b));
}

// What a command may leave in `output`: enough for any tool's complaint.
constexpr size_t kMaxOutput = 1u << 20;

int run_command(const std::vector<std::string> &argv, std::string *output, double timeout) {
    if (argv.empty()) return -1;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return -1;
    }
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) dup2(devnull, 0);
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        dprintf(2, "cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    close(fds[1]);
    const double deadline = monotonic_seconds() + timeout;
    bool open_pipe = true;
    struct pollfd p = {fds[0], POLLIN, 0};
    auto read_some = [&] {
        char buf[4096];
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n > 0 && output && output->size() < kMaxOutput) output->append(buf, static_cast<size_t>(n));
        if (n == 0 || (n < 0 && errno != EINTR)) open_pipe = false;
    };
    int status = 0;
    for (;;) {
        if (open_pipe) {
            if (poll(&p, 1, 100) > 0) read_some();
        } else if (timeout < 0) {
            // No time limit and nothing more to read: wait for its end.
            while (waitpid(pid, &status, 0) < 0)
                if (errno != EINTR) return -1;
            break;
        } else {
            usleep(50 * 1000);
        }
        if (waitpid(pid, &status, WNOHANG) == pid) {
            // What it wrote before it ended is still in the pipe (a process it left behind
            // may hold the pipe open: only what is there now is taken).
            while (open_pipe && poll(&p, 1, 0) > 0) read_some();
            break;
        }
        if (timeout >= 0 && monotonic_seconds() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            close(fds[0]);
            return -2;
        }
    }
    close(fds[0]);
    return status;
}

namespace {

bool copy_file_data(const std::string &from, const std::string &to, mode_t mode, uint64_t &budget,
                    uint64_t &copied, bool *truncated) {
    int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode & 07777);
    if (out < 0) {
        close(in);
        return false;
    }
    std::vector<char> buf(1 << 20);
    bool ok = true;
    for (;;) {
        size_t want = buf.size();
        if (budget < want) want = static_cast<size_t>(budget);
        if (want == 0) {
            char probe;
            if (read(in, &probe, 1) > 0 && truncated) *truncated = true;
            break;
        }
        ssize_t n = read(in, buf.data(), want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) break;
        if (!write_all(out, buf.data(), static_cast<size_t>(n))) {
            ok = false;
            break;
        }
        budget -= static_cast<uint64_t>(n);
        copied += static_cast<uint64_t>(n);
    }
    close(in);
    if (close(out) != 0) ok = false;
    return ok;
}

void copy_tree_rec(const std::string &from, const std::string &to, uint64_t &budget, uint64_t &copied,
                   bool *truncated) {
    struct stat st;
    if (lstat(from.c_str(), &st) != 0) return;
    if (S_ISLNK(st.st_mode)) {
        char target[4096];
        ssize_t n = readlink(from.c_str(), target, sizeof target - 1);
        if (n >= 0) {
            target[n] = '\0';
            if (symlink(target, to.c_str()) != 0) logf("capture: cannot copy link %s", from.c_str());
        }
        return;
    }
    if (S_ISREG(st.st_mode)) {
        if (!copy_file_data(from, to, st.st_mode, budget, copied, truncated))
            logf("capture: cannot copy %s: %s", from.c_str(), strerror(errno));
        return;
    }
    if (!S_ISDIR(st.st_mode)) return;
    if (mkdir(to.c_str(), 0755) != 0 && errno != EEXIST) {
        logf("capture: cannot make %s: %s", to.c_str(), strerror(errno));
        return;
    }
    DIR *d = opendir(from.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const auto &n : names) copy_tree_rec(from + "/" + n, to + "/" + n, budget, copied, truncated);
}

void list_rec(const std::string &root, const std::string &rel, std::vector<std::string> &lines, size_t max) {
    std::string dir = rel.empty() ? root : root + "/" + rel;
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const auto &n : names) {
        if (lines.size() >= max) return;
        std::string r = rel.empty() ? n : rel + "/" + n;
        struct stat st;
        if (lstat((root + "/" + r).c_str(), &st) != 0) continue;
        char type = S_ISDIR(st.st_mode) ? 'd' : S_ISREG(st.st_mode) ? 'f' : S_ISLNK(st.st_mode) ? 'l' : 'o';
        lines.push_back(std::string(1, type) + " " + std::to_string(static_cast<long long>(st.st_size)) + " " + r);
        if (S_ISDIR(st.st_mode)) list_rec(root, r, lines, max);
    }
}

}  // namespace

uint64_t copy_tree(const std::string &from, const std::string &to, uint64_t budget, bool *truncated) {
    uint64_t copied = 0;
    if (truncated) *truncated = false;
    copy_tree_rec(from, to, budget, copied, truncated);
    return copied;
}

std::string list_tree(const std::string &root, size_t max_entries) {
    std::vector<std::string> lines;
    list_rec(root, "", lines, max_entries);
    std::string out;
    for (const auto &l : lines) out += l + "\n";
    if (lines.size() >= max_entries) out += "... listing cut at " + std::to_string(max_entries) + " entries\n";
    return out;
}

std::string describe_status(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
        int sig = WTERMSIG(status);
        const char *name = strsignal(sig);
        return "signal " + std::to_string(sig) + " (" + (name ? name : "?") + ")";
    }
    return "wait status " + std::to_string(status);
}

std::string unescape(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c != '\\' || i + 1 >= s.size()) {
            out += c;
            continue;
        }
        char n = s[++i];
        switch (n) {
            case 't': out += '\t'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case '\\': out += '\\'; break;
            case 'x': {
                auto hex = [](char h) -> int {
                    if (h >= '0' && h <= '9') return h - '0';
                    if (h >= 'a' && h <= 'f') return h - 'a' + 10;
                    if (h >= 'A' && h <= 'F') return h - 'A' + 10;
                    return -1;
                };
                if (i + 2 < s.size() && hex(s[i + 1]) >= 0 && hex(s[i + 2]) >= 0) {
                    out += static_cast<char>(hex(s[i + 1]) * 16 + hex(s[i + 2]));
                    i += 2;
                } else {
                    out += "\\x";
                }
                break;
            }
            default:
                out += '\\';
                out += n;
        }
    }
    return out;
}

}  // namespace sim
