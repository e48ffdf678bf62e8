// Reading results: what a query opens it closes on every way out, the first failure's code is
// the one that stays, and lists are blocks the application can free.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MVCore.h"
#include "frame/rows.h"
#include "server_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

class RowsTest : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
  }
  RecordingServer* server = nullptr;
};

TEST_F(RowsTest, AFailedQueryClosesOnlyTheDatabaseItOpenedAndLeavesLastErrorToTheCaller) {
  mv::connection().lastError = 5;
  server->failNext("ExecuteQuery", 0x31);
  server->failNext("CloseDatabase", 0x32);
  mv::WorkQuery query("BOOK1123101010", mv::WorkQuery::Db::OpenUnlessHeld);
  EXPECT_EQ(query.open("TagPageTBL", "SELECT * FROM TagPageTBL"), 0x31);
  EXPECT_FALSE(query.isOpen());
  EXPECT_EQ(mv::connection().lastError, 5);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase", "ExecuteQuery", "CloseDatabase"));
}

TEST_F(RowsTest, ReopeningForWritingKeepsTheDatabaseOpenAndAFailureLeavesOnlyItToClose) {
  mv::WorkQuery query("BOOK1123101010", mv::WorkQuery::Db::OpenUnlessHeld);
  ASSERT_EQ(query.open("TagPageTBL", "SELECT * FROM TagPageTBL"), 0);
  ASSERT_EQ(query.reopenTable("TagPageTBL"), 0);
  EXPECT_EQ(query.handle(), "H2");
  EXPECT_EQ(query.close(1), 1);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1123101010, 0)\n"
            "ExecuteQuery(BOOK1123101010, TagPageTBL, SELECT * FROM TagPageTBL, 0)\n"
            "CloseTable(BOOK1123101010, H1)\n"
            "OpenTable(BOOK1123101010, TagPageTBL, 0)\n"
            "CloseTable(BOOK1123101010, H2)\n"
            "UnlockDatabase(BOOK1123101010)\n"
            "CloseDatabase(BOOK1123101010)\n");

  server->calls.clear();
  {
    mv::WorkQuery failing("BOOK1123101010", mv::WorkQuery::Db::OpenUnlessHeld);
    ASSERT_EQ(failing.open("TagPageTBL", "SELECT * FROM TagPageTBL"), 0);
    server->failNext("OpenTable", 0x33);
    EXPECT_EQ(failing.reopenTable("TagPageTBL"), 0x33);
  }  // going out of scope closes what is left
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase", "ExecuteQuery", "CloseTable",
                                             "OpenTable", "CloseDatabase"));
}

TEST_F(RowsTest, FirstRowLookupTellsMissingFromFailedAndKeepsTheFirstCode) {
  mv::Row row;
  EXPECT_EQ(mv::lookupFirstRow("MarvekSystemCommonDB", "UserInfoTBL", "q", row),
            mv::Lookup::Missing);
  server->queueResult({{"KEY=T_Index\t1\t8", "KEY=UserName\t2\tx"}});
  EXPECT_EQ(mv::lookupFirstRow("MarvekSystemCommonDB", "UserInfoTBL", "q", row), mv::Lookup::Found);
  ASSERT_EQ(row.size(), 2u);
  EXPECT_EQ(row[1].value, "x");

  server->queueResult({{"KEY=T_Index\t1\t8"}});
  server->failNext("GetRecords", 0x41);
  server->failNext("CloseTable", 0x42);
  EXPECT_EQ(mv::lookupFirstRow("MarvekSystemCommonDB", "UserInfoTBL", "q", row),
            mv::Lookup::Failed);
  EXPECT_EQ(mv::connection().lastError, 0x41);
}

TEST(ResultBlockTest, AReleasedBlockIsTheApplicationsToFreeAndAnEmptyListIsStillABlock) {
  UserRec* list = nullptr;
  {
    mv::ResultBlock<UserRec> block(2);
    ASSERT_TRUE(block.ok());
    EXPECT_EQ(block[1].userName[0], '\0');  // zero-filled
    block[1].tIndex = 9;
    list = block.release();
  }
  EXPECT_EQ(list[1].tIndex, 9);
  MVHGLOBAL handle = MVGlobalHandle(list);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(MVGlobalFree(handle), nullptr);

  mv::ResultBlock<UserRec> empty(0);
  EXPECT_TRUE(empty.ok());
  EXPECT_FALSE(mv::ResultBlock<UserRec>(SIZE_MAX / 2).ok());
}

}  // namespace
}  // namespace mvtest
