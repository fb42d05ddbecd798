// The signal record's upload node: the PA and DL error totals read from it match a re-parse
// (255-character lines, PA line first, DL line only behind it).
#include <cstring>

#include "flashaging/driver_check_internal.h"
#include "fuzz_support.h"

namespace {

constexpr std::string_view kPa = "unipro_PA_err_total_cnt:";
constexpr std::string_view kDl = "unipro_DL_err_total_cnt:";

// The count of a label line as "label:\t\t%d" reads it: any white space, then a number.
// *exact is false when the number does not fit an int (the C library's result is then its
// own business).
int count_of(std::string_view line, std::string_view label, bool *exact) {
    std::string_view rest = line.substr(label.size());
    size_t digits = 0;
    long v = fz::ref_strtol(rest, &digits);
    *exact = v >= INT_MIN && v <= INT_MAX;
    return digits == 0 ? 0 : static_cast<int>(static_cast<uint32_t>(static_cast<unsigned long>(v)));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int pa = -7;
    int dl = -7;
    {
        fz::in_stream in(data, size);
        driver_error_counts(in.get(), &pa, &dl);
    }

    std::string_view all(reinterpret_cast<const char *>(data), size);
    std::vector<std::string_view> lines = fz::fgets_pieces(all, 256);
    int want_pa = 0;
    int want_dl = 0;
    bool pa_exact = true;
    bool dl_exact = true;
    size_t i = 0;
    for (; i < lines.size(); ++i) {
        if (lines[i].substr(0, kPa.size()) == kPa) {
            want_pa = count_of(lines[i], kPa, &pa_exact);
            ++i;
            break;
        }
    }
    for (; i < lines.size(); ++i) {
        if (lines[i].substr(0, kDl.size()) == kDl) {
            want_dl = count_of(lines[i], kDl, &dl_exact);
            break;
        }
    }
    if (pa_exact) fz::check(pa == want_pa, "PA count differs from the re-parse");
    if (dl_exact) fz::check(dl == want_dl, "DL count differs from the re-parse");
    return 0;
}
