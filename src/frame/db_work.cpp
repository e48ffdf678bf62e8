#include "frame/db_work.h"

#include <utility>

#include "frame/connection.h"

namespace mv {

DbWork::DbWork(const char* dbName, Holder holder, Open open)
    : server_(connection().currentServer), dbName_(dbName), db_(toWide(dbName)) {
  const auto& c = connection();
  const bool held = holder == Holder::Book ? c.bookDbHeld == 1 : c.systemDbHeld == 1;
  mayOpenDb_ = open == Open::Always || !held;
}

DbWork::~DbWork() { abandon(); }

bool DbWork::openDb() {
  if (!mayOpenDb_) return true;
  int32_t out = 0;
  if (failed(server_->OpenDatabase(db_.get(), kOpenForWork, &out))) return false;
  closeDb_ = true;
  return true;
}

template <typename OpenCall>
int32_t DbWork::openHandle(OpenCall open) {
  (void)closeTable();
  rows_ = 0;
  Bstr h;
  const int32_t status = open(&rows_, h.out());
  if (status != 0) {
    rows_ = 0;
    return status;
  }
  handleText_ = toAnsi(h.get());
  handle_ = std::move(h);
  hasHandle_ = ownHandle_ = true;
  return 0;
}

int32_t DbWork::openTable(const char* table, int32_t mode) {
  return openHandle([&](int32_t* rows, BSTR* h) {
    return server_->OpenTable(db_.get(), toWide(table).get(), mode, rows, h);
  });
}

int32_t DbWork::openTableEx(const char* table, std::string_view sql, int32_t flag) {
  return openHandle([&](int32_t* rows, BSTR* h) {
    return server_->OpenTableEx(db_.get(), toWide(table).get(), toWide(sql).get(), flag, rows, h);
  });
}

int32_t DbWork::executeQuery(const char* table, std::string_view sql) {
  return openHandle([&](int32_t* rows, BSTR* h) {
    return server_->ExecuteQuery(db_.get(), toWide(table).get(), toWide(sql).get(), 0, rows, h);
  });
}

void DbWork::borrowHandle(const std::string& handle) {
  (void)closeTable();
  handleText_ = handle;
  handle_ = toWide(handle);
  hasHandle_ = true;
  ownHandle_ = false;
}

bool DbWork::fetch(int32_t rowIndex, Row& row) {
  int32_t status = 0;
  if (fetchRow(*server_, db_.get(), handle_.get(), rowIndex, row, status)) return true;
  connection().lastError = status;
  return false;
}

bool DbWork::updateRecord(RecordWriter& record, int32_t key) {
  return record.ok() && !failed(server_->UpdateRecord(db_.get(), record.get(), 1, &key));
}

int32_t DbWork::closeTable() {
  const bool own = hasHandle_ && ownHandle_;
  hasHandle_ = ownHandle_ = false;
  rows_ = 0;
  if (!own) return 0;
  return server_->CloseTable(db_.get(), handle_.get());
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

}  // namespace mv
