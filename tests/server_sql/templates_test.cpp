// Every statement template the client sends, filled in as the client fills it, must translate
// into SQLite that prepares against the data model's tables.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "sql/translate.h"
#include "test_db.h"

namespace mvtest {
namespace {

using mv::server::SqlKind;
using mv::server::translateSql;

std::vector<std::string> templates() {
  std::vector<std::string> lines;
  std::ifstream in(MVCORE_TEST_DATA "/sql-statements.tsv");
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  }
  return lines;
}

// %s is a table after FROM/UPDATE/TABLE, a column before '=', text inside quotes and a date
// number anywhere else; "..." repeats the batch piece before it.
std::string fill(const std::string& t, const std::string& table) {
  std::string out;
  for (size_t i = 0; i < t.size(); ++i) {
    if (t[i] != '%') {
      out += t[i];
    } else if (t.compare(i, 2, "%%") == 0) {
      out += '%', i += 1;
    } else if (t.compare(i, 2, "%d") == 0) {
      out += '5', i += 1;
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

SqlKind kindOf(const std::string& sql) {
  if (sql.starts_with("UPDATE")) return SqlKind::Update;
  if (sql.starts_with("DELETE")) return SqlKind::Delete;
  if (sql.starts_with("ALTER")) return SqlKind::AlterTableAdd;
  if (sql.starts_with("BEGIN")) return SqlKind::UpdateBatch;
  return SqlKind::Select;
}

// Translates, checks what the statement claims to be, and returns SQLite's first complaint.
std::string translateAndPrepare(TestDb& db, const std::string& sql) {
  SCOPED_TRACE(sql);
  const auto r = translateSql(sql);
  EXPECT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.kind, kindOf(sql));
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

bool isSearchPiece(const std::string& t) {
  return t[0] == '(' || t[0] == ' ' || t.find("( %s )") != std::string::npos ||
         t.find("<cond>") != std::string::npos;
}

TEST(TemplatesTest, EveryTemplateTranslatesToSqliteThatPrepares) {
  TestDb db;
  const std::vector<std::string> lines = templates();
  ASSERT_GE(lines.size(), 80u);
  std::string brackets;  // BEGIN TRAN and COMMIT TRAN alone: an empty batch
  for (const std::string& t : lines) {
    if (isSearchPiece(t)) continue;
    if (t.find(" TRAN ") != std::string::npos && t.find("UPDATE") == std::string::npos) {
      brackets += t;
      continue;
    }
    // A table placeholder passes when some table of the data model has the columns it uses.
    const bool anyTable = std::regex_search(t, std::regex("(FROM|UPDATE|TABLE) %s"));
    std::string error = "no table fits";
    for (const std::string& table : anyTable ? db.tables() : std::vector<std::string>{""}) {
      if ((error = translateAndPrepare(db, fill(t, table))).empty()) break;
    }
    EXPECT_EQ(error, "") << t;
  }
  const auto r = translateSql(brackets);
  EXPECT_TRUE(r.ok && r.kind == SqlKind::UpdateBatch && r.statements.empty()) << brackets;
}

TEST(TemplatesTest, SearchFragmentsPrepareAloneAndAssembled) {
  TestDb db;
  std::vector<std::string> fragments, joiners;
  std::string search;
  for (const std::string& t : templates()) {
    if (t[0] == '(') fragments.push_back(fill(t, ""));
    if (t[0] == ' ') joiners.push_back(t);
    if (t.find("( %s )") != std::string::npos) search = t;
  }
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

}  // namespace
}  // namespace mvtest
