// The run report (flashaging-report) written into the run folder after a `run`.
#pragma once

#include <string>

namespace sim {

// Runs flashaging-report on the run folder and prints the summary's last line: the path of
// report.html, or one line saying why there is none. Never changes the run's files (the
// report goes into report.html and summary.json beside them) nor the simulator's exit
// status. FLASHAGING_REPORT names the tool (empty or "none": no report); by default the
// project's report/flashaging-report, else flashaging-report on PATH.
void write_run_report(const std::string &out);

// The report tool: FLASHAGING_REPORT when set (may be "none" or empty), else the project's
// report/flashaging-report, else flashaging-report on PATH; empty when there is none.
std::string report_tool();

}  // namespace sim
