#include "sim/foreign_exe.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "sim/phone_internal.h"
#include "sim/util.h"

namespace sim {

std::string elf_cpu(const std::string &path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    unsigned char h[EI_NIDENT + 4] = {};
    ssize_t n = read(fd, h, sizeof h);
    close(fd);
    if (n < static_cast<ssize_t>(sizeof h) || memcmp(h, ELFMAG, SELFMAG) != 0) return "";
    // e_type (2 bytes) then e_machine (2 bytes), in the file's own byte order.
    const unsigned char *m = h + EI_NIDENT + 2;
    unsigned machine = h[EI_DATA] == ELFDATA2MSB ? (m[0] << 8 | m[1]) : (m[1] << 8 | m[0]);
    const bool wide = h[EI_CLASS] == ELFCLASS64;
    switch (machine) {
    case EM_AARCH64: return "aarch64";
    case EM_X86_64: return "x86_64";
    case EM_ARM: return "arm";
    case EM_386: return "i386";
    case EM_RISCV: return wide ? "riscv64" : "riscv32";
    default: return "machine " + std::to_string(machine);
    }
}

std::string host_cpu() {
    // The simulator's own CPU is the host's, named the same way as the executable's.
    static const std::string cpu = elf_cpu("/proc/self/exe");
    return cpu;
}

std::string ExeCpu::summary() const {
    if (cpu.empty()) return "the host's (not an ELF executable)";
    if (emulator.empty()) return cpu + " (the host's CPU)";
    return cpu + " (emulated by " + base_of(emulator) + ")";
}

namespace {

std::string find_emulator(const std::string &cpu) {
    const std::string name = "qemu-" + cpu + "-static";
    std::vector<std::string> dirs;
    if (const char *path = getenv("PATH")) {
        std::string p = path;
        for (size_t pos = 0; pos <= p.size();) {
            size_t end = p.find(':', pos);
            if (end == std::string::npos) end = p.size();
            if (end > pos) dirs.push_back(p.substr(pos, end - pos));
            pos = end + 1;
        }
    }
    dirs.emplace_back("/usr/bin");
    dirs.emplace_back("/usr/local/bin");
    for (const auto &d : dirs) {
        std::string candidate = d + "/" + name;
        if (d[0] == '/' && access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

std::string phone_emulator(const PhoneSpec &s) { return std::string(kPhoneEmulatorDir) + "/" + base_of(s.emulator); }

}  // namespace

bool inspect_exe(const std::string &exe, ExeCpu &out, std::string &error) {
    out = ExeCpu{};
    out.cpu = elf_cpu(exe);
    if (out.cpu.empty() || out.cpu == host_cpu()) return true;
    out.emulator = find_emulator(out.cpu);
    if (out.emulator.empty()) {
        error = exe + " is an " + out.cpu + " executable and this host's CPU is " + host_cpu() + ": running it needs qemu-" +
                out.cpu + "-static (Debian package qemu-user-static)";
        return false;
    }
    return true;
}

void bind_emulator(const PhoneSpec &s) {
    if (s.emulator.empty()) return;
    bind_path(s.emulator, in_phone(s, phone_emulator(s)), true);
}

std::vector<std::string> through_emulator(const PhoneSpec &s, const std::vector<std::string> &argv) {
    if (s.emulator.empty() || argv.empty() || argv[0].empty()) return argv;
    std::string program = argv[0];
    if (program[0] != '/') {
        if (program.find('/') != std::string::npos || !exists(in_phone(s, "/system/bin/" + program))) return argv;
        program = "/system/bin/" + program;
    }
    std::string cpu = elf_cpu(in_phone(s, program));
    if (cpu.empty() || cpu == host_cpu()) return argv;
    std::vector<std::string> wrapped = {phone_emulator(s), program};
    wrapped.insert(wrapped.end(), argv.begin() + 1, argv.end());
    return wrapped;
}

}  // namespace sim
