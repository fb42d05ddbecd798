// Storage health counters, read through the device's health tool, and their judgement.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/healthinfo.h"
#include "flashaging/healthinfo_internal.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr const char *kKeys[5] = {"readReclaim", "badBlockRuntime", "TBW", "eraseCacheCntAvg", "eraseXLCCntAvg"};

constexpr size_t kLineBuffer = 1024;

}  // namespace

void healthinfo_set_keys(healthinfo *info) {
    for (int i = 0; i < 5; ++i) info->entry[i].key = kKeys[i];
}

void healthinfo_parse_line(healthinfo *info, const char *line) {
    for (int i = 0; i < 5; ++i) {
        const char *hit = strstr(line, kKeys[i]);
        if (hit == nullptr) continue;
        // The number follows the key directly or after white space ("TBW: 12" reads 0). Read
        // as atoi does (strtol narrowed to int), without atoi's undefined overflow.
        long v = strtol(hit + strlen(kKeys[i]), nullptr, 10);
        info->entry[i].value = static_cast<uint32_t>(static_cast<int>(v));
        return;
    }
}

void healthinfo_read_stream(healthinfo *info, FILE *out) {
    char line[kLineBuffer];
    memset(line, 0, sizeof line);
    while (fgets(line, sizeof line, out) != nullptr) {
        healthinfo_parse_line(info, line);
        memset(line, 0, sizeof line);
    }
}

unsigned healthinfo_get_from(healthinfo *info, const char *tool) {
    if (info == nullptr) return 1;
    healthinfo_set_keys(info);
    if (chmod(tool, 0775) != 0) {
        FLOG("healthinfo_get", "ERROR", "fail to chmod %s\n\n", tool);
        return 1;
    }
    FILE *out = held_popen(tool, "r");
    if (out == nullptr) {
        FLOG("healthinfo_get", "ERROR", "Erro to popen\n\n");
        return 1;
    }
    // The stream reads into this buffer, not one of the allocator's: the reading, which
    // waits for the tool, then needs no lock but the stream's own, and may take a signal.
    char buffer[BUFSIZ];
    held_setvbuf(out, buffer, _IOFBF, sizeof buffer);
    healthinfo_read_stream(info, out);
    held_pclose(out);  // the tool's exit status is not looked at
    return 0;
}

unsigned healthinfo_get(healthinfo *info) {
    return healthinfo_get_from(info, paths::kHealthTool);
}

float healthinfo_waf(uint64_t capacity, uint32_t xlc_growth, uint32_t tbw_growth) {
    if (tbw_growth == 0) return 0.0f;
    // Capacity in MiB, of which the low 32 bits count.
    auto capacity_mib = static_cast<float>(static_cast<uint32_t>(capacity >> 20));
    return capacity_mib * static_cast<float>(xlc_growth) / (static_cast<float>(tbw_growth) * 100.0f);
}

int healthinfo_judge_values(const healthinfo &before, const healthinfo &now, uint64_t capacity) {
    uint32_t growth[5];
    for (int i = 0; i < 5; ++i) {
        // Unsigned and wrapping: a counter that went down is a very large growth.
        growth[i] = now.entry[i].value - before.entry[i].value;
        flash_printf("delta %s is %d\n", kKeys[i], static_cast<int>(growth[i]));
    }
    float waf = healthinfo_waf(capacity, growth[HI_ERASE_XLC_CNT_AVG], growth[HI_TBW]);
    flash_printf("WAF is %f\n", static_cast<double>(waf));
    if (waf >= 5.0f || growth[HI_READ_RECLAIM] > 29U || growth[HI_BAD_BLOCK_RUNTIME] > 29U) return 1;
    return 0;
}

int healthinfo_judge(const healthinfo *before) {
    uint64_t capacity = get_total_capacity();
    healthinfo now{};
    healthinfo_get(&now);  // a failed reading leaves zeros, judged like any other
    healthinfo old{};
    if (before != nullptr) old = *before;
    return healthinfo_judge_values(old, now, capacity);
}

uint32_t pe_cycle_get_from(const char *tool) {
    healthinfo info{};
    if (healthinfo_get_from(&info, tool) != 0) {
        flash_printf("%s\n", "healthinfo_get fail");
        return UINT32_MAX;
    }
    return info.entry[HI_ERASE_XLC_CNT_AVG].value;
}

int pe_cycle_check_from(const char *tool, int force_erase_value) {
    healthinfo info{};
    if (healthinfo_get_from(&info, tool) != 0) {
        // A reading that fails lets the run go on, although the caller's message speaks
        // of a failed reading.
        flash_printf("%s\n", "healthinfo_get fail");
        return 0;
    }
    uint32_t pe = info.entry[HI_ERASE_XLC_CNT_AVG].value;
    FLOG("pe_cycle_check", "INFO", "PE cycle is %u\n\n", pe);
    return (pe > 30U && force_erase_value == 0) ? 1 : 0;
}

uint32_t pe_cycle_get() {
    return pe_cycle_get_from(paths::kHealthTool);
}

int pe_cycle_check() {
    return pe_cycle_check_from(paths::kHealthTool, force_erase);
}
