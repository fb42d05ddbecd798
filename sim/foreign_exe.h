// Executables of another CPU. The phone's executable is built for the phone's CPU (arm64);
// the simulator recognises it from its ELF header and runs it in the phone through Debian's
// user-mode emulator (qemu-<cpu>-static, bound into the phone), while the shell commands it
// runs and the health tool stay host programs, as on a phone they are the phone's own.
// binfmt_misc is never relied on: the emulator is called explicitly.
#pragma once

#include <string>
#include <vector>

#include "sim/phone.h"

namespace sim {

// Where the emulator appears in the phone (a folder of the simulator's own).
inline constexpr const char *kPhoneEmulatorDir = "/sim/cpu";

// The CPU an ELF executable is built for, from its header ("aarch64", "x86_64", "arm",
// "i386", "riscv64", or "machine N" for others); "" when the file is not an ELF file.
std::string elf_cpu(const std::string &path);

// The host's CPU, by the same names.
std::string host_cpu();

// How the executable runs: natively, or through an emulator.
struct ExeCpu {
    std::string cpu;       // the executable's CPU ("" when it is not an ELF file, e.g. a script)
    std::string emulator;  // host path of the emulator when the CPU is foreign, else ""
    // "x86_64 (the host's CPU)" or "aarch64 (emulated by qemu-aarch64-static)".
    std::string summary() const;
};

// Looks at the executable and, when its CPU is not the host's, finds its emulator
// (qemu-<cpu>-static in PATH, /usr/bin or /usr/local/bin). False with `error` set when
// a foreign executable has no emulator here.
bool inspect_exe(const std::string &exe, ExeCpu &out, std::string &error);

// Binds the phone description's emulator into the phone under kPhoneEmulatorDir (no-op without one).
// Throws BuildError as the root's builder does.
void bind_emulator(const PhoneSpec &s);

// The argument vector that runs `argv` in the phone: when its program (an absolute phone
// path, or a name found in /system/bin) is an ELF file of a foreign CPU and the phone description has
// an emulator, the emulator in the phone goes first. Otherwise `argv` as it is.
std::vector<std::string> through_emulator(const PhoneSpec &s, const std::vector<std::string> &argv);

}  // namespace sim
