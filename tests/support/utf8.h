// UTF-8 views of server texts, so tests can write expectations as plain literals.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "MVCore.h"

namespace mvtest {

std::string utf8(std::u16string_view text);
std::string utf8(BSTR text);
std::u16string utf16(std::string_view utf8Text);

// Replaces the text in a holder (a null holder is left alone).
void putText(BSTR* holder, std::string_view utf8Text);
// Makes `v` an array of variants holding the texts.
void putTexts(VARIANT* v, const std::vector<std::string>& utf8Texts);
// The texts of an array of variants; "?" for an element that holds none, nothing for a variant
// that is no such array.
std::vector<std::string> texts(const VARIANT* v);

}  // namespace mvtest
