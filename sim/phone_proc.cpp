// The phone's real procfs. The profile's kernel nodes stay plain files in the phone's /proc,
// but a process also finds its own /proc/self there, as the sanitizer runtimes need (memory
// maps at start, the thread list of the leak checker at exit): a procfs of the phone's own
// pid namespace is mounted at /sim/proc, and /proc/self, /proc/thread-self and the command's
// /proc/<pid> are links into it. Nothing of the host's processes is visible through it.
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "sim/phone_internal.h"
#include "sim/util.h"

namespace sim {

void proc_links(const PhoneSpec &s) {
    need(make_dirs(in_phone(s, kPhoneProc)), std::string("cannot make ") + kPhoneProc);
    for (const char *name : {"self", "thread-self"}) {
        std::string link = in_phone(s, std::string("/proc/") + name);
        need(symlink((std::string(kPhoneProc) + "/" + name).c_str(), link.c_str()) == 0,
             std::string("cannot make the link /proc/") + name);
    }
}

bool mount_phone_proc(const std::string &root) {
    // Called by the phone's pid 1: a procfs shows the pid namespace of the one who mounts it.
    std::string at = root + kPhoneProc;
    if (mount("proc", at.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0) return true;
    dprintf(2, "flashaging-sim: cannot mount the phone's procfs on %s: %s\n", kPhoneProc, strerror(errno));
    return false;
}

void link_own_proc() {
    // Called by the command's process inside the phone before it starts the command.
    std::string pid = std::to_string(getpid());
    std::string link = "/proc/" + pid;
    if (symlink((std::string(kPhoneProc) + "/" + pid).c_str(), link.c_str()) != 0 && errno != EEXIST)
        dprintf(2, "flashaging-sim: cannot make the link %s: %s\n", link.c_str(), strerror(errno));
}

}  // namespace sim
