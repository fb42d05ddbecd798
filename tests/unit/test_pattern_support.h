// Shared pieces of the pattern engine's unit tests: the patterns and file mixes written out
// independently of the engine's own tables, a scratch directory on a disk that takes
// O_DIRECT, and a stdout capture.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace pattern_test {

// The 8-byte patterns 0..6; 7..9 are concatenations of them.
inline std::vector<uint8_t> expected_pattern(int id) {
    static const uint8_t p8[7][8] = {
        {0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55, 0xAA, 0x55}, {0x33, 0x00, 0x33, 0x00, 0x33, 0x00, 0x33, 0x00},
        {0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF}, {0x77, 0x33, 0x77, 0x33, 0x77, 0x33, 0x77, 0x33},
        {0x10, 0x01, 0x01, 0x10, 0x10, 0x01, 0x01, 0x10}, {0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF, 0xEF},
        {0x10, 0x10, 0x77, 0x33, 0x00, 0xFF, 0xAA, 0x55},
    };
    static const int parts[3][8] = {{0, 1, 2, 0, 3, 4, 5, 6}, {0, 6, 5, 4, 3, 2, 1, 0}, {0, 2, 4, 5, 0, 5, 3, 1}};
    std::vector<uint8_t> out;
    if (id < 7) return std::vector<uint8_t>(p8[id], p8[id] + 8);
    for (int part : parts[id - 7]) out.insert(out.end(), p8[part], p8[part] + 8);
    return out;
}

// Byte k of a pattern file is byte (k mod len) of its pattern.
inline bool holds_pattern(const uint8_t *data, size_t size, int id, size_t *first_bad = nullptr) {
    const std::vector<uint8_t> p = expected_pattern(id);
    for (size_t k = 0; k < size; ++k) {
        if (data[k] != p[k % p.size()]) {
            if (first_bad != nullptr) *first_bad = k;
            return false;
        }
    }
    return true;
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
            {4096, {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}}},
            {16384, {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}}},
            {32768, {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}}},
            {196608, {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}}},
            {262144, {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}}},
            {524288, {{0, 1}, {2, 1}, {4, 1}, {5, 1}, {7, 1}}},
            {1048576, {{0, 1}, {7, 1}}},
            {8388608, {{7, 4}}},
            {16777216, {{7, 4}}},
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

// A scratch directory (path ends in a slash) on a file system that accepts O_DIRECT writes;
// tmpfs may refuse them, so the candidates are tried in turn.
class ScratchDir {
  public:
    ScratchDir() {
        std::vector<std::string> bases;
        if (const char *env = getenv("FLASHAGING_TEST_TMP")) bases.emplace_back(env);
        bases.emplace_back("/var/tmp");
        bases.emplace_back(std::filesystem::current_path().string());
        bases.emplace_back("/tmp");
        for (const std::string &base : bases) {
            std::string templ = base + "/fa_pat_XXXXXX";
            if (mkdtemp(templ.data()) == nullptr) continue;
            if (accepts_direct_io(templ)) {
                root_ = templ + "/";
                return;
            }
            std::filesystem::remove_all(templ);
        }
        ADD_FAILURE() << "no scratch directory that accepts O_DIRECT";
    }
    ~ScratchDir() {
        if (root_.empty()) return;
        // The engine makes its directories without a search bit; open them up first so the
        // removal also works for a user that is not root.
        open_up(root_);
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    // The directory itself, with a trailing slash.
    const std::string &path() const { return root_; }
    // A subdirectory name (with trailing slash) that does not exist yet.
    std::string sub(const std::string &name) const { return root_ + name + "/"; }

  private:
    static void open_up(const std::filesystem::path &dir) {
        std::error_code ec;
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
        for (const auto &entry : std::filesystem::directory_iterator(dir, ec))
            if (entry.is_directory(ec) && !entry.is_symlink(ec)) open_up(entry.path());
    }
    static bool accepts_direct_io(const std::string &dir) {
        const std::string probe = dir + "/probe";
        const int fd = open(probe.c_str(), O_RDWR | O_CREAT | O_DIRECT, 0600);
        if (fd < 0) return false;
        void *block = aligned_alloc(4096, 4096);
        bool ok = block != nullptr && write(fd, block, 4096) == 4096;
        free(block);
        close(fd);
        unlink(probe.c_str());
        return ok;
    }
    std::string root_;
};

// Text for a std::regex that matches s literally.
inline std::string re_escape(const std::string &s) {
    std::string out;
    for (char ch : s) {
        if (std::string_view("\\^$.|?*+()[]{}").find(ch) != std::string_view::npos) out += '\\';
        out += ch;
    }
    return out;
}

template <typename F>
std::string capture_stdout(F &&f) {
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

inline std::vector<uint8_t> read_whole(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_whole(const std::string &path, const std::vector<uint8_t> &data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
}

// size bytes of pattern id.
inline std::vector<uint8_t> pattern_bytes(int id, size_t size) {
    const std::vector<uint8_t> p = expected_pattern(id);
    std::vector<uint8_t> out(size);
    for (size_t k = 0; k < size; ++k) out[k] = p[k % p.size()];
    return out;
}

}  // namespace pattern_test
