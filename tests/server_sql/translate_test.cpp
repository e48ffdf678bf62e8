// The translator's output text where no query on real rows shows it (comparisons and LIKE are
// checked on rows in sqlite_test), its refusals, and its promise never to touch a literal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sql/translate.h"

namespace mvtest {
namespace {

using mv::server::SqlKind;
using mv::server::translateSql;
using ::testing::HasSubstr;

TEST(TranslateTest, RewritesIntoSqlite) {
  const std::pair<std::string, const char*> cases[] = {
      {"select T_Index,Various from ImageDataTBL with( nolock )where(T_Index=5);",
       "select T_Index, Various from ImageDataTBL where (T_Index = 5)"},
      {"SELECT * FROM [Odd ]]Name] WHERE [Col]=N'x' ORDER BY OrderNo, T_Index",
       "SELECT * FROM \"Odd ]Name\" WHERE \"Col\" = 'x' ORDER BY OrderNo, T_Index"},
      {"UPDATE T SET OrderNo=-1 WHERE Attribute=1;",
       "UPDATE T SET OrderNo = -1 WHERE Attribute = 1"},
      {"DELETE FROM T WHERE UserID='5'", "DELETE FROM T WHERE UserID = '5'"},
      {"ALTER TABLE T ADD OrderNo int DEFAULT 0 NOT NULL;",
       "ALTER TABLE T ADD COLUMN OrderNo INTEGER NOT NULL DEFAULT 0"},
      {"alter table T add Name varchar(64) NULL default 'it''s'",
       "ALTER TABLE T ADD COLUMN Name TEXT DEFAULT 'it''s'"},
      {"ALTER TABLE T ADD Pic image", "ALTER TABLE T ADD COLUMN Pic BLOB"},
  };
  for (const auto& [in, out] : cases) {
    const auto r = translateSql(in);
    ASSERT_TRUE(r.ok) << in << ": " << r.error;
    EXPECT_THAT(r.statements, ::testing::ElementsAre(out));
  }
  EXPECT_EQ(translateSql("SELECT * FROM [Odd ]]Name]").table, "Odd ]Name");
}

TEST(TranslateTest, BatchesBecomeTheirUpdates) {
  auto r = translateSql(
      "BEGIN TRAN T1;UPDATE A SET OrderNo=2 WHERE T_Index=3;\n"
      "UPDATE a WITH (NOLOCK) SET OrderNo=-1 WHERE Attribute=1 ; COMMIT TRAN T1;  ");
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.kind, SqlKind::UpdateBatch);
  EXPECT_EQ(r.table, "A");
  EXPECT_THAT(r.statements,
              ::testing::ElementsAre("UPDATE A SET OrderNo = 2 WHERE T_Index = 3",
                                     "UPDATE a SET OrderNo = -1 WHERE Attribute = 1"));
  for (const char* in : {"begin transaction;UPDATE A SET x=1;commit transaction",
                         "BEGIN TRAN T1;UPDATE A SET x=1;COMMIT TRAN", "BEGIN TRAN;COMMIT TRAN;"}) {
    r = translateSql(in);
    EXPECT_TRUE(r.ok && r.kind == SqlKind::UpdateBatch) << in << ": " << r.error;
  }
}

TEST(TranslateTest, RefusesWithAReasonNamingTheCulprit) {
  const std::pair<std::string, const char*> cases[] = {
      {"DROP TABLE x", "statement kind DROP is not accepted"},
      {"SELECT * FROM a; DROP TABLE a;", "only one statement is accepted; found 'DROP'"},
      {"SELECT * FROM a;;", "a second ';'"},
      {"SELECT 1; SELECT 2;", "FROM"},
      {"ATTACH DATABASE 'x.db' AS y", "ATTACH"},
      {"PRAGMA writable_schema = 1", "PRAGMA"},
      {"INSERT INTO a VALUES (1)", "INSERT"},
      {"SELECT * FROM a WHERE b = \"x\"", "double-quoted"},
      {"SELECT * FROM a WHERE b = 'x", "unterminated text literal"},
      {"SELECT * FROM [a", "unterminated [name]"},
      {"BEGIN TRAN T1;DELETE FROM a;COMMIT TRAN T1;", "only UPDATE statements; found 'DELETE'"},
      {"BEGIN TRAN T1;UPDATE a SET b=1;", "without COMMIT"},
      {"BEGIN TRAN;UPDATE a SET b=1;UPDATE [c] SET b=1;COMMIT TRAN", "c differs from a"},
      {"BEGIN TRAN T1;UPDATE a SET b=1;COMMIT TRAN T2", "T2"},
      {"BEGIN TRAN;UPDATE a SET b=1;COMMIT TRAN;SELECT * FROM a", "nothing may follow"},
      {"BEGIN TRAN;;COMMIT TRAN", "empty statement"},
      {"SELECT * FROM a, b", "unexpected ','"},
      {"SELECT * FROM a JOIN b ON a.x = b.x", "JOIN"},
      {"SELECT * FROM a x", "unexpected 'x'"},
      {"SELECT * FROM main.a", "qualified"},
      {"SELECT * FROM a WHERE x IN (SELECT y FROM b)", "sub-select"},
      {"SELECT * FROM a UNION SELECT * FROM b", "UNION"},
      {"SELECT * FROM sqlite_master", "sqlite_"},
      {"SELECT [load_extension]('x') FROM a", "LOAD_EXTENSION"},
      {"SELECT replace(a, 'x', 'y') FROM a", "REPLACE"},
      {"SELECT * FROM a WITH (TABLOCK)", "WITH (NOLOCK)"},
      {"SELECT * FROM a WHERE b = @p", "'@'"},
      {"SELECT * FROM a -- note", "comments"},
      {"SELECT * FROM a WHERE b = 12ab", "malformed number '12ab'"},
      {"SELECT * FROM a WHERE b = '\xff'", "UTF-8"},
      {"SELECT * FROM a WHERE (b = 1", "unbalanced '('"},
      {"SELECT * FROM a WHERE b = 1)", "unbalanced ')'"},
      {"SELECT * FROM a WHERE " + std::string(100, '(') + "1" + std::string(100, ')'), "nest"},
      {"SELECT * FROM a WHERE CONVERT(int, b) = 1", "CONVERT"},
      {"UPDATE a SET b = CONVERT(varbinary(10), 'x')", "CONVERT is accepted"},
      {"SELECT * FROM a WHERE c + b = CONVERT(varbinary(10), 'x')", "CONVERT"},
      {"SELECT * FROM a WHERE CAST(b AS money) = 1", "CAST to type money"},
      {"UPDATE a SET b = 1 FROM c", "FROM"},
      {"UPDATE a WHERE b = 1", "unexpected 'WHERE'"},
      {"DELETE a WHERE b = 1", "DELETE needs FROM"},
      {"DELETE FROM a ORDER BY b", "unexpected 'ORDER'"},
      {"ALTER TABLE a DROP COLUMN b", "only ALTER TABLE"},
      {"ALTER TABLE a ADD b int NOT NULL", "DEFAULT"},
      {"ALTER TABLE a ADD b money", "column type money"},
      {"ALTER TABLE a ADD b int DEFAULT 1, c int", "unexpected ','"},
      {"ALTER TABLE sqlite_x ADD b int", "sqlite_"},
      {"", "empty statement"},
      {"( SELECT * FROM a )", "cannot start with '('"},
  };
  for (const auto& [in, reason] : cases) {
    const auto r = translateSql(in);
    EXPECT_FALSE(r.ok) << in;
    EXPECT_TRUE(r.statements.empty()) << in;
    EXPECT_THAT(r.error, HasSubstr(reason)) << in;
  }
}

TEST(TranslateTest, LiteralsAreTextWhateverTheyContainAndCutsAreRefusedNotCrashedOn) {
  for (const std::string literal :
       {"'DROP TABLE a; --'", "'WITH (NOLOCK)'", "'\"x\"'", "'CONVERT(varbinary(100), x)'",
        "'CAST(a AS INT)'", "'it''s 100%_'", "'sqlite_master [a] @p 1e5 東京'",
        "N'  two  spaces  '"}) {
    const std::string text = literal.substr(literal[0] == 'N' ? 1 : 0);
    for (const std::string& sql :
         {"SELECT * FROM a WHERE (b = " + literal + ")",
          "SELECT * FROM a WHERE (b LIKE " + literal + ")", "UPDATE a SET b=" + literal}) {
      const auto r = translateSql(sql);
      ASSERT_TRUE(r.ok) << sql << ": " << r.error;
      EXPECT_THAT(r.statements[0], HasSubstr(text)) << sql;
    }
  }
  const std::string full =
      "BEGIN TRAN T1;UPDATE [A] SET b=CAST(CAST(c AS varchar(10)) AS INT) WHERE "
      "(CONVERT(varbinary(100), d)=CONVERT(varbinary(100), N'x''y') AND e LIKE "
      "CONVERT(varbinary(9),'%[_')) OR f >= -1.5;COMMIT TRAN T1;";
  for (size_t n = 0; n <= full.size(); ++n) {
    const auto r = translateSql(std::string_view(full).substr(0, n));
    EXPECT_NE(r.ok, !r.error.empty()) << n;
  }
  EXPECT_TRUE(translateSql(full).ok) << translateSql(full).error;
}

}  // namespace
}  // namespace mvtest
