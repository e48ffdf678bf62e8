#include "utf8.h"

#include "platform/utf.h"

namespace mvtest {

std::string utf8(std::u16string_view text) { return mv::utf16ToUtf8(text); }
std::string utf8(BSTR text) { return mv::bstrToUtf8(text); }
std::u16string utf16(std::string_view utf8Text) { return mv::utf8ToUtf16(utf8Text); }

}  // namespace mvtest
