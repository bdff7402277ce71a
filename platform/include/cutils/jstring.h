#ifndef NOX_PLATFORM_CUTILS_JSTRING_H
#define NOX_PLATFORM_CUTILS_JSTRING_H

// UTF-8 <-> UTF-16 duplication helpers that older libcutils provided, built on
// libutils' conversions.

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Returns a malloc'ed UTF-16 copy of the zero-terminated UTF-8 text `s` and its length
// in units in *out_len. Characters beyond U+FFFF become surrogate pairs. Text whose
// last sequence is cut short is not UTF-8: it is copied byte for byte as Latin-1.
// The copy is followed by a 0 unit, but callers go by *out_len. Returns null (and
// *out_len 0) for a null `s` or on allocation failure. Free with free().
char16_t* strdup8to16(const char* s, size_t* out_len);

// Returns a malloc'ed, zero-terminated UTF-8 copy of the first `n` UTF-16 units of
// `s` (a 0 unit among them becomes a 0 byte). Surrogate pairs become 4-byte sequences; a lone
// surrogate is dropped. Returns null for a null `s` or on allocation failure.
// Free with free().
char* strndup16to8(const char16_t* s, size_t n);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_CUTILS_JSTRING_H
