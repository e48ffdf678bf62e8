// The life of a book: making, copying, moving, discarding and ending it, and the lists and
// look-ups of books on shelves.
#include "books/books.h"

#include <algorithm>
#include <string_view>

#include "MVCore.h"
#include "books/covers.h"
#include "books/shelves.h"
#include "frame/connection.h"
#include "frame/handles.h"
#include "frame/records.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/message.h"
#include "users/shelf_power.h"
#include "users/users.h"

namespace mv {
namespace {

constexpr std::string_view kTemplateCopyFailed = "Book DB雛形コピーに失敗";

// SetMutex operations and the answer that another client holds the mutex.
constexpr int32_t kMutexTest = 0;
constexpr int32_t kMutexTake = 1;
constexpr int32_t kMutexRelease = 2;
constexpr int32_t kMutexHeldByAnother = 1;

// CopyDatabase's kind for a book.
constexpr int32_t kCopyBook = 2;

constexpr FieldBinding kBookIdBinding[] = {{"BookID", FieldKind::Int, 0, sizeof(int32_t)}};

const TableDef& linkTable() {
  static const TableDef table = withoutOrderNo(*findTable(DbKind::System, kLinkTable));
  return table;
}

int32_t intField(const Row& row, std::string_view column) {
  const RowField* field = findField(row, column);
  return field ? parseInt(field->value) : 0;
}

// Takes a server mutex for the length of `work` and releases it on every way out.
template <typename Work>
int holdingMutex(const std::string& name, bool testFirst, Work work) {
  IBookServer* server = connection().currentServer;
  const Bstr mutex = toWide(name);
  if (testFirst) {
    if (server->SetMutex(mutex.get(), kMutexTest) == kMutexHeldByAnother) return -1;
    (void)server->SetMutex(mutex.get(), kMutexTake);
  } else if (const int32_t taken = server->SetMutex(mutex.get(), kMutexTake); taken != 0) {
    connection().lastError = taken;
    return -1;
  }
  const int result = work();
  (void)server->SetMutex(mutex.get(), kMutexRelease);
  return result;
}

int createBook(const char* shelfName, CoverInfo& cover, int32_t* bookId) {
  IBookServer* server = connection().currentServer;
  const std::string name = newBookDbName();
  // The name's mutex guards a creation against another client's in the same second.
  return holdingMutex(name, true, [&] {
    int32_t shelfId = 0;
    if (shelfIdByName(shelfName, &shelfId) != 1) return -1;
    const Bstr none = toWide("");
    if (failed(server->CreateBookDatabase(toWide(fieldText(cover.Reserve)).get(), none.get(),
                                          toWide(name).get()))) {
      showLibraryMessage(kTemplateCopyFailed);
      return -1;
    }
    // The caller's cover is changed from here on, whatever follows.
    stampUtcNow(cover.MakeDate);
    copyToField(cover.BookName, sizeof cover.BookName, name);
    if (writeBookRow(name.c_str(), cover, 1) != 1) return -1;
    if (addCentralRow(cover, bookId) != 1) return -1;
    // A failure here leaves a book on no shelf, whose id the caller has.
    return addLink(shelfId, *bookId) == 1 ? 0 : -1;
  });
}

// The final deletion of a book from the discard shelf: database, cover row, link.
int endBook(int32_t bookId) {
  CoverInfo cover{};
  if (readCoverById(bookId, cover) != 1) return 0;
  const Bstr none = toWide("");
  if (failed(connection().currentServer->DeleteDatabase(toWide(fieldText(cover.BookName)).get(),
                                                        none.get()))) {
    return 0;
  }
  return dropBookRow(bookId) == 1 && dropLink(bookId) == 1 ? 1 : 0;
}

int deleteBook(int32_t shelfId, int32_t bookId, const char* userName) {
  int32_t userId = 0;
  if (findUserByName(userName, &userId) != 1) return -1;
  if (BookShelfPower(connection().currentServer).getPower(shelfId, userId) != kPowerReadWrite) {
    return -1;
  }
  // The shelf the caller names decides, not the one the link names.
  return holdingMutex(std::to_string(bookId), false, [&] {
    ShelfEntry shelf{};
    if (readShelf(shelfId, shelf) != Lookup::Found) return -1;
    if (shelf.Attribute == kDiscardShelf) return endBook(bookId) == 1 ? 0 : -1;
    int32_t discard = 0;
    return discardShelfId(&discard) == 1 && moveBook(shelfId, discard, bookId) == 1 ? 0 : -1;
  });
}

int copyShelf(const char* newShelfName, int32_t sourceShelfId, const char* userName,
              int32_t* shelfId) {
  // Everything is read before anything is made.
  std::vector<int32_t> bookIds;
  if (bookIdsOfShelf(sourceShelfId, bookIds) != 1) return -1;
  std::vector<CoverInfo> covers(bookIds.size());
  for (std::size_t i = 0; i < bookIds.size(); ++i) {
    if (readCoverById(bookIds[i], covers[i]) != 1) return -1;
  }
  int32_t newShelf = 0;
  int32_t userId = 0;
  if (addShelfRow(newShelfName, &newShelf) != 1 || findUserByName(userName, &userId) != 1 ||
      BookShelfPower(connection().currentServer).setPower(newShelf, userId, kPowerReadWrite) != 1) {
    return -1;
  }
  // A failure from here leaves the new shelf with the books copied so far.
  for (std::size_t i = 0; i < bookIds.size(); ++i) {
    int32_t copied = 0;
    if (copyBook(newShelf, bookIds[i], covers[i].BookName, &copied) != 1) return -1;
  }
  *shelfId = newShelf;
  return 0;
}

int coversOfShelf(int32_t shelfId, CoverInfo** list, int32_t* count) {
  std::vector<int32_t> bookIds;
  if (bookIdsOfShelf(shelfId, bookIds) != 1) return -1;
  *count = static_cast<int32_t>(bookIds.size());  // the count goes out whatever follows
  if (bookIds.empty()) {
    *list = nullptr;
    return 0;
  }
  ResultBlock<CoverInfo> covers(bookIds.size());
  if (!covers.ok()) return -1;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kCoverTable, &rows, handle) != 1) return -1;
  for (std::size_t i = 0; i < bookIds.size(); ++i) {
    if (readCoverById(bookIds[i], covers[i]) != 1) {
      abandonWorkTable(kSystemDb, handle);
      return -1;
    }
  }
  if (closeWorkTable(kSystemDb, handle, 0) != 1) return -1;
  *list = covers.release();
  return 0;
}

}  // namespace

std::string newBookDbName() {
  const SYSTEMTIME now = localTimeNow();
  return sqlFormat("BOOK%02d%02d%02d%02d%02d", now.wMonth, now.wDay, now.wHour, now.wMinute,
                   now.wSecond);
}

int bookIdsOfShelf(int32_t shelfId, std::vector<int32_t>& bookIds) {
  bookIds.clear();
  if (connection().currentServer == nullptr) return 0;
  WorkQuery query(kSystemDb);
  if (!openInDisplayOrder(
          query, kLinkTable,
          sqlFormat("SELECT BookID FROM BookShelfInfoTBL WHERE BookShelfID=%d ORDER BY OrderNo, "
                    "T_Index;",
                    shelfId),
          sqlFormat("SELECT BookID FROM BookShelfInfoTBL WHERE BookShelfID=%d;", shelfId))) {
    return 0;
  }
  const int32_t rows = std::max(query.rowCount(), 0);
  bookIds.resize(static_cast<std::size_t>(rows));
  if (!readRecords(query, rows, kBookIdBinding, bookIds.data(), sizeof(int32_t))) {
    query.abandon();
    bookIds.clear();
    return 0;
  }
  if (query.close() != 1) {
    bookIds.clear();
    return 0;
  }
  return 1;
}

int linkOfBook(int32_t bookId, int32_t* linkIndex, int32_t* shelfId) {
  if (connection().currentServer == nullptr) return 0;
  Row row;
  if (lookupFirstRow(kSystemDb, kLinkTable,
                     sqlFormat("SELECT * FROM BookShelfInfoTBL WHERE BookID='%d'", bookId),
                     row) != Lookup::Found) {
    return 0;
  }
  *linkIndex = intField(row, "T_Index");
  *shelfId = intField(row, "BookShelfID");
  return 1;
}

int addLink(int32_t shelfId, int32_t bookId) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr) return 0;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kLinkTable, &rows, handle) != 1) return 0;
  const TableDef& table = linkTable();
  RecordWriter record(handle, addRecordFields(table, KeyElement::Zero));
  const bool built =
      fillAddRecord(record, table, KeyElement::Zero, [&](const ColumnDef& c) -> ColumnValue {
        const std::string_view column = c.name;
        if (column == "BookShelfID") return shelfId;
        if (column == "BookID") return bookId;
        return {};  // Reserve: no shelf left yet
      });
  int32_t newIndex = 0;
  if (!built || failed(server->AddRecord(toWide(kSystemDb).get(), record.get(), 1, &newIndex))) {
    abandonWorkTable(kSystemDb, handle);
    return 0;
  }
  return closeWorkTable(kSystemDb, handle, 0);
}

int copyBook(int32_t shelfId, int32_t bookId, const char* bookName, int32_t* newBookId) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || bookName == nullptr || newBookId == nullptr) return 0;
  const std::string name = newBookDbName();
  const Bstr newDb = toWide(name);
  const Bstr none = toWide("");
  if (failed(server->CopyDatabase(toWide(bookName).get(), none.get(), newDb.get(), none.get(),
                                  kCopyBook))) {
    return 0;
  }
  CoverInfo cover{};
  if (readCoverById(bookId, cover) != 1) {
    // The one step taken back: the copied database.
    (void)failed(server->DeleteDatabase(newDb.get(), none.get()));
    return 0;
  }
  copyToField(cover.BookName, sizeof cover.BookName, name);
  // The central row keeps the source's dates; only the book's own row gets the new Up_Date.
  int32_t id = 0;
  if (addCentralRow(cover, &id) != 1) return 0;
  stampUtcNow(cover.Up_Date);
  if (writeBookRow(name.c_str(), cover, 1) != 1) return 0;
  if (addLink(shelfId, id) != 1) return 0;
  *newBookId = id;
  return 1;
}

int moveBook(int32_t fromShelfId, int32_t toShelfId, int32_t bookId) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr) return 0;
  int32_t link = 0;
  int32_t currentShelf = 0;
  if (linkOfBook(bookId, &link, &currentShelf) != 1) return 0;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kLinkTable, &rows, handle) != 1) return 0;
  // Reserve holds the shelf the book came from, as an integer.
  const TableDef& table = linkTable();
  RecordWriter record(handle, static_cast<uint32_t>(table.columns.size()));
  record.putInt(recordPosition(table, "T_Index"), "T_Index", kTypeInt, 0);
  record.putInt(recordPosition(table, "BookShelfID"), "BookShelfID", kTypeInt, toShelfId);
  record.putInt(recordPosition(table, "BookID"), "BookID", kTypeInt, bookId);
  record.putInt(recordPosition(table, "Reserve"), "Reserve", kTypeInt, fromShelfId);
  const Bstr db = toWide(kSystemDb);
  if (!record.ok() || failed(server->UpdateRecord(db.get(), record.get(), 1, &link))) {
    abandonWorkTable(kSystemDb, handle);
    return 0;
  }
  // Last on the new shelf; a table without OrderNo refuses this, and the move stands all the same.
  (void)server->ExecuteSQL(
      db.get(), toWide(sqlFormat("UPDATE %s SET OrderNo=%d WHERE BookShelfID=%d AND BookID=%d;",
                                 kLinkTable, kNoPosition, toShelfId, bookId))
                    .get());
  return closeWorkTable(kSystemDb, handle, 0);
}

int dropBookRow(int32_t bookId) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr) return 0;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kCoverTable, &rows, handle) != 1) return 0;
  if (failed(server->DeleteRecord(toWide(kSystemDb).get(), toWide(handle).get(), bookId))) {
    abandonWorkTable(kSystemDb, handle);
    return 0;
  }
  return closeWorkTable(kSystemDb, handle, 0);
}

int dropLink(int32_t bookId) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr) return 0;
  WorkQuery query(kSystemDb);
  if (failed(query.open(kLinkTable, sqlFormat("SELECT T_Index FROM BookShelfInfoTBL WHERE "
                                              "BookID='%d'",
                                              bookId)))) {
    return 0;
  }
  // Row 0 is asked for even when there is none: the server's answer is the failure.
  Row row;
  if (!query.fetch(0, row) ||
      failed(server->DeleteRecord(toWide(kSystemDb).get(), toWide(query.handle()).get(),
                                  intField(row, "T_Index")))) {
    query.abandon();
    return 0;
  }
  return query.close();
}

}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVCreateBook(const char* shelfName, int32_t unused, CoverInfo* cover, int32_t* bookId) {
  (void)unused;
  if (connection().currentServer == nullptr || shelfName == nullptr || cover == nullptr ||
      bookId == nullptr) {
    return -1;
  }
  return mv::createBook(shelfName, *cover, bookId);
}

MVAPI int MVCopyBookshelf(const char* newShelfName, int32_t sourceShelfId, const char* userName,
                          int32_t* shelfId) {
  if (connection().currentServer == nullptr || newShelfName == nullptr || userName == nullptr ||
      shelfId == nullptr) {
    return -1;
  }
  return mv::copyShelf(newShelfName, sourceShelfId, userName, shelfId);
}

MVAPI int MVCopyBook(int32_t unused1, int32_t shelfId, int32_t bookId, const char* bookName,
                     int32_t unused2, int32_t* newBookId) {
  (void)unused1;
  (void)unused2;
  if (connection().currentServer == nullptr || bookName == nullptr || newBookId == nullptr) {
    return -1;
  }
  return mv::copyBook(shelfId, bookId, bookName, newBookId) == 1 ? 0 : -1;
}

MVAPI int MVDeleteBook(int32_t shelfId, int32_t bookId, const char* userName) {
  if (connection().currentServer == nullptr || userName == nullptr) return -1;
  return mv::deleteBook(shelfId, bookId, userName);
}

MVAPI int MVMoveBook(int32_t fromShelfId, int32_t toShelfId, int32_t bookId, int32_t unused) {
  (void)unused;
  if (connection().currentServer == nullptr) return -1;
  return mv::moveBook(fromShelfId, toShelfId, bookId) == 1 ? 0 : -1;
}

MVAPI int MVGetAllCoverInfoInBS(int32_t shelfId, CoverInfo** list, int32_t* count) {
  if (connection().currentServer == nullptr || list == nullptr || count == nullptr) return -1;
  return mv::coversOfShelf(shelfId, list, count);
}

MVAPI int MVGetBookCntInBS(int32_t shelfId, int32_t* count) {
  if (connection().currentServer == nullptr || count == nullptr) return -1;
  *count = mv::shelfBookCount(shelfId);  // a count that failed reads 0
  return 0;
}

MVAPI int MVGetBookExistBSID(int32_t bookId, int32_t* shelfId) {
  if (connection().currentServer == nullptr || shelfId == nullptr) return -1;
  mv::Row row;
  switch (mv::lookupFirstRow(
      mv::kSystemDb, mv::kLinkTable,
      mv::sqlFormat("SELECT BookShelfID FROM BookShelfInfoTBL WHERE BookID='%d'", bookId), row)) {
    case mv::Lookup::Failed:
      return -1;
    case mv::Lookup::Missing:
      *shelfId = 0;  // no shelf
      return 0;
    case mv::Lookup::Found:
      break;
  }
  *shelfId = mv::intField(row, "BookShelfID");
  return 0;
}

MVAPI int MVGetBookExistBSInfo(int32_t bookId, ShelfEntry* entry) {
  if (connection().currentServer == nullptr || entry == nullptr) return -1;
  int32_t link = 0;
  int32_t shelfId = 0;
  if (mv::linkOfBook(bookId, &link, &shelfId) != 1) return -1;
  return mv::readShelf(shelfId, *entry) == mv::Lookup::Failed ? -1 : 0;
}

MVAPI int MVGetPrevBSID(int32_t bookId, int32_t* shelfId) {
  if (connection().currentServer == nullptr || shelfId == nullptr) return -1;
  mv::WorkQuery query(mv::kSystemDb);
  if (failed(query.open(
          mv::kLinkTable,
          mv::sqlFormat("SELECT Reserve FROM BookShelfInfoTBL WHERE BookID='%d'", bookId)))) {
    return -1;
  }
  if (query.rowCount() != 1) return query.close() == 1 ? 0 : -1;  // `shelfId` stays
  mv::Row row;
  if (!query.fetch(0, row)) {
    query.abandon();
    return -1;
  }
  if (query.close() != 1) return -1;
  *shelfId = mv::intField(row, "Reserve");  // 0 for a book that never moved
  return 0;
}

MVAPI int MVIsExistDB(const char* dbName, int32_t* exists) {
  auto* server = connection().currentServer;
  if (server == nullptr || dbName == nullptr || exists == nullptr) return -1;
  int32_t out = 0;
  const int32_t status = server->OpenDatabase(mv::toWide(dbName).get(), mv::kOpenTestExists, &out);
  *exists = status == 0 ? 1 : 0;
  if (status == 0 || status == mv::kStatusMissingDatabase) return 0;
  connection().lastError = status;
  return -1;
}

MVAPI int MVDeleteBookInfoRecord(int32_t bookId) {
  if (connection().currentServer == nullptr) return -1;
  // The database is left alone; a failure of the first step leaves the link.
  return mv::dropBookRow(bookId) == 1 && mv::dropLink(bookId) == 1 ? 0 : -1;
}

}  // extern "C"
