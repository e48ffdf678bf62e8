// Files and folders on the library's paths: text in the ANSI code page that uses '\' as separator
// (as the library and its servers build them). Both '\' and '/' are taken as separators; a
// leading drive such as "C:" is kept as an ordinary first component. Each call goes to the file
// system the path belongs to (file_system.h): a local one, or the share of a server. All
// functions return false or an empty result on failure and leave errno set.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_system.h"

namespace mv::fs {

// The path as the system takes it: UTF-8, with '\' turned into '/'.
std::string toNative(std::string_view path);
// Joins with one '\' between the parts.
std::string join(std::string_view folder, std::string_view name);

bool exists(std::string_view path);
bool isDirectory(std::string_view path);
// Creates one folder; false if it exists already or its parent is missing.
bool createDirectory(std::string_view path);
// Removes an empty folder.
bool removeDirectory(std::string_view path);
bool deleteFile(std::string_view path);
// Copies a file's bytes and last-write time; with failIfExists an existing target is an error.
bool copyFile(std::string_view from, std::string_view to, bool failIfExists);
// Renames; falls back to copy and delete across file systems.
bool moveFile(std::string_view from, std::string_view to);

struct FoundEntry {
  std::string name;  // no folder part
  bool isDirectory = false;
  bool isLink = false;
  std::uint64_t size = 0;
  std::time_t lastWrite = 0;
};
// The entries of a folder whose names match a pattern with '*' and '?' (the pattern's last
// component; "*.*" matches every name). "." and ".." are never listed. Sorted by name.
std::vector<FoundEntry> findFiles(std::string_view pattern);

// Clears a file's read-only state.
bool makeWritable(std::string_view path);
// The whole of a file, for small ones.
bool readFile(std::string_view path, std::string& content);
std::unique_ptr<FileReader> openRead(std::string_view path);
std::unique_ptr<FileWriter> openWrite(std::string_view path, bool failIfExists);

// Last-write time as POSIX seconds (UTC).
bool lastWriteTime(std::string_view path, std::time_t* t);
// Sets last-access and last-write time.
bool setFileTimes(std::string_view path, std::time_t t);

// Free bytes on the local file system that holds `path` (all free blocks, not only the caller's);
// a server answers for its own disks through its queries.
bool freeSpace(std::string_view path, std::uint64_t* bytes);

// On a descriptor the caller opened itself: all `size` bytes, or fewer only at the end of the
// file (-1 on a failure); and all `size` bytes written, or false. Both retry interrupted calls
// and leave errno set on a failure.
std::ptrdiff_t readFull(int fd, void* data, std::size_t size);
bool writeAll(int fd, const void* data, std::size_t size);

// The machine's name, as a network peer would see it; at most 259 bytes.
std::string computerName();

}  // namespace mv::fs
