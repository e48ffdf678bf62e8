#include "platform/ini.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/text.h"

namespace mv::ini {

namespace {

constexpr std::size_t kMaxBytes = 1 << 20;

// A blank followed by a comment character: what an end-of-line comment looks like.
bool holdsComment(std::string_view s) {
  for (std::size_t i = 1; i < s.size(); ++i) {
    if ((s[i] == '#' || s[i] == ';') && (s[i - 1] == ' ' || s[i - 1] == '\t')) return true;
  }
  return false;
}

bool writable(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos &&
         trim(text) == text && !holdsComment(text);
}

}  // namespace

const std::string* Document::find(std::string_view section, std::string_view key) const {
  for (const Section& s : sections) {
    if (!equalsIgnoringAsciiCase(s.name, section)) continue;
    for (const Entry& e : s.entries) {
      if (equalsIgnoringAsciiCase(e.key, key)) return &e.value;
    }
  }
  return nullptr;
}

bool Document::set(std::string_view section, std::string_view key, std::string_view value) {
  if (key.empty() || !writable(key) || !writable(value) || !writable(section) ||
      key.find('=') != std::string_view::npos || key.front() == '[' || key.front() == '#' ||
      key.front() == ';' || section.find_first_of("[]") != std::string_view::npos) {
    return false;
  }
  Section* target = nullptr;
  for (Section& s : sections) {
    if (!equalsIgnoringAsciiCase(s.name, section)) continue;
    for (Entry& e : s.entries) {
      if (equalsIgnoringAsciiCase(e.key, key)) {
        e.value.assign(value);
        return true;
      }
    }
    if (target == nullptr) target = &s;
  }
  if (target == nullptr) target = &sections.emplace_back(Section{std::string(section), 0, {}});
  target->entries.push_back(Entry{std::string(key), std::string(value), 0});
  return true;
}

bool parse(std::string_view text, Document& out, std::string& error) {
  out = Document{};
  if (text.find('\0') != std::string_view::npos) {
    error = "holds a NUL byte: not a text file";
    return false;
  }
  std::size_t lineNo = 0;
  const auto fail = [&](const std::string& why) {
    error = "line " + std::to_string(lineNo) + ": " + why;
    return false;
  };
  while (!text.empty()) {
    ++lineNo;
    const std::size_t end = text.find('\n');
    const std::string_view line = trim(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;

    if (line.front() == '[') {
      const std::size_t close = line.find(']');
      if (close == std::string_view::npos) return fail("a section header must end with ']'");
      const std::string_view rest = line.substr(close + 1);
      if (!rest.empty()) {
        return fail(holdsComment(line) ? "a comment must take a whole line"
                                       : "a section header must end with ']'");
      }
      const std::string_view name = trim(line.substr(1, close - 1));
      if (name.empty()) return fail("a section needs a name");
      if (name.find('[') != std::string_view::npos) return fail("a section name holds '['");
      out.sections.push_back(Section{std::string(name), lineNo, {}});
      continue;
    }

    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) return fail("expected '[section]' or 'name = value'");
    const std::string_view key = trim(line.substr(0, eq));
    const std::string_view value = trim(line.substr(eq + 1));
    if (key.empty()) return fail("a name is missing before '='");
    if (holdsComment(value)) return fail("a comment must take a whole line");
    out.sections.back().entries.push_back(Entry{std::string(key), std::string(value), lineNo});
  }
  return true;
}

std::string format(const Document& document) {
  std::string text;
  for (const Section& s : document.sections) {
    if (!s.name.empty()) text += (text.empty() ? "[" : "\n[") + s.name + "]\n";
    for (const Entry& e : s.entries) text += e.key + "=" + e.value + "\n";
  }
  return text;
}

FileState readText(const std::string& path, std::string& text, std::string& error) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return FileState::kMissing;
    error = path + ": " + std::strerror(errno);
    return FileState::kFailed;
  }
  if (!S_ISREG(st.st_mode)) {
    error = path + ": not a readable file";
    return FileState::kFailed;
  }
  if (static_cast<std::size_t>(st.st_size) > kMaxBytes) {
    error = path + ": larger than 1 MiB";
    return FileState::kFailed;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path + ": cannot be opened";
    return FileState::kFailed;
  }
  text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad() || text.size() > kMaxBytes) {
    error = path + ": cannot be read";
    return FileState::kFailed;
  }
  return FileState::kRead;
}

FileState readFile(const std::string& path, Document& out, std::string& error) {
  out = Document{};
  std::string text;
  const FileState state = readText(path, text, error);
  if (state != FileState::kRead) return state;
  if (!parse(text, out, error)) {
    error = path + ": " + error;
    return FileState::kFailed;
  }
  return FileState::kRead;
}

bool writeFile(const std::string& path, const Document& document, std::string& error) {
  const std::string temporary = path + ".new";
  const std::string text = format(document);
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
      error = temporary + ": cannot be written";
      std::remove(temporary.c_str());
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = path + ": " + std::strerror(errno);
    std::remove(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace mv::ini
