#include "sim/phone.h"

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

volatile sig_atomic_t g_stop = 0;
void on_stop(int) { g_stop = 1; }

void report(const PhoneSpec &s, const std::string &line) {
    std::string l = line + "\n";
    ssize_t w = write(s.report_fd, l.data(), l.size());
    (void)w;
}

std::string in_phone(const PhoneSpec &s, const std::string &phone_path) { return s.root + phone_path; }

std::string errno_text() { return strerror(errno); }

// ---- building the root ------------------------------------------------------------------

struct BuildError {
    std::string message;
};

void need(bool ok, const std::string &what) {
    if (!ok) throw BuildError{what + ": " + errno_text()};
}

void mount_tmpfs(const std::string &dst, const char *options) {
    need(make_dirs(dst), "cannot make " + dst);
    need(mount("tmpfs", dst.c_str(), "tmpfs", 0, options) == 0, "cannot mount a tmpfs on " + dst);
}

// Binds `src` on `dst` (created as a directory or an empty file to match), read-only when asked.
void bind_path(const std::string &src, const std::string &dst, bool read_only) {
    struct stat st;
    need(stat(src.c_str(), &st) == 0, "cannot find " + src);
    if (S_ISDIR(st.st_mode)) {
        need(make_dirs(dst), "cannot make " + dst);
    } else if (!exists(dst)) {
        need(make_dirs(dir_of(dst)), "cannot make " + dir_of(dst));
        need(write_file(dst, "", 0644), "cannot make " + dst);
    }
    need(mount(src.c_str(), dst.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
         "cannot bind " + src + " on " + dst);
    if (!read_only) return;
    struct statvfs sv;
    unsigned long flags = MS_BIND | MS_REMOUNT | MS_RDONLY;
    if (statvfs(dst.c_str(), &sv) == 0) {
        if (sv.f_flag & ST_NOSUID) flags |= MS_NOSUID;
        if (sv.f_flag & ST_NODEV) flags |= MS_NODEV;
        if (sv.f_flag & ST_NOEXEC) flags |= MS_NOEXEC;
        if (sv.f_flag & ST_NOATIME) flags |= MS_NOATIME;
        if (sv.f_flag & ST_NODIRATIME) flags |= MS_NODIRATIME;
        if (sv.f_flag & ST_RELATIME) flags |= MS_RELATIME;
    }
    if (mount(nullptr, dst.c_str(), nullptr, flags, nullptr) != 0)
        logf("warning: cannot make %s read-only: %s", dst.c_str(), errno_text().c_str());
}

void node(const PhoneSpec &s, const std::string &phone_path, const std::string &text, mode_t mode = 0444) {
    std::string p = in_phone(s, phone_path);
    need(make_dirs(dir_of(p)), "cannot make " + dir_of(phone_path));
    need(write_file(p, text, mode), "cannot write " + phone_path);
}

std::string with_newline(std::string t) {
    if (t.empty() || t.back() != '\n') t += '\n';
    return t;
}

std::string default_zarvo(const std::string &name) {
    if (name == "alloc_wait") return "total_alloc_wait_h_cnt: 0\ntotal_alloc_wait_l_cnt: 3\nalloc_wait_max_ms: 12\n";
    if (name == "cpu_loading") return "cpu_loading: 23\n";
    if (name == "iowait") return "iowait_total_cnt: 41\niowait_max_ms: 180\n";
    if (name == "iowait_hung") return "iowait_hung_cnt: 0\n";
    if (name == "para_update") return "para_update: 1\n";
    return "sched_latency_total_cnt: 7\nsched_latency_max_ms: 35\n";
}

long temperature_at(const Profile &p, double t) {
    long v = p.battery_temp.empty() ? 0 : p.battery_temp.front().value;
    for (const auto &step : p.battery_temp)
        if (step.at <= t) v = step.value;
    return v;
}

void write_temperature(const PhoneSpec &s, long value) {
    std::string p = in_phone(s, "/sys/class/power_supply/battery/temp");
    if (!write_file_atomic(p, std::to_string(value) + "\n", 0644))
        logf("warning: cannot write the battery temperature: %s", errno_text().c_str());
}

uint64_t loop_written_sectors(const PhoneSpec &s) {
    std::string stat;
    uint64_t sectors = 0;
    std::string path = "/sys/block/loop" + std::to_string(s.loop_index) + "/stat";
    if (!read_file(path, stat) || !written_sectors(stat, sectors)) logf("warning: cannot read %s", path.c_str());
    return sectors;
}

void build_root(const PhoneSpec &s) {
    const Profile &p = *s.profile;
    const std::string &R = s.root;
    mount_tmpfs(R, "mode=0755,size=1g");

    // The host's programs and libraries, read-only, laid out as on the host.
    bind_path("/usr", R + "/usr", true);
    bind_path("/etc", R + "/etc", true);
    for (const char *d : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
        struct stat st;
        if (lstat(d, &st) != 0) continue;
        if (S_ISLNK(st.st_mode)) {
            char target[4096];
            ssize_t n = readlink(d, target, sizeof target - 1);
            need(n >= 0, std::string("cannot read the link ") + d);
            target[n] = '\0';
            need(symlink(target, (R + d).c_str()) == 0, std::string("cannot make the link ") + d);
        } else if (S_ISDIR(st.st_mode)) {
            bind_path(d, R + d, true);
        }
    }

    // /dev: what a shell and the program need.
    mount_tmpfs(R + "/dev", "mode=0755,size=1m");
    for (const char *dev : {"null", "zero", "full", "random", "urandom", "tty"}) {
        std::string src = std::string("/dev/") + dev;
        if (exists(src)) bind_path(src, R + src, false);
    }
    mount_tmpfs(R + "/dev/shm", "mode=1777,size=64m");
    need(make_dirs(R + "/tmp", 01777) && chmod((R + "/tmp").c_str(), 01777) == 0, "cannot make /tmp");

    // Kernel nodes: plain files on tmpfs, nothing of the host's procfs or sysfs.
    mount_tmpfs(R + "/proc", "mode=0555,size=1m");
    mount_tmpfs(R + "/sys", "mode=0555,size=1m");
    node(s, "/proc/version", with_newline(p.proc_version));
    std::string devinfo = p.devinfo_raw_set ? p.devinfo_raw
                                            : "Device version:\t" + p.device_version + "\nDevice manufacture:\t" +
                                                  p.manufacture + "\n";
    for (const auto &kind : p.storage) node(s, "/proc/devinfo/" + kind, devinfo);
    if (!p.storage.empty() || p.devinfo_raw_set) need(make_dirs(R + "/proc/devinfo"), "cannot make /proc/devinfo");
    if (p.ufs_signal) {
        std::string pa = std::to_string(p.pa_err_total), dl = std::to_string(p.dl_err_total);
        node(s, "/proc/ufs_signalShow/record",
             p.ufs_record_raw_set ? p.ufs_record_raw
                                  : "hs_gear 4\nhs_rate 2\nlanes 2\nlink_startup_cnt 1\npa_err_total " + pa +
                                        "\ndl_err_total " + dl + "\nnl_err_total 0\ntl_err_total 0\ndme_err_total 0\n");
        node(s, "/proc/ufs_signalShow/record_upload",
             p.ufs_record_upload_raw_set
                 ? p.ufs_record_upload_raw
                 : "ufs_signal_version:\t\t1\nunipro_PA_err_total_cnt:\t\t" + pa + "\nunipro_DL_err_total_cnt:\t\t" + dl +
                       "\nunipro_NL_err_total_cnt:\t\t0\nunipro_TL_err_total_cnt:\t\t0\nunipro_DME_err_total_cnt:\t\t0\n");
    }
    if (p.zarvo) {
        for (const char *f : kZarvoFiles) {
            auto it = p.zarvo_text.find(f);
            node(s, std::string("/proc/zarvo_healthinfo/") + f,
                 it != p.zarvo_text.end() ? it->second : default_zarvo(f));
        }
    }
    if (p.battery) node(s, "/sys/class/power_supply/battery/temp", std::to_string(temperature_at(p, 0)) + "\n", 0644);

    // /data: ext4 on the loop device; deleted files punch holes in the image.
    need(make_dirs(R + "/data", 0771), "cannot make /data");
    need(mount(s.loop_dev.c_str(), (R + "/data").c_str(), "ext4", 0, "discard,noinit_itable") == 0,
         "cannot mount " + s.loop_dev + " (ext4) on /data");
    chmod((R + "/data").c_str(), 0771);
    if (p.data_free_mib >= 0) {
        std::string err;
        if (!set_free_space(R + "/data", R + kBallast, static_cast<uint64_t>(p.data_free_mib) << 20, true, nullptr,
                            err))
            throw BuildError{err};
    }
    struct statfs fs;
    need(statfs((R + "/data").c_str(), &fs) == 0, "cannot measure /data");
    uint64_t total = static_cast<uint64_t>(fs.f_blocks) * static_cast<uint64_t>(fs.f_bsize);
    uint64_t free_bytes = static_cast<uint64_t>(fs.f_bfree) * static_cast<uint64_t>(fs.f_bsize);
    logf("/data: %" PRIu64 " bytes total, %" PRIu64 " bytes free (%.3f GiB; 64 GiB %s %" PRId64 " bytes)", total,
         free_bytes, static_cast<double>(free_bytes) / (1 << 30), free_bytes >= (1ULL << 36) ? "+" : "-",
         static_cast<int64_t>(free_bytes >= (1ULL << 36) ? free_bytes - (1ULL << 36) : (1ULL << 36) - free_bytes));

    // /cache/factory: the run directory's factory/ folder, so the files outlive the phone.
    std::string factory = s.out_dir + "/factory";
    need(make_dirs(factory), "cannot make " + factory);
    if (p.seed) {
        std::string record = p.seed_result;
        record.resize(10, '\0');
        need(write_file(factory + "/flash_aging_result.txt", record, 0644), "cannot seed the pass/fail record");
        logf("seeded flash_aging_result.txt with '%s' and zero padding to 10 bytes", p.seed_result.c_str());
    }
    bind_path(factory, R + "/cache/factory", false);

    // /system: build.prop, the health tool and the executable.
    std::string props;
    for (const auto &[k, v] : p.props) props += k + "=" + v + "\n";
    node(s, "/system/build.prop", props, 0644);
    need(make_dirs(R + "/system/bin"), "cannot make /system/bin");
    if (p.health_tool != "no") {
        std::string tool;
        need(read_file(s.self_exe, tool), "cannot read " + s.self_exe);
        node(s, kPhoneTool, tool, 0755);
    }
    if (!s.exe.empty()) bind_path(s.exe, R + kPhoneExe, true);
    if (s.mode == Mode::kExec && !s.command.empty() && s.command[0][0] == '/' && !exists(R + s.command[0]) &&
        exists(s.command[0]))
        bind_path(s.command[0], R + s.command[0], true);

    // The daemon's side of the aging client.
    if (p.daemon) {
        need(make_dirs(R + "/sim/daemon"), "cannot make /sim/daemon");
        node(s, "/sim/daemon/aging_version", p.aging_version + "\n", 0644);
        if (p.daemon_unreachable) node(s, "/sim/daemon/unreachable", "", 0644);
        if (p.args_fail) node(s, "/sim/daemon/args_fail", "", 0644);
        std::string args;
        for (const auto &e : s.elements) args += e + "\n";
        node(s, "/sim/daemon/args", args, 0644);
    }

    // The health tool's device model; the loop device's own counter of written sectors.
    bind_path("/sys/block/loop" + std::to_string(s.loop_index) + "/stat", R + kLoopStatFile, true);
    uint64_t base = loop_written_sectors(s);
    HealthModel model = model_from_profile(p, base, total);
    node(s, kModelFile, model_to_text(model), 0644);
    node(s, kJumpsFile, jumps_to_text(Counters{}), 0644);
    logf("health model: capacity %" PRIu64 " MiB, %" PRIu64 " sectors written before the start, pe_start %" PRId64
         ", pe_per_gib %g, waf %g",
         model.capacity_mib, base, model.pe_start, model.pe_per_gib, model.waf);
}

// ---- faults ------------------------------------------------------------------------------

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

// Flips one byte of a pattern file that the program's readers are reading: it watches the
// pattern folder for reads and picks the smallest complete file among the first ones read.
class CorruptHunt {
public:
    void start(const PhoneSpec &s, double now) {
        active_ = true;
        started_ = now;
        dir_ = in_phone(s, "/data/format_unclear/file_pattern");
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ < 0) logf("corrupt: no inotify (%s); will pick a file without watching reads", errno_text().c_str());
        logf("corrupt: looking for a pattern file being read");
    }
    bool active() const { return active_; }
    int fd() const { return fd_; }

    void step(double now) {
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

private:
    bool pick(const std::set<std::string> &names, const char *why) {
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

    void finish() {
        active_ = false;
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
        wd_ = -1;
    }

    bool active_ = false;
    double started_ = 0, first_read_ = -1;
    int fd_ = -1, wd_ = -1;
    std::string dir_;
    std::set<std::string> read_names_;
};

// ---- the events of the profile ---------------------------------------------------------------

struct Event {
    Trigger at;
    std::string what;
    std::function<void()> fire;
    double path_seen = -1;
    bool done = false;
};

std::string capture_label(const Trigger &t) {
    std::string label = t.text;
    for (char &c : label)
        if (c == '/') c = '_';
    while (!label.empty() && label[0] == '_') label.erase(0, 1);
    return label.empty() ? "0" : label;
}

// ---- the process inside: pid 1 of the phone's pid namespace ------------------------------

struct ExecPlan {
    std::string root;
    std::vector<std::string> argv;
    std::vector<std::string> env;
    int in_fd = -1, out_fd = -1;
    bool own_group = false;
};

[[noreturn]] void exec_in_phone(const ExecPlan &plan) {
    if (plan.own_group) setpgid(0, 0);
    if (plan.in_fd >= 0) dup2(plan.in_fd, 0);
    if (plan.out_fd >= 0) {
        dup2(plan.out_fd, 1);
        dup2(plan.out_fd, 2);
    }
    if (chroot(plan.root.c_str()) != 0 || chdir("/") != 0) {
        dprintf(2, "flashaging-sim: cannot enter the phone: %s\n", strerror(errno));
        _exit(126);
    }
    sigset_t all;
    sigemptyset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
    clearenv();
    for (const auto &e : plan.env) putenv(const_cast<char *>(e.c_str()));
    std::vector<char *> argv;
    for (const auto &a : plan.argv) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    int e = errno;
    dprintf(2, "flashaging-sim: cannot run %s in the phone: %s\n", argv[0], strerror(e));
    _exit(e == ENOENT ? 127 : 126);
}

// pid 1 of the phone: starts the command, passes signals on to it, reaps orphans, and
// reports the command's wait status. When it ends, the kernel ends every process left.
[[noreturn]] void init_main(const ExecPlan &plan, int ctrl_rd, int status_wr, int cgroup_fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (cgroup_fd >= 0) {
        // Into the throttle before anything of the phone starts; children stay in it.
        ssize_t w = write(cgroup_fd, "0\n", 2);
        (void)w;
        close(cgroup_fd);
    }
    for (int sig : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU})
        signal(sig, SIG_IGN);
    pid_t child = fork();
    if (child < 0) {
        int status = 127 << 8;
        ssize_t w = write(status_wr, &status, sizeof status);
        (void)w;
        _exit(1);
    }
    if (child == 0) exec_in_phone(plan);
    for (;;) {
        struct pollfd pfd = {ctrl_rd, POLLIN, 0};
        int r = poll(&pfd, 1, 20);
        if (r > 0) {
            unsigned char sig = 0;
            ssize_t n = read(ctrl_rd, &sig, 1);
            if (n == 0) _exit(1);  // the simulator is gone: end the phone
            if (n == 1) kill(child, sig);
        }
        int status = 0;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            if (pid == child) {
                ssize_t w = write(status_wr, &status, sizeof status);
                (void)w;
                _exit(0);
            }
        }
    }
}

std::vector<std::string> phone_env(Mode mode) {
    const char *path = "PATH=/system/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    std::vector<std::string> env;
    for (char **e = environ; e && *e; ++e) {
        std::string v = *e;
        std::string key = v.substr(0, v.find('='));
        if (key == "PATH" || key == "HOME" || key == "TMPDIR" || key == "PWD" || key == "OLDPWD") continue;
        bool keep = mode == Mode::kExec || key == "TERM" || key == "TZ" || key.find("SAN_OPTIONS") != std::string::npos;
        if (keep) env.push_back(v);
    }
    env.emplace_back(path);
    env.emplace_back("HOME=/");
    return env;
}

}  // namespace

bool set_free_space(const std::string &data, const std::string &ballast, uint64_t leave, bool exact,
                    uint64_t *reached, std::string &error) {
    auto free_now = [&](uint64_t &f) {
        struct statfs fs;
        if (statfs(data.c_str(), &fs) != 0) return false;
        f = static_cast<uint64_t>(fs.f_bfree) * static_cast<uint64_t>(fs.f_bsize);
        return true;
    };
    uint64_t f = 0;
    if (!free_now(f)) {
        error = "cannot measure /data: " + errno_text();
        return false;
    }
    int fd = open(ballast.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot make " + ballast + ": " + errno_text();
        return false;
    }
    struct stat st;
    fstat(fd, &st);
    uint64_t len = static_cast<uint64_t>(st.st_size);
    if (f < leave && len == 0) {
        close(fd);
        unlink(ballast.c_str());
        char b[160];
        snprintf(b, sizeof b, "/data has only %" PRIu64 " bytes free, less than the %" PRIu64 " asked for", f, leave);
        error = b;
        return false;
    }
    bool full = false;
    for (int round = 0; round < 64 && f != leave && !full; ++round) {
        if (f > leave) {
            uint64_t more = f - leave;
            if (fallocate(fd, 0, static_cast<off_t>(len), static_cast<off_t>(more)) != 0) {
                if (errno != ENOSPC) {
                    error = "cannot fill /data: " + errno_text();
                    close(fd);
                    return false;
                }
                full = true;
            }
        } else {
            uint64_t less = leave - f;
            uint64_t newlen = len > less ? len - less : 0;
            if (ftruncate(fd, static_cast<off_t>(newlen)) != 0) {
                error = "cannot shrink the ballast: " + errno_text();
                close(fd);
                return false;
            }
        }
        fstat(fd, &st);
        len = static_cast<uint64_t>(st.st_size);
        if (!free_now(f)) break;
    }
    close(fd);
    if (reached) *reached = f;
    if (f != leave && (exact || f < leave)) {
        char b[160];
        snprintf(b, sizeof b, "could not bring /data to %" PRIu64 " free bytes (it has %" PRIu64 ")", leave, f);
        error = b;
        return false;
    }
    if (len == 0) unlink(ballast.c_str());
    return true;
}

int phone_main(const PhoneSpec &s) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != s.parent) _exit(1);
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa = {};
    sa.sa_handler = on_stop;
    sigaction(SIGTERM, &sa, nullptr);

    const Profile &p = *s.profile;
    if (unshare(CLONE_NEWNS) != 0) {
        report(s, "error cannot make a private mount namespace: " + errno_text());
        return 1;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        report(s, "error cannot make the mounts private: " + errno_text());
        return 1;
    }
    try {
        build_root(s);
    } catch (const BuildError &e) {
        report(s, "error " + e.message);
        return 1;
    }
    if (g_stop) {
        report(s, "end interrupted 0 0");
        return 0;
    }

    // The command and where its output goes.
    ExecPlan plan;
    plan.root = s.root;
    plan.env = phone_env(s.mode);
    int out_fd = -1, in_fd = -1;
    if (s.mode == Mode::kRun) {
        plan.argv = {kPhoneExe};
        plan.own_group = true;
        out_fd = open((s.out_dir + "/stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        in_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (out_fd < 0 || in_fd < 0) {
            report(s, "error cannot open " + s.out_dir + "/stdout.txt: " + errno_text());
            return 1;
        }
    } else {
        plan.argv = s.command;
    }
    plan.in_fd = in_fd;
    plan.out_fd = out_fd;

    int ctrl[2], status[2];
    if (pipe2(ctrl, O_CLOEXEC) != 0 || pipe2(status, O_CLOEXEC | O_NONBLOCK) != 0) {
        report(s, "error cannot make pipes: " + errno_text());
        return 1;
    }
    // A pid namespace of its own, so that nothing the command starts outlives the phone.
    if (unshare(CLONE_NEWPID) != 0) {
        report(s, "error cannot make a pid namespace: " + errno_text());
        return 1;
    }

    // Timed events, relative to the start of the command.
    std::vector<Event> events;
    for (size_t i = 1; i < p.battery_temp.size(); ++i) {
        long v = p.battery_temp[i].value;
        Trigger t;
        t.seconds = p.battery_temp[i].at;
        t.text = std::to_string(t.seconds);
        events.push_back({t, "battery temperature " + std::to_string(v), [&s, v] { write_temperature(s, v); }});
    }
    Counters jumps{};
    for (const auto &j : p.jumps) {
        std::string what = std::string("jump ") + kCounterNames[j.counter] + (j.delta < 0 ? "" : "+") +
                           std::to_string(j.delta);
        events.push_back({j.at, what, [&s, &jumps, j] {
                              jumps[j.counter] += j.delta;
                              if (!write_file_atomic(in_phone(s, kJumpsFile), jumps_to_text(jumps), 0644))
                                  logf("warning: cannot write %s", kJumpsFile);
                          }});
    }
    for (const auto &c : p.captures) {
        events.push_back({c.at, "capture " + c.path, [&s, c] {
                              std::string to = s.out_dir + "/capture/" + capture_label(c.at);
                              make_dirs(to);
                              bool truncated = false;
                              uint64_t n = copy_tree(in_phone(s, c.path), to + "/" + base_of(c.path), 256ULL << 20,
                                                     &truncated);
                              logf("capture: %s -> %s/%s (%" PRIu64 " bytes%s)", c.path.c_str(), to.c_str(),
                                   base_of(c.path).c_str(), n, truncated ? ", cut at 256 MiB" : "");
                          }});
    }
    if (p.ballast) {
        events.push_back({p.ballast_at, "ballast leaving " + std::to_string(p.ballast_leave_mib) + " MiB free", [&s, &p] {
                              std::string err;
                              uint64_t reached = 0;
                              if (set_free_space(in_phone(s, "/data"), in_phone(s, kBallast),
                                                 static_cast<uint64_t>(p.ballast_leave_mib) << 20, false, &reached,
                                                 err))
                                  logf("ballast: /data now has %" PRIu64 " bytes free%s", reached,
                                       reached > (static_cast<uint64_t>(p.ballast_leave_mib) << 20)
                                           ? " (ext4 keeps the rest for itself)"
                                           : "");
                              else
                                  logf("ballast: %s", err.c_str());
                          }});
    }
    CorruptHunt hunt;
    double t0 = 0;
    if (p.corrupt) events.push_back({p.corrupt_at, "corrupt a pattern file", [&] { hunt.start(s, monotonic_seconds() - t0); }});
    for (const auto &sig : p.signals) {
        int fd = ctrl[1];
        events.push_back({sig.at, "signal " + sig.name, [fd, sig] {
                              unsigned char b = static_cast<unsigned char>(sig.signo);
                              ssize_t w = write(fd, &b, 1);
                              (void)w;
                          }});
    }

    int cgroup_fd = -1;
    if (!s.cgroup_procs.empty()) {
        cgroup_fd = open(s.cgroup_procs.c_str(), O_WRONLY | O_CLOEXEC);
        if (cgroup_fd < 0) logf("warning: cannot open %s: %s", s.cgroup_procs.c_str(), errno_text().c_str());
    }
    t0 = monotonic_seconds();
    pid_t init = fork();
    if (init < 0) {
        report(s, "error cannot start the phone's first process: " + errno_text());
        return 1;
    }
    if (init == 0) {
        close(ctrl[1]);
        close(status[0]);
        init_main(plan, ctrl[0], status[1], cgroup_fd);
    }
    if (cgroup_fd >= 0) close(cgroup_fd);
    close(ctrl[0]);
    close(status[1]);
    if (in_fd >= 0) close(in_fd);
    if (out_fd >= 0) close(out_fd);
    {
        std::string cmd;
        for (const auto &a : plan.argv) cmd += (cmd.empty() ? "" : " ") + a;
        logf("phone ready; started %s", cmd.c_str());
        if (s.mode == Mode::kRun) {
            std::string els;
            for (const auto &e : s.elements) els += (els.empty() ? "" : " | ") + e;
            logf("argument elements: %s", els.empty() ? "(none)" : els.c_str());
        }
    }
    report(s, "ready");

    std::string end_kind = "lost";
    int end_status = 0;
    for (;;) {
        int st = 0;
        ssize_t n = read(status[0], &st, sizeof st);
        if (n == static_cast<ssize_t>(sizeof st)) {
            end_kind = "exited";
            end_status = st;
            break;
        }
        int ist = 0;
        if (waitpid(init, &ist, WNOHANG) == init) {
            n = read(status[0], &st, sizeof st);
            if (n == static_cast<ssize_t>(sizeof st)) {
                end_kind = "exited";
                end_status = st;
            }
            init = -1;
            break;
        }
        double elapsed = monotonic_seconds() - t0;
        if (g_stop) {
            end_kind = "interrupted";
            break;
        }
        if (s.timeout > 0 && elapsed >= s.timeout) {
            end_kind = "timeout";
            break;
        }
        for (auto &e : events) {
            if (e.done) continue;
            bool due = false;
            if (e.at.path.empty()) {
                due = elapsed >= e.at.seconds;
            } else {
                if (e.path_seen < 0 && exists(in_phone(s, e.at.path))) {
                    e.path_seen = elapsed;
                    logf("event: %s appeared at +%.2f s", e.at.path.c_str(), elapsed);
                }
                due = e.path_seen >= 0 && elapsed >= e.path_seen + e.at.seconds;
            }
            if (!due) continue;
            e.done = true;
            logf("event at +%.2f s (%s): %s", elapsed, e.at.text.c_str(), e.what.c_str());
            e.fire();
        }
        hunt.step(monotonic_seconds() - t0);
        struct pollfd pfd[2] = {{status[0], POLLIN, 0}, {hunt.fd(), POLLIN, 0}};
        poll(pfd, hunt.active() && hunt.fd() >= 0 ? 2 : 1, 20);
    }
    double wall = monotonic_seconds() - t0;
    if (init > 0) {
        if (end_kind != "exited") logf("ending the phone's processes (%s)", end_kind.c_str());
        kill(init, SIGKILL);
        int ist;
        while (waitpid(init, &ist, 0) < 0 && errno == EINTR) {
        }
    }
    if (end_kind == "exited")
        logf("the command ended after %.3f s: %s", wall, describe_status(end_status).c_str());
    else if (end_kind == "timeout")
        logf("timeout: the command ran longer than %g s and was killed", s.timeout);
    else if (end_kind == "interrupted")
        logf("interrupted after %.3f s: the command was killed", wall);
    else
        logf("the phone's first process ended without a status after %.3f s", wall);

    // Keep what the run left: the journal and a listing of /data.
    std::string journal;
    if (read_file(in_phone(s, "/sim/daemon/journal"), journal)) {
        if (!write_file(s.out_dir + "/journal", journal)) logf("warning: cannot write %s/journal", s.out_dir.c_str());
    }
    write_file(s.out_dir + "/data_listing.txt", list_tree(in_phone(s, "/data"), 200000));

    char line[160];
    snprintf(line, sizeof line, "end %s %d %.3f", end_kind.c_str(), end_status, wall);
    report(s, line);

    // Release the data partition now, so the loop device goes with it.
    std::string data = in_phone(s, "/data");
    if (umount2(data.c_str(), 0) != 0) {
        logf("unmounting /data: %s; detaching it", errno_text().c_str());
        umount2(data.c_str(), MNT_DETACH);
    }
    return 0;
}

}  // namespace sim
