// Host stand-in for the Android property API: one file per property under
// $MARLO_ROOT/dev/__properties__/.
#pragma once

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

int property_get(const char* key, char* value, const char* default_value);
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
