#include "sim/image.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim {

// Image size for an exact free space: ext4 keeps 256-byte inodes per 16 KiB (1/64), bitmaps
// and descriptors, and a journal of at most 1 GiB; the ballast trims what is left over.
uint64_t image_bytes(const Profile &p) {
    if (p.data_free_mib >= 0) {
        double want = static_cast<double>(static_cast<uint64_t>(p.data_free_mib) * kMiB) + 1.0 * kGiB + 128.0 * kMiB;
        uint64_t size = static_cast<uint64_t>(std::ceil(want / (1.0 - 1.0 / 64 - 0.002)));
        return (size + 4 * kMiB - 1) / (4 * kMiB) * (4 * kMiB);
    }
    uint64_t size = static_cast<uint64_t>(std::llround(p.data_size_gib * static_cast<double>(kGiB)));
    return (size + kMiB - 1) / kMiB * kMiB;
}

// What the run will write to the host at most: the data the program can put on /data
// before its reserve, a benchmark file, and some room for the file system's own writes.
uint64_t host_bytes_needed(const Profile &p, Mode mode, const std::vector<std::string> &elements,
                           uint64_t image) {
    if (p.host_room_gib >= 0) return static_cast<uint64_t>(p.host_room_gib * static_cast<double>(kGiB));
    if (mode == Mode::kExec) return kGiB;
    double free_bytes = p.data_free_mib >= 0 ? static_cast<double>(p.data_free_mib) * kMiB
                                             : static_cast<double>(image) * (1.0 - 1.0 / 64 - 0.002) - 0.5 * kGiB;
    // Without the storage filler (an "-n" of another test) the run writes next to nothing.
    for (const auto &e : elements) {
        if (e.rfind("-n ", 0) != 0) continue;
        long n = strtol(e.c_str() + 3, nullptr, 10);
        if (n != 6 && n != -1) return 256 * kMiB;
    }
    double reserve_mib = 1000;
    if (p.aging_version.rfind("2.0", 0) == 0) {
        for (const auto &e : elements) {
            if (e.rfind("-reserved_space ", 0) != 0) continue;
            double v = trunc(strtod(e.c_str() + 16, nullptr));
            if (v != 0) reserve_mib = v < 0 ? 0 : v;
        }
    }
    double fill = free_bytes - reserve_mib * kMiB;
    if (fill < 0) fill = 0;
    double need = fill + 1.0 * kGiB + 64.0 * kMiB;
    if (need > static_cast<double>(image)) need = static_cast<double>(image);
    return static_cast<uint64_t>(need);
}

std::string find_mkfs() {
    for (const char *p : {"/usr/sbin/mkfs.ext4", "/sbin/mkfs.ext4", "/usr/bin/mkfs.ext4"})
        if (access(p, X_OK) == 0) return p;
    return "mkfs.ext4";
}

// Attaches the image to a free loop device that lets go of it on its last close. Returns a
// read-only descriptor of the device (a writer would keep ext4 from mounting it).
bool attach_loop(int image_fd, const std::string &image, int &index, int &loop_fd, std::string &error) {
    int ctl = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (ctl < 0) {
        error = std::string("cannot open /dev/loop-control: ") + strerror(errno);
        return false;
    }
    for (int attempt = 0; attempt < 64; ++attempt) {
        int n = ioctl(ctl, LOOP_CTL_GET_FREE);
        if (n < 0) {
            error = std::string("no free loop device: ") + strerror(errno);
            break;
        }
        std::string dev = "/dev/loop" + std::to_string(n);
        int fd = -1;
        for (int wait = 0; wait < 50 && fd < 0; ++wait) {
            fd = open(dev.c_str(), O_RDWR | O_CLOEXEC);
            if (fd < 0 && errno == ENOENT) usleep(20000);
            else break;
        }
        if (fd < 0) {
            error = "cannot open " + dev + ": " + strerror(errno);
            break;
        }
        struct loop_config cfg;
        memset(&cfg, 0, sizeof cfg);
        cfg.fd = static_cast<__u32>(image_fd);
        cfg.info.lo_flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_DIRECT_IO;
        snprintf(reinterpret_cast<char *>(cfg.info.lo_file_name), LO_NAME_SIZE, "%s", image.c_str());
        int r = ioctl(fd, LOOP_CONFIGURE, &cfg);
        if (r != 0 && errno == EINVAL) {
            cfg.info.lo_flags = LO_FLAGS_AUTOCLEAR;  // no direct I/O on this host's file system
            r = ioctl(fd, LOOP_CONFIGURE, &cfg);
        }
        if (r != 0 && (errno == ENOTTY || errno == EINVAL)) {
            // Kernels before LOOP_CONFIGURE.
            r = ioctl(fd, LOOP_SET_FD, image_fd);
            if (r == 0) {
                struct loop_info64 info;
                memset(&info, 0, sizeof info);
                info.lo_flags = LO_FLAGS_AUTOCLEAR;
                snprintf(reinterpret_cast<char *>(info.lo_file_name), LO_NAME_SIZE, "%s", image.c_str());
                if (ioctl(fd, LOOP_SET_STATUS64, &info) != 0) {
                    error = std::string("cannot set up ") + dev + ": " + strerror(errno);
                    ioctl(fd, LOOP_CLR_FD, 0);
                    close(fd);
                    break;
                }
            }
        }
        if (r != 0) {
            int e = errno;
            close(fd);
            if (e == EBUSY) continue;  // another simulator took it first
            error = "cannot attach the image to " + dev + ": " + strerror(e);
            break;
        }
        int ro = open(dev.c_str(), O_RDONLY | O_CLOEXEC);
        close(fd);
        if (ro < 0) {
            error = "cannot reopen " + dev + ": " + strerror(errno);
            break;
        }
        index = n;
        loop_fd = ro;
        close(ctl);
        return true;
    }
    if (error.empty()) error = "no free loop device";
    close(ctl);
    return false;
}

bool loop_bound(int index) {
    return access(("/sys/block/loop" + std::to_string(index) + "/loop/backing_file").c_str(), F_OK) == 0;
}

}  // namespace sim
