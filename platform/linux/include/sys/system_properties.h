// Host stand-in for Android's system properties.
#pragma once

// Longest value, in bytes, with its terminating NUL.
#define PROP_VALUE_MAX 92

// Reads the property `name` into `value` (PROP_VALUE_MAX bytes, NUL-terminated). The source is the
// line "name=value" of /vendor/build.prop, read at each call; of several lines the last one wins,
// and a value is cut at 91 bytes. Returns the value's length; 0 and an empty value if the file or
// the name is missing.
extern "C" int __system_property_get(const char* name, char* value);
