// The Android property system, as the program reads it.
#pragma once

#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `key` (or `default_value` when unset) into `value`, which must hold
// PROPERTY_VALUE_MAX bytes; returns the length of the text copied.
int property_get(const char *key, char *value, const char *default_value);

#ifdef __cplusplus
}
#endif
