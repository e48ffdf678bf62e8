// Building the SQL text the library sends. Values go in by substitution; a text put into a quoted
// literal has every apostrophe doubled, so a name with an apostrophe is stored and found as it
// is and no text can change the shape of a statement. '%' and '_' keep their meaning in LIKE.
#pragma once

#include <string>
#include <string_view>

namespace mv {

// The text with each ' doubled, for use between quotes. An apostrophe is never the second byte
// of a double-byte character in the code pages the library uses, so bytes can be scanned.
std::string sqlText(std::string_view text);

// printf-style formatting into a std::string (the statements' own templates are printf
// templates); texts given to %s must already have gone through sqlText where they are quoted.
std::string sqlFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace mv
