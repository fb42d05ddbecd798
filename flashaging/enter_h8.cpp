// The enter-H8 test: one thread writes a single 4 KiB block every 3 seconds, so that the
// storage link goes idle (Hibern8) and wakes again a hundred times. Write errors are only
// logged; the test fails only when its thread cannot be started or joined.
#include "flashaging/enter_h8.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "flashaging/device_paths.h"
#include "flashaging/log.h"
#include "flashaging/pattern.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr size_t kBlockSize = 4096;
constexpr uint8_t kBlockByte = 0x55;

flash_test g_enter_h8;

void sleep_us(useconds_t us) {
    timespec ts {};
    ts.tv_sec = static_cast<time_t>(us / 1000000);
    ts.tv_nsec = static_cast<long>(us % 1000000) * 1000;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // namespace

flash_test *enter_h8_init() {
    g_enter_h8.run = enter_h8_run;
    g_enter_h8.get_results = enter_h8_get_results;
    g_enter_h8.destroy = enter_h8_destroy;
    test_result &r = g_enter_h8.results[0];
    r.version = "1.0";
    r.description = "check if enter h8.";
    r.test_id = 5;
    r.result_id = 1;
    r.units = "none";
    r.minimum = 0;
    r.maximum = 0;
    r.value = -1.0f;
    r.stdev = 0;
    r.num_samples = 0;
    r.test_ran = 0;
    r.duration_sec = 0;
    r.status = 2;
    return &g_enter_h8;
}

test_result *enter_h8_get_results(flash_test *self, uint32_t *count) {
    *count = 1;
    return &self->results[0];
}

int enter_h8_destroy(flash_test * /*self*/) {
    FLOG_NP("enter_h8_destroy", "FATAL", "enter h8 thread destroy\n");
    return 0;
}

void enter_h8_write_loop(const char *dir, const char *file, int count, useconds_t sleep_time,
                         void *ctx) {
    // Aligned for direct I/O.
    auto *buf = static_cast<uint8_t *>(held_aligned_alloc(4096, kBlockSize));
    if (buf == nullptr) {
        FLOG("enter_h8_write", "ERROR", "alloc buffer fail\n\n");
        return;
    }
    memset(buf, kBlockByte, kBlockSize);

    if (access(dir, F_OK) == 0) {
        FLOG("enter_h8_write", "INFO", "begin to delete the %s\n", dir);
        system_rm_file(dir);
    } else {
        FLOG("enter_h8_write", "INFO", "%s not exist\n", dir);
    }
    mkdir(dir, 0600);

    int fd = open(file, O_RDWR | O_CREAT | O_DIRECT, 0666);
    if (fd < 0) {
        FLOG("enter_h8_write", "ERROR", "create file %s fail, ctx %p.\n", file, ctx);
        held_free(buf);
        return;
    }

    for (int i = 0; i < count; ++i) {
        sleep_us(sleep_time);
        ssize_t w = write(fd, buf, kBlockSize);
        if (w < 1)
            FLOG("enter_h8_write", "ERROR", "failed to write, w_size %d\n", static_cast<int>(w));
    }

    FLOG("enter_h8_write", "INFO", "sleep interval:%d, write count:%d\n",
         static_cast<int>(sleep_time), count);
    held_free(buf);
    close(fd);
    system_rm_file(dir);
}

void *enter_h8_write(void *ctx) {
    let_caught_signals_in();  // started inside a hold
    enter_h8_write_loop(paths::kEnterH8Dir, paths::kEnterH8File, kEnterH8Writes, kEnterH8SleepUs,
                        ctx);
    return nullptr;
}

int enter_h8_run(flash_test *self) {
    test_result &r = self->results[0];
    r.test_ran = 1;
    FLOG("enter_h8_test", "INFO", "enter_h8_test begin\n");

    uint8_t status;
    pthread_t th;
    if (held_pthread_create(&th, nullptr, enter_h8_write, nullptr) != 0) {
        FLOG("enter_h8_test", "ERROR", "create thread failed\n");
        status = 0;
    } else if (pthread_join(th, nullptr) != 0) {
        FLOG("enter_h8_test", "ERROR", "join thread failed\n");
        status = 0;
    } else {
        FLOG("enter_h8_test", "INFO", "enter_h8_test end\n");
        status = 1;
    }

    r.value = 0;
    r.stdev = 0;
    r.num_samples = 0;
    r.status = status;
    return 0;
}
