// Run control beside the entry point: the software watchdog, the abnormal-end handler and
// the storage driver checks.
#pragma once

#include <pthread.h>

#include <cstdint>

extern pthread_mutex_t wdt_lock;
extern pthread_cond_t wdt_cond;
extern pthread_t wdt_thread;

void *flash_wdt_thread(void *budget_seconds);  // the budget travels as an int64 in the pointer
void flash_close_wdt();
[[noreturn]] void flash_sigroutine(int sig);

// Ends the calling thread, nothing else. The one routine of its kind, linked in from a file
// of its own (flashaging/thread_end/): pthread_exit in the product, the kernel's thread exit
// with no unwinding and no cleanup handlers in the strict-end build.
[[noreturn]] void flash_end_thread();

// Whether the calling thread is in the handler's last step, being ended (when it is the
// process's last thread, the process ends there).
bool flash_thread_ending();

void driver_state_check();
int device_get_flash_errors();  // 1 acceptable, 0 driver error
