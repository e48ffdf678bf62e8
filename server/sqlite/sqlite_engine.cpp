#include "server/sqlite/sqlite_engine.h"

#include <sqlite3.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <unordered_set>

#include "server/sqlite/content_files.h"

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

std::string quoteText(std::string_view text) {
  std::string s = "'";
  for (char c : text) {
    if (c == '\'') s += '\'';
    s += c;
  }
  return s + "'";
}

// The blobs of a database live as files (content_files.h); the database keeps which file is
// the content of which row's column, the folder that holds them, and the files no row names any
// more, which are removed once that is safely on disk.
constexpr char kStoreSchema[] =
    "CREATE TABLE IF NOT EXISTS _mv_store(folder TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS _mv_content(tbl TEXT NOT NULL, key INTEGER NOT NULL,"
    " col TEXT NOT NULL, ref TEXT NOT NULL, size INTEGER NOT NULL,"
    " PRIMARY KEY(tbl, key, col)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS _mv_trash(ref TEXT PRIMARY KEY) WITHOUT ROWID";
constexpr char kDropPrefix[] = "_mv_drop_";

// Deleting a row, however the statement is written, hands its content to the trash in the
// same transaction.
std::string dropTrigger(std::string_view table) {
  const std::string name = quoteText(table);
  return "CREATE TRIGGER IF NOT EXISTS " +
         quoteIdent(std::string(kDropPrefix) + std::string(table)) + " AFTER DELETE ON " +
         quoteIdent(table) +
         " BEGIN INSERT OR IGNORE INTO _mv_trash(ref) SELECT ref FROM _mv_content WHERE tbl=" +
         name + " AND key=OLD.T_Index; DELETE FROM _mv_content WHERE tbl=" + name +
         " AND key=OLD.T_Index; END";
}

struct ContentItem {
  std::string table;
  int64_t key = 0;
  std::string column;
  std::string ref;
  int64_t size = 0;
};

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

std::string columnText(sqlite3_stmt* st, int i) {
  const auto* t = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
  return t ? std::string(t, static_cast<std::size_t>(sqlite3_column_bytes(st, i))) : std::string();
}

bool execOn(sqlite3* db, const std::string& sql, std::string& error) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return true;
  error = message ? message : sqlite3_errmsg(db);
  sqlite3_free(message);
  return false;
}

std::vector<ContentItem> contentItemsOf(sqlite3* db) {
  std::vector<ContentItem> items;
  Statement st(db, "SELECT tbl, key, col, ref, size FROM _mv_content");
  while (st.ok() && sqlite3_step(st.get()) == SQLITE_ROW) {
    items.push_back({columnText(st.get(), 0), sqlite3_column_int64(st.get(), 1),
                     columnText(st.get(), 2), columnText(st.get(), 3),
                     sqlite3_column_int64(st.get(), 4)});
  }
  return items;
}

// The name of a database's content folder; empty when it has none yet.
std::string storeFolderOf(sqlite3* db) {
  Statement st(db, "SELECT folder FROM _mv_store");
  return st.ok() && sqlite3_step(st.get()) == SQLITE_ROW ? columnText(st.get(), 0) : std::string();
}

class SqliteDatabase final : public Database, public std::enable_shared_from_this<SqliteDatabase> {
 public:
  // `contentRoot` holds the content folders of the engine's databases.
  SqliteDatabase(sqlite3* db, std::string contentRoot)
      : db_(db), contentRoot_(std::move(contentRoot)) {}
  ~SqliteDatabase() override { sqlite3_close_v2(db_); }

  sqlite3* handle() { return db_; }
  std::mutex& mutex() { return mutex_; }
  // The folder of this database's blobs.
  const std::string& contentFolder() const { return folder_; }

  // Sets up the content store of a database just opened: its tables and triggers, the folder,
  // blobs still kept in rows (a folder of an older version, a book carried in) moved out, the
  // trash emptied.
  bool openStore(std::string& error) {
    std::lock_guard lock(mutex_);
    return setUpStore(error);
  }

  // Gives the database a store of its own, empty, after its pages were replaced by another
  // database's; with the mutex held.
  bool resetStore(std::string& error) {
    return exec(kStoreSchema, error) &&
           exec("DELETE FROM _mv_content; DELETE FROM _mv_trash; DELETE FROM _mv_store", error) &&
           setUpStore(error);
  }

  // Every blob the rows name, with the mutex held.
  std::vector<ContentItem> contentItems() { return contentItemsOf(db_); }

  // Looks through this database's folder; with `repair`, removes files no row names.
  void check(std::string_view name, bool repair, ContentCheck& out) {
    std::lock_guard lock(mutex_);
    std::unordered_set<std::string> named;
    for (const ContentItem& item : contentItems()) {
      named.insert(item.ref);
      struct stat st {};
      if (::stat((folder_ + "/" + item.ref).c_str(), &st) != 0 || st.st_size != item.size) {
        out.missing.push_back(std::string(name) + " " + item.table + " " +
                              std::to_string(item.key) + " " + item.column);
        continue;
      }
      ++out.items;
      out.bytes += item.size;
    }
    for (const std::string& file : content::listFolder(folder_)) {
      if (named.count(file) != 0) continue;
      out.orphans.push_back(folder_ + "/" + file);
      if (repair) ::unlink((folder_ + "/" + file).c_str());
    }
  }

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
        collectTrash();
        return false;
      }
    }
    const bool ok = !atomic || exec("COMMIT", error);
    collectTrash();
    return ok;
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
    return columnsOf(table);
  }

  std::vector<ResultColumn> columnsOf(std::string_view table) {
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
    if (!execute({sql}, false, error)) return false;
    const bool blobs = std::any_of(table.columns.begin(), table.columns.end(),
                                   [](const ColumnDef& c) { return isBlob(c.type); });
    std::lock_guard lock(mutex_);
    return !blobs || exec(dropTrigger(table.name), error);
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
    ok = exec("COMMIT", error);
    collectTrash();
    return ok;
  }

  bool rowExists(std::string_view table, int64_t key) override {
    std::lock_guard lock(mutex_);
    return hasRow(table, key);
  }

  bool hasRow(std::string_view table, int64_t key) {
    Statement st(db_, "SELECT 1 FROM " + quoteIdent(table) + " WHERE T_Index=?");
    if (!st.ok()) return false;
    sqlite3_bind_int64(st.get(), 1, key);
    return sqlite3_step(st.get()) == SQLITE_ROW;
  }

  // Makes `ref` the content of a row's column, the former content going to the trash; inside a
  // transaction, with the mutex held.
  bool setContent(std::string_view table, int64_t key, std::string_view column,
                  const std::string& ref, int64_t size, std::string& error) {
    Statement trash(db_,
                    "INSERT OR IGNORE INTO _mv_trash(ref) SELECT ref FROM _mv_content"
                    " WHERE tbl=?1 AND key=?2 AND col=?3");
    Statement put(db_, "INSERT OR REPLACE INTO _mv_content VALUES(?1, ?2, ?3, ?4, ?5)");
    if (!trash.ok() || !put.ok()) return fail(error);
    for (Statement* st : {&trash, &put}) {
      st->bind(1, Value::ofText(std::string(table)));
      sqlite3_bind_int64(st->get(), 2, key);
      st->bind(3, Value::ofText(std::string(column)));
    }
    put.bind(4, Value::ofText(ref));
    sqlite3_bind_int64(put.get(), 5, size);
    return (sqlite3_step(trash.get()) == SQLITE_DONE && sqlite3_step(put.get()) == SQLITE_DONE) ||
           fail(error);
  }

  // Commits a finished content file as the content of a row's column: all or nothing.
  bool commitContent(std::string_view table, int64_t key, std::string_view column,
                     content::PendingFile& file, std::string& error) {
    if (!exec("BEGIN IMMEDIATE", error)) return false;
    if (!hasRow(table, key)) {
      error = "no row " + std::to_string(key);
    } else if (setContent(table, key, column, file.reference(), file.size(), error) &&
               exec("COMMIT", error)) {
      collectTrash();
      return true;
    }
    std::string ignored;
    exec("ROLLBACK", ignored);
    file.discard();
    return false;
  }

  std::unique_ptr<BlobWriter> writeBlob(std::string_view table, std::string_view column,
                                        int64_t key, std::string& error) override;
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
    Statement st(db_,
                 "SELECT page_count * page_size + (SELECT total(size) FROM _mv_content)"
                 " FROM pragma_page_count, pragma_page_size");
    return st.ok() && sqlite3_step(st.get()) == SQLITE_ROW ? sqlite3_column_int64(st.get(), 0) : 0;
  }

  bool exec(const std::string& sql, std::string& error) { return execOn(db_, sql, error); }

 private:
  bool setUpStore(std::string& error) {
    if (!exec(kStoreSchema, error)) return false;
    std::string name = storeFolderOf(db_);
    if (name.empty()) {
      name = content::newFolderName();
      if (!exec("DELETE FROM _mv_store; INSERT INTO _mv_store(folder) VALUES(" + quoteText(name) +
                    ")",
                error)) {
        return false;
      }
    }
    folder_ = contentRoot_ + "/" + name;
    for (const std::string& table : blobTables()) {
      if (!exec(dropTrigger(table), error)) return false;
    }
    if (!moveRowBlobs(error)) return false;
    collectTrash();
    return true;
  }

  bool fail(std::string& error) {
    error = sqlite3_errmsg(db_);
    return false;
  }

  // The tables with a blob column, with the mutex held.
  std::vector<std::string> blobTables() {
    std::vector<std::string> names;
    {
      Statement st(db_,
                   "SELECT name FROM sqlite_schema WHERE type='table' AND name NOT LIKE 'sqlite!_%'"
                   " ESCAPE '!' AND name NOT LIKE '!_mv!_%' ESCAPE '!'");
      while (st.ok() && sqlite3_step(st.get()) == SQLITE_ROW)
        names.push_back(columnText(st.get(), 0));
    }
    std::erase_if(names, [&](const std::string& t) {
      const auto cols = columnsOf(t);
      return std::none_of(cols.begin(), cols.end(),
                          [](const ResultColumn& c) { return isBlob(c.type); });
    });
    return names;
  }

  // Moves blobs kept in the rows themselves into content files, one row at a time, each in one
  // transaction with its file; with the mutex held.
  bool moveRowBlobs(std::string& error) {
    bool moved = false;
    for (const std::string& table : blobTables()) {
      for (const ResultColumn& column : columnsOf(table)) {
        if (!isBlob(column.type)) continue;
        std::vector<int64_t> keys;
        {
          Statement st(db_, "SELECT T_Index FROM " + quoteIdent(table) + " WHERE " +
                                quoteIdent(column.name) + " IS NOT NULL");
          while (st.ok() && sqlite3_step(st.get()) == SQLITE_ROW)
            keys.push_back(sqlite3_column_int64(st.get(), 0));
        }
        for (const int64_t key : keys) {
          if (!moveRowBlob(table, column.name, key, error)) return false;
          moved = true;
        }
      }
    }
    // Give the space the blobs took back to the disk.
    return !moved || exec("VACUUM", error);
  }

  bool moveRowBlob(const std::string& table, const std::string& column, int64_t key,
                   std::string& error) {
    auto file = content::PendingFile::create(folder_, key, error);
    if (!file) return false;
    sqlite3_blob* blob = nullptr;
    if (sqlite3_blob_open(db_, "main", table.c_str(), column.c_str(), key, 0, &blob) != SQLITE_OK) {
      sqlite3_blob_close(blob);
      return fail(error);
    }
    const int size = sqlite3_blob_bytes(blob);
    std::vector<uint8_t> chunk(kBlobChunk);
    bool ok = true;
    for (int done = 0; ok && done < size;) {
      const int n = std::min(size - done, static_cast<int>(kBlobChunk));
      ok = sqlite3_blob_read(blob, chunk.data(), n, done) == SQLITE_OK &&
           file->write(chunk.data(), static_cast<std::size_t>(n), error);
      done += n;
    }
    sqlite3_blob_close(blob);
    if (!ok || !file->finish(error)) return error.empty() ? fail(error) : false;
    Statement clear(db_, "UPDATE " + quoteIdent(table) + " SET " + quoteIdent(column) +
                             "=NULL WHERE T_Index=?");
    if (!clear.ok() || !exec("BEGIN IMMEDIATE", error)) {
      file->discard();
      return error.empty() ? fail(error) : false;
    }
    sqlite3_bind_int64(clear.get(), 1, key);
    if (sqlite3_step(clear.get()) != SQLITE_DONE ||
        !setContent(table, key, column, file->reference(), file->size(), error) ||
        !exec("COMMIT", error)) {
      if (error.empty()) fail(error);
      std::string ignored;
      exec("ROLLBACK", ignored);
      file->discard();
      return false;
    }
    return true;
  }

  // Removes the files in the trash once the transactions that put them there are on the disk:
  // a power loss may take back a commit that is not, and its rows would then name files that
  // are gone. With the mutex held; what cannot go now goes after a later commit.
  void collectTrash() {
    std::vector<std::string> refs;
    {
      Statement st(db_, "SELECT ref FROM _mv_trash");
      while (st.ok() && sqlite3_step(st.get()) == SQLITE_ROW)
        refs.push_back(columnText(st.get(), 0));
    }
    if (refs.empty()) return;
    // In WAL mode a checkpoint syncs the log first; once it has copied every frame, all
    // commits so far are durable.
    int logged = 0;
    int copied = 0;
    if (sqlite3_wal_checkpoint_v2(db_, "main", SQLITE_CHECKPOINT_PASSIVE, &logged, &copied) !=
            SQLITE_OK ||
        copied < logged) {
      return;
    }
    for (const std::string& ref : refs) ::unlink((folder_ + "/" + ref).c_str());
    std::string ignored;
    exec("DELETE FROM _mv_trash", ignored);
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
  std::string contentRoot_;
  std::string folder_;
  std::mutex mutex_;
};

class SqliteBlobWriter final : public BlobWriter {
 public:
  SqliteBlobWriter(std::shared_ptr<SqliteDatabase> db, std::string table, std::string column,
                   int64_t key, std::unique_ptr<content::PendingFile> file)
      : db_(std::move(db)),
        table_(std::move(table)),
        column_(std::move(column)),
        key_(key),
        file_(std::move(file)) {}
  bool write(const uint8_t* data, std::size_t size, std::string& error) override {
    return file_ && file_->write(data, size, error);
  }
  int64_t size() const override { return file_ ? file_->size() : 0; }
  bool commit(std::string& error) override {
    if (!file_) {
      error = "the content was committed already";
      return false;
    }
    // The file is complete and on the disk before its row names it.
    bool ok = file_->finish(error);
    if (ok) {
      std::lock_guard lock(db_->mutex());
      ok = db_->commitContent(table_, key_, column_, *file_, error);
    }
    file_.reset();
    return ok;
  }

 private:
  std::shared_ptr<SqliteDatabase> db_;
  std::string table_;
  std::string column_;
  int64_t key_;
  std::unique_ptr<content::PendingFile> file_;
};

// A blob column of an existing row, or nothing with `error`; with the mutex held.
bool blobColumnOfRow(SqliteDatabase& db, std::string_view table, std::string_view column,
                     int64_t key, std::string& error) {
  const auto cols = db.columnsOf(table);
  const bool blob = std::any_of(cols.begin(), cols.end(), [&](const ResultColumn& c) {
    return c.name == column && isBlob(c.type);
  });
  if (!blob) {
    error = "no blob column " + std::string(table) + "." + std::string(column);
    return false;
  }
  if (!db.hasRow(table, key)) {
    error = "no row " + std::to_string(key);
    return false;
  }
  return true;
}

std::unique_ptr<BlobWriter> SqliteDatabase::writeBlob(std::string_view table,
                                                      std::string_view column, int64_t key,
                                                      std::string& error) {
  {
    std::lock_guard lock(mutex_);
    if (!blobColumnOfRow(*this, table, column, key, error)) return nullptr;
  }
  auto file = content::PendingFile::create(folder_, key, error);
  if (!file) return nullptr;
  return std::make_unique<SqliteBlobWriter>(shared_from_this(), std::string(table),
                                            std::string(column), key, std::move(file));
}

std::unique_ptr<BlobReader> SqliteDatabase::openBlob(std::string_view table,
                                                     std::string_view column, int64_t key,
                                                     std::string& error) {
  std::lock_guard lock(mutex_);
  if (!blobColumnOfRow(*this, table, column, key, error)) return nullptr;
  Statement st(db_, "SELECT ref FROM _mv_content WHERE tbl=?1 AND key=?2 AND col=?3");
  if (!st.ok()) return fail(error), nullptr;
  st.bind(1, Value::ofText(std::string(table)));
  sqlite3_bind_int64(st.get(), 2, key);
  st.bind(3, Value::ofText(std::string(column)));
  if (sqlite3_step(st.get()) != SQLITE_ROW) return content::emptyReader();
  // Opened with the mutex held, so the file cannot go to the trash in between; once open, it
  // stays readable whatever happens to the row.
  return content::openReader(folder_ + "/" + columnText(st.get(), 0), error);
}

// Connections are used under their database's own mutex (or by one thread only), so SQLite's
// locking of every call would only be paid for twice.
sqlite3* openFile(const std::string& path, int flags, std::string& error) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
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

// Writes the blobs of `items` from `folder` into the rows of `db`, a copy of their database, and
// drops the store's tables: the file then holds its book whole, as any engine reads it.
bool putBlobsInRows(sqlite3* db, const std::vector<ContentItem>& items, const std::string& folder,
                    std::string& error) {
  if (!execOn(db, "BEGIN IMMEDIATE", error)) return false;
  std::vector<uint8_t> chunk(kBlobChunk);
  bool ok = true;
  for (std::size_t i = 0; ok && i < items.size(); ++i) {
    const ContentItem& item = items[i];
    if (item.size > sqlite3_limit(db, SQLITE_LIMIT_LENGTH, -1)) {
      error = "a blob of " + std::to_string(item.size) + " bytes does not fit a book file";
      ok = false;
      break;
    }
    Statement st(db, "UPDATE " + quoteIdent(item.table) + " SET " + quoteIdent(item.column) +
                         "=zeroblob(?) WHERE T_Index=?");
    auto reader = content::openReader(folder + "/" + item.ref, error);
    sqlite3_blob* blob = nullptr;
    ok = reader && st.ok();
    if (ok) {
      sqlite3_bind_int64(st.get(), 1, item.size);
      sqlite3_bind_int64(st.get(), 2, item.key);
      ok = sqlite3_step(st.get()) == SQLITE_DONE &&
           (item.size == 0 || sqlite3_blob_open(db, "main", item.table.c_str(), item.column.c_str(),
                                                item.key, 1, &blob) == SQLITE_OK);
    }
    for (int64_t done = 0; ok && blob != nullptr && done < item.size;) {
      const std::ptrdiff_t n = reader->read(done, chunk.data(), chunk.size(), error);
      ok = n > 0 && sqlite3_blob_write(blob, chunk.data(), static_cast<int>(n),
                                       static_cast<int>(done)) == SQLITE_OK;
      done += n;
    }
    sqlite3_blob_close(blob);
    if (!ok && error.empty()) error = sqlite3_errmsg(db);
  }
  std::vector<std::string> triggers;
  {
    Statement st(db, "SELECT name FROM sqlite_schema WHERE type='trigger' AND name LIKE '" +
                         std::string(kDropPrefix) + "%'");
    while (st.ok() && sqlite3_step(st.get()) == SQLITE_ROW)
      triggers.push_back(columnText(st.get(), 0));
  }
  for (std::size_t i = 0; ok && i < triggers.size(); ++i) {
    ok = execOn(db, "DROP TRIGGER " + quoteIdent(triggers[i]), error);
  }
  ok = ok &&
       execOn(db, "DROP TABLE _mv_content; DROP TABLE _mv_trash; DROP TABLE _mv_store", error) &&
       execOn(db, "COMMIT", error);
  if (!ok) {
    std::string ignored;
    execOn(db, "ROLLBACK", ignored);
  }
  return ok;
}

}  // namespace

SqliteEngine::SqliteEngine(std::string folder) : folder_(std::move(folder)) {}

SqliteEngine::~SqliteEngine() = default;

std::string SqliteEngine::pathOf(std::string_view name) const {
  return folder_ + "/" + escapeName(name) + kSuffix;
}

std::string SqliteEngine::contentRoot() const { return folder_ + "/content"; }

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
  auto database = std::make_shared<SqliteDatabase>(db, contentRoot());
  if (!database->exec("PRAGMA journal_mode=WAL", error) ||
      !database->exec("PRAGMA synchronous=NORMAL", error) ||
      !database->exec("CREATE TABLE IF NOT EXISTS _mv_meta(name TEXT PRIMARY KEY, value)", error) ||
      !database->openStore(error)) {
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
  // that name exists: two sessions making the same database cannot both succeed. Its blobs are
  // the source's files under second names, in a folder of its own.
  static std::atomic<uint64_t> serial{0};
  auto source = std::static_pointer_cast<SqliteDatabase>(open(from, false, error));
  if (!source) return false;
  const std::string target = pathOf(to);
  const std::string part =
      target + ".part-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
  const std::string name = content::newFolderName();
  const std::string folder = contentRoot() + "/" + name;
  sqlite3* copy = openFile(part, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
  bool ok = copy != nullptr;
  if (ok) {
    std::lock_guard lock(source->mutex());
    ok = backup(source->handle(), copy, error) &&
         execOn(copy, "UPDATE _mv_store SET folder=" + quoteText(name), error);
    std::error_code ec;
    if (ok) stdfs::create_directories(folder, ec);
    for (const ContentItem& item : ok ? source->contentItems() : std::vector<ContentItem>{}) {
      ok = ok && content::linkOrCopy(source->contentFolder() + "/" + item.ref,
                                     folder + "/" + item.ref, error);
    }
    ok = ok && content::syncFolder(folder);
  }
  sqlite3_close_v2(copy);
  if (ok && ::link(part.c_str(), target.c_str()) != 0) {
    error = errno == EEXIST ? "database " + std::string(to) + " exists" : std::strerror(errno);
    ok = false;
  }
  std::remove(part.c_str());
  std::error_code ec;
  if (!ok) stdfs::remove_all(folder, ec);
  return ok;
}

bool SqliteEngine::exportFile(std::string_view name, const std::string& path, std::string& error) {
  auto source = std::static_pointer_cast<SqliteDatabase>(open(name, false, error));
  if (!source) return false;
  sqlite3* target = openFile(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
  if (target == nullptr) return false;
  bool ok;
  {
    // Held until the blobs are copied too: none of their files may go to the trash meanwhile.
    std::lock_guard lock(source->mutex());
    ok = backup(source->handle(), target, error) &&
         putBlobsInRows(target, source->contentItems(), source->contentFolder(), error);
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
  std::string formerFolder;
  if (ok) {
    auto target = std::static_pointer_cast<SqliteDatabase>(open(name, true, error));
    ok = target != nullptr;
    if (ok) {
      // The book's rows and blobs are replaced whole: its blobs move out of the rows into a
      // folder of their own, and the former folder goes.
      std::lock_guard lock(target->mutex());
      formerFolder = target->contentFolder();
      ok = backup(source, target->handle(), error) && target->resetStore(error);
    }
  }
  sqlite3_close_v2(source);
  std::error_code ec;
  if (ok) stdfs::remove_all(formerFolder, ec);
  return ok;
}

bool SqliteEngine::remove(std::string_view name, std::string& error) {
  std::lock_guard lock(mutex_);
  std::string folder;
  if (const auto it = open_.find(name); it != open_.end()) {
    folder = static_cast<SqliteDatabase&>(*it->second).contentFolder();
  } else if (sqlite3* db = openFile(pathOf(name), SQLITE_OPEN_READWRITE, error)) {
    const std::string store = storeFolderOf(db);
    if (!store.empty()) folder = contentRoot() + "/" + store;
    sqlite3_close_v2(db);
  }
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
  // Gone with its database; a crash before this leaves a folder no database claims, which the
  // next start removes.
  if (!folder.empty()) stdfs::remove_all(folder, ec);
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

ContentCheck SqliteEngine::checkContent(bool repair) {
  ContentCheck out;
  std::unordered_set<std::string> claimed;
  for (const std::string& name : list()) {
    std::string error;
    auto db = std::static_pointer_cast<SqliteDatabase>(open(name, false, error));
    if (!db) continue;
    db->check(name, repair, out);
    claimed.insert(stdfs::path(db->contentFolder()).filename().string());
    db.reset();
    std::lock_guard lock(mutex_);
    release(name);
  }
  std::error_code ec;
  // Folders of databases that are gone, and copies that never got their name.
  for (const std::string& folder : content::listFolder(contentRoot())) {
    if (claimed.count(folder) != 0) continue;
    out.orphans.push_back(contentRoot() + "/" + folder);
    if (repair) stdfs::remove_all(contentRoot() + "/" + folder, ec);
  }
  for (const std::string& file : content::listFolder(folder_)) {
    if (file.find(std::string(kSuffix) + ".part-") == std::string::npos) continue;
    out.orphans.push_back(folder_ + "/" + file);
    if (repair) stdfs::remove(folder_ + "/" + file, ec);
  }
  return out;
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
  auto engine = std::make_unique<SqliteEngine>(folder);
  // What a crash left behind goes before anyone is served: writes that never finished, blobs
  // no row names, folders of databases that are gone. Blobs still in rows move out here too.
  engine->checkContent(true);
  return engine;
}

}  // namespace mv::server
