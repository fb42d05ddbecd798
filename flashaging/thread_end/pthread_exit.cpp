// How the abnormal-end handler ends a thread in the product: pthread_exit, as on the phone.
// (glibc unwinds the thread's frames on the way; bionic runs only the cleanup handlers.)
#include <pthread.h>

#include "flashaging/run_control.h"

void flash_end_thread() { pthread_exit(nullptr); }
