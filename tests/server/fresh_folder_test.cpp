// What a fresh data folder holds, and the older layout it deliberately starts from so that the
// library's own repairs (ALTER TABLE, CreateTable) take the same road as on an old server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

class FreshFolderTest : public ServerTest {};

TEST_F(FreshFolderTest, CommonDatabasesExistAndNothingElse) {
  int32_t out = 0;
  for (const char* db : {kSystemDb, "MarvekCommonDB", "MarvekUserCommonDB"}) {
    EXPECT_EQ(s->OpenDatabase(In(db), mv::kOpenTestExists, &out), 0) << db;
  }
  EXPECT_EQ(s->OpenDatabase(In("NoSuchDB"), mv::kOpenTestExists, &out), mv::kStatusMissingDatabase);
  EXPECT_EQ(s->OpenDatabase(In(kBook), mv::kOpenTestExists, &out), mv::kStatusMissingDatabase);
  // The server's own bookkeeping and the templates are not databases a client can name.
  EXPECT_EQ(s->OpenDatabase(In("_server"), mv::kOpenTestExists, &out), mv::kStatusMissingDatabase);
  EXPECT_EQ(s->OpenDatabase(In("_template_1"), mv::kOpenTestExists, &out),
            mv::kStatusMissingDatabase);
}

TEST_F(FreshFolderTest, HoldsOneAdministratorAndTheDiscardShelf) {
  const auto users = select(*s, kSystemDb, "SELECT * FROM UserInfoTBL");
  ASSERT_THAT(users, SizeIs(1));
  EXPECT_EQ(users[0].at("UserName"), "admin");
  EXPECT_EQ(users[0].at("Password"), "admin");
  EXPECT_EQ(users[0].at("UserAttribute"), "0");

  const auto shelves = select(*s, kSystemDb, "SELECT * FROM BookShelfTBL");
  ASSERT_THAT(shelves, SizeIs(1));
  EXPECT_EQ(shelves[0].at("Attribute"), "1");
  EXPECT_FALSE(shelves[0].at("BookShelfName").empty());
}

TEST_F(FreshFolderTest, ShelfOrderArrivesWithAlterTable) {
  EXPECT_NE(s->CheckColumn(In(kSystemDb), In("BookShelfTBL"), In("OrderNo")),
            mv::kStatusColumnExists);
  EXPECT_EQ(s->CheckColumn(In(kSystemDb), In("BookShelfTBL"), In("BookShelfName")),
            mv::kStatusColumnExists);
  EXPECT_NE(executeQuery(*s, kSystemDb, "SELECT * FROM BookShelfTBL ORDER BY OrderNo").status, 0);

  ASSERT_EQ(
      s->ExecuteSQL(In(kSystemDb),
                    In("ALTER TABLE BookShelfTBL ADD OrderNo int DEFAULT 2147483647 NOT NULL;")),
      0)
      << lastError(*s);
  EXPECT_EQ(s->CheckColumn(In(kSystemDb), In("BookShelfTBL"), In("OrderNo")),
            mv::kStatusColumnExists);
  EXPECT_THAT(
      column(select(*s, kSystemDb, "SELECT * FROM BookShelfTBL ORDER BY OrderNo"), "OrderNo"),
      ElementsAre("2147483647"));
  const Opened shelves = openTable(*s, kSystemDb, "BookShelfTBL");
  std::vector<std::string> row;
  ASSERT_EQ(getRow(*s, kSystemDb, shelves.handle, 0, row), 0);
  EXPECT_EQ(row.back(), "KEY=OrderNo\t1\t2147483647");

  EXPECT_NE(s->ExecuteSQL(In(kSystemDb),
                          In("ALTER TABLE BookShelfTBL ADD OrderNo int DEFAULT 0 NOT NULL;")),
            0);
}

TEST_F(FreshFolderTest, ViewTablesAndTagAttributesAreMadeOnDemand) {
  const std::pair<const char*, int32_t> views[] = {{"ViewAttributeTBL", 0x20},
                                                   {"ViewItemTBL", 0x21},
                                                   {"ViewManageTBL", 0x22},
                                                   {"ViewDataTBL", 0x23}};
  for (const auto& [table, kind] : views) {
    EXPECT_NE(s->CheckTBL(In(kSystemDb), In(table)), mv::kStatusTableExists) << table;
    EXPECT_EQ(s->CreateTable(In(kSystemDb), In(table), kind), 0) << table << lastError(*s);
    EXPECT_EQ(s->CheckTBL(In(kSystemDb), In(table)), mv::kStatusTableExists) << table;
  }
  EXPECT_EQ(s->CheckColumn(In(kSystemDb), In("ViewItemTBL"), In("SortNo")),
            mv::kStatusColumnExists);
  // A kind that names another table is a mistake, not a request.
  EXPECT_NE(s->CreateTable(In(kSystemDb), In("TagAttributeTBL"), 0x20), 0);
  EXPECT_NE(s->CheckTBL(In(kSystemDb), In("TagAttributeTBL")), mv::kStatusTableExists);

  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0) << lastError(*s);
  EXPECT_EQ(s->CheckTBL(In(kBook), In("TagPageTBL")), mv::kStatusTableExists);
  EXPECT_NE(s->CheckTBL(In(kBook), In("TagAttributeTBL")), mv::kStatusTableExists);
  EXPECT_EQ(s->CreateTable(In(kBook), In("TagAttributeTBL"), 0x24), 0) << lastError(*s);
  EXPECT_EQ(s->CheckTBL(In(kBook), In("TagAttributeTBL")), mv::kStatusTableExists);
  EXPECT_EQ(s->CheckColumn(In(kBook), In("TagAttributeTBL"), In("ViewAttributeID")),
            mv::kStatusColumnExists);
}

TEST_F(FreshFolderTest, ListsTheStandardTemplate) {
  mv::Variant infos, names, versions;
  ASSERT_EQ(s->GetOrgBookDBInfo(infos.get(), names.get(), versions.get()), 0);
  EXPECT_THAT(texts(*infos.get()), SizeIs(1));
  EXPECT_THAT(texts(*names.get()), ElementsAre("標準"));
  EXPECT_THAT(ints(*versions.get()), ElementsAre(4));
}

TEST_F(FreshFolderTest, OneCoreServesTheFolderAtATime) {
  std::string error;
  EXPECT_EQ(mv::server::ServerCore::open(folder(), {}, error), nullptr);
  EXPECT_FALSE(error.empty());

  // A restart finds the folder as it was left, without a second administrator or template.
  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  reopen();
  int32_t out = 0;
  EXPECT_EQ(s->OpenDatabase(In(kBook), mv::kOpenTestExists, &out), 0);
  EXPECT_THAT(select(*s, kSystemDb, "SELECT * FROM UserInfoTBL"), SizeIs(1));
  mv::Variant infos, names, versions;
  ASSERT_EQ(s->GetOrgBookDBInfo(infos.get(), names.get(), versions.get()), 0);
  EXPECT_THAT(texts(*names.get()), ElementsAre("標準"));
}

}  // namespace
}  // namespace mvtest::server
