// The host property reader over an open build.prop stream, reached by the fuzz harness.
#pragma once

#include <cstdio>

// property_get over the key=value lines of `props` (may be null: nothing found). The last
// definition of `key` wins; `value` receives at most PROPERTY_VALUE_MAX - 1 characters and
// its terminator. Returns the length of the text copied.
int property_get_from(FILE *props, const char *key, char *value, const char *default_value);
