#ifndef NOX_PLATFORM_CUTILS_PROPERTIES_H
#define NOX_PLATFORM_CUTILS_PROPERTIES_H

// Host stand-in for Android system properties: an in-process store, optionally
// backed by a file of key=value lines (NOX_PROPERTY_FILE, or property_host_use_file).

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value (at most PROPERTY_VALUE_MAX - 1 bytes, always terminated) into
// `value` and returns its length; an unset or empty property yields default_value
// (or "" when that is null). Thread-safe.
int property_get(const char* key, char* value, const char* default_value);

// Sets the property; with a backing file, rewrites it atomically (temporary file,
// rename). Returns 0, or -1 for a null or too-long key or value.
int property_set(const char* key, const char* value);

// Host only. Empties the store and forgets the backing file (tests).
void property_host_reset(void);
// Host only. Loads `path` (if it exists) into the store and makes it the backing
// file of later sets; null means memory only. Returns 0, or -1 if it cannot be read.
int property_host_use_file(const char* path);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_CUTILS_PROPERTIES_H
