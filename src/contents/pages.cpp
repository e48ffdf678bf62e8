// Tag pages: reading and rewriting a tag's TagPageTBL row, its one-column writes, and the tag's
// update counter.
#include "contents/pages.h"

#include <string>
#include <vector>

#include "contents/tags.h"
#include "frame/catalogue.h"
#include "frame/connection.h"
#include "frame/db_work.h"
#include "frame/records.h"
#include "frame/sql_text.h"
#include "platform/codepage.h"

namespace mv {
namespace {

constexpr char kPageTable[] = "TagPageTBL";
constexpr char kDispTable[] = "TagDispTBL";

constexpr FieldBinding kTagInfoBindings[] = {
    MV_INT_FIELD(TagInfoRecord, T_Index, "T_Index"),
    MV_INT_FIELD(TagInfoRecord, Up_DateCounter, "Up_DateCounter"),
    MV_TEXT_FIELD(TagInfoRecord, TagName, "TagName"),
    MV_INT_FIELD(TagInfoRecord, TagNameAttribute, "TagNameAttribute"),
    MV_INT_FIELD(TagInfoRecord, TagRenewAttribute, "TagRenewAttribute"),
    MV_INT_FIELD(TagInfoRecord, TagMakeAttribute, "TagMakeAttribute"),
    MV_INT_FIELD(TagInfoRecord, Relation, "Relation"),
    MV_INT_FIELD(TagInfoRecord, UpTagID, "UpTagID"),
    MV_INT_FIELD(TagInfoRecord, DispDataID, "DispDataID"),
    MV_INT_FIELD(TagInfoRecord, MasterDispType, "MasterDispType"),
    MV_INT_FIELD(TagInfoRecord, ThumbnailID, "ThumbnailID"),
    MV_INT_FIELD(TagInfoRecord, AplAttribute, "AplAttribute"),
    MV_TEXT_FIELD(TagInfoRecord, TagStartUpApl, "TagStartUpApl"),
    MV_INT_FIELD(TagInfoRecord, SrcFileID, "SrcFileID"),
    MV_INT_FIELD(TagInfoRecord, CadAttribute, "CadAttribute"),
    MV_INT_FIELD(TagInfoRecord, DynaCadFileID, "DynaCadFileID"),
    MV_INT_FIELD(TagInfoRecord, PageCount, "PageCount"),
    MV_TEXT_FIELD(TagInfoRecord, TagAplOption, "TagAplOption"),
    MV_TEXT_FIELD(TagInfoRecord, TemplateName, "TemplateName"),
    MV_INT_FIELD(TagInfoRecord, RefFileInfo, "RefFileInfo"),
    MV_INT_FIELD(TagInfoRecord, Kensetu, "Kensetu"),
    MV_INT_FIELD(TagInfoRecord, PdfConvert, "PdfConvert"),
    MV_INT_FIELD(TagInfoRecord, NewRelation, "NewRelation"),
};

// TagPageTBL as a full write sends it: the catalogue's columns without Up_Date.
const TableDef& pageWriteTable() {
  static const std::vector<ColumnDef> columns = [] {
    std::vector<ColumnDef> kept;
    for (const ColumnDef& c : findTable(DbKind::Book, kPageTable)->columns) {
      if (std::string_view(c.name) != "Up_Date") kept.push_back(c);
    }
    return kept;
  }();
  static const TableDef table{DbKind::Book, kPageTable, columns};
  return table;
}

const TableDef& dispTable() {
  static const TableDef* table = findTable(DbKind::Book, kDispTable);
  return *table;
}

// The page row's select by key.
std::string pageSelect(int32_t tagIndex) {
  return sqlFormat("SELECT * FROM TagPageTBL WHERE T_Index = %d", tagIndex);
}

// A one-column write of the page row selected by `tagIndex` through a handle on `table`.
int writeOneColumn(const char* dbName, const char* table, int32_t tagIndex,
                   std::string_view element) {
  DbWork work(dbName, DbWork::Holder::Book);
  if (!work.openDb() || failed(work.openTableEx(table, pageSelect(tagIndex), 0))) return -1;
  RecordWriter record(work.handleText(), 1);
  record.putRaw(1, element);
  return work.updateRecord(record, tagIndex) && work.finish() ? 0 : -1;
}

IBookServer* enter(bool argumentsGiven) {
  connection().lastError = 0;
  return argumentsGiven ? connection().currentServer : nullptr;
}

}  // namespace

std::span<const FieldBinding> tagInfoBindings() { return kTagInfoBindings; }

uint32_t pageRecordFields() { return addRecordFields(pageWriteTable(), KeyElement::Zero); }

bool fillPageRecord(RecordWriter& record, const TagInfoRecord& info) {
  return fillAddRecord(record, pageWriteTable(), KeyElement::Zero,
                       [&](const ColumnDef& c) -> ColumnValue {
                         if (std::string_view(c.name) == "Up_DateCounter") return 0;
                         return recordValue(&info, kTagInfoBindings, c);
                       });
}

uint32_t dispRecordFields() { return addRecordFields(dispTable(), KeyElement::Zero); }

bool fillDispRecord(RecordWriter& record, const TagInfoRecord& info, int32_t tagIndex,
                    int32_t upTagID) {
  return fillAddRecord(record, dispTable(), KeyElement::Zero,
                       [&](const ColumnDef& c) -> ColumnValue {
                         const std::string_view name = c.name;
                         if (name == "TagID") return tagIndex;
                         if (name == "Attribute") return info.Attribute;
                         if (name == "T_Order") return 0;
                         if (name == "UpTagID") return upTagID;
                         return recordValue(&info, kTagInfoBindings, c);  // TagName, Relation
                       });
}

}  // namespace mv

using mv::DbWork;
using mv::failed;
using mv::IBookServer;

extern "C" {

MVAPI int MVGetTag(const char* databaseName, int32_t tagIndex, TagInfoRecord* info) {
  if (mv::enter(databaseName && info) == nullptr) return -1;
  DbWork work(databaseName, DbWork::Holder::Book);
  if (!work.openDb() || failed(work.openTableEx(mv::kPageTable, mv::pageSelect(tagIndex), 1))) {
    return -1;
  }
  // Row 0 whatever the count says: the server decides about a key that does not exist.
  mv::Row row;
  if (!work.fetch(0, row)) return -1;
  if (!work.finish()) return -1;
  mv::bindRow(row, mv::kTagInfoBindings, info);
  return 0;
}

MVAPI int MVChangeTagInfo(const char* databaseName, TagInfoRecord info, int32_t upTagID,
                          int32_t tagIndex, int32_t dispIndex) {
  if (mv::enter(databaseName != nullptr) == nullptr) return -1;
  DbWork work(databaseName, DbWork::Holder::Book);
  if (!work.openDb() || failed(work.openTableEx(mv::kPageTable, mv::pageSelect(tagIndex), 0))) {
    return -1;
  }
  if (work.rowCount() == 0) return -1;  // no page row: lastError stays 0
  mv::RecordWriter page(work.handleText(), mv::pageRecordFields());
  if (!mv::fillPageRecord(page, info) || !work.updateRecord(page, tagIndex) ||
      failed(work.closeTable())) {
    return -1;
  }
  if (failed(work.openTableEx(mv::kDispTable,
                              mv::sqlFormat("SELECT * FROM TagDispTBL WHERE TagID = %d", tagIndex),
                              0))) {
    return -1;
  }
  if (work.rowCount() == 0) return -1;  // the page is rewritten, the display row is missing
  mv::RecordWriter disp(work.handleText(), mv::dispRecordFields());
  return mv::fillDispRecord(disp, info, tagIndex, upTagID) && work.updateRecord(disp, dispIndex) &&
                 work.finish()
             ? 0
             : -1;
}

MVAPI int MVChangePageCount(const char* databaseName, int32_t tagIndex, int32_t pageCount) {
  if (mv::enter(databaseName != nullptr) == nullptr) return -1;
  return mv::writeOneColumn(databaseName, mv::kPageTable, tagIndex,
                            mv::sqlFormat("KEY=PageCount\t%s\t%d", "1", pageCount));
}

MVAPI int MVChangeAppParam(const char* databaseName, int32_t tagIndex, const char* option) {
  if (mv::enter(databaseName && option) == nullptr) return -1;
  const std::string value(mv::cutToBytes(option, sizeof(TagInfoRecord::TagAplOption) - 1));
  return mv::writeOneColumn(databaseName, mv::kPageTable, tagIndex,
                            mv::sqlFormat("KEY=TagAplOption\t%s\t%s", "2", value.c_str()));
}

MVAPI int MVChangeFieldData(const char* databaseName, const char* tableName, int32_t tagIndex,
                            const char* keyLine) {
  if (mv::enter(databaseName && tableName && keyLine) == nullptr) return -1;
  return mv::writeOneColumn(databaseName, tableName, tagIndex, keyLine);
}

MVAPI int MVGetTagUpdateCounter(const char* databaseName, int32_t tagIndex, int32_t* counter) {
  IBookServer* server = mv::enter(databaseName && counter);
  if (server == nullptr) return -1;
  uint8_t block[16] = {};
  return failed(
             server->TagUpdateCounter(mv::toWide(databaseName).get(), tagIndex, 0, block, counter))
             ? -1
             : 0;
}

MVAPI int MVSetTagUpdateCounter(const char* databaseName, int32_t tagIndex) {
  IBookServer* server = mv::enter(databaseName != nullptr);
  if (server == nullptr) return -1;
  uint8_t block[16] = {};
  int32_t value = 0;  // the raised value is not handed on
  return failed(
             server->TagUpdateCounter(mv::toWide(databaseName).get(), tagIndex, 1, block, &value))
             ? -1
             : 0;
}

}  // extern "C"
