// The translator's output text, its refusals, and its promise never to touch a literal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sql/translate.h"

namespace mvtest {
namespace {

using mv::server::SqlKind;
using mv::server::translateSql;
using ::testing::HasSubstr;

TEST(TranslateTest, RewritesIntoSqlite) {
  struct Case {
    const char* in;
    const char* out;
    SqlKind kind;
    const char* table;
  };
  const Case cases[] = {
      {"SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE TagID = 1",
       "SELECT * FROM ImageDataTBL WHERE TagID = 1", SqlKind::Select, "ImageDataTBL"},
      {"select T_Index,Various from ImageDataTBL with( nolock )where(T_Index=5);",
       "select T_Index, Various from ImageDataTBL where (T_Index = 5)", SqlKind::Select,
       "ImageDataTBL"},
      {"SELECT * FROM BookShelfTBL WHERE CONVERT(varbinary(100), BookShelfName)="
       "CONVERT(varbinary(100), 'x')",
       "SELECT * FROM BookShelfTBL WHERE CAST(BookShelfName AS BLOB) = CAST('x' AS BLOB)",
       SqlKind::Select, "BookShelfTBL"},
      {"SELECT * FROM B WHERE (OrderName = CONVERT(varbinary(100),'x') OR a.b>=CONVERT(binary,c))",
       "SELECT * FROM B WHERE (CAST(OrderName AS BLOB) = CAST('x' AS BLOB) OR CAST(a.b AS BLOB) >= "
       "CAST(c AS BLOB))",
       SqlKind::Select, "B"},
      {"SELECT * FROM B WHERE (OrderName LIKE CONVERT(varbinary(100),'%a_*?[]%'))",
       "SELECT * FROM B WHERE (OrderName GLOB '*a?[*][?][[]]*')", SqlKind::Select, "B"},
      {"SELECT * FROM B WHERE ( ( CAST ( StartDate AS INT ) <= 20240101 ) )",
       "SELECT * FROM B WHERE ((CAST(StartDate AS INTEGER) <= 20240101))", SqlKind::Select, "B"},
      {"SELECT * FROM [Odd ]]Name] WHERE [Col]=N'x' ORDER BY OrderNo, T_Index",
       "SELECT * FROM \"Odd ]Name\" WHERE \"Col\" = 'x' ORDER BY OrderNo, T_Index", SqlKind::Select,
       "Odd ]Name"},
      {"UPDATE T SET OrderNo=-1 WHERE Attribute=1;",
       "UPDATE T SET OrderNo = -1 WHERE Attribute = 1", SqlKind::Update, "T"},
      {"DELETE FROM T WHERE UserID='5'", "DELETE FROM T WHERE UserID = '5'", SqlKind::Delete, "T"},
      {"ALTER TABLE T ADD OrderNo int DEFAULT 0 NOT NULL;",
       "ALTER TABLE T ADD COLUMN OrderNo INTEGER NOT NULL DEFAULT 0", SqlKind::AlterTableAdd, "T"},
      {"alter table T add Name varchar(64) NULL default 'it''s'",
       "ALTER TABLE T ADD COLUMN Name TEXT DEFAULT 'it''s'", SqlKind::AlterTableAdd, "T"},
      {"ALTER TABLE T ADD Pic image", "ALTER TABLE T ADD COLUMN Pic BLOB", SqlKind::AlterTableAdd,
       "T"},
  };
  for (const Case& c : cases) {
    const auto r = translateSql(c.in);
    ASSERT_TRUE(r.ok) << c.in << ": " << r.error;
    EXPECT_THAT(r.statements, ::testing::ElementsAre(c.out));
    EXPECT_EQ(r.kind, c.kind) << c.in;
    EXPECT_EQ(r.table, c.table) << c.in;
  }
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
  EXPECT_TRUE(translateSql("BEGIN TRAN T1;COMMIT TRAN T1;").statements.empty());
}

TEST(TranslateTest, RefusesWithAReasonNamingTheCulprit) {
  const std::pair<std::string, const char*> cases[] = {
      {"DROP TABLE x", "statement kind DROP is not accepted"},
      {"SELECT * FROM a; DROP TABLE a;", "only one statement is accepted; found 'DROP'"},
      {"SELECT * FROM a; SELECT * FROM b", "only one statement"},
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
      {"UPDATE a SET b = CONVERT(varbinary(10), 'x')", "CONVERT"},
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

TEST(TranslateTest, LiteralsAreTextWhateverTheyContain) {
  for (const char* literal : {"'DROP TABLE a; --'", "'WITH (NOLOCK)'", "'\"x\"'",
                              "'CONVERT(varbinary(100), x)'", "'CAST(a AS INT)'", "'it''s 100%_'",
                              "'sqlite_master [a] @p 1e5 東京'", "N'  two  spaces  '"}) {
    const std::string text = std::string(literal).substr(literal[0] == 'N' ? 1 : 0);
    for (const std::string& sql : {"SELECT * FROM a WHERE (b = " + std::string(literal) + ")",
                                   "SELECT * FROM a WHERE (b LIKE " + std::string(literal) + ")",
                                   "UPDATE a SET b=" + std::string(literal)}) {
      const auto r = translateSql(sql);
      ASSERT_TRUE(r.ok) << sql << ": " << r.error;
      EXPECT_THAT(r.statements[0], HasSubstr(text)) << sql;
    }
  }
}

TEST(TranslateTest, TruncatedInputIsRefusedNotCrashedOn) {
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
