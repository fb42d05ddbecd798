// End of a run: the summary of the measured results, the verdict word in the pass/fail
// record, and (at an abnormal end) the dump of the two data buffers.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/log.h"

namespace {

constexpr size_t kBufferBytes = 4194304;
constexpr size_t kRecordBytes = 10;

const char *verdict_word(uint32_t verdict) {
    if (verdict == 2) return "SKIP";
    if (verdict == 0) return "FAIL";
    return "SUCCESS";
}

// Writes one data buffer; a missing buffer counts as a failed write.
ssize_t write_buffer(int fd, const uint8_t *buf) {
    return buf ? write(fd, buf, kBufferBytes) : -1;
}

}  // namespace

void flash_get_alltest_result() {
    const test_result *results = flash_results;
    if (!results) {
        FLOG("flash_get_alltest_result", "ERROR", "result callback is NULL!\n");
        return;
    }
    const uint32_t count = flash_result_count;
    if (count < 1) return;
    for (uint32_t i = 0; i < count; ++i) {
        const test_result &r = results[i];
        // Unmeasured records, and values that are not numbers, are passed over.
        if (!(r.value > 0.0f)) continue;
        if (r.status == 1) {
            FLOG("flash_get_alltest_result", "INFO", "Test[%s] --- PASS\n",
                 text_or_null(r.description));
        } else {
            flash_result = 0;
            FLOG("flash_get_alltest_result", "INFO",
                 "%s, %s, %d, %d.%u, %s, %f, %f, %f, %f, %u, %u, %f, FAIL\n",
                 text_or_null(r.version), text_or_null(r.description), r.test_id, r.test_id,
                 r.result_id, text_or_null(r.units), static_cast<double>(r.minimum),
                 static_cast<double>(r.maximum), static_cast<double>(r.value),
                 static_cast<double>(r.stdev), r.num_samples, static_cast<unsigned>(r.test_ran),
                 r.duration_sec);
        }
    }
}

void write_verdict_record(int &fd, const char *path, uint32_t verdict) {
    const int record = fd;
    if (record < 1) return;
    if (lseek(record, 0, SEEK_SET) == -1) {
        FLOG_NP("delta_result", "FATAL", "[END]seek %s error!\n\n", path);
        return;
    }
    char word[kRecordBytes] = {};
    const char *text = verdict_word(verdict);
    memcpy(word, text, strlen(text));
    if (write(record, word, sizeof word) < 0) {
        FLOG_NP("delta_result", "FATAL", "[END]write %s error!\n\n", path);
        return;
    }
    // The closed record stays named by a descriptor that can never be opened again, so a
    // second call fails its seek rather than write into a file opened since.
    fd = kClosedRecordFd;
    close(record);
    if (chmod(path, 0644) != 0) FLOG_NP("delta_result", "FATAL", "Fail to chmod %s\n\n", path);
    if (chown(path, 1000, 1000) != 0)
        FLOG_NP("delta_result", "FATAL", "Fail to chmod %s\n\n", path);
}

void delta_result(uint32_t verdict) { write_verdict_record(result_fd, paths::kPassFailRecord, verdict); }

int store_4MB_buffers_at(const char *path) {
    if (g_args && g_args->aging_version == 2) return 0;

    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        FLOG_NP("store_4MB_buffers", "FATAL", "open %s error!\n\n", path);
        return fd;
    }
    bool failed = false;
    if (lseek(fd, 0, SEEK_SET) == -1) {
        FLOG_NP("store_4MB_buffers", "FATAL", "[START]seek %s error!\n", path);
        failed = true;
    } else if (write_buffer(fd, pattern_4MB) < 1) {
        FLOG_NP("store_4MB_buffers", "FATAL", "[START]write %s  pattern_4MB error!\n", path);
        failed = true;
    } else if (lseek(fd, static_cast<off_t>(kBufferBytes), SEEK_SET) == -1) {
        FLOG_NP("store_4MB_buffers", "FATAL", "[START]seek %s %d error!\n", path,
                static_cast<int>(kBufferBytes));
        failed = true;
    } else if (write_buffer(fd, scratch_4MB) < 1) {
        FLOG_NP("store_4MB_buffers", "FATAL", "[START]write %s  scratch_4MB error!\n", path);
        failed = true;
    }
    if (failed) {
        close(fd);
        return -1;
    }
    // The dump takes over the record descriptor: after an abnormal end the pass/fail record
    // keeps "START".
    result_fd = fd;
    if (chmod(path, 0644) != 0) FLOG_NP("store_4MB_buffers", "FATAL", "Fail to chmod %s\n\n", path);
    if (chown(path, 1000, 1000) != 0)
        FLOG_NP("store_4MB_buffers", "FATAL", "Fail to chmod %s\n\n", path);
    return fd;
}

int store_4MB_buffers() { return store_4MB_buffers_at(paths::kPatternDump); }
