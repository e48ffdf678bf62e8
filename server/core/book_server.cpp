// A session's databases, tables, rows and blobs.
#include "server/core/book_server.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <filesystem>

#include "frame/exchange.h"
#include "server/core/status.h"
#include "server/core/wire.h"
#include "sql/translate.h"

namespace mv::server {

namespace {

// A table name a client may use: an identifier that is not one of the engine's own.
bool validTable(const std::string& name) {
  if (name.empty() || name.size() > 128 || !std::isalpha(static_cast<unsigned char>(name[0]))) {
    return false;
  }
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  if (lower.rfind("sqlite_", 0) == 0 || lower.rfind("pragma_", 0) == 0) return false;
  return std::all_of(name.begin(), name.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

bool isBlob(ColumnType t) { return t == ColumnType::Image || t == ColumnType::Binary; }

std::string valueText(const Value& v) {
  switch (v.kind) {
    case Value::Kind::Int:
      return std::to_string(v.i);
    case Value::Kind::Real: {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.15g", v.r);
      return buf;
    }
    case Value::Kind::Text:
      return v.text;
    case Value::Kind::Null:
      break;
  }
  return {};
}

// A written value takes the type of its column, whatever typecode it came with: the library
// sends some integers as text and some texts as integers.
Value columnValue(ColumnType type, std::string_view text) {
  switch (type) {
    case ColumnType::Int:
      return Value::ofInt(parseInt(text));
    case ColumnType::Float:
      return Value::ofReal(std::strtod(std::string(text).c_str(), nullptr));
    default:
      return Value::ofText(std::string(text));
  }
}

// "SELECT * ..." names every column but the blobs instead: the engine would otherwise load each
// row's blobs whole just to leave them out of the snapshot.
std::string withoutBlobs(const std::string& sql, const std::vector<ResultColumn>& columns) {
  constexpr std::string_view kStar = "SELECT * ";
  if (sql.size() < kStar.size() ||
      !std::equal(kStar.begin(), kStar.end(), sql.begin(), [](char a, char b) {
        return a == std::toupper(static_cast<unsigned char>(b));
      })) {
    return sql;
  }
  std::string list;
  for (const ResultColumn& c : columns) {
    if (isBlob(c.type)) continue;
    list += (list.empty() ? "\"" : ", \"") + c.name + "\"";
  }
  return list.empty() ? sql : "SELECT " + list + " " + sql.substr(kStar.size());
}

int keyColumn(const Snapshot& s) {
  for (std::size_t i = 0; i < s.columns.size(); ++i) {
    if (s.columns[i].name == "T_Index" || s.columns[i].name == "T_index") {
      return static_cast<int>(i);
    }
  }
  return -1;
}

// An anonymous file in the data folder: staged bytes never sit in memory, nor in a /tmp that
// may be memory itself.
std::FILE* stagingFile(const std::string& folder) {
  std::string path = folder + "/uploads/stage-XXXXXX";
  const int fd = ::mkstemp(path.data());
  if (fd < 0) return nullptr;
  ::unlink(path.c_str());
  std::FILE* f = ::fdopen(fd, "w+b");
  if (f == nullptr) ::close(fd);
  return f;
}

}  // namespace

BookServer::BookServer(std::shared_ptr<ServerCore> core)
    : core_(std::move(core)), id_(core_->newSession()) {
  core_->sessionStarted();
}

BookServer::~BookServer() {
  settle();
  closeCarry(carryOut_, false);
  closeCarry(carryIn_, false);
  handles_.clear();
  core_->sessionEnded(id_);
}

int32_t BookServer::fail(int32_t status, const std::string& message) {
  lastError_ = message;
  return status;
}

std::shared_ptr<Database> BookServer::database(const std::string& name, int32_t* status) {
  if (!isClientDatabaseName(name)) {
    *status = fail(kBadArgument, "データベース名「" + name + "」は使えません");
    return nullptr;
  }
  std::string error;
  auto db = core_->engine().exists(name) ? core_->engine().open(name, false, error) : nullptr;
  if (!db) {
    *status = fail(kMissingDatabase, "データベース「" + name + "」がありません");
    return nullptr;
  }
  *status = kOk;
  return db;
}

BookServer::Handle* BookServer::handle(const std::string& text, int32_t* status) {
  const auto it = handles_.find(text);
  if (it == handles_.end()) {
    *status = fail(kBadHandle, "ハンドル「" + text + "」は開かれていません");
    return nullptr;
  }
  *status = kOk;
  return &it->second;
}

int32_t BookServer::DeleteDatabase(BSTR dbName, BSTR /*option*/) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string name = text(dbName);
  int32_t status = kOk;
  if (!database(name, &status)) return status;
  if (core_->openElsewhere(name, id_)) {
    return fail(kDatabaseInUse, "データベース「" + name + "」は他の接続で使用中です");
  }
  // This session's own holds on it end with it.
  std::erase_if(handles_, [&](const auto& h) { return h.second.db == name; });
  while (openDbs_[name] > 0) {
    --openDbs_[name];
    core_->closed(name, id_);
  }
  std::string error;
  if (!core_->engine().remove(name, error)) {
    return fail(kDatabaseInUse, "データベース「" + name + "」を削除できません: " + error);
  }
  std::error_code ec;
  std::filesystem::remove_all(core_->shareFolder(name, "", -1), ec);
  return kOk;
}

int32_t BookServer::CopyDatabase(BSTR srcDb, BSTR, BSTR dstDb, BSTR, int32_t /*kind*/) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string from = text(srcDb);
  const std::string to = text(dstDb);
  int32_t status = kOk;
  if (!database(from, &status)) return status;
  if (!isClientDatabaseName(to))
    return fail(kBadArgument, "データベース名「" + to + "」は使えません");
  if (core_->engine().exists(to)) {
    return fail(kDatabaseExists, "データベース「" + to + "」は既に存在します");
  }
  std::string error;
  if (!core_->engine().copy(from, to, error)) {
    return fail(kStorageFailed, "データベースの複写に失敗しました: " + error);
  }
  // The book's files go with it.
  std::error_code ec;
  const std::string share = core_->shareFolder(from, "", -1);
  if (std::filesystem::exists(share, ec)) {
    std::filesystem::copy(share, core_->shareFolder(to, "", -1),
                          std::filesystem::copy_options::recursive, ec);
    if (ec) return fail(kFileFailed, "共有フォルダの複写に失敗しました: " + ec.message());
  }
  return kOk;
}

int32_t BookServer::OpenDatabase(BSTR dbName, int32_t mode, int32_t* /*out*/) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string name = text(dbName);
  if (mode == 0x63) {
    if (isClientDatabaseName(name) && core_->engine().exists(name)) return kOk;
    return fail(kMissingDatabase, "データベース「" + name + "」がありません");
  }
  if (mode != 0 && mode != 1)
    return fail(kBadArgument, "開き方 " + std::to_string(mode) + " は使えません");
  int32_t status = kOk;
  if (!database(name, &status)) return status;
  ++openDbs_[name];
  core_->opened(name, id_);
  return kOk;
}

int32_t BookServer::CloseDatabase(BSTR dbName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string name = text(dbName);
  // Closing what this session did not open is harmless: the library does it when the
  // application left out the hold it counts on.
  const auto it = openDbs_.find(name);
  if (it != openDbs_.end() && it->second > 0) {
    if (--it->second == 0) openDbs_.erase(it);
    core_->closed(name, id_);
  }
  return kOk;
}

int32_t BookServer::UnlockDatabase(BSTR /*dbName*/) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return kOk;
}

int32_t BookServer::CreateTable(BSTR dbName, BSTR tableName, int32_t tableKind) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  static constexpr std::pair<int32_t, const char*> kKinds[] = {{0x20, "ViewAttributeTBL"},
                                                               {0x21, "ViewItemTBL"},
                                                               {0x22, "ViewManageTBL"},
                                                               {0x23, "ViewDataTBL"},
                                                               {0x24, "TagAttributeTBL"}};
  const std::string table = text(tableName);
  const auto kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                 [&](const auto& k) { return k.first == tableKind; });
  if (kind == std::end(kKinds) || table != kind->second) {
    return fail(kBadArgument,
                "テーブル種別 " + std::to_string(tableKind) + " と「" + table + "」が合いません");
  }
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (db->hasTable(table)) return kOk;
  const DbKind where = tableKind == 0x24 ? DbKind::Book : DbKind::System;
  std::string error;
  if (!db->createTable(*findTable(where, table), {}, error)) {
    return fail(kSqlFailed, "テーブル「" + table + "」を作れません: " + error);
  }
  return kOk;
}

int32_t BookServer::CheckTBL(BSTR dbName, BSTR tableName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  const std::string table = text(tableName);
  if (validTable(table) && db->hasTable(table)) return kTableExists;
  return fail(kMissingTable, "テーブル「" + table + "」がありません");
}

int32_t BookServer::CheckColumn(BSTR dbName, BSTR tableName, BSTR columnName) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  const std::string table = text(tableName);
  const std::string column = text(columnName);
  if (validTable(table) && db->hasColumn(table, column)) return kColumnExists;
  return fail(kMissingColumn, "列「" + table + "." + column + "」がありません");
}

int32_t BookServer::openSnapshot(const std::string& db, const std::string& sql,
                                 const std::string& table, int32_t* rowCount, BSTR* handleOut) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto database = this->database(db, &status);
  if (!database) return status;
  Handle h;
  h.db = db;
  h.database = database;
  h.table = table;
  std::string error;
  if (!database->query(withoutBlobs(sql, database->columns(table)), h.snapshot, error)) {
    if (!database->hasTable(table))
      return fail(kMissingTable, "テーブル「" + table + "」がありません");
    return fail(kSqlFailed, "SQL文の実行に失敗しました: " + error);
  }
  const std::string name = "H" + std::to_string(id_) + "." + std::to_string(++handleSerial_);
  if (rowCount) *rowCount = static_cast<int32_t>(h.snapshot.rows.size());
  putText(handleOut, name);
  handles_.emplace(name, std::move(h));
  return kOk;
}

int32_t BookServer::ExecuteQuery(BSTR dbName, BSTR /*tableName*/, BSTR sql, int32_t /*flag*/,
                                 int32_t* rowCount, BSTR* handleOut) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string statement = text(sql);
  const SqlTranslation t = translateSql(statement);
  if (!t.ok || t.kind != SqlKind::Select || !validTable(t.table)) {
    return fail(kSqlRefused,
                "SQL文を受け付けられません: " + (t.ok ? "読み出しではありません" : t.error));
  }
  return openSnapshot(text(dbName), t.statements.front(), t.table, rowCount, handleOut);
}

int32_t BookServer::OpenTableEx(BSTR dbName, BSTR /*tableName*/, BSTR sql, int32_t /*flag*/,
                                int32_t* rowCount, BSTR* handleOut) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  // The statement, not the table argument, says what is read and what the handle writes to.
  const SqlTranslation t = translateSql(text(sql));
  if (!t.ok || t.kind != SqlKind::Select || !validTable(t.table)) {
    return fail(kSqlRefused,
                "SQL文を受け付けられません: " + (t.ok ? "読み出しではありません" : t.error));
  }
  return openSnapshot(text(dbName), t.statements.front(), t.table, rowCount, handleOut);
}

int32_t BookServer::OpenTable(BSTR dbName, BSTR tableName, int32_t /*mode*/, int32_t* rowCount,
                              BSTR* handleOut) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string table = text(tableName);
  if (!validTable(table)) return fail(kMissingTable, "テーブル「" + table + "」がありません");
  return openSnapshot(text(dbName), "SELECT * FROM \"" + table + "\" ORDER BY T_Index", table,
                      rowCount, handleOut);
}

int32_t BookServer::CloseTable(BSTR /*dbName*/, BSTR handleText) {
  // The handle goes even when storing its pending blob failed; the failure is still told.
  const int32_t pending = settle();
  int32_t status = kOk;
  const std::string name = text(handleText);
  if (!handle(name, &status)) return status;
  handles_.erase(name);
  return pending;
}

int32_t BookServer::GetRecords(BSTR /*dbName*/, BSTR handleText, int32_t rowIndex, VARIANT* row) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  if (rowIndex < 0 || static_cast<std::size_t>(rowIndex) >= h->snapshot.rows.size()) {
    return fail(kNoRow, "行 " + std::to_string(rowIndex) + " はありません");
  }
  const auto& values = h->snapshot.rows[static_cast<std::size_t>(rowIndex)];
  std::vector<std::string> elements;
  for (std::size_t i = 0; i < h->snapshot.columns.size(); ++i) {
    const ResultColumn& c = h->snapshot.columns[i];
    if (isBlob(c.type)) continue;  // blobs travel in blocks only
    elements.push_back("KEY=" + c.name + "\t" + std::to_string(typeCode(c.type)) + "\t" +
                       valueText(values[i]));
  }
  if (!putTexts(row, elements)) return fail(kStorageFailed, "メモリが足りません");
  return kOk;
}

int32_t BookServer::ExecuteSQL(BSTR dbName, BSTR sql) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const SqlTranslation t = translateSql(text(sql));
  if (!t.ok || t.kind == SqlKind::Select || (!t.table.empty() && !validTable(t.table))) {
    return fail(kSqlRefused,
                "SQL文を受け付けられません: " + (t.ok ? "読み出しは実行しません" : t.error));
  }
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  std::string error;
  // A batch is all or nothing; so is every single statement.
  if (!db->execute(t.statements, true, error)) {
    return fail(kSqlFailed, "SQL文の実行に失敗しました: " + error);
  }
  return kOk;
}

int32_t BookServer::writeRecord(BSTR dbName, VARIANT* record, bool add, int32_t* index) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (index == nullptr) return fail(kBadArgument, "行番号がありません");
  std::vector<std::string> elements;
  if (!arrayTexts(record, elements) || elements.empty()) {
    return fail(kBadArgument, "レコードの形が正しくありません");
  }
  int32_t status = kOk;
  Handle* h = handle(std::string(after(elements[0], "TABLENAME=")), &status);
  if (!h) return status;
  if (h->db != text(dbName)) return fail(kBadHandle, "ハンドルは別のデータベースのものです");
  const std::vector<ResultColumn> columns = h->database->columns(h->table);
  ColumnValues values;
  for (std::size_t i = 1; i < elements.size(); ++i) {
    Element e;
    if (!parseElement(elements[i], e)) continue;               // a left-out column
    if (e.name == "T_Index" || e.name == "T_index") continue;  // the key is the server's
    const auto c = std::find_if(columns.begin(), columns.end(),
                                [&](const ResultColumn& rc) { return rc.name == e.name; });
    if (c == columns.end()) {
      return fail(kMissingColumn, "列「" + h->table + "." + std::string(e.name) + "」がありません");
    }
    if (isBlob(c->type)) continue;
    values.emplace_back(c->name, columnValue(c->type, e.value));
  }
  std::string error;
  if (add) {
    int64_t key = 0;
    if (!h->database->insert(h->table, values, &key, error)) {
      return fail(kSqlFailed, "レコードを追加できません: " + error);
    }
    *index = static_cast<int32_t>(key);
    return kOk;
  }
  if (!h->database->update(h->table, *index, values, error)) {
    if (error.empty())
      return fail(kNoRow, "レコード(T_Index=" + std::to_string(*index) + ")がありません");
    return fail(kSqlFailed, "レコードを更新できません: " + error);
  }
  return kOk;
}

int32_t BookServer::AddRecord(BSTR dbName, VARIANT* record, int32_t, int32_t* newIndex) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return writeRecord(dbName, record, true, newIndex);
}

int32_t BookServer::UpdateRecord(BSTR dbName, VARIANT* record, int32_t, int32_t* tIndex) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  return writeRecord(dbName, record, false, tIndex);
}

int32_t BookServer::DeleteRecord(BSTR /*dbName*/, BSTR handleText, int32_t tIndex) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  if (!h->database->rowExists(h->table, tIndex)) {
    return fail(kNoRow, "レコード(T_Index=" + std::to_string(tIndex) + ")がありません");
  }
  std::string error;
  if (!h->database->remove(h->table, {tIndex}, error)) {
    return fail(kSqlFailed, "レコードを削除できません: " + error);
  }
  return kOk;
}

int32_t BookServer::DeleteRecords(BSTR /*dbName*/, BSTR handleText, int32_t firstRow,
                                  int32_t lastRow) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  const auto& rows = h->snapshot.rows;
  if (firstRow < 0) firstRow = 0;
  const int64_t last = std::min<int64_t>(lastRow, static_cast<int64_t>(rows.size()) - 1);
  if (last < firstRow) return kOk;  // an empty handle deletes nothing
  const int key = keyColumn(h->snapshot);
  if (key < 0) return fail(kBadArgument, "結果に T_Index がないため行を削除できません");
  std::vector<int64_t> keys;
  for (int64_t i = firstRow; i <= last; ++i) {
    keys.push_back(rows[static_cast<std::size_t>(i)][static_cast<std::size_t>(key)].i);
  }
  std::string error;
  if (!h->database->remove(h->table, keys, error)) {
    return fail(kSqlFailed, "レコードを削除できません: " + error);
  }
  return kOk;
}

int32_t BookServer::UpLoadData(VARIANT* record, int32_t blockNo, int32_t bytes, VARIANT* block,
                               int32_t isLast) {
  // An empty array may have no storage; it is still a block, unlike a missing one.
  static constexpr uint8_t kNoBytes = 0;
  const uint8_t* data = nullptr;
  if (blockBytes(block, bytes, &data) && data == nullptr) data = &kNoBytes;
  return upLoadBytes(record, blockNo, data, bytes, isLast);
}

int32_t BookServer::upLoadBytes(VARIANT* record, int32_t blockNo, const uint8_t* data,
                                int32_t bytes, int32_t isLast) {
  std::vector<std::string> parts;
  if (!arrayTexts(record, parts) || parts.size() < 4) {
    return fail(kBadArgument, "ブロックの宛先が正しくありません");
  }
  const std::string handleText(after(parts[1], "TABLENAME="));
  const std::string column(after(parts[3], "KEY="));
  const int32_t key = parseInt(after(parts[2], "MSTKEY="));
  int32_t status = kOk;
  Handle* h = handle(handleText, &status);
  if (!h) return status;
  const std::string target = handleText + "/" + std::to_string(key) + "/" + column;
  if (data == nullptr || bytes < 0) return fail(kBadArgument, "ブロックの長さが正しくありません");

  if (blockNo == 1) {
    // A new series: whatever else was pending is stored first, a repeat of this one restarts.
    if (auto it = uploads_.find(target); it != uploads_.end()) {
      std::fclose(it->second.file);
      uploads_.erase(it);
    }
    if (const int32_t pending = settle(); pending != kOk) return pending;
    const auto columns = h->database->columns(h->table);
    const auto c = std::find_if(columns.begin(), columns.end(),
                                [&](const ResultColumn& rc) { return rc.name == column; });
    if (c == columns.end() || !isBlob(c->type)) {
      return fail(kMissingColumn,
                  "列「" + h->table + "." + column + "」はバイナリ列ではありません");
    }
    if (!h->database->rowExists(h->table, key)) {
      return fail(kNoRow, "レコード(T_Index=" + std::to_string(key) + ")がありません");
    }
    Upload u{handleText, column, key, 1, stagingFile(core_->stagingFolder()), 0};
    if (u.file == nullptr) return fail(kFileFailed, "一時ファイルを作れません");
    uploads_.emplace(target, u);
  }
  const auto it = uploads_.find(target);
  if (it == uploads_.end() || it->second.nextBlock != blockNo) {
    if (it != uploads_.end()) {
      std::fclose(it->second.file);
      uploads_.erase(it);
    }
    return fail(kBlockOutOfOrder,
                "ブロック " + std::to_string(blockNo) + " の順序が正しくありません");
  }
  Upload& u = it->second;
  if (bytes > 0 && std::fwrite(data, 1, static_cast<std::size_t>(bytes), u.file) !=
                       static_cast<std::size_t>(bytes)) {
    std::fclose(u.file);
    uploads_.erase(it);
    return fail(kFileFailed, "一時ファイルに書けません");
  }
  u.size += bytes;
  ++u.nextBlock;
  if (isLast != 1) return kOk;
  const int32_t result = finishUpload(u);
  uploads_.erase(target);
  return result;
}

int32_t BookServer::finishUpload(Upload& u) {
  int32_t status = kOk;
  Handle* h = handle(u.handle, &status);
  std::FILE* file = u.file;
  u.file = nullptr;
  if (h == nullptr) {
    std::fclose(file);
    return status;
  }
  std::rewind(file);
  std::string error;
  const bool ok = h->database->writeBlob(
      h->table, u.column, u.key, u.size,
      [file](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
        const std::size_t n = std::fread(data, 1, size, file);
        return n == size || !std::ferror(file) ? static_cast<std::ptrdiff_t>(n) : -1;
      },
      error);
  std::fclose(file);
  return ok ? kOk : fail(kStorageFailed, "データを保存できません: " + error);
}

int32_t BookServer::settle() {
  download_ = Download{};
  return finishUploads();
}

int32_t BookServer::finishUploads() {
  int32_t first = kOk;
  for (auto& [target, upload] : uploads_) {
    const int32_t s = finishUpload(upload);
    if (first == kOk) first = s;
  }
  uploads_.clear();
  return first;
}

int32_t BookServer::DownLoadData(BSTR /*dbName*/, BSTR handleText, BSTR columnName,
                                 int32_t rowIndex, int32_t blockNo, int32_t blockSize,
                                 VARIANT* block, int32_t* isEnd, int32_t* bytes) {
  if (const int32_t pending = finishUploads(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  const int key = keyColumn(h->snapshot);
  if (rowIndex < 0 || static_cast<std::size_t>(rowIndex) >= h->snapshot.rows.size() || key < 0) {
    return fail(kNoRow, "行 " + std::to_string(rowIndex) + " はありません");
  }
  if (blockNo < 1 || blockSize <= 0 || blockSize > 64 * 1024 * 1024) {
    return fail(kBadArgument, "ブロックの指定が正しくありません");
  }
  const int64_t tIndex =
      h->snapshot.rows[static_cast<std::size_t>(rowIndex)][static_cast<std::size_t>(key)].i;
  const std::string column = text(columnName);
  // Block 1 always starts a fresh read: the row may have changed since an earlier one.
  if (blockNo == 1 || !download_.reader || download_.handle != text(handleText) ||
      download_.key != tIndex || download_.column != column) {
    std::string error;
    download_ = Download{text(handleText), tIndex, column,
                         h->database->openBlob(h->table, column, tIndex, error)};
    if (!download_.reader) return fail(kStorageFailed, "データを読めません: " + error);
  }
  std::vector<uint8_t> data;
  std::string error;
  const int64_t offset = int64_t{blockNo - 1} * blockSize;
  if (!download_.reader->read(offset, static_cast<std::size_t>(blockSize), data, error)) {
    download_ = Download{};
    return fail(kStorageFailed, "データを読めません: " + error);
  }
  const int64_t total = download_.reader->size();
  if (isEnd) *isEnd = offset + static_cast<int64_t>(data.size()) >= total ? 1 : 0;
  if (bytes) *bytes = static_cast<int32_t>(data.size());
  if (offset + static_cast<int64_t>(data.size()) >= total) download_ = Download{};
  // Past the end, and for an empty column, the answer holds no array.
  if (data.empty()) return kOk;
  if (!putBytes(block, data.data(), data.size())) return fail(kStorageFailed, "メモリが足りません");
  return kOk;
}

int32_t BookServer::ImageFileDate(BSTR /*dbName*/, BSTR handleText, int32_t op, int32_t tIndex,
                                  double* date) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  Handle* h = handle(text(handleText), &status);
  if (!h) return status;
  if (date == nullptr || (op != 0 && op != 1)) return fail(kBadArgument, "引数が正しくありません");
  if (!h->database->rowExists(h->table, tIndex)) {
    return fail(kNoRow, "レコード(T_Index=" + std::to_string(tIndex) + ")がありません");
  }
  const std::string name = "file-date:" + h->table + ":" + std::to_string(tIndex);
  if (op == 0) {
    Value v;
    *date = h->database->getMeta(name, v) && v.kind == Value::Kind::Real ? v.r : 0.0;
    return kOk;
  }
  std::string error;
  if (!h->database->setMeta(name, Value::ofReal(*date), error)) {
    return fail(kStorageFailed, "日付を保存できません: " + error);
  }
  return kOk;
}

}  // namespace mv::server
