// The tag tree: listing, creating, renaming, ordering and deleting the two rows of a tag.
#include "contents/tags.h"

#include <strings.h>

#include <algorithm>
#include <utility>

#include "contents/pages.h"
#include "frame/connection.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "platform/codepage.h"

namespace mv {

DbWork::DbWork(const char* dbName, Holder holder)
    : server_(connection().currentServer), db_(toWide(dbName)) {
  const auto& c = connection();
  closeDb_ = holder == Holder::Book ? c.bookDbHeld != 1 : c.systemDbHeld != 1;
}

DbWork::~DbWork() { abandon(); }

bool DbWork::openDb() {
  if (!closeDb_) return true;
  int32_t out = 0;
  if (failed(server_->OpenDatabase(db_.get(), kOpenForWork, &out))) {
    closeDb_ = false;  // nothing to close
    return false;
  }
  return true;
}

namespace {

template <typename Open>
int32_t openHandle(DbWork& work, bool& hasHandle, int32_t& rows, std::string& handle, Open open) {
  (void)work.closeTable();
  rows = 0;
  Bstr h;
  const int32_t status = open(&rows, h.out());
  if (status != 0) {
    rows = 0;
    return status;
  }
  handle = toAnsi(h.get());
  hasHandle = true;
  return 0;
}

}  // namespace

int32_t DbWork::openTable(const char* table, int32_t mode) {
  return openHandle(*this, hasHandle_, rows_, handle_, [&](int32_t* rows, BSTR* h) {
    return server_->OpenTable(db_.get(), toWide(table).get(), mode, rows, h);
  });
}

int32_t DbWork::openTableEx(const char* table, std::string_view sql, int32_t flag) {
  return openHandle(*this, hasHandle_, rows_, handle_, [&](int32_t* rows, BSTR* h) {
    return server_->OpenTableEx(db_.get(), toWide(table).get(), toWide(sql).get(), flag, rows, h);
  });
}

int32_t DbWork::executeQuery(const char* table, std::string_view sql) {
  return openHandle(*this, hasHandle_, rows_, handle_, [&](int32_t* rows, BSTR* h) {
    return server_->ExecuteQuery(db_.get(), toWide(table).get(), toWide(sql).get(), 0, rows, h);
  });
}

int32_t DbWork::closeTable() {
  if (!hasHandle_) return 0;
  hasHandle_ = false;
  rows_ = 0;
  return server_->CloseTable(db_.get(), toWide(std::exchange(handle_, {})).get());
}

bool DbWork::finish() {
  bool ok = !failed(closeTable());
  if (closeDb_) {
    closeDb_ = false;
    const int32_t status = server_->CloseDatabase(db_.get());
    if (ok) ok = !failed(status);
  }
  return ok;
}

void DbWork::abandon() {
  if (!hasHandle_ && !closeDb_) return;
  const int32_t kept = connection().lastError;
  (void)finish();
  connection().lastError = kept;
}

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
    int32_t status = 0;
    if (!fetchRow(work.server(), work.db(), toWide(work.handle()).get(), static_cast<int32_t>(i),
                  row, status)) {
      connection().lastError = status;  // 0 for a row that is not an array
      return -1;
    }
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

// UpdateRecord of row `key` with a record of one element.
bool updateOne(DbWork& work, int32_t key, RecordWriter& record) {
  return record.ok() && !failed(work.server().UpdateRecord(work.db(), record.get(), 1, &key));
}

// Sends `text` as TagName (typecode 2) to the row of `table` chosen by `sql`, updated as `key`.
bool renameRow(DbWork& work, const char* table, const std::string& sql, int32_t key,
               std::string_view text) {
  if (failed(work.openTableEx(table, sql, 0))) return false;
  RecordWriter record(work.handle(), 1);
  record.putText(1, "TagName", kTypeVarchar, text);
  return updateOne(work, key, record) && !failed(work.closeTable());
}

}  // namespace

}  // namespace mv

using mv::connection;
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
  mv::RecordWriter page(work.handle(), mv::pageRecordFields());
  int32_t newIndex = 0;
  if (!mv::fillPageRecord(page, info) ||
      failed(server->AddRecord(work.db(), page.get(), 1, &newIndex))) {
    *tagIndex = 0;
    return -1;
  }
  *tagIndex = newIndex;
  if (failed(work.closeTable()) || failed(work.openTable("TagDispTBL", 0))) return -1;
  mv::RecordWriter disp(work.handle(), mv::dispRecordFields());
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
  mv::RecordWriter record(work.handle(), 1);
  record.putInt(1, "T_Order", mv::kTypeInt, order);
  return mv::updateOne(work, dispIndex, record) && work.finish() ? 0 : -1;
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
    return !failed(server->DeleteRecord(work.db(), mv::toWide(work.handle()).get(), key)) &&
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
  if (failed(server->DeleteRecords(work.db(), mv::toWide(work.handle()).get(), 0,
                                   work.rowCount() - 1))) {
    return -1;
  }
  return work.finish() ? 0 : -1;
}

}  // extern "C"
