#include "users/shelf_power.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>

#include "frame/catalogue.h"
#include "frame/connection.h"
#include "frame/exchange.h"
#include "frame/handles.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "platform/text.h"
#include "users/users.h"

namespace mv {

namespace {

constexpr char kRowsOfShelfSql[] = "SELECT * FROM BookShelfPowerTBL WHERE BookShelfID='%d'";
constexpr char kRowOfUserSql[] =
    "SELECT * FROM BookShelfPowerTBL WHERE BookShelfID='%d' AND UserID='%d'";

// The value of a column in the texts readRow gives: the element that starts with
// "KEY=<column>\t", everything after its last tab, trimmed. False without such an element.
bool fieldValue(const std::vector<std::string>& fields, std::string_view column,
                std::string& value) {
  const std::string prefix = "KEY=" + std::string(column) + "\t";
  for (const std::string& field : fields) {
    if (!std::string_view(field).starts_with(prefix)) continue;
    // A tab is never part of a double-byte character, so the bytes can be searched.
    value.assign(trim(std::string_view(field).substr(field.rfind('\t') + 1)));
    return true;
  }
  return false;
}

// A Reserve that is empty counts as read and write.
int32_t powerOf(std::string_view reserve) {
  return reserve.empty() ? kPowerReadWrite : parseInt(reserve);
}

// The user and value of a row, when both are there.
bool userAndPower(const std::vector<std::string>& fields, int32_t& userId, int32_t& power) {
  std::string user;
  std::string reserve;
  if (!fieldValue(fields, "UserID", user) || !fieldValue(fields, "Reserve", reserve)) return false;
  userId = parseInt(user);
  power = powerOf(reserve);
  return true;
}

// The texts of the record that adds a row: the table handle, then each column of the catalogue
// but the key, which the server gives.
std::vector<std::string> addedRow(const std::string& handle, int32_t shelfId, int32_t userId,
                                  int32_t power) {
  std::vector<std::string> fields{"TABLENAME=" + handle};
  const TableDef* table = findTable(DbKind::System, kPowerTable);
  for (const ColumnDef& column : table->columns) {
    const std::string_view name = column.name;
    int32_t value = 0;
    if (name == "BookShelfID") {
      value = shelfId;
    } else if (name == "UserID") {
      value = userId;
    } else if (name == "Reserve") {
      value = power;
    } else {
      continue;
    }
    fields.push_back(sqlFormat("KEY=%s\t%d\t%d", column.name, typeCode(column.type), value));
  }
  return fields;
}

}  // namespace

int32_t defaultPower(int32_t shelfId) { return shelfId == 1 ? kPowerNone : kPowerReadOnly; }

int BookShelfPower::readRow(const std::string& handle, int32_t rowIndex,
                            std::vector<std::string>& fields) {
  if (server_ == nullptr) return 0;
  Variant row;
  status_ = server_->GetRecords(toWide(kSystemDb).get(), toWide(handle).get(), rowIndex, row.get());
  if (status_ != 0) return 0;
  // A row is anything with one of the bits of 0x2011; whatever of it is an array of texts counts.
  if ((row.get()->vt & 0x2011) == 0) {
    status_ = -1;
    return 0;
  }
  std::vector<std::string> texts;
  if (textArray(*row.get(), texts)) fields.insert(fields.end(), texts.begin(), texts.end());
  return 1;
}

int BookShelfPower::addRow(const std::vector<std::string>& fields) {
  if (server_ == nullptr) return 0;
  Variant record;
  bool built = record.makeArray(MV_VT_VARIANT, static_cast<uint32_t>(fields.size()));
  for (uint32_t i = 0; built && i < fields.size(); ++i) {
    built = putElement(record.get()->parray, i, fields[i]);
  }
  if (!built) {
    status_ = -1;
    return 0;
  }
  int32_t newIndex = 0;
  status_ = server_->AddRecord(toWide(kSystemDb).get(), record.get(), 1, &newIndex);
  return status_ == 0 ? 1 : 0;
}

int32_t BookShelfPower::getPower(int32_t shelfId, int32_t userId) {
  if (server_ == nullptr) return -1;
  int32_t admin = 0;
  if (findAdmin(&admin) != 1) return -1;
  if (userId == admin) return kPowerReadWrite;
  WorkQuery query(kSystemDb);
  status_ = query.open(kPowerTable, sqlFormat(kRowOfUserSql, shelfId, userId));
  if (status_ != 0) return -1;
  int32_t power = -1;
  if (query.rowCount() == 0) {
    power = defaultPower(shelfId);
  } else {
    std::vector<std::string> fields;
    std::string reserve;
    if (readRow(query.handle(), 0, fields) == 1 && fieldValue(fields, "Reserve", reserve)) {
      power = powerOf(reserve);
    }
  }
  query.close();
  return power;
}

int32_t BookShelfPower::listUsersByPower(int32_t shelfId, int32_t power, int32_t** userIds) {
  if (userIds == nullptr) return 0;
  *userIds = nullptr;
  if (server_ == nullptr) return 0;

  // Everybody starts at the shelf's default; the administrator is the first user marked so.
  std::map<int32_t, int32_t> values;
  bool haveAdmin = false;
  int32_t admin = 0;
  {
    UserRec* users = nullptr;
    int32_t count = 0;
    if (listUsers(&users, &count) != 1) return 0;
    for (int32_t i = 0; i < count; ++i) {
      values[users[i].tIndex] = defaultPower(shelfId);
      if (!haveAdmin && users[i].userAttribute == kAdministrator) {
        haveAdmin = true;
        admin = users[i].tIndex;
      }
    }
    freeResultBlock(users);
  }

  WorkQuery query(kSystemDb);
  status_ = query.open(kPowerTable, sqlFormat(kRowsOfShelfSql, shelfId));
  if (status_ != 0) return 0;
  for (int32_t i = 0; i < query.rowCount(); ++i) {
    std::vector<std::string> fields;
    int32_t user = 0;
    int32_t value = 0;
    // A row of an id that is not a user any more still gets its entry.
    if (readRow(query.handle(), i, fields) == 1 && userAndPower(fields, user, value)) {
      values[user] = value;
    }
  }
  if (haveAdmin) values[admin] = kPowerReadWrite;
  query.close();

  std::erase_if(values, [&](const auto& entry) { return entry.second != power; });
  ResultBlock<int32_t> block(values.size());
  if (!block.ok()) return 0;
  std::size_t i = 0;
  for (const auto& entry : values) block[i++] = entry.first;
  *userIds = block.release();
  return static_cast<int32_t>(values.size());
}

int BookShelfPower::setPower(int32_t shelfId, int32_t userId, int32_t power) {
  if (server_ == nullptr) return 0;
  bool hasRow = false;
  {
    WorkQuery query(kSystemDb);
    status_ = query.open(kPowerTable, sqlFormat(kRowOfUserSql, shelfId, userId));
    if (status_ != 0) return 0;
    hasRow = query.rowCount() > 0;
    query.close();
  }
  if (hasRow) {
    const std::string sql =
        sqlFormat("UPDATE %s SET Reserve='%d' WHERE BookShelfID='%d' AND UserID='%d'", kPowerTable,
                  power, shelfId, userId);
    status_ = server_->ExecuteSQL(toWide(kSystemDb).get(), toWide(sql).get());
  } else {
    std::string handle;
    int32_t rows = 0;
    if (openWorkTable(kSystemDb, kPowerTable, &rows, handle) != 1) return 0;
    addRow(addedRow(handle, shelfId, userId, power));
    closeWorkTable(kSystemDb, handle, 0);
  }
  return status_ == 0 ? 1 : 0;
}

int BookShelfPower::removeUser(int32_t userId) {
  if (server_ == nullptr) return 0;
  const std::string sql = sqlFormat("DELETE FROM %s WHERE UserID='%d'", kPowerTable, userId);
  status_ = server_->ExecuteSQL(toWide(kSystemDb).get(), toWide(sql).get());
  return status_ == 0 ? 1 : 0;
}

int BookShelfPower::removeShelf(int32_t shelfId) {
  if (server_ == nullptr) return 0;
  const std::string sql = sqlFormat("DELETE FROM %s WHERE BookShelfID='%d'", kPowerTable, shelfId);
  status_ = server_->ExecuteSQL(toWide(kSystemDb).get(), toWide(sql).get());
  return status_ == 0 ? 1 : 0;
}

int BookShelfPower::listShelfPowers(int32_t shelfId, PowerRow** rows, int32_t* count) {
  if (rows == nullptr || count == nullptr) return 0;
  *rows = nullptr;
  *count = 0;
  if (server_ == nullptr) return 0;
  WorkQuery query(kSystemDb);
  status_ = query.open(kPowerTable, sqlFormat(kRowsOfShelfSql, shelfId));
  if (status_ != 0) return 0;
  if (query.rowCount() <= 0) {
    query.close();
    return 0;
  }
  ResultBlock<PowerRow> block(static_cast<std::size_t>(query.rowCount()));
  if (!block.ok()) {
    query.close();
    return 0;
  }
  int32_t filled = 0;
  for (int32_t i = 0; i < query.rowCount(); ++i) {
    std::vector<std::string> fields;
    PowerRow entry{shelfId, 0, 0};
    if (readRow(query.handle(), i, fields) == 1 &&
        userAndPower(fields, entry.userId, entry.power)) {
      block[static_cast<std::size_t>(filled++)] = entry;
    }
  }
  query.close();
  *rows = block.release();
  *count = filled;
  return 1;
}

}  // namespace mv
