// The live view of a `run` on a terminal: the report tool's watch, following the run folder
// while the phone runs.
#pragma once

#include <sys/types.h>

#include <string>

namespace sim {

// When standard output is a terminal and the report tool is not "none": starts
// `flashaging-report watch --while-pid PHONE OUT` on that terminal (standard input
// /dev/null) and returns its pid; otherwise -1, and the run prints nothing more than
// without it.
pid_t start_live_view(const std::string &out, pid_t phone);

// After the phone has ended: waits for the view to end by itself (it ends with the run's
// end line, or once the phone's process is gone), at most 15 s; then asks it to stop
// (SIGTERM) and, 5 s later, ends it (SIGKILL). Nothing for -1.
void end_live_view(pid_t view);

}  // namespace sim
