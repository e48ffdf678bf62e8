// The display order of shelves and of the books on a shelf, kept in OrderNo, which the library
// adds to a table that lacks it; and the counters the server keeps for books and by name.
#include <string>

#include "MVCore.h"
#include "books/shelves.h"
#include "frame/connection.h"
#include "frame/sql_text.h"

namespace mv {
namespace {

constexpr int kBadArguments = -4;

// The discard shelf's position, in front of every other shelf.
constexpr int32_t kDiscardPosition = -1;

// Adds OrderNo to `table` unless the server says it has it. An ALTER that fails (another client
// added the column meanwhile) is not looked at: the batch that follows tells.
void ensureOrderColumn(IBookServer& server, const char* table) {
  const Bstr db = toWide(kSystemDb);
  if (server.CheckColumn(db.get(), toWide(table).get(), toWide("OrderNo").get()) ==
      kStatusColumnExists) {
    return;
  }
  (void)server.ExecuteSQL(
      db.get(),
      toWide(sqlFormat("ALTER TABLE %s ADD OrderNo int DEFAULT %d NOT NULL;", table, kNoPosition))
          .get());
}

// Runs the updates as one transaction; the server's status is the result, and lastError is left
// alone.
int32_t runOrderBatch(IBookServer& server, const std::string& updates) {
  const std::string batch = "BEGIN TRAN T1;" + updates + "COMMIT TRAN T1;";
  return server.ExecuteSQL(toWide(kSystemDb).get(), toWide(batch).get());
}

}  // namespace
}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVSetBookShelfOrder(const OrderEntry* entries, int32_t count) {
  if (entries == nullptr || count < 1) return mv::kBadArguments;
  auto* server = connection().currentServer;
  if (server == nullptr) return -1;
  mv::ensureOrderColumn(*server, mv::kShelfTable);
  std::string updates;
  for (int32_t i = 0; i < count; ++i) {
    updates += mv::sqlFormat("UPDATE %s SET OrderNo=%d WHERE T_Index=%d;", mv::kShelfTable,
                             entries[i].position, entries[i].id);
  }
  // Last, so that it wins over an entry for the discard shelf.
  updates += mv::sqlFormat("UPDATE %s SET OrderNo=%d WHERE Attribute=%d;", mv::kShelfTable,
                           mv::kDiscardPosition, mv::kDiscardShelf);
  return mv::runOrderBatch(*server, updates);
}

MVAPI int MVSetBookOrder(int32_t shelfId, const OrderEntry* entries, int32_t count) {
  if (entries == nullptr || count < 1) return mv::kBadArguments;
  auto* server = connection().currentServer;
  if (server == nullptr) return -1;
  mv::ensureOrderColumn(*server, mv::kLinkTable);
  std::string updates;
  for (int32_t i = 0; i < count; ++i) {
    updates += mv::sqlFormat("UPDATE %s SET OrderNo=%d WHERE BookShelfID=%d AND BookID=%d;",
                             mv::kLinkTable, entries[i].position, shelfId, entries[i].id);
  }
  return mv::runOrderBatch(*server, updates);
}

MVAPI int MVGetBookUpdateCounter(const char* dbName, int32_t* counter) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || dbName == nullptr || counter == nullptr) return -1;
  uint8_t block[16] = {};  // what the server leaves in it is not read
  return failed(c.currentServer->GetBookUpdateCounter(mv::toWide(dbName).get(), block, counter))
             ? -1
             : 0;
}

MVAPI int MVSetBookUpdateCounter(const char* dbName) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || dbName == nullptr) return -1;
  return failed(c.currentServer->SetBookUpdateCounter(mv::toWide(dbName).get())) ? -1 : 0;
}

MVAPI int MVSetCounter(const char* name, int32_t op, int32_t* value) {
  auto* server = connection().currentServer;
  if (server == nullptr || name == nullptr || value == nullptr) return -1;
  return failed(server->SetCounter(mv::toWide(name).get(), op, value)) ? -1 : 0;
}

}  // extern "C"
