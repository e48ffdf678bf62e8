// Texts, records and blocks as they cross the server interface, seen from the server: BSTRs
// in and out as UTF-8, the tagged column texts, and arrays built for answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MVCore.h"

namespace mv::server {

std::string text(BSTR s);
// Replaces the caller's holder with a new text.
void putText(BSTR* out, std::string_view utf8);

// The texts of an array of variants (or of BSTRs); false if `v` is no such array.
bool arrayTexts(const VARIANT* v, std::vector<std::string>& out);
// Fills `v` with an array of variants holding these texts.
bool putTexts(VARIANT* v, const std::vector<std::string>& texts);
// Fills `v` with an array of variants holding 32-bit integers.
bool putInts(VARIANT* v, const std::vector<int32_t>& values);
// Fills `v` with an array of bytes.
bool putBytes(VARIANT* v, const uint8_t* data, std::size_t size);
// The good bytes of an upload block: false unless `v` is an array of at least `bytes` bytes.
bool blockBytes(const VARIANT* v, int32_t bytes, const uint8_t** data);

// "KEY=" name TAB typecode TAB value, in UTF-8 (whose bytes never imitate a tab or the marker).
struct Element {
  std::string_view name;
  std::string_view value;
};
bool parseElement(std::string_view text, Element& out);
// "PREFIX=value" elements of a block record; empty when the prefix is missing.
std::string_view after(std::string_view text, std::string_view prefix);

}  // namespace mv::server
