// Opening and closing databases and tables for the library's own work, leaving a database that
// the application holds alone.
#pragma once

#include <cstdint>
#include <string>

namespace mv {

// Opens `dbName` (unless it is the system database and the application holds it) and then
// `tableName` in mode 0. 1 on success with the handle's text in `handle`; 0 on failure with the
// status in lastError and nothing left open.
int openWorkTable(const char* dbName, const char* tableName, int32_t* rowCount,
                  std::string& handle);

// Closes the handle and, unless held, the database; `unlock` 1 sends UnlockDatabase between
// the two. 1 on success; 0 with the first failure in lastError, after still closing the
// database.
int closeWorkTable(const char* dbName, const std::string& handle, int unlock);

// closeWorkTable on the way out after a failure: lastError keeps the code it had, the first
// failure's.
void abandonWorkTable(const char* dbName, const std::string& handle, int unlock = 0);

// The database half of the pair, for work that opens a result itself: OpenDatabase in mode 0 and
// CloseDatabase, both skipped for the system database while the application holds it. 1 on
// success (or when skipped); 0 with the status in lastError.
int openWorkDatabase(const char* dbName);
int closeWorkDatabase(const char* dbName);

}  // namespace mv
