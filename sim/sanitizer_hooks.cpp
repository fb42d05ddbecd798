// The simulator in the sanitizer builds. In the phone the same binary is the health tool,
// started anew by the program for every reading; its process finds /proc/self but not its
// own /proc/<pid> (only the command's is linked), which the leak checker needs for the
// thread list it takes at exit. The tool's short run is not leak-checked there; the
// simulator itself is, on the host.
#include <errno.h>

#include <cstring>

extern "C" int __lsan_is_turned_off() { return strcmp(program_invocation_short_name, "monitor_tool") == 0; }
