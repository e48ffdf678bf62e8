// A recording server with the system database held and the message boxes caught, in CP932.
#pragma once

#include <string>
#include <vector>

#include "MVCore.h"
#include "server_fixture.h"

namespace mvtest {

// 指定のユーザーは登録されていません / 指定のユーザー名は既に登録されています / 既にログイン中です｡
inline constexpr char kUnknownUser[] =
    "\x8E\x77\x92\xE8\x82\xCC\x83\x86\x81\x5B\x83\x55\x81\x5B\x82\xCD\x93\x6F\x98\x5E\x82\xB3"
    "\x82\xEA\x82\xC4\x82\xA2\x82\xDC\x82\xB9\x82\xF1";
inline constexpr char kNameTaken[] =
    "\x8E\x77\x92\xE8\x82\xCC\x83\x86\x81\x5B\x83\x55\x81\x5B\x96\xBC\x82\xCD\x8A\xF9\x82\xC9"
    "\x93\x6F\x98\x5E\x82\xB3\x82\xEA\x82\xC4\x82\xA2\x82\xDC\x82\xB7";
inline constexpr char kAlreadyLoggedOn[] =
    "\x8A\xF9\x82\xC9\x83\x8D\x83\x4F\x83\x43\x83\x93\x92\x86\x82\xC5\x82\xB7\xA1";

// The user names a list export gives for a shelf; the list is freed.
inline std::vector<std::string> listed(int (*list)(int32_t, UserRec**, int32_t*), int32_t shelf) {
  UserRec* users = nullptr;
  int32_t count = -1;
  EXPECT_EQ(list(shelf, &users, &count), 0);
  std::vector<std::string> names;
  for (int32_t i = 0; i < count; ++i) names.emplace_back(users[i].userName);
  MVGlobalFree(MVGlobalHandle(users));
  return names;
}

}  // namespace mvtest
