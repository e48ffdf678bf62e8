// Bookshelves: creating, renaming, deleting and listing them, copying a shelf's permissions, and
// the look-ups the book operations build on.
#include "books/shelves.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "frame/connection.h"
#include "frame/handles.h"
#include "frame/records.h"
#include "frame/sql_text.h"
#include "platform/message.h"
#include "users/shelf_power.h"
#include "users/users.h"

namespace mv {
namespace {

constexpr std::string_view kShelfNotFound = "指定の本棚は登録されていません";
constexpr std::string_view kShelfHasBooks = "指定の本棚には本が存在します";

constexpr FieldBinding kShelfBindings[] = {
    MV_INT_FIELD(ShelfEntry, T_Index, "T_Index"),
    MV_INT_FIELD(ShelfEntry, Attribute, "Attribute"),
    MV_TEXT_FIELD(ShelfEntry, BookShelfName, "BookShelfName"),
};

const TableDef& shelfTable() {
  static const TableDef table = withoutOrderNo(*findTable(DbKind::System, kShelfTable));
  return table;
}

// The shelf of exactly this name, compared byte for byte.
std::string shelfByNameSql(const char* name) {
  return sqlFormat(
      "SELECT * FROM BookShelfTBL WHERE CONVERT(varbinary(100), BookShelfName)=CONVERT("
      "varbinary(100), '%s')",
      sqlText(name).c_str());
}

std::string booksOfShelfSql(int32_t shelfId) {
  return sqlFormat("SELECT BookID FROM BookShelfInfoTBL WHERE BookShelfID=%d;", shelfId);
}

// The creating exports' common start: the new shelf's row, whose id goes out at once, and the
// named user's id.
int addShelfForUser(const char* shelfName, const char* userName, int32_t* shelfId,
                    int32_t* userId) {
  return addShelfRow(shelfName, shelfId) == 1 && findUserByName(userName, userId) == 1 ? 1 : 0;
}

int deleteShelf(const char* shelfName, const char* userName) {
  int32_t userId = 0;
  int32_t shelfId = 0;
  if (findUserByName(userName, &userId) != 1 || shelfIdByName(shelfName, &shelfId) != 1) return -1;
  BookShelfPower power(connection().currentServer);
  if (power.getPower(shelfId, userId) != kPowerReadWrite) return -1;

  WorkQuery query(kSystemDb);
  if (failed(query.open(kLinkTable, booksOfShelfSql(shelfId)))) return -1;
  if (query.rowCount() > 0) {
    query.close();
    showLibraryMessage(kShelfHasBooks);
    return -1;
  }
  if (failed(query.reopenTable(kShelfTable))) {
    query.abandon();
    return -1;
  }
  if (failed(connection().currentServer->DeleteRecord(toWide(kSystemDb).get(),
                                                      toWide(query.handle()).get(), shelfId))) {
    query.abandon();
    return -1;
  }
  if (query.close() != 1) return -1;
  // The shelf's row is gone by now: a failure here leaves its permission rows behind.
  return power.removeShelf(shelfId) == 1 ? 0 : -1;
}

int listShelves(ShelfEntry** list, int32_t* count) {
  WorkQuery query(kSystemDb);
  if (!openInDisplayOrder(query, kShelfTable,
                          sqlFormat("SELECT * FROM %s ORDER BY OrderNo, T_Index;", kShelfTable),
                          sqlFormat("SELECT * FROM %s;", kShelfTable))) {
    return -1;
  }
  if (query.rowCount() <= 0) return query.close() == 1 ? 0 : -1;  // the out arguments stay
  ResultBlock<ShelfEntry> block(static_cast<std::size_t>(query.rowCount()));
  if (!block.ok() || !readRecords(query, kShelfBindings, block)) {
    query.abandon();
    return -1;
  }
  for (std::size_t i = 0; i < block.size(); ++i) {
    block[i].BookCount = shelfBookCount(block[i].T_Index);
  }
  if (query.close() != 1) return -1;
  *count = static_cast<int32_t>(block.size());
  *list = block.release();
  return 0;
}

}  // namespace

TableDef withoutOrderNo(const TableDef& table) {
  const uint32_t orderNo = recordPosition(table, "OrderNo");
  return orderNo == 0 ? table : TableDef{table.db, table.name, table.columns.first(orderNo - 1)};
}

bool openInDisplayOrder(WorkQuery& query, const char* table, const std::string& ordered,
                        const std::string& plain) {
  return query.open(table, ordered) == 0 || !failed(query.open(table, plain));
}

int addShelfRow(const char* name, int32_t* shelfId) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || name == nullptr || shelfId == nullptr) return 0;
  int32_t counter = 0;
  if (failed(server->SetCounter(toWide(name).get(), 0, &counter))) return 0;
  if (counter > 0) return 0;

  WorkQuery query(kSystemDb);
  if (failed(query.open(kShelfTable, shelfByNameSql(name)))) return 0;
  if (query.rowCount() > 0) {
    query.close();
    return 0;  // the name is taken
  }
  // The row goes in through the handle of the query that found the name free.
  const TableDef& table = shelfTable();
  RecordWriter record(query.handle(), addRecordFields(table, KeyElement::Zero));
  const bool built =
      fillAddRecord(record, table, KeyElement::Zero, [&](const ColumnDef& c) -> ColumnValue {
        const std::string_view column = c.name;
        if (column == "Attribute") return kOrdinaryShelf;
        if (column == "BookShelfName") return std::string_view(name);
        return {};
      });
  int32_t newIndex = 0;
  if (!built || failed(server->AddRecord(toWide(kSystemDb).get(), record.get(), 1, &newIndex))) {
    query.abandon();
    return 0;
  }
  *shelfId = newIndex;  // the row stands even if the close fails
  return query.close();
}

int shelfIdByName(const char* name, int32_t* shelfId) {
  if (connection().currentServer == nullptr || name == nullptr || shelfId == nullptr) return 0;
  WorkQuery query(kSystemDb);
  if (failed(query.open(kShelfTable, shelfByNameSql(name)))) return 0;
  if (query.rowCount() == 0) {
    showLibraryMessage(kShelfNotFound);
    query.close();
    return 0;
  }
  Row row;
  if (!query.fetch(0, row)) {
    query.abandon();
    return 0;
  }
  if (query.close() != 1) return 0;
  const RowField* id = findField(row, "T_Index");
  *shelfId = id ? parseInt(id->value) : 0;
  return 1;
}

Lookup readShelf(int32_t shelfId, ShelfEntry& entry) {
  auto& c = connection();
  if (c.currentServer == nullptr) return Lookup::Failed;
  if (c.systemDbHeld == 0) {
    int32_t out = 0;
    if (failed(c.currentServer->OpenDatabase(toWide(kSystemDb).get(), kOpenHeld, &out))) {
      return Lookup::Failed;
    }
  }
  Row row;
  const Lookup found =
      lookupFirstRow(kSystemDb, kShelfTable,
                     sqlFormat("SELECT * FROM BookShelfTBL WHERE T_Index='%d'", shelfId), row);
  if (found == Lookup::Found) bindRow(row, kShelfBindings, &entry);
  return found;
}

int discardShelfId(int32_t* shelfId) {
  if (connection().currentServer == nullptr || shelfId == nullptr) return 0;
  WorkQuery query(kSystemDb);
  if (failed(query.open(kShelfTable, "SELECT T_Index FROM BookShelfTBL WHERE Attribute='1'"))) {
    return 0;
  }
  // Row 0 is asked for even when there is none: the server's answer is the failure.
  Row row;
  if (!query.fetch(0, row)) {
    query.abandon();
    return 0;
  }
  if (query.close() != 1) return 0;
  const RowField* id = findField(row, "T_Index");
  *shelfId = id ? parseInt(id->value) : 0;
  return 1;
}

int32_t shelfBookCount(int32_t shelfId) {
  if (connection().currentServer == nullptr) return 0;
  WorkQuery query(kSystemDb);
  if (query.open(kLinkTable, booksOfShelfSql(shelfId)) != 0) return 0;
  const int32_t count = std::max(query.rowCount(), 0);
  return query.close() == 1 ? count : 0;
}

}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVCreateBookshelf(const char* shelfName, const char* userName, int32_t* shelfId) {
  if (connection().currentServer == nullptr || shelfName == nullptr || userName == nullptr ||
      shelfId == nullptr) {
    return -1;
  }
  // A failure after the row was added leaves the shelf without its owner's permission.
  int32_t owner = 0;
  if (mv::addShelfForUser(shelfName, userName, shelfId, &owner) != 1) return -1;
  mv::BookShelfPower power(connection().currentServer);
  return power.setPower(*shelfId, owner, mv::kPowerReadWrite) == 1 ? 0 : -1;
}

MVAPI int MVCreateBookshelf2(const char* shelfName, const char* userName, int32_t* shelfId) {
  if (connection().currentServer == nullptr || shelfName == nullptr || userName == nullptr ||
      shelfId == nullptr) {
    return -1;
  }
  int32_t owner = 0;
  if (mv::addShelfForUser(shelfName, userName, shelfId, &owner) != 1) return -1;
  const int32_t newShelf = *shelfId;
  UserRec* users = nullptr;
  int32_t count = 0;
  if (MVGetUserList(&users, &count) != 0) return 0;  // a shelf with no permission row at all
  mv::BookShelfPower power(connection().currentServer);
  for (int32_t i = 0; i < count; ++i) {
    const int32_t user = users[i].tIndex;
    (void)power.setPower(newShelf, user, user == owner ? mv::kPowerReadWrite : mv::kPowerNone);
  }
  mv::freeResultBlock(users);
  return 0;
}

MVAPI int MVCopyBookshelfSurface(const char* newShelfName, int32_t sourceShelfId,
                                 const char* userName, int32_t* shelfId) {
  if (connection().currentServer == nullptr || newShelfName == nullptr || userName == nullptr ||
      shelfId == nullptr) {
    return -1;
  }
  int32_t owner = 0;
  if (mv::addShelfForUser(newShelfName, userName, shelfId, &owner) != 1) return -1;
  const int32_t newShelf = *shelfId;
  mv::BookShelfPower power(connection().currentServer);
  (void)power.setPower(newShelf, owner, mv::kPowerReadWrite);
  mv::PowerRow* rows = nullptr;
  int32_t count = 0;
  if (power.listShelfPowers(sourceShelfId, &rows, &count) == 1) {
    for (int32_t i = 0; i < count; ++i) {
      if (rows[i].userId != owner) (void)power.setPower(newShelf, rows[i].userId, rows[i].power);
    }
    mv::freeResultBlock(rows);
  }
  return 0;
}

MVAPI int MVChangeBookshelfName(const char* newName, int32_t shelfId, int32_t unused) {
  (void)unused;
  auto* server = connection().currentServer;
  if (server == nullptr || newName == nullptr) return -1;
  std::string handle;
  int32_t rows = 0;
  if (mv::openWorkTable(mv::kSystemDb, mv::kShelfTable, &rows, handle) != 1) return -1;
  // The name alone; Attribute stays an empty element. No test for a duplicate name here.
  const mv::TableDef& table = mv::shelfTable();
  mv::RecordWriter record(handle, static_cast<uint32_t>(table.columns.size()));
  record.putInt(mv::recordPosition(table, "T_Index"), "T_Index", mv::kTypeInt, 0);
  record.putText(mv::recordPosition(table, "BookShelfName"), "BookShelfName", mv::kTypeVarchar,
                 newName);
  int32_t index = shelfId;
  if (!record.ok() ||
      failed(server->UpdateRecord(mv::toWide(mv::kSystemDb).get(), record.get(), 1, &index))) {
    mv::abandonWorkTable(mv::kSystemDb, handle);
    return -1;
  }
  return mv::closeWorkTable(mv::kSystemDb, handle, 0) == 1 ? 0 : -1;
}

MVAPI int MVDeleteBookshelf(const char* shelfName, const char* userName) {
  if (connection().currentServer == nullptr || shelfName == nullptr || userName == nullptr) {
    return -1;
  }
  return mv::deleteShelf(shelfName, userName);
}

MVAPI int MVGetAllBookshelf(ShelfEntry** list, int32_t* count) {
  if (connection().currentServer == nullptr || list == nullptr || count == nullptr) return -1;
  return mv::listShelves(list, count);
}

MVAPI int MVIsExistBS(int32_t shelfId, int32_t* rowCount) {
  if (connection().currentServer == nullptr || rowCount == nullptr) return -1;
  mv::WorkQuery query(mv::kSystemDb);
  if (failed(query.open(mv::kShelfTable,
                        mv::sqlFormat("SELECT * FROM BookShelfTBL WHERE T_Index='%d'", shelfId)))) {
    *rowCount = 0;
    return -1;
  }
  const int32_t rows = query.rowCount();
  if (query.close() != 1) {
    *rowCount = 0;
    return -1;
  }
  *rowCount = rows;
  return 0;
}

MVAPI int MVRegistUser2(const char* name, const char* password, int32_t* userId) {
  if (MVRegistUser(name, password, userId) != 0) return -1;
  // The user exists from here: what follows can fail without failing the export.
  ShelfEntry* shelves = nullptr;
  int32_t count = 0;
  if (MVGetAllBookshelf(&shelves, &count) != 0 || shelves == nullptr) return 0;
  mv::BookShelfPower power(connection().currentServer);
  for (int32_t i = 0; i < count; ++i) {
    if (shelves[i].Attribute != mv::kDiscardShelf) {
      (void)power.setPower(shelves[i].T_Index, *userId, mv::kPowerNone);
    }
  }
  mv::freeResultBlock(shelves);
  return 0;
}

}  // extern "C"
