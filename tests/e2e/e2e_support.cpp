// Runs flashaging-sim for the end-to-end scenarios and reads back what the run left.
#include "e2e/e2e_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace e2e {

namespace {

bool slurp(const std::string &path, std::string &out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

void make_dirs(const std::string &path) {
    std::string cur;
    for (size_t pos = 0; pos <= path.size();) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        cur = path.substr(0, next);
        if (!cur.empty()) mkdir(cur.c_str(), 0755);
        pos = next + 1;
    }
}

// A run folder of its own per call: <out>/<Suite>.<Test>[.<n>].
std::string fresh_out_dir() {
    static std::map<std::string, int> calls;
    std::string name = "run";
    if (const auto *info = ::testing::UnitTest::GetInstance()->current_test_info())
        name = std::string(info->test_suite_name()) + "." + info->name();
    for (char &c : name)
        if (c == '/') c = '_';
    int n = ++calls[name];
    if (n > 1) name += "." + std::to_string(n);
    std::string dir = std::string(FLASHAGING_TEST_OUT) + "/" + name;
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot clear " << dir;
    make_dirs(dir);
    return dir;
}

// The profile of the scenario: the shipped one (by include, so its own includes resolve)
// with the overrides after it.
std::string write_profile(const std::string &profile, const std::vector<std::string> &overrides,
                          const std::string &dir) {
    std::string src = profile.find('/') == std::string::npos ? std::string(FLASHAGING_PROFILES) + "/" + profile : profile;
    struct stat st;
    if (stat(src.c_str(), &st) != 0) ADD_FAILURE() << "no profile " << src;
    std::string text = "include = " + src + "\n";
    if (!overrides.empty()) text += "# overrides of the scenario\n";
    for (const auto &o : overrides) text += o + "\n";
    std::string path = dir + ".profile";
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

// Where the phones keep their data images. The phones of the scenarios write and delete a few
// GiB each; in memory (/dev/shm, when it has room for several phones side by side) their
// small random direct writes cost a fraction of what the host's disk makes them cost, and
// several phones at once do not queue on one disk. FLASHAGING_SIM_TMPDIR, when set, wins.
void choose_image_folder_now() {
    const char *set = getenv("FLASHAGING_SIM_TMPDIR");
    if (set && *set) return;
    struct statvfs sv;
    if (statvfs("/dev/shm", &sv) != 0) return;
    const unsigned long long room = static_cast<unsigned long long>(sv.f_bavail) * sv.f_frsize;
    if (room >= (10ULL << 30)) setenv("FLASHAGING_SIM_TMPDIR", "/dev/shm", 1);
}

// Runs argv, returns its exit status (or 128 + signal) and what it printed.
int run_and_capture(const std::vector<std::string> &argv, std::string &output) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[1]);
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) dup2(devnull, 0);
        choose_image_folder_now();
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        fprintf(stderr, "cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    close(fds[1]);
    char buf[4096];
    for (;;) {
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        output.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

void expect_no_sanitizer_report(const std::string &where, const std::string &text) {
    std::string line = sanitizer_report(text);
    if (!line.empty()) ADD_FAILURE() << "sanitizer report in " << where << ": " << line << "\n" << text;
}

}  // namespace

void choose_image_folder() { choose_image_folder_now(); }

std::string sanitizer_report(const std::string &text) {
    for (const char *mark : {"Sanitizer", " runtime error: "}) {
        size_t pos = text.find(mark);
        if (pos == std::string::npos) continue;
        size_t begin = text.rfind('\n', pos);
        begin = begin == std::string::npos ? 0 : begin + 1;
        return text.substr(begin, text.find('\n', pos) - begin);
    }
    return "";
}

std::string RunResult::file(const std::string &relative) const {
    std::string text;
    slurp(out_dir + "/" + relative, text);
    return text;
}

bool RunResult::exists(const std::string &relative) const {
    struct stat st;
    return lstat((out_dir + "/" + relative).c_str(), &st) == 0;
}

std::vector<std::string> RunResult::journal_lines() const {
    std::vector<std::string> lines;
    std::istringstream in(journal);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

std::string RunResult::verdict_word() const {
    std::string w = record.substr(0, 10);
    size_t nul = w.find('\0');
    if (nul != std::string::npos) w.resize(nul);
    return w;
}

RunResult run(const std::string &profile, const std::vector<std::string> &overrides,
              const std::optional<std::vector<std::string>> &elements) {
    return run_exe(FLASHAGING_BIN, profile, overrides, elements);
}

RunResult run_exe(const std::string &exe, const std::string &profile, const std::vector<std::string> &overrides,
                  const std::optional<std::vector<std::string>> &elements) {
    RunResult r;
    r.out_dir = fresh_out_dir();
    std::string profile_path = write_profile(profile, overrides, r.out_dir);
    std::vector<std::string> argv = {FLASHAGING_SIM_BIN, "run", "--profile", profile_path, "--out", r.out_dir,
                                     "--exe", exe};
    if (elements) {
        argv.emplace_back("--");
        argv.insert(argv.end(), elements->begin(), elements->end());
    }
    r.sim_exit = run_and_capture(argv, r.sim_output);
    slurp(r.out_dir + "/factory/flash_aging.log", r.log);
    slurp(r.out_dir + "/journal", r.journal);
    r.has_record = slurp(r.out_dir + "/factory/flash_aging_result.txt", r.record);
    r.has_results_csv = slurp(r.out_dir + "/factory/flash_aging_results.csv", r.results_csv);
    const std::string ended = "the executable ended (exit status ";
    size_t pos = r.sim_output.find(ended);
    if (pos != std::string::npos) r.exe_status = atoi(r.sim_output.c_str() + pos + ended.size());
    // The program exits 0 on every planned end and 255 when the argument fetch fails; any
    // other status is a sanitizer's (1, 66) or a crash.
    if (r.exe_status > 0 && r.exe_status != 255)
        ADD_FAILURE() << "the executable exited " << r.exe_status << "\n" << r.sim_output;
    expect_no_sanitizer_report("the simulator's output", r.sim_output);
    expect_no_sanitizer_report("the log", r.log);
    expect_no_sanitizer_report("stdout.txt", r.file("stdout.txt"));
    return r;
}

int exec(const std::string &profile, const std::vector<std::string> &overrides,
         const std::vector<std::string> &command, std::string *output, std::string *out_dir) {
    std::string dir = fresh_out_dir();
    if (out_dir) *out_dir = dir;
    std::string profile_path = write_profile(profile, overrides, dir);
    std::vector<std::string> argv = {FLASHAGING_SIM_BIN, "exec", "--profile", profile_path, "--out", dir,
                                     "--exe", FLASHAGING_BIN, "--"};
    argv.insert(argv.end(), command.begin(), command.end());
    std::string out;
    int status = run_and_capture(argv, out);
    if (output) *output = out;
    expect_no_sanitizer_report("the command's output", out);
    return status;
}

int exec(const std::string &profile, const std::vector<std::string> &overrides,
         const std::vector<std::string> &command, std::string *output) {
    return exec(profile, overrides, command, output, nullptr);
}

int run_sim(const std::vector<std::string> &args, std::string *output) {
    std::vector<std::string> argv = {FLASHAGING_SIM_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out;
    int status = run_and_capture(argv, out);
    if (output) *output = out;
    return status;
}

int count(const std::string &haystack, const std::string &needle) {
    if (needle.empty()) return 0;
    int n = 0;
    for (size_t pos = haystack.find(needle); pos != std::string::npos; pos = haystack.find(needle, pos + needle.size()))
        ++n;
    return n;
}

std::vector<std::string> lines_with(const std::string &text, const std::string &needle) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.find(needle) != std::string::npos) lines.push_back(line);
    return lines;
}

}  // namespace e2e
