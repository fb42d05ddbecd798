// The fault injector in the phone: the profile keys `inject` and `inject_lib`, the binds that
// put the injector library and its folder into the phone, and the environment that preloads
// it into the executable of a `run` (and into nothing else).
#pragma once

#include <string>
#include <vector>

#include "sim/phone.h"
#include "sim/profile.h"

namespace sim {

// The injector's folder in the phone (its `record` and `count` files; DIR/inject/ on the host)
// and where the library appears.
inline constexpr const char *kPhoneInjectDir = "/sim/inject";
inline constexpr const char *kPhoneInjectLib = "/sim/inject-lib/libflashaging-inject.so";

// Profile keys `inject` (KIND:N:ACTION[:WHEN], checked here) and `inject_lib`. Returns false
// when the key is not one of them; else sets `ok` (and `why` on a bad value).
bool apply_inject_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why);

// For a `run` with `inject` set: empties DIR/inject/ and binds it and the library into the
// phone (throws BuildError when the library is missing or the executable is not the host's).
void bind_injector(const PhoneSpec &s);

// Adds to the executable's environment what preloads the injector (nothing without `inject` or
// outside `run`), with the address sanitizer's options that a preloaded library needs.
void add_injector_env(const PhoneSpec &s, std::vector<std::string> &env);

}  // namespace sim
