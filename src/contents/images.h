// What the operations on a book's image rows share: the local file a blob comes from or goes to,
// and the insert of a row with its bytes, which tag images and electronic-delivery rows share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "MVCore.h"
#include "frame/IBookServer.h"
#include "frame/exchange.h"
#include "platform/wide.h"

namespace mv {

// Longest texts that fit the 260-byte element of a record ("KEY=ImageDataInfo\t2\t..." and
// "KEY=Various\t2\t..."): longer values are cut at a character boundary before they are sent.
inline constexpr std::size_t kImageDataInfoMax = 239;
inline constexpr std::size_t kVariousMax = 245;

// Codes of a failed write of a download, stored in lastError: the disk is full, or another
// write failure.
inline constexpr int32_t kStatusDiskFull = 0x70;
inline constexpr int32_t kStatusWriteFault = 0x1D;

// A local file opened as the blob transfers open it, created if missing: for reading, or for
// writing a new content (an existing file is emptied first, so a shorter download never keeps
// the tail of an older, longer file). Closed on destruction.
class LocalFile {
 public:
  enum class Mode { Read, Replace };
  LocalFile(std::string_view path, Mode mode);
  LocalFile(const LocalFile&) = delete;
  LocalFile& operator=(const LocalFile&) = delete;
  ~LocalFile();

  bool ok() const { return fd_ >= 0; }
  // Up to `size` bytes, fewer only at the end of the file; -1 on a failed read.
  std::ptrdiff_t read(uint8_t* data, std::size_t size);
  // All `size` bytes, or false with the failure's status (kStatusDiskFull, kStatusWriteFault).
  bool write(const uint8_t* data, std::size_t size, int32_t& status);
  // The file's last-write time as an OLE date in local time; 0.0 if it cannot be read.
  double lastWriteOleDate() const;
  // False when the system reports a failure of the last writes at the close.
  bool close();

 private:
  int fd_ = -1;
};

// Sets creation, last-write and last-access time of `path` to the local time `date` (an OLE
// date). 1, or 0 if the file cannot be reached or the date is no valid time.
int SetFileDate(std::string_view path, double date);

// The four fields of an ImageInfoRecord in an ImageInfoRecordEX whose Various is empty, and back:
// the wrappers of the EX operations.
ImageInfoRecordEX widenImageInfo(const ImageInfoRecord& info);
void narrowImageInfo(const ImageInfoRecordEX& ex, ImageInfoRecord& info);

// How a new image row is added: the tag image form (TagID, the held table handle if any, the
// file date stamped afterwards) or the electronic-delivery form (TagID 0, a GroupNo, an own
// handle from a fixed query, no file date).
struct ImageRowForm {
  int32_t tagID = 0;
  std::optional<int32_t> groupNo;
};

// Adds the row, stores its key in info->T_Index (0 when the add fails), and sends the bytes of
// `localPath` in the insert form of the block loop. 0, or -1.
int insertImageRow(const char* dbName, const ImageRowForm& form, ImageInfoRecordEX* info,
                   const char* localPath);

// The rows of `sql` on ImageDataTBL as records of ImageInfoRecord (withVarious false) or
// ImageInfoRecordEX, in a movable zero-filled block of global memory handed over unlocked. No row:
// `count` 0 and `block` untouched. 0, or -1.
int listImageRows(const char* dbName, const std::string& sql, bool withVarious, MVHGLOBAL* block,
                  int32_t* count);

}  // namespace mv
