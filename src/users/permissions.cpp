// Permissions on bookshelves as the application sees them, and the deleting of a user, which
// begins with the user's permission rows.
#include <algorithm>
#include <string>
#include <vector>

#include "MVCore.h"
#include "frame/connection.h"
#include "frame/handles.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "users/shelf_power.h"
#include "users/users.h"

namespace mv {
namespace {

// A book is read on at most this many of its shelves; only the first counts.
constexpr int32_t kMaxShelvesOfBook = 20;

// The user's value on the book's shelf: 1 for the administrator, 0 for a book on no shelf,
// -1 on a failure.
int32_t powerOnBook(int32_t bookId, int32_t userId) {
  int32_t admin = 0;
  if (findAdmin(&admin) != 1) return -1;
  if (userId == admin) return kPowerReadWrite;
  WorkQuery query(kSystemDb);
  const std::string sql =
      sqlFormat("SELECT BookShelfID FROM BookShelfInfoTBL WHERE BookID='%d'", bookId);
  if (failed(query.open("BookShelfInfoTBL", sql))) return -1;
  if (query.rowCount() <= 0) return query.close() == 1 ? kPowerReadOnly : -1;
  std::vector<int32_t> shelves;
  Row row;
  for (int32_t i = 0; i < std::min(query.rowCount(), kMaxShelvesOfBook); ++i) {
    if (!query.fetch(i, row)) {
      query.abandon();
      return -1;
    }
    const RowField* shelf = findField(row, "BookShelfID");
    shelves.push_back(shelf ? parseInt(shelf->value) : 0);
  }
  if (query.close() != 1) return -1;
  return BookShelfPower(connection().currentServer).getPower(shelves.front(), userId);
}

}  // namespace
}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVGetUserPermissionOfBS(int32_t shelfId, int32_t userId, int32_t* power) {
  auto* server = connection().currentServer;
  if (server == nullptr || power == nullptr) return -1;
  *power = mv::BookShelfPower(server).getPower(shelfId, userId);
  return *power == -1 ? -1 : 0;
}

MVAPI int MVGetUserPermissionOfBook(int32_t bookId, const char* userName, int32_t* power) {
  if (connection().currentServer == nullptr || userName == nullptr || power == nullptr) return -1;
  int32_t userId = 0;
  if (mv::findUserByName(userName, &userId) != 1) return -1;
  *power = mv::powerOnBook(bookId, userId);
  return *power == -1 ? -1 : 0;
}

MVAPI int MVUpdateUserPermissionOfBS(int32_t shelfId, UserRec* users, int32_t count) {
  auto* server = connection().currentServer;
  if (server == nullptr || count < 0 || (users == nullptr && count > 0)) return -1;
  mv::BookShelfPower power(server);
  int32_t* current = nullptr;
  const int32_t n = power.listUsersByPower(shelfId, mv::kPowerReadWrite, &current);
  if (current == nullptr) return -1;  // the present set is unknown: nothing is changed
  UserRec* const end = users + count;
  for (int32_t i = 0; i < n; ++i) {
    UserRec* kept =
        std::find_if(users, end, [&](const UserRec& u) { return u.tIndex == current[i]; });
    if (kept != end) {
      kept->tIndex = -1;  // keeps its value; marked as done in the caller's array
    } else {
      (void)power.setPower(shelfId, current[i], mv::defaultPower(shelfId));
    }
  }
  mv::freeResultBlock(current);
  for (UserRec* u = users; u != end; ++u) {
    if (u->tIndex != -1) (void)power.setPower(shelfId, u->tIndex, mv::kPowerReadWrite);
  }
  return 0;
}

MVAPI int MVUpdateUserPermissionOfBS2(int32_t shelfId, int32_t userId, int32_t power) {
  auto* server = connection().currentServer;
  if (server == nullptr) return -1;
  return mv::BookShelfPower(server).setPower(shelfId, userId, power) == 1 ? 0 : -1;
}

MVAPI int MVGetPowerUserListOfBS(int32_t shelfId, int32_t power, UserRec** list, int32_t* count) {
  auto* server = connection().currentServer;
  if (server == nullptr || list == nullptr || count == nullptr) return -1;
  int32_t* ids = nullptr;
  const int32_t n = mv::BookShelfPower(server).listUsersByPower(shelfId, power, &ids);
  mv::ResultBlock<UserRec> users(static_cast<std::size_t>(n));
  bool ok = ids != nullptr && users.ok();
  for (int32_t i = 0; ok && i < n; ++i)
    ok = mv::readUser(ids[i], &users[static_cast<std::size_t>(i)]) == 1;
  mv::freeResultBlock(ids);
  if (!ok) {
    *list = nullptr;
    *count = 0;
    return -1;
  }
  *list = users.release();
  *count = n;
  return 0;
}

MVAPI int MVGetRWUserOfBS(int32_t shelfId, UserRec** list, int32_t* count) {
  return MVGetPowerUserListOfBS(shelfId, mv::kPowerReadWrite, list, count);
}

MVAPI int MVGetROUserOfBS(int32_t shelfId, UserRec** list, int32_t* count) {
  return MVGetPowerUserListOfBS(shelfId, mv::kPowerReadOnly, list, count);
}

MVAPI int MVDeleteUser(int32_t userId) {
  auto* server = connection().currentServer;
  if (server == nullptr) return -1;
  // The permission rows go first; a failure after this leaves the user without them.
  if (mv::BookShelfPower(server).removeUser(userId) != 1) return -1;
  std::string handle;
  int32_t rows = 0;
  if (mv::openWorkTable(mv::kSystemDb, mv::kUserTable, &rows, handle) != 1) return -1;
  if (failed(server->DeleteRecord(mv::toWide(mv::kSystemDb).get(), mv::toWide(handle).get(),
                                  userId))) {
    mv::abandonWorkTable(mv::kSystemDb, handle);
    return -1;
  }
  return mv::closeWorkTable(mv::kSystemDb, handle, 0) == 1 ? 0 : -1;
}

}  // extern "C"
