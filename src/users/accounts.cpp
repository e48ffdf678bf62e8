// User accounts and the logon: adding, changing and listing users, naming the administrator, and
// deciding a logon by comparing the stored password.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "MVCore.h"
#include "frame/connection.h"
#include "frame/handles.h"
#include "frame/records.h"
#include "frame/rows.h"
#include "platform/codepage.h"
#include "platform/message.h"
#include "users/user_rows.h"
#include "users/users.h"

namespace mv {
namespace {

// The library's fixed texts.
constexpr std::string_view kUnknownUser = "指定のユーザーは登録されていません";
constexpr std::string_view kNameTaken = "指定のユーザー名は既に登録されています";
constexpr std::string_view kAlreadyLoggedOn = "既にログイン中です｡";

// Statuses of SetUserAdmin that are answers, not failures.
constexpr int32_t kSetUserAdminIsAdmin = 3;
constexpr int32_t kSetUserAdminIsNotAdmin = 4;

// The logon's walk over the rows of the name's query, element by element in array order. A
// UserName equal to the name opens the match, and a Password that follows it closes it as right
// or wrong; so UserName has to come before Password, as it does in the table's order, and a row
// that sends no Password after the name never logs on. Nothing resets the state between rows,
// and the T_Index remembered is the last one seen.
struct LogonWalk {
  enum class State { NoMatch, NameMatched, Matched };
  State state = State::NoMatch;
  int32_t tIndex = 0;

  void row(const Row& elements, std::string_view name, std::string_view password) {
    for (const RowField& field : elements) {
      if (field.name == "T_Index") {
        tIndex = parseInt(field.value);
      } else if (field.name == "UserName") {
        state = field.value == name ? State::NameMatched : State::NoMatch;
      } else if (field.name == "Password" && state == State::NameMatched) {
        state = field.value == password ? State::Matched : State::NoMatch;
      }
    }
  }
  bool matched() const { return state == State::Matched; }
};

// 0 if the logon is right, -1 for a failure or a wrong name or password.
int logon(const char* name, const char* password, int32_t* userId) {
  WorkQuery query(kSystemDb);
  if (failed(query.open(kUserTable, userByNameSql(name)))) return -1;
  if (query.rowCount() == 0) {
    query.close();
    showLibraryMessage(kUnknownUser);
    return -1;
  }
  LogonWalk walk;
  Row row;
  for (int32_t i = 0; i < query.rowCount(); ++i) {
    if (!query.fetch(i, row)) {
      query.abandon();
      return -1;
    }
    walk.row(row, name, password);
  }
  if (query.close() != 1) return -1;
  if (!walk.matched()) {
    showLibraryMessage(kUnknownUser);
    return -1;
  }
  *userId = walk.tIndex;
  return 0;
}

// The names of the users the server has logged on now. False, with the status in lastError, when
// the server could not say.
bool loggedOnUsers(IBookServer& server, std::vector<std::string>& names) {
  Variant list;
  int32_t count = 0;
  if (failed(server.GetLoginUsers(list.get(), &count))) return false;
  std::vector<std::string> texts;
  textArray(*list.get(), texts);
  // Pairs of texts: the user's name, then a second text that is not used.
  for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(count, 0)); ++i) {
    if (2 * i < texts.size()) names.push_back(texts[2 * i]);
  }
  return true;
}

int registerUser(const char* name, const char* password, int32_t* userId) {
  IBookServer* server = connection().currentServer;
  WorkQuery query(kSystemDb, WorkQuery::Db::OpenUnlessHeld);
  if (failed(query.open(kUserTable, userByNameSql(name)))) return -1;
  if (query.rowCount() > 0) {
    showLibraryMessage(kNameTaken);
    query.close();
    return -1;
  }
  if (failed(query.reopenTable(kUserTable))) {
    query.abandon();
    return -1;
  }
  const TableDef& table = userTable();
  RecordWriter record(query.handle(), addRecordFields(table, KeyElement::Zero));
  const bool built =
      fillAddRecord(record, table, KeyElement::Zero, [&](const ColumnDef& c) -> ColumnValue {
        const std::string_view column = c.name;
        if (column == "UserName") return std::string_view(name);
        if (column == "Password") return std::string_view(password);
        if (column == "UserAttribute") return kOrdinaryUser;
        return {};
      });
  int32_t newIndex = 0;
  if (!built || failed(server->AddRecord(toWide(kSystemDb).get(), record.get(), 1, &newIndex))) {
    query.abandon();
    return -1;
  }
  *userId = newIndex;
  return query.close(1) == 1 ? 0 : -1;
}

int updateUser(int32_t userId, const char* name, const char* password) {
  IBookServer* server = connection().currentServer;
  std::vector<std::string> names;
  if (!loggedOnUsers(*server, names)) return -1;
  for (const std::string& loggedOn : names) {
    if (loggedOn == name) {
      showLibraryMessage(kAlreadyLoggedOn);
      return -1;
    }
  }
  std::string handle;
  int32_t rows = 0;
  if (openWorkTable(kSystemDb, kUserTable, &rows, handle) != 1) return -1;
  // Name and password only; UserAttribute stays an empty element, which the server skips, so an
  // update never changes who is administrator.
  const TableDef& table = userTable();
  RecordWriter record(handle, static_cast<uint32_t>(table.columns.size()));
  record.putInt(recordPosition(table, "T_Index"), "T_Index", kTypeInt, 0);
  record.putText(recordPosition(table, "UserName"), "UserName", kTypeVarchar, name);
  record.putText(recordPosition(table, "Password"), "Password", kTypeVarchar, password);
  int32_t index = userId;
  if (!record.ok() ||
      failed(server->UpdateRecord(toWide(kSystemDb).get(), record.get(), 1, &index))) {
    abandonWorkTable(kSystemDb, handle);
    return -1;
  }
  return closeWorkTable(kSystemDb, handle, 0) == 1 ? 0 : -1;
}

}  // namespace
}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVGetAdmin(char* name) {
  if (connection().currentServer == nullptr || name == nullptr) return -1;
  mv::Row row;
  switch (mv::lookupFirstRow(mv::kSystemDb, mv::kUserTable, mv::kAdminSql, row)) {
    case mv::Lookup::Failed:
      return -1;
    case mv::Lookup::Missing:
      return 0;  // no administrator: the buffer stays as it was
    case mv::Lookup::Found:
      break;
  }
  if (const mv::RowField* field = mv::findField(row, "UserName")) {
    mv::copyToField(name, sizeof(UserRec::userName), field->value);
  }
  return 0;
}

MVAPI int MVSetAdmin(const char* name, int32_t ignored) {
  (void)ignored;
  if (connection().currentServer == nullptr || name == nullptr) return -1;
  // The old administrator goes first: an unknown name leaves the system without one.
  int32_t oldAdmin = 0;
  int32_t newAdmin = 0;
  if (mv::findAdmin(&oldAdmin) != 1 || mv::demoteUser(oldAdmin) != 1 ||
      mv::findUserByName(name, &newAdmin) != 1 || mv::promoteUser(newAdmin) != 1) {
    return -1;
  }
  return 0;
}

MVAPI int MVSetAdmin2(int32_t userId) {
  if (connection().currentServer == nullptr) return -1;
  int32_t oldAdmin = 0;
  if (mv::findAdmin(&oldAdmin) != 1) return -1;
  if (oldAdmin == userId) return 0;
  if (mv::promoteUser(userId) != 1 || mv::demoteUser(oldAdmin) != 1) return -1;
  return 0;
}

MVAPI int MVRegistUser(const char* name, const char* password, int32_t* userId) {
  if (connection().currentServer == nullptr || name == nullptr || password == nullptr ||
      userId == nullptr) {
    return -1;
  }
  return mv::registerUser(name, password, userId);
}

MVAPI int MVUpdateUser(int32_t userId, const char* name, const char* password) {
  if (connection().currentServer == nullptr || name == nullptr || password == nullptr) return -1;
  return mv::updateUser(userId, name, password);
}

MVAPI int MVGetUserInfo(const char* name, UserRec* record, int32_t* found) {
  if (connection().currentServer == nullptr || name == nullptr || record == nullptr ||
      found == nullptr) {
    return -1;
  }
  int32_t userId = 0;
  if (mv::findUserByName(name, &userId) != 1) {
    *found = 0;  // an unknown name is an answer, not a failure
    return 0;
  }
  if (mv::readUser(userId, record) != 1) {
    *found = 0;
    return -1;
  }
  *found = 1;
  return 0;
}

MVAPI int MVGetUserList(UserRec** list, int32_t* count) {
  if (connection().currentServer == nullptr || list == nullptr || count == nullptr) return -1;
  return mv::listUsers(list, count) == 1 ? 0 : -1;
}

MVAPI int MVGetAdminLogon(int32_t ignored) {
  (void)ignored;
  return connection().currentServer == nullptr ? -1 : 0;
}

MVAPI int MVUserLogon(const char* name, const char* password, int32_t ignored, int32_t* userId) {
  (void)ignored;
  if (connection().currentServer == nullptr || name == nullptr || password == nullptr ||
      userId == nullptr) {
    return -1;
  }
  return mv::logon(name, password, userId);
}

MVAPI int MVLoginMgr(const char* a, const char* b, const char* c, int32_t d) {
  auto* server = connection().currentServer;
  if (server == nullptr || a == nullptr || b == nullptr || c == nullptr) return -1;
  return failed(server->LoginMgr(mv::toWide(a).get(), mv::toWide(b).get(), mv::toWide(c).get(), d))
             ? -1
             : 0;
}

MVAPI int MVSetUserAdmin(const char* a, const char* b, int32_t c, int32_t* state) {
  auto* server = connection().currentServer;
  if (server == nullptr || a == nullptr || b == nullptr || state == nullptr) return -1;
  const int32_t status = server->SetUserAdmin(mv::toWide(a).get(), mv::toWide(b).get(), c);
  switch (status) {
    case 0:
      return 0;
    case mv::kSetUserAdminIsAdmin:
      *state = 1;
      return 0;
    case mv::kSetUserAdminIsNotAdmin:
      *state = 0;
      return 0;
    default:
      connection().lastError = status;
      return -1;
  }
}

}  // extern "C"
