// The SQL a client may send: its dialect works against real rows, and nothing reaches past the
// one table a request names or into the server's own tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class SqlPolicyTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (HasFatalFailure()) return;
    for (const auto& [name, attribute] : {std::pair{"ADMIN", "1"}, std::pair{"bob", "5"}}) {
      addRow(*s, kSystemDb, "UserInfoTBL",
             {field("UserName", 2, name), field("Password", 2, "pw"),
              field("UserAttribute", 1, attribute)});
    }
  }

  std::vector<std::string> names(const std::string& condition) {
    return column(
        select(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE " + condition + " ORDER BY T_Index"),
        "UserName");
  }
  std::string password(int key) {
    const auto rows =
        select(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE T_Index = " + std::to_string(key));
    return rows.size() == 1 ? rows[0].at("Password") : "<no row>";
  }
};

TEST_F(SqlPolicyTest, TheClientDialectWorksOnRealRows) {
  EXPECT_THAT(column(select(*s, kSystemDb,
                            "SELECT * FROM UserInfoTBL WITH (NOLOCK) WHERE UserName = 'bob'"),
                     "UserName"),
              ElementsAre("bob"));
  EXPECT_THAT(names("UserName = CONVERT(varbinary(100),'ADMIN')"), ElementsAre("ADMIN"));
  EXPECT_THAT(names("CONVERT(varbinary(100), UserName) = CONVERT(varbinary(100), 'admin')"),
              ElementsAre("admin"));
  EXPECT_THAT(names("UserName LIKE CONVERT(varbinary(100),'adm%')"), ElementsAre("admin"));
  EXPECT_THAT(names("UserName LIKE 'adm%'"), ElementsAre("admin", "ADMIN"));
  EXPECT_THAT(names("UserAttribute = '5'"), ElementsAre("bob"));
  EXPECT_THAT(names("T_Index = '1'"), ElementsAre("admin"));
  EXPECT_THAT(
      column(select(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE T_index = 3 ORDER BY t_INDEX"),
             "UserName"),
      ElementsAre("bob"));

  EXPECT_EQ(s->ExecuteSQL(In(kSystemDb), In("UPDATE UserInfoTBL WITH (NOLOCK) SET Password = "
                                            "'p2' WHERE T_index = '3'")),
            0)
      << lastError(*s);
  EXPECT_EQ(password(3), "p2");
  EXPECT_EQ(s->ExecuteSQL(In(kSystemDb), In("DELETE FROM UserInfoTBL WHERE UserName = 'ADMIN'")),
            0);
  EXPECT_THAT(names("T_Index > 0"), ElementsAre("admin", "bob"));
}

TEST_F(SqlPolicyTest, ReadsReachingPastOneTableAreRefused) {
  for (const char* sql :
       {"DROP TABLE UserInfoTBL", "ATTACH DATABASE 'x.sqlite' AS x",
        "PRAGMA table_info(UserInfoTBL)", "SELECT * FROM UserInfoTBL; DELETE FROM UserInfoTBL",
        "SELECT * FROM UserInfoTBL; SELECT * FROM _mv_meta", "SELECT * FROM _mv_meta",
        "SELECT * FROM \"_mv_meta\"", "SELECT * FROM sqlite_schema", "SELECT * FROM sqlite_master",
        "SELECT * FROM UserInfoTBL WHERE T_Index IN (SELECT name FROM _mv_meta)",
        "DELETE FROM UserInfoTBL"}) {
    Session fresh = connect();
    EXPECT_NE(executeQuery(*fresh, kSystemDb, sql).status, 0) << sql;
    EXPECT_THAT(lastError(*fresh), Not(IsEmpty())) << sql;
    Session other = connect();
    EXPECT_NE(openTableEx(*other, kSystemDb, "UserInfoTBL", sql).status, 0) << sql;
    EXPECT_THAT(lastError(*other), Not(IsEmpty())) << sql;
  }
  EXPECT_NE(openTable(*s, kSystemDb, "_mv_meta").status, 0);
  EXPECT_NE(openTable(*s, kSystemDb, "sqlite_schema").status, 0);
  EXPECT_NE(s->CheckTBL(In(kSystemDb), In("_mv_meta")), mv::kStatusTableExists);
  EXPECT_THAT(select(*s, kSystemDb, "SELECT * FROM UserInfoTBL"), SizeIs(3));
}

TEST_F(SqlPolicyTest, ChangesReachingPastOneTableAreRefused) {
  // A value of the server's own that must survive every statement below.
  ASSERT_EQ(s->SetBookUpdateCounter(In(kSystemDb)), 0);

  for (const char* sql :
       {"DROP TABLE UserInfoTBL", "ATTACH DATABASE 'x.sqlite' AS x", "PRAGMA journal_mode=DELETE",
        "UPDATE UserInfoTBL SET Password = 'x'; DROP TABLE UserInfoTBL",
        "UPDATE UserInfoTBL SET Password = 'x'; UPDATE _mv_meta SET value = 77",
        "UPDATE _mv_meta SET value = 77", "DELETE FROM _mv_meta",
        "UPDATE \"_mv_meta\" SET value = 77", "UPDATE sqlite_schema SET sql = ''",
        "SELECT * FROM UserInfoTBL", "INSERT INTO UserInfoTBL (UserName) VALUES ('x')",
        "BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'x' WHERE T_Index = 1;"
        "UPDATE _mv_meta SET value = 77;COMMIT TRAN T1;",
        "BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'x' WHERE T_Index = 1;"
        "DELETE FROM UserInfoTBL;COMMIT TRAN T1;"}) {
    Session fresh = connect();
    EXPECT_NE(fresh->ExecuteSQL(In(kSystemDb), In(sql)), 0) << sql;
    EXPECT_THAT(lastError(*fresh), Not(IsEmpty())) << sql;
  }

  EXPECT_EQ(s->CheckTBL(In(kSystemDb), In("UserInfoTBL")), mv::kStatusTableExists);
  EXPECT_THAT(select(*s, kSystemDb, "SELECT * FROM UserInfoTBL"), SizeIs(3));
  EXPECT_EQ(password(1), "admin");
  uint8_t block[16] = {};
  int32_t counter = -1;
  ASSERT_EQ(s->GetBookUpdateCounter(In(kSystemDb), block, &counter), 0);
  EXPECT_EQ(counter, 1);
}

TEST_F(SqlPolicyTest, UpdateBatchesAreAllOrNothing) {
  ASSERT_EQ(s->ExecuteSQL(In(kSystemDb),
                          In("BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'p1' WHERE T_Index "
                             "= 2;UPDATE UserInfoTBL SET UserAttribute = 7 WHERE T_Index = 3;"
                             "COMMIT TRAN T1;")),
            0)
      << lastError(*s);
  EXPECT_EQ(password(2), "p1");
  EXPECT_THAT(names("UserAttribute = 7"), ElementsAre("bob"));

  EXPECT_NE(s->ExecuteSQL(In(kSystemDb),
                          In("BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'zz' WHERE T_Index "
                             "= 2;UPDATE UserInfoTBL SET NoSuchColumn = 1 WHERE T_Index = 3;"
                             "COMMIT TRAN T1;")),
            0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_EQ(password(2), "p1");

  // Without its COMMIT a batch is not run at all.
  EXPECT_NE(s->ExecuteSQL(In(kSystemDb),
                          In("BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'zz' WHERE T_Index "
                             "= 2;")),
            0);
  EXPECT_EQ(password(2), "p1");
  EXPECT_THAT(names("T_Index > 0"), UnorderedElementsAre("admin", "ADMIN", "bob"));
}

TEST_F(SqlPolicyTest, OrderingByAMissingColumnFails) {
  const char* sql = "SELECT * FROM BookShelfTBL ORDER BY OrderNo";
  EXPECT_NE(executeQuery(*s, kSystemDb, sql).status, 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_NE(openTableEx(*s, kSystemDb, "BookShelfTBL", sql).status, 0);
  EXPECT_EQ(executeQuery(*s, kSystemDb, "SELECT * FROM BookShelfTBL ORDER BY Attribute").status, 0);
}

}  // namespace
}  // namespace mvtest::server
