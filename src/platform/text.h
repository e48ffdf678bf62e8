// Small text helpers that every layer needs and that must not depend on the locale.
#pragma once

#include <algorithm>
#include <string_view>

namespace mv {

// Without the blanks at either end: space, tab, CR, LF, vertical tab and form feed (what the
// "C" locale's isspace takes), so that a file written on Windows reads like one written here.
inline std::string_view trim(std::string_view s) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  const std::size_t first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

inline char asciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Equal when only ASCII letters differ in case; other bytes (UTF-8, CP932) must match exactly.
inline bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return asciiLower(x) == asciiLower(y);
         });
}

}  // namespace mv
