// Covers: reading and writing both copies, and the exports that do it for the application.
#include "books/covers.h"

#include <algorithm>
#include <span>
#include <string>
#include <string_view>

#include "frame/catalogue.h"
#include "frame/connection.h"
#include "frame/handles.h"
#include "frame/records.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/message.h"

namespace mv {
namespace {

constexpr std::string_view kTemplateNameTooLong = "雛形工事Book名が長すぎます";
constexpr std::string_view kBookRowIndexUnknown = "T_Indexの取得失敗";

constexpr FieldBinding kCoverBindings[] = {
    MV_INT_FIELD(CoverInfo, T_Index, "T_Index"),
    MV_TEXT_FIELD(CoverInfo, BookName, "BookName"),
    MV_TEXT_FIELD(CoverInfo, Year, "Year"),
    MV_TEXT_FIELD(CoverInfo, BookNo, "BookNo"),
    MV_TEXT_FIELD(CoverInfo, SiteName, "SiteName"),
    MV_TEXT_FIELD(CoverInfo, SitePosition, "SitePosition"),
    MV_TEXT_FIELD(CoverInfo, StartDate, "StartDate"),
    MV_TEXT_FIELD(CoverInfo, EndDate, "EndDate"),
    MV_TEXT_FIELD(CoverInfo, OrderName, "OrderName"),
    MV_TEXT_FIELD(CoverInfo, ContractCompany, "ContractCompany"),
    MV_TEXT_FIELD(CoverInfo, Spot, "Spot"),
    MV_TEXT_FIELD(CoverInfo, Prefectual, "Prefectual"),
    MV_TEXT_FIELD(CoverInfo, Access, "Access"),
    MV_INT_FIELD(CoverInfo, StatureColor, "StatureColor"),
    MV_TEXT_FIELD(CoverInfo, MakeDate, "MakeDate"),
    MV_TEXT_FIELD(CoverInfo, Up_Date, "Up_Date"),
    MV_TEXT_FIELD(CoverInfo, Reserve, "Reserve"),
    MV_INT_FIELD(CoverInfo, BookVer, "BookVer"),
};

// Which write a record is for; each leaves a few of the cover's columns out.
enum class CoverWrite {
  CentralAdd,     // everything
  CentralUpdate,  // not BookName, BookVer, MakeDate: fixed once the book is made
  BookRowNew,     // everything
  BookRowKept,    // not MakeDate
};

ColumnValue coverValue(const CoverInfo& cover, const ColumnDef& column, CoverWrite write) {
  const std::string_view name = column.name;
  if (write == CoverWrite::CentralUpdate &&
      (name == "BookName" || name == "BookVer" || name == "MakeDate")) {
    return {};
  }
  if (write == CoverWrite::BookRowKept && name == "MakeDate") return {};
  // Columns the cover has no field for (the counter, BidDate to JurisdictionName) stay empty.
  return boundValue(&cover, kCoverBindings, column);
}

// AddRecord (`add`) or UpdateRecord of row `*index` of an open handle of `table`: one element per
// column in the table's order, the key as 0.
bool sendCover(const char* dbName, const std::string& handle, const TableDef& table,
               const CoverInfo& cover, CoverWrite write, bool add, int32_t* index) {
  IBookServer* server = connection().currentServer;
  RecordWriter record(handle, addRecordFields(table, KeyElement::Zero));
  if (!fillAddRecord(record, table, KeyElement::Zero,
                     [&](const ColumnDef& c) { return coverValue(cover, c, write); })) {
    return false;
  }
  const Bstr db = toWide(dbName);
  return !failed(add ? server->AddRecord(db.get(), record.get(), 1, index)
                     : server->UpdateRecord(db.get(), record.get(), 1, index));
}

// The T_Index of the first row of UserBookTbl in an open book database, 0 for none. A look-up that
// fails shows its message and gives 0: the write goes on.
int32_t firstBookRowIndex(const char* dbName) {
  IBookServer* server = connection().currentServer;
  const Bstr db = toWide(dbName);
  int32_t rows = 0;
  Bstr handle;
  if (server->ExecuteQuery(db.get(), toWide(kBookCoverTable).get(),
                           toWide(sqlFormat("SELECT T_Index FROM %s;", kBookCoverTable)).get(), 0,
                           &rows, handle.out()) != 0) {
    showLibraryMessage(kBookRowIndexUnknown);
    return 0;
  }
  int32_t index = 0;
  bool read = true;
  if (rows > 0) {
    Row row;
    int32_t status = 0;
    read = fetchRow(*server, db.get(), handle.get(), 0, row, status);
    const RowField* key = findField(row, "T_Index");
    if (read && key != nullptr) index = parseInt(key->value);
  }
  if (server->CloseTable(db.get(), handle.get()) != 0) read = false;
  if (!read) {
    showLibraryMessage(kBookRowIndexUnknown);
    return 0;
  }
  return index;
}

// The central row, added or rewritten through a handle of the whole table.
int writeCentralRow(const CoverInfo& cover, CoverWrite write, int32_t* index) {
  if (connection().currentServer == nullptr) return 0;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kCoverTable, &rows, handle) != 1) return 0;
  static const TableDef* table = findTable(DbKind::System, kCoverTable);
  if (!sendCover(kSystemDb, handle, *table, cover, write, write == CoverWrite::CentralAdd, index)) {
    abandonWorkTable(kSystemDb, handle);
    return 0;
  }
  return closeWorkTable(kSystemDb, handle, 0);
}

// Binds a row of either table into `cover`, `bindings` choosing the columns; columns the row does
// not hold keep what `cover` held. A Reserve too long for its field stops the reading there.
void bindCover(const Row& row, std::span<const FieldBinding> bindings, CoverInfo& cover) {
  const auto tooLong = std::find_if(row.begin(), row.end(), [](const RowField& f) {
    return f.name == "Reserve" && f.value.size() >= sizeof(CoverInfo::Reserve);
  });
  if (tooLong == row.end()) {
    bindRow(row, bindings, &cover);
    return;
  }
  bindRow(Row(row.begin(), tooLong), bindings, &cover);
  showLibraryMessage(kTemplateNameTooLong);
}

}  // namespace

std::vector<FieldBinding> coverBindingsWithout(std::initializer_list<std::string_view> columns) {
  std::vector<FieldBinding> kept;
  for (const FieldBinding& b : kCoverBindings) {
    if (std::find(columns.begin(), columns.end(), b.column) == columns.end()) kept.push_back(b);
  }
  return kept;
}

int readCoverById(int32_t bookId, CoverInfo& cover) {
  auto& c = connection();
  if (c.currentServer == nullptr) return 0;
  if (c.systemDbHeld == 0) {
    // Whether this open worked shows in the query that follows.
    int32_t out = 0;
    (void)c.currentServer->OpenDatabase(toWide(kSystemDb).get(), kOpenForWork, &out);
  }
  Row row;
  const std::string sql = sqlFormat("SELECT * FROM BookCommonTBL WHERE T_Index='%d'", bookId);
  if (lookupFirstRow(kSystemDb, kCoverTable, sql, row) != Lookup::Found) return 0;
  bindCover(row, kCoverBindings, cover);
  return 1;
}

int addCentralRow(const CoverInfo& cover, int32_t* bookId) {
  if (bookId == nullptr) return 0;
  return writeCentralRow(cover, CoverWrite::CentralAdd, bookId);
}

int updateCentralRow(int32_t bookId, const CoverInfo& cover) {
  return writeCentralRow(cover, CoverWrite::CentralUpdate, &bookId);
}

int writeBookRow(const char* dbName, const CoverInfo& cover, int isNew) {
  if (connection().currentServer == nullptr || dbName == nullptr) return 0;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(dbName, kBookCoverTable, &rows, handle) != 1) return 0;
  // The table holds one row: a template's or a copied book's row is overwritten, and only an
  // empty table gets a new one.
  int32_t index = std::max(firstBookRowIndex(dbName), 1);
  const CoverWrite write = isNew == 1 ? CoverWrite::BookRowNew : CoverWrite::BookRowKept;
  static const TableDef* table = findTable(DbKind::Book, kBookCoverTable);
  if (!sendCover(dbName, handle, *table, cover, write, rows == 0, &index)) {
    abandonWorkTable(dbName, handle);
    return 0;
  }
  return closeWorkTable(dbName, handle, 0);
}

void stampUtcNow(char (&field)[20]) {
  const SYSTEMTIME now = utcTimeNow();
  copyToField(field, sizeof field,
              sqlFormat("%4d%02d%02d%02d%02d%02d", now.wYear, now.wMonth, now.wDay, now.wHour,
                        now.wMinute, now.wSecond));
}

}  // namespace mv

using mv::connection;

extern "C" {

MVAPI int MVGetCoverInfo(int32_t bookId, CoverInfo* cover) {
  if (connection().currentServer == nullptr || cover == nullptr) return -1;
  return mv::readCoverById(bookId, *cover) == 1 ? 0 : -1;
}

MVAPI int MVSetCoverInfo(int32_t bookId, const CoverInfo* cover) {
  if (connection().currentServer == nullptr || cover == nullptr) return -1;
  if (mv::updateCentralRow(bookId, *cover) != 1) return -1;
  // The book's own row is found by the record's BookName, not by bookId. If this write fails the
  // two copies differ until the next successful call.
  return mv::writeBookRow(std::string(mv::fieldText(cover->BookName)).c_str(), *cover, 0) == 1 ? 0
                                                                                               : -1;
}

MVAPI int MVGetBookDBCoverInfo(const char* dbName, CoverInfo* cover) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr || cover == nullptr) return -1;
  std::string handle;
  int32_t rows = 0;
  if (mv::openWorkTable(dbName, mv::kBookCoverTable, &rows, handle) != 1) return -1;
  if (rows > 0) {
    mv::Row row;
    int32_t status = 0;
    if (!mv::fetchRow(*server, mv::toWide(dbName).get(), mv::toWide(handle).get(), 0, row,
                      status)) {
      connection().lastError = status;
      mv::abandonWorkTable(dbName, handle);
      return -1;
    }
    // The row's own T_Index is not the book id.
    static const std::vector<mv::FieldBinding> bindings = mv::coverBindingsWithout({"T_Index"});
    mv::bindCover(row, bindings, *cover);
  }
  return mv::closeWorkTable(dbName, handle, 0) == 1 ? 0 : -1;
}

}  // extern "C"
