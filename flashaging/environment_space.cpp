// Free space and nominal capacity of the data partition, measured at the work directory.
#include <sys/statfs.h>

#include <cstdint>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "flashaging/log.h"

namespace {

constexpr uint64_t k32GiB = 34359738368ULL;

}  // namespace

uint64_t capacity_from_total(uint64_t total) {
    // 32 GiB, 64 GiB, 128 GiB, ...: the first that holds the partition. The shift count runs
    // modulo 32; from 2^29 x 32 GiB on, the 64-bit product wraps (to 0), so a total above
    // 2^63 bytes, beyond any real partition, could never be met and the walk would not end.
    // It stops instead at the last value that does not wrap, 2^63, and reports that.
    for (unsigned k = 0; k <= 28; ++k) {
        uint64_t cap = (1ULL << k) * k32GiB;
        if (cap >= total) return cap;
    }
    return (1ULL << 28) * k32GiB;
}

uint64_t free_space_at(const char *dir) {
    struct statfs st {};
    if (statfs(dir, &st) != 0) {
        FLOG("get_free_space", "INFO", "fail to get stat for FS\n");
        return UINT64_MAX;
    }
    // Blocks free to the superuser, not only those available to unprivileged users.
    return static_cast<uint64_t>(st.f_bfree) * static_cast<uint64_t>(st.f_bsize);
}

uint64_t total_capacity_at(const char *dir) {
    struct statfs st {};
    if (statfs(dir, &st) != 0) {
        FLOG("get_total_capacity", "ERROR", "fail to get stat for FS\n");
        return UINT64_MAX;
    }
    uint64_t cap = capacity_from_total(static_cast<uint64_t>(st.f_blocks) * static_cast<uint64_t>(st.f_bsize));
    FLOG("get_total_capacity", "INFO", "flash capacity is %lld\n", static_cast<long long>(cap));  // 64 bits on either ABI
    return cap;
}

uint64_t get_free_space() {
    return free_space_at(paths::kWorkDir);
}

uint64_t get_total_capacity() {
    return total_capacity_at(paths::kWorkDir);
}
