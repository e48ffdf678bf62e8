// Databases and tables: which opens and closes reach the server, and what stays held.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "MVCore.h"
#include "frame/handles.h"
#include "server_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

class HandlesTest : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
  }
  RecordingServer* server = nullptr;
};

TEST_F(HandlesTest, OnlyTheExactSystemDatabaseNameIsHeld) {
  EXPECT_EQ(MVOpenDB("MarvekCommonDB"), 0);
  EXPECT_EQ(mv::connection().systemDbHeld, 0);
  EXPECT_EQ(MVOpenDB("marveksystemcommondb"), 0);
  EXPECT_EQ(mv::connection().systemDbHeld, 0);
  EXPECT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  EXPECT_EQ(mv::connection().systemDbHeld, 1);
  EXPECT_EQ(server->calls[2].text(), "OpenDatabase(MarvekSystemCommonDB, 0)");

  // A failed close still drops the flag.
  server->failNext("CloseDatabase", 0x30);
  EXPECT_EQ(MVCloseDB("MarvekSystemCommonDB"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x30);
  EXPECT_EQ(mv::connection().systemDbHeld, 0);

  server->failNext("OpenDatabase", 0x8A);
  EXPECT_EQ(MVOpenDB("MarvekSystemCommonDB"), -1);
  EXPECT_EQ(mv::connection().systemDbHeld, 0);
  EXPECT_EQ(mv::connection().lastError, 0x8A);
}

TEST_F(HandlesTest, HeldSystemDatabaseKeepsOpensAndClosesBalancedOnTheApplicationsCalls) {
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  std::string handle;
  int32_t rows = -1;
  server->queueResult({{"KEY=T_Index\t1\t1"}, {"KEY=T_Index\t1\t2"}});
  ASSERT_EQ(mv::openWorkTable("MarvekSystemCommonDB", "UserInfoTBL", &rows, handle), 1);
  EXPECT_EQ(rows, 2);
  EXPECT_EQ(handle, "H1");
  ASSERT_EQ(mv::closeWorkTable("MarvekSystemCommonDB", handle, 0), 1);
  ASSERT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", 0, 1), 0);
  ASSERT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", 7, 0), 0);
  ASSERT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", 0, 2), 0);
  ASSERT_EQ(MVCloseDB("MarvekSystemCommonDB"), 0);
  EXPECT_EQ(server->count("OpenDatabase"), 1);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
  EXPECT_EQ(server->calls[4].text(), "DeleteRecord(MarvekSystemCommonDB, H2, 7)");

  // Without the hold the same work opens and closes the database itself.
  server->calls.clear();
  ASSERT_EQ(mv::openWorkTable("MarvekSystemCommonDB", "UserInfoTBL", &rows, handle), 1);
  ASSERT_EQ(mv::closeWorkTable("MarvekSystemCommonDB", handle, 0), 1);
  EXPECT_THAT(server->methods(),
              ElementsAre("OpenDatabase", "OpenTable", "CloseTable", "CloseDatabase"));
}

TEST_F(HandlesTest, WorkTableFailuresCloseWhatWasOpenedAndKeepTheFirstCode) {
  std::string handle;
  int32_t rows = 0;
  server->failNext("OpenDatabase", 0x11);
  EXPECT_EQ(mv::openWorkTable("BOOK1123101010", "TagPageTBL", &rows, handle), 0);
  EXPECT_EQ(mv::connection().lastError, 0x11);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase"));

  server->calls.clear();
  server->failNext("OpenTable", 0x12);
  EXPECT_EQ(mv::openWorkTable("BOOK1123101010", "TagPageTBL", &rows, handle), 0);
  EXPECT_EQ(mv::connection().lastError, 0x12);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase", "OpenTable", "CloseDatabase"));

  // A failed CloseTable still closes the database, and its code stays in lastError.
  server->calls.clear();
  server->failNext("CloseTable", 0x13);
  server->failNext("CloseDatabase", 0x14);
  EXPECT_EQ(mv::closeWorkTable("BOOK1123101010", "H9", 1), 0);
  EXPECT_EQ(mv::connection().lastError, 0x13);
  EXPECT_THAT(server->methods(), ElementsAre("CloseTable", "UnlockDatabase", "CloseDatabase"));

  server->calls.clear();
  server->failNext("UnlockDatabase", 0x15);
  EXPECT_EQ(mv::closeWorkTable("BOOK1123101010", "H9", 1), 0);
  EXPECT_EQ(mv::connection().lastError, 0x15);
  EXPECT_THAT(server->methods(), ElementsAre("CloseTable", "UnlockDatabase", "CloseDatabase"));

  server->calls.clear();
  server->failNext("CloseDatabase", 0x16);
  EXPECT_EQ(mv::closeWorkTable("BOOK1123101010", "H9", 0), 0);
  EXPECT_EQ(mv::connection().lastError, 0x16);
  EXPECT_THAT(server->methods(), ElementsAre("CloseTable", "CloseDatabase"));
}

TEST_F(HandlesTest, OpenDBExHoldsOneBookAndAnswersRepeatsWithoutTheServer) {
  mv::connection().lastError = 9;
  EXPECT_EQ(MVCloseDBEx("BOOK1123101010"), 0);  // nothing held: no call
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(MVOpenDBEx("BOOK1123101010"), 0);
  EXPECT_EQ(MVOpenDBEx("BOOK0101000000"), 0);  // even for another name
  EXPECT_EQ(mv::connection().bookDbHeld, 1);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase"));
  EXPECT_EQ(server->calls[0].text(), "OpenDatabase(BOOK1123101010, 1)");

  server->failNext("CloseDatabase", 0x40);
  EXPECT_EQ(MVCloseDBEx("BOOK1123101010"), -1);
  EXPECT_EQ(mv::connection().bookDbHeld, 0);
  EXPECT_EQ(mv::connection().lastError, 0x40);

  server->failNext("OpenDatabase", 0x8A);
  EXPECT_EQ(MVOpenDBEx("BOOK0000000000"), -1);
  EXPECT_EQ(mv::connection().bookDbHeld, 0);
  EXPECT_EQ(MVCloseDBEx("BOOK0000000000"), 0);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

TEST_F(HandlesTest, OpenTblCopiesTheHandleAndCloseTblSendsItBack) {
  server->queueResult({{}, {}, {}});
  int32_t rows = 0;
  char handle[260];
  std::memset(handle, '#', sizeof handle);
  ASSERT_EQ(MVOpenTBL("BOOK1123101010", "ImageDataTBL", 0, &rows, handle), 0);
  EXPECT_STREQ(handle, "H1");
  EXPECT_EQ(rows, 3);
  EXPECT_EQ(server->calls[0].text(), "OpenTable(BOOK1123101010, ImageDataTBL, 0)");
  ASSERT_EQ(MVCloseTBL("BOOK1123101010", handle), 0);
  EXPECT_EQ(server->calls[1].text(), "CloseTable(BOOK1123101010, H1)");

  server->failNext("OpenTable", 0x21);
  std::strcpy(handle, "old");
  EXPECT_EQ(MVOpenTBL("BOOK1123101010", "NoSuchTBL", 0, &rows, handle), -1);
  EXPECT_STREQ(handle, "old");
  EXPECT_EQ(mv::connection().lastError, 0x21);
  server->failNext("CloseTable", 0x22);
  EXPECT_EQ(MVCloseTBL("BOOK1123101010", "H7"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x22);
  EXPECT_EQ(MVOpenTBL("BOOK1123101010", "ImageDataTBL", 0, nullptr, handle), -1);
  EXPECT_EQ(MVCloseTBL("BOOK1123101010", nullptr), -1);
  EXPECT_EQ(server->calls.size(), 4u);
}

TEST_F(HandlesTest, OpenTblExHoldsTheFirstImageHandleUntilClosed) {
  char handle[260] = {};
  ASSERT_EQ(MVOpenTBLEx(0, "BOOK1123101010", handle), 0);
  EXPECT_STREQ(handle, "H1");
  EXPECT_EQ(server->calls[0].text(),
            "OpenTableEx(BOOK1123101010, ImageDataTBL, SELECT * FROM ImageDataTBL WITH (NOLOCK) "
            "WHERE TagID = 1, 1)");
  char second[260] = "mine";
  ASSERT_EQ(MVOpenTBLEx(0, "BOOK1123101010", second), 0);
  EXPECT_STREQ(second, "mine");
  EXPECT_EQ(server->count("OpenTableEx"), 1);
  EXPECT_EQ(mv::connection().imageTableHandle, "H1");

  server->failNext("CloseTable", 0x31);
  EXPECT_EQ(MVOpenTBLEx(1, "BOOK1123101010", handle), -1);
  EXPECT_EQ(mv::connection().imageTableOpen, 1);
  EXPECT_EQ(mv::connection().lastError, 0x31);
  ASSERT_EQ(MVOpenTBLEx(1, "BOOK1123101010", handle), 0);
  EXPECT_EQ(mv::connection().imageTableOpen, 0);
  EXPECT_EQ(mv::connection().imageTableHandle, "");
  EXPECT_EQ(server->calls.back().text(), "CloseTable(BOOK1123101010, H1)");

  server->failNext("OpenTableEx", 0x32);
  EXPECT_EQ(MVOpenTBLEx(0, "BOOK1123101010", handle), -1);
  EXPECT_EQ(mv::connection().imageTableOpen, 0);
}

TEST_F(HandlesTest, RecordDeleteRunsThroughItsThreePhases) {
  ASSERT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 0, 1), 0);
  ASSERT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 41, 0), 0);
  ASSERT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 42, 0), 0);
  ASSERT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 0, 2), 0);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase", "OpenTable", "DeleteRecord",
                                             "DeleteRecord", "CloseTable", "CloseDatabase"));
  EXPECT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 0, 5), 0);
  EXPECT_EQ(server->calls.size(), 6u);

  // A failed delete closes at once.
  server->calls.clear();
  ASSERT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 0, 1), 0);
  server->failNext("DeleteRecord", 0x50);
  EXPECT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 43, 0), -1);
  EXPECT_EQ(mv::connection().lastError, 0x50);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase", "OpenTable", "DeleteRecord",
                                             "CloseTable", "CloseDatabase"));

  server->failNext("OpenTable", 0x51);
  EXPECT_EQ(MVRecordDelete("BOOK1123101010", "NoSuchTBL", 0, 1), -1);
  EXPECT_EQ(mv::connection().lastError, 0x51);
}

TEST_F(HandlesTest, RecordDeleteBeforeOpeningSendsAnEmptyHandle) {
  server->failNext("DeleteRecord", 0x52);
  EXPECT_EQ(MVRecordDelete("BOOK1123101010", "ImageDataTBL", 3, 0), -1);
  EXPECT_EQ(server->calls[0].text(), "DeleteRecord(BOOK1123101010, , 3)");
  EXPECT_EQ(mv::connection().lastError, 0x52);
}

TEST_F(HandlesTest, CheckTblAndDeleteDb) {
  server->failNext("CheckTBL", mv::kStatusTableExists);
  mv::connection().lastError = 4;
  EXPECT_EQ(MVCheckTBL("MarvekCommonDB", "FigureTBL2"), 1);
  EXPECT_EQ(MVCheckTBL("MarvekCommonDB", "FigureTBL2"), 0);  // status 0 is "no"
  server->failNext("CheckTBL", 0x99);
  EXPECT_EQ(MVCheckTBL("MarvekCommonDB", "FigureTBL2"), 0);
  EXPECT_EQ(mv::connection().lastError, 4);

  EXPECT_EQ(MVDeleteDB("BOOK1123101010"), 0);
  EXPECT_EQ(server->calls.back().text(), "DeleteDatabase(BOOK1123101010, )");
  server->failNext("DeleteDatabase", 0x60);
  EXPECT_EQ(MVDeleteDB("BOOK1123101010"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x60);
}

TEST_F(HandlesTest, NullArgumentsFailWithoutReachingTheServer) {
  char buf[260] = {};
  int32_t rows = 0;
  EXPECT_EQ(MVOpenDB(nullptr), -1);
  EXPECT_EQ(MVCloseDB(nullptr), -1);
  EXPECT_EQ(MVOpenDBEx(nullptr), -1);
  EXPECT_EQ(MVCloseDBEx(nullptr), -1);
  EXPECT_EQ(MVDeleteDB(nullptr), -1);
  EXPECT_EQ(MVOpenTBL(nullptr, "T", 0, &rows, buf), -1);
  EXPECT_EQ(MVOpenTBL("D", nullptr, 0, &rows, buf), -1);
  EXPECT_EQ(MVOpenTBLEx(0, "D", nullptr), -1);
  EXPECT_EQ(MVOpenTBLEx(1, nullptr, buf), -1);
  EXPECT_EQ(MVRecordDelete(nullptr, "T", 0, 1), -1);
  EXPECT_EQ(MVRecordDelete("D", nullptr, 0, 0), -1);
  EXPECT_EQ(MVCheckTBL(nullptr, "T"), 0);
  EXPECT_TRUE(server->calls.empty()) << server->log();
}

}  // namespace
}  // namespace mvtest
