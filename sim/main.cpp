// flashaging-sim: builds a sandboxed phone and runs the flash aging executable (or any
// command) in it, leaving nothing on the host but the run directory.
//
//   flashaging-sim run  --profile FILE --out DIR [--exe PATH] [--set 'KEY = VALUE']... [-- ELEMENT...]
//   flashaging-sim exec --profile FILE [--out DIR] [--exe PATH] [--set 'KEY = VALUE']... -- COMMAND [ARG...]
//
// Installed in the phone as /system/bin/monitor_tool, the same binary is the health tool.
#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/foreign_exe.h"
#include "sim/health_model.h"
#include "sim/image.h"
#include "sim/phone.h"
#include "sim/profile.h"
#include "sim/live_view.h"
#include "sim/run_report.h"
#include "sim/throttle.h"
#include "sim/util.h"

using namespace sim;

namespace {

// Exit statuses of `run` (exec passes on the command's status, 125 when the phone failed).
constexpr int kExitBuildFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTimeout = 3;
constexpr int kExitKilled = 4;
constexpr int kExitInterrupted = 130;
constexpr int kExecBuildFailed = 125;
constexpr int kExecTimeout = 124;

volatile sig_atomic_t g_interrupted = 0;
volatile pid_t g_child = 0;
bool g_exec_mode = false;

void on_interrupt(int sig, siginfo_t *info, void *) {
    // In exec mode the command owns the terminal: a Ctrl-C from the keyboard is the
    // command's business; a SIGINT sent to the simulator itself ends the phone.
    if (g_exec_mode && sig == SIGINT && info && info->si_code == SI_KERNEL) return;
    g_interrupted = 1;
    if (g_child > 0) kill(g_child, SIGTERM);
}

void usage() {
    fprintf(stderr,
            "usage: flashaging-sim run --profile FILE --out DIR [--exe PATH] [--set 'KEY = VALUE']... [-- ELEMENT...]\n"
            "       flashaging-sim exec --profile FILE [--out DIR] [--exe PATH] [--set 'KEY = VALUE']... -- COMMAND "
            "[ARG...]\n"
            "Profiles and their keys: sim/README.md.\n");
}

struct Options {
    Mode mode = Mode::kRun;
    std::string profile, out, exe;
    std::vector<std::string> sets;
    bool has_rest = false;
    std::vector<std::string> rest;
};

bool parse_options(int argc, char **argv, Options &o) {
    if (argc < 2) return false;
    std::string cmd = argv[1];
    if (cmd == "run")
        o.mode = Mode::kRun;
    else if (cmd == "exec")
        o.mode = Mode::kExec;
    else
        return false;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string &field) {
            if (i + 1 >= argc) return false;
            field = argv[++i];
            return true;
        };
        if (a == "--") {
            o.has_rest = true;
            for (++i; i < argc; ++i) o.rest.emplace_back(argv[i]);
            break;
        }
        if (a == "--profile") {
            if (!value(o.profile)) return false;
        } else if (a == "--out") {
            if (!value(o.out)) return false;
        } else if (a == "--exe") {
            if (!value(o.exe)) return false;
        } else if (a == "--set") {
            std::string line;
            if (!value(line)) return false;
            o.sets.push_back(line);
        } else {
            return false;
        }
    }
    if (o.profile.empty()) return false;
    if (o.mode == Mode::kRun && o.out.empty()) return false;
    if (o.mode == Mode::kExec && o.rest.empty()) return false;
    return true;
}

std::string self_path() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n < 0) return "";
    buf[n] = '\0';
    return buf;
}

std::string absolute(const std::string &path) {
    if (path.empty() || path[0] == '/') return path;
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return path;
    return std::string(cwd) + "/" + path;
}

// The run directory's files that a run makes; earlier ones are removed first.
void clear_run_outputs(const std::string &out) {
    for (const char *f : {"factory", "capture", "journal", "sim.log", "stdout.txt", "data_listing.txt", "profile.txt"})
        remove_tree(out + "/" + f);
}

std::string verdict_word(const std::string &out) {
    std::string record;
    if (!read_file(out + "/factory/flash_aging_result.txt", record)) return "";
    record = record.substr(0, 10);
    size_t nul = record.find('\0');
    if (nul != std::string::npos) record.resize(nul);
    return record;
}

std::string daemon_verdict(const std::string &out, bool &has_journal) {
    std::string journal;
    has_journal = read_file(out + "/journal", journal);
    std::string verdict, finish;
    size_t pos = 0;
    while (pos < journal.size()) {
        size_t end = journal.find('\n', pos);
        if (end == std::string::npos) end = journal.size();
        std::string line = journal.substr(pos, end - pos);
        if (line.rfind("cleanEnvDone", 0) == 0) verdict = line;
        if (line.rfind("finishOtherTest", 0) == 0) finish = line;
        pos = end + 1;
    }
    if (!finish.empty()) verdict += (verdict.empty() ? "" : ", ") + finish;
    return verdict;
}

int simulate(Options &o) {
    const bool run = o.mode == Mode::kRun;
    g_exec_mode = !run;
    const int build_failed = run ? kExitBuildFailed : kExecBuildFailed;

    Profile profile;
    std::string error;
    if (!load_profile(o.profile, o.sets, profile, error)) {
        errorf("%s", error.c_str());
        return build_failed;
    }
    if (geteuid() != 0) {
        errorf("needs root: it mounts file systems and sets up a loop device (run it as root)");
        return build_failed;
    }
    std::string self = self_path();
    std::string exe = o.exe.empty() ? dir_of(dir_of(self)) + "/flashaging" : absolute(o.exe);
    if (access(exe.c_str(), X_OK) != 0) {
        if (run || !o.exe.empty()) {
            errorf("no executable at %s (build the flashaging target, or give --exe)", exe.c_str());
            return build_failed;
        }
        exe.clear();
    }
    ExeCpu exe_cpu;
    if (!exe.empty() && !inspect_exe(exe, exe_cpu, error)) {
        errorf("%s", error.c_str());
        return build_failed;
    }
    std::vector<std::string> elements = (run && o.has_rest) ? o.rest : profile.args;

    const char *tmp_env = getenv("FLASHAGING_SIM_TMPDIR");
    std::string tmp_base = tmp_env && *tmp_env ? tmp_env : "/var/tmp";
    std::string tmp_template = tmp_base + "/flashaging-sim.XXXXXX";
    std::vector<char> tbuf(tmp_template.begin(), tmp_template.end());
    tbuf.push_back('\0');
    if (!mkdtemp(tbuf.data())) {
        errorf("cannot make a temporary folder in %s: %s", tmp_base.c_str(), strerror(errno));
        return build_failed;
    }
    const std::string tmp = tbuf.data();

    std::string out = o.out.empty() ? tmp + "/out" : absolute(o.out);
    if (!make_dirs(out)) {
        errorf("cannot make the run folder %s: %s", out.c_str(), strerror(errno));
        rmdir(tmp.c_str());
        return build_failed;
    }
    if (!o.out.empty()) clear_run_outputs(out);
    log_open(out + "/sim.log");
    logf("flashaging-sim %s, profile %s, run folder %s, temporary folder %s", run ? "run" : "exec",
         o.profile.c_str(), out.c_str(), tmp.c_str());
    write_file(out + "/profile.txt", profile.text);
    if (!exe.empty()) logf("executable %s, CPU %s", exe.c_str(), exe_cpu.summary().c_str());

    struct sigaction sa = {};
    sa.sa_sigaction = on_interrupt;
    sa.sa_flags = SA_SIGINFO;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const std::string image = tmp + "/data.img";
    int image_fd = -1, loop_fd = -1, loop_index = -1;
    std::string loop_dev;
    int exit_code = build_failed;
    bool built = false;
    std::string report;
    pid_t child = -1;
    Throttle throttle;

    // Everything after this point ends in the clean-up below.
    do {
        uint64_t size = image_bytes(profile);
        uint64_t need = host_bytes_needed(profile, o.mode, elements, size);
        struct statvfs sv;
        if (statvfs(tmp_base.c_str(), &sv) != 0) {
            errorf("cannot measure %s: %s", tmp_base.c_str(), strerror(errno));
            break;
        }
        uint64_t room = static_cast<uint64_t>(sv.f_bavail) * static_cast<uint64_t>(sv.f_frsize);
        logf("host room: %.2f GiB free in %s, the run needs about %.2f GiB", static_cast<double>(room) / kGiB,
             tmp_base.c_str(), static_cast<double>(need) / kGiB);
        if (room < need + 256 * kMiB) {
            errorf("not enough room on the host: %s has %.1f GiB free, the run needs about %.1f GiB "
                   "(FLASHAGING_SIM_TMPDIR picks another folder; host_room_gib in the profile sets the need)",
                   tmp_base.c_str(), static_cast<double>(room) / kGiB, static_cast<double>(need + 256 * kMiB) / kGiB);
            break;
        }

        image_fd = open(image.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (image_fd < 0 || ftruncate(image_fd, static_cast<off_t>(size)) != 0) {
            errorf("cannot make the data image %s: %s", image.c_str(), strerror(errno));
            break;
        }
        std::string mkfs_out;
        int st = run_command({find_mkfs(), "-q", "-F", "-m", "0", "-L", "userdata", "-E",
                              "lazy_itable_init=1,lazy_journal_init=1,nodiscard", image},
                             &mkfs_out);
        if (!mkfs_out.empty()) logf("mkfs.ext4: %s", trim(mkfs_out).c_str());
        if (g_interrupted) break;
        if (st != 0) {
            errorf("mkfs.ext4 failed on the data image (%s)%s%s", describe_status(st).c_str(),
                   mkfs_out.empty() ? "" : ": ", trim(mkfs_out).c_str());
            break;
        }
        if (!attach_loop(image_fd, image, loop_index, loop_fd, error)) {
            errorf("%s", error.c_str());
            break;
        }
        loop_dev = "/dev/loop" + std::to_string(loop_index);
        logf("loop device %s backing %s (%.3f GiB image)", loop_dev.c_str(), image.c_str(),
             static_cast<double>(size) / kGiB);
        // The loop device holds the image from here on; unlinked, it cannot outlive the device.
        unlink(image.c_str());
        close(image_fd);
        image_fd = -1;
        if (g_interrupted) break;

        std::string majmin;
        if ((profile.write_mib_s > 0 || profile.read_mib_s > 0 || !profile.paces.empty()) &&
            read_file("/sys/block/loop" + std::to_string(loop_index) + "/dev", majmin)) {
            std::string why;
            auto bps = [](double mib) { return static_cast<uint64_t>(mib * static_cast<double>(kMiB)); };
            if (throttle_create(base_of(tmp), trim(majmin), bps(profile.read_mib_s), bps(profile.write_mib_s),
                                throttle, why))
                logf("I/O pace of /data: read %g MiB/s, write %g MiB/s (cgroup %s)", profile.read_mib_s,
                     profile.write_mib_s, throttle.dir.c_str());
            else
                logf("warning: /data runs at the host's speed: %s", why.c_str());
        }

        PhoneSpec phone_spec;
        phone_spec.mode = o.mode;
        phone_spec.profile = &profile;
        phone_spec.root = tmp + "/root";
        phone_spec.loop_dev = loop_dev;
        phone_spec.loop_index = loop_index;
        phone_spec.out_dir = out;
        phone_spec.exe = exe;
        phone_spec.emulator = exe_cpu.emulator;
        phone_spec.elements = elements;
        phone_spec.command = o.rest;
        phone_spec.self_exe = self;
        phone_spec.timeout = (run || profile.timeout_set) ? profile.timeout : -1;
        phone_spec.parent = getpid();
        phone_spec.cgroup_procs = throttle.procs;
        phone_spec.throttle = throttle;
        if (!make_dirs(phone_spec.root, 0755)) {
            errorf("cannot make %s: %s", phone_spec.root.c_str(), strerror(errno));
            break;
        }
        int rep[2];
        if (pipe2(rep, O_CLOEXEC) != 0) {
            errorf("cannot make a pipe: %s", strerror(errno));
            break;
        }
        phone_spec.report_fd = rep[1];
        fflush(stdout);
        fflush(stderr);
        child = fork();
        if (child < 0) {
            errorf("cannot fork: %s", strerror(errno));
            close(rep[0]);
            close(rep[1]);
            break;
        }
        if (child == 0) {
            close(rep[0]);
            _exit(phone_main(phone_spec));
        }
        g_child = child;
        close(rep[1]);
        if (g_interrupted) kill(child, SIGTERM);

        // Wait for the phone, passing an interruption on and reading its report.
        double interrupted_at = -1;
        bool announced = false;
        pid_t view = -1;
        int cstatus = 0;
        for (;;) {
            struct pollfd pfd = {rep[0], POLLIN, 0};
            if (poll(&pfd, 1, 50) > 0) {
                char buf[4096];
                ssize_t n = read(rep[0], buf, sizeof buf);
                if (n > 0) report.append(buf, static_cast<size_t>(n));
            }
            if (!announced && report.find("ready\n") != std::string::npos) {
                announced = true;
                if (run) {
                    printf("flashaging-sim: running %s on a simulated phone (profile %s); log: %s/factory/flash_aging.log\n",
                           exe.c_str(), o.profile.c_str(), out.c_str());
                    fflush(stdout);
                    view = start_live_view(out, child);
                }
            }
            pid_t w = waitpid(child, &cstatus, WNOHANG);
            if (w == child) break;
            if (g_interrupted) {
                if (interrupted_at < 0) interrupted_at = monotonic_seconds();
                if (monotonic_seconds() - interrupted_at > 30) {
                    logf("the phone did not end within 30 s of the interruption; killing it");
                    kill(child, SIGKILL);
                }
            }
        }
        child = -1;
        g_child = 0;
        end_live_view(view);
        for (;;) {
            char buf[4096];
            ssize_t n = read(rep[0], buf, sizeof buf);
            if (n <= 0) break;
            report.append(buf, static_cast<size_t>(n));
        }
        close(rep[0]);
        built = true;
    } while (false);

    // Clean-up: the loop device goes with its last user, then the temporary folder.
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    if (image_fd >= 0) close(image_fd);
    unlink(image.c_str());
    throttle_remove(throttle);
    if (loop_fd >= 0) {
        close(loop_fd);
        double until = monotonic_seconds() + 20;
        while (loop_bound(loop_index) && monotonic_seconds() < until) usleep(20000);
        if (loop_bound(loop_index)) {
            logf("%s is still attached; detaching it", loop_dev.c_str());
            int fd = open(loop_dev.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                ioctl(fd, LOOP_CLR_FD, 0);
                close(fd);
            }
            until = monotonic_seconds() + 10;
            while (loop_bound(loop_index) && monotonic_seconds() < until) usleep(20000);
        }
        if (loop_bound(loop_index))
            errorf("%s could not be released; detach it with: losetup -d %s", loop_dev.c_str(), loop_dev.c_str());
        else
            logf("%s released", loop_dev.c_str());
    }
    rmdir((tmp + "/root").c_str());
    if (o.out.empty()) remove_tree(out);
    if (!remove_tree(tmp)) logf("warning: could not remove all of %s", tmp.c_str());

    if (!built) {
        logf("the phone was not built");
        return g_interrupted ? kExitInterrupted : exit_code;
    }

    // What the phone reported.
    std::string kind = "lost";
    int status = 0;
    double wall = 0;
    {
        size_t pos = report.find("error ");
        if (pos != std::string::npos && (pos == 0 || report[pos - 1] == '\n')) {
            size_t end = report.find('\n', pos);
            errorf("%s", report.substr(pos + 6, end - pos - 6).c_str());
            return g_interrupted ? kExitInterrupted : build_failed;
        }
        pos = report.rfind("end ");
        char k[32] = {0};
        if (pos != std::string::npos && sscanf(report.c_str() + pos, "end %31s %d %lf", k, &status, &wall) == 3)
            kind = k;
    }

    if (!run) {
        log_close();
        if (kind == "exited") {
            if (WIFEXITED(status)) return WEXITSTATUS(status);
            if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        }
        if (kind == "timeout") {
            errorf("timeout: the command ran longer than %g s and was killed", profile.timeout);
            return kExecTimeout;
        }
        if (kind == "interrupted") {
            errorf("interrupted: the command was killed");
            return kExitInterrupted;
        }
        errorf("the phone ended without the command's status");
        return kExecBuildFailed;
    }

    // The run's summary.
    bool has_journal = false;
    std::string word = verdict_word(out);
    std::string daemon = daemon_verdict(out, has_journal);
    std::string how;
    if (kind == "exited") {
        how = "ended (" + describe_status(status) + ")";
        exit_code = WIFEXITED(status) ? 0 : kExitKilled;
    } else if (kind == "timeout") {
        how = "was killed at the profile's timeout";
        exit_code = kExitTimeout;
    } else if (kind == "interrupted") {
        how = "was killed: the simulator was interrupted";
        exit_code = kExitInterrupted;
    } else {
        how = "ended without a status";
        exit_code = kExitKilled;
    }
    printf("flashaging-sim: the executable %s after %.1f s\n", how.c_str(), wall);
    printf("  verdict  %s\n", word.empty() ? "(no pass/fail record)" : word.c_str());
    printf("  daemon   %s\n",
           !has_journal ? "(no journal: the daemon was never called)" : daemon.empty() ? "(no verdict call)" : daemon.c_str());
    printf("  results  %s/factory/flash_aging_results.csv%s\n", out.c_str(),
           exists(out + "/factory/flash_aging_results.csv") ? "" : " (absent)");
    printf("  log      %s/factory/flash_aging.log%s\n", out.c_str(),
           exists(out + "/factory/flash_aging.log") ? "" : " (absent)");
    printf("  journal  %s/journal%s\n", out.c_str(), has_journal ? "" : " (absent)");
    printf("  sim log  %s/sim.log\n", out.c_str());
    printf("  cpu      %s\n", exe_cpu.summary().c_str());
    write_run_report(out);
    fflush(stdout);
    if (kind == "timeout")
        errorf("timeout: the executable ran longer than %g s and was killed", profile.timeout);
    else if (kind == "interrupted")
        errorf("interrupted: the executable was killed before its end");
    else if (exit_code == kExitKilled)
        errorf("the executable did not run to its end (%s)", kind == "exited" ? describe_status(status).c_str() : kind.c_str());
    logf("summary: verdict '%s', daemon '%s', exit %d", word.c_str(), daemon.c_str(), exit_code);
    log_close();
    return exit_code;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 0 && base_of(argv[0]) == "monitor_tool") return monitor_tool_main();
    Options o;
    if (argc >= 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        usage();
        return 0;
    }
    if (!parse_options(argc, argv, o)) {
        usage();
        return kExitUsage;
    }
    return simulate(o);
}
