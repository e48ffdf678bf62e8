// A session's users: logging on and off, who is logged on, administrators, and the sessions
// connected.
#include "server/core/book_server.h"
#include "server/core/session_helpers.h"
#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

namespace {

// The account of `name` if its password matches: (found, T_Index, UserAttribute).
struct Account {
  bool found = false;
  int64_t id = 0;
  int64_t attribute = 1;
};

Account account(ServerCore& core, const std::string& name, const std::string& password) {
  Account a;
  std::string error;
  auto db = core.engine().open("MarvekSystemCommonDB", false, error);
  Snapshot s;
  if (!db ||
      !db->query("SELECT T_Index, UserName, Password, UserAttribute FROM UserInfoTBL", s, error)) {
    return a;
  }
  for (const auto& row : s.rows) {
    if (row[1].text == name && row[2].text == password) {
      a.found = true;
      a.id = row[0].i;
      a.attribute = row[3].i;
      break;
    }
  }
  return a;
}

}  // namespace

// LoginMgr(user, text, password, op): op 1 logs the user on to this session (the text is kept
// with the name, GetLoginUsers shows it), op 0 logs them off.
int32_t BookServer::LoginMgr(BSTR first, BSTR second, BSTR third, int32_t fourth) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  const std::string user = text(first);
  if (fourth == 0) {
    core_->logoff(id_, user);
    return kOk;
  }
  if (fourth != 1)
    return fail(kBadArgument, "ログイン操作 " + std::to_string(fourth) + " は使えません");
  if (!account(*core_, user, text(third)).found) {
    return fail(kLogonRefused, "指定のユーザーは登録されていません");
  }
  core_->logon(id_, user, text(second));
  return kOk;
}

int32_t BookServer::GetLoginUsers(VARIANT* list, int32_t* count) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (list == nullptr || count == nullptr) return fail(kBadArgument, "引数が正しくありません");
  std::vector<std::string> texts;
  for (const auto& [user, note] : core_->loggedOn()) {
    texts.push_back(user);
    texts.push_back(note);
  }
  if (!putTexts(list, texts)) return fail(kStorageFailed, "メモリが足りません");
  *count = static_cast<int32_t>(texts.size() / 2);
  return kOk;
}

// SetUserAdmin(user, password, op): op 0 asks, 1 makes the user an administrator, 2 makes them
// an ordinary user; the answer is the state afterwards, 3 for administrator, 4 for not.
int32_t BookServer::SetUserAdmin(BSTR first, BSTR second, int32_t third) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (third < 0 || third > 2)
    return fail(kBadArgument, "操作 " + std::to_string(third) + " は使えません");
  const Account a = account(*core_, text(first), text(second));
  if (!a.found) return fail(kLogonRefused, "指定のユーザーは登録されていません");
  if (third == 0) return a.attribute == 0 ? kUserIsAdmin : kUserIsNotAdmin;
  std::string error;
  auto db = core_->engine().open("MarvekSystemCommonDB", false, error);
  if (!db || !db->update("UserInfoTBL", a.id, {{"UserAttribute", Value::ofInt(third == 1 ? 0 : 1)}},
                         error)) {
    return fail(kStorageFailed, "ユーザーを更新できません: " + error);
  }
  return third == 1 ? kUserIsAdmin : kUserIsNotAdmin;
}

// GetConnect: the sessions connected now, and this session's number.
int32_t BookServer::GetConnect(int32_t* first, int32_t* second) {
  if (const int32_t pending = settle(); pending != kOk) return pending;
  if (first == nullptr || second == nullptr) return fail(kBadArgument, "引数が正しくありません");
  *first = core_->liveSessions();
  *second = clampInt(static_cast<int64_t>(id_));
  return kOk;
}

}  // namespace mv::server
