#include "frame/rows.h"

#include "MVCore.h"
#include "frame/connection.h"
#include "frame/handles.h"

namespace mv {

void* allocResultBlock(std::size_t bytes) {
  MVHGLOBAL h = MVGlobalAlloc(MV_GMEM_MOVEABLE | MV_GMEM_ZEROINIT, bytes);
  if (h == nullptr) return nullptr;
  void* p = MVGlobalLock(h);
  if (p == nullptr) MVGlobalFree(h);
  return p;
}

void freeResultBlock(const void* p) {
  if (p == nullptr) return;
  MVHGLOBAL h = MVGlobalHandle(p);
  if (h == nullptr) return;
  MVGlobalUnlock(h);
  MVGlobalFree(h);
}

namespace {

// Runs `close` and puts back the lastError it found.
template <typename F>
void keepingLastError(F close) {
  const int32_t kept = connection().lastError;
  close();
  connection().lastError = kept;
}

}  // namespace

WorkQuery::WorkQuery(const char* dbName, Db db) : db_(dbName ? dbName : ""), mode_(db) {}

WorkQuery::~WorkQuery() {
  if (open_) abandon();
}

int32_t WorkQuery::open(const char* tableName, std::string_view sql) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr) return -1;
  if (open_) abandon();
  const Bstr db = toWide(db_);
  const bool heldSystemDb = connection().systemDbHeld == 1 && db_ == kSystemDb;
  if (mode_ == Db::OpenUnlessHeld && !heldSystemDb) {
    int32_t out = 0;
    const int32_t status = server->OpenDatabase(db.get(), kOpenForWork, &out);
    if (status != 0) return status;
  }
  rows_ = 0;
  Bstr h;
  const int32_t status = server->ExecuteQuery(db.get(), toWide(tableName).get(), toWide(sql).get(),
                                              0, &rows_, h.out());
  if (status != 0) {
    // Nothing to end but the database: no CloseTable for a handle that never came.
    rows_ = 0;
    handle_.clear();
    keepingLastError([&] { closeWorkDatabase(db_.c_str()); });
    return status;
  }
  handle_ = toAnsi(h.get());
  open_ = true;
  return 0;
}

bool WorkQuery::read(int32_t rowIndex, Row& row, int32_t& status) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || !open_) {
    status = -1;
    row.clear();
    return false;
  }
  return fetchRow(*server, toWide(db_).get(), toWide(handle_).get(), rowIndex, row, status);
}

bool WorkQuery::fetch(int32_t rowIndex, Row& row) {
  int32_t status = 0;
  if (read(rowIndex, row, status)) return true;
  connection().lastError = status;
  return false;
}

int32_t WorkQuery::reopenTable(const char* tableName) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr || !open_) return -1;
  const Bstr db = toWide(db_);
  int32_t status = server->CloseTable(db.get(), toWide(handle_).get());
  handle_.clear();
  rows_ = 0;
  if (status == 0) {
    Bstr h;
    status = server->OpenTable(db.get(), toWide(tableName).get(), 0, &rows_, h.out());
    if (status == 0) handle_ = toAnsi(h.get());
  }
  return status;
}

int WorkQuery::close(int unlock) {
  if (!open_) return 1;
  open_ = false;
  // After a failed reopen no handle is left, only the database.
  if (handle_.empty()) return closeWorkDatabase(db_.c_str());
  return closeWorkTable(db_.c_str(), handle_, unlock);
}

void WorkQuery::abandon() {
  keepingLastError([&] { close(); });
}

Lookup lookupFirstRow(const char* dbName, const char* tableName, std::string_view sql, Row& row) {
  row.clear();
  WorkQuery query(dbName);
  if (failed(query.open(tableName, sql))) return Lookup::Failed;
  if (query.rowCount() == 0) return query.close() == 1 ? Lookup::Missing : Lookup::Failed;
  if (!query.fetch(0, row)) {
    query.abandon();
    return Lookup::Failed;
  }
  return query.close() == 1 ? Lookup::Found : Lookup::Failed;
}

bool readRecords(WorkQuery& query, int32_t count, std::span<const FieldBinding> bindings,
                 void* records, std::size_t recordSize) {
  auto* base = static_cast<unsigned char*>(records);
  Row row;
  for (int32_t i = 0; i < count; ++i) {
    if (!query.fetch(i, row)) return false;
    bindRow(row, bindings, base + static_cast<std::size_t>(i) * recordSize);
  }
  return true;
}

}  // namespace mv
