// The sandboxed phone: a private mount namespace with a fresh root, the data partition on a
// loop device, the kernel nodes and daemon files of the profile, and the command run in it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sim/profile.h"
#include "sim/throttle.h"

namespace sim {

enum class Mode { kRun, kExec };

struct PhoneSpec {
    Mode mode = Mode::kRun;
    const Profile *profile = nullptr;
    std::string root;       // host directory that becomes the phone's "/"
    std::string loop_dev;   // /dev/loopN holding the data partition
    int loop_index = -1;
    std::string out_dir;    // host directory for the phone's kept files
    std::string exe;        // host path of the executable, bound to /system/bin/flashaging
    std::string emulator;   // host path of the CPU emulator a foreign executable runs through; "" = native
    std::vector<std::string> elements;  // argument elements for the daemon
    std::vector<std::string> command;   // exec: the command and its arguments
    std::string self_exe;   // host path of this simulator (becomes /system/bin/monitor_tool)
    double timeout = -1;    // seconds; < 0 = none
    pid_t parent = 0;       // the simulator's main process
    std::string cgroup_procs;  // the I/O throttle's cgroup.procs; empty = none
    Throttle throttle;         // the I/O throttle itself (its pace can change during the run)
    int report_fd = -1;     // lines for the main process: "error MSG", "ready ...", "end ..."
};

// Phone paths used by the program and by the simulator.
inline constexpr const char *kPhoneExe = "/system/bin/flashaging";
inline constexpr const char *kPhoneTool = "/system/bin/monitor_tool";
inline constexpr const char *kBallast = "/data/.sim_ballast";

// Runs in the forked child of the simulator: builds the phone, runs the command in it,
// fires the profile's timed events, then keeps the phone's files and lets the phone go.
// Returns the child's exit status; the outcome goes to phone_spec.report_fd.
int phone_main(const PhoneSpec &phone_spec);

// Fills /data with an allocated but unwritten file until exactly `leave` bytes are free
// (statfs free blocks x block size). `data` and `ballast` are host paths. Unless `exact`,
// ext4's own small reserve (which no file can take) may stay free; *reached tells what is.
bool set_free_space(const std::string &data, const std::string &ballast, uint64_t leave, bool exact,
                    uint64_t *reached, std::string &error);

}  // namespace sim
