// The unit tests' stand-in for the aging service client (see stand_in_aging_client.h). It is
// linked into every unit test program in place of the real client: on a factory phone the
// real one reports verdicts to the factory's daemon.
#include "stand_in_aging_client.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>

#include "platform/aging_client.h"

namespace {

// A plain mutex, locked and unlocked around a copy: the abnormal-end handler's thread calls
// in here and is ended right after, with nothing of this file left on its stack.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
std::vector<std::string> g_calls;

__attribute__((format(printf, 1, 2))) void note(const char *fmt, ...) {
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    std::string text(line);
    pthread_mutex_lock(&g_lock);
    g_calls.push_back(text);
    pthread_mutex_unlock(&g_lock);
}

}  // namespace

namespace stand_in {

std::vector<std::string> journal() {
    pthread_mutex_lock(&g_lock);
    std::vector<std::string> copy = g_calls;
    pthread_mutex_unlock(&g_lock);
    return copy;
}

void clear_journal() {
    pthread_mutex_lock(&g_lock);
    g_calls.clear();
    pthread_mutex_unlock(&g_lock);
}

}  // namespace stand_in

extern "C" int connect_aging_server(int which) {
    note("connect_aging_server %d", which);
    return 0;
}

extern "C" int get_aging_args(int which, int *, char ***) {
    note("get_aging_args %d", which);
    return -1;
}

extern "C" int setprogress(int percent, int which) {
    note("setprogress %d %d", percent, which);
    return 0;
}

extern "C" int get_node_temp(const char *node, int which) {
    note("get_node_temp %s %d", node ? node : "(null)", which);
    return -1;
}

extern "C" int cleanEnvDone(int which, int verdict) {
    note("cleanEnvDone %d %d", which, verdict);
    return 0;
}

extern "C" int finishOtherTest(int which) {
    note("finishOtherTest %d", which);
    return 0;
}

extern "C" void dump_stack(void) { note("dump_stack"); }
