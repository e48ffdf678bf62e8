// The seam under every file operation of the library. A FileSystem works on paths in UTF-8 whose
// separators may be '\' or '/'; the library's own paths (in the ANSI code page) reach it through
// the functions of files.h, which pick the file system a path belongs to:
//
//   - a path that starts with "\\" names a share of a server, "\\<server>\<share>\...", and goes
//     to the file system attached for "\\<server>" (a daemon's file service, reached over the
//     link of the session that opened the share);
//   - every other path is a local one.
//
// Failures return false or null and leave errno set, whichever file system answered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace mv::fs {

struct FileInfo {
  std::string name;  // the last component only; empty from stat()
  bool isDirectory = false;
  bool isLink = false;  // a symbolic link; isDirectory and size then describe what it leads to
  bool readOnly = false;
  std::uint64_t size = 0;
  std::time_t lastWrite = 0;  // POSIX seconds, UTC
};

class FileReader {
 public:
  virtual ~FileReader() = default;
  // Up to `size` bytes; fewer only at the end of the file. -1 on a failure.
  virtual std::ptrdiff_t read(char* data, std::size_t size) = 0;
  virtual const FileInfo& info() const = 0;
};

// The bytes go to a temporary name beside the target and reach the target's name only through
// commit(), so that a writer dropped half way (or a connection lost) leaves no partial file
// under the real name.
class FileWriter {
 public:
  virtual ~FileWriter() = default;
  virtual bool write(const char* data, std::size_t size) = 0;
  // Gives the file its last-write time (unless `lastWrite` is negative) and its name. False when
  // the name exists by now and the writer was opened with failIfExists.
  virtual bool commit(std::time_t lastWrite) = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;
  virtual bool stat(std::string_view path, FileInfo& info) = 0;
  // The entries of a folder but "." and "..", in no particular order.
  virtual bool list(std::string_view folder, std::vector<FileInfo>& entries) = 0;
  virtual std::unique_ptr<FileReader> openRead(std::string_view path) = 0;
  virtual std::unique_ptr<FileWriter> openWrite(std::string_view path, bool failIfExists) = 0;
  // Copies bytes and last-write time within this file system, without the bytes leaving it.
  virtual bool copy(std::string_view from, std::string_view to, bool failIfExists) = 0;
  virtual bool setTimes(std::string_view path, std::time_t lastWrite) = 0;
  // Clears the read-only state.
  virtual bool makeWritable(std::string_view path) = 0;
  virtual bool createDirectory(std::string_view path) = 0;
  virtual bool removeDirectory(std::string_view path) = 0;
  virtual bool deleteFile(std::string_view path) = 0;  // a link is removed as itself
  // Never replaces an existing target.
  virtual bool rename(std::string_view from, std::string_view to) = 0;
};

// Whether a name is that of a write not committed (a FileWriter's temporary): what a process
// that died in the middle of a write leaves behind, for the owner of a folder to sweep.
bool isUncommittedWrite(std::string_view name);

// The machine's own disks. A durable one syncs a written file before it takes its name.
FileSystem& localFiles();
std::unique_ptr<FileSystem> makeLocalFiles(bool durable);

// Sends the paths under "\\<server>" to `files` from now on, until detach(). A later attach of
// the same server stands in front of an earlier one until it is detached.
using Attachment = std::uint64_t;
Attachment attach(std::string_view server, std::shared_ptr<FileSystem> files);
void detach(Attachment attachment);

// The file system of a UTF-8 path: a share's that is attached, else local. Null (ENOENT) for a
// share of a server that nothing is attached for.
std::shared_ptr<FileSystem> filesFor(std::string_view path);

// "server" of "\\server\share\...", or empty when the path names no share.
std::string_view shareServer(std::string_view path);

}  // namespace mv::fs
