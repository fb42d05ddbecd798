// Environment set-up: the log file, the pass/fail record's "START", the settings, the work
// area, the two data buffers, the device properties and the two gates that skip a run.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "flashaging/healthinfo.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"
#include "platform/aging_client.h"

int result_fd = 0;
pthread_mutex_t result_lock = PTHREAD_MUTEX_INITIALIZER;
uint8_t *scratch_4MB = nullptr;
uint8_t *pattern_4MB = nullptr;

namespace {

constexpr size_t kBufferAlign = 4096;
constexpr size_t kScanBlock = 256;
constexpr size_t kMkdirCmdSize = 36;
constexpr size_t kRmCmdSize = 45;

// Standard output and standard error go, appended and unbuffered, to the log file; its
// mode and owner are set so the factory tools can read it.
void init_log_file() {
    sigset_t saved;
    hold_caught_signals(&saved);  // the streams' locks and the list of streams
    if (freopen(paths::kLogFile, "a", stdout) != nullptr) setvbuf(stdout, nullptr, _IONBF, 0);
    if (freopen(paths::kLogFile, "a", stderr) != nullptr) setvbuf(stderr, nullptr, _IONBF, 0);
    release_caught_signals(&saved);
    if (chmod(paths::kLogFile, 0644) != 0)
        FLOG_NP("init_log_file", "FATAL", "Fail to chmod %s\n\n", paths::kLogFile);
    if (chown(paths::kLogFile, 1000, 1000) != 0)
        FLOG_NP("init_log_file", "FATAL", "Fail to chmod %s\n\n", paths::kLogFile);
}

// Allocates both buffers and seeds the pattern buffer; false after the "Init buffers
// error" line. A failed second allocation releases the first and clears its pointer, as
// the end of the run releases scratch_4MB again.
bool init_buffers() {
    scratch_4MB = static_cast<uint8_t *>(held_memalign(kBufferAlign, kBuffer4MB));
    if (scratch_4MB == nullptr) {
        FLOG_NP("initialize_flashtest_env", "FATAL", "Init buffers error\n");
        return false;
    }
    pattern_4MB = static_cast<uint8_t *>(held_memalign(kBufferAlign, kBuffer4MB));
    if (pattern_4MB == nullptr) {
        held_free(scratch_4MB);
        scratch_4MB = nullptr;
        FLOG_NP("initialize_flashtest_env", "FATAL", "Init buffers error\n");
        return false;
    }
    pattern_stream_fill(pattern_4MB, kBuffer4MB);
    if (!buffer_has_nonzero_word(pattern_4MB, kBuffer4MB)) {
        FLOG_NP("initialize_flashtest_env", "FATAL", "Init buffers error\n");
        return false;
    }
    return true;
}

}  // namespace

void pattern_stream_fill(uint8_t *buf, size_t len) {
    uint64_t x = 99098;
    for (size_t off = 0; off + 8 <= len; off += 8) {
        x = x * 3935559000370003845ULL + 3037000493ULL;
        uint64_t word = x & 0x7FFFFFFFFFFFFFFFULL;
        for (int b = 0; b < 8; ++b) buf[off + b] = static_cast<uint8_t>(word >> (8 * b));  // little-endian
    }
}

bool buffer_has_nonzero_word(const uint8_t *buf, size_t len) {
    for (size_t block = 0; block < len; block += kScanBlock) {
        size_t stop = block + kScanBlock < len ? block + kScanBlock : len;
        for (size_t off = block; off + 8 <= stop; off += 8) {
            uint64_t word;
            memcpy(&word, buf + off, sizeof word);
            if (word != 0) return true;
        }
    }
    return false;
}

int open_result_marker(const char *path, int *fd) {
    // From the record's creation until it says START and the handler knows its descriptor the
    // caught signals are held: an abnormal end never leaves a new, empty record behind.
    sigset_t saved;
    hold_caught_signals(&saved);
    int d = open(path, O_RDWR | O_CREAT, 0644);
    if (d < 1) {
        FLOG_NP("init_result", "FATAL", "open %s error!\n\n", path);
        release_caught_signals(&saved);
        // A descriptor of 0 fails set-up; a failed open does not.
        return d == 0 ? 0 : -1;
    }
    int marker = 1;
    if (lseek(d, 0, SEEK_SET) < 0) {
        FLOG_NP("init_result", "FATAL", "[START]seek %s error!\n\n", path);
        close(d);
        marker = 0;
    } else if (write(d, "START", 5) < 1) {
        // Only the first five bytes are replaced; what an earlier run left behind them stays.
        FLOG_NP("init_result", "FATAL", "[START]write %s error!\n\n", path);
        close(d);
        marker = 0;
    } else {
        *fd = d;
    }
    release_caught_signals(&saved);
    return marker;
}

int free_space_gate(uint64_t free_bytes) {
    // A failed query reads all ones and passes, deliberately.
    if ((free_bytes >> 36) != 0) {
        FLOG("initialize_flashtest_env", "INFO", "Init Success!\n");
        return 1;
    }
    FLOG_NP("initialize_flashtest_env", "FATAL", "Userdata partition is not mounted\n\n");
    return 2;
}

int initialize_flashtest_env(int argc, char **argv) {
    init_log_file();
    pthread_mutex_init(&result_lock, nullptr);

    int marker = open_result_marker(paths::kPassFailRecord, &result_fd);
    if (marker == 0) {
        FLOG_NP("initialize_flashtest_env", "FATAL", "Init result file error\n");
        return 0;
    }

    sigset_t saved;
    hold_caught_signals(&saved);  // the daemon's client, then the allocation
    bool v2 = connect_aging_server(3) != 0;
    g_args = new (std::nothrow) test_args{};
    release_caught_signals(&saved);
    if (g_args == nullptr) {
        FLOG("initialize_args", "ERROR", "alloc args fail.\n");
        FLOG_NP("initialize_flashtest_env", "FATAL", "Init args error\n");
        return 0;
    }
    if (v2) {
        g_args->aging_version = 2;
        FLOG("initialize_args", "INFO", "aging version is 2.0\n");
    }
    args_defaults_stage1(g_args);
    fv_cleanup();
    fv_setup();
    // Measured once the work directory exists; this stage also clears aging_version.
    args_defaults_stage2(g_args, paths::kWorkDir);
    parse_test_args(g_args, argc, argv, v2);
    get_args_from_config_xml();

    if (g_args->aging_version != 2 && !init_buffers()) return 0;

    if (device_properties_init() != 0) {
        FLOG_NP("initialize_flashtest_env", "FATAL", "Init device properties error\n");
        return 0;
    }
    if (pe_cycle_check() != 0) {
        FLOG_NP("initialize_flashtest_env", "FATAL",
                "PE > 30 or get healthinfo fail, can't perform flash agingtest\n\n");
        return 2;
    }
    return free_space_gate(get_free_space());
}

void fv_setup() {
    if (access(paths::kWorkDir, F_OK) == 0) return;  // an existing directory is left alone
    char *cmd = static_cast<char *>(held_calloc(kMkdirCmdSize, 1));
    if (cmd == nullptr) {
        FLOG("fv_setup", "ERROR", "Can't allocate memory for rm command\n");
        return;
    }
    snprintf(cmd, kMkdirCmdSize, "mkdir -p  %s", paths::kWorkDir);
    // A directory that could not be made is reported by the chmod below.
    [[maybe_unused]] int rc = held_system(cmd);
    held_free(cmd);
    if (chmod(paths::kWorkDir, 0775) != 0) FLOG("fv_setup", "ERROR", "Failed to chmod %s\n", paths::kWorkDir);
}

int fv_cleanup() {
    char *cmd = static_cast<char *>(held_calloc(kRmCmdSize, 1));
    if (cmd == nullptr) {
        FLOG("fv_cleanup", "ERROR", "Can't allocate memory for rm command %d\n", 0);
        return -1;
    }
    snprintf(cmd, kRmCmdSize, "rm -rf %s", paths::kScratchFile);
    // The status is not looked at: a scratch file that is not there is just as good.
    [[maybe_unused]] int rc = held_system(cmd);
    held_free(cmd);
    return 0;
}
