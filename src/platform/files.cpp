// Files and folders. Paths arrive with '\' separators; they are turned into native paths here and
// nowhere else.

#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <optional>
#include <utility>

namespace mv::fs {
namespace {

bool isSeparator(char c) { return c == '\\' || c == '/'; }

// The native form of a path, or nothing for one that can't be passed to the system (an embedded
// zero would silently name another file).
std::optional<std::string> native(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) {
    errno = EINVAL;
    return std::nullopt;
  }
  return toNative(path);
}

// Closes on every path out, keeping the errno of the failure that matters.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
  }
  int get() const { return fd_; }
  bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_;
};

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool copyContents(int from, int to) {
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t got = ::read(from, buffer, sizeof(buffer));
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (got == 0) return true;
    if (!writeAll(to, buffer, static_cast<std::size_t>(got))) return false;
  }
}

bool copyRegularFile(const std::string& from, const std::string& to, bool failIfExists) {
  Fd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (source.get() < 0) return false;
  struct stat sourceStat {};
  if (::fstat(source.get(), &sourceStat) != 0) return false;
  if (!S_ISREG(sourceStat.st_mode)) {
    errno = S_ISDIR(sourceStat.st_mode) ? EISDIR : EINVAL;
    return false;
  }
  const mode_t mode = sourceStat.st_mode & 07777;
  bool created = true;
  int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0 && errno == EEXIST && !failIfExists) {
    created = false;
    fd = ::open(to.c_str(), O_WRONLY | O_CLOEXEC);
  }
  Fd target(fd);
  if (target.get() < 0) return false;
  const auto fail = [&] {
    if (created) {
      const int saved = errno;
      ::unlink(to.c_str());
      errno = saved;
    }
    return false;
  };
  struct stat targetStat {};
  if (::fstat(target.get(), &targetStat) != 0) return fail();
  // Truncating the target only now, once it is known not to be the source itself.
  if (targetStat.st_dev == sourceStat.st_dev && targetStat.st_ino == sourceStat.st_ino) {
    errno = EINVAL;
    return false;
  }
  if (!created && ::ftruncate(target.get(), 0) != 0) return fail();
  if (!copyContents(source.get(), target.get())) return fail();
  const struct timespec times[2] = {sourceStat.st_atim, sourceStat.st_mtim};
  if (::futimens(target.get(), times) != 0) return fail();
  if (!target.close()) return fail();
  return true;
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

}  // namespace

std::string toNative(std::string_view path) {
  std::string result(path);
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
  const auto p = native(path);
  struct stat st {};
  return p && ::stat(p->c_str(), &st) == 0;
}

bool isDirectory(std::string_view path) {
  const auto p = native(path);
  struct stat st {};
  return p && ::stat(p->c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool createDirectory(std::string_view path) {
  const auto p = native(path);
  return p && ::mkdir(p->c_str(), 0777) == 0;
}

bool removeDirectory(std::string_view path) {
  const auto p = native(path);
  return p && ::rmdir(p->c_str()) == 0;
}

bool deleteFile(std::string_view path) {
  const auto p = native(path);
  return p && ::unlink(p->c_str()) == 0;
}

bool copyFile(std::string_view from, std::string_view to, bool failIfExists) {
  const auto source = native(from);
  const auto target = native(to);
  return source && target && copyRegularFile(*source, *target, failIfExists);
}

bool moveFile(std::string_view from, std::string_view to) {
  const auto source = native(from);
  const auto target = native(to);
  if (!source || !target) return false;
  // Like a move on the platform the paths come from, an existing target is an error rather
  // than something to replace.
  if (::renameat2(AT_FDCWD, source->c_str(), AT_FDCWD, target->c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno == EINVAL || errno == ENOSYS) {
    // The file system can't rename without replacing: check first, then rename.
    struct stat st {};
    if (::lstat(target->c_str(), &st) == 0) {
      errno = EEXIST;
      return false;
    }
    if (::rename(source->c_str(), target->c_str()) == 0) return true;
  }
  if (errno != EXDEV) return false;
  if (!copyRegularFile(*source, *target, true)) return false;
  if (::unlink(source->c_str()) != 0) {
    const int saved = errno;
    ::unlink(target->c_str());
    errno = saved;
    return false;
  }
  return true;
}

std::vector<FoundEntry> findFiles(std::string_view pattern) {
  std::vector<FoundEntry> found;
  const auto p = native(pattern);
  if (!p) return found;
  const std::size_t slash = p->rfind('/');
  std::string folder;
  std::string namePattern;
  if (slash == std::string::npos) {
    folder = ".";
    namePattern = *p;
  } else {
    folder = slash == 0 ? "/" : p->substr(0, slash);
    namePattern = p->substr(slash + 1);
  }
  if (namePattern.empty()) {
    errno = ENOENT;
    return found;
  }
  const bool everything = namePattern == "*.*";
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return found;
  const int dirFd = ::dirfd(dir);
  errno = 0;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!everything && !wildcardMatch(namePattern, name)) continue;
    FoundEntry item;
    item.name = std::string(name);
    struct stat st {};
    // A dangling link is still listed, with the link's own data.
    if (::fstatat(dirFd, entry->d_name, &st, 0) == 0 ||
        ::fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      item.isDirectory = S_ISDIR(st.st_mode);
      item.size = item.isDirectory ? 0 : static_cast<std::uint64_t>(st.st_size);
      item.lastWrite = st.st_mtime;
    }
    found.push_back(std::move(item));
  }
  ::closedir(dir);
  std::sort(found.begin(), found.end(),
            [](const FoundEntry& a, const FoundEntry& b) { return a.name < b.name; });
  return found;
}

bool lastWriteTime(std::string_view path, std::time_t* t) {
  const auto p = native(path);
  struct stat st {};
  if (t == nullptr) {
    errno = EINVAL;
    return false;
  }
  if (!p || ::stat(p->c_str(), &st) != 0) return false;
  *t = st.st_mtime;
  return true;
}

bool setFileTimes(std::string_view path, std::time_t t) {
  const auto p = native(path);
  if (!p) return false;
  const struct timespec times[2] = {{t, 0}, {t, 0}};
  return ::utimensat(AT_FDCWD, p->c_str(), times, 0) == 0;
}

bool freeSpace(std::string_view path, std::uint64_t* bytes) {
  const auto p = native(path);
  struct statvfs st {};
  if (bytes == nullptr) {
    errno = EINVAL;
    return false;
  }
  if (!p || ::statvfs(p->c_str(), &st) != 0) return false;
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
