// The device model behind /system/bin/monitor_tool: the storage's wear and health counters
// as they follow the bytes the host wrote to the data partition.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "sim/profile.h"

namespace sim {

// Phone paths of the model's state.
inline constexpr const char *kModelFile = "/sim/health/model";      // the model, "key value" lines
inline constexpr const char *kJumpsFile = "/sim/health/jumps";      // "counter total" lines
inline constexpr const char *kLoopStatFile = "/sim/dev/loop_stat";  // the loop device's own stat

struct HealthModel {
    uint64_t base_sectors = 0;  // the loop device's written sectors when the phone started
    uint64_t capacity_mib = 0;  // nominal capacity: smallest 2^k x 32 GiB not below the partition
    bool silent = false;        // the tool prints nothing
    int64_t pe_start = 0;
    double pe_per_gib = 0;
    double waf = 1;
    int64_t tbw_start = 0;
    int64_t read_reclaim_start = 0;
    double read_reclaim_per_gib = 0;
    int64_t bad_block_start = 0;
    double bad_block_per_gib = 0;
    int64_t cache_pe_start = 0;
    double cache_pe_per_gib = 0;
};

using Counters = std::array<int64_t, kCounterCount>;

HealthModel model_from_profile(const Profile &p, uint64_t base_sectors, uint64_t partition_bytes);
std::string model_to_text(const HealthModel &m);
bool model_from_text(const std::string &text, HealthModel &m);

// Smallest 2^k x 32 GiB not below `bytes`, in MiB.
uint64_t nominal_capacity_mib(uint64_t bytes);

// The counters after `sectors_now` written sectors, plus the jumps so far.
//   eraseXLCCntAvg = pe_start + floor(GiB written x pe_per_gib)
//   TBW            = tbw_start + round(capacity MiB x P/E growth / (100 x waf))
// so that the program's write amplification, capacity MiB x dP/E / (dTBW x 100), is `waf`.
Counters model_counters(const HealthModel &m, uint64_t sectors_now, const Counters &jumps);

// Field 7 (sectors written) of a block device stat line.
bool written_sectors(const std::string &stat_text, uint64_t &sectors);

std::string jumps_to_text(const Counters &jumps);
Counters jumps_from_text(const std::string &text);

// The health tool: prints the five counters, "key value" per line. Returns the exit status.
int monitor_tool_main();

}  // namespace sim
