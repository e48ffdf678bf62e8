#include "frame/sql_text.h"

#include <cstdarg>
#include <cstdio>

namespace mv {

std::string sqlText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out;
}

std::string sqlFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(out.data(), out.size(), format, args);
    out.resize(static_cast<std::size_t>(n));
  }
  va_end(args);
  return out;
}

}  // namespace mv
