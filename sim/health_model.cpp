#include "sim/health_model.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "sim/util.h"

namespace sim {

uint64_t nominal_capacity_mib(uint64_t bytes) {
    uint64_t cap = 32ULL << 30;
    while (cap < bytes && cap < (1ULL << 62)) cap <<= 1;
    return cap >> 20;
}

HealthModel model_from_profile(const Profile &p, uint64_t base_sectors, uint64_t partition_bytes) {
    HealthModel m;
    m.base_sectors = base_sectors;
    m.capacity_mib = nominal_capacity_mib(partition_bytes);
    m.silent = p.health_tool == "silent";
    m.pe_start = p.pe_start;
    m.pe_per_gib = p.pe_per_gib;
    m.waf = p.waf;
    m.tbw_start = p.tbw_start;
    m.read_reclaim_start = p.read_reclaim_start;
    m.read_reclaim_per_gib = p.read_reclaim_per_gib;
    m.bad_block_start = p.bad_block_start;
    m.bad_block_per_gib = p.bad_block_per_gib;
    m.cache_pe_start = p.cache_pe_start;
    m.cache_pe_per_gib = p.cache_pe_per_gib;
    return m;
}

std::string model_to_text(const HealthModel &m) {
    char buf[1024];
    snprintf(buf, sizeof buf,
             "base_sectors %" PRIu64 "\ncapacity_mib %" PRIu64 "\nsilent %d\npe_start %" PRId64
             "\npe_per_gib %.17g\nwaf %.17g\ntbw_start %" PRId64 "\nread_reclaim_start %" PRId64
             "\nread_reclaim_per_gib %.17g\nbad_block_start %" PRId64 "\nbad_block_per_gib %.17g\ncache_pe_start %" PRId64
             "\ncache_pe_per_gib %.17g\n",
             m.base_sectors, m.capacity_mib, m.silent ? 1 : 0, m.pe_start, m.pe_per_gib, m.waf, m.tbw_start,
             m.read_reclaim_start, m.read_reclaim_per_gib, m.bad_block_start, m.bad_block_per_gib, m.cache_pe_start,
             m.cache_pe_per_gib);
    return buf;
}

bool model_from_text(const std::string &text, HealthModel &m) {
    std::istringstream in(text);
    std::string key;
    int seen = 0;
    while (in >> key) {
        std::string v;
        if (!(in >> v)) return false;
        const char *s = v.c_str();
        ++seen;
        if (key == "base_sectors") m.base_sectors = strtoull(s, nullptr, 10);
        else if (key == "capacity_mib") m.capacity_mib = strtoull(s, nullptr, 10);
        else if (key == "silent") m.silent = atoi(s) != 0;
        else if (key == "pe_start") m.pe_start = strtoll(s, nullptr, 10);
        else if (key == "pe_per_gib") m.pe_per_gib = strtod(s, nullptr);
        else if (key == "waf") m.waf = strtod(s, nullptr);
        else if (key == "tbw_start") m.tbw_start = strtoll(s, nullptr, 10);
        else if (key == "read_reclaim_start") m.read_reclaim_start = strtoll(s, nullptr, 10);
        else if (key == "read_reclaim_per_gib") m.read_reclaim_per_gib = strtod(s, nullptr);
        else if (key == "bad_block_start") m.bad_block_start = strtoll(s, nullptr, 10);
        else if (key == "bad_block_per_gib") m.bad_block_per_gib = strtod(s, nullptr);
        else if (key == "cache_pe_start") m.cache_pe_start = strtoll(s, nullptr, 10);
        else if (key == "cache_pe_per_gib") m.cache_pe_per_gib = strtod(s, nullptr);
        else --seen;
    }
    return seen > 0 && m.waf > 0;
}

Counters model_counters(const HealthModel &m, uint64_t sectors_now, const Counters &jumps) {
    uint64_t sectors = sectors_now > m.base_sectors ? sectors_now - m.base_sectors : 0;
    long double gib = static_cast<long double>(sectors) * 512.0L / static_cast<long double>(1ULL << 30);
    auto grown = [&](double per_gib) { return static_cast<int64_t>(floorl(gib * static_cast<long double>(per_gib))); };
    int64_t pe_growth = grown(m.pe_per_gib);
    Counters c{};
    c[kEraseXLCCntAvg] = m.pe_start + pe_growth;
    c[kTBW] = m.tbw_start + static_cast<int64_t>(llroundl(static_cast<long double>(m.capacity_mib) *
                                                          static_cast<long double>(pe_growth) /
                                                          (100.0L * static_cast<long double>(m.waf))));
    c[kReadReclaim] = m.read_reclaim_start + grown(m.read_reclaim_per_gib);
    c[kBadBlockRuntime] = m.bad_block_start + grown(m.bad_block_per_gib);
    c[kEraseCacheCntAvg] = m.cache_pe_start + grown(m.cache_pe_per_gib);
    for (int i = 0; i < kCounterCount; ++i) c[i] += jumps[i];
    return c;
}

bool written_sectors(const std::string &stat_text, uint64_t &sectors) {
    std::istringstream in(stat_text);
    uint64_t v = 0;
    for (int field = 1; field <= 7; ++field) {
        if (!(in >> v)) return false;
    }
    sectors = v;
    return true;
}

std::string jumps_to_text(const Counters &jumps) {
    std::string out;
    for (int i = 0; i < kCounterCount; ++i) out += std::string(kCounterNames[i]) + " " + std::to_string(jumps[i]) + "\n";
    return out;
}

Counters jumps_from_text(const std::string &text) {
    Counters c{};
    std::istringstream in(text);
    std::string key;
    long long v;
    while (in >> key >> v) {
        for (int i = 0; i < kCounterCount; ++i)
            if (key == kCounterNames[i]) c[i] = v;
    }
    return c;
}

int monitor_tool_main() {
    std::string text;
    HealthModel m;
    if (!read_file(kModelFile, text) || !model_from_text(text, m)) {
        fprintf(stderr, "monitor_tool: no device model at %s\n", kModelFile);
        return 1;
    }
    std::string stat;
    uint64_t sectors = 0;
    if (!read_file(kLoopStatFile, stat) || !written_sectors(stat, sectors)) {
        fprintf(stderr, "monitor_tool: cannot read the device's write counter at %s\n", kLoopStatFile);
        return 1;
    }
    std::string jt;
    Counters jumps{};
    if (read_file(kJumpsFile, jt)) jumps = jumps_from_text(jt);
    if (m.silent) return 0;
    Counters c = model_counters(m, sectors, jumps);
    for (int i = 0; i < kCounterCount; ++i)
        printf("%s %u\n", kCounterNames[i], static_cast<unsigned>(static_cast<uint64_t>(c[i]) & 0xffffffffULL));
    return 0;
}

}  // namespace sim
