#include "sim/inject_run.h"

#include <unistd.h>

#include "inject/inject_plan.h"
#include "sim/phone_internal.h"
#include "sim/util.h"

namespace sim {

namespace {

bool injecting(const PhoneSpec &s) { return s.mode == Mode::kRun && !s.profile->inject.empty(); }

// The leak check's suppressions for an injected run, written into the injector's folder.
constexpr const char *kLeakSuppressions = "leak-suppressions";

// Adds OPTION to the colon-separated list of the environment line KEY=..., or the line.
void add_option(std::vector<std::string> &env, const std::string &key, const std::string &option) {
    for (std::string &line : env)
        if (line.rfind(key + "=", 0) == 0) {
            line += (line.size() > key.size() + 1 ? ":" : "") + option;
            return;
        }
    env.push_back(key + "=" + option);
}

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
    need(write_file(dir + "/" + kLeakSuppressions,
                    "# The dynamic loader's list of the libraries a library loaded at start needs, made when\n"
                    "# a thread end first loads the unwinder: kept by the loader out of the leak check's sight.\n"
                    "leak:_dl_map_object_deps\n"),
         "cannot write " + dir + "/" + kLeakSuppressions);
    bind_path(dir, in_phone(s, kPhoneInjectDir), false);
    bind_path(lib, in_phone(s, kPhoneInjectLib), true);
    logf("fault injector: %s (%s), its record in %s/record", s.profile->inject.c_str(), lib.c_str(), dir.c_str());
}

void add_injector_env(const PhoneSpec &s, std::vector<std::string> &env) {
    if (!injecting(s)) return;
    env.push_back(std::string("LD_PRELOAD=") + kPhoneInjectLib);
    env.push_back("FLASHAGING_INJECT=" + s.profile->inject);
    env.push_back(std::string("FLASHAGING_INJECT_DIR=") + kPhoneInjectDir);
    // For an executable of the address-sanitizer build (harmless to any other): the injector
    // comes before the runtime in the list of libraries, which the runtime refuses unless
    // told; and the dynamic loader, whose malloc is then the injector's, keeps the list it
    // makes on a thread end's first use of the unwinder where the leak check does not look.
    add_option(env, "ASAN_OPTIONS", "verify_asan_link_order=0");
    add_option(env, "LSAN_OPTIONS", std::string("suppressions=") + kPhoneInjectDir + "/" + kLeakSuppressions + ":print_suppressions=0");
}

}  // namespace sim
