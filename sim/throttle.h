// A block I/O cgroup that limits how fast the phone's processes read and write the data
// partition, so that the simulated flash runs at a phone's pace whatever the host's disk.
#pragma once

#include <cstdint>
#include <string>

namespace sim {

struct Throttle {
    std::string dir;     // the cgroup folder; empty = none
    std::string procs;   // its cgroup.procs file; writing "0" there moves the writer in
    std::string majmin;  // the block device the limits are for
    bool v2 = false;     // cgroup v2 io.max, else v1 blkio
};

// Makes a cgroup named `name` with the limits (bytes per second, 0 = none) on the block
// device `majmin` ("7:3"): cgroup v1 blkio when the host has it, else cgroup v2 io.
bool throttle_create(const std::string &name, const std::string &majmin, uint64_t read_bps, uint64_t write_bps,
                     Throttle &t, std::string &why);

// Changes the limits of a made cgroup (bytes per second, 0 = none); false with `why` when
// the host refuses.
bool throttle_set(const Throttle &t, uint64_t read_bps, uint64_t write_bps, std::string &why);

// Removes the cgroup once its processes have ended (waits up to a few seconds).
void throttle_remove(Throttle &t);

}  // namespace sim
