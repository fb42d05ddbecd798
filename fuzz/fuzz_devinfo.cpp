// The device-information node: the version and maker values are bounded by their 64-byte
// fields, always terminated, and equal to a re-extraction from the same text (the value
// after the last tab before the line end, cut at 63 characters; fields left as they were
// where the text gives no line end).
#include <cstring>

#include "flashaging/environment_internal.h"
#include "fuzz_support.h"

namespace {

constexpr size_t kRead = 512;  // what one read of the node gives at most
constexpr size_t kField = 64;
constexpr const char *kBefore = "before";


// The value that follows the label at `label`: *found false when no line end follows.
std::string ref_value(std::string_view text, size_t label, bool *found, size_t *after) {
    size_t start = label;
    for (size_t i = label; i < text.size(); ++i) {
        if (text[i] == '\t') {
            start = i + 1;
        } else if (text[i] == '\n') {
            *found = true;
            *after = i + 1;
            std::string_view v = text.substr(start, i - start);
            v = v.substr(0, std::min(v.find('\0'), kField - 1));
            return std::string(v);
        }
    }
    *found = false;
    return {};
}

// strstr over the C text that starts at `from`.
size_t c_find(std::string_view text, size_t from, std::string_view needle) {
    std::string_view c = text.substr(from);
    c = c.substr(0, c.find('\0'));
    size_t at = c.find(needle);
    return at == std::string_view::npos ? at : from + at;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > kRead) return -1;  // the node's read gives 1..512 bytes
    // Exact heap sizes, so the address sanitizer sees a step past any of them.
    char *text = static_cast<char *>(calloc(size + 1, 1));
    char *version = static_cast<char *>(malloc(kField));
    char *maker = static_cast<char *>(malloc(kField));
    memcpy(text, data, size);
    memcpy(version, kBefore, strlen(kBefore) + 1);
    memcpy(maker, kBefore, strlen(kBefore) + 1);

    int rc = storage_info_from_text(text, size, version, maker, "/proc/devinfo/ufs");

    fz::check(memchr(version, '\0', kField) != nullptr, "version field terminated");
    fz::check(memchr(maker, '\0', kField) != nullptr, "maker field terminated");

    std::string_view orig(reinterpret_cast<const char *>(data), size);
    std::string want_version = kBefore;
    std::string want_maker = kBefore;
    int want_rc;
    size_t v = c_find(orig, 0, "Device version:");
    if (v == std::string_view::npos) {
        want_version = "unknown";
        want_rc = -1;
    } else {
        bool found = false;
        size_t after = v;
        std::string value = ref_value(orig, v, &found, &after);
        if (found) want_version = value;
        size_t m = c_find(orig, found ? after : v, "Device manufacture:");
        if (m == std::string_view::npos) {
            want_maker = "unknown";
            want_rc = -1;
        } else {
            size_t ignored = 0;
            value = ref_value(orig, m, &found, &ignored);
            if (found) want_maker = value;
            want_rc = 0;
        }
    }
    fz::check(rc == want_rc, "status differs from the re-extraction");
    fz::check(want_version == version, "version differs from the re-extraction");
    fz::check(want_maker == maker, "maker differs from the re-extraction");

    free(text);
    free(version);
    free(maker);
    return 0;
}
