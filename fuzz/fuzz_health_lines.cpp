// The health tool's output: every counter read matches a re-parse of the same text, line
// piece by line piece (1024-byte reads), first key of the entry order winning per piece.
#include <cstring>

#include "flashaging/healthinfo_internal.h"
#include "fuzz_support.h"

namespace {

constexpr const char *kKeys[5] = {"readReclaim", "badBlockRuntime", "TBW", "eraseCacheCntAvg", "eraseXLCCntAvg"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    healthinfo info{};
    healthinfo_set_keys(&info);
    {
        fz::in_stream in(data, size);
        healthinfo_read_stream(&info, in.get());
    }

    uint32_t want[5] = {0, 0, 0, 0, 0};
    std::string_view all(reinterpret_cast<const char *>(data), size);
    for (std::string_view piece : fz::fgets_pieces(all, 1024)) {
        for (int k = 0; k < 5; ++k) {
            size_t at = piece.find(kKeys[k]);
            if (at == std::string_view::npos) continue;
            want[k] = static_cast<uint32_t>(fz::ref_atoi(piece.substr(at + strlen(kKeys[k]))));
            break;
        }
    }
    for (int k = 0; k < 5; ++k) {
        fz::check(info.entry[k].key != nullptr && strcmp(info.entry[k].key, kKeys[k]) == 0, "key order");
        fz::check(info.entry[k].value == want[k], "counter differs from the re-parse");
    }
    return 0;
}
