#include "sim/phone.h"
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
#include <sys/syscall.h>
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

#include "sim/fault_events.h"
#include "sim/pace.h"
#include "sim/foreign_exe.h"
#include "sim/health_model.h"
#include "sim/inject_run.h"
#include "sim/util.h"

extern char **environ;

namespace sim {

namespace {

volatile sig_atomic_t g_stop = 0;
void on_stop(int) { g_stop = 1; }

// ---- the events of the profile ---------------------------------------------------------------

struct Event {
    Trigger at;
    std::string what;
    std::function<void()> fire;
    size_t stage = 0;          // which stage of the trigger is looked for (0: `at` itself)
    double stage_start = 0;    // when the stage before it fired (seconds into the run)
    double seen = -1;          // when the stage's condition was first met
    bool done = false;
};

// The trigger of stage `i` of an event: `at` itself, then its later stages.
const Trigger &stage_of(const Trigger &at, size_t i) { return i == 0 ? at : at.then[i - 1]; }

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
    bool emulated = false;  // argv[0] is a CPU emulator that runs the program
};

// Sends a signal meant for the whole process. A kernel gives it to a thread that lets it in;
// qemu-user does not: it leaves it with whichever thread the host picked, also one that holds
// it back, sometimes until the run's end. So under an emulator it goes to the main thread, the
// one a kernel picks in these runs (it waits in joins), while that thread lives; after, to
// the process.
void signal_program(const ExecPlan &plan, pid_t child, int sig) {
    if (plan.emulated) {
        std::string stat;
        const std::string path = plan.root + "/sim/proc/" + std::to_string(child) + "/stat";
        size_t close = read_file(path, stat) ? stat.rfind(')') : std::string::npos;
        const bool main_alive = close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
        if (main_alive && syscall(SYS_tgkill, child, child, sig) == 0) return;
    }
    kill(child, sig);
}

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
    link_own_proc();
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
    mount_phone_proc(plan.root);
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
            if (n == 1) signal_program(plan, child, sig);
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
        bind_emulator(s);
        bind_injector(s);
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
    add_injector_env(s, plan.env);
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
    const size_t plain_argc = plan.argv.size();
    plan.argv = through_emulator(s, plan.argv);  // a foreign executable runs through its emulator
    plan.emulated = plan.argv.size() != plain_argc;
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
        Trigger t = p.battery_temp[i].when;
        if (t.text.empty()) t.text = "0";
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
    for (auto &f : campaign_fault_events(s)) events.push_back({f.at, f.what, f.fire});
    for (auto &f : pace_events(s)) events.push_back({f.at, f.what, f.fire});

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

    LogWatch logwatch;
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
        logwatch.poll(s);
        for (auto &e : events) {
            if (e.done) continue;
            bool due = false;
            const Trigger &t = stage_of(e.at, e.stage);
            if (t.path.empty() && t.log.empty() && t.thread_state.empty()) {
                due = elapsed >= e.stage_start + t.seconds;
            } else {
                if (e.seen < 0 && trigger_condition(s, t, logwatch)) {
                    e.seen = elapsed;
                    if (e.at.then.empty())
                        logf("event: %s appeared at +%.2f s", t.text.c_str(), elapsed);
                    else  // a stage of a chain: the first stage's own text is the chain's start
                        logf("event: stage %zu of %zu (%s) met at +%.2f s", e.stage + 1, e.at.then.size() + 1,
                             e.stage == 0 ? e.at.text.substr(0, e.at.text.find(" then ")).c_str() : t.text.c_str(),
                             elapsed);
                }
                due = e.seen >= 0 && elapsed >= e.seen + t.seconds;
            }
            if (due && e.stage < e.at.then.size()) {  // on to the next stage
                ++e.stage;
                e.stage_start = elapsed;
                e.seen = -1;
                continue;
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

