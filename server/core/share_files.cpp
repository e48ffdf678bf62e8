#include "server/core/share_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/text.h"
#include "platform/utf.h"

namespace mv::server {

void OpenShares::open(const std::string& root) {
  std::lock_guard lock(mutex_);
  roots_.push_back(root);
}

void OpenShares::close(const std::string& root) {
  std::lock_guard lock(mutex_);
  const auto it = std::find(roots_.begin(), roots_.end(), root);
  if (it != roots_.end()) roots_.erase(it);
}

void OpenShares::clear() {
  std::lock_guard lock(mutex_);
  roots_.clear();
}

std::string OpenShares::rootOf(std::string_view path) const {
  std::lock_guard lock(mutex_);
  for (const std::string& root : roots_) {
    if (path == root || (path.starts_with(root) && path[root.size()] == '/')) return root;
  }
  return {};
}

std::string networkPath(std::string_view server, std::string_view dataFolder,
                        std::string_view local) {
  if (!local.starts_with(dataFolder)) return {};
  std::string path = "\\\\" + std::string(server) + std::string(local.substr(dataFolder.size()));
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

namespace {

bool fail(int error) {
  errno = error;
  return false;
}

// The real path of `path`, or of its deepest part that exists with the rest appended.
std::string realPrefix(const std::string& path) {
  std::string head = path;
  std::string tail;
  for (;;) {
    char resolved[PATH_MAX];
    if (::realpath(head.c_str(), resolved) != nullptr) return resolved + tail;
    const std::size_t slash = head.rfind('/');
    if (slash == std::string::npos || slash == 0) return path;
    tail.insert(0, head, slash);
    head.resize(slash);
  }
}

class ShareFiles final : public fs::FileSystem {
 public:
  ShareFiles(std::string server, std::string dataFolder, std::shared_ptr<const OpenShares> shares)
      : server_(std::move(server)),
        folder_(std::move(dataFolder)),
        shares_(std::move(shares)),
        disk_(fs::makeLocalFiles(true)) {}

  bool stat(std::string_view path, fs::FileInfo& info) override {
    return at(path, true, [&](const std::string& p) { return disk_->stat(p, info); });
  }
  bool list(std::string_view folder, std::vector<fs::FileInfo>& entries) override {
    return at(folder, true, [&](const std::string& p) { return disk_->list(p, entries); });
  }
  std::unique_ptr<fs::FileReader> openRead(std::string_view path) override {
    std::unique_ptr<fs::FileReader> reader;
    at(path, true, [&](const std::string& p) { return (reader = disk_->openRead(p)) != nullptr; });
    return reader;
  }
  std::unique_ptr<fs::FileWriter> openWrite(std::string_view path, bool failIfExists) override {
    std::unique_ptr<fs::FileWriter> writer;
    at(path, true, [&](const std::string& p) {
      return (writer = disk_->openWrite(p, failIfExists)) != nullptr;
    });
    return writer;
  }
  bool copy(std::string_view from, std::string_view to, bool failIfExists) override {
    std::string source;
    std::string target;
    return resolve(from, true, source) && resolve(to, true, target) &&
           disk_->copy(source, target, failIfExists);
  }
  bool setTimes(std::string_view path, std::time_t lastWrite) override {
    return at(path, true, [&](const std::string& p) { return disk_->setTimes(p, lastWrite); });
  }
  bool makeWritable(std::string_view path) override {
    return at(path, true, [&](const std::string& p) { return disk_->makeWritable(p); });
  }
  // What these change is the entry itself, so a link at the end is not followed.
  bool createDirectory(std::string_view path) override {
    return at(path, false, [&](const std::string& p) { return disk_->createDirectory(p); });
  }
  bool removeDirectory(std::string_view path) override {
    return at(path, false, [&](const std::string& p) { return disk_->removeDirectory(p); });
  }
  bool deleteFile(std::string_view path) override {
    return at(path, false, [&](const std::string& p) { return disk_->deleteFile(p); });
  }
  bool rename(std::string_view from, std::string_view to) override {
    std::string source;
    std::string target;
    return resolve(from, false, source) && resolve(to, false, target) &&
           disk_->rename(source, target);
  }

 private:
  // The local path of a network one, or false with errno. `followLast`: the path's last
  // component is used as what it leads to (a link removed or renamed is only checked up to its
  // folder, as the link itself is what changes).
  bool resolve(std::string_view path, bool followLast, std::string& local) const {
    if (path.size() < 2 || path[0] != '\\' || path[1] != '\\') return fail(EACCES);
    path.remove_prefix(2);
    std::vector<std::string_view> parts;
    while (!path.empty()) {
      const std::size_t end = path.find_first_of("\\/");
      parts.push_back(path.substr(0, end));
      path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
    }
    if (parts.size() < 2 || !equalsIgnoringAsciiCase(parts[0], server_)) return fail(EACCES);
    if (parts[1] != "shares" && parts[1] != "staging") return fail(EACCES);
    local = folder_;
    for (std::size_t i = 1; i < parts.size(); ++i) {
      const std::string_view part = parts[i];
      if (part.empty() || part == "." || part == ".." || part.size() > NAME_MAX ||
          part.find('\0') != std::string_view::npos || !isValidUtf8(part)) {
        return fail(EINVAL);
      }
      local += '/';
      local += part;
    }
    const std::string root = shares_->rootOf(local);
    if (root.empty()) return fail(EACCES);
    // Links inside the folder may not lead out of it.
    const std::string realRoot = realPrefix(root);
    std::string checked = local;
    if (!followLast && local != root) checked.resize(local.rfind('/'));
    const std::string real = realPrefix(checked);
    if (real != realRoot && !(real.starts_with(realRoot) && real[realRoot.size()] == '/')) {
      return fail(EACCES);
    }
    return true;
  }

  // `work` on the local path of a network one; false with errno when the path is refused.
  template <typename Work>
  bool at(std::string_view path, bool followLast, Work&& work) const {
    std::string local;
    return resolve(path, followLast, local) && work(local);
  }

  std::string server_;
  std::string folder_;
  std::shared_ptr<const OpenShares> shares_;
  std::unique_ptr<fs::FileSystem> disk_;
};

}  // namespace

std::shared_ptr<fs::FileSystem> makeShareFiles(std::string server, std::string dataFolder,
                                               std::shared_ptr<const OpenShares> shares) {
  return std::make_shared<ShareFiles>(std::move(server), std::move(dataFolder), std::move(shares));
}

}  // namespace mv::server
