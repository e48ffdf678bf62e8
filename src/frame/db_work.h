// The frame an export on a database works in: the database opened for the length of the export
// unless the application holds it, one table handle at a time inside it, and the close of both on
// every way out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "frame/IBookServer.h"
#include "frame/exchange.h"
#include "platform/wide.h"

namespace mv {

// One export's work on a database, through the current server. The statuses of the opens and of
// closeTable come back to the caller, who decides whether they reach lastError; openDb, fetch and
// finish store their own. Work still open when the object goes out of scope is closed as by
// abandon().
class DbWork {
 public:
  // Which flag of the ConnectionState says that the application holds the database: bookDbHeld
  // (MVOpenDBEx) or systemDbHeld (MVOpenDB).
  enum class Holder { Book, System };
  // Always: a few exports open and close the database even while the application holds it.
  enum class Open { UnlessHeld, Always };

  explicit DbWork(const char* dbName, Holder holder = Holder::Book, Open open = Open::UnlessHeld);
  DbWork(const DbWork&) = delete;
  DbWork& operator=(const DbWork&) = delete;
  ~DbWork();

  // OpenDatabase in mode 0 unless held. False with the status in lastError.
  bool openDb();

  // Each opens a handle (the row count preset to 0) and gives the status; on a failure no
  // handle is kept. Any handle still open is closed first, its status dropped.
  int32_t openTable(const char* table, int32_t mode);
  int32_t openTableEx(const char* table, std::string_view sql, int32_t flag);
  int32_t executeQuery(const char* table, std::string_view sql);
  // Works through a handle that the application opened and closes: it is never closed here.
  void borrowHandle(const std::string& handle);

  int32_t rowCount() const { return rows_; }
  bool hasHandle() const { return hasHandle_; }
  BSTR handle() const { return handle_.get(); }
  const std::string& handleText() const { return handleText_; }

  // GetRecords of one row of the handle; a failure stores the method's status in lastError (0
  // for a row that is not an array of texts).
  bool fetch(int32_t rowIndex, Row& row);

  // UpdateRecord of row `key` through the handle; false for a record that could not be built,
  // or with the server's status in lastError.
  bool updateRecord(RecordWriter& record, int32_t key);

  // CloseTable of an own handle (0 when there is none or it is borrowed), the database staying
  // open for the next table; the handle is forgotten either way.
  int32_t closeTable();

  // Closes the handle, if any, and the database unless held. True when both went well; else the
  // first failure's status is in lastError (the database is still closed after a failed
  // CloseTable).
  bool finish();
  // The same on the way out after a failure: lastError keeps the code it had.
  void abandon();

  IBookServer& server() const { return *server_; }
  BSTR db() const { return db_.get(); }
  const std::string& dbName() const { return dbName_; }

 private:
  template <typename OpenCall>
  int32_t openHandle(OpenCall open);

  IBookServer* server_;
  std::string dbName_;
  Bstr db_;
  bool mayOpenDb_;
  bool closeDb_ = false;
  bool hasHandle_ = false;
  bool ownHandle_ = false;
  int32_t rows_ = 0;
  Bstr handle_;
  std::string handleText_;
};

}  // namespace mv
