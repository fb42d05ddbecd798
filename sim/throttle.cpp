#include "sim/throttle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

#include "sim/util.h"

namespace sim {

namespace {

struct MountPoint {
    std::string dir, fstype, super_options;
};

std::vector<MountPoint> cgroup_mounts() {
    std::vector<MountPoint> mounts;
    std::string text;
    if (!read_file("/proc/self/mountinfo", text)) return mounts;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        // id parent maj:min root mountpoint options [optional...] - fstype source superoptions
        std::istringstream f(line);
        std::string id, parent, dev, root, point, opts, tok;
        f >> id >> parent >> dev >> root >> point >> opts;
        while (f >> tok && tok != "-") {
        }
        MountPoint m;
        std::string source;
        f >> m.fstype >> source >> m.super_options;
        m.dir = point;
        if (m.fstype == "cgroup" || m.fstype == "cgroup2") mounts.push_back(m);
    }
    return mounts;
}

// This process's cgroup path for a v1 controller, or for v2 when `controller` is empty.
std::string own_cgroup(const std::string &controller) {
    std::string text;
    if (!read_file("/proc/self/cgroup", text)) return "/";
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t a = line.find(':'), b = line.find(':', a + 1);
        if (a == std::string::npos || b == std::string::npos) continue;
        std::string ctrls = line.substr(a + 1, b - a - 1);
        std::string path = line.substr(b + 1);
        if (controller.empty() ? (line.compare(0, 3, "0::") == 0)
                               : (("," + ctrls + ",").find("," + controller + ",") != std::string::npos))
            return path.empty() ? "/" : path;
    }
    return "/";
}

bool write_text(const std::string &path, const std::string &text) {
    return write_file(path, text, 0644);
}

}  // namespace

bool throttle_create(const std::string &name, const std::string &majmin, uint64_t read_bps, uint64_t write_bps,
                     Throttle &t, std::string &why) {
    t = Throttle{};
    auto mounts = cgroup_mounts();
    for (const auto &m : mounts) {
        if (m.fstype != "cgroup" || ("," + m.super_options + ",").find(",blkio,") == std::string::npos) continue;
        std::string parent = m.dir + own_cgroup("blkio");
        while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
        std::string dir = parent + "/" + name;
        if (mkdir(dir.c_str(), 0755) != 0) {
            why = "cannot make " + dir + ": " + strerror(errno);
            return false;
        }
        bool ok = true;
        if (read_bps) ok = write_text(dir + "/blkio.throttle.read_bps_device", majmin + " " + std::to_string(read_bps)) && ok;
        if (write_bps)
            ok = write_text(dir + "/blkio.throttle.write_bps_device", majmin + " " + std::to_string(write_bps)) && ok;
        if (!ok) {
            why = "cannot set the blkio limits in " + dir + ": " + strerror(errno);
            rmdir(dir.c_str());
            return false;
        }
        t.dir = dir;
        t.procs = dir + "/cgroup.procs";
        t.majmin = majmin;
        return true;
    }
    for (const auto &m : mounts) {
        if (m.fstype != "cgroup2") continue;
        std::string parent = m.dir + own_cgroup("");
        while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
        std::string sub;
        read_file(parent + "/cgroup.subtree_control", sub);
        if ((" " + trim(sub) + " ").find(" io ") == std::string::npos &&
            !write_text(parent + "/cgroup.subtree_control", "+io")) {
            why = "the io controller is not available below " + parent;
            continue;
        }
        std::string dir = parent + "/" + name;
        if (mkdir(dir.c_str(), 0755) != 0) {
            why = "cannot make " + dir + ": " + strerror(errno);
            continue;
        }
        std::string limit = majmin;
        limit += " rbps=" + (read_bps ? std::to_string(read_bps) : std::string("max"));
        limit += " wbps=" + (write_bps ? std::to_string(write_bps) : std::string("max"));
        if (!write_text(dir + "/io.max", limit)) {
            why = "cannot set io.max in " + dir + ": " + strerror(errno);
            rmdir(dir.c_str());
            continue;
        }
        t.dir = dir;
        t.procs = dir + "/cgroup.procs";
        t.majmin = majmin;
        t.v2 = true;
        return true;
    }
    if (why.empty()) why = "no blkio or io cgroup controller on this host";
    return false;
}

bool throttle_set(const Throttle &t, uint64_t read_bps, uint64_t write_bps, std::string &why) {
    if (t.dir.empty()) {
        why = "the phone has no I/O cgroup";
        return false;
    }
    bool ok = true;
    if (t.v2) {
        std::string limit = t.majmin;
        limit += " rbps=" + (read_bps ? std::to_string(read_bps) : std::string("max"));
        limit += " wbps=" + (write_bps ? std::to_string(write_bps) : std::string("max"));
        ok = write_text(t.dir + "/io.max", limit);
    } else {
        // blkio takes 0 as "no limit".
        ok = write_text(t.dir + "/blkio.throttle.read_bps_device", t.majmin + " " + std::to_string(read_bps)) && ok;
        ok = write_text(t.dir + "/blkio.throttle.write_bps_device", t.majmin + " " + std::to_string(write_bps)) && ok;
    }
    if (!ok) why = "cannot change the limits in " + t.dir + ": " + strerror(errno);
    return ok;
}

void throttle_remove(Throttle &t) {
    if (t.dir.empty()) return;
    double until = monotonic_seconds() + 10;
    while (rmdir(t.dir.c_str()) != 0 && errno == EBUSY && monotonic_seconds() < until) usleep(20000);
    if (exists(t.dir))
        logf("warning: cannot remove the cgroup %s: %s", t.dir.c_str(), strerror(errno));
    t = Throttle{};
}

}  // namespace sim
