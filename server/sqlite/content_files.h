// Blob content as plain files: one folder per database, one file per blob, named by a reference
// never used twice. A file is written and synced before any row names it, and from then on it
// never changes. So a reader that opened it keeps a consistent blob whatever happens to the row,
// and copies of a database share files through hard links.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "server/engine/storage.h"

namespace mv::server::content {

// A fresh reference for a blob of the row `key`: "<key>-<16 random hex digits>".
std::string newReference(int64_t key);
// A fresh name for a database's content folder.
std::string newFolderName();

// A blob being written in `folder`. Dropped before finish(), it removes what it wrote.
class PendingFile {
 public:
  // nullptr with `error` when the file cannot be made.
  static std::unique_ptr<PendingFile> create(const std::string& folder, int64_t key,
                                             std::string& error);
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  bool write(const uint8_t* data, std::size_t size, std::string& error);
  int64_t size() const { return size_; }
  const std::string& reference() const { return reference_; }
  // Syncs the file to the disk: it may be named by a row from now on.
  bool finish(std::string& error);
  // Removes the finished file again (its row could not take it).
  void discard();

 private:
  PendingFile(std::string folder, std::string reference, int fd);
  std::string folder_;
  std::string reference_;
  int fd_;
  int64_t size_ = 0;
  bool finished_ = false;
};

// Reads a finished file; nullptr with `error` when it cannot be opened.
std::unique_ptr<BlobReader> openReader(const std::string& path, std::string& error);
// A reader of nothing, for a column without content.
std::unique_ptr<BlobReader> emptyReader();

// Syncs a folder, so that the names made in it survive a power loss.
bool syncFolder(const std::string& folder);
// The names in a folder (none if it does not exist).
std::vector<std::string> listFolder(const std::string& folder);
// A second name for a finished file; a copy where the disk cannot link.
bool linkOrCopy(const std::string& from, const std::string& to, std::string& error);

}  // namespace mv::server::content
