// What a phone maker's image can do to the program that the bring-up check (tools/
// phone-check) looks for: /system mounted read-only, as on a production image; the health
// tool installed without its execute bits; and a work folder whose O_DIRECT is served from
// memory, as f2fs serves it for files it cannot do direct I/O for.
#pragma once

#include <string>

#include "sim/phone.h"
#include "sim/profile.h"

namespace sim {

// Profile keys (`system_read_only`, `health_tool_mode`, `work_dir_tmpfs`). Returns false
// when the key is not one of them; else sets `ok` (and `why` on a bad value).
bool apply_bringup_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why);

// Called once /data is mounted and /system holds build.prop, the health tool and the
// executable: mounts the work folder's tmpfs and makes /system read-only when asked.
void finish_bringup(const PhoneSpec &s);

}  // namespace sim
