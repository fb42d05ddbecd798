// Host property system: key=value lines of the phone's build.prop.
#include "platform/properties.h"
#include "platform/host/daemon_paths.h"
#include "platform/host/properties_host.h"

#include <cstdio>
#include <cstring>

int property_get_from(FILE *props, const char *key, char *value, const char *default_value) {
    if (!value) return 0;
    const char *found = nullptr;
    char line[1024];
    char hit[PROPERTY_VALUE_MAX] = {0};
    if (props && key) {
        size_t klen = strlen(key);
        while (fgets(line, sizeof line, props)) {
            line[strcspn(line, "\r\n")] = '\0';
            if (strncmp(line, key, klen) == 0 && line[klen] == '=') {
                snprintf(hit, sizeof hit, "%s", line + klen + 1);
                found = hit;  // the last definition wins, as in build.prop
            }
        }
    }
    if (!found) found = default_value ? default_value : "";
    snprintf(value, PROPERTY_VALUE_MAX, "%s", found);
    return static_cast<int>(strlen(value));
}

extern "C" int property_get(const char *key, char *value, const char *default_value) {
    if (!value) return 0;
    FILE *f = key ? fopen(host_doors::kBuildProp, "re") : nullptr;
    int n = property_get_from(f, key, value, default_value);
    if (f) fclose(f);
    return n;
}
