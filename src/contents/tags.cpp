// The tag tree: listing, creating, renaming, ordering and deleting the two rows of a tag.
#include "contents/tags.h"

#include <strings.h>

#include <algorithm>
#include <utility>

#include "contents/pages.h"
#include "frame/connection.h"
#include "frame/db_work.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "platform/codepage.h"

namespace mv {

ColumnValue recordValue(const void* record, std::span<const FieldBinding> bindings,
                        const ColumnDef& column) {
  ColumnValue value = boundValue(record, bindings, column);
  if (auto* text = std::get_if<std::string_view>(&value)) {
    for (const FieldBinding& b : bindings) {
      if (std::string_view(b.column) == column.name) *text = cutToBytes(*text, b.width - 1);
    }
  }
  return value;
}

void bindFirstColumns(const Row& row, std::size_t columns, std::span<const FieldBinding> bindings,
                      void* record) {
  const std::size_t n = std::min(columns, row.size());
  Row matched;
  for (std::size_t i = 0; i < n; ++i) {
    for (const FieldBinding& b : bindings) {
      if (strcasecmp(row[i].name.c_str(), b.column) != 0) continue;
      matched.push_back(RowField{b.column, row[i].typecode, row[i].value});
    }
  }
  bindRow(matched, bindings, record);
}

namespace {

constexpr FieldBinding kTagDispBindings[] = {
    MV_INT_FIELD(TagDispRecord, T_Index, "T_Index"),
    MV_TEXT_FIELD(TagDispRecord, TagName, "TagName"),
    MV_INT_FIELD(TagDispRecord, TagID, "TagID"),
    MV_INT_FIELD(TagDispRecord, Attribute, "Attribute"),
    MV_INT_FIELD(TagDispRecord, Relation, "Relation"),
    MV_INT_FIELD(TagDispRecord, T_Order, "T_Order"),
    MV_INT_FIELD(TagDispRecord, UpTagID, "UpTagID"),
};

// The frame's entry: lastError cleared (unless `keepError`), the link and the arguments checked.
IBookServer* enter(bool argumentsGiven, bool keepError = false) {
  if (!keepError) connection().lastError = 0;
  IBookServer* server = connection().currentServer;
  return argumentsGiven ? server : nullptr;
}

// Reads a whole book table into a list block handed out by its handle, unlocked.
template <typename T>
int listTable(const char* dbName, const char* table, std::span<const FieldBinding> bindings,
              MVHGLOBAL* block, int32_t* count) {
  *block = nullptr;
  *count = 0;
  DbWork work(dbName, DbWork::Holder::Book);
  if (!work.openDb() || failed(work.openTable(table, 1))) return -1;
  ResultBlock<T> list(static_cast<std::size_t>(std::max(work.rowCount(), 0)));
  if (!list.ok()) return -1;
  Row row;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!work.fetch(static_cast<int32_t>(i), row)) return -1;
    bindRow(row, bindings, &list[i]);
  }
  if (!work.finish()) return -1;
  const auto n = static_cast<int32_t>(list.size());
  MVHGLOBAL h = MVGlobalHandle(list.release());
  MVGlobalUnlock(h);
  *block = h;
  *count = n;
  return 0;
}

// Sends `text` as TagName (typecode 2) to the row of `table` chosen by `sql`, updated as `key`.
bool renameRow(DbWork& work, const char* table, const std::string& sql, int32_t key,
               std::string_view text) {
  if (failed(work.openTableEx(table, sql, 0))) return false;
  RecordWriter record(work.handleText(), 1);
  record.putText(1, "TagName", kTypeVarchar, text);
  return work.updateRecord(record, key) && !failed(work.closeTable());
}

}  // namespace

}  // namespace mv

using mv::DbWork;
using mv::failed;
using mv::IBookServer;

extern "C" {

MVAPI int MVGetAllTag(const char* databaseName, MVHGLOBAL* block, int32_t* count) {
  if (mv::enter(databaseName && block && count) == nullptr) return -1;
  return mv::listTable<TagDispRecord>(databaseName, "TagDispTBL", mv::kTagDispBindings, block,
                                      count);
}

MVAPI int MVGetAllTagInfo(const char* databaseName, MVHGLOBAL* block, int32_t* count) {
  if (mv::enter(databaseName && block && count) == nullptr) return -1;
  return mv::listTable<TagInfoRecord>(databaseName, "TagPageTBL", mv::tagInfoBindings(), block,
                                      count);
}

MVAPI int MVCreateTag(const char* databaseName, TagInfoRecord info, int32_t upTagID,
                      int32_t* tagIndex, int32_t* dispIndex) {
  IBookServer* server = mv::enter(databaseName && tagIndex && dispIndex);
  if (server == nullptr) return -1;
  DbWork work(databaseName, DbWork::Holder::Book);
  if (!work.openDb() || failed(work.openTable("TagPageTBL", 0))) return -1;
  // The page row first: the display row points to its key.
  mv::RecordWriter page(work.handleText(), mv::pageRecordFields());
  int32_t newIndex = 0;
  if (!mv::fillPageRecord(page, info) ||
      failed(server->AddRecord(work.db(), page.get(), 1, &newIndex))) {
    *tagIndex = 0;
    return -1;
  }
  *tagIndex = newIndex;
  if (failed(work.closeTable()) || failed(work.openTable("TagDispTBL", 0))) return -1;
  mv::RecordWriter disp(work.handleText(), mv::dispRecordFields());
  int32_t newDisp = 0;
  if (!mv::fillDispRecord(disp, info, newIndex, upTagID) ||
      failed(server->AddRecord(work.db(), disp.get(), 1, &newDisp))) {
    *tagIndex = 0;  // the page row stays
    return -1;
  }
  *dispIndex = newDisp;
  return work.finish() ? 0 : -1;
}

MVAPI int MVChangeTagName(const char* databaseName, int32_t tagIndex, const char* newName,
                          int32_t dispIndex) {
  if (mv::enter(databaseName && newName) == nullptr) return -1;
  const std::string_view name = mv::cutToBytes(newName, sizeof(TagDispRecord::TagName) - 1);
  DbWork work(databaseName, DbWork::Holder::Book);
  return work.openDb() &&
                 mv::renameRow(
                     work, "TagPageTBL",
                     mv::sqlFormat("SELECT * FROM TagPageTBL WHERE T_Index = %d", tagIndex),
                     tagIndex, name) &&
                 mv::renameRow(work, "TagDispTBL",
                               mv::sqlFormat("SELECT * FROM TagDispTBL WHERE TagID = %d", tagIndex),
                               dispIndex, name) &&
                 work.finish()
             ? 0
             : -1;
}

MVAPI int MVChangeTagOrder(const char* databaseName, int32_t tagIndex, int32_t dispIndex,
                           int32_t order) {
  if (mv::enter(databaseName != nullptr, true) == nullptr) return -1;
  DbWork work(databaseName, DbWork::Holder::Book);
  if (!work.openDb() ||
      failed(work.openTableEx(
          "TagDispTBL", mv::sqlFormat("SELECT * FROM TagDispTBL WHERE TagID = %d", tagIndex), 0))) {
    return -1;
  }
  mv::RecordWriter record(work.handleText(), 1);
  record.putInt(1, "T_Order", mv::kTypeInt, order);
  return work.updateRecord(record, dispIndex) && work.finish() ? 0 : -1;
}

MVAPI int MVDeleteTag(const char* databaseName, int32_t tagIndex, int32_t dispIndex) {
  IBookServer* server = mv::enter(databaseName != nullptr);
  if (server == nullptr) return -1;
  DbWork work(databaseName, DbWork::Holder::Book);
  if (!work.openDb() ||
      failed(work.openTableEx(
          "TagPageTBL", mv::sqlFormat("SELECT * FROM TagPageTBL WHERE (T_Index=%d)", tagIndex),
          0))) {
    return -1;
  }
  if (work.rowCount() == 0) return -1;  // no such tag: nothing deleted, lastError stays 0
  const auto deleteRow = [&](int32_t key) {
    return !failed(server->DeleteRecord(work.db(), work.handle(), key)) &&
           !failed(work.closeTable());
  };
  if (!deleteRow(tagIndex)) return -1;
  if (failed(work.openTableEx(
          "TagDispTBL", mv::sqlFormat("SELECT * FROM TagDispTBL WHERE (TagID=%d)", tagIndex), 0)) ||
      !deleteRow(dispIndex)) {
    return -1;
  }
  // The statement reads WITH (NOLOCK), which goes with flag 1.
  if (failed(work.openTableEx(
          "ImageDataTBL",
          mv::sqlFormat("SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE (TagID=%d)", tagIndex),
          1))) {
    return -1;
  }
  if (failed(server->DeleteRecords(work.db(), work.handle(), 0, work.rowCount() - 1))) {
    return -1;
  }
  return work.finish() ? 0 : -1;
}

}  // extern "C"
