// Entry point: the fixed run sequence of the flash aging test.
#include <signal.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>

#include "flashaging/log.h"
#include "platform/aging_client.h"

namespace {

struct timeval flash_start_time;
struct timeval flash_end_time;
int32_t flash_result_skeleton = 1;

void placeholder_sigroutine(int) {}

}  // namespace

int main(int argc, char **argv) {
    signal(SIGHUP, SIG_IGN);
    for (int sig : {SIGINT, SIGTERM, SIGALRM, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTRAP, SIGABRT, SIGUSR1})
        signal(sig, placeholder_sigroutine);

    FLOG("main", "INFO", "Connecting Aging UI deamon service...\n");
    if (connect_aging_server(2) == 0) return 0;
    gettimeofday(&flash_start_time, nullptr);
    if (get_aging_args(2, &argc, &argv) < 0) return -1;
    FLOG("main", "INFO", "Start init flash Aging Test env!\n");

    gettimeofday(&flash_end_time, nullptr);
    double cost = (static_cast<double>(flash_end_time.tv_sec) + static_cast<double>(flash_end_time.tv_usec) / 1e6) -
                  (static_cast<double>(flash_start_time.tv_sec) + static_cast<double>(flash_start_time.tv_usec) / 1e6);
    FLOG("flash_agingcost", "INFO", "flash aging cost time :%f(S) \n", cost);
    cleanEnvDone(2, flash_result_skeleton);
    if (flash_result_skeleton == 0) finishOtherTest(2);
    return 0;
}
