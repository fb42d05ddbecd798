// What the phone's parts share inside the simulator: the report pipe, paths in the phone's
// root, the root's builder and the corrupting fault.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>

#include "sim/phone.h"

namespace sim {

// Sends one line to the simulator's main process.
void report(const PhoneSpec &s, const std::string &line);
// Host path of a path of the phone.
inline std::string in_phone(const PhoneSpec &s, const std::string &phone_path) { return s.root + phone_path; }
std::string errno_text();

// Thrown while the root is built; phone_main reports its message and ends.
struct BuildError {
    std::string message;
};
void need(bool ok, const std::string &what);
// Writes a node of the phone (making its folders).
void node(const PhoneSpec &s, const std::string &phone_path, const std::string &text, mode_t mode = 0444);
// Binds `src` on `dst` (created as a directory or an empty file to match), read-only when asked.
void bind_path(const std::string &src, const std::string &dst, bool read_only);

long temperature_at(const Profile &p, double t);
void write_temperature(const PhoneSpec &s, long value);
uint64_t loop_written_sectors(const PhoneSpec &s);
// Builds the phone's root under s.root: binds, tmpfs, /data, /proc, /sys, /system, daemon.
void build_root(const PhoneSpec &s);

// The phone's real procfs (sim/phone_proc.cpp): where it is mounted, the /proc/self and
// /proc/thread-self links build_root makes, the mount by the phone's pid 1 (false, with a
// line on standard error, when it fails) and the link /proc/<pid> the command's process
// makes to its own folder.
inline constexpr const char *kPhoneProc = "/sim/proc";
void proc_links(const PhoneSpec &s);
bool mount_phone_proc(const std::string &root);
void link_own_proc();

// Flips one byte of a pattern file that the program's readers are reading: it watches the
// pattern folder for reads and picks the smallest complete file among the first ones read.
class CorruptHunt {
public:
    void start(const PhoneSpec &s, double now);
    bool active() const { return active_; }
    int fd() const { return fd_; }
    void step(double now);

private:
    bool pick(const std::set<std::string> &names, const char *why);
    void finish();

    bool active_ = false;
    double started_ = 0, first_read_ = -1;
    int fd_ = -1, wd_ = -1;
    std::string dir_;
    std::set<std::string> read_names_;
};

}  // namespace sim
