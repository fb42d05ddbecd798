// The flash's pace changing during a run: a profile can slow the flash while the writers fill
// (so that a small fill lasts long enough for the read-back threads to find their files) and
// speed it up for the benchmark.
#pragma once

#include <string>
#include <vector>

#include "sim/fault_events.h"
#include "sim/phone.h"
#include "sim/profile.h"

namespace sim {

// The `pace` key: "READ:WRITE@WHEN" in MiB/s (0 = the host's speed), a list; an empty value
// empties it. Returns false when the key is another; else sets `ok` (and `why`).
bool apply_pace_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why);

// One event per pace change; each rewrites the limits of the phone's I/O cgroup.
std::vector<FaultEvent> pace_events(const PhoneSpec &s);

}  // namespace sim
