#ifndef NOX_PLATFORM_CUTILS_PROPERTIES_H
#define NOX_PLATFORM_CUTILS_PROPERTIES_H

// Host stand-in for Android system properties: an in-process store, optionally
// backed by a file so that other processes (tools, tests) can see the values.
//
// Backing file: "key=value" lines, split at the first '=' with no trimming; blank
// lines, lines starting with '#' and lines without a key are ignored. The store is in
// memory only until a program adopts a file (the daemon's --props FILE, or
// $NOX_PROPERTY_FILE). The file is read once, when adopted; later changes by other
// processes are not seen.

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value (at most PROPERTY_VALUE_MAX - 1 bytes, always terminated) into
// `value` and returns its length; an unset or empty property yields default_value
// (or "" when that is null), cut to PROPERTY_VALUE_MAX - 1 bytes. A null key
// reads as unset. Thread-safe.
int property_get(const char* key, char* value, const char* default_value);

// Sets the property; with a backing file, rewrites the whole file atomically
// (temporary file in the same directory, then rename). Returns 0, or -1 for a null
// key or value, a value longer than PROPERTY_VALUE_MAX - 1 bytes, an empty key, a key
// holding '=' or a newline, a value holding a newline, or a failed file write (the
// store then keeps its old value). Keys are not limited to PROPERTY_KEY_MAX. Thread-safe.
int property_set(const char* key, const char* value);

// Host only (tests). Empties the store and forgets the backing file; the file itself
// is left alone.
void property_host_reset(void);
// Host only (the daemon's --props FILE). Replaces the store's content with that of
// `path` and makes it the backing file of later sets; a missing file in a writable
// directory is an empty store, created by the first set. Null or "" means memory only
// (the store is emptied). Returns 0, or -1 with errno set when `path` is not a regular
// file this process can read and rewrite in place (EISDIR, EINVAL for a FIFO or a
// device, EFBIG over 1 MiB, EACCES, ENOENT for a missing directory, ...); the store is
// then left as it was.
int property_host_use_file(const char* path);

// Host only. Calls `watcher` after every successful property_set, and after every
// set of a "ctl." key (a control message), stored or not; on the setting thread,
// outside the store's lock; null removes it. The daemon uses it to carry out
// "ctl.stop" as init would on a device.
typedef void (*property_host_watcher_fn)(const char* key, const char* value);
void property_host_set_watcher(property_host_watcher_fn watcher);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_CUTILS_PROPERTIES_H
