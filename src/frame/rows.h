// Reading results and handing lists out: the open, row-by-row, close pattern that every reading
// operation follows, and the blocks of global memory that lists travel in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "frame/exchange.h"

namespace mv {

// Address of a new zero-filled, locked block of global memory of `bytes` bytes, or nullptr when
// out of memory. The application frees such a block with MVGlobalFree(MVGlobalHandle(p)), the
// library with freeResultBlock.
void* allocResultBlock(std::size_t bytes);
// Unlocks and frees a block of allocResultBlock; null is ignored.
void freeResultBlock(const void* p);

// A list of `count` fixed records in one block, freed on destruction unless handed out. A count
// of 0 still gives a block: an empty list is a valid answer.
template <typename T>
class ResultBlock {
  static_assert(std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T>);

 public:
  explicit ResultBlock(std::size_t count)
      : count_(count),
        data_(count > SIZE_MAX / sizeof(T) ? nullptr
                                           : static_cast<T*>(allocResultBlock(count * sizeof(T)))) {
  }
  ResultBlock(const ResultBlock&) = delete;
  ResultBlock& operator=(const ResultBlock&) = delete;
  ~ResultBlock() { freeResultBlock(data_); }

  bool ok() const { return data_ != nullptr; }
  std::size_t size() const { return count_; }
  T* data() const { return data_; }
  T& operator[](std::size_t i) const { return data_[i]; }
  // Hands the block over: from here its new owner frees it.
  T* release() { return std::exchange(data_, nullptr); }

 private:
  std::size_t count_;
  T* data_;
};

// One result of a SELECT, read row by row and closed with closeWorkTable. The server's statuses
// come back to the caller, who decides whether they reach lastError; only the closes of the
// handle helpers store their own. A query still open when it goes out of scope is closed as by
// abandon().
class WorkQuery {
 public:
  // CountedOn: the database is taken as open (the system database, which the application holds
  // through MVOpenDB). OpenUnlessHeld: OpenDatabase in mode 0 first, unless the application
  // holds it. Either way the close is closeWorkTable's, which closes the database unless held.
  enum class Db { CountedOn, OpenUnlessHeld };

  explicit WorkQuery(const char* dbName, Db db = Db::CountedOn);
  WorkQuery(const WorkQuery&) = delete;
  WorkQuery& operator=(const WorkQuery&) = delete;
  ~WorkQuery();

  // ExecuteQuery(db, tableName, sql, 0) with the row count preset to 0. 0, or the failing status
  // (of OpenDatabase or ExecuteQuery) after closing the database again; lastError is left as it
  // was. -1 without a link.
  int32_t open(const char* tableName, std::string_view sql);
  bool isOpen() const { return open_; }
  int32_t rowCount() const { return rows_; }
  const std::string& handle() const { return handle_; }

  // GetRecords of one row. False when the server failed or sent no array of texts; `status` is
  // the method's status, which is 0 for a wrong variant.
  bool read(int32_t rowIndex, Row& row, int32_t& status);
  // The same as a reading export does it: a failure stores the method's status in lastError.
  bool fetch(int32_t rowIndex, Row& row);

  // Ends this result with CloseTable alone and opens `tableName` whole with OpenTable in mode 0,
  // on the same open database: the way from a test query to the handle that writes. 0, or the
  // failing status; after a failure only the database is left to close.
  int32_t reopenTable(const char* tableName);

  // closeWorkTable(db, handle, unlock): 1, or 0 with the first failure in lastError. A query
  // whose open failed has nothing more to close and gives 1.
  int close(int unlock = 0);
  // The close on the way out after a failure: as close(), but lastError keeps the code it had,
  // the first failure's.
  void abandon();

 private:
  std::string db_;
  Db mode_;
  bool open_ = false;
  int32_t rows_ = 0;
  std::string handle_;
};

// The first row of a SELECT on a database counted on as open: open, GetRecords of row 0 when
// there is one, close. Failed on any failure, the close's included, with the first code in
// lastError; Missing when the result is empty.
enum class Lookup { Found, Missing, Failed };
Lookup lookupFirstRow(const char* dbName, const char* tableName, std::string_view sql, Row& row);

// Reads rows 0 .. count-1 of an open query into consecutive records of `recordSize` bytes,
// binding columns by name. False at the first row that fails, its status stored in lastError.
bool readRecords(WorkQuery& query, int32_t count, std::span<const FieldBinding> bindings,
                 void* records, std::size_t recordSize);
template <typename T>
bool readRecords(WorkQuery& query, std::span<const FieldBinding> bindings, ResultBlock<T>& block) {
  return readRecords(query, static_cast<int32_t>(block.size()), bindings, block.data(), sizeof(T));
}

}  // namespace mv
