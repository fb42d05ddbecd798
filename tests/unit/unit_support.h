// Shared pieces of the unit tests: stdout capture, log-line shapes, whole files, a scratch
// directory that takes O_DIRECT, and the patterns and file mixes written out independently
// of the engine's own tables.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace ut {

// What fn prints on standard output.
template <typename F>
std::string capture(F &&fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Text for a std::regex that matches s literally.
inline std::string re_escape(const std::string &s) {
    std::string out;
    for (char ch : s) {
        if (std::string_view("\\^$.|?*+()[]{}").find(ch) != std::string_view::npos) out += '\\';
        out += ch;
    }
    return out;
}

// A log line as a regex: "[FLASH]LEVEL:func:<line> body", body taken literally; line() adds
// the "[time][tid]" prefix, bare() does not.
inline std::string bare(const char *level, const char *func, const std::string &body) {
    return std::string(R"(\[FLASH\])") + level + ":" + func + R"(:\d+ )" + re_escape(body);
}
inline const std::string kPrefix = R"(\[[^\]]+\]\[\d+\])";
inline std::string line(const char *level, const char *func, const std::string &body) {
    return kPrefix + bare(level, func, body);
}
inline bool matches(const std::string &text, const std::string &re) { return std::regex_match(text, std::regex(re)); }

// How this C library prints a null pointer with %p: "(nil)" with glibc, "0x0" with bionic.
inline std::string null_pointer_text() {
    char text[32];
    snprintf(text, sizeof text, "%p", static_cast<void *>(nullptr));
    return text;
}

inline int count_re(const std::string &text, const std::string &re) {
    std::regex r(re);
    return static_cast<int>(std::distance(std::sregex_iterator(text.begin(), text.end(), r), std::sregex_iterator()));
}
inline int count(const std::string &text, const std::string &needle) { return count_re(text, re_escape(needle)); }

// What write(stream) puts on a stream; *rc gets its result.
template <typename F>
std::string written(F &&write, int *rc) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&buf, &len);
    *rc = write(out);
    fclose(out);
    std::string text(buf, len);
    free(buf);
    return text;
}

inline std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}
inline std::string put(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return path;
}

// Where the tests keep scratch files: GoogleTest's TempDir(), which is /data/local/tmp/ on a
// phone (there is no /var/tmp there, and /tmp only on recent images) and $TEST_TMPDIR or
// /tmp/ on a host. It must be on a disk (older kernels refuse O_DIRECT on a tmpfs) and
// short: the pattern engine cuts its file names at 63 characters.
inline std::string scratch_base() {
    std::string base = ::testing::TempDir();
    if (base.empty() || base.back() != '/') base += '/';
    return base;
}

// A scratch directory (path ends in a slash) below scratch_base(); removed with everything
// in it at the end.
class ScratchDir {
  public:
    ScratchDir() {
        std::string templ = scratch_base() + "fa_ut_XXXXXX";
        if (mkdtemp(templ.data()) != nullptr) root_ = templ + "/";
        EXPECT_FALSE(root_.empty()) << "no scratch directory in " << scratch_base();
    }
    ~ScratchDir() {
        // The engine makes its directories without a search bit; open them up first so the
        // removal also works for a user that is not root.
        namespace fs = std::filesystem;
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(root_, ec); !ec && it != fs::end(it); it.increment(ec)) {
            if (it->is_directory(ec)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
        }
        fs::remove_all(root_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    const std::string &path() const { return root_; }
    // A file name in the directory, and a subdirectory name (with trailing slash).
    std::string file(const std::string &name) const { return root_ + name; }
    std::string sub(const std::string &name) const { return root_ + name + "/"; }

  private:
    std::string root_;
};

// ---- patterns ----------------------------------------------------------------------------

// The 8-byte patterns 0..6; 7..9 are concatenations of them.
inline std::vector<uint8_t> expected_pattern(int id) {
    static const uint8_t p8[7][8] = {
        {0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55}, {0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00},
        {0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF}, {0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33},
        {0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10}, {0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF},
        {0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55},
    };
    static const int parts[3][8] = {{0, 1, 2, 0, 3, 4, 5, 6}, {0, 6, 5, 4, 3, 2, 1, 0}, {0, 2, 4, 5, 0, 5, 3, 1}};
    if (id < 7) return std::vector<uint8_t>(p8[id], p8[id] + 8);
    std::vector<uint8_t> out;
    for (int part : parts[id - 7]) out.insert(out.end(), p8[part], p8[part] + 8);
    return out;
}

// Byte k of a pattern file is byte (k mod len) of its pattern; *first_bad names the first
// byte that is not.
inline bool holds_pattern(const void *data, size_t size, int id, size_t *first_bad = nullptr) {
    const std::vector<uint8_t> p = expected_pattern(id);
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    for (size_t k = 0; k < size; ++k) {
        if (bytes[k] != p[k % p.size()]) {
            if (first_bad != nullptr) *first_bad = k;
            return false;
        }
    }
    return true;
}

// size bytes of pattern id.
inline std::string pattern_bytes(int id, size_t size) {
    const std::vector<uint8_t> p = expected_pattern(id);
    std::string out(size, '\0');
    for (size_t k = 0; k < size; ++k) out[k] = static_cast<char>(p[k % p.size()]);
    return out;
}

struct ExpDesc {
    int pattern;
    int files;
};
struct ExpGroup {
    int file_size;
    std::vector<ExpDesc> descs;
};

// The three file mixes, group by group, descs in table order.
inline const std::vector<ExpGroup> &expected_case(int c) {
    static const std::vector<ExpDesc> kOneEach = {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}};  // case 1's smaller sizes
    static const std::vector<ExpGroup> cases[3] = {
        {
            {4096, {{0, 4}, {1, 5}, {2, 4}, {3, 2}, {4, 2}, {5, 2}, {6, 2}, {7, 2}, {8, 2}, {9, 2}}},
            {16384, {{0, 5}, {1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}, {6, 5}, {7, 5}, {8, 5}, {9, 5}}},
            {32768, {{0, 5}, {1, 2}, {2, 5}, {3, 2}, {4, 3}, {5, 3}, {6, 5}, {7, 5}, {8, 5}, {9, 5}}},
            {196608, {{0, 3}, {1, 2}, {2, 3}, {3, 2}, {4, 3}, {5, 3}, {6, 3}, {7, 5}, {8, 3}, {9, 3}}},
            {262144, {{0, 2}, {1, 2}, {2, 2}, {3, 2}, {4, 2}, {5, 2}, {6, 2}, {7, 2}, {8, 2}, {9, 2}}},
            {524288, {{0, 1}, {1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}, {7, 1}, {8, 1}, {9, 1}}},
            {1048576, {{0, 1}, {4, 1}, {7, 1}, {8, 1}, {9, 1}}},
            {8388608, {{7, 1}, {8, 1}, {9, 1}}},
            {16777216, {{7, 2}, {8, 2}}},
            {33554432, {{7, 1}}},
        },
        {
            {4096, kOneEach}, {16384, kOneEach}, {32768, kOneEach}, {196608, kOneEach}, {262144, kOneEach},
            {524288, kOneEach}, {1048576, {{0, 1}, {7, 1}}}, {8388608, {{7, 4}}}, {16777216, {{7, 4}}},
            {33554432, {{7, 4}}},
        },
        {
            {33554432, {{7, 8}}},
        },
    };
    return cases[c];
}

inline int expected_file_count(int c) {
    int n = 0;
    for (const ExpGroup &g : expected_case(c))
        for (const ExpDesc &d : g.descs) n += d.files;
    return n;
}

}  // namespace ut
