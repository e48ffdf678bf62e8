#include "contents/index_bif.h"

#include <algorithm>

#include "frame/exchange.h"
#include "platform/files.h"

namespace mv {

IndexBif parseIndexBif(std::string_view text) {
  IndexBif index;
  bool first = true;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (first) {
      index.count = indexNumber(line, 1);
      first = false;
    } else {
      index.lines.emplace_back(line);
    }
  }
  return index;
}

bool readIndexBif(std::string_view path, IndexBif& index) {
  index = IndexBif{};
  std::string text;
  if (!fs::readFile(path, text)) return false;
  index = parseIndexBif(text);
  return true;
}

std::optional<std::string_view> indexField(std::string_view line, std::size_t n) {
  for (std::size_t i = 0;; ++i) {
    const std::size_t comma = line.find(',');
    if (i == n) return line.substr(0, comma);
    if (comma == std::string_view::npos) return std::nullopt;
    line.remove_prefix(comma + 1);
  }
}

int32_t indexNumber(std::string_view line, std::size_t n) {
  const auto field = indexField(line, n);
  return field ? parseInt(*field) : 0;
}

std::vector<std::string> selectedFiles(const IndexBif& index) {
  std::vector<std::string> names;
  for (const std::string& line : index.lines) {
    if (line.empty()) continue;
    const int32_t attribute = indexNumber(line, 2);
    const auto name = indexField(line, 1);
    if ((attribute == 1 || attribute == 5) && name) names.emplace_back(*name);
  }
  return names;
}

bool isIndexFileName(std::string_view name) {
  const std::string_view wanted = kIndexFileName;
  return name.size() == wanted.size() &&
         std::equal(name.begin(), name.end(), wanted.begin(), [](char a, char b) {
           return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
         });
}

bool hasExtension(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot != std::string_view::npos && dot > 0 && dot + 1 < name.size();
}

int localFilesStale(std::string_view folder, std::string_view localFolder) {
  const std::string shared = fs::join(folder, kIndexFileName);
  const std::string local = fs::join(localFolder, kIndexFileName);
  if (!fs::exists(shared)) return 0;
  if (!fs::exists(local)) return 1;
  IndexBif server;
  IndexBif mine;
  (void)readIndexBif(shared, server);
  (void)readIndexBif(local, mine);
  if (server.count > mine.count) return 1;

  const auto entries = fs::findFiles(fs::join(localFolder, "*.*"));
  const auto files = std::count_if(entries.begin(), entries.end(), [](const fs::FoundEntry& e) {
    return !e.name.empty() && e.name.front() != '.' && hasExtension(e.name) &&
           !isIndexFileName(e.name);
  });
  if (server.count > files) return 1;

  const std::size_t lines = std::max(server.lines.size(), mine.lines.size());
  for (std::size_t i = 0; i < lines; ++i) {
    const std::string_view a = i < server.lines.size() ? server.lines[i] : std::string_view();
    const std::string_view b = i < mine.lines.size() ? mine.lines[i] : std::string_view();
    if (a.empty() && b.empty()) continue;
    if (indexNumber(a, 4) > indexNumber(b, 4)) return 1;
  }
  return 0;
}

}  // namespace mv
