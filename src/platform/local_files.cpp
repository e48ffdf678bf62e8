// The local file system: POSIX calls on UTF-8 paths, '\' turned into '/'.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/file_system.h"
#include "platform/files.h"
#include "platform/text.h"

namespace mv::fs {
namespace {

// The native form of a path, or nothing for one that can't be passed to the system (an embedded
// zero would silently name another file).
std::optional<std::string> native(std::string_view path) {
  if (path.find('\0') != std::string_view::npos || path.empty()) {
    errno = path.empty() ? ENOENT : EINVAL;
    return std::nullopt;
  }
  std::string result(path);
  std::replace(result.begin(), result.end(), '\\', '/');
  return result;
}

// Closes on every path out, keeping the errno of the failure that matters.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  void reset() {
    if (fd_ >= 0) {
      const int saved = errno;
      ::close(std::exchange(fd_, -1));
      errno = saved;
    }
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_;
};

FileInfo describe(const struct stat& st) {
  FileInfo info;
  info.isDirectory = S_ISDIR(st.st_mode);
  info.isLink = S_ISLNK(st.st_mode);
  info.readOnly = (st.st_mode & S_IWUSR) == 0;
  info.size = info.isDirectory ? 0 : static_cast<std::uint64_t>(st.st_size);
  info.lastWrite = st.st_mtime;
  return info;
}

// A FileWriter's temporary: "." name ".part-" pid "-" serial.
constexpr std::string_view kPartMark = ".part-";

// The mode a new file gets from open(..., 0666): what the umask leaves of it.
mode_t newFileMode() {
  static const mode_t mode = [] {
    const mode_t mask = ::umask(022);
    ::umask(mask);
    return static_cast<mode_t>(0666 & ~mask);
  }();
  return mode;
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
  char buffer[64 * 1024];
  for (;;) {
    const std::ptrdiff_t got = readFull(source.get(), buffer, sizeof buffer);
    if (got < 0 || !writeAll(target.get(), buffer, static_cast<std::size_t>(got))) return fail();
    if (got < static_cast<std::ptrdiff_t>(sizeof buffer)) break;
  }
  const struct timespec times[2] = {sourceStat.st_atim, sourceStat.st_mtim};
  if (::futimens(target.get(), times) != 0) return fail();
  if (!target.close()) return fail();
  return true;
}

class LocalReader final : public FileReader {
 public:
  LocalReader(int fd, FileInfo info) : fd_(fd), info_(std::move(info)) {}
  std::ptrdiff_t read(char* data, std::size_t size) override {
    return readFull(fd_.get(), data, size);
  }
  const FileInfo& info() const override { return info_; }

 private:
  Fd fd_;
  FileInfo info_;
};

class LocalWriter final : public FileWriter {
 public:
  LocalWriter(std::string target, std::string temporary, int fd, bool failIfExists, bool durable)
      : target_(std::move(target)),
        temporary_(std::move(temporary)),
        fd_(fd),
        failIfExists_(failIfExists),
        durable_(durable) {}
  ~LocalWriter() override {
    if (!temporary_.empty()) {
      fd_.reset();
      const int saved = errno;
      ::unlink(temporary_.c_str());
      errno = saved;
    }
  }
  bool write(const char* data, std::size_t size) override {
    return fd_.get() >= 0 && writeAll(fd_.get(), data, size);
  }
  bool commit(std::time_t lastWrite) override {
    if (fd_.get() < 0) {
      errno = EBADF;
      return false;
    }
    if (lastWrite >= 0) {
      const struct timespec times[2] = {{lastWrite, 0}, {lastWrite, 0}};
      if (::futimens(fd_.get(), times) != 0) return false;
    }
    if (durable_ && ::fsync(fd_.get()) != 0) return false;
    if (!fd_.close()) return false;
    const int renamed = failIfExists_ ? ::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD,
                                                    target_.c_str(), RENAME_NOREPLACE)
                                      : ::rename(temporary_.c_str(), target_.c_str());
    if (renamed != 0) return false;
    temporary_.clear();
    return true;
  }

 private:
  std::string target_;
  std::string temporary_;
  Fd fd_;
  bool failIfExists_;
  bool durable_;
};

class LocalFiles final : public FileSystem {
 public:
  explicit LocalFiles(bool durable) : durable_(durable) {}

  bool stat(std::string_view path, FileInfo& info) override {
    const auto p = native(path);
    struct stat st {};
    if (!p || ::stat(p->c_str(), &st) != 0) return false;
    info = describe(st);
    return true;
  }

  bool list(std::string_view folder, std::vector<FileInfo>& entries) override {
    entries.clear();
    const auto p = native(folder);
    if (!p) return false;
    DIR* dir = ::opendir(p->c_str());
    if (dir == nullptr) return false;
    const int dirFd = ::dirfd(dir);
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      struct stat link {};
      struct stat st {};
      FileInfo item;
      if (::fstatat(dirFd, entry->d_name, &link, AT_SYMLINK_NOFOLLOW) == 0) {
        // A link is described by what it leads to; a dangling one by itself.
        const bool isLink = S_ISLNK(link.st_mode);
        item = describe(isLink && ::fstatat(dirFd, entry->d_name, &st, 0) == 0 ? st : link);
        item.isLink = isLink;
      }
      item.name = std::string(name);
      entries.push_back(std::move(item));
    }
    const int saved = errno;
    ::closedir(dir);
    errno = saved;
    return saved == 0;
  }

  std::unique_ptr<FileReader> openRead(std::string_view path) override {
    const auto p = native(path);
    if (!p) return nullptr;
    Fd fd(::open(p->c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) return nullptr;
    if (S_ISDIR(st.st_mode)) {
      errno = EISDIR;
      return nullptr;
    }
    return std::make_unique<LocalReader>(fd.release(), describe(st));
  }

  std::unique_ptr<FileWriter> openWrite(std::string_view path, bool failIfExists) override {
    const auto p = native(path);
    if (!p) return nullptr;
    struct stat st {};
    if (::stat(p->c_str(), &st) == 0 && (failIfExists || S_ISDIR(st.st_mode))) {
      errno = S_ISDIR(st.st_mode) ? EISDIR : EEXIST;
      return nullptr;
    }
    // Beside the target, so that the rename stays on its file system; a leading '.' keeps it
    // out of the library's listings.
    const std::size_t slash = p->rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : p->substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? *p : p->substr(slash + 1);
    static std::atomic<unsigned> counter{0};
    std::string temporary = folder + "." + name.substr(0, 180) + std::string(kPartMark) +
                            std::to_string(::getpid()) + "-" + std::to_string(++counter);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    if (::fchmod(fd, newFileMode()) != 0) {
      const int saved = errno;
      ::close(fd);
      ::unlink(temporary.c_str());
      errno = saved;
      return nullptr;
    }
    return std::make_unique<LocalWriter>(*p, std::move(temporary), fd, failIfExists, durable_);
  }

  bool copy(std::string_view from, std::string_view to, bool failIfExists) override {
    const auto source = native(from);
    const auto target = native(to);
    return source && target && copyRegularFile(*source, *target, failIfExists);
  }

  bool setTimes(std::string_view path, std::time_t lastWrite) override {
    const auto p = native(path);
    const struct timespec times[2] = {{lastWrite, 0}, {lastWrite, 0}};
    return p && ::utimensat(AT_FDCWD, p->c_str(), times, 0) == 0;
  }

  bool makeWritable(std::string_view path) override {
    const auto p = native(path);
    struct stat st {};
    if (!p || ::stat(p->c_str(), &st) != 0) return false;
    return (st.st_mode & S_IWUSR) != 0 || ::chmod(p->c_str(), (st.st_mode & 07777) | S_IWUSR) == 0;
  }

  bool createDirectory(std::string_view path) override {
    const auto p = native(path);
    return p && ::mkdir(p->c_str(), 0777) == 0;
  }

  bool removeDirectory(std::string_view path) override {
    const auto p = native(path);
    return p && ::rmdir(p->c_str()) == 0;
  }

  bool deleteFile(std::string_view path) override {
    const auto p = native(path);
    return p && ::unlink(p->c_str()) == 0;
  }

  bool rename(std::string_view from, std::string_view to) override {
    const auto source = native(from);
    const auto target = native(to);
    if (!source || !target) return false;
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

 private:
  bool durable_;
};

const std::shared_ptr<FileSystem>& sharedLocalFiles() {
  static const std::shared_ptr<FileSystem> files = std::make_shared<LocalFiles>(false);
  return files;
}

struct Attached {
  Attachment id;
  std::string server;
  std::shared_ptr<FileSystem> files;
};

struct Registry {
  std::mutex mutex;
  std::vector<Attached> attached;
  Attachment next = 1;
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

std::ptrdiff_t readFull(int fd, void* data, std::size_t size) {
  auto* bytes = static_cast<char*>(data);
  std::size_t got = 0;
  while (got < size) {
    const ssize_t n = ::read(fd, bytes + got, size - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return static_cast<std::ptrdiff_t>(got);
}

bool writeAll(int fd, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, bytes, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

FileSystem& localFiles() { return *sharedLocalFiles(); }

bool isUncommittedWrite(std::string_view name) {
  const std::size_t mark = name.rfind(kPartMark);
  if (name.empty() || name.front() != '.' || mark == std::string_view::npos || mark == 0) {
    return false;
  }
  const std::string_view tail = name.substr(mark + kPartMark.size());
  const std::size_t dash = tail.find('-');
  const auto digits = [](std::string_view d) {
    return !d.empty() &&
           std::all_of(d.begin(), d.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  return dash != std::string_view::npos && digits(tail.substr(0, dash)) &&
         digits(tail.substr(dash + 1));
}

std::unique_ptr<FileSystem> makeLocalFiles(bool durable) {
  return std::make_unique<LocalFiles>(durable);
}

Attachment attach(std::string_view server, std::shared_ptr<FileSystem> files) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  const Attachment id = r.next++;
  r.attached.push_back({id, std::string(server), std::move(files)});
  return id;
}

void detach(Attachment attachment) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::erase_if(r.attached, [&](const Attached& a) { return a.id == attachment; });
}

std::string_view shareServer(std::string_view path) {
  if (path.size() < 3 || path[0] != '\\' || path[1] != '\\') return {};
  path.remove_prefix(2);
  return path.substr(0, path.find_first_of("\\/"));
}

std::shared_ptr<FileSystem> filesFor(std::string_view path) {
  if (path.size() < 2 || path[0] != '\\' || path[1] != '\\') return sharedLocalFiles();
  const std::string_view server = shareServer(path);
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  for (auto it = r.attached.rbegin(); it != r.attached.rend(); ++it) {
    if (!server.empty() && equalsIgnoringAsciiCase(it->server, server)) return it->files;
  }
  errno = ENOENT;
  return nullptr;
}

}  // namespace mv::fs
