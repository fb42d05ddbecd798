// Where the host doors find the daemon's side and the system properties inside the
// simulated phone. The simulator writes these files; nothing else reads them.
#pragma once

namespace host_doors {

// Present = the daemon is reachable. Holds the files below.
inline constexpr const char *kDaemonDir = "/sim/daemon";
// First line "2.0" = the daemon speaks aging version 2.0 (connect_aging_server(3) answers 1).
inline constexpr const char *kDaemonVersion = "/sim/daemon/aging_version";
// Present = the daemon refuses connections (connect_aging_server(2) answers 0).
inline constexpr const char *kDaemonUnreachable = "/sim/daemon/unreachable";
// Present = get_aging_args fails (answers -1).
inline constexpr const char *kDaemonArgsFail = "/sim/daemon/args_fail";
// The argument elements for this test, one element per line ("-n 6").
inline constexpr const char *kDaemonArgs = "/sim/daemon/args";
// One line appended per call received: the call, its arguments and its answer.
inline constexpr const char *kDaemonJournal = "/sim/daemon/journal";
// key=value lines read by property_get.
inline constexpr const char *kBuildProp = "/system/build.prop";

}  // namespace host_doors
