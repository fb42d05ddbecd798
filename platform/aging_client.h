// The aging service client: the closed library through which the program talks to the
// factory framework's daemon. Only these calls are used; their insides are the client's.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Called with 2 by the entry point (non-zero = connected) and with 3 by set-up
// (non-zero = the daemon speaks aging version 2.0).
int connect_aging_server(int which);

// Fetches the argument vector the daemon holds for this test. Negative = failure;
// otherwise *argc and *argv may be replaced by the daemon's own vector.
int get_aging_args(int which, int *argc, char ***argv);

// Reports progress in percent; the program calls it once, with 95 and 2.
int setprogress(int percent, int which);

// Reads an integer from a sysfs node (the battery node reads tenths of a degree Celsius).
int get_node_temp(const char *node, int which);

// Reports the verdict (0 failed, 1 passed, 2 skipped).
int cleanEnvDone(int which, int verdict);

// Tells the daemon that this test failed and the others may go on.
int finishOtherTest(int which);

// Asks the client to log the calling thread's stack.
void dump_stack(void);

#ifdef __cplusplus
}
#endif
