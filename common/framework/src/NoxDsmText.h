#ifndef NOX_DSM_TEXT_H
#define NOX_DSM_TEXT_H

// Fixed-size text fields of the data state manager. Internal to the framework.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace NoxDsmText {

// Copies `src`, whose text is terminated within `srcSize` bytes or not at all, into `dst`
// as a copy bounded by `bound` (at most bound - 1 characters, always terminated) would,
// but never past either array: several fields are copied with a bound larger than their
// destination, and that must cut, not overrun.
template <size_t D>
void copy(char (&dst)[D], const char* src, size_t srcSize, size_t bound) {
  const size_t limit = std::min(bound, D);
  if (limit == 0) return;
  const size_t n = strnlen(src, std::min(limit - 1, srcSize));
  memmove(dst, src, n);
  dst[n] = '\0';
}

template <size_t D, size_t S>
void copy(char (&dst)[D], const char (&src)[S], size_t bound) {
  copy(dst, src, S, bound);
}

// Replaces a stored address and its interface name when `text` is set and differs from
// it; true when it did. The name is copied with the address's bound, cut to its field.
template <size_t A, size_t I>
bool replaceAddress(char (&addr)[A], char (&iface)[I], const char (&text)[A], const char* name,
                    size_t nameSize) {
  if (text[0] == '\0' || strncmp(text, addr, A) == 0) return false;
  memset(addr, 0, A);
  memset(iface, 0, I);
  copy(addr, text, A);
  copy(iface, name, nameSize, A);
  return true;
}

// The map key of an interface name: at most 15 characters, as in every name field.
inline std::string ifaceKey(const char* name) { return std::string(name, strnlen(name, 15)); }

}  // namespace NoxDsmText

#endif  // NOX_DSM_TEXT_H
