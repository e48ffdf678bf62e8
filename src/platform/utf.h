// UTF-8 and UTF-16, independent of the boundary's code page: the server keeps its texts in
// UTF-8 and the wire carries UTF-16.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "MVCore.h"

namespace mv {

// One character at the start of a UTF-8 text. A malformed sequence (a stray or impossible byte,
// a sequence cut short, an overlong form, a surrogate, beyond U+10FFFF) is !valid, and its
// length runs from the lead byte over the continuation bytes it was given, so that a reader
// that replaces it resumes at the first byte that did not fit.
struct Utf8Char {
  char32_t code = 0;
  std::size_t length = 0;
  bool valid = false;
};

// `s` must not be empty. Inline and without allocation: the SQL tokenizer checks every literal
// through it.
inline Utf8Char decodeUtf8(std::string_view s) {
  const auto b = static_cast<unsigned char>(s[0]);
  if (b < 0x80) return {b, 1, true};
  if (b < 0xC2 || b > 0xF4) return {0xFFFD, 1, false};
  const std::size_t n = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
  char32_t c = b & (n == 2 ? 0x1Fu : n == 3 ? 0x0Fu : 0x07u);
  std::size_t k = 1;
  for (; k < n && k < s.size(); ++k) {
    const auto t = static_cast<unsigned char>(s[k]);
    if ((t & 0xC0) != 0x80) break;
    c = (c << 6) | (t & 0x3Fu);
  }
  const char32_t min = n == 2 ? 0x80 : n == 3 ? 0x800 : 0x10000;
  if (k < n || c < min || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) return {0xFFFD, k, false};
  return {c, n, true};
}

inline bool isValidUtf8(std::string_view s) {
  while (!s.empty()) {
    const Utf8Char c = decodeUtf8(s);
    if (!c.valid) return false;
    s.remove_prefix(c.length);
  }
  return true;
}

// Appends `c` (at most U+10FFFF, no surrogate) in UTF-8.
void appendUtf8(std::string& out, char32_t c);

// Malformed input becomes U+FFFD; nothing is dropped.
std::string utf16ToUtf8(std::u16string_view text);
std::u16string utf8ToUtf16(std::string_view text);
// A BSTR's text in UTF-8; null is empty.
std::string bstrToUtf8(BSTR text);
// A new BSTR (owned by the caller) from UTF-8.
BSTR utf8ToBstr(std::string_view text);

}  // namespace mv
