// Who may do what on a bookshelf. Rows of BookShelfPowerTBL hold the exceptions; everybody else
// has the shelf's default, and the administrator always has read and write.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/IBookServer.h"

namespace mv {

inline constexpr char kPowerTable[] = "BookShelfPowerTBL";

// Permission values, stored as decimal text in Reserve.
inline constexpr int32_t kPowerReadOnly = 0;
inline constexpr int32_t kPowerReadWrite = 1;  // what deleting a book or a shelf requires
inline constexpr int32_t kPowerNone = 2;

// The value of a user without a row: kPowerNone on the shelf whose T_Index is 1,
// kPowerReadOnly on every other.
int32_t defaultPower(int32_t shelfId);

// One row of a shelf's permissions, as listShelfPowers gives them.
struct PowerRow {
  int32_t bookShelfId;
  int32_t userId;
  int32_t power;
};

// Reads and writes the permission rows; made on the stack for one piece of work. Its own server
// calls go to the server it was given (a copy of currentServer, not owned); the queries, the
// table opens and the closes go through the frame's handle helpers on currentServer.
//
// Failures of its own calls stay in status() and never reach lastError; only the handle helpers
// store theirs there. Results are 1 / 0 unless said otherwise.
class BookShelfPower {
 public:
  explicit BookShelfPower(IBookServer* server) : server_(server) {}
  virtual ~BookShelfPower() = default;

  // The status of the last server method, -1 after a row of the wrong type.
  int32_t status() const { return status_; }

  // GetRecords of one row of `handle` on the system database; every element's text is appended
  // to `fields` as it came.
  int readRow(const std::string& handle, int32_t rowIndex, std::vector<std::string>& fields);
  // AddRecord on the system database of a record whose elements are `fields`, "TABLENAME=..."
  // first.
  int addRow(const std::vector<std::string>& fields);

  // The user's value on the shelf: 1 for the administrator, the row's value, else the default.
  // A row whose Reserve is empty counts as 1. -1 on a failure.
  int32_t getPower(int32_t shelfId, int32_t userId);

  // The ids of the users whose value on the shelf is `power`, in ascending order of id, in a
  // block of global memory that the caller frees with freeResultBlock; returns their count. On a
  // failure 0, with *userIds null (an empty answer is a block with a count of 0).
  int32_t listUsersByPower(int32_t shelfId, int32_t power, int32_t** userIds);

  // Writes the user's value on the shelf: updates the row, or adds one.
  int setPower(int32_t shelfId, int32_t userId, int32_t power);

  // Deletes all rows of a user / of a shelf.
  int removeUser(int32_t userId);
  int removeShelf(int32_t shelfId);

  // The shelf's rows, in the server's order, in a block of global memory that the caller frees
  // with freeResultBlock; rows that cannot be read or lack UserID or Reserve are left out of
  // `count`. 0 on a failure and for a shelf without rows, with *rows null and *count 0.
  int listShelfPowers(int32_t shelfId, PowerRow** rows, int32_t* count);

 private:
  int32_t status_ = 0;
  IBookServer* server_;
};

}  // namespace mv
