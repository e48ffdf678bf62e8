#include "utf8.h"

#include <cstdint>

namespace mvtest {

std::string utf8(std::u16string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::string utf8(BSTR text) {
  return text ? utf8(std::u16string_view(text, MVSysStringLen(text))) : std::string();
}

std::u16string utf16(std::string_view s) {
  std::u16string out;
  for (std::size_t i = 0; i < s.size();) {
    const auto b = static_cast<unsigned char>(s[i]);
    uint32_t c = b;
    std::size_t n = 1;
    if (b >= 0xF0) {
      c = b & 0x07;
      n = 4;
    } else if (b >= 0xE0) {
      c = b & 0x0F;
      n = 3;
    } else if (b >= 0xC0) {
      c = b & 0x1F;
      n = 2;
    }
    for (std::size_t k = 1; k < n && i + k < s.size(); ++k) {
      c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    }
    i += n;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

}  // namespace mvtest
