#include "server/sqlite/sqlite_engine.h"

#include <sqlite3.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

namespace mv::server {

namespace {

namespace stdfs = std::filesystem;

constexpr char kSuffix[] = ".sqlite";
constexpr std::size_t kBlobChunk = std::size_t{256} * 1024;

std::string quoteIdent(std::string_view name) {
  std::string s = "\"";
  for (char c : name) {
    if (c == '"') s += '"';
    s += c;
  }
  return s + "\"";
}

// Declared types chosen so that SQLite's affinity keeps each value as the data model means it:
// datetime stays text (14 digits would otherwise become an integer), blobs stay bytes.
const char* declaredType(ColumnType type) {
  switch (type) {
    case ColumnType::Int:
      return "INT";
    case ColumnType::Varchar:
      return "VARCHAR";
    case ColumnType::Datetime:
      return "DATETIME TEXT";
    case ColumnType::Float:
      return "FLOAT";
    case ColumnType::Image:
      return "IMAGE BLOB";
    case ColumnType::Binary:
      return "BINARY BLOB";
  }
  return "VARCHAR";
}

ColumnType typeOfDeclared(const char* declared, int valueType) {
  if (declared == nullptr) {
    if (valueType == SQLITE_INTEGER) return ColumnType::Int;
    if (valueType == SQLITE_FLOAT) return ColumnType::Float;
    return ColumnType::Varchar;
  }
  std::string d(declared);
  std::transform(d.begin(), d.end(), d.begin(), [](unsigned char c) { return std::toupper(c); });
  if (d.rfind("DATETIME", 0) == 0) return ColumnType::Datetime;
  if (d.rfind("IMAGE", 0) == 0) return ColumnType::Image;
  if (d.rfind("BINARY", 0) == 0 || d == "BLOB") return ColumnType::Binary;
  if (d.rfind("FLOAT", 0) == 0 || d.rfind("REAL", 0) == 0) return ColumnType::Float;
  if (d.find("INT") != std::string::npos) return ColumnType::Int;
  return ColumnType::Varchar;
}

bool isBlob(ColumnType t) { return t == ColumnType::Image || t == ColumnType::Binary; }

// Database names become file names: letters, digits, '_' and '-' stay, every other byte is
// written as %XX, so no name can reach outside the folder.
std::string escapeName(std::string_view name) {
  std::string s;
  for (unsigned char c : name) {
    if (std::isalnum(c) || c == '_' || c == '-') {
      s += static_cast<char>(c);
    } else {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%%%02X", c);
      s += buf;
    }
  }
  return s;
}

std::string unescapeName(std::string_view file) {
  std::string s;
  for (std::size_t i = 0; i < file.size(); ++i) {
    if (file[i] == '%' && i + 2 < file.size()) {
      s += static_cast<char>(std::stoi(std::string(file.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      s += file[i];
    }
  }
  return s;
}

class Statement {
 public:
  Statement(sqlite3* db, std::string_view sql) {
    const char* tail = nullptr;
    rc_ = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, &tail);
    if (rc_ == SQLITE_OK && tail != nullptr) {
      // One statement only: anything but blanks and one ';' after it is refused.
      std::string_view rest(tail, static_cast<std::size_t>(sql.data() + sql.size() - tail));
      const auto first = rest.find_first_not_of(" \t\r\n;");
      if (first != std::string_view::npos) rc_ = SQLITE_MISUSE;
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return rc_ == SQLITE_OK && stmt_ != nullptr; }
  sqlite3_stmt* get() const { return stmt_; }

  void bind(int index, const Value& v) {
    switch (v.kind) {
      case Value::Kind::Null:
        sqlite3_bind_null(stmt_, index);
        break;
      case Value::Kind::Int:
        sqlite3_bind_int64(stmt_, index, v.i);
        break;
      case Value::Kind::Real:
        sqlite3_bind_double(stmt_, index, v.r);
        break;
      case Value::Kind::Text:
        sqlite3_bind_text(stmt_, index, v.text.data(), static_cast<int>(v.text.size()),
                          SQLITE_TRANSIENT);
        break;
    }
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int rc_ = SQLITE_ERROR;
};

class SqliteBlobReader;

class SqliteDatabase final : public Database, public std::enable_shared_from_this<SqliteDatabase> {
 public:
  SqliteDatabase(sqlite3* db) : db_(db) {}
  ~SqliteDatabase() override { sqlite3_close_v2(db_); }

  sqlite3* handle() { return db_; }
  std::mutex& mutex() { return mutex_; }
  // Blobs open for reading; with the mutex held.
  std::set<SqliteBlobReader*>& readers() { return readers_; }
  // Ends every open read (their next piece fails), with the mutex held: an open blob keeps a
  // statement active, and the content cannot be replaced under it.
  void endReaders();

  bool query(const std::string& sql, Snapshot& out, std::string& error) override {
    std::lock_guard lock(mutex_);
    Statement st(db_, sql);
    if (!st.ok()) return fail(error);
    if (!sqlite3_stmt_readonly(st.get())) {
      error = "only reading statements are run as queries";
      return false;
    }
    out = Snapshot{};
    const int n = sqlite3_column_count(st.get());
    bool typed = false;
    for (int i = 0; i < n; ++i) {
      out.columns.push_back({sqlite3_column_name(st.get(), i), ColumnType::Varchar});
    }
    for (;;) {
      const int rc = sqlite3_step(st.get());
      if (rc == SQLITE_DONE) break;
      if (rc != SQLITE_ROW) return fail(error);
      if (!typed) {
        // The declared type first: asking a blob column for its value's type would load it.
        for (int i = 0; i < n; ++i) {
          const char* declared = sqlite3_column_decltype(st.get(), i);
          out.columns[static_cast<std::size_t>(i)].type =
              typeOfDeclared(declared, declared ? SQLITE_NULL : sqlite3_column_type(st.get(), i));
        }
        typed = true;
      }
      std::vector<Value> row(static_cast<std::size_t>(n));
      for (int i = 0; i < n; ++i) {
        // Blob columns travel in blocks only: their bytes are never loaded for a snapshot.
        if (isBlob(out.columns[static_cast<std::size_t>(i)].type)) continue;
        row[static_cast<std::size_t>(i)] = valueAt(st.get(), i);
      }
      out.rows.push_back(std::move(row));
    }
    if (!typed) {
      for (int i = 0; i < n; ++i) {
        out.columns[static_cast<std::size_t>(i)].type =
            typeOfDeclared(sqlite3_column_decltype(st.get(), i), SQLITE_NULL);
      }
    }
    return true;
  }

  bool execute(const std::vector<std::string>& statements, bool atomic,
               std::string& error) override {
    std::lock_guard lock(mutex_);
    if (atomic && !exec("BEGIN IMMEDIATE", error)) return false;
    for (const std::string& sql : statements) {
      Statement st(db_, sql);
      if (!st.ok() || sqlite3_step(st.get()) != SQLITE_DONE) {
        fail(error);
        // A failed statement leaves SQLite's transaction open: take the whole batch back.
        if (atomic) {
          std::string ignored;
          exec("ROLLBACK", ignored);
        }
        return false;
      }
    }
    return !atomic || exec("COMMIT", error);
  }

  bool hasTable(std::string_view table) override { return !columns(table).empty(); }

  bool hasColumn(std::string_view table, std::string_view column) override {
    for (const ResultColumn& c : columns(table)) {
      if (sqlite3_stricmp(c.name.c_str(), std::string(column).c_str()) == 0) return true;
    }
    return false;
  }

  std::vector<ResultColumn> columns(std::string_view table) override {
    std::lock_guard lock(mutex_);
    std::vector<ResultColumn> cols;
    if (table.rfind("sqlite_", 0) == 0) return cols;
    Statement st(db_, "SELECT name, type FROM pragma_table_info(?1)");
    if (!st.ok()) return cols;
    sqlite3_bind_text(st.get(), 1, table.data(), static_cast<int>(table.size()), SQLITE_TRANSIENT);
    while (sqlite3_step(st.get()) == SQLITE_ROW) {
      const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(st.get(), 0));
      const auto* type = reinterpret_cast<const char*>(sqlite3_column_text(st.get(), 1));
      cols.push_back({name ? name : "", typeOfDeclared(type, SQLITE_NULL)});
    }
    return cols;
  }

  bool createTable(const TableDef& table, const std::vector<std::string>& skip,
                   std::string& error) override {
    std::string sql = "CREATE TABLE " + quoteIdent(table.name) + " (";
    bool first = true;
    for (const ColumnDef& c : table.columns) {
      if (std::find(skip.begin(), skip.end(), c.name) != skip.end()) continue;
      if (!first) sql += ", ";
      first = false;
      sql += quoteIdent(c.name);
      if (std::string_view(c.name) == "T_Index") {
        sql += " INTEGER PRIMARY KEY";  // the row's key, given out on insert
      } else {
        sql += ' ';
        sql += declaredType(c.type);
        if (c.type == ColumnType::Varchar && c.width > 0)
          sql += "(" + std::to_string(c.width) + ")";
      }
    }
    sql += ")";
    return execute({sql}, false, error);
  }

  bool insert(std::string_view table, const ColumnValues& values, int64_t* key,
              std::string& error) override {
    std::string sql = "INSERT INTO " + quoteIdent(table);
    if (values.empty()) {
      sql += " DEFAULT VALUES";
    } else {
      std::string names, marks;
      for (std::size_t i = 0; i < values.size(); ++i) {
        names += (i ? "," : "") + quoteIdent(values[i].first);
        marks += i ? ",?" : "?";
      }
      sql += " (" + names + ") VALUES (" + marks + ")";
    }
    std::lock_guard lock(mutex_);
    Statement st(db_, sql);
    if (!st.ok()) return fail(error);
    for (std::size_t i = 0; i < values.size(); ++i)
      st.bind(static_cast<int>(i + 1), values[i].second);
    if (sqlite3_step(st.get()) != SQLITE_DONE) return fail(error);
    *key = sqlite3_last_insert_rowid(db_);
    return true;
  }

  bool update(std::string_view table, int64_t key, const ColumnValues& values,
              std::string& error) override {
    if (values.empty()) {
      error.clear();
      return rowExists(table, key);
    }
    std::string sql = "UPDATE " + quoteIdent(table) + " SET ";
    for (std::size_t i = 0; i < values.size(); ++i) {
      sql += (i ? "," : "") + quoteIdent(values[i].first) + "=?";
    }
    sql += " WHERE T_Index=?";
    std::lock_guard lock(mutex_);
    Statement st(db_, sql);
    if (!st.ok()) return fail(error);
    for (std::size_t i = 0; i < values.size(); ++i)
      st.bind(static_cast<int>(i + 1), values[i].second);
    sqlite3_bind_int64(st.get(), static_cast<int>(values.size() + 1), key);
    if (sqlite3_step(st.get()) != SQLITE_DONE) return fail(error);
    error.clear();
    return sqlite3_changes(db_) > 0;
  }

  bool remove(std::string_view table, const std::vector<int64_t>& keys,
              std::string& error) override {
    std::lock_guard lock(mutex_);
    if (!exec("BEGIN IMMEDIATE", error)) return false;
    Statement st(db_, "DELETE FROM " + quoteIdent(table) + " WHERE T_Index=?");
    bool ok = st.ok();
    for (std::size_t i = 0; ok && i < keys.size(); ++i) {
      sqlite3_bind_int64(st.get(), 1, keys[i]);
      ok = sqlite3_step(st.get()) == SQLITE_DONE;
      sqlite3_reset(st.get());
    }
    if (!ok) {
      fail(error);
      std::string ignored;
      exec("ROLLBACK", ignored);
      return false;
    }
    return exec("COMMIT", error);
  }

  bool rowExists(std::string_view table, int64_t key) override {
    std::lock_guard lock(mutex_);
    Statement st(db_, "SELECT 1 FROM " + quoteIdent(table) + " WHERE T_Index=?");
    if (!st.ok()) return false;
    sqlite3_bind_int64(st.get(), 1, key);
    return sqlite3_step(st.get()) == SQLITE_ROW;
  }

  bool writeBlob(std::string_view table, std::string_view column, int64_t key, int64_t size,
                 const ByteSource& source, std::string& error) override {
    std::lock_guard lock(mutex_);
    if (size < 0 || size > sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, -1)) {
      error = "blob of " + std::to_string(size) + " bytes is beyond the engine's limit";
      return false;
    }
    if (!exec("BEGIN IMMEDIATE", error)) return false;
    auto rollback = [&] {
      std::string ignored;
      exec("ROLLBACK", ignored);
      return false;
    };
    {
      // A zero-filled blob of the final size first, then the bytes written into it in place:
      // memory stays at one chunk whatever the size.
      Statement st(db_, "UPDATE " + quoteIdent(table) + " SET " + quoteIdent(column) +
                            "=zeroblob(?) WHERE T_Index=?");
      if (!st.ok()) return fail(error), rollback();
      sqlite3_bind_int64(st.get(), 1, size);
      sqlite3_bind_int64(st.get(), 2, key);
      if (sqlite3_step(st.get()) != SQLITE_DONE) return fail(error), rollback();
      if (sqlite3_changes(db_) == 0) {
        error = "no row " + std::to_string(key);
        return rollback();
      }
    }
    if (size > 0) {
      sqlite3_blob* blob = nullptr;
      if (sqlite3_blob_open(db_, "main", std::string(table).c_str(), std::string(column).c_str(),
                            key, 1, &blob) != SQLITE_OK) {
        fail(error);
        sqlite3_blob_close(blob);
        return rollback();
      }
      std::vector<uint8_t> chunk(kBlobChunk);
      int64_t done = 0;
      while (done < size) {
        const auto want = static_cast<std::size_t>(std::min<int64_t>(size - done, kBlobChunk));
        const std::ptrdiff_t got = source(chunk.data(), want);
        if (got != static_cast<std::ptrdiff_t>(want) ||
            sqlite3_blob_write(blob, chunk.data(), static_cast<int>(want),
                               static_cast<int>(done)) != SQLITE_OK) {
          if (got == static_cast<std::ptrdiff_t>(want)) {
            fail(error);
          } else {
            error = "the staged bytes could not be read back";
          }
          sqlite3_blob_close(blob);
          return rollback();
        }
        done += static_cast<int64_t>(want);
      }
      sqlite3_blob_close(blob);
    }
    return exec("COMMIT", error);
  }

  std::unique_ptr<BlobReader> openBlob(std::string_view table, std::string_view column, int64_t key,
                                       std::string& error) override;

  bool getMeta(std::string_view name, Value& value) override {
    std::lock_guard lock(mutex_);
    Statement st(db_, "SELECT value FROM _mv_meta WHERE name=?");
    if (!st.ok()) return false;
    sqlite3_bind_text(st.get(), 1, name.data(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(st.get()) != SQLITE_ROW) return false;
    value = valueAt(st.get(), 0);
    return true;
  }

  bool setMeta(std::string_view name, const Value& value, std::string& error) override {
    std::lock_guard lock(mutex_);
    Statement st(db_,
                 "INSERT INTO _mv_meta(name, value) VALUES(?, ?) "
                 "ON CONFLICT(name) DO UPDATE SET value=excluded.value");
    if (!st.ok()) return fail(error);
    sqlite3_bind_text(st.get(), 1, name.data(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
    st.bind(2, value);
    return sqlite3_step(st.get()) == SQLITE_DONE || fail(error);
  }

  bool addMeta(std::string_view name, int64_t delta, int64_t* result, std::string& error) override {
    std::lock_guard lock(mutex_);
    Statement st(db_,
                 "INSERT INTO _mv_meta(name, value) VALUES(?1, ?2) "
                 "ON CONFLICT(name) DO UPDATE SET value=CAST(value AS INTEGER)+?2 "
                 "RETURNING value");
    if (!st.ok()) return fail(error);
    sqlite3_bind_text(st.get(), 1, name.data(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(st.get(), 2, delta);
    if (sqlite3_step(st.get()) != SQLITE_ROW) return fail(error);
    *result = sqlite3_column_int64(st.get(), 0);
    return sqlite3_step(st.get()) == SQLITE_DONE || fail(error);
  }

  int64_t sizeBytes() override {
    std::lock_guard lock(mutex_);
    Statement st(db_, "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size");
    return st.ok() && sqlite3_step(st.get()) == SQLITE_ROW ? sqlite3_column_int64(st.get(), 0) : 0;
  }

  bool exec(const char* sql, std::string& error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
    error = message ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    return false;
  }

 private:
  bool fail(std::string& error) {
    error = sqlite3_errmsg(db_);
    return false;
  }

  static Value valueAt(sqlite3_stmt* st, int i) {
    switch (sqlite3_column_type(st, i)) {
      case SQLITE_INTEGER:
        return Value::ofInt(sqlite3_column_int64(st, i));
      case SQLITE_FLOAT:
        return Value::ofReal(sqlite3_column_double(st, i));
      case SQLITE_TEXT: {
        const auto* t = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
        return Value::ofText(std::string(t, static_cast<std::size_t>(sqlite3_column_bytes(st, i))));
      }
      default:
        return {};
    }
  }

  sqlite3* db_;
  std::mutex mutex_;
  std::set<SqliteBlobReader*> readers_;
};

class SqliteBlobReader final : public BlobReader {
 public:
  // Registered with its database (whose mutex the caller holds), so that replacing the
  // database's content can end it first.
  SqliteBlobReader(std::shared_ptr<SqliteDatabase> db, sqlite3_blob* blob)
      : db_(std::move(db)), blob_(blob), size_(blob ? sqlite3_blob_bytes(blob) : 0) {
    db_->readers().insert(this);
  }
  ~SqliteBlobReader() override {
    std::lock_guard lock(db_->mutex());
    db_->readers().erase(this);
    sqlite3_blob_close(blob_);
  }
  int64_t size() const override { return size_; }
  bool read(int64_t offset, std::size_t max, std::vector<uint8_t>& out,
            std::string& error) override {
    out.clear();
    std::lock_guard lock(db_->mutex());
    if (ended_) {
      error = "the database was replaced while it was read";
      return false;
    }
    if (blob_ == nullptr || offset >= size_) return true;
    const auto n =
        static_cast<std::size_t>(std::min<int64_t>(size_ - offset, static_cast<int64_t>(max)));
    out.resize(n);
    const int rc =
        sqlite3_blob_read(blob_, out.data(), static_cast<int>(n), static_cast<int>(offset));
    if (rc != SQLITE_OK) {
      error = rc == SQLITE_ABORT ? "the row changed while it was read" : sqlite3_errstr(rc);
      out.clear();
      return false;
    }
    return true;
  }
  // With the database's mutex held.
  void end() {
    sqlite3_blob_close(blob_);
    blob_ = nullptr;
    ended_ = true;
  }

 private:
  std::shared_ptr<SqliteDatabase> db_;
  sqlite3_blob* blob_;
  int64_t size_;
  bool ended_ = false;
};

void SqliteDatabase::endReaders() {
  for (SqliteBlobReader* r : readers_) r->end();
}

std::unique_ptr<BlobReader> SqliteDatabase::openBlob(std::string_view table,
                                                     std::string_view column, int64_t key,
                                                     std::string& error) {
  std::lock_guard lock(mutex_);
  {
    Statement st(db_, "SELECT typeof(" + quoteIdent(column) + ") FROM " + quoteIdent(table) +
                          " WHERE T_Index=?");
    if (!st.ok()) return fail(error), nullptr;
    sqlite3_bind_int64(st.get(), 1, key);
    if (sqlite3_step(st.get()) != SQLITE_ROW) {
      error = "no row " + std::to_string(key);
      return nullptr;
    }
    const auto* kind = reinterpret_cast<const char*>(sqlite3_column_text(st.get(), 0));
    if (kind == nullptr || std::string_view(kind) == "null") {
      return std::make_unique<SqliteBlobReader>(shared_from_this(), nullptr);
    }
  }
  sqlite3_blob* blob = nullptr;
  if (sqlite3_blob_open(db_, "main", std::string(table).c_str(), std::string(column).c_str(), key,
                        0, &blob) != SQLITE_OK) {
    fail(error);
    sqlite3_blob_close(blob);
    return nullptr;
  }
  return std::make_unique<SqliteBlobReader>(shared_from_this(), blob);
}

sqlite3* openFile(const std::string& path, int flags, std::string& error) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
    error = db ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_close_v2(db);
    return nullptr;
  }
  // Double-quoted text is an identifier only: a misspelt column never passes as a string.
  sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
  sqlite3_busy_timeout(db, 10000);
  return db;
}

bool backup(sqlite3* from, sqlite3* to, std::string& error) {
  sqlite3_backup* b = sqlite3_backup_init(to, "main", from, "main");
  if (b == nullptr) {
    error = sqlite3_errmsg(to);
    return false;
  }
  const int rc = sqlite3_backup_step(b, -1);
  sqlite3_backup_finish(b);
  if (rc != SQLITE_DONE) {
    error = sqlite3_errstr(rc);
    return false;
  }
  return true;
}

}  // namespace

SqliteEngine::SqliteEngine(std::string folder) : folder_(std::move(folder)) {}

SqliteEngine::~SqliteEngine() = default;

std::string SqliteEngine::pathOf(std::string_view name) const {
  return folder_ + "/" + escapeName(name) + kSuffix;
}

bool SqliteEngine::exists(std::string_view name) {
  std::error_code ec;
  return stdfs::is_regular_file(pathOf(name), ec);
}

std::shared_ptr<Database> SqliteEngine::open(std::string_view name, bool create,
                                             std::string& error) {
  std::lock_guard lock(mutex_);
  if (const auto it = open_.find(name); it != open_.end()) return it->second;
  if (!create && !exists(name)) {
    error = "no database " + std::string(name);
    return nullptr;
  }
  sqlite3* db = openFile(pathOf(name), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
  if (db == nullptr) return nullptr;
  auto database = std::make_shared<SqliteDatabase>(db);
  if (!database->exec("PRAGMA journal_mode=WAL", error) ||
      !database->exec("PRAGMA synchronous=NORMAL", error) ||
      !database->exec("CREATE TABLE IF NOT EXISTS _mv_meta(name TEXT PRIMARY KEY, value)", error)) {
    return nullptr;
  }
  open_.emplace(std::string(name), database);
  return database;
}

bool SqliteEngine::release(const std::string& name) {
  const auto it = open_.find(name);
  if (it == open_.end()) return true;
  if (it->second.use_count() > 1) return false;
  open_.erase(it);
  return true;
}

bool SqliteEngine::copy(std::string_view from, std::string_view to, std::string& error) {
  // The copy is made under a name of its own and then linked to its final name, which fails if
  // that name exists: two sessions making the same database cannot both succeed.
  static std::atomic<uint64_t> serial{0};
  const std::string target = pathOf(to);
  const std::string part =
      target + ".part-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
  if (!exportFile(from, part, error)) return false;
  const bool linked = ::link(part.c_str(), target.c_str()) == 0;
  if (!linked)
    error = errno == EEXIST ? "database " + std::string(to) + " exists" : std::strerror(errno);
  std::remove(part.c_str());
  return linked;
}

bool SqliteEngine::exportFile(std::string_view name, const std::string& path, std::string& error) {
  auto source = std::static_pointer_cast<SqliteDatabase>(open(name, false, error));
  if (!source) return false;
  sqlite3* target = openFile(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
  if (target == nullptr) return false;
  bool ok;
  {
    std::lock_guard lock(source->mutex());
    ok = backup(source->handle(), target, error);
  }
  sqlite3_close_v2(target);
  if (!ok) std::remove(path.c_str());
  return ok;
}

bool SqliteEngine::importFile(std::string_view name, const std::string& path, std::string& error) {
  sqlite3* source = openFile(path, SQLITE_OPEN_READONLY, error);
  if (source == nullptr) return false;
  char* message = nullptr;
  // A file that is not a database of ours is refused before anything is replaced.
  const bool valid = sqlite3_exec(source, "SELECT count(*) FROM sqlite_schema", nullptr, nullptr,
                                  &message) == SQLITE_OK;
  if (!valid) error = message ? message : "not a database file";
  sqlite3_free(message);
  bool ok = valid;
  if (ok) {
    auto target = std::static_pointer_cast<SqliteDatabase>(open(name, true, error));
    ok = target != nullptr;
    if (ok) {
      std::lock_guard lock(target->mutex());
      target->endReaders();
      ok = backup(source, target->handle(), error);
    }
  }
  sqlite3_close_v2(source);
  return ok;
}

bool SqliteEngine::remove(std::string_view name, std::string& error) {
  std::lock_guard lock(mutex_);
  if (!release(std::string(name))) {
    error = "database " + std::string(name) + " is in use";
    return false;
  }
  const std::string path = pathOf(name);
  std::error_code ec;
  if (!stdfs::remove(path, ec)) {
    error = ec ? ec.message() : "no database " + std::string(name);
    return false;
  }
  stdfs::remove(path + "-wal", ec);
  stdfs::remove(path + "-shm", ec);
  return true;
}

bool SqliteEngine::rename(std::string_view from, std::string_view to, std::string& error) {
  std::lock_guard lock(mutex_);
  if (!release(std::string(from))) {
    error = "database " + std::string(from) + " is in use";
    return false;
  }
  std::error_code ec;
  if (stdfs::exists(pathOf(to), ec)) {
    error = "database " + std::string(to) + " exists";
    return false;
  }
  stdfs::rename(pathOf(from), pathOf(to), ec);
  if (ec) error = ec.message();
  return !ec;
}

std::vector<std::string> SqliteEngine::list() {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : stdfs::directory_iterator(folder_, ec)) {
    const std::string file = entry.path().filename().string();
    const std::size_t n = sizeof(kSuffix) - 1;
    if (file.size() > n && file.compare(file.size() - n, n, kSuffix) == 0) {
      names.push_back(unescapeName(file.substr(0, file.size() - n)));
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string SqliteEngine::describe() { return std::string("SQLite ") + sqlite3_libversion(); }

std::unique_ptr<StorageEngine> openSqliteEngine(const std::string& folder, std::string& /*error*/) {
  return std::make_unique<SqliteEngine>(folder);
}

}  // namespace mv::server
