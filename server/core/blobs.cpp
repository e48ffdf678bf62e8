// A session's blobs: uploads written straight into the engine as their blocks arrive, downloads
// read in pieces, and the dates kept with image files.
#include <algorithm>

#include "frame/exchange.h"
#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

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
  const std::string target = handleText + "/" + std::to_string(key) + "/" + column;
  // The rest of a failed series fails as it did, and leaves the failure's text alone: a client
  // that sends blocks ahead of their answers learns of the first failure, not of the last.
  if (blockNo != 1 && failedUpload_.target == target) return failedUpload_.status;
  failedUpload_ = FailedUpload{};
  const auto failSeries = [&](int32_t status, const std::string& text) {
    uploads_.erase(target);
    failedUpload_ = FailedUpload{target, status};
    return fail(status, text);
  };
  int32_t status = kOk;
  Handle* h = handle(handleText, &status);
  if (!h) return failSeries(status, lastError_);
  if (data == nullptr || bytes < 0) {
    return failSeries(kBadArgument, "ブロックの長さが正しくありません");
  }

  if (blockNo == 1) {
    // A new series: whatever else was pending is stored first, a repeat of this one restarts.
    uploads_.erase(target);
    if (const int32_t pending = settle(); pending != kOk) return pending;
    const auto columns = h->database->columns(h->table);
    const auto c = std::find_if(columns.begin(), columns.end(),
                                [&](const ResultColumn& rc) { return rc.name == column; });
    if (c == columns.end() || !isBlob(c->type)) {
      return failSeries(kMissingColumn,
                        "列「" + h->table + "." + column + "」はバイナリ列ではありません");
    }
    if (!h->database->rowExists(h->table, key)) {
      return failSeries(kNoRow, "レコード(T_Index=" + std::to_string(key) + ")がありません");
    }
    std::string error;
    auto writer = h->database->writeBlob(h->table, column, key, error);
    if (!writer) return failSeries(kFileFailed, "データを書き始められません: " + error);
    uploads_.emplace(target, Upload{handleText, 1, std::move(writer)});
  }
  const auto it = uploads_.find(target);
  if (it == uploads_.end() || it->second.nextBlock != blockNo) {
    return failSeries(kBlockOutOfOrder,
                      "ブロック " + std::to_string(blockNo) + " の順序が正しくありません");
  }
  Upload& u = it->second;
  std::string error;
  if (bytes > 0 && !u.writer->write(data, static_cast<std::size_t>(bytes), error)) {
    return failSeries(kFileFailed, "データを書けません: " + error);
  }
  ++u.nextBlock;
  if (isLast != 1) return kOk;
  Upload done = std::move(u);
  uploads_.erase(it);
  const int32_t result = finishUpload(done);
  if (result != kOk) failedUpload_ = FailedUpload{target, result};
  return result;
}

int32_t BookServer::finishUpload(Upload& u) {
  int32_t status = kOk;
  // The handle it came through must still be open: closing it drops what it was writing.
  if (handle(u.handle, &status) == nullptr) return status;
  std::string error;
  return u.writer->commit(error) ? kOk : fail(kStorageFailed, "データを保存できません: " + error);
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
  const int64_t total = download_.reader->size();
  const int64_t offset = int64_t{blockNo - 1} * blockSize;
  const auto count = static_cast<std::size_t>(std::clamp<int64_t>(total - offset, 0, blockSize));
  const bool ends = offset + static_cast<int64_t>(count) >= total;
  if (isEnd) *isEnd = ends ? 1 : 0;
  if (bytes) *bytes = static_cast<int32_t>(count);
  // Past the end, and for an empty column, the answer holds no array.
  if (count == 0) {
    download_ = Download{};
    return kOk;
  }
  // The bytes go from the disk straight into the answer's array.
  std::string error;
  std::ptrdiff_t got = -1;
  if (!fillVariantArray(block, MV_VT_UI1, static_cast<uint32_t>(count), [&](void* data) {
        got = download_.reader->read(offset, static_cast<uint8_t*>(data), count, error);
      })) {
    return fail(kStorageFailed, "メモリが足りません");
  }
  if (got != static_cast<std::ptrdiff_t>(count)) {
    MVVariantClear(block);
    download_ = Download{};
    return fail(kStorageFailed, "データを読めません: " + (error.empty() ? "short" : error));
  }
  if (ends) download_ = Download{};
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
