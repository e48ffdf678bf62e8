// What translated statements do to real rows: the rewrites must keep the client's meaning.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sql/translate.h"
#include "test_db.h"

namespace mvtest {
namespace {

using mv::server::translateSql;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class BehaviourTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db_.exec(
        "INSERT INTO BookCommonTBL (T_Index, OrderName, StartDate, EndDate) VALUES"
        " (1, 'abc', '20240101', '20241231'), (2, 'ABC', '20230101', '20230630'),"
        " (3, 'xABCx', '20250101', '20251231'), (4, 'xabcx', NULL, NULL), (5, 'a*b', NULL, NULL),"
        " (6, 'aXb', NULL, NULL), (7, 'a?b', NULL, NULL), (8, 'a[b]', NULL, NULL),"
        " (9, '東京都庁舎', NULL, NULL)");
    db_.exec("INSERT INTO UserInfoTBL VALUES (5, 'u', 'p', 0), (6, 'v', 'p', 1)");
    db_.exec("INSERT INTO BookShelfTBL VALUES (1, 1, 'a', 0), (2, 0, 'b', 0)");
  }

  // Rows of the translated statement, first column.
  std::vector<std::string> run(const std::string& sql) {
    const auto r = translateSql(sql);
    EXPECT_TRUE(r.ok) << sql << ": " << r.error;
    return r.ok ? db_.column(r.statements.at(0)) : std::vector<std::string>{};
  }
  std::vector<std::string> books(const std::string& condition) {
    return run("SELECT T_Index FROM BookCommonTBL WITH (NOLOCK) WHERE ( " + condition +
               " ) ORDER BY T_Index;");
  }

  TestDb db_;
};

TEST_F(BehaviourTest, EqualityKeepsCaseWithAndWithoutConvert) {
  EXPECT_THAT(books("OrderName = CONVERT(varbinary(100),'abc')"), ElementsAre("1"));
  EXPECT_THAT(books("CONVERT(varbinary(100), OrderName)=CONVERT(varbinary(100), 'ABC')"),
              ElementsAre("2"));
  EXPECT_THAT(books("OrderName = 'abc'"), ElementsAre("1"));
}

TEST_F(BehaviourTest, PlainLikeFoldsAsciiCaseConvertedLikeDoesNot) {
  EXPECT_THAT(books("OrderName LIKE '%abc%'"), ElementsAre("1", "2", "3", "4"));
  EXPECT_THAT(books("OrderName LIKE CONVERT(varbinary(100),'%abc%')"), ElementsAre("1", "4"));
  EXPECT_THAT(books("OrderName NOT LIKE CONVERT(varbinary(100),'%b%')"),
              ElementsAre("2", "3", "9"));
}

TEST_F(BehaviourTest, GlobSpecialsInConvertedLikeMatchThemselves) {
  auto like = [this](const std::string& pattern) {
    return books("OrderName LIKE CONVERT(varbinary(100),'" + pattern + "')");
  };
  EXPECT_THAT(like("%a*b%"), ElementsAre("5"));
  EXPECT_THAT(like("%a?b%"), ElementsAre("7"));
  EXPECT_THAT(like("%a[b%"), ElementsAre("8"));
  EXPECT_THAT(like("%b]"), ElementsAre("8"));
  EXPECT_THAT(like("a_b"), ElementsAre("5", "6", "7"));
}

TEST_F(BehaviourTest, JapaneseTextPassesThroughUnchanged) {
  const auto r = translateSql("SELECT * FROM BookCommonTBL WHERE (OrderName = '東京都庁舎')");
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_THAT(r.statements[0], HasSubstr("'東京都庁舎'"));
  EXPECT_THAT(books("OrderName = '東京都庁舎'"), ElementsAre("9"));
  EXPECT_THAT(books("OrderName LIKE CONVERT(varbinary(100),'%京都_%')"), ElementsAre("9"));
}

TEST_F(BehaviourTest, PeriodConditionComparesDateTextAsNumbers) {
  // Books whose period overlaps 2024-06-01 .. 2025-02-01, as the search screen builds it.
  const std::string from = "20240601", to = "20250201";
  EXPECT_THAT(
      books("( ( CAST ( StartDate AS INT ) <= " + from + " ) AND ( " + from +
            " <= CAST ( EndDate AS INT ) ) ) OR ( ( CAST ( StartDate AS INT ) <= " + to +
            " ) AND ( " + to + " <= CAST ( EndDate AS INT ) ) ) OR ( ( " + from +
            " <= CAST ( StartDate AS INT ) ) AND ( CAST ( EndDate AS INT ) <= " + to + " ) )"),
      ElementsAre("1", "3"));
}

TEST_F(BehaviourTest, QuotedNumbersMatchIntegerColumns) {
  EXPECT_THAT(run("SELECT T_Index FROM UserInfoTBL WHERE UserAttribute='0'"), ElementsAre("5"));
  EXPECT_THAT(run("SELECT UserName FROM UserInfoTBL WHERE T_index='6'"), ElementsAre("v"));
  run("UPDATE UserInfoTBL SET UserAttribute='7' WHERE T_Index='5'");
  EXPECT_THAT(db_.column("SELECT typeof(UserAttribute) FROM UserInfoTBL WHERE T_Index = 5"),
              ElementsAre("integer"));
}

TEST_F(BehaviourTest, OrderByAMissingColumnFailsUntilTheColumnIsAdded) {
  const auto order = translateSql("SELECT * FROM TagDispTBL ORDER BY OrderNo, T_Index;");
  ASSERT_TRUE(order.ok) << order.error;
  EXPECT_THAT(db_.prepareError(order.statements[0]), HasSubstr("OrderNo"));
  db_.exec("INSERT INTO TagDispTBL (T_Index) VALUES (1)");
  const auto alter = translateSql("ALTER TABLE TagDispTBL ADD OrderNo int DEFAULT -3 NOT NULL;");
  ASSERT_TRUE(alter.ok) << alter.error;
  db_.exec(alter.statements[0]);
  EXPECT_EQ(db_.prepareError(order.statements[0]), "");
  EXPECT_THAT(db_.column("SELECT OrderNo FROM TagDispTBL"), ElementsAre("-3"));
}

TEST_F(BehaviourTest, BatchRunsItsUpdatesInOrder) {
  const auto r = translateSql(
      "BEGIN TRAN T1;UPDATE BookShelfTBL SET OrderNo=4 WHERE T_Index=1;"
      "UPDATE BookShelfTBL SET OrderNo=-1 WHERE Attribute=1;COMMIT TRAN T1;");
  ASSERT_TRUE(r.ok) << r.error;
  for (const std::string& s : r.statements) db_.exec(s);
  EXPECT_THAT(db_.column("SELECT OrderNo FROM BookShelfTBL ORDER BY T_Index"),
              ElementsAre("-1", "0"));
}

}  // namespace
}  // namespace mvtest
