// The host property reader: the first input line is the key, the rest the build.prop text.
// The value is always terminated inside its 92 bytes, the result is its length, and it is
// the last definition of the key (cut at 91 characters), or the default.
#include <cstring>

#include "fuzz_support.h"
#include "platform/host/properties_host.h"
#include "platform/properties.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view all(reinterpret_cast<const char *>(data), size);
    size_t nl = all.find('\n');
    if (nl == std::string_view::npos) return -1;
    std::string key(all.substr(0, nl));  // C text: up to its first NUL
    std::string_view file = all.substr(nl + 1);

    char *value = static_cast<char *>(malloc(PROPERTY_VALUE_MAX));
    int n;
    {
        fz::in_stream in(reinterpret_cast<const uint8_t *>(file.data()), file.size());
        n = property_get_from(in.get(), key.c_str(), value, "unknown");
    }
    const void *end = memchr(value, '\0', PROPERTY_VALUE_MAX);
    fz::check(end != nullptr, "value terminated");
    fz::check(n == static_cast<int>(strlen(value)), "result is the value's length");

    std::string_view k(key.c_str());
    std::string want = "unknown";
    for (std::string_view piece : fz::fgets_pieces(file, 1024)) {
        piece = piece.substr(0, std::min(piece.find('\r'), piece.find('\n')));
        if (piece.size() > k.size() && piece.substr(0, k.size()) == k && piece[k.size()] == '=') {
            std::string_view v = piece.substr(k.size() + 1);
            want = std::string(v.substr(0, PROPERTY_VALUE_MAX - 1));
        }
    }
    fz::check(want == value, "value differs from the re-read");
    free(value);
    return 0;
}
