// A recording server with the system database held, and the library's message boxes caught.
#pragma once

#include <string>
#include <vector>

#include "MVCore.h"
#include "server_fixture.h"

namespace mvtest {

// The library's fixed texts as CP932 bytes.
inline constexpr char kUnknownUser[] =
    "\x8E\x77\x92\xE8\x82\xCC\x83\x86\x81\x5B\x83\x55\x81\x5B\x82\xCD\x93\x6F\x98\x5E\x82\xB3"
    "\x82\xEA\x82\xC4\x82\xA2\x82\xDC\x82\xB9\x82\xF1";  // 指定のユーザーは登録されていません
inline constexpr char kNameTaken[] =
    "\x8E\x77\x92\xE8\x82\xCC\x83\x86\x81\x5B\x83\x55\x81\x5B\x96\xBC\x82\xCD\x8A\xF9\x82\xC9"
    "\x93\x6F\x98\x5E\x82\xB3\x82\xEA\x82\xC4\x82\xA2\x82\xDC\x82\xB7";  // 指定のユーザー名は既に登録されています
inline constexpr char kAlreadyLoggedOn[] =
    "\x8A\xF9\x82\xC9\x83\x8D\x83\x4F\x83\x43\x83\x93\x92\x86\x82\xC5\x82\xB7\xA1";  // 既にログイン中です｡

// The user names a list export gives for a shelf; the list is freed.
std::vector<std::string> listed(int (*list)(int32_t, UserRec**, int32_t*), int32_t shelf);

struct Shown {
  std::string text;
  std::string caption;
  std::size_t callsBefore;  // server calls made when the box came up
};

class UsersTest : public ServerFixture {
 protected:
  void SetUp() override;
  void TearDown() override;

  // One row of UserInfoTBL in the table's column order.
  static std::vector<std::string> userRow(int id, const std::string& name,
                                          const std::string& password, int attribute);
  // One row of BookShelfPowerTBL.
  static std::vector<std::string> powerRow(int shelf, int user, const std::string& reserve);
  // Queues the result of the administrator's query: the user `id`, or none.
  void queueAdmin(int id);
  // The text of call `i`.
  std::string call(std::size_t i) const;

  RecordingServer* server = nullptr;
  std::vector<Shown> shown;
};

}  // namespace mvtest
