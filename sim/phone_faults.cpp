#include "sim/phone_internal.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <set>

#include "sim/health_model.h"
#include "sim/util.h"

extern char **environ;

namespace sim {

namespace {

// "P_S_Q" of a pattern file name: pattern id, file size, sequence number.
bool pattern_name(const std::string &name, long &size, long &seq) {
    unsigned pattern = 0;
    long sz = 0, sq = 0;
    int used = 0;
    if (sscanf(name.c_str(), "%u_%ld_%ld%n", &pattern, &sz, &sq, &used) != 3 || used != static_cast<int>(name.size()))
        return false;
    size = sz;
    seq = sq;
    return sz >= 4096;
}

bool complete(const std::string &path, long size) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size == size;
}

bool flip_byte(const std::string &path, std::string &detail) {
    static std::mt19937 rng(static_cast<unsigned>(time(nullptr)));
    int offset = static_cast<int>(rng() % 4096);
    int fd = open(path.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC);
    bool direct = fd >= 0;
    if (fd < 0) fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        detail = "cannot open: " + errno_text();
        return false;
    }
    void *mem = aligned_alloc(4096, 4096);
    if (!mem) {
        close(fd);
        detail = "out of memory";
        return false;
    }
    auto *buf = static_cast<unsigned char *>(mem);
    bool ok = pread(fd, buf, 4096, 0) == 4096;
    unsigned char before = buf[offset];
    buf[offset] = static_cast<unsigned char>(before ^ 0xFF);
    ok = ok && pwrite(fd, buf, 4096, 0) == 4096 && fsync(fd) == 0;
    if (!ok) detail = "cannot rewrite the first block: " + errno_text();
    if (ok && !direct) posix_fadvise(fd, 0, 4096, POSIX_FADV_DONTNEED);
    char d[128];
    snprintf(d, sizeof d, "byte %d changed from 0x%02x to 0x%02x", offset, before, buf[offset]);
    if (ok) detail = d;
    free(mem);
    close(fd);
    return ok;
}

}  // namespace

void CorruptHunt::start(const PhoneSpec &s, double now) {
    active_ = true;
    started_ = now;
    dir_ = in_phone(s, "/data/format_unclear/file_pattern");
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) logf("corrupt: no inotify (%s); will pick a file without watching reads", errno_text().c_str());
    logf("corrupt: looking for a pattern file being read");
}

void CorruptHunt::step(double now) {
    if (!active_) return;
    if (fd_ >= 0 && wd_ < 0) {
        wd_ = inotify_add_watch(fd_, dir_.c_str(), IN_ACCESS);
    }
    if (fd_ >= 0 && wd_ >= 0) {
        alignas(struct inotify_event) char buf[16384];
        for (;;) {
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0) break;
            for (char *q = buf; q < buf + n;) {
                auto *ev = reinterpret_cast<struct inotify_event *>(q);
                if (ev->len > 0 && (ev->mask & IN_ACCESS)) read_names_.insert(ev->name);
                if (ev->mask & IN_IGNORED) wd_ = -1;  // the folder went away (a new cycle)
                q += sizeof(struct inotify_event) + ev->len;
            }
        }
    }
    // Gather reads for a moment, then pick the smallest complete file among them.
    if (!read_names_.empty() && first_read_ < 0) first_read_ = now;
    if (first_read_ >= 0 && now - first_read_ >= 0.3) {
        if (pick(read_names_, "read by the program")) return finish();
        read_names_.clear();
        first_read_ = -1;
    }
    if (now - started_ >= 10 && (wd_ >= 0 || fd_ < 0 || now - started_ >= 30)) {
        std::set<std::string> all;
        if (DIR *d = opendir(dir_.c_str())) {
            while (struct dirent *e = readdir(d)) all.insert(e->d_name);
            closedir(d);
        }
        if (pick(all, "no read seen within 10 s")) return finish();
        if (now - started_ >= 60) {
            logf("corrupt: gave up, no complete pattern file in %s", dir_.c_str());
            finish();
        }
    }
}

bool CorruptHunt::pick(const std::set<std::string> &names, const char *why) {
    std::string best;
    long best_size = 0, best_seq = 0;
    for (const auto &n : names) {
        long size = 0, seq = 0;
        if (!pattern_name(n, size, seq) || !complete(dir_ + "/" + n, size)) continue;
        if (best.empty() || size < best_size || (size == best_size && seq < best_seq)) {
            best = n;
            best_size = size;
            best_seq = seq;
        }
    }
    if (best.empty()) return false;
    std::string detail;
    std::string phone = "/data/format_unclear/file_pattern/" + best;
    if (flip_byte(dir_ + "/" + best, detail))
        logf("corrupt: flipped one byte of %s (%s; %s)", phone.c_str(), detail.c_str(), why);
    else
        logf("corrupt: could not change %s: %s", phone.c_str(), detail.c_str());
    return true;
}

void CorruptHunt::finish() {
    active_ = false;
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    wd_ = -1;
}

}  // namespace sim
