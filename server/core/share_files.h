// A session's share folders as a client on another machine reaches them: by the network paths
// OpenNetShare answered ("\\<server>\shares\<db>\<table>\<key>", "\\<server>\staging"), only
// between that OpenNetShare and its CloseNetShare, and never outside the folder it opened.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_system.h"

namespace mv::server {

// The folders (local paths) one session has open; a folder opened twice stays open until it is
// closed twice. Shared by the session and its file service, which may outlive it.
class OpenShares {
 public:
  void open(const std::string& root);
  void close(const std::string& root);
  void clear();
  // The open folder that holds `path` (or is it), or empty.
  std::string rootOf(std::string_view path) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> roots_;
};

// The network path of a local one under `dataFolder`, as served under `server`.
std::string networkPath(std::string_view server, std::string_view dataFolder,
                        std::string_view local);

// The file system a session's client reaches over its link. Each path is checked before the
// disk is touched: it must name `server`, every component must be a plain name (not empty, not
// "." or "..", no NUL, valid UTF-8, at most 255 bytes), and it must lie in a folder the session
// has open, also once symbolic links are followed. A refused path fails with EACCES (outside
// what is open) or EINVAL (a name that is not allowed). Writes are synced before they take their
// name.
std::shared_ptr<fs::FileSystem> makeShareFiles(std::string server, std::string dataFolder,
                                               std::shared_ptr<const OpenShares> shares);

}  // namespace mv::server
