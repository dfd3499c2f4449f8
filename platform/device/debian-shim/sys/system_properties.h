// The two limits of the device C library's <sys/system_properties.h> that
// <cutils/properties.h> builds PROPERTY_KEY_MAX and PROPERTY_VALUE_MAX from.
// Debian's packages of the platform's headers (android-libcutils-dev) come
// without the C library header itself; the values are the device's.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
