// Shared pieces of the fuzz harnesses: a quiet standard output (the product logs there),
// streams over the input, and the reference pieces the harnesses re-parse with.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fz {

// The product's log lines go to standard output; a fuzz run would drown in them.
inline void quiet_stdout() {
    if (!freopen("/dev/null", "w", stdout)) abort();
}

// Stops the run with a message when a property does not hold (libFuzzer keeps the input).
[[noreturn]] inline void fail(const char *what) {
    fprintf(stderr, "property violated: %s\n", what);
    abort();
}
inline void check(bool ok, const char *what) {
    if (!ok) fail(what);
}

// A read stream over data[0, size); the bytes are copied so the stream owns them.
class in_stream {
public:
    in_stream(const uint8_t *data, size_t size) : bytes_(data, data + size) {
        // A stream over nothing still needs a buffer of one byte; it reads as empty.
        f_ = fmemopen(bytes_.empty() ? one_ : bytes_.data(), bytes_.size(), "r");
        if (!f_) fail("fmemopen");
    }
    ~in_stream() { fclose(f_); }
    in_stream(const in_stream &) = delete;
    in_stream &operator=(const in_stream &) = delete;
    FILE *get() const { return f_; }

private:
    std::vector<char> bytes_;
    char one_[1] = {0};
    FILE *f_ = nullptr;
};

// A write stream whose text is taken at the end.
class out_stream {
public:
    out_stream() {
        f_ = open_memstream(&buf_, &len_);
        if (!f_) fail("open_memstream");
    }
    ~out_stream() {
        if (f_) fclose(f_);
        free(buf_);
    }
    out_stream(const out_stream &) = delete;
    out_stream &operator=(const out_stream &) = delete;
    FILE *get() const { return f_; }
    std::string text() {
        fclose(f_);
        f_ = nullptr;
        return std::string(buf_, len_);
    }

private:
    char *buf_ = nullptr;
    size_t len_ = 0;
    FILE *f_ = nullptr;
};

// The pieces fgets hands over with a buffer of `bufsize` bytes: at most bufsize - 1 bytes
// each, ending after a line end; each piece as its C text (up to its first NUL byte).
inline std::vector<std::string_view> fgets_pieces(std::string_view all, size_t bufsize) {
    std::vector<std::string_view> out;
    size_t at = 0;
    while (at < all.size()) {
        size_t end = at;
        while (end < all.size() && end - at < bufsize - 1) {
            if (all[end++] == '\n') break;
        }
        std::string_view piece = all.substr(at, end - at);
        size_t nul = piece.find('\0');
        out.push_back(nul == std::string_view::npos ? piece : piece.substr(0, nul));
        at = end;
    }
    return out;
}

inline bool c_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// strtol in base 10 over a text: leading white space, a sign, digits; saturates at the long
// range; 0 without digits. *digits receives the number of digits read.
inline long ref_strtol(std::string_view s, size_t *digits = nullptr) {
    size_t i = 0;
    while (i < s.size() && c_space(s[i])) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    unsigned __int128 mag = 0;
    size_t n = 0;
    const unsigned __int128 cap = static_cast<unsigned __int128>(1) << 64;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
        mag = mag * 10 + static_cast<unsigned>(s[i] - '0');
        if (mag > cap) mag = cap;
        ++i;
        ++n;
    }
    if (digits) *digits = n;
    if (n == 0) return 0;
    if (!neg) return mag > static_cast<unsigned __int128>(LONG_MAX) ? LONG_MAX : static_cast<long>(mag);
    if (mag > static_cast<unsigned __int128>(LONG_MAX) + 1) return LONG_MIN;
    return static_cast<long>(-static_cast<__int128>(mag));
}

// atoi as the C library does it: strtol narrowed to int (the low 32 bits).
inline int ref_atoi(std::string_view s) { return static_cast<int>(static_cast<uint32_t>(static_cast<unsigned long>(ref_strtol(s)))); }

}  // namespace fz
