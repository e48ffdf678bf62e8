#include "transfer/folder_tools.h"

#include <string>

#include "platform/files.h"

namespace mv {
namespace {

bool isSeparator(char c) { return c == '\\' || c == '/'; }

}  // namespace

// The platform copies a file with its read-only state; the copies here are made writable.
bool copyFileWritable(std::string_view from, std::string_view to, bool overwrite) {
  return fs::copyFile(from, to, !overwrite) && fs::makeWritable(to);
}

int CreateFolderPath(std::string_view path) {
  if (path.empty()) return 0;
  if (fs::exists(path)) return fs::isDirectory(path) ? 1 : 0;
  for (std::size_t i = 3; i < path.size(); ++i) {
    if (isSeparator(path[i])) (void)fs::createDirectory(path.substr(0, i));
  }
  (void)fs::createDirectory(path);
  return fs::isDirectory(path) ? 1 : 0;
}

int CopyFolderTree(std::string_view source, std::string_view destination, int overwrite) {
  (void)CreateFolderPath(destination);
  for (const fs::FoundEntry& entry : fs::findFiles(fs::join(source, "*"))) {
    if (entry.name.empty() || entry.name.front() == '.') continue;
    const std::string from = fs::join(source, entry.name);
    const std::string to = fs::join(destination, entry.name);
    if (entry.isDirectory) {
      if (CopyFolderTree(from, to, overwrite) == 0) return 0;
    } else if (!copyFileWritable(from, to, overwrite != 0)) {
      return 0;
    }
  }
  return 1;
}

int DeleteFolderTree(std::string_view folder) {
  for (const fs::FoundEntry& entry : fs::findFiles(fs::join(folder, "*"))) {
    if (entry.name.empty() || entry.name.front() == '.') continue;
    const std::string path = fs::join(folder, entry.name);
    // A link is removed as itself: emptying a folder never follows one into another tree.
    if (entry.isDirectory && !entry.isLink) {
      if (DeleteFolderTree(path) == 0 || !fs::removeDirectory(path)) return 0;
    } else if (!fs::deleteFile(path)) {
      return 0;
    }
  }
  return 1;
}

}  // namespace mv
