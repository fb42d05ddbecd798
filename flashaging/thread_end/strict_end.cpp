// How the abnormal-end handler ends a thread in the strict-end build: the kernel's thread exit
// and nothing else. No frame is unwound, no cleanup handler or thread-local destructor runs
// and the C library is not told, which is stricter than glibc's pthread_exit (unwinding) and
// bionic's (cleanup handlers only): a run that keeps its promises with this end keeps them
// with both. Linked instead of pthread_exit.cpp; nothing else differs.
#include <sys/syscall.h>
#include <unistd.h>

#include "flashaging/run_control.h"

void flash_end_thread() {
    for (;;) syscall(SYS_exit, 0);
}
