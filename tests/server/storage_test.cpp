// A fresh data folder in the older layout (so that the library's own repairs take the same road
// as on an old server), handles and their snapshots, row writes, and the SQL a client may send.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "book_server_session.h"
#include "server/sqlite/sqlite_engine.h"

namespace mvtest::server {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class StorageTest : public ServerTest {
 protected:
  int32_t addUser(const std::string& name, int attribute) {
    return addRow(*s, kSystemDb, "UserInfoTBL",
                  {field("UserName", 2, name), field("Password", 2, "pw"),
                   field("UserAttribute", 1, std::to_string(attribute))});
  }
  std::string users(const std::string& condition = "T_Index > 0", const char* col = "UserName") {
    return column(*s, kSystemDb,
                  "SELECT * FROM UserInfoTBL WHERE " + condition + " ORDER BY T_Index", col);
  }
  std::string password(int32_t key) {
    return users("T_Index = " + std::to_string(key), "Password");
  }
  int32_t sql(const std::string& text, Server* server = nullptr) {
    return (server ? server : s.get())->ExecuteSQL(In(kSystemDb), In(text));
  }
  int32_t checkColumn(const char* db, const char* table, const char* name) {
    return s->CheckColumn(In(db), In(table), In(name));
  }
};

TEST_F(StorageTest, AFreshFolderHoldsTheCommonDatabasesAnAdministratorAndTheDiscardShelf) {
  for (const char* db : {kSystemDb, "MarvekCommonDB", "MarvekUserCommonDB"}) {
    EXPECT_EQ(exists(db), 0) << db;
  }
  // The server's own bookkeeping and the templates are not databases a client can name.
  for (const char* db : {"NoSuchDB", kBook, "_server", "_template_1"}) {
    EXPECT_EQ(exists(db), mv::kStatusMissingDatabase) << db;
  }
  const Opened admin = open(*s, kSystemDb, "UserInfoTBL");
  std::vector<std::string> row;
  ASSERT_EQ(getRow(*s, kSystemDb, admin.handle, 0, row), 0);
  EXPECT_THAT(row, ElementsAre("KEY=T_Index\t1\t1", "KEY=UserName\t2\tadmin",
                               "KEY=Password\t2\tadmin", "KEY=UserAttribute\t1\t0"));
  EXPECT_EQ(admin.rows, 1);
  const auto shelves = select(*s, kSystemDb, "SELECT * FROM BookShelfTBL");
  ASSERT_THAT(shelves, SizeIs(1));
  EXPECT_EQ(shelves[0].at("Attribute"), "1");
  EXPECT_FALSE(shelves[0].at("BookShelfName").empty());

  // One core serves the folder at a time; a restart finds it as it was left.
  std::string error;
  EXPECT_EQ(mv::server::ServerCore::open(folder(), {}, mv::server::openSqliteEngine, error),
            nullptr);
  EXPECT_FALSE(error.empty());
  createBook(kBook);
  reopen();
  EXPECT_EQ(exists(kBook), 0);
  EXPECT_EQ(users(), "admin");
}

TEST_F(StorageTest, ShelfOrderArrivesWithAlterTableAndViewTablesOnDemand) {
  const char* order = "SELECT * FROM BookShelfTBL ORDER BY OrderNo";
  EXPECT_NE(checkColumn(kSystemDb, "BookShelfTBL", "OrderNo"), mv::kStatusColumnExists);
  EXPECT_EQ(checkColumn(kSystemDb, "BookShelfTBL", "BookShelfName"), mv::kStatusColumnExists);
  EXPECT_NE(open(*s, kSystemDb, "", order).status, 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_NE(open(*s, kSystemDb, "BookShelfTBL", order).status, 0);
  const char* alter = "ALTER TABLE BookShelfTBL ADD OrderNo int DEFAULT 2147483647 NOT NULL;";
  ASSERT_EQ(sql(alter), 0) << lastError(*s);
  EXPECT_NE(sql(alter), 0);
  EXPECT_EQ(checkColumn(kSystemDb, "BookShelfTBL", "OrderNo"), mv::kStatusColumnExists);
  EXPECT_EQ(column(*s, kSystemDb, order, "OrderNo"), "2147483647");
  std::vector<std::string> row;
  ASSERT_EQ(getRow(*s, kSystemDb, open(*s, kSystemDb, "BookShelfTBL").handle, 0, row), 0);
  EXPECT_EQ(row.back(), "KEY=OrderNo\t1\t2147483647");
  createBook(kBook);
  for (const auto& [db, table, kind] : {std::tuple{kSystemDb, "ViewAttributeTBL", 0x20},
                                        {kSystemDb, "ViewItemTBL", 0x21},
                                        {kSystemDb, "ViewManageTBL", 0x22},
                                        {kSystemDb, "ViewDataTBL", 0x23},
                                        {kBook, "TagAttributeTBL", 0x24}}) {
    EXPECT_NE(s->CheckTBL(In(db), In(table)), mv::kStatusTableExists) << table;
    EXPECT_EQ(s->CreateTable(In(db), In(table), kind), 0) << table << lastError(*s);
    EXPECT_EQ(s->CheckTBL(In(db), In(table)), mv::kStatusTableExists) << table;
  }
  EXPECT_EQ(checkColumn(kSystemDb, "ViewItemTBL", "SortNo"), mv::kStatusColumnExists);
  EXPECT_EQ(checkColumn(kBook, "TagAttributeTBL", "ViewAttributeID"), mv::kStatusColumnExists);
  EXPECT_EQ(s->CheckTBL(In(kBook), In("TagPageTBL")), mv::kStatusTableExists);
  // A kind that names another table is a mistake, not a request.
  EXPECT_NE(s->CreateTable(In(kSystemDb), In("TagAttributeTBL"), 0x20), 0);
  EXPECT_NE(s->CheckTBL(In(kSystemDb), In("TagAttributeTBL")), mv::kStatusTableExists);
}

TEST_F(StorageTest, EveryWayOfOpeningGivesItsOwnHandleOnASnapshotTakenOnce) {
  addUser("u1", 1);
  addUser("u2", 1);
  const Opened opened[] = {
      open(*s, kSystemDb, "UserInfoTBL"),
      open(*s, kSystemDb, "", "SELECT * FROM UserInfoTBL WHERE UserAttribute = 1"),
      open(*s, kSystemDb, "UserInfoTBL", "SELECT * FROM UserInfoTBL WHERE UserName = 'u2'"),
      open(*s, kSystemDb, "", "SELECT * FROM UserInfoTBL WHERE UserName = 'nobody'")};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(opened[i].status, 0) << i;
    EXPECT_EQ(opened[i].rows, 3 - i) << i;
    EXPECT_FALSE(opened[i].handle.empty()) << i;
    EXPECT_TRUE(i == 0 || opened[i].handle != opened[i - 1].handle) << i;
  }
  EXPECT_NE(open(*s, kSystemDb, "NoSuchTBL").status, 0);
  EXPECT_EQ(open(*s, "NoSuchDB", "", "SELECT * FROM UserInfoTBL").status,
            mv::kStatusMissingDatabase);
  // A projection keeps the order the statement asks for.
  std::vector<std::string> row;
  const Opened names = open(*s, kSystemDb, "", "SELECT UserName, T_Index FROM UserInfoTBL");
  ASSERT_EQ(getRow(*s, kSystemDb, names.handle, 0, row), 0);
  EXPECT_THAT(row, ElementsAre("KEY=UserName\t2\tadmin", "KEY=T_Index\t1\t1"));

  // Later writes, of this session or another, do not reach an open snapshot.
  Session other = connect();
  addRow(*other, kSystemDb, "UserInfoTBL", {field("UserName", 2, "late")});
  ASSERT_EQ(sql("UPDATE UserInfoTBL SET Password = 'changed' WHERE T_Index = 1", other.get()), 0);
  ASSERT_EQ(getRow(*s, kSystemDb, opened[0].handle, 0, row), 0);
  EXPECT_EQ(row.at(2), "KEY=Password\t2\tadmin");
  EXPECT_NE(getRow(*s, kSystemDb, opened[0].handle, 3, row), 0);
  const Opened after = open(*s, kSystemDb, "UserInfoTBL");
  EXPECT_EQ(after.rows, 4);
  ASSERT_EQ(getRow(*s, kSystemDb, after.handle, 0, row), 0);
  EXPECT_EQ(row.at(2), "KEY=Password\t2\tchanged");

  // Bad rows fail; handles belong to the session that opened them, until closed.
  mv::Variant bad;
  EXPECT_NE(s->GetRecords(In(kSystemDb), In(after.handle), after.rows, bad.get()), 0);
  EXPECT_NE(s->GetRecords(In(kSystemDb), In(after.handle), -1, bad.get()), 0);
  EXPECT_EQ(bad.get()->vt, MV_VT_EMPTY);
  EXPECT_NE(getRow(*other, kSystemDb, "H999.999", 0, row), 0);
  const std::string reason = lastError(*other);
  EXPECT_TRUE(std::any_of(reason.begin(), reason.end(), [](char c) { return c & 0x80; }))
      << "a reason in Japanese: " << reason;
  EXPECT_NE(getRow(*other, kSystemDb, after.handle, 0, row), 0);
  EXPECT_NE(closeTable(*other, kSystemDb, after.handle), 0);
  EXPECT_EQ(closeTable(*s, kSystemDb, after.handle), 0);
  EXPECT_NE(getRow(*s, kSystemDb, after.handle, 0, row), 0);
  EXPECT_NE(closeTable(*s, kSystemDb, after.handle), 0);
}

TEST_F(StorageTest, RecordWritesChooseTheKeyStoreColumnTypesAndTouchOnlyTheirRow) {
  const Opened table = open(*s, kSystemDb, "UserInfoTBL");
  int32_t first = -1, second = -1, key = -1;
  // Elements without a marker are skipped; a key the record names, even one in use, is the
  // server's to choose.
  ASSERT_EQ(
      writeRecord(*s, kSystemDb, table.handle,
                  {field("T_Index", 1, "1"), field("UserName", 1, "007"), "", "no marker here",
                   field("Password", 2, "pw"), field("UserAttribute", 2, "1")},
                  &first),
      0)
      << lastError(*s);
  ASSERT_EQ(writeRecord(*s, kSystemDb, table.handle, {field("UserName", 2, "gone")}, &second), 0);
  EXPECT_GT(first, 1);
  EXPECT_GT(second, first);
  std::vector<std::string> row;
  const Opened byInt = open(*s, kSystemDb, "", "SELECT * FROM UserInfoTBL WHERE UserAttribute = 1");
  ASSERT_EQ(getRow(*s, kSystemDb, byInt.handle, 0, row), 0);
  EXPECT_THAT(row, Contains("KEY=UserAttribute\t1\t1"));
  EXPECT_THAT(row, Contains("KEY=UserName\t2\t007"));
  for (const auto& [db, handle, fields] :
       {std::tuple{kSystemDb, table.handle, field("NoSuchColumn", 2, "x")},
        {kSystemDb, std::string("H999.999"), field("UserName", 2, "erin")},
        {"MarvekCommonDB", table.handle, field("UserName", 2, "f")}}) {
    EXPECT_NE(writeRecord(*s, db, handle, {field("UserName", 2, "dave"), fields}, &key), 0);
    EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  }

  // The library writes through the handle of the query that found the rows, too.
  const Opened query =
      open(*s, kSystemDb, "", "SELECT T_Index FROM UserInfoTBL WHERE UserName='007'");
  ASSERT_EQ(writeRecord(*s, kSystemDb, query.handle, {field("Password", 2, "new")}, &first, true),
            0)
      << lastError(*s);
  EXPECT_EQ(
      writeRecord(*s, kSystemDb, table.handle, {field("UserAttribute", 2, "3")}, &first, true), 0);
  int32_t missing = 9999;
  EXPECT_NE(writeRecord(*s, kSystemDb, table.handle, {field("Password", 2, "x")}, &missing, true),
            0);
  EXPECT_NE(writeRecord(*s, kSystemDb, table.handle, {field("NoSuch", 2, "x")}, &first, true), 0);
  EXPECT_EQ(s->DeleteRecord(In(kSystemDb), In(query.handle), second), 0) << lastError(*s);
  EXPECT_NE(s->DeleteRecord(In(kSystemDb), In(table.handle), second), 0);
  EXPECT_NE(s->DeleteRecord(In(kSystemDb), In(table.handle), 9999), 0);
  EXPECT_EQ(users(), "admin 007");
  EXPECT_EQ(users("T_Index > 0", "Password"), "admin new");
  EXPECT_EQ(users("T_Index > 0", "UserAttribute"), "0 3");
}

TEST_F(StorageTest, DeleteRecordsRemovesTheRowsOfTheSnapshot) {
  for (const auto& [name, attribute] : {std::pair{"a", 1}, {"b", 1}, {"c", 2}}) {
    addUser(name, attribute);
  }
  const Opened snapshot =
      open(*s, kSystemDb, "UserInfoTBL", "SELECT * FROM UserInfoTBL WHERE UserAttribute = 1");
  ASSERT_EQ(snapshot.rows, 2);
  addUser("d", 1);  // after the snapshot: not one of its rows
  EXPECT_EQ(s->DeleteRecords(In(kSystemDb), In(open(*s, kSystemDb, "UserInfoTBL").handle), 0, -1),
            0);
  EXPECT_EQ(s->DeleteRecords(In(kSystemDb), In(snapshot.handle), 0, 1), 0) << lastError(*s);
  EXPECT_EQ(users(), "admin c d");
}

class SqlPolicyTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    addUser("ADMIN", 1);
    addUser("bob", 5);
  }
};

TEST_F(SqlPolicyTest, TheClientDialectWorksOnRealRows) {
  // Comparisons keep their meaning on real rows, quoted numbers included; the rest of the
  // dialect is checked on the translator's own.
  const std::pair<const char*, const char*> cases[] = {
      {"UserName LIKE CONVERT(varbinary(100),'adm%')", "admin"},
      {"UserName LIKE 'adm%'", "admin ADMIN"},
      {"UserAttribute = '5'", "bob"},
      {"T_index = '1'", "admin"}};
  for (const auto& [condition, names] : cases) EXPECT_EQ(users(condition), names) << condition;
  EXPECT_EQ(column(*s, kSystemDb, "SELECT * FROM UserInfoTBL WITH (NOLOCK) WHERE UserName = 'bob'",
                   "UserName"),
            "bob");
  EXPECT_EQ(sql("UPDATE UserInfoTBL WITH (NOLOCK) SET Password = 'p2' WHERE T_index = '3'"), 0)
      << lastError(*s);
  EXPECT_EQ(password(3), "p2");
  EXPECT_EQ(sql("DELETE FROM UserInfoTBL WHERE UserName = 'ADMIN'"), 0);
  EXPECT_EQ(users(), "admin bob");
}

TEST_F(SqlPolicyTest, NothingReachesPastTheOneTableARequestNames) {
  // A value of the server's own that must survive every statement below.
  ASSERT_EQ(s->SetBookUpdateCounter(In(kSystemDb)), 0);
  for (const char* query :
       {"DROP TABLE UserInfoTBL", "PRAGMA table_info(UserInfoTBL)",
        "SELECT * FROM UserInfoTBL; SELECT * FROM _mv_meta", "SELECT * FROM \"_mv_meta\"",
        "SELECT * FROM _mv_meta", "SELECT * FROM sqlite_schema",
        "SELECT * FROM UserInfoTBL WHERE T_Index IN (SELECT name FROM _mv_meta)",
        "DELETE FROM UserInfoTBL"}) {
    Session fresh = connect();
    EXPECT_NE(open(*fresh, kSystemDb, "", query).status, 0) << query;
    EXPECT_THAT(lastError(*fresh), Not(IsEmpty())) << query;
    EXPECT_NE(open(*fresh, kSystemDb, "UserInfoTBL", query).status, 0) << query;
  }
  for (const char* statement :
       {"DROP TABLE UserInfoTBL", "ATTACH DATABASE 'x.sqlite' AS x",
        "UPDATE _mv_meta SET value = 77", "UPDATE \"_mv_meta\" SET value = 77",
        "DELETE FROM _mv_meta", "UPDATE sqlite_schema SET sql = ''", "SELECT * FROM UserInfoTBL",
        "UPDATE UserInfoTBL SET Password = 'x'; UPDATE _mv_meta SET value = 77",
        "BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'x' WHERE T_Index = 1;"
        "UPDATE _mv_meta SET value = 77;COMMIT TRAN T1;"}) {
    Session fresh = connect();
    EXPECT_NE(sql(statement, fresh.get()), 0) << statement;
    EXPECT_THAT(lastError(*fresh), Not(IsEmpty())) << statement;
  }
  EXPECT_NE(open(*s, kSystemDb, "_mv_meta").status, 0);
  EXPECT_NE(open(*s, kSystemDb, "sqlite_schema").status, 0);
  EXPECT_NE(s->CheckTBL(In(kSystemDb), In("_mv_meta")), mv::kStatusTableExists);
  EXPECT_EQ(users("T_Index > 0", "Password"), "admin pw pw");
  uint8_t block[16] = {};
  int32_t counter = -1;
  ASSERT_EQ(s->GetBookUpdateCounter(In(kSystemDb), block, &counter), 0);
  EXPECT_EQ(counter, 1);
}

TEST_F(SqlPolicyTest, UpdateBatchesAreAllOrNothingAndRunInOrder) {
  const auto batch = [](const std::string& second, const char* end) {
    return "BEGIN TRAN T1;UPDATE UserInfoTBL SET Password = 'p1' WHERE T_Index = 2;" + second + end;
  };
  const std::string good =
      "UPDATE UserInfoTBL SET Password = 'p3', UserAttribute = 7 WHERE UserAttribute = 1;";
  for (const std::string& bad :
       {batch("UPDATE UserInfoTBL SET NoSuchColumn = 1;", "COMMIT TRAN T1;"), batch(good, ""),
        batch("DELETE FROM UserInfoTBL;", "COMMIT TRAN T1;")}) {
    EXPECT_NE(sql(bad), 0) << bad;
    EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  }
  EXPECT_EQ(users("T_Index > 0", "Password"), "admin pw pw");
  ASSERT_EQ(sql(batch(good, "COMMIT TRAN T1;")), 0) << lastError(*s);
  EXPECT_EQ(users("T_Index > 0", "Password"), "admin p3 pw");
  EXPECT_EQ(users("UserAttribute = 7"), "ADMIN");
}

}  // namespace
}  // namespace mvtest::server
