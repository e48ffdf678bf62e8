// The library's file calls: a path in the ANSI code page becomes UTF-8 here, and goes to the file
// system it belongs to.
#include "platform/files.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "platform/codepage.h"
#include "platform/utf.h"

namespace mv::fs {
namespace {

bool isSeparator(char c) { return c == '\\' || c == '/'; }

std::string utf8Path(std::string_view path) { return utf16ToUtf8(ansiToWide(path)); }

// The file system of a path and the path in its terms; no file system (errno set) for a share
// that nothing is attached for, or a path with an embedded zero.
struct Resolved {
  std::shared_ptr<FileSystem> files;
  std::string path;
  explicit operator bool() const { return files != nullptr; }
  FileSystem* operator->() const { return files.get(); }
};

Resolved resolve(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) {
    errno = EINVAL;
    return {};
  }
  Resolved r{nullptr, utf8Path(path)};
  r.files = filesFor(r.path);
  return r;
}

// '*' any run of characters, '?' one character; nothing else is special, so names with brackets
// or backslashes in them match literally.
bool wildcardMatch(std::string_view pattern, std::string_view name) {
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t starPattern = std::string_view::npos;
  std::size_t starName = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == '*') {
      starPattern = p++;
      starName = n;
    } else if (starPattern != std::string_view::npos) {
      p = starPattern + 1;
      n = ++starName;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

constexpr std::size_t kCopyBlock = std::size_t{1} << 20;

// A copy between two file systems: the bytes pass through here a block at a time.
bool streamCopy(const Resolved& from, const Resolved& to, bool failIfExists) {
  const std::unique_ptr<FileReader> reader = from->openRead(from.path);
  if (reader == nullptr) return false;
  const std::unique_ptr<FileWriter> writer = to->openWrite(to.path, failIfExists);
  if (writer == nullptr) return false;
  std::string block(kCopyBlock, '\0');
  for (;;) {
    const std::ptrdiff_t got = reader->read(block.data(), block.size());
    if (got < 0 || !writer->write(block.data(), static_cast<std::size_t>(got))) return false;
    if (static_cast<std::size_t>(got) < block.size()) break;
  }
  return writer->commit(reader->info().lastWrite);
}

}  // namespace

std::string toNative(std::string_view path) {
  std::string result = utf8Path(path);
  std::replace(result.begin(), result.end(), '\\', '/');
  return result;
}

std::string join(std::string_view folder, std::string_view name) {
  std::string result(folder);
  const bool folderEnds = !result.empty() && isSeparator(result.back());
  if (folderEnds || result.empty()) {
    // Keep a folder's own trailing separator, but don't double it.
    while (folderEnds && !name.empty() && isSeparator(name.front())) name.remove_prefix(1);
  } else if (name.empty() || !isSeparator(name.front())) {
    result += '\\';
  }
  result += name;
  return result;
}

bool exists(std::string_view path) {
  const Resolved r = resolve(path);
  FileInfo info;
  return r && r->stat(r.path, info);
}

bool isDirectory(std::string_view path) {
  const Resolved r = resolve(path);
  FileInfo info;
  return r && r->stat(r.path, info) && info.isDirectory;
}

bool createDirectory(std::string_view path) {
  const Resolved r = resolve(path);
  return r && r->createDirectory(r.path);
}

bool removeDirectory(std::string_view path) {
  const Resolved r = resolve(path);
  return r && r->removeDirectory(r.path);
}

bool deleteFile(std::string_view path) {
  const Resolved r = resolve(path);
  return r && r->deleteFile(r.path);
}

bool copyFile(std::string_view from, std::string_view to, bool failIfExists) {
  const Resolved source = resolve(from);
  const Resolved target = resolve(to);
  if (!source || !target) return false;
  if (source.files == target.files) return source->copy(source.path, target.path, failIfExists);
  return streamCopy(source, target, failIfExists);
}

bool moveFile(std::string_view from, std::string_view to) {
  const Resolved source = resolve(from);
  const Resolved target = resolve(to);
  if (!source || !target) return false;
  if (source.files == target.files) return source->rename(source.path, target.path);
  return streamCopy(source, target, true) && source->deleteFile(source.path);
}

std::vector<FoundEntry> findFiles(std::string_view pattern) {
  std::vector<FoundEntry> found;
  std::size_t slash = pattern.size();
  while (slash > 0 && !isSeparator(pattern[slash - 1])) --slash;
  const std::string_view namePattern = pattern.substr(slash);
  if (namePattern.empty()) {
    errno = ENOENT;
    return found;
  }
  std::string_view folder = pattern.substr(0, slash);
  if (folder.size() > 1) folder.remove_suffix(1);  // the separator, but not a root's
  const Resolved r = resolve(folder.empty() ? std::string_view(".") : folder);
  std::vector<FileInfo> entries;
  if (!r || !r->list(r.path, entries)) return found;
  const bool everything = namePattern == "*.*";
  for (FileInfo& e : entries) {
    std::string name = wideToAnsi(utf8ToUtf16(e.name));
    if (!everything && !wildcardMatch(namePattern, name)) continue;
    found.push_back({std::move(name), e.isDirectory, e.isLink, e.size, e.lastWrite});
  }
  std::sort(found.begin(), found.end(),
            [](const FoundEntry& a, const FoundEntry& b) { return a.name < b.name; });
  return found;
}

bool makeWritable(std::string_view path) {
  const Resolved r = resolve(path);
  return r && r->makeWritable(r.path);
}

bool readFile(std::string_view path, std::string& content) {
  content.clear();
  const Resolved r = resolve(path);
  const std::unique_ptr<FileReader> reader = r ? r->openRead(r.path) : nullptr;
  if (reader == nullptr) return false;
  char block[64 * 1024];
  for (;;) {
    const std::ptrdiff_t got = reader->read(block, sizeof block);
    if (got < 0) return false;
    content.append(block, static_cast<std::size_t>(got));
    if (got < static_cast<std::ptrdiff_t>(sizeof block)) return true;
  }
}

std::unique_ptr<FileReader> openRead(std::string_view path) {
  const Resolved r = resolve(path);
  return r ? r->openRead(r.path) : nullptr;
}

std::unique_ptr<FileWriter> openWrite(std::string_view path, bool failIfExists) {
  const Resolved r = resolve(path);
  return r ? r->openWrite(r.path, failIfExists) : nullptr;
}

bool lastWriteTime(std::string_view path, std::time_t* t) {
  if (t == nullptr) {
    errno = EINVAL;
    return false;
  }
  const Resolved r = resolve(path);
  FileInfo info;
  if (!r || !r->stat(r.path, info)) return false;
  *t = info.lastWrite;
  return true;
}

bool setFileTimes(std::string_view path, std::time_t t) {
  const Resolved r = resolve(path);
  return r && r->setTimes(r.path, t);
}

bool freeSpace(std::string_view path, std::uint64_t* bytes) {
  if (bytes == nullptr) {
    errno = EINVAL;
    return false;
  }
  if (path.find('\0') != std::string_view::npos) {
    errno = EINVAL;
    return false;
  }
  struct statvfs st {};
  if (::statvfs(toNative(path).c_str(), &st) != 0) return false;
  *bytes = static_cast<std::uint64_t>(st.f_bfree) * static_cast<std::uint64_t>(st.f_frsize);
  return true;
}

std::string computerName() {
  char name[HOST_NAME_MAX + 2] = {};
  if (::gethostname(name, sizeof(name) - 1) != 0) return {};
  std::string result(name);
  if (result.size() > 259) result.resize(259);
  return result;
}

}  // namespace mv::fs
