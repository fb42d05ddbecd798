// The phone's flash on the host: a sparse image sized for the profile's free space, on a loop
// device of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/phone.h"
#include "sim/profile.h"

namespace sim {

inline constexpr uint64_t kMiB = 1ULL << 20;
inline constexpr uint64_t kGiB = 1ULL << 30;

// Image size for the profile: its data size, or what gives exactly its free space.
uint64_t image_bytes(const Profile &p);
// What the run will write to the host at most.
uint64_t host_bytes_needed(const Profile &p, Mode mode, const std::vector<std::string> &elements,
                           uint64_t image);
std::string find_mkfs();
// Attaches the image to a free loop device that lets go of it on its last close; loop_fd is
// a read-only descriptor of the device.
bool attach_loop(int image_fd, const std::string &image, int &index, int &loop_fd, std::string &error);
// Whether loop device `index` still has a backing file.
bool loop_bound(int index);

}  // namespace sim
