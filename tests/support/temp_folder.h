// A fresh folder of a test's own, removed with everything in it at the end.
#pragma once

#include <string>
#include <string_view>

namespace mvtest {

class TempFolder {
 public:
  explicit TempFolder(std::string_view tag);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Writes a file in the folder (mode 0600) and gives its path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::string path_;
};

// A file's bytes (empty when it cannot be read), and a file written with `text`.
std::string content(const std::string& path);
void put(const std::string& path, const std::string& text);
// `size` bytes in which a shifted block shows: no two nearby runs are alike.
std::string pattern(std::size_t size);

}  // namespace mvtest
