#include "server/sqlite/content_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace mv::server::content {

namespace {

std::string randomHex() {
  uint64_t value = 0;
  if (::getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) {
    // Uniqueness is all a reference needs: the clock and the process will do.
    value = static_cast<uint64_t>(::time(nullptr)) * 1000003u ^ static_cast<uint64_t>(::getpid());
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

std::string systemError(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

class FileReader final : public BlobReader {
 public:
  FileReader(int fd, int64_t size) : fd_(fd), size_(size) {}
  ~FileReader() override {
    if (fd_ >= 0) ::close(fd_);
  }
  int64_t size() const override { return size_; }
  std::ptrdiff_t read(int64_t offset, uint8_t* data, std::size_t max, std::string& error) override {
    if (offset < 0) return 0;
    std::size_t done = 0;
    while (done < max && offset + static_cast<int64_t>(done) < size_ && fd_ >= 0) {
      const ssize_t n = ::pread(fd_, data + done, max - done,
                                static_cast<off_t>(offset) + static_cast<off_t>(done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        error = systemError("read");
        return -1;
      }
      if (n == 0) break;
      done += static_cast<std::size_t>(n);
    }
    return static_cast<std::ptrdiff_t>(done);
  }

 private:
  int fd_;
  int64_t size_;
};

}  // namespace

std::string newReference(int64_t key) { return std::to_string(key) + "-" + randomHex(); }

std::string newFolderName() { return randomHex(); }

PendingFile::PendingFile(std::string folder, std::string reference, int fd)
    : folder_(std::move(folder)), reference_(std::move(reference)), fd_(fd) {}

std::unique_ptr<PendingFile> PendingFile::create(const std::string& folder, int64_t key,
                                                 std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  for (int attempt = 0; attempt < 4; ++attempt) {
    std::string reference = newReference(key);
    std::string path = folder;
    path += '/';
    path += reference;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) return std::unique_ptr<PendingFile>(new PendingFile(folder, reference, fd));
    if (errno != EEXIST) break;
  }
  error = systemError("content file");
  return nullptr;
}

PendingFile::~PendingFile() {
  if (fd_ >= 0) ::close(fd_);
  if (!finished_) ::unlink((folder_ + "/" + reference_).c_str());
}

bool PendingFile::write(const uint8_t* data, std::size_t size, std::string& error) {
  std::size_t done = 0;
  while (done < size && fd_ >= 0) {
    const ssize_t n = ::write(fd_, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = systemError("content file");
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  size_ += static_cast<int64_t>(done);
  return done == size;
}

bool PendingFile::finish(std::string& error) {
  // Synced before any row names it. The file was made under its own name, not renamed into
  // place: a journaling file system (ext4, XFS) makes a new file's name durable with the fsync
  // of the file, which spares a rename and a sync of the folder per blob. Until a row names it,
  // the file is nobody's, and a start removes it should the server die first.
  if (fd_ < 0 || ::fsync(fd_) != 0) {
    error = systemError("content file");
    return false;
  }
  ::close(fd_);
  fd_ = -1;
  finished_ = true;
  return true;
}

void PendingFile::discard() {
  if (finished_) ::unlink((folder_ + "/" + reference_).c_str());
}

std::unique_ptr<BlobReader> openReader(const std::string& path, std::string& error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    error = systemError("content file");
    if (fd >= 0) ::close(fd);
    return nullptr;
  }
  // Read front to back: let the kernel read well ahead of the blocks asked for.
  (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return std::make_unique<FileReader>(fd, static_cast<int64_t>(st.st_size));
}

std::unique_ptr<BlobReader> emptyReader() { return std::make_unique<FileReader>(-1, 0); }

bool syncFolder(const std::string& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT;
  const bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

std::vector<std::string> listFolder(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  ::closedir(dir);
  return names;
}

bool linkOrCopy(const std::string& from, const std::string& to, std::string& error) {
  if (::link(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EXDEV && errno != EMLINK && errno != EPERM) {
    error = systemError("content link");
    return false;
  }
  std::error_code ec;
  std::filesystem::copy_file(from, to, ec);
  if (ec) error = "content copy: " + ec.message();
  return !ec;
}

}  // namespace mv::server::content
