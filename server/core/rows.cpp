// A session's rows: queries and tables opened as snapshots behind handles, reading their rows,
// statements that change rows, and adding, updating and deleting records.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "frame/exchange.h"
#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"
#include "sql/translate.h"

namespace mv::server {

namespace {

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

}  // namespace

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
  return writeRecord(dbName, record, true, newIndex);
}

int32_t BookServer::UpdateRecord(BSTR dbName, VARIANT* record, int32_t, int32_t* tIndex) {
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

}  // namespace mv::server
