// The server's answers. 0 is success; the library knows a few values by number (0x8A for a
// missing database, 10 and 14 for yes from CheckTBL and CheckColumn); the rest are the server's
// own, chosen clear of the library's codes (100, 103, 126) and of SetUserAdmin's 3 and 4.
#pragma once

#include <cstdint>

namespace mv::server {

enum Status : int32_t {
  kOk = 0,
  kTableExists = 10,
  kColumnExists = 14,
  kMissingDatabase = 0x8A,
  kMissingTable = 0x1001,
  kMissingColumn = 0x1002,
  kSqlRefused = 0x1003,
  kSqlFailed = 0x1004,
  kBadHandle = 0x1005,
  kNoRow = 0x1006,
  kBadArgument = 0x1007,
  kDatabaseExists = 0x1008,
  kDatabaseInUse = 0x1009,
  kFileFailed = 0x100A,
  kNoTemplate = 0x100C,
  kLogonRefused = 0x100D,
  kBlockOutOfOrder = 0x100E,
  kStorageFailed = 0x100F,
};

// SetUserAdmin's answers: the user is, or is not, an administrator.
inline constexpr int32_t kUserIsAdmin = 3;
inline constexpr int32_t kUserIsNotAdmin = 4;

// SetMutex's answers.
inline constexpr int32_t kMutexFree = 0;
inline constexpr int32_t kMutexHeldByAnother = 1;
inline constexpr int32_t kMutexNotHeld = 2;
inline constexpr int32_t kMutexBadOp = -1;

}  // namespace mv::server
