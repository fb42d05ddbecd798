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
#include "sim/phone_bringup.h"
#include "sim/util.h"

extern char **environ;
namespace sim {

void report(const PhoneSpec &s, const std::string &line) {
    std::string l = line + "\n";
    ssize_t w = write(s.report_fd, l.data(), l.size());
    (void)w;
}

std::string errno_text() { return strerror(errno); }

void need(bool ok, const std::string &what) {
    if (!ok) throw BuildError{what + ": " + errno_text()};
}

static void mount_tmpfs(const std::string &dst, const char *options) {
    need(make_dirs(dst), "cannot make " + dst);
    need(mount("tmpfs", dst.c_str(), "tmpfs", 0, options) == 0, "cannot mount a tmpfs on " + dst);
}

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

void node(const PhoneSpec &s, const std::string &phone_path, const std::string &text, mode_t mode) {
    std::string p = in_phone(s, phone_path);
    need(make_dirs(dir_of(p)), "cannot make " + dir_of(phone_path));
    need(write_file(p, text, mode), "cannot write " + phone_path);
}

static std::string with_newline(std::string t) {
    if (t.empty() || t.back() != '\n') t += '\n';
    return t;
}

static std::string default_zarvo(const std::string &name) {
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
    proc_links(s);
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
        node(s, kPhoneTool, tool, static_cast<mode_t>(p.health_tool_mode));
    }
    if (!s.exe.empty()) bind_path(s.exe, R + kPhoneExe, true);
    if (s.mode == Mode::kExec && !s.command.empty() && s.command[0][0] == '/' && !exists(R + s.command[0]) &&
        exists(s.command[0]))
        bind_path(s.command[0], R + s.command[0], true);
    finish_bringup(s);

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

}  // namespace sim
