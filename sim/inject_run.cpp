#include "sim/inject_run.h"

#include <unistd.h>

#include "inject/inject_plan.h"
#include "sim/phone_internal.h"
#include "sim/util.h"

namespace sim {

namespace {

bool injecting(const PhoneSpec &s) { return s.mode == Mode::kRun && !s.profile->inject.empty(); }

// The library built beside this simulator (build/<preset>/inject/), unless the profile names one.
std::string injector_library(const PhoneSpec &s) {
    const std::string &named = s.profile->inject_lib;
    return named.empty() ? dir_of(dir_of(s.self_exe)) + "/inject/libflashaging-inject.so" : named;
}

}  // namespace

bool apply_inject_key(Profile &p, const std::string &key, const std::string &value, bool &ok, std::string &why) {
    if (key == "inject") {
        inject_plan plan;
        ok = value.empty() || parse_inject_plan(value.c_str(), &plan) != 0;
        if (ok)
            p.inject = value;
        else
            why = "expected KIND:N:ACTION[:WHEN] (e.g. alloc:3:ENOMEM, write:37:SIGTERM:after, lock:0:count)";
        return true;
    }
    if (key == "inject_lib") {
        ok = value.empty() || value[0] == '/';
        if (ok)
            p.inject_lib = value;
        else
            why = "expected an absolute host path";
        return true;
    }
    return false;
}

void bind_injector(const PhoneSpec &s) {
    if (!injecting(s)) return;
    need(s.emulator.empty(), "the fault injector (inject) works with an executable of the host's CPU only");
    const std::string lib = injector_library(s);
    need(exists(lib), "no fault injector at " + lib + " (build the flashaging-inject target, or give inject_lib)");
    const std::string dir = s.out_dir + "/inject";
    need(make_dirs(dir), "cannot make " + dir);
    for (const char *file : {"/record", "/count"}) unlink((dir + file).c_str());
    bind_path(dir, in_phone(s, kPhoneInjectDir), false);
    bind_path(lib, in_phone(s, kPhoneInjectLib), true);
    logf("fault injector: %s (%s), its record in %s/record", s.profile->inject.c_str(), lib.c_str(), dir.c_str());
}

std::vector<std::string> injector_env(const PhoneSpec &s) {
    if (!injecting(s)) return {};
    return {std::string("LD_PRELOAD=") + kPhoneInjectLib, "FLASHAGING_INJECT=" + s.profile->inject,
            std::string("FLASHAGING_INJECT_DIR=") + kPhoneInjectDir};
}

}  // namespace sim
