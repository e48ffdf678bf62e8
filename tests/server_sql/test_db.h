// An in-memory SQLite database holding every table of the data model, opened the way the server
// opens its own: double-quoted strings off, so a misspelled column is an error, not text.
#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

namespace mvtest {

class TestDb {
 public:
  TestDb();
  ~TestDb();
  TestDb(const TestDb&) = delete;
  TestDb& operator=(const TestDb&) = delete;

  // Empty when the text prepares as exactly one statement; else SQLite's message.
  std::string prepareError(const std::string& sql);
  // Runs every statement (for the fixture's own setup), failing the test on error.
  void exec(const std::string& sql);
  // First column of every row, as text.
  std::vector<std::string> column(const std::string& sql);
  // Tables in data-model order.
  const std::vector<std::string>& tables() const { return tables_; }

 private:
  sqlite3* db_ = nullptr;
  std::vector<std::string> tables_;
};

}  // namespace mvtest
