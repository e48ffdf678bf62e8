// UTF-8 views of server texts, so tests can write expectations as plain literals.
#pragma once

#include <string>
#include <string_view>

#include "MVCore.h"

namespace mvtest {

std::string utf8(std::u16string_view text);
std::string utf8(BSTR text);
std::u16string utf16(std::string_view utf8Text);

}  // namespace mvtest
