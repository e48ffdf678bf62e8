// The tag tree of a book, and the frame that the exports on a book's contents and on the view
// definitions work in: one database opened for the length of an export unless the application
// holds it, and one table handle at a time inside it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "frame/IBookServer.h"
#include "frame/exchange.h"
#include "frame/records.h"
#include "platform/wide.h"

namespace mv {

// One export's work on a database. Which flag of the ConnectionState says that the application
// holds the database decides whether it is opened and closed here. Server statuses come back to
// the caller, who decides whether they reach lastError; finish() stores its own. Work still open
// when the object goes out of scope is closed as by abandon().
class DbWork {
 public:
  enum class Holder { Book, System };  // bookDbHeld (MVOpenDBEx), systemDbHeld (MVOpenDB)

  DbWork(const char* dbName, Holder holder);
  DbWork(const DbWork&) = delete;
  DbWork& operator=(const DbWork&) = delete;
  ~DbWork();

  // OpenDatabase in mode 0 unless held. False with the status in lastError.
  bool openDb();

  // Each opens a handle (the row count preset to 0) and gives the status; on a failure no
  // handle is kept. Any handle still open is closed first.
  int32_t openTable(const char* table, int32_t mode);
  int32_t openTableEx(const char* table, std::string_view sql, int32_t flag);
  int32_t executeQuery(const char* table, std::string_view sql);
  int32_t rowCount() const { return rows_; }
  const std::string& handle() const { return handle_; }
  bool hasHandle() const { return hasHandle_; }

  // CloseTable of the open handle (0 when there is none); the handle is forgotten either way.
  int32_t closeTable();

  // Closes the handle, if any, and the database unless held. True when both went well; else
  // the first failure's status is in lastError.
  bool finish();
  // The same on the way out after a failure: lastError keeps the code it had.
  void abandon();

  IBookServer& server() const { return *server_; }
  BSTR db() const { return db_.get(); }

 private:
  IBookServer* server_;
  Bstr db_;
  bool closeDb_ = false;
  bool hasHandle_ = false;
  int32_t rows_ = 0;
  std::string handle_;
};

// The value of `column` in a fixed record described by bindings, for a record that goes to the
// server: a text is read up to its terminator or the end of its field, and cut at a character
// boundary to what the field holds with a terminator.
ColumnValue recordValue(const void* record, std::span<const FieldBinding> bindings,
                        const ColumnDef& column);

// Copies the first `columns` elements of a row into `record` by the bindings, comparing names
// without regard to case; texts are cut at a character boundary to fit their fields.
void bindFirstColumns(const Row& row, std::size_t columns, std::span<const FieldBinding> bindings,
                      void* record);

}  // namespace mv
