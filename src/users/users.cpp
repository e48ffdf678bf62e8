#include "users/users.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "frame/catalogue.h"
#include "frame/connection.h"
#include "frame/handles.h"
#include "frame/records.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "users/user_rows.h"

namespace mv {

const FieldBinding kUserBindings[4] = {
    MV_INT_FIELD(UserRec, tIndex, "T_Index"),
    MV_TEXT_FIELD(UserRec, userName, "UserName"),
    MV_TEXT_FIELD(UserRec, password, "Password"),
    MV_INT_FIELD(UserRec, userAttribute, "UserAttribute"),
};

const TableDef& userTable() {
  static const TableDef* table = findTable(DbKind::System, kUserTable);
  return *table;
}

std::string userByNameSql(const char* name) {
  return sqlFormat("SELECT * FROM UserInfoTBL WHERE UserName='%s'", sqlText(name).c_str());
}

const char kAdminSql[] = "SELECT * FROM UserInfoTBL WHERE UserAttribute='0'";

namespace {

// The first row of a query on UserInfoTBL bound into a user record.
Lookup lookupUser(const std::string& sql, UserRec& user) {
  Row row;
  const Lookup found = lookupFirstRow(kSystemDb, kUserTable, sql, row);
  if (found == Lookup::Found) {
    user = UserRec{};
    bindRow(row, kUserBindings, &user);
  }
  return found;
}

// UpdateRecord of UserAttribute alone, with the key and the value's typecode as given.
int writeUserAttribute(int32_t userId, int typecode, int32_t value) {
  IBookServer* server = connection().currentServer;
  if (server == nullptr) return 0;
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kUserTable, &rows, handle) != 1) return 0;
  const TableDef& table = userTable();
  RecordWriter record(handle, static_cast<uint32_t>(table.columns.size()));
  record.putInt(recordPosition(table, "T_Index"), "T_Index", kTypeInt, userId);
  record.putInt(recordPosition(table, "UserAttribute"), "UserAttribute", typecode, value);
  if (!record.ok()) {
    abandonWorkTable(kSystemDb, handle);
    return 0;
  }
  int32_t index = userId;
  if (failed(server->UpdateRecord(toWide(kSystemDb).get(), record.get(), 1, &index))) {
    abandonWorkTable(kSystemDb, handle);
    return 0;
  }
  return closeWorkTable(kSystemDb, handle, 0);
}

}  // namespace

int findUserByName(const char* name, int32_t* userId) {
  if (connection().currentServer == nullptr || name == nullptr || userId == nullptr) return 0;
  UserRec user{};
  if (lookupUser(userByNameSql(name), user) != Lookup::Found) return 0;
  *userId = user.tIndex;
  return 1;
}

int readUser(int32_t userId, UserRec* record) {
  if (connection().currentServer == nullptr || record == nullptr) return 0;
  UserRec user{};
  const std::string sql = sqlFormat("SELECT * FROM UserInfoTBL WHERE T_index='%d'", userId);
  if (lookupUser(sql, user) != Lookup::Found) return 0;
  *record = user;
  return 1;
}

int findAdmin(int32_t* userId) {
  if (connection().currentServer == nullptr || userId == nullptr) return 0;
  UserRec user{};
  if (lookupUser(kAdminSql, user) != Lookup::Found) return 0;
  *userId = user.tIndex;
  return 1;
}

int listUsers(UserRec** list, int32_t* count) {
  if (connection().currentServer == nullptr || list == nullptr || count == nullptr) return 0;
  WorkQuery query(kSystemDb, WorkQuery::Db::OpenUnlessHeld);
  if (failed(query.open(kUserTable, "SELECT * FROM UserInfoTBL;"))) return 0;
  const int32_t rows = std::max(query.rowCount(), 0);
  ResultBlock<UserRec> block(static_cast<std::size_t>(rows));
  if (!block.ok() || !readRecords(query, kUserBindings, block)) {
    query.abandon();
    return 0;
  }
  if (query.close() != 1) return 0;
  *list = block.release();
  *count = rows;
  return 1;
}

int demoteUser(int32_t userId) { return writeUserAttribute(userId, kTypeVarchar, kOrdinaryUser); }

int promoteUser(int32_t userId) { return writeUserAttribute(userId, kTypeInt, kAdministrator); }

}  // namespace mv
