// Every fixed path of the phone that the program reads or writes, in one place.
#pragma once

namespace paths {

// Results under /cache/factory, kept after the run.
inline constexpr const char *kFactoryDir = "/cache/factory";
inline constexpr const char *kLogFile = "/cache/factory/flash_aging.log";
inline constexpr const char *kResultsFile = "/cache/factory/flash_aging_results.csv";
inline constexpr const char *kResultsTempFile = "/cache/factory/flash_aging_results.csv_temp";
inline constexpr const char *kPassFailRecord = "/cache/factory/flash_aging_result.txt";
inline constexpr const char *kPatternDump = "/cache/factory/flash_pattern";

// Work area on the data partition; also the mount point measured by statfs.
inline constexpr const char *kWorkDir = "/data/format_unclear";
inline constexpr const char *kScratchFile = "/data/format_unclear/flashvaltest.bin";
inline constexpr const char *kPatternDir = "/data/format_unclear/file_pattern/";
inline constexpr const char *kBenchmarkDir = "/data/format_unclear/file_benchmark/";
inline constexpr const char *kEnterH8Dir = "/data/format_unclear/enter_h8";
inline constexpr const char *kEnterH8File = "/data/format_unclear/enter_h8/enter_h8_tmp";

// External health tool.
inline constexpr const char *kHealthTool = "/system/bin/monitor_tool";

// Kernel nodes.
inline constexpr const char *kProcVersion = "/proc/version";
inline constexpr const char *kDevinfoUfs = "/proc/devinfo/ufs";
inline constexpr const char *kDevinfoMmc = "/proc/devinfo/mmc";
inline constexpr const char *kDevinfoEmmc = "/proc/devinfo/emmc";
inline constexpr const char *kUfsSignalRecord = "/proc/ufs_signalShow/record";
inline constexpr const char *kUfsSignalRecordUpload = "/proc/ufs_signalShow/record_upload";
inline constexpr const char *kZarvoAllocWait = "/proc/zarvo_healthinfo/alloc_wait";
inline constexpr const char *kZarvoCpuLoading = "/proc/zarvo_healthinfo/cpu_loading";
inline constexpr const char *kZarvoIowait = "/proc/zarvo_healthinfo/iowait";
inline constexpr const char *kZarvoIowaitHung = "/proc/zarvo_healthinfo/iowait_hung";
inline constexpr const char *kZarvoParaUpdate = "/proc/zarvo_healthinfo/para_update";
inline constexpr const char *kZarvoSchedLatency = "/proc/zarvo_healthinfo/sched_latency";
inline constexpr const char *kBatteryTemp = "/sys/class/power_supply/battery/temp";

// Source path the pattern engine names in its plain allocation and pointer messages.
inline constexpr const char *kPatternSourcePath = "factory/agingtest/flashaging/pattern";

}  // namespace paths
