// A session's databases and tables: deleting, copying, opening and closing databases, making the
// tables the library makes on demand, asking whether a table or column is there, and sizes.
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

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

// GetDatabaseSize in kilobytes, GetDatabaseSize2 in bytes.
int32_t BookServer::GetDatabaseSize(BSTR dbName, int32_t* size) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (size) *size = clampInt(db->sizeBytes() / 1024);
  return kOk;
}

int32_t BookServer::GetDatabaseSize2(BSTR dbName, int64_t* size) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  int32_t status = kOk;
  auto db = database(text(dbName), &status);
  if (!db) return status;
  if (size) *size = db->sizeBytes();
  return kOk;
}

}  // namespace mv::server
