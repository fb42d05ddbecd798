// Faults a run can meet at any moment, for the fault campaign: the health tool taken away,
// replaced by one that prints garbage or made slow; the battery node removed; a signal sent
// to one chosen thread of the program; and triggers on the lines of the program's log.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "sim/phone.h"
#include "sim/profile.h"

namespace sim {

// Profile keys of these faults (`tool_fault`, `battery_remove_at`, `thread_signal`).
// Returns false when the key is not one of them; else sets `ok` (and `why` on a bad value).
bool apply_fault_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why);

// "log:TEXT" or "log+SECONDS:TEXT": fires when a line of the log holds TEXT (that long after).
bool parse_log_trigger(const std::string &text, Trigger &t);

// "thread:FIRST-LAST:STATE" or "thread+SECONDS:FIRST-LAST:STATE": fires when a thread of the
// program at such a place (see `thread_signal`) is in that state (that long after).
bool parse_thread_trigger(const std::string &text, Trigger &t);

struct FaultEvent {
    Trigger at;
    std::string what;
    std::function<void()> fire;
};

// The events of these faults. Those due at second 0 are applied at once (before the
// command starts) and not returned.
std::vector<FaultEvent> campaign_fault_events(const PhoneSpec &s);

// Follows /cache/factory/flash_aging.log as it grows.
class LogWatch {
public:
    // Reads what the log gained since the last call.
    void poll(const PhoneSpec &s);
    // Whether a complete line read so far holds `text`.
    bool seen(const std::string &text);

private:
    off_t offset_ = 0;
    std::string lines_;  // complete lines read so far
    std::string partial_;
};

// Whether a trigger's condition (its path exists, its log text was logged) holds now.
bool trigger_condition(const PhoneSpec &s, const Trigger &t, LogWatch &log);

}  // namespace sim
