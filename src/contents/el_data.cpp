// Electronic-delivery data: rows of ImageDataTBL that belong to no tag (TagID 0) and are grouped
// by GroupNo. Their bytes are replaced, read and counted through the image exports by T_Index.
#include "contents/images.h"
#include "frame/connection.h"
#include "frame/db_work.h"
#include "frame/sql_text.h"

namespace mv {
namespace {

// The group that MVGetELImageInfo lists.
constexpr int32_t kDefaultGroup = 9999;

}  // namespace
}  // namespace mv

extern "C" {

MVAPI int MVGetELImageInfo(const char* databaseName, MVHGLOBAL* block, int32_t* count) {
  return mv::listImageRows(databaseName,
                           mv::sqlFormat("SELECT T_Index,Up_DateCounter,ImageDataInfo,Attribute "
                                         "FROM ImageDataTBL WITH (NOLOCK) WHERE GroupNo = %d",
                                         mv::kDefaultGroup),
                           false, block, count);
}

MVAPI int MVGetELImageInfoEX(const char* databaseName, MVHGLOBAL* block, int32_t* count,
                             int32_t groupNo) {
  return mv::listImageRows(
      databaseName,
      mv::sqlFormat("SELECT T_Index,Up_DateCounter,ImageDataInfo,Attribute,Various FROM "
                    "ImageDataTBL WITH (NOLOCK) WHERE GroupNo = %d",
                    groupNo),
      true, block, count);
}

MVAPI int MVInsertELImageDataEX(const char* databaseName, ImageInfoRecordEX* info,
                                const char* localPath, int32_t groupNo) {
  return mv::insertImageRow(databaseName, mv::ImageRowForm{0, groupNo}, info, localPath);
}

MVAPI int MVInsertELImageData(const char* databaseName, ImageInfoRecord* info,
                              const char* localPath, int32_t groupNo) {
  if (info == nullptr) {
    mv::connection().lastError = 0;
    return -1;
  }
  ImageInfoRecordEX ex = mv::widenImageInfo(*info);
  const int result = MVInsertELImageDataEX(databaseName, &ex, localPath, groupNo);
  mv::narrowImageInfo(ex, *info);
  return result;
}

MVAPI int MVDeleteELData(const char* databaseName, int32_t tIndex) {
  mv::ConnectionState& c = mv::connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || databaseName == nullptr) return -1;
  mv::DbWork work(databaseName);
  const std::string sql =
      mv::sqlFormat("SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE (T_Index=%d)", tIndex);
  if (!work.openDb() || mv::failed(work.openTableEx("ImageDataTBL", sql, 0))) {
    work.abandon();
    return -1;
  }
  // No row is no failure: the range is then 0 .. -1.
  if (mv::failed(
          c.currentServer->DeleteRecords(work.db(), work.handle(), 0, work.rowCount() - 1))) {
    work.abandon();
    return -1;
  }
  return work.finish() ? 0 : -1;
}

}  // extern "C"
