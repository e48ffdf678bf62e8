// UTF-8 and UTF-16, independent of the boundary's code page: the server keeps its texts in
// UTF-8 and the wire carries UTF-16.
#pragma once

#include <string>
#include <string_view>

#include "MVCore.h"

namespace mv {

// Malformed input becomes U+FFFD; nothing is dropped.
std::string utf16ToUtf8(std::u16string_view text);
std::u16string utf8ToUtf16(std::string_view text);
// A BSTR's text in UTF-8; null is empty.
std::string bstrToUtf8(BSTR text);
// A new BSTR (owned by the caller) from UTF-8.
BSTR utf8ToBstr(std::string_view text);

}  // namespace mv
