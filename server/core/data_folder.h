// Where an embedded or daemon server keeps its data, and how a fresh folder is set up.
//
// Layout of a data folder:
//   server.lock              held (flock) by the one process that serves the folder
//   db/<name>.sqlite         one file per database: MarvekSystemCommonDB, MarvekCommonDB,
//                            MarvekUserCommonDB, each book, the templates and the server's own
//   shares/<db>/             a book's share folder (OpenNetShare with key -1)
//   shares/<db>/<table>/<key>/  the folder of one row
//   staging/                 the general staging folder; uploads and carried files in transit
//   backup/<stamp>/          base backups
#pragma once

#include <memory>
#include <string>

namespace mv::server {

// Defaults for a fresh folder's administrator (documented in the README).
inline constexpr char kDefaultAdminName[] = "admin";
inline constexpr char kDefaultAdminPassword[] = "admin";
// Name, description and version of the template a fresh folder gets.
inline constexpr char kDefaultTemplate[] = "標準";
inline constexpr char kDefaultTemplateInfo[] = "標準のブック";
inline constexpr int kDefaultTemplateVersion = 4;
// The discard shelf's name in a fresh folder.
inline constexpr char kDiscardShelfName[] = "ゴミ箱";

struct InitOptions {
  std::string adminName = kDefaultAdminName;
  std::string adminPassword = kDefaultAdminPassword;
};

// The folder an embedded server uses: `explicitFolder` if not empty, else $MVCORE_HOME, else
// $XDG_DATA_HOME/mvcore, else ~/.local/share/mvcore.
std::string resolveDataFolder(const std::string& explicitFolder);

// Holds the folder's lock for as long as it lives.
class FolderLock {
 public:
  // nullptr with `error` when another process serves the folder or it cannot be made.
  static std::unique_ptr<FolderLock> acquire(const std::string& folder, std::string& error);
  ~FolderLock();
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  explicit FolderLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace mv::server
