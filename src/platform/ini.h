// The one INI form the library and its programs read and write: the client configuration
// (client.conf), bookserverd's --config file and profile files.
//
//   # a comment line            ; so is this one
//   key = value                 before any section: the file's unnamed section
//   [section]
//   name = value with blanks    blanks around the name and the value do not count
//
// - A comment takes a whole line: its first character that is not blank is '#' or ';'.
// - A comment at the end of a line is refused, with the line's number, and not cut off: values
//   are tokens, passwords and paths, where '#' and ';' are ordinary characters, and silently
//   keeping "ca = x.pem  # ours" as the path (or silently cutting "pass;word") would hide the
//   mistake. So a blank followed by '#' or ';' inside a value, or anything after a section's
//   ']', is an error; "a#b" and "a;b" are values.
// - Everything after the first '=' is the value; a value may be empty.
// - Section and key names are kept as written and looked up ignoring ASCII case ("[Books]" is
//   "[books]", "Port" is "port"); other bytes must match exactly.
// - Repeats are kept in file order; what a repeat means is the reader's choice (lookups here
//   take the first, as a profile does).
// - CR before LF is ignored; a NUL byte makes the text no INI file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace mv::ini {

struct Entry {
  std::string key;
  std::string value;
  std::size_t line = 0;  // 1-based; 0 for an entry added by set()
};

struct Section {
  std::string name;  // empty for the entries before the first header
  std::size_t line = 0;
  std::vector<Entry> entries;
};

struct Document {
  // sections[0] is always the unnamed section, possibly empty.
  std::vector<Section> sections{Section{}};

  // The first value of `key` in the first section called `section` that has it; null when
  // there is none (a missing section is no error).
  const std::string* find(std::string_view section, std::string_view key) const;
  // Replaces the first such value, else adds the key to the first section of that name, else
  // adds the section. False, changing nothing, for a name or value that would not read back as
  // given (line breaks, blanks at either end, a '=' in a key, an end-of-line comment).
  bool set(std::string_view section, std::string_view key, std::string_view value);
};

// False with "line N: why" in `error` for text that is not of the form above.
bool parse(std::string_view text, Document& out, std::string& error);
// Sections in order, "key=value" lines; the unnamed section first and without a header.
std::string format(const Document& document);

enum class FileState { kRead, kMissing, kFailed };
// A small text file whole (up to 1 MiB: a wrong path to a device or a huge file is not read).
// kMissing when no file is there; kFailed, with "path: why" in `error`, for anything else amiss.
FileState readText(const std::string& path, std::string& text, std::string& error);
// readText, then parse; a parse error is prefixed with the path.
FileState readFile(const std::string& path, Document& out, std::string& error);
// Through a temporary file and a rename, so that a reader sees the old file or the new one.
bool writeFile(const std::string& path, const Document& document, std::string& error);

}  // namespace mv::ini
