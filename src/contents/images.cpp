// A tag's images: rows of ImageDataTBL whose bytes travel in blocks between a local file and the
// row's RealityData column.
#include "contents/images.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>
#include <span>
#include <utility>

#include "frame/blocks.h"
#include "frame/connection.h"
#include "frame/db_work.h"
#include "frame/sql_text.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/files.h"

namespace mv {

namespace {

constexpr char kImageTable[] = "ImageDataTBL";
constexpr char kBlobColumn[] = "RealityData";

// A table name goes into the statement as it is: only a plain name is taken.
bool isPlainName(const char* name) {
  if (name == nullptr || *name == '\0') return false;
  for (const char* p = name; *p != '\0'; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (!(std::isalnum(c) != 0 || c == '_')) return false;
  }
  return true;
}

std::string_view imageDataInfoOf(const ImageInfoRecordEX& info) {
  return cutToBytes(fieldText(info.ImageDataInfo), kImageDataInfoMax);
}

const FieldBinding kImageBindings[] = {
    MV_INT_FIELD(ImageInfoRecord, T_Index, "T_Index"),
    MV_INT_FIELD(ImageInfoRecord, Up_DateCounter, "Up_DateCounter"),
    MV_INT_FIELD(ImageInfoRecord, Attribute, "Attribute"),
    MV_TEXT_FIELD(ImageInfoRecord, ImageDataInfo, "ImageDataInfo"),
};
const FieldBinding kImageBindingsEX[] = {
    MV_INT_FIELD(ImageInfoRecordEX, T_Index, "T_Index"),
    MV_INT_FIELD(ImageInfoRecordEX, Up_DateCounter, "Up_DateCounter"),
    MV_INT_FIELD(ImageInfoRecordEX, Attribute, "Attribute"),
    MV_TEXT_FIELD(ImageInfoRecordEX, ImageDataInfo, "ImageDataInfo"),
    MV_TEXT_FIELD(ImageInfoRecordEX, Various, "Various"),
};

// The frame's entry: lastError cleared, the server, or null without a link.
IBookServer* enter() {
  ConnectionState& c = connection();
  c.lastError = 0;
  return c.currentServer;
}

// Opens the database and one row of `table` selected by `sql`. Missing when the result is empty
// (lastError untouched), Failed with the server's status in lastError.
enum class Opened { Row, Missing, Failed };
Opened openRow(DbWork& work, const char* table, const std::string& sql, int32_t flag) {
  if (!work.openDb() || failed(work.openTableEx(table, sql, flag))) {
    work.abandon();
    return Opened::Failed;
  }
  if (work.rowCount() <= 0) {
    work.abandon();
    return Opened::Missing;
  }
  return Opened::Row;
}

int updateImageCounterOrVarious(const char* dbName, int32_t tIndex, const std::string& sql,
                                const std::function<void(RecordWriter&)>& fill) {
  IBookServer* server = enter();
  if (server == nullptr || dbName == nullptr) return -1;
  // These two open and close the database even while the application holds it.
  DbWork work(dbName, DbWork::Holder::Book, DbWork::Open::Always);
  if (openRow(work, kImageTable, sql, 0) != Opened::Row) return -1;
  RecordWriter record(work.handleText(), 1);
  fill(record);
  if (!work.updateRecord(record, tIndex)) {
    work.abandon();
    return -1;
  }
  return work.finish() ? 0 : -1;
}

}  // namespace

// --- LocalFile -----------------------------------------------------------------------------------

LocalFile::LocalFile(std::string_view path, Mode mode) {
  if (path.find('\0') != std::string_view::npos) return;
  const int flags = mode == Mode::Read ? O_RDONLY | O_CREAT : O_RDWR | O_CREAT | O_TRUNC;
  fd_ = ::open(fs::toNative(path).c_str(), flags | O_CLOEXEC, 0666);
}

LocalFile::~LocalFile() { (void)close(); }

std::ptrdiff_t LocalFile::read(uint8_t* data, std::size_t size) {
  return fs::readFull(fd_, data, size);
}

bool LocalFile::write(const uint8_t* data, std::size_t size, int32_t& status) {
  if (fs::writeAll(fd_, data, size)) return true;
  status = errno == ENOSPC || errno == EDQUOT ? kStatusDiskFull : kStatusWriteFault;
  return false;
}

double LocalFile::lastWriteOleDate() const {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) return 0.0;
  double date = 0.0;
  return systemTimeToOleDate(toLocalSystemTime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec), &date) ? date
                                                                                              : 0.0;
}

bool LocalFile::close() {
  if (fd_ < 0) return true;
  return ::close(std::exchange(fd_, -1)) == 0;
}

int SetFileDate(std::string_view path, double date) {
  SYSTEMTIME st{};
  std::time_t t = 0;
  if (!oleDateToSystemTime(date, &st) || !localSystemTimeToTime(st, &t)) return 0;
  return fs::setFileTimes(path, t) ? 1 : 0;
}

// --- shared operations ---------------------------------------------------------------------------

ImageInfoRecordEX widenImageInfo(const ImageInfoRecord& info) {
  ImageInfoRecordEX ex{};
  ex.T_Index = info.T_Index;
  ex.Up_DateCounter = info.Up_DateCounter;
  ex.Attribute = info.Attribute;
  std::memcpy(ex.ImageDataInfo, info.ImageDataInfo, sizeof ex.ImageDataInfo);
  return ex;
}

void narrowImageInfo(const ImageInfoRecordEX& ex, ImageInfoRecord& info) {
  info.T_Index = ex.T_Index;
  info.Up_DateCounter = ex.Up_DateCounter;
  info.Attribute = ex.Attribute;
  std::memcpy(info.ImageDataInfo, ex.ImageDataInfo, sizeof info.ImageDataInfo);
}

int insertImageRow(const char* dbName, const ImageRowForm& form, ImageInfoRecordEX* info,
                   const char* localPath) {
  IBookServer* server = enter();
  if (server == nullptr || dbName == nullptr || info == nullptr || localPath == nullptr) return -1;
  ConnectionState& c = connection();
  const bool electronic = form.groupNo.has_value();
  DbWork work(dbName);
  if (!work.openDb()) return -1;
  bool opened = true;
  if (electronic) {
    // Always an own handle: the fixed query's rows do not matter, the handle writes.
    opened = !failed(work.openTableEx(
        kImageTable, "SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE TagID = 1", 1));
  } else if (c.imageTableOpen == 1) {
    work.borrowHandle(c.imageTableHandle);
  } else {
    opened = !failed(work.openTable(kImageTable, 0));
  }
  if (!opened) {
    work.abandon();
    return -1;
  }

  RecordWriter record(work.handleText(), electronic ? 7 : 6);
  uint32_t position = 1;
  record.putInt(position++, "T_Index", kTypeInt, 0);
  record.putInt(position++, "TagID", kTypeInt, electronic ? 0 : form.tagID);
  record.putInt(position++, "Up_DateCounter", kTypeInt, 0);
  record.putInt(position++, "Attribute", kTypeInt, info->Attribute);
  if (electronic) record.putInt(position++, "GroupNo", kTypeInt, *form.groupNo);
  record.putText(position++, "ImageDataInfo", kTypeVarchar, imageDataInfoOf(*info));
  record.putText(position, "Various", kTypeVarchar,
                 cutToBytes(fieldText(info->Various), kVariousMax));
  int32_t newIndex = 0;
  if (!record.ok() || failed(server->AddRecord(work.db(), record.get(), 1, &newIndex))) {
    info->T_Index = 0;
    work.abandon();
    return -1;
  }
  info->T_Index = newIndex;

  BlockRecord blockRecord(dbName, work.handleText(), newIndex, kBlobColumn);
  LocalFile file(localPath, LocalFile::Mode::Read);
  if (!blockRecord.ok() || !file.ok()) {
    work.abandon();  // the row stays, without bytes
    return -1;
  }
  const UploadResult sent =
      uploadBlocks(*server, blockRecord.get(), UploadForm::Insert,
                   [&](uint8_t* data, std::size_t size) { return file.read(data, size); });
  const bool blocksOk = sent.status == 0 && !sent.outOfMemory;
  if (sent.status != 0) c.lastError = sent.status;
  if (!electronic) {
    double date = file.lastWriteOleDate();
    const int32_t status = server->ImageFileDate(work.db(), work.handle(), 1, newIndex, &date);
    if (status != 0 && blocksOk) c.lastError = status;  // recorded, but no failure
  }
  file.close();
  if (!blocksOk) {
    work.abandon();
    return -1;
  }
  return work.finish() ? 0 : -1;
}

int listImageRows(const char* dbName, const std::string& sql, bool withVarious, MVHGLOBAL* block,
                  int32_t* count) {
  IBookServer* server = enter();
  if (server == nullptr || dbName == nullptr || block == nullptr || count == nullptr) return -1;
  DbWork work(dbName);
  if (!work.openDb() || failed(work.openTableEx(kImageTable, sql, 1))) {
    work.abandon();
    return -1;
  }
  const int32_t rows = work.rowCount();
  if (rows <= 0) {
    *count = 0;
    return work.finish() ? 0 : -1;
  }
  const std::size_t recordSize = withVarious ? sizeof(ImageInfoRecordEX) : sizeof(ImageInfoRecord);
  const std::span<const FieldBinding> bindings =
      withVarious ? std::span<const FieldBinding>(kImageBindingsEX)
                  : std::span<const FieldBinding>(kImageBindings);
  MVHGLOBAL memory = MVGlobalAlloc(MV_GMEM_MOVEABLE | MV_GMEM_ZEROINIT,
                                   static_cast<std::size_t>(rows) * recordSize);
  auto* records = static_cast<unsigned char*>(memory ? MVGlobalLock(memory) : nullptr);
  if (records == nullptr) {
    if (memory) MVGlobalFree(memory);
    work.abandon();
    return -1;
  }
  *count = rows;
  bool ok = true;
  for (int32_t i = 0; i < rows && ok; ++i) {
    Row row;
    ok = work.fetch(i, row);
    if (ok) bindRow(row, bindings, records + static_cast<std::size_t>(i) * recordSize);
  }
  MVGlobalUnlock(memory);
  if (!ok) {
    MVGlobalFree(memory);
    work.abandon();
    return -1;
  }
  if (!work.finish()) {
    MVGlobalFree(memory);
    return -1;
  }
  *block = memory;
  return 0;
}

namespace {

// Both list forms select Various: the server answers the same query whatever the record size.
int listTagImages(const char* dbName, int32_t tagID, bool withVarious, MVHGLOBAL* block,
                  int32_t* count) {
  return listImageRows(dbName,
                       sqlFormat("SELECT T_Index,Up_DateCounter,ImageDataInfo,Attribute,Various "
                                 "FROM ImageDataTBL WITH (NOLOCK) WHERE TagID = %d",
                                 tagID),
                       withVarious, block, count);
}

}  // namespace

}  // namespace mv

using mv::connection;

extern "C" {

MVAPI int MVGetImageInfo(const char* databaseName, int32_t tagID, MVHGLOBAL* block,
                         int32_t* count) {
  return mv::listTagImages(databaseName, tagID, false, block, count);
}

MVAPI int MVGetImageInfoEX(const char* databaseName, int32_t tagID, MVHGLOBAL* block,
                           int32_t* count) {
  return mv::listTagImages(databaseName, tagID, true, block, count);
}

MVAPI int MVInsertImageDataEX(const char* databaseName, int32_t tagID, ImageInfoRecordEX* info,
                              const char* localPath) {
  return mv::insertImageRow(databaseName, mv::ImageRowForm{tagID, std::nullopt}, info, localPath);
}

MVAPI int MVInsertImageData(const char* databaseName, int32_t tagID, ImageInfoRecord* info,
                            const char* localPath) {
  if (info == nullptr) {
    connection().lastError = 0;
    return -1;
  }
  ImageInfoRecordEX ex = mv::widenImageInfo(*info);
  const int result = MVInsertImageDataEX(databaseName, tagID, &ex, localPath);
  mv::narrowImageInfo(ex, *info);
  return result;
}

MVAPI int MVUpDateImageDataEX(const char* databaseName, const char* tableName, int32_t tIndex,
                              const char* localPath, ImageInfoRecordEX* info) {
  mv::IBookServer* server = mv::enter();
  if (server == nullptr || databaseName == nullptr || !mv::isPlainName(tableName) ||
      localPath == nullptr || info == nullptr) {
    return -1;
  }
  mv::DbWork work(databaseName);
  const std::string sql = mv::sqlFormat("SELECT * FROM %s WHERE T_Index = %d", tableName, tIndex);
  if (mv::openRow(work, tableName, sql, 0) != mv::Opened::Row) return -1;
  mv::BlockRecord blockRecord(databaseName, work.handleText(), tIndex, mv::kBlobColumn);
  mv::LocalFile file(localPath, mv::LocalFile::Mode::Read);
  if (!blockRecord.ok() || !file.ok()) {
    work.abandon();  // the row is as it was
    return -1;
  }
  const mv::UploadResult sent =
      mv::uploadBlocks(*server, blockRecord.get(), mv::UploadForm::Update,
                       [&](uint8_t* data, std::size_t size) { return file.read(data, size); });
  double date = file.lastWriteOleDate();
  const int32_t dated = server->ImageFileDate(work.db(), work.handle(), 1, tIndex, &date);
  file.close();
  const int32_t firstFailure = sent.status != 0 ? sent.status : dated;
  if (firstFailure != 0 || sent.outOfMemory) {
    if (firstFailure != 0) connection().lastError = firstFailure;
    work.abandon();
    return -1;
  }
  mv::RecordWriter record(work.handleText(), 2);
  record.putInt(1, "Up_DateCounter", mv::kTypeInt, info->Up_DateCounter);
  record.putInt(2, "Attribute", mv::kTypeInt, info->Attribute);
  if (!work.updateRecord(record, tIndex)) {
    work.abandon();
    return -1;
  }
  return work.finish() ? 0 : -1;
}

MVAPI int MVUpDateImageData(const char* databaseName, const char* tableName, int32_t tIndex,
                            const char* localPath, ImageInfoRecord* info) {
  if (info == nullptr) {
    connection().lastError = 0;
    return -1;
  }
  ImageInfoRecordEX ex = mv::widenImageInfo(*info);
  const int result = MVUpDateImageDataEX(databaseName, tableName, tIndex, localPath, &ex);
  mv::narrowImageInfo(ex, *info);
  return result;
}

MVAPI int MVDownLoadImageData(const char* databaseName, const char* tableName, int32_t tIndex,
                              const char* localPath) {
  mv::IBookServer* server = mv::enter();
  if (server == nullptr || databaseName == nullptr || !mv::isPlainName(tableName) ||
      localPath == nullptr) {
    return -1;
  }
  mv::DbWork work(databaseName);
  const std::string sql = mv::sqlFormat("SELECT * FROM %s WHERE T_Index = %d", tableName, tIndex);
  if (mv::openRow(work, tableName, sql, 1) != mv::Opened::Row) return -1;
  mv::LocalFile file(localPath, mv::LocalFile::Mode::Replace);
  if (!file.ok()) {
    work.abandon();
    return -1;
  }
  double date = 0.0;
  if (mv::failed(server->ImageFileDate(work.db(), work.handle(), 0, tIndex, &date))) date = 0.0;
  int32_t writeStatus = 0;
  const mv::DownloadResult got = mv::downloadBlocks(
      *server, work.db(), work.handle(), mv::toWide(mv::kBlobColumn).get(),
      [&](const uint8_t* data, std::size_t size) { return file.write(data, size, writeStatus); });
  if (!file.close() && !got.sinkFailed && got.status == 0) writeStatus = mv::kStatusWriteFault;
  if (got.status != 0 || writeStatus != 0) {
    connection().lastError = got.status != 0 ? got.status : writeStatus;
    work.abandon();
    return -1;
  }
  const bool closed = work.finish();
  if (date != 0.0) (void)mv::SetFileDate(localPath, date);
  return closed ? 0 : -1;
}

MVAPI int MVDeleteImageData(const char* databaseName, int32_t tIndex) {
  mv::IBookServer* server = mv::enter();
  if (server == nullptr || databaseName == nullptr) return -1;
  mv::DbWork work(databaseName);
  const std::string sql =
      mv::sqlFormat("SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE T_Index = %d", tIndex);
  if (mv::openRow(work, mv::kImageTable, sql, 0) != mv::Opened::Row) return -1;
  if (mv::failed(server->DeleteRecord(work.db(), work.handle(), tIndex))) {
    work.abandon();
    return -1;
  }
  return work.finish() ? 0 : -1;
}

MVAPI int MVGetImageUpdateCounter(const char* databaseName, int32_t tIndex, int32_t* counter) {
  mv::IBookServer* server = mv::enter();
  if (server == nullptr || databaseName == nullptr || counter == nullptr) return -1;
  mv::DbWork work(databaseName);
  const std::string sql = mv::sqlFormat(
      "SELECT Up_DateCounter FROM ImageDataTBL WITH (NOLOCK) WHERE T_Index = %d", tIndex);
  if (mv::openRow(work, mv::kImageTable, sql, 1) != mv::Opened::Row) return -1;
  mv::Row row;
  if (!work.fetch(0, row)) {
    work.abandon();
    return -1;
  }
  if (const mv::RowField* field = mv::findField(row, "Up_DateCounter")) {
    *counter = mv::parseInt(field->value);
  }
  return work.finish() ? 0 : -1;
}

MVAPI int MVSetImageUpdateCounter(const char* databaseName, int32_t tIndex, int32_t counter) {
  return mv::updateImageCounterOrVarious(
      databaseName, tIndex,
      mv::sqlFormat("SELECT Up_DateCounter FROM ImageDataTBL WITH (NOLOCK) WHERE T_Index = %d",
                    tIndex),
      [&](mv::RecordWriter& record) { record.putInt(1, "Up_DateCounter", mv::kTypeInt, counter); });
}

MVAPI int MVSetImageVariousData(const char* databaseName, int32_t tIndex, const char* various) {
  if (various == nullptr) {
    connection().lastError = 0;
    return -1;
  }
  return mv::updateImageCounterOrVarious(
      databaseName, tIndex,
      mv::sqlFormat("SELECT T_Index,Various FROM ImageDataTBL WITH (NOLOCK) WHERE T_Index = %d",
                    tIndex),
      [&](mv::RecordWriter& record) {
        record.putText(1, "Various", mv::kTypeVarchar, mv::cutToBytes(various, mv::kVariousMax));
      });
}

}  // extern "C"
