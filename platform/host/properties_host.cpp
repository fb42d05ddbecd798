// Host property system: key=value lines of the phone's build.prop.
#include "platform/properties.h"
#include "platform/host/daemon_paths.h"

#include <cstdio>
#include <cstring>

extern "C" int property_get(const char *key, char *value, const char *default_value) {
    if (!value) return 0;
    const char *found = nullptr;
    char line[1024];
    char hit[PROPERTY_VALUE_MAX] = {0};
    FILE *f = key ? fopen(host_doors::kBuildProp, "re") : nullptr;
    if (f) {
        size_t klen = strlen(key);
        while (fgets(line, sizeof line, f)) {
            line[strcspn(line, "\r\n")] = '\0';
            if (strncmp(line, key, klen) == 0 && line[klen] == '=') {
                snprintf(hit, sizeof hit, "%s", line + klen + 1);
                found = hit;  // the last definition wins, as in build.prop
            }
        }
        fclose(f);
    }
    if (!found) found = default_value ? default_value : "";
    snprintf(value, PROPERTY_VALUE_MAX, "%s", found);
    return static_cast<int>(strlen(value));
}
