// What the book server needs of a storage engine: named databases holding the catalogue's
// tables, single-statement reads as snapshots, keyed row writes, streamed blobs and a little
// bookkeeping of the server's own. Sessions, handles and mutexes stay in the server core: an
// engine knows nothing of clients.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "frame/catalogue.h"

namespace mv::server {

// One stored value. Texts are UTF-8.
struct Value {
  enum class Kind { Null, Int, Real, Text };
  Kind kind = Kind::Null;
  int64_t i = 0;
  double r = 0;
  std::string text;

  static Value ofInt(int64_t v) { return {Kind::Int, v, 0, {}}; }
  static Value ofReal(double v) { return {Kind::Real, 0, v, {}}; }
  static Value ofText(std::string v) { return {Kind::Text, 0, 0, std::move(v)}; }
};

struct ResultColumn {
  std::string name;
  ColumnType type = ColumnType::Varchar;  // as declared in the table; blobs are never fetched
};

// A read, taken whole when it runs: later writes do not change it.
struct Snapshot {
  std::vector<ResultColumn> columns;
  std::vector<std::vector<Value>> rows;
};

using ColumnValues = std::vector<std::pair<std::string, Value>>;

// A blob being read. Bytes are read where the caller wants them, piece by piece, so a long blob
// never sits in memory whole. A reader keeps reading the content it opened even when the row is
// given new content or deleted meanwhile.
class BlobReader {
 public:
  virtual ~BlobReader() = default;
  virtual int64_t size() const = 0;
  // Up to `max` bytes from `offset` into `data` (none past the end): the count, -1 on failure.
  virtual std::ptrdiff_t read(int64_t offset, uint8_t* data, std::size_t max,
                              std::string& error) = 0;
};

// A blob being written front to back. Nothing of it is visible until commit(), which makes it
// the column's content in one step; a writer dropped uncommitted leaves nothing behind.
class BlobWriter {
 public:
  virtual ~BlobWriter() = default;
  virtual bool write(const uint8_t* data, std::size_t size, std::string& error) = 0;
  virtual int64_t size() const = 0;
  // Fails, storing nothing, when the row has gone meanwhile.
  virtual bool commit(std::string& error) = 0;
};

// What a look through the stored content found.
struct ContentCheck {
  int64_t items = 0;                 // blobs the rows name
  int64_t bytes = 0;                 // their size
  std::vector<std::string> orphans;  // content no row names (removed by a repair)
  std::vector<std::string> missing;  // "<database> <table> <key> <column>": content gone
};

// One database. Safe to use from several threads; each call is atomic on its own.
class Database {
 public:
  virtual ~Database() = default;

  // Runs one SELECT of the engine's own dialect.
  virtual bool query(const std::string& sql, Snapshot& out, std::string& error) = 0;
  // Runs statements that change rows or tables; as one transaction when `atomic`, rolled back
  // whole on any failure.
  virtual bool execute(const std::vector<std::string>& statements, bool atomic,
                       std::string& error) = 0;

  virtual bool hasTable(std::string_view table) = 0;
  virtual bool hasColumn(std::string_view table, std::string_view column) = 0;
  // The table's columns in order, with their types; empty for a missing table.
  virtual std::vector<ResultColumn> columns(std::string_view table) = 0;
  // Creates a catalogue table; `skip` names columns left out (an older layout).
  virtual bool createTable(const TableDef& table, const std::vector<std::string>& skip,
                           std::string& error) = 0;

  // Adds a row with the given columns; the engine assigns the key (T_Index).
  virtual bool insert(std::string_view table, const ColumnValues& values, int64_t* key,
                      std::string& error) = 0;
  // Changes columns of the row with that key; false with an empty error when there is none.
  virtual bool update(std::string_view table, int64_t key, const ColumnValues& values,
                      std::string& error) = 0;
  virtual bool remove(std::string_view table, const std::vector<int64_t>& keys,
                      std::string& error) = 0;
  virtual bool rowExists(std::string_view table, int64_t key) = 0;

  // Starts new content for a blob column of one row, in bounded memory whatever its size;
  // nullptr with `error` when there is no such row or column.
  virtual std::unique_ptr<BlobWriter> writeBlob(std::string_view table, std::string_view column,
                                                int64_t key, std::string& error) = 0;
  // Opens a blob column of one row for reading; nullptr with `error` when there is no such row
  // or column. A column without content reads as empty.
  virtual std::unique_ptr<BlobReader> openBlob(std::string_view table, std::string_view column,
                                               int64_t key, std::string& error) = 0;

  // The server's own values kept with the database (counters, file dates), by name.
  virtual bool getMeta(std::string_view name, Value& value) = 0;
  virtual bool setMeta(std::string_view name, const Value& value, std::string& error) = 0;
  // Adds `delta` to an integer value (missing counts as 0) and gives the result.
  virtual bool addMeta(std::string_view name, int64_t delta, int64_t* result,
                       std::string& error) = 0;

  // Bytes the database takes on its medium, its blobs included.
  virtual int64_t sizeBytes() = 0;
};

// The set of databases in one data folder.
class StorageEngine {
 public:
  virtual ~StorageEngine() = default;

  virtual bool exists(std::string_view name) = 0;
  // Opens (and with `create`, makes an empty) database; nullptr with `error` on failure.
  virtual std::shared_ptr<Database> open(std::string_view name, bool create,
                                         std::string& error) = 0;
  // Copies a database whole, consistently even while it is in use; fails if `to` exists.
  virtual bool copy(std::string_view from, std::string_view to, std::string& error) = 0;
  virtual bool remove(std::string_view name, std::string& error) = 0;
  virtual bool rename(std::string_view from, std::string_view to, std::string& error) = 0;
  // A book leaves and comes back as one file: a consistent copy of the database with its blobs
  // at `path`, and the way back, which replaces the database and its blobs whole. Callers never
  // see how an engine keeps blobs; the file is the same whatever it does.
  virtual bool exportFile(std::string_view name, const std::string& path, std::string& error) = 0;
  virtual bool importFile(std::string_view name, const std::string& path, std::string& error) = 0;
  // Looks through the blobs of every database for content no row names and rows whose content
  // is gone; with `repair`, removes the first.
  virtual ContentCheck checkContent(bool repair) = 0;
  virtual std::vector<std::string> list() = 0;
  // "SQLite 3.40.1" and the like.
  virtual std::string describe() = 0;
};

// Makes the engine of one data folder. `folder` is the data folder's db/, made before the call;
// an engine that keeps its databases elsewhere may ignore it. nullptr with `error` when the
// engine cannot be had.
using EngineFactory =
    std::function<std::unique_ptr<StorageEngine>(const std::string& folder, std::string& error)>;

}  // namespace mv::server
