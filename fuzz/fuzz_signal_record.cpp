// The signal record's lines: the block written is the title and one "item: value" line per
// line piece (255 characters) that has an item and a value, exactly as a re-parse gives it.
#include <cstring>

#include "flashaging/framework_internal.h"
#include "fuzz_support.h"

namespace {

// The next token of s at the delimiters " \t\n", from *at on; empty when none is left.
std::string_view next_token(std::string_view s, size_t *at) {
    constexpr std::string_view kDelims = " \t\n";
    size_t b = s.find_first_not_of(kDelims, *at);
    if (b == std::string_view::npos) {
        *at = s.size();
        return {};
    }
    size_t e = s.find_first_of(kDelims, b);
    if (e == std::string_view::npos) e = s.size();
    *at = e;
    return s.substr(b, e - b);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string got;
    int rc;
    {
        fz::in_stream in(data, size);
        fz::out_stream out;
        rc = write_ufs_signal_lines(out.get(), in.get());
        got = out.text();
    }
    fz::check(rc == 0, "result is 0");

    std::string want = "\nUFS Signal Record:\n";
    std::string_view all(reinterpret_cast<const char *>(data), size);
    for (std::string_view line : fz::fgets_pieces(all, 256)) {
        size_t at = 0;
        std::string_view item = next_token(line, &at);
        if (item.empty()) continue;
        std::string_view value = next_token(line, &at);
        if (value.empty()) continue;
        want += std::string(item) + ": " + std::to_string(fz::ref_atoi(value)) + "\n";
    }
    fz::check(got == want, "signal block differs from the re-parse");
    return 0;
}
