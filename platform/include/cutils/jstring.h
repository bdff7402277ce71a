#ifndef NOX_PLATFORM_CUTILS_JSTRING_H
#define NOX_PLATFORM_CUTILS_JSTRING_H

// UTF-8 <-> UTF-16 duplication helpers that older libcutils provided, built on
// libutils' conversions.

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Returns a malloc'ed UTF-16 copy of the UTF-8 text `s` (not terminated) and its
// length in units in *out_len; null on allocation failure. Free with free().
char16_t* strdup8to16(const char* s, size_t* out_len);

// Returns a malloc'ed, zero-terminated UTF-8 copy of the first `n` UTF-16 units
// of `s`; null on allocation failure. Free with free().
char* strndup16to8(const char16_t* s, size_t n);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_CUTILS_JSTRING_H
