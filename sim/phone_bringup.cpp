#include "sim/phone_bringup.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>

#include "sim/phone_internal.h"
#include "sim/util.h"

namespace sim {

namespace {

bool yes_no(const std::string &value, bool &field, std::string &why) {
    if (value == "yes" || value == "true" || value == "on" || value == "1") {
        field = true;
        return true;
    }
    if (value == "no" || value == "false" || value == "off" || value == "0") {
        field = false;
        return true;
    }
    why = "expected yes or no";
    return false;
}

}  // namespace

bool apply_bringup_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why) {
    if (key == "system_read_only") {
        ok = yes_no(value, p.system_read_only, why);
        return true;
    }
    if (key == "work_dir_tmpfs") {
        ok = yes_no(value, p.work_dir_tmpfs, why);
        return true;
    }
    if (key == "health_tool_mode") {
        errno = 0;
        char *end = nullptr;
        long mode = value.empty() ? -1 : strtol(value.c_str(), &end, 8);
        ok = errno == 0 && end != nullptr && *end == '\0' && mode >= 0 && mode <= 07777;
        if (ok)
            p.health_tool_mode = static_cast<int>(mode);
        else
            why = "expected an octal mode such as 0755 or 0644";
        return true;
    }
    return false;
}

void finish_bringup(const PhoneSpec &s) {
    const Profile &p = *s.profile;
    if (p.work_dir_tmpfs) {
        // A tmpfs takes O_DIRECT (Linux 6.6 and later) and serves it from memory.
        const std::string work = in_phone(s, "/data/format_unclear");
        need(make_dirs(work, 0775), "cannot make /data/format_unclear");
        need(mount("tmpfs", work.c_str(), "tmpfs", 0, "mode=0775,size=64m") == 0,
             "cannot mount a tmpfs on /data/format_unclear");
        logf("/data/format_unclear is a tmpfs of 64 MiB");
    }
    if (p.system_read_only) {
        // /system bound on itself, then remounted read-only: a mount of its own, as on a
        // phone, on which chmod fails with EROFS whatever the mode.
        const std::string system = in_phone(s, "/system");
        bind_path(system, system, true);
        logf("/system is read-only");
    }
}

}  // namespace sim
