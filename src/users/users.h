// User accounts as the rest of the library uses them: finding a user by name, reading one, the
// administrator, the list of all users, and moving the administrator's mark. Each gives 1 on
// success and 0 on failure; a failing server method leaves its code in lastError.
//
// All work on UserInfoTBL of the system database. findUserByName, readUser and findAdmin count on
// the application holding that database (MVOpenDB); listUsers and the two markers open it
// themselves unless it is held.
#pragma once

#include <cstdint>

#include "MVCore.h"

namespace mv {

inline constexpr char kUserTable[] = "UserInfoTBL";

// Values of UserAttribute.
inline constexpr int32_t kAdministrator = 0;
inline constexpr int32_t kOrdinaryUser = 1;

// The T_Index of the user whose name is exactly `name`. 0 when there is no such user, and on a
// failure. `userId` is written only when the user was found.
int findUserByName(const char* name, int32_t* userId);

// All four fields of the user `userId`, the text fields cut to their widths. 0 when there is no
// such user, and on a failure; `record` is written only on success.
int readUser(int32_t userId, UserRec* record);

// The T_Index of the administrator: the first user with UserAttribute 0. 0 without one.
int findAdmin(int32_t* userId);

// Every user, in the server's order, in one block of global memory that the caller frees with
// freeResultBlock (or hands to the application). No users is a success: an empty block and a
// count of 0. The out-parameters are written only on success.
int listUsers(UserRec** list, int32_t* count);

// Makes the user an ordinary user / the administrator by rewriting UserAttribute alone.
int demoteUser(int32_t userId);
int promoteUser(int32_t userId);

}  // namespace mv
