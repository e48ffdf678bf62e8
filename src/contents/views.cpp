// The view tables: the family's members, its table descriptions and the twenty exports.
#include "contents/views.h"

#include <cstring>

#include "frame/connection.h"
#include "frame/records.h"
#include "frame/sql_text.h"

namespace mv {
namespace {

constexpr FieldBinding kViewAttributeBindings[] = {
    MV_INT_FIELD(ViewAttributeRecord, T_Index, "T_Index"),
    MV_TEXT_FIELD(ViewAttributeRecord, AttributeName, "AttributeName"),
    MV_INT_FIELD(ViewAttributeRecord, AttributeType, "AttributeType"),
    MV_INT_FIELD(ViewAttributeRecord, OfferInfo, "OfferInfo"),
    MV_INT_FIELD(ViewAttributeRecord, ELLinkID, "ELLinkID"),
};
constexpr FieldBinding kViewItemBindings[] = {
    MV_INT_FIELD(ViewItemRecord, T_Index, "T_Index"),
    MV_INT_FIELD(ViewItemRecord, ViewAttriID, "ViewAttriID"),
    MV_INT_FIELD(ViewItemRecord, ViewItemID, "ViewItemID"),
    MV_TEXT_FIELD(ViewItemRecord, ItemName, "ItemName"),
    MV_TEXT_FIELD(ViewItemRecord, ItemName2, "ItemName2"),
    MV_INT_FIELD(ViewItemRecord, SortNo, "SortNo"),
};
constexpr FieldBinding kViewManageBindings[] = {
    MV_INT_FIELD(ViewManageRecord, T_Index, "T_Index"),
    MV_TEXT_FIELD(ViewManageRecord, ViewName, "ViewName"),
    MV_INT_FIELD(ViewManageRecord, OfferInfo, "OfferInfo"),
};
constexpr FieldBinding kViewDataBindings[] = {
    MV_INT_FIELD(ViewDataRecord, T_Index, "T_Index"),
    MV_INT_FIELD(ViewDataRecord, ViewManageID, "ViewManageID"),
    MV_INT_FIELD(ViewDataRecord, ViewAttriID, "ViewAttriID"),
    MV_INT_FIELD(ViewDataRecord, SortNo, "SortNo"),
};
constexpr FieldBinding kTagAttributeBindings[] = {
    MV_INT_FIELD(TagAttributeRecord, T_Index, "T_Index"),
    MV_INT_FIELD(TagAttributeRecord, TagPageID, "TagPageID"),
    MV_INT_FIELD(TagAttributeRecord, ViewAttributeID, "ViewAttributeID"),
    MV_TEXT_FIELD(TagAttributeRecord, Value, "Value"),
};

constexpr auto kSystem = DbWork::Holder::System;

// The code of a failure: what it left in lastError, which is never 0 here.
int32_t failure() {
  auto& c = connection();
  if (c.lastError == 0) c.lastError = -1;
  return c.lastError;
}

}  // namespace

const FamilyTable* familyTable(int32_t kind) {
  static const FamilyTable kTables[] = {
      {kViewAttributeKind, kSystem, findTable(DbKind::System, "ViewAttributeTBL"),
       kViewAttributeBindings, sizeof(ViewAttributeRecord), nullptr, AfterFailedRow::Stop},
      {kViewItemKind, kSystem, findTable(DbKind::System, "ViewItemTBL"), kViewItemBindings,
       sizeof(ViewItemRecord), "ViewAttriID", AfterFailedRow::GoOn},
      {kViewManageKind, kSystem, findTable(DbKind::System, "ViewManageTBL"), kViewManageBindings,
       sizeof(ViewManageRecord), nullptr, AfterFailedRow::Stop},
      {kViewDataKind, kSystem, findTable(DbKind::System, "ViewDataTBL"), kViewDataBindings,
       sizeof(ViewDataRecord), "ViewManageID", AfterFailedRow::Stop},
      {kTagAttributeKind, DbWork::Holder::Book, findTable(DbKind::Book, "TagAttributeTBL"),
       kTagAttributeBindings, sizeof(TagAttributeRecord), "TagPageID", AfterFailedRow::StopQuietly},
  };
  for (const FamilyTable& t : kTables) {
    if (t.kind == kind) return &t;
  }
  return nullptr;
}

bool ViewTables::select(DbWork& work, const FamilyTable& t, const char* column, int32_t value) {
  const std::string sql = sqlFormat("SELECT * FROM %s WHERE %s='%d'", t.table->name, column, value);
  return !failed(work.executeQuery(t.table->name, sql));
}

bool ViewTables::makeAndOpen(DbWork& work, const FamilyTable& t) {
  const Bstr table = toWide(t.table->name);
  (void)work.server().CreateTable(work.db(), table.get(), t.kind);  // the open decides
  return !failed(work.openTable(t.table->name, 0));
}

int32_t ViewTables::finish(DbWork& work) { return work.finish() ? 0 : failure(); }

int32_t ViewTables::write(const FamilyTable& t, const char* db, void* info, bool add) {
  DbWork work(db, t.holder);
  if (!work.openDb()) return failure();
  int32_t key = 0;
  std::memcpy(&key, info, sizeof key);  // T_Index leads every record of the family
  if (!select(work, t, "T_Index", key)) {
    if (!add) return failure();
    // The table is taken to be missing: the select's code is no failure of the add.
    connection().lastError = 0;
    if (!makeAndOpen(work, t)) return failure();
  } else if (add && work.rowCount() > 0) {
    work.abandon();
    connection().lastError = kRowExists;
    return kRowExists;
  }
  RecordWriter record(work.handleText(), addRecordFields(*t.table, KeyElement::Valued));
  if (!fillAddRecord(record, *t.table, KeyElement::Valued,
                     [&](const ColumnDef& c) { return recordValue(info, t.bindings, c); })) {
    return failure();
  }
  const int32_t status = add ? work.server().AddRecord(work.db(), record.get(), 1, &key)
                             : work.server().UpdateRecord(work.db(), record.get(), 1, &key);
  if (failed(status)) return status;
  // The row is written: its key goes to the record even if a close fails after it.
  std::memcpy(info, &key, sizeof key);
  return finish(work);
}

int32_t ViewTables::get(const FamilyTable& t, const char* db, int32_t tIndex, void* info) {
  DbWork work(db, t.holder);
  if (!work.openDb() || !select(work, t, "T_Index", tIndex)) return failure();
  Row row;
  int32_t status = 0;
  const bool isRow = fetchRow(work.server(), work.db(), work.handle(), 0, row, status);
  if (failed(status)) return status;
  const int32_t closed = finish(work);
  if (closed == 0 && isRow) bindFirstColumns(row, t.table->columns.size(), t.bindings, info);
  return closed;
}

int32_t ViewTables::list(const FamilyTable& t, const char* db, int32_t parentID, void* records,
                         int32_t* count) {
  DbWork work(db, t.holder);
  if (!work.openDb()) return failure();
  if (!(t.listColumn != nullptr ? select(work, t, t.listColumn, parentID) : makeAndOpen(work, t))) {
    return failure();
  }
  const int32_t rows = work.rowCount();
  if (rows > 0 && records == nullptr && *count >= rows) return failure();  // no array to fill
  if (*count < rows) {
    work.abandon();
    *count = rows;
    connection().lastError = kListTooSmall;
    return kListTooSmall;
  }
  auto* base = static_cast<unsigned char*>(records);
  int32_t read = 0;
  int32_t status = 0;
  Row row;
  for (int32_t i = 0; i < rows; ++i) {
    if (!fetchRow(work.server(), work.db(), work.handle(), i, row, status)) {
      if (t.afterFailedRow == AfterFailedRow::GoOn) continue;
      if (t.afterFailedRow == AfterFailedRow::StopQuietly) status = 0;
      break;
    }
    void* record = base + static_cast<std::size_t>(read++) * t.recordSize;
    std::memset(record, 0, t.recordSize);
    bindFirstColumns(row, t.table->columns.size(), t.bindings, record);
  }
  *count = read;
  if (failed(status)) return status;
  return finish(work);
}

int32_t ViewTables::remove(const FamilyTable& t, const char* db, int32_t tIndex) {
  DbWork work(db, t.holder);
  if (!work.openDb() || !select(work, t, "T_Index", tIndex)) return failure();
  if (failed(work.server().DeleteRecord(work.db(), work.handle(), tIndex))) {
    return failure();
  }
  return finish(work);
}

}  // namespace mv

namespace {

// The frame of a view export: lastError cleared, kNoLink without a link, -1 for a missing
// argument; else the member's code.
template <typename Member>
int viewCall(int32_t kind, bool argumentsGiven, Member member) {
  auto& c = mv::connection();
  c.lastError = 0;
  if (c.currentServer == nullptr) {
    c.lastError = mv::kNoLink;
    return mv::kNoLink;
  }
  if (!argumentsGiven) return -1;
  mv::ViewTables tables;
  return member(tables, *mv::familyTable(kind));
}

// Record is a type, spliced where a type goes: it takes no parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define MV_VIEW_EXPORTS(Name, Record, kind)                                                   \
  MVAPI int MVAdd##Name(Record* info) {                                                       \
    return viewCall(kind, info != nullptr, [&](mv::ViewTables& v, const mv::FamilyTable& t) { \
      return v.write(t, mv::kSystemDb, info, true);                                           \
    });                                                                                       \
  }                                                                                           \
  MVAPI int MVUpdate##Name(Record* info) {                                                    \
    return viewCall(kind, info != nullptr, [&](mv::ViewTables& v, const mv::FamilyTable& t) { \
      return v.write(t, mv::kSystemDb, info, false);                                          \
    });                                                                                       \
  }                                                                                           \
  MVAPI int MVGet##Name(int32_t tIndex, Record* info) {                                       \
    return viewCall(kind, info != nullptr, [&](mv::ViewTables& v, const mv::FamilyTable& t) { \
      return v.get(t, mv::kSystemDb, tIndex, info);                                           \
    });                                                                                       \
  }                                                                                           \
  MVAPI int MVDelete##Name(int32_t tIndex) {                                                  \
    return viewCall(kind, true, [&](mv::ViewTables& v, const mv::FamilyTable& t) {            \
      return v.remove(t, mv::kSystemDb, tIndex);                                              \
    });                                                                                       \
  }
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace

extern "C" {

MV_VIEW_EXPORTS(ViewAttribute, ViewAttributeRecord, mv::kViewAttributeKind)
MV_VIEW_EXPORTS(ViewItem, ViewItemRecord, mv::kViewItemKind)
MV_VIEW_EXPORTS(ViewManage, ViewManageRecord, mv::kViewManageKind)
MV_VIEW_EXPORTS(ViewData, ViewDataRecord, mv::kViewDataKind)

MVAPI int MVGetViewAttributeList(ViewAttributeRecord* records, int32_t* count) {
  return viewCall(mv::kViewAttributeKind, count && (records || *count <= 0),
                  [&](mv::ViewTables& v, const mv::FamilyTable& t) {
                    return v.list(t, mv::kSystemDb, 0, records, count);
                  });
}

MVAPI int MVGetViewManageList(ViewManageRecord* records, int32_t* count) {
  return viewCall(mv::kViewManageKind, count && (records || *count <= 0),
                  [&](mv::ViewTables& v, const mv::FamilyTable& t) {
                    return v.list(t, mv::kSystemDb, 0, records, count);
                  });
}

MVAPI int MVGetViewItemList(int32_t parentID, ViewItemRecord* records, int32_t* count) {
  return viewCall(mv::kViewItemKind, count && (records || *count <= 0),
                  [&](mv::ViewTables& v, const mv::FamilyTable& t) {
                    return v.list(t, mv::kSystemDb, parentID, records, count);
                  });
}

MVAPI int MVGetViewDataList(int32_t parentID, ViewDataRecord* records, int32_t* count) {
  return viewCall(mv::kViewDataKind, count && (records || *count <= 0),
                  [&](mv::ViewTables& v, const mv::FamilyTable& t) {
                    return v.list(t, mv::kSystemDb, parentID, records, count);
                  });
}

}  // extern "C"
