// Conversion between the boundary's multi-byte code page and UTF-16, and multi-byte-aware text
// walking. The code page is process-wide; CP932 unless MVSetCodePage chose another.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace mv {

// A byte sequence that is not valid in the code page becomes U+FFFD; a character the code page
// cannot hold becomes '?'. Nothing is dropped silently, and an embedded zero is kept.
std::u16string ansiToWide(std::string_view text);
std::string wideToAnsi(std::u16string_view text);

// The current code page's name as given to iconv ("CP932", "UTF-8", ...).
std::string currentCodePage();

// Byte length of the character that starts at `p` (1 .. 4), never past `end`. A lead byte at
// the very end of the text counts as one character of one byte.
std::size_t charLength(const char* p, const char* end);
// True if `c` starts a multi-byte character in the current code page.
bool isLeadByte(unsigned char c);
// Number of characters in `text`.
std::size_t countCharacters(std::string_view text);
// Position of the first `needle` in `text` that starts on a character boundary, or npos.
// A trail byte that happens to equal the needle's first byte is never a match.
std::size_t findText(std::string_view text, std::string_view needle);
// The longest prefix of `text` of at most `maxBytes` bytes that ends on a character boundary.
std::string_view cutToBytes(std::string_view text, std::size_t maxBytes);

// Copies `text` into a fixed field of `width` bytes (width counts the terminator): cut at a
// character boundary, zero-terminated, never written past. Nothing is written if width is 0.
void copyToField(char* field, std::size_t width, std::string_view text);

// The text of a fixed field of a caller's record, which may fill the field without a terminator.
template <std::size_t N>
std::string_view fieldText(const char (&field)[N]) {
  return std::string_view(field, strnlen(field, N));
}

}  // namespace mv
