#include "server/core/data_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace mv::server {

std::string resolveDataFolder(const std::string& explicitFolder) {
  if (!explicitFolder.empty()) return explicitFolder;
  if (const char* home = std::getenv("MVCORE_HOME"); home && *home) return home;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
    return std::string(xdg) + "/mvcore";
  }
  const char* user = std::getenv("HOME");
  return std::string(user && *user ? user : ".") + "/.local/share/mvcore";
}

std::unique_ptr<FolderLock> FolderLock::acquire(const std::string& folder, std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec) {
    error = "cannot make " + folder + ": " + ec.message();
    return nullptr;
  }
  const std::string path = folder + "/server.lock";
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    error = folder + " is served by another process";
    ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<FolderLock>(new FolderLock(fd));
}

FolderLock::~FolderLock() { ::close(fd_); }

}  // namespace mv::server
