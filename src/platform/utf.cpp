#include "platform/utf.h"

#include <cstdint>

namespace mv {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

}  // namespace

void appendUtf8(std::string& out, char32_t c) {
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

std::string utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00) {
      if (i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00u);
      } else {
        c = kReplacement;
      }
    } else if (c >= 0xDC00 && c < 0xE000) {
      c = kReplacement;
    }
    appendUtf8(out, c);
  }
  return out;
}

std::u16string utf8ToUtf16(std::string_view s) {
  std::u16string out;
  out.reserve(s.size());
  while (!s.empty()) {
    const Utf8Char d = decodeUtf8(s);
    s.remove_prefix(d.length);
    char32_t c = d.code;
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

std::string bstrToUtf8(BSTR text) {
  return text ? utf16ToUtf8(std::u16string_view(text, MVSysStringLen(text))) : std::string();
}

BSTR utf8ToBstr(std::string_view text) {
  const std::u16string w = utf8ToUtf16(text);
  return MVSysAllocStringLen(w.data(), static_cast<uint32_t>(w.size()));
}

}  // namespace mv
