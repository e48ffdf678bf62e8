#include "test_db.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace mvtest {
namespace {

std::string sqliteType(const std::string& type) {
  const std::string base = type.substr(0, type.find('('));
  if (base == "int") return "INTEGER";
  if (base == "float") return "REAL";
  if (base == "image" || base == "binary") return "BLOB";
  return "TEXT";
}

}  // namespace

TestDb::TestDb() {
  if (sqlite3_open(":memory:", &db_) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open an in-memory database";
    return;
  }
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
  std::ifstream in(MVCORE_TEST_DATA "/catalogue.tsv");
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string db, table, columns;
    std::getline(fields, db, '\t');
    std::getline(fields, table, '\t');
    std::getline(fields, columns);
    std::string ddl = "CREATE TABLE IF NOT EXISTS " + table + " (";
    std::istringstream cols(columns);
    std::string col;
    for (bool first = true; std::getline(cols, col, ','); first = false) {
      col.erase(0, col.find_first_not_of(' '));
      const size_t colon = col.find(':');
      const std::string name = col.substr(0, colon);
      ddl += (first ? "" : ", ") + name + " " + sqliteType(col.substr(colon + 1));
      if (name == "T_Index") ddl += " PRIMARY KEY";
    }
    exec(ddl + ")");
    if (std::find(tables_.begin(), tables_.end(), table) == tables_.end()) tables_.push_back(table);
  }
  EXPECT_GE(tables_.size(), 20u) << "catalogue.tsv not read";
}

TestDb::~TestDb() { sqlite3_close(db_); }

std::string TestDb::prepareError(const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, &tail);
  std::string error = rc == SQLITE_OK ? "" : sqlite3_errmsg(db_);
  if (rc == SQLITE_OK && stmt == nullptr) error = "no statement";
  if (rc == SQLITE_OK && tail != nullptr && *tail != '\0')
    error = "trailing text: " + std::string(tail);
  sqlite3_finalize(stmt);
  return error;
}

void TestDb::exec(const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    ADD_FAILURE() << sql << ": " << (message ? message : "?");
  }
  sqlite3_free(message);
}

std::vector<std::string> TestDb::column(const std::string& sql) {
  std::vector<std::string> values;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db_);
    return values;
  }
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    values.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
  }
  sqlite3_finalize(stmt);
  return values;
}

}  // namespace mvtest
