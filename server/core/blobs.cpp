// A session's blobs: uploads staged in a file until their last block, downloads read in pieces,
// and the dates kept with image files.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "frame/exchange.h"
#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

namespace {

// An anonymous file in the data folder: staged bytes never sit in memory, nor in a /tmp that
// may be memory itself.
std::FILE* stagingFile(const std::string& folder) {
  std::string path = folder + "/uploads/stage-XXXXXX";
  const int fd = ::mkstemp(path.data());
  if (fd < 0) return nullptr;
  ::unlink(path.c_str());
  std::FILE* f = ::fdopen(fd, "w+b");
  if (f == nullptr) ::close(fd);
  return f;
}

}  // namespace

int32_t BookServer::UpLoadData(VARIANT* record, int32_t blockNo, int32_t bytes, VARIANT* block,
                               int32_t isLast) {
  // An empty array may have no storage; it is still a block, unlike a missing one.
  static constexpr uint8_t kNoBytes = 0;
  const uint8_t* data = nullptr;
  if (blockBytes(block, bytes, &data) && data == nullptr) data = &kNoBytes;
  std::vector<std::string> parts;
  if (!arrayTexts(record, parts) || parts.size() < 4) {
    return fail(kBadArgument, "ブロックの宛先が正しくありません");
  }
  const std::string handleText(after(parts[1], "TABLENAME="));
  const std::string column(after(parts[3], "KEY="));
  const int32_t key = parseInt(after(parts[2], "MSTKEY="));
  int32_t status = kOk;
  Handle* h = handle(handleText, &status);
  if (!h) return status;
  const std::string target = handleText + "/" + std::to_string(key) + "/" + column;
  if (data == nullptr || bytes < 0) return fail(kBadArgument, "ブロックの長さが正しくありません");

  if (blockNo == 1) {
    // A new series: whatever else was pending is stored first, a repeat of this one restarts.
    if (auto it = uploads_.find(target); it != uploads_.end()) {
      std::fclose(it->second.file);
      uploads_.erase(it);
    }
    if (const int32_t pending = settle(); pending != kOk) return pending;
    const auto columns = h->database->columns(h->table);
    const auto c = std::find_if(columns.begin(), columns.end(),
                                [&](const ResultColumn& rc) { return rc.name == column; });
    if (c == columns.end() || !isBlob(c->type)) {
      return fail(kMissingColumn,
                  "列「" + h->table + "." + column + "」はバイナリ列ではありません");
    }
    if (!h->database->rowExists(h->table, key)) {
      return fail(kNoRow, "レコード(T_Index=" + std::to_string(key) + ")がありません");
    }
    Upload u{handleText, column, key, 1, stagingFile(core_->stagingFolder()), 0};
    if (u.file == nullptr) return fail(kFileFailed, "一時ファイルを作れません");
    uploads_.emplace(target, u);
  }
  const auto it = uploads_.find(target);
  if (it == uploads_.end() || it->second.nextBlock != blockNo) {
    if (it != uploads_.end()) {
      std::fclose(it->second.file);
      uploads_.erase(it);
    }
    return fail(kBlockOutOfOrder,
                "ブロック " + std::to_string(blockNo) + " の順序が正しくありません");
  }
  Upload& u = it->second;
  if (bytes > 0 && std::fwrite(data, 1, static_cast<std::size_t>(bytes), u.file) !=
                       static_cast<std::size_t>(bytes)) {
    std::fclose(u.file);
    uploads_.erase(it);
    return fail(kFileFailed, "一時ファイルに書けません");
  }
  u.size += bytes;
  ++u.nextBlock;
  if (isLast != 1) return kOk;
  const int32_t result = finishUpload(u);
  uploads_.erase(target);
  return result;
}

int32_t BookServer::finishUpload(Upload& u) {
  int32_t status = kOk;
  Handle* h = handle(u.handle, &status);
  std::FILE* file = u.file;
  u.file = nullptr;
  if (h == nullptr) {
    std::fclose(file);
    return status;
  }
  std::rewind(file);
  std::string error;
  const bool ok = h->database->writeBlob(
      h->table, u.column, u.key, u.size,
      [file](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
        const std::size_t n = std::fread(data, 1, size, file);
        return n == size || !std::ferror(file) ? static_cast<std::ptrdiff_t>(n) : -1;
      },
      error);
  std::fclose(file);
  return ok ? kOk : fail(kStorageFailed, "データを保存できません: " + error);
}

int32_t BookServer::finishUploads() {
  int32_t first = kOk;
  for (auto& [target, upload] : uploads_) {
    const int32_t s = finishUpload(upload);
    if (first == kOk) first = s;
  }
  uploads_.clear();
  return first;
}

int32_t BookServer::DownLoadData(BSTR /*dbName*/, BSTR handleText, BSTR columnName,
                                 int32_t rowIndex, int32_t blockNo, int32_t blockSize,
                                 VARIANT* block, int32_t* isEnd, int32_t* bytes) {
  if (const int32_t pending = finishUploads(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  const int key = keyColumn(h->snapshot);
  if (rowIndex < 0 || static_cast<std::size_t>(rowIndex) >= h->snapshot.rows.size() || key < 0) {
    return fail(kNoRow, "行 " + std::to_string(rowIndex) + " はありません");
  }
  if (blockNo < 1 || blockSize <= 0 || blockSize > 64 * 1024 * 1024) {
    return fail(kBadArgument, "ブロックの指定が正しくありません");
  }
  const int64_t tIndex =
      h->snapshot.rows[static_cast<std::size_t>(rowIndex)][static_cast<std::size_t>(key)].i;
  const std::string column = text(columnName);
  // Block 1 always starts a fresh read: the row may have changed since an earlier one.
  if (blockNo == 1 || !download_.reader || download_.handle != text(handleText) ||
      download_.key != tIndex || download_.column != column) {
    std::string error;
    download_ = Download{text(handleText), tIndex, column,
                         h->database->openBlob(h->table, column, tIndex, error)};
    if (!download_.reader) return fail(kStorageFailed, "データを読めません: " + error);
  }
  std::vector<uint8_t> data;
  std::string error;
  const int64_t offset = int64_t{blockNo - 1} * blockSize;
  if (!download_.reader->read(offset, static_cast<std::size_t>(blockSize), data, error)) {
    download_ = Download{};
    return fail(kStorageFailed, "データを読めません: " + error);
  }
  const int64_t total = download_.reader->size();
  if (isEnd) *isEnd = offset + static_cast<int64_t>(data.size()) >= total ? 1 : 0;
  if (bytes) *bytes = static_cast<int32_t>(data.size());
  if (offset + static_cast<int64_t>(data.size()) >= total) download_ = Download{};
  // Past the end, and for an empty column, the answer holds no array.
  if (data.empty()) return kOk;
  if (!putBytes(block, data.data(), data.size())) return fail(kStorageFailed, "メモリが足りません");
  return kOk;
}

int32_t BookServer::ImageFileDate(BSTR /*dbName*/, BSTR handleText, int32_t op, int32_t tIndex,
                                  double* date) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  if (date == nullptr || (op != 0 && op != 1)) return fail(kBadArgument, "引数が正しくありません");
  if (!h->database->rowExists(h->table, tIndex)) {
    return fail(kNoRow, "レコード(T_Index=" + std::to_string(tIndex) + ")がありません");
  }
  const std::string name = "file-date:" + h->table + ":" + std::to_string(tIndex);
  if (op == 0) {
    Value v;
    *date = h->database->getMeta(name, v) && v.kind == Value::Kind::Real ? v.r : 0.0;
    return kOk;
  }
  std::string error;
  if (!h->database->setMeta(name, Value::ofReal(*date), error)) {
    return fail(kStorageFailed, "日付を保存できません: " + error);
  }
  return kOk;
}

}  // namespace mv::server
