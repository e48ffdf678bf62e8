// Every statement template the client sends prepares in SQLite once translated, and the rewrites
// keep the client's meaning on real rows.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include "sql/translate.h"

namespace mvtest {
namespace {

using mv::server::SqlKind;
using mv::server::translateSql;

std::vector<std::string> dataLines(const char* path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  }
  return lines;
}

// An in-memory database holding every table of the data model, opened the way the server opens
// its own: double-quoted strings off, so that a misspelled column is an error, not text.
class TestDb {
 public:
  TestDb() {
    sqlite3_open(":memory:", &db_);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
    for (const std::string& line : dataLines(MVCORE_CATALOGUE)) {
      std::istringstream fields(line);
      std::string db, table, col;
      std::getline(std::getline(fields, db, '\t'), table, '\t');
      std::string ddl = "CREATE TABLE IF NOT EXISTS " + table + " (";
      for (bool first = true; std::getline(fields >> std::ws, col, ','); first = false) {
        const std::string name = col.substr(0, col.find(':')), type = col.substr(col.find(':') + 1);
        ddl += (first ? "" : ", ") + name +
               (type.starts_with("int")                                ? " INTEGER"
                : type.starts_with("float")                            ? " REAL"
                : type.starts_with("image") || type.starts_with("bin") ? " BLOB"
                                                                       : " TEXT") +
               (name == "T_Index" ? " PRIMARY KEY" : "");
      }
      exec(ddl + ")");
      if (std::find(tables.begin(), tables.end(), table) == tables.end()) tables.push_back(table);
    }
    EXPECT_GE(tables.size(), 20u) << "catalogue.tsv not read";
  }
  ~TestDb() { sqlite3_close(db_); }

  // Empty when the text prepares as exactly one statement; else SQLite's complaint.
  std::string prepareError(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    const char* tail = nullptr;
    std::string error = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, &tail) == SQLITE_OK
                            ? (stmt == nullptr ? "no statement"
                               : *tail         ? tail
                                               : "")
                            : sqlite3_errmsg(db_);
    sqlite3_finalize(stmt);
    return error;
  }
  void exec(const std::string& sql) {
    EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sql << ": " << sqlite3_errmsg(db_);
  }
  // The first column of every row, as text.
  std::vector<std::string> column(const std::string& sql) {
    std::vector<std::string> values;
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sql;
    while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
      const unsigned char* text = sqlite3_column_text(stmt, 0);
      values.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
    sqlite3_finalize(stmt);
    return values;
  }
  std::vector<std::string> tables;  // in data-model order

 private:
  sqlite3* db_ = nullptr;
};

// %s is a table after FROM/UPDATE/TABLE, a column before '=', text inside quotes and a date
// number anywhere else; "..." repeats the batch piece before it.
std::string fill(const std::string& t, const std::string& table) {
  std::string out;
  for (size_t i = 0; i < t.size(); ++i) {
    if (t[i] != '%') {
      out += t[i];
    } else if (t.compare(i, 2, "%%") == 0 || t.compare(i, 2, "%d") == 0) {
      out += t[++i] == '%' ? '%' : '5';
    } else if (t.compare(i, 3, "%ld") == 0) {
      out += '3', i += 2;
    } else if (t.compare(i, 2, "%s") == 0) {
      const std::string before = out.substr(0, out.find_last_not_of(' ') + 1);
      if (before.ends_with("FROM") || before.ends_with("UPDATE") || before.ends_with("TABLE")) {
        out += table;
      } else if (before.ends_with('\'') || before.ends_with('%')) {
        out += "ab";
      } else {
        out += t.compare(i + 2, 1, "=") == 0 ? "T_Index" : "20240101";
      }
      i += 1;
    }
  }
  if (const size_t dots = out.find("..."); dots != std::string::npos) {
    const size_t start = out.rfind(';', dots - 2) + 1;
    out.replace(dots, 3, out.substr(start, dots - start));
  }
  return out;
}

// Translates, checks what the statement claims to be, and returns SQLite's first complaint.
std::string translateAndPrepare(TestDb& db, const std::string& sql) {
  SCOPED_TRACE(sql);
  const auto r = translateSql(sql);
  EXPECT_TRUE(r.ok) << r.error;
  const std::string verb = sql.substr(0, sql.find(' '));
  EXPECT_EQ(r.kind, verb == "UPDATE"   ? SqlKind::Update
                    : verb == "DELETE" ? SqlKind::Delete
                    : verb == "ALTER"  ? SqlKind::AlterTableAdd
                    : verb == "BEGIN"  ? SqlKind::UpdateBatch
                                       : SqlKind::Select);
  std::smatch named;
  EXPECT_TRUE(std::regex_search(sql, named, std::regex("(?:FROM|UPDATE|TABLE) (\\w+)")));
  EXPECT_EQ(r.table, named[1].str());
  size_t updates = 0;
  for (size_t p = 0; (p = sql.find("UPDATE ", p)) != std::string::npos; ++p) ++updates;
  EXPECT_EQ(r.statements.size(), r.kind == SqlKind::UpdateBatch ? updates : 1u);
  for (const std::string& s : r.statements) {
    if (std::string error = db.prepareError(s); !error.empty()) return s + ": " + error;
  }
  return r.ok ? "" : "not translated";
}

TEST(TemplatesTest, EveryTemplateAndSearchFragmentTranslatesToSqliteThatPrepares) {
  TestDb db;
  const std::vector<std::string> lines = dataLines(MVCORE_TEST_DATA "/sql-statements.tsv");
  ASSERT_GE(lines.size(), 80u);
  std::string brackets;  // BEGIN TRAN and COMMIT TRAN alone: an empty batch
  std::vector<std::string> fragments, joiners;
  std::string search;
  for (const std::string& t : lines) {
    if (t[0] == '(') fragments.push_back(fill(t, ""));
    if (t[0] == ' ') joiners.push_back(t);
    if (t.find("( %s )") != std::string::npos) search = t;
    if (t[0] == '(' || t[0] == ' ' || t.find("( %s )") != std::string::npos ||
        t.find("<cond>") != std::string::npos) {
      continue;
    }
    if (t.find(" TRAN ") != std::string::npos && t.find("UPDATE") == std::string::npos) {
      brackets += t;
      continue;
    }
    // A table placeholder passes when some table of the data model has the columns it uses.
    const bool anyTable = std::regex_search(t, std::regex("(FROM|UPDATE|TABLE) %s"));
    std::string error = "no table fits";
    for (const std::string& table : anyTable ? db.tables : std::vector<std::string>{""}) {
      if ((error = translateAndPrepare(db, fill(t, table))).empty()) break;
    }
    EXPECT_EQ(error, "") << t;
  }
  const auto r = translateSql(brackets);
  EXPECT_TRUE(r.ok && r.kind == SqlKind::UpdateBatch && r.statements.empty()) << brackets;
  ASSERT_EQ(joiners.size(), 2u);
  ASSERT_GE(fragments.size(), 11u);
  const size_t at = search.find("%s");
  ASSERT_NE(at, std::string::npos);
  std::string all;
  for (size_t i = 0; i < fragments.size(); ++i) {
    EXPECT_EQ(translateAndPrepare(db, std::string(search).replace(at, 2, fragments[i])), "");
    all += (i ? joiners[i % 2] : "") + fragments[i];
  }
  EXPECT_EQ(translateAndPrepare(db, search.replace(at, 2, all)), "");
}

TEST(BehaviourTest, ComparisonsKeepTheClientsMeaning) {
  TestDb db;
  db.exec(
      "INSERT INTO BookCommonTBL (T_Index, OrderName, StartDate, EndDate) VALUES"
      " (1, 'abc', '20240101', '20241231'), (2, 'ABC', '20230101', '20230630'),"
      " (3, 'xABCx', '20250101', '20251231'), (4, 'xabcx', NULL, NULL), (5, 'a*b', NULL, NULL),"
      " (6, 'aXb', NULL, NULL), (7, 'a?b', NULL, NULL), (8, 'a[b]', NULL, NULL),"
      " (9, '東京都庁舎', NULL, NULL)");
  const std::string period =
      "( ( CAST ( StartDate AS INT ) <= 20240601 ) AND ( 20240601 <= CAST "
      "( EndDate AS INT ) ) ) OR ( ( CAST ( StartDate AS INT ) <= 20250201 "
      ") AND ( 20250201 <= CAST ( EndDate AS INT ) ) ) OR ( ( 20240601 <= "
      "CAST ( StartDate AS INT ) ) AND ( CAST ( EndDate AS INT ) <= "
      "20250201 ) )";
  const std::pair<std::string, const char*> cases[] = {
      // Equality keeps case with and without CONVERT.
      {"OrderName = CONVERT(varbinary(100),'abc')", "1"},
      {"CONVERT(varbinary(100), OrderName)=CONVERT(varbinary(100), 'ABC')", "2"},
      {"OrderName = 'abc'", "1"},
      // A plain LIKE folds ASCII case, a converted one does not.
      {"OrderName LIKE '%abc%'", "1 2 3 4"},
      {"OrderName LIKE CONVERT(varbinary(100),'%abc%')", "1 4"},
      {"OrderName NOT LIKE CONVERT(varbinary(100),'%b%')", "2 3 9"},
      // Glob specials in a converted LIKE match themselves.
      {"OrderName LIKE CONVERT(varbinary(100),'%a*b%')", "5"},
      {"OrderName LIKE CONVERT(varbinary(100),'%a?b%')", "7"},
      {"OrderName LIKE CONVERT(varbinary(100),'%a[b%')", "8"},
      {"OrderName LIKE CONVERT(varbinary(100),'%b]')", "8"},
      {"OrderName LIKE CONVERT(varbinary(100),'a_b')", "5 6 7"},
      {"OrderName = '東京都庁舎'", "9"},
      {"OrderName LIKE CONVERT(varbinary(100),'%京都_%')", "9"},
      // Books whose period overlaps 2024-06-01 .. 2025-02-01, as the search screen builds it.
      {period, "1 3"}};
  for (const auto& [condition, ids] : cases) {
    const auto r = translateSql("SELECT T_Index FROM BookCommonTBL WITH (NOLOCK) WHERE ( " +
                                condition + " ) ORDER BY T_Index;");
    ASSERT_TRUE(r.ok) << condition << ": " << r.error;
    std::string found;
    for (const std::string& v : db.column(r.statements[0])) found += (found.empty() ? "" : " ") + v;
    EXPECT_EQ(found, ids) << condition;
  }
}

}  // namespace
}  // namespace mvtest
