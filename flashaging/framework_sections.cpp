// The report sections at the head of the results file: device and build information, the
// maker's kernel health files, battery temperature, health counters and the UFS signal record.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/healthinfo.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr size_t kZarvoBufSize = 512;
constexpr size_t kTempBufSize = 128;
constexpr uint64_t kTempReadLimit = 512;

// The maker's health files, then two empty places that read like missing files.
constexpr const char *kZarvoPlaces[8] = {
    paths::kZarvoAllocWait, paths::kZarvoCpuLoading, paths::kZarvoIowait,
    paths::kZarvoIowaitHung, paths::kZarvoParaUpdate, paths::kZarvoSchedLatency,
    nullptr, nullptr,
};

// Formats into a heap string and writes it; the formatted length, or -1 when formatting
// failed. *written receives what fwrite wrote.
__attribute__((format(printf, 3, 4))) int write_formatted(FILE *out, size_t *written,
                                                           const char *fmt, ...) {
    char *text = nullptr;
    // The allocation, the stream and the free with the caught signals held.
    sigset_t saved;
    hold_caught_signals(&saved);
    va_list ap;
    va_start(ap, fmt);
    int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    *written = 0;
    if (n > 0) *written = fwrite(text, 1, static_cast<size_t>(n), out);
    if (n >= 0) free(text);
    release_caught_signals(&saved);
    return n < 0 ? -1 : n;
}

// Splits a signal record line at blanks, tabs and line ends into item and value.
// Returns false (and says why) when either is missing.
bool get_item_and_value(char *line, char **item, char **value) {
    char *save = nullptr;
    *item = strtok_r(line, " \t\n", &save);
    if (!*item) {
        FLOG("get_item_and_value", "ERROR", "Failed to get item info, src:%s\n\n", line);
        return false;
    }
    *value = strtok_r(nullptr, " \t\n", &save);
    if (!*value) {
        FLOG("get_item_and_value", "ERROR", "Failed to get value info, src:%s, item:%s\n\n", line,
             *item);
        return false;
    }
    return true;
}

}  // namespace

int64_t read_file(const char *path, char *buf, uint64_t max) {
    // A missing place reads like a file that cannot be opened.
    int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        log_errno("Failed to open");
        FLOG("read_file", "WARN", "Failed to open file %s\n", text_or_null(path));
        return -1;
    }
    if (!buf) {
        close(fd);
        return -1;
    }
    ssize_t got = read(fd, buf, static_cast<size_t>(max));
    close(fd);
    if (got <= 0) {
        log_errno("Failed to read file");
        FLOG("read_file", "WARN", "Failed to read from %s\n", path);
        return -1;
    }
    size_t len = strnlen(buf, static_cast<size_t>(max));
    if (len != 0 && buf[len - 1] == '\n') buf[len - 1] = '\0';
    return static_cast<int64_t>(len);
}

int write_test_info(FILE *out, const device_properties &p) {
    // Every text is bounded by its field, terminated or not.
    char *text = nullptr;
    sigset_t saved;
    hold_caught_signals(&saved);
    int n = asprintf(&text,
                     "Test Info:\n Product model:%.*s %.*s\n Board platform:%.*s\n"
                     "Device_version:%.*s\n Manufacture:%.*s\n Board temperature:%.*s\n"
                     " Serialno:%.*s\n Bootdevice:%.*s\n Build description:%.*s\n uname:%.*s\n",
                     static_cast<int>(sizeof p.model), p.model,
                     static_cast<int>(sizeof p.prjversion), p.prjversion,
                     static_cast<int>(sizeof p.platform), p.platform,
                     static_cast<int>(sizeof p.device_version), p.device_version,
                     static_cast<int>(sizeof p.manufacture), p.manufacture,
                     static_cast<int>(sizeof p.board_temperature), p.board_temperature,
                     static_cast<int>(sizeof p.serialno), p.serialno,
                     static_cast<int>(sizeof p.bootdevice), p.bootdevice,
                     static_cast<int>(sizeof p.build_description), p.build_description,
                     static_cast<int>(sizeof p.uname), p.uname);
    size_t written = n >= 1 ? fwrite(text, 1, static_cast<size_t>(n), out) : 0;
    if (n >= 0) free(text);
    release_caught_signals(&saved);
    if (n < 1) {
        log_errno("[save_test_info]Failed to write entry in output file");
        return -1;
    }
    if (written == 0) log_errno("[save_test_info]Failed to write to results output file");
    return 0;
}

int write_zarvo_healthinfo(FILE *out, const char *const *places, size_t n_places) {
    // One byte beyond the read limit keeps a full-length text terminated.
    char *buf = static_cast<char *>(held_malloc(kZarvoBufSize + 1));
    if (!buf) {
        FLOG("save_zarvo_healthinfo", "ERROR", "OMG, Failed to allocate memory! %d\n", 0);
        return -1;
    }
    int result = 0;
    for (size_t i = 0; i < n_places; ++i) {
        memset(buf, 0, kZarvoBufSize + 1);
        if (read_file(places[i], buf, kZarvoBufSize) < 1) {
            log_errno("[save_zarvo_healthinfo]Failed to write entry in output file");
            result = -1;
            continue;
        }
        size_t written = 0;
        if (write_formatted(out, &written, "%s:\n%s\n", places[i], buf) > 0 && written == 0)
            log_errno("[save_zarvo_healthinfo]Failed to write to results output file");
    }
    held_free(buf);
    return result;
}

int write_memory_temperature(FILE *out, const char *node) {
    char *buf = static_cast<char *>(held_malloc(kTempBufSize));
    if (!buf) {
        FLOG("save_memory_temperature", "ERROR", "OMG, Failed to allocate memory! %d\n", 0);
        return -1;
    }
    // The node is asked for up to 512 bytes, but the reading must stay inside the buffer
    // with its terminating zero.
    const uint64_t limit = std::min<uint64_t>(kTempReadLimit, kTempBufSize - 1);
    int result = 0;
    for (int i = 0; i < 4; ++i) {
        memset(buf, 0, kTempBufSize);
        if (read_file(node, buf, limit) < 1) {
            log_errno("[save_memory_temperature]Failed to write entry in output file");
            result = -1;
            continue;
        }
        size_t written = 0;
        if (write_formatted(out, &written, "%s:[%s]\n", node, buf) > 0 && written == 0)
            log_errno("[save_memory_temperature]Failed to write to results output file");
    }
    held_free(buf);
    return result;
}

int write_healthinfo_block(FILE *out, const healthinfo &info) {
    size_t written = 0;
    int n = write_formatted(out, &written, "Health Info:\n");
    if (n < 0 || written != static_cast<size_t>(n))
        log_errno("[save_healthinfo]Failed to write health info");
    for (const healthinfo_entry &e : info.entry) {
        n = write_formatted(out, &written, "%s:%u\n", text_or_null(e.key), e.value);
        if (n < 0 || written != static_cast<size_t>(n))
            log_errno("[save_healthinfo]Failed to write health info");
    }
    return 0;
}

int write_ufs_signal_lines(FILE *out, FILE *in) {
    size_t written = 0;
    int n = write_formatted(out, &written, "\nUFS Signal Record:\n");
    if (n < 0 || written != static_cast<size_t>(n))
        log_errno("[save_ufs_signal_record]Failed to write record info");

    char line[256];
    while (held_fgets(line, sizeof line, in)) {
        char *item = nullptr;
        char *value = nullptr;
        if (!get_item_and_value(line, &item, &value)) continue;
        n = write_formatted(out, &written, "%s: %d\n", item, atoi(value));
        if (n < 0 || written != static_cast<size_t>(n))
            log_errno("[save_ufs_signal_record]Failed to write record info");
    }
    return 0;
}

int write_ufs_signal_record(FILE *out, const char *record_path) {
    if (access(record_path, F_OK) != 0) return 0;
    FILE *in = held_fopen(record_path, "re");
    if (!in) {
        log_errno("[save_ufs_signal_record]Failed to open file");
        return -1;
    }
    write_ufs_signal_lines(out, in);
    held_fclose(in);
    return 0;
}

int save_test_info(FILE *out) { return write_test_info(out, g_device_props); }

int save_zarvo_healthinfo(FILE *out) {
    return write_zarvo_healthinfo(out, kZarvoPlaces, std::size(kZarvoPlaces));
}

int save_memory_temperature(FILE *out) { return write_memory_temperature(out, paths::kBatteryTemp); }

int save_healthinfo(FILE *out) {
    healthinfo info{};
    if (healthinfo_get(&info) != 0) {
        log_errno("[save_healthinfo]Failed to get health info");
        return -1;
    }
    return write_healthinfo_block(out, info);
}

int save_ufs_signal_record(FILE *out) {
    return write_ufs_signal_record(out, paths::kUfsSignalRecord);
}
