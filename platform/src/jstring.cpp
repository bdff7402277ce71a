#include <cutils/jstring.h>

#include <stdlib.h>
#include <string.h>

#include <utils/Unicode.h>

// libutils aborts when a destination is smaller than its own measurement, so every
// conversion below is sized by the matching *_length call first.

extern "C" char16_t* strdup8to16(const char* s, size_t* out_len) {
  *out_len = 0;
  if (s == nullptr) return nullptr;
  const size_t bytes = strlen(s);
  const uint8_t* src = reinterpret_cast<const uint8_t*>(s);
  const ssize_t measured = utf8_to_utf16_length(src, bytes);
  const size_t units = measured < 0 ? bytes : static_cast<size_t>(measured);
  char16_t* out = static_cast<char16_t*>(malloc((units + 1) * sizeof(char16_t)));
  if (out == nullptr) return nullptr;
  if (measured < 0) {
    // A sequence cut short at the end: take the bytes as Latin-1 rather than lose them.
    for (size_t i = 0; i < bytes; ++i) out[i] = src[i];
    out[bytes] = 0;
  } else {
    utf8_to_utf16(src, bytes, out, units + 1);
  }
  *out_len = units;
  return out;
}

extern "C" char* strndup16to8(const char16_t* s, size_t n) {
  if (s == nullptr) return nullptr;
  // libutils measures an empty string as -1; lone surrogates measure (and convert) as nothing.
  const ssize_t measured = n > 0 ? utf16_to_utf8_length(s, n) : 0;
  const size_t bytes = measured < 0 ? 0 : static_cast<size_t>(measured);
  char* out = static_cast<char*>(malloc(bytes + 1));
  if (out == nullptr) return nullptr;
  out[0] = '\0';
  if (bytes > 0) utf16_to_utf8(s, n, out, bytes + 1);
  return out;
}
