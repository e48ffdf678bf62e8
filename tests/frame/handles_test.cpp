// Databases, tables and queries: which opens and closes reach the server, what stays held, that
// every way out closes what was opened and only that, and which failure's code stays.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "MVCore.h"
#include "frame/db_work.h"
#include "frame/handles.h"
#include "frame/rows.h"
#include "server_fixture.h"

namespace mvtest {
namespace {

using ::testing::HasSubstr;

constexpr char kBook[] = "BOOK1123101010";
constexpr char kSys[] = "MarvekSystemCommonDB";

class HandlesTest : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
  }
  // The methods called since the last take, in order.
  std::string take() {
    std::string out;
    for (const std::string& m : server->methods()) out += (out.empty() ? "" : " ") + m;
    server->calls.clear();
    return out;
  }
  static int32_t lastError() { return mv::connection().lastError; }
  RecordingServer* server = nullptr;
};

TEST_F(HandlesTest, OnlyTheExactSystemDatabaseNameIsHeldAndAFailedCloseStillDropsIt) {
  for (const char* db : {"MarvekCommonDB", "marveksystemcommondb", kSys}) {
    EXPECT_EQ(MVOpenDB(db), 0);
    EXPECT_EQ(mv::connection().systemDbHeld, db == kSys) << db;
  }
  EXPECT_EQ(server->calls[2].text(), "OpenDatabase(MarvekSystemCommonDB, 0)");
  server->failNext("CloseDatabase", 0x30);
  EXPECT_EQ(MVCloseDB(kSys), -1);
  EXPECT_EQ(lastError(), 0x30);
  EXPECT_EQ(mv::connection().systemDbHeld, 0);
  server->failNext("OpenDatabase", 0x8A);
  EXPECT_EQ(MVOpenDB(kSys), -1);
  EXPECT_EQ(mv::connection().systemDbHeld, 0);
}

TEST_F(HandlesTest, AFailingServerCallFailsTheExportAndLeavesItsStatus) {
  int32_t rows = 0;
  char handle[260] = "old";
  const std::tuple<const char*, std::function<int32_t()>> cases[] = {
      {"OpenDatabase", [] { return MVOpenDB(kBook); }},
      {"OpenTable", [&] { return MVOpenTBL(kBook, "NoSuchTBL", 0, &rows, handle); }},
      {"CloseTable", [] { return MVCloseTBL(kBook, "H7"); }},
      {"DeleteDatabase", [] { return MVDeleteDB(kBook); }},
      {"DeleteRecord", [] { return MVRecordDelete(kBook, "ImageDataTBL", 3, 0); }}};
  for (const auto& [method, call] : cases) {
    server->failNext(method, 0x21);
    EXPECT_EQ(call(), -1) << method;
    EXPECT_EQ(lastError(), 0x21) << method;
    mv::connection().lastError = 0;
  }
  EXPECT_STREQ(handle, "old");
  // Before a delete series is opened, the delete goes out with an empty handle.
  EXPECT_THAT(server->log(), HasSubstr("DeleteRecord(BOOK1123101010, , 3)\n"));
}

TEST_F(HandlesTest, AHeldSystemDatabaseIsNeitherOpenedNorClosedByTheWork) {
  ASSERT_EQ(MVOpenDB(kSys), 0);
  std::string handle;
  int32_t rows = -1;
  server->queueResult({{"KEY=T_Index\t1\t1"}, {"KEY=T_Index\t1\t2"}});
  ASSERT_EQ(mv::openWorkTable(kSys, "UserInfoTBL", &rows, handle), 1);
  EXPECT_EQ(std::pair(rows, handle), std::pair(2, std::string("H1")));
  ASSERT_EQ(mv::closeWorkTable(kSys, handle, 0), 1);
  for (const auto& [key, phase] : {std::pair{0, 1}, {7, 0}, {0, 2}}) {
    ASSERT_EQ(MVRecordDelete(kSys, "CommonTBL", key, phase), 0);
  }
  ASSERT_EQ(MVCloseDB(kSys), 0);
  EXPECT_EQ(take(),
            "OpenDatabase OpenTable CloseTable OpenTable DeleteRecord CloseTable CloseDatabase");
  ASSERT_EQ(mv::openWorkTable(kSys, "UserInfoTBL", &rows, handle), 1);
  ASSERT_EQ(mv::closeWorkTable(kSys, handle, 0), 1);
  EXPECT_EQ(take(), "OpenDatabase OpenTable CloseTable CloseDatabase");
}

TEST_F(HandlesTest, WorkTableFailuresCloseWhatWasOpenedAndKeepTheFirstCode) {
  std::string handle;
  int32_t rows = 0;
  for (const auto& [method, methods] : {std::pair{"OpenDatabase", "OpenDatabase"},
                                        {"OpenTable", "OpenDatabase OpenTable CloseDatabase"}}) {
    server->failNext(method, 0x12);
    EXPECT_EQ(mv::openWorkTable(kBook, "TagPageTBL", &rows, handle), 0) << method;
    EXPECT_EQ(lastError(), 0x12) << method;
    EXPECT_EQ(take(), methods);
  }
  // A failed close still closes the database; the first failure's code stays.
  const std::tuple<const char*, int32_t, const char*> closes[] = {
      {"CloseTable", 1, "CloseTable UnlockDatabase CloseDatabase"},
      {"UnlockDatabase", 1, "CloseTable UnlockDatabase CloseDatabase"},
      {"CloseDatabase", 0, "CloseTable CloseDatabase"}};
  for (const auto& [method, unlock, methods] : closes) {
    server->failNext(method, 0x13);
    if (std::string_view(method) != "CloseDatabase") server->failNext("CloseDatabase", 0x14);
    EXPECT_EQ(mv::closeWorkTable(kBook, "H9", unlock), 0) << method;
    EXPECT_EQ(lastError(), 0x13) << method;
    EXPECT_EQ(take(), methods);
  }
}

TEST_F(HandlesTest, OpenDBExHoldsOneBookAndAnswersRepeatsWithoutTheServer) {
  mv::connection().lastError = 9;
  EXPECT_EQ(MVCloseDBEx(kBook), 0);  // nothing held: no call
  EXPECT_EQ(lastError(), 0);
  EXPECT_EQ(MVOpenDBEx(kBook), 0);
  EXPECT_EQ(MVOpenDBEx("BOOK0101000000"), 0);  // even for another name
  EXPECT_EQ(mv::connection().bookDbHeld, 1);
  EXPECT_EQ(server->log(), "OpenDatabase(BOOK1123101010, 1)\n");
  server->failNext("CloseDatabase", 0x40);
  EXPECT_EQ(MVCloseDBEx(kBook), -1);
  EXPECT_EQ(mv::connection().bookDbHeld, 0);
  EXPECT_EQ(lastError(), 0x40);
  server->failNext("OpenDatabase", 0x8A);
  EXPECT_EQ(MVOpenDBEx("BOOK0000000000"), -1);
  EXPECT_EQ(mv::connection().bookDbHeld, 0);
  EXPECT_EQ(MVCloseDBEx("BOOK0000000000"), 0);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

TEST_F(HandlesTest, CheckTblSaysYesOnlyForItsOwnStatus) {
  // CheckTBL's only yes is its own status; no answer is a failure to remember.
  mv::connection().lastError = 4;
  for (const auto& [answer, exists] : {std::pair{mv::kStatusTableExists, 1}, {0, 0}, {0x99, 0}}) {
    server->failNext("CheckTBL", answer);
    EXPECT_EQ(MVCheckTBL("MarvekCommonDB", "FigureTBL2"), exists) << answer;
  }
  EXPECT_EQ(lastError(), 4);
}

TEST_F(HandlesTest, OpenTblExHoldsTheFirstImageHandleUntilClosed) {
  char handle[260] = {};
  ASSERT_EQ(MVOpenTBLEx(0, kBook, handle), 0);
  EXPECT_STREQ(handle, "H1");
  char second[260] = "mine";
  ASSERT_EQ(MVOpenTBLEx(0, kBook, second), 0);
  EXPECT_STREQ(second, "mine");
  EXPECT_EQ(server->count("OpenTableEx"), 1);
  EXPECT_EQ(mv::connection().imageTableHandle, "H1");
  server->failNext("CloseTable", 0x31);
  EXPECT_EQ(MVOpenTBLEx(1, kBook, handle), -1);
  EXPECT_EQ(mv::connection().imageTableOpen, 1);
  EXPECT_EQ(lastError(), 0x31);
  ASSERT_EQ(MVOpenTBLEx(1, kBook, handle), 0);
  EXPECT_EQ(mv::connection().imageTableOpen, 0);
  EXPECT_EQ(mv::connection().imageTableHandle, "");
  EXPECT_EQ(server->calls.back().text(), "CloseTable(BOOK1123101010, H1)");
  server->failNext("OpenTableEx", 0x32);
  EXPECT_EQ(MVOpenTBLEx(0, kBook, handle), -1);
  EXPECT_EQ(mv::connection().imageTableOpen, 0);
}

TEST_F(HandlesTest, RecordDeleteRunsThroughItsThreePhasesAndAFailureClosesAtOnce) {
  // Phase 1 opens, 0 deletes the key, 2 closes; other phases do nothing.
  for (const auto& [key, phase] : {std::pair{0, 1}, {41, 0}, {42, 0}, {0, 2}, {0, 5}}) {
    EXPECT_EQ(MVRecordDelete(kBook, "ImageDataTBL", key, phase), 0) << key << " " << phase;
  }
  EXPECT_EQ(take(), "OpenDatabase OpenTable DeleteRecord DeleteRecord CloseTable CloseDatabase");
  ASSERT_EQ(MVRecordDelete(kBook, "ImageDataTBL", 0, 1), 0);
  server->failNext("DeleteRecord", 0x50);
  EXPECT_EQ(MVRecordDelete(kBook, "ImageDataTBL", 43, 0), -1);
  EXPECT_EQ(lastError(), 0x50);
  EXPECT_EQ(take(), "OpenDatabase OpenTable DeleteRecord CloseTable CloseDatabase");
  server->failNext("OpenTable", 0x51);
  EXPECT_EQ(MVRecordDelete(kBook, "NoSuchTBL", 0, 1), -1);
  EXPECT_EQ(lastError(), 0x51);
}

TEST_F(HandlesTest, NullArgumentsFailWithoutReachingTheServer) {
  char buf[260] = {};
  int32_t rows = 0;
  for (const int32_t status :
       {MVOpenDB(nullptr), MVCloseDB(nullptr), MVOpenDBEx(nullptr), MVCloseDBEx(nullptr),
        MVDeleteDB(nullptr), MVOpenTBL(nullptr, "T", 0, &rows, buf),
        MVOpenTBL("D", nullptr, 0, &rows, buf), MVOpenTBL("D", "T", 0, nullptr, buf),
        MVCloseTBL("D", nullptr), MVOpenTBLEx(0, "D", nullptr), MVOpenTBLEx(1, nullptr, buf),
        MVRecordDelete(nullptr, "T", 0, 1), MVRecordDelete("D", nullptr, 0, 0)}) {
    EXPECT_EQ(status, -1);
  }
  EXPECT_EQ(MVCheckTBL(nullptr, "T"), 0);
  EXPECT_EQ(take(), "");
}

TEST_F(HandlesTest, DbWorkClosesItsOwnAndKeepsTheFirstFailure) {
  {
    mv::DbWork work(kBook);
    ASSERT_TRUE(work.openDb());
    ASSERT_EQ(work.openTable("TagPageTBL", 0), 0);
    ASSERT_EQ(work.openTableEx("TagDispTBL", "SELECT * FROM TagDispTBL", 1), 0);
    server->failNext("CloseTable", 0x51);
    server->failNext("CloseDatabase", 0x52);
    EXPECT_FALSE(work.finish());
    EXPECT_EQ(lastError(), 0x51);
  }
  EXPECT_EQ(take(), "OpenDatabase OpenTable CloseTable OpenTableEx CloseTable CloseDatabase");

  // A held database and a borrowed handle are the application's.
  mv::connection().bookDbHeld = 1;
  {
    mv::DbWork work(kBook);
    ASSERT_TRUE(work.openDb());
    work.borrowHandle("H9");
    EXPECT_EQ(work.handleText(), "H9");
  }
  EXPECT_EQ(take(), "");
  mv::connection().lastError = 7;
  {
    mv::DbWork work(kBook, mv::DbWork::Holder::Book, mv::DbWork::Open::Always);
    ASSERT_TRUE(work.openDb());
    server->failNext("OpenTableEx", 0x53);
    EXPECT_EQ(work.openTableEx("ImageDataTBL", "SELECT * FROM ImageDataTBL", 0), 0x53);
    EXPECT_EQ(work.rowCount(), 0);
  }  // abandoned: the database opened despite the hold is closed, lastError untouched
  EXPECT_EQ(lastError(), 7);
  EXPECT_EQ(take(), "OpenDatabase OpenTableEx CloseDatabase");
}

TEST_F(HandlesTest, WorkQueryClosesOnEveryWayOutAndLeavesLastErrorToTheCaller) {
  mv::connection().lastError = 5;
  server->failNext("ExecuteQuery", 0x31);
  server->failNext("CloseDatabase", 0x32);
  {
    mv::WorkQuery query(kBook, mv::WorkQuery::Db::OpenUnlessHeld);
    EXPECT_EQ(query.open("TagPageTBL", "SELECT * FROM TagPageTBL"), 0x31);
    EXPECT_FALSE(query.isOpen());
  }
  EXPECT_EQ(lastError(), 5);
  EXPECT_EQ(take(), "OpenDatabase ExecuteQuery CloseDatabase");

  // Reopening for writing keeps the database open; a failure leaves only it to close.
  mv::WorkQuery query(kBook, mv::WorkQuery::Db::OpenUnlessHeld);
  ASSERT_EQ(query.open("TagPageTBL", "SELECT * FROM TagPageTBL"), 0);
  ASSERT_EQ(query.reopenTable("TagPageTBL"), 0);
  EXPECT_EQ(query.handle(), "H2");
  EXPECT_EQ(query.close(1), 1);
  EXPECT_EQ(take(),
            "OpenDatabase ExecuteQuery CloseTable OpenTable CloseTable UnlockDatabase "
            "CloseDatabase");
  {
    mv::WorkQuery failing(kBook, mv::WorkQuery::Db::OpenUnlessHeld);
    ASSERT_EQ(failing.open("TagPageTBL", "SELECT * FROM TagPageTBL"), 0);
    server->failNext("OpenTable", 0x33);
    EXPECT_EQ(failing.reopenTable("TagPageTBL"), 0x33);
  }
  EXPECT_EQ(take(), "OpenDatabase ExecuteQuery CloseTable OpenTable CloseDatabase");
}

TEST_F(HandlesTest, FirstRowLookupTellsMissingFromFailedAndKeepsTheFirstCode) {
  mv::Row row;
  EXPECT_EQ(mv::lookupFirstRow(kSys, "UserInfoTBL", "q", row), mv::Lookup::Missing);
  server->queueResult({{"KEY=T_Index\t1\t8", "KEY=UserName\t2\tx"}});
  EXPECT_EQ(mv::lookupFirstRow(kSys, "UserInfoTBL", "q", row), mv::Lookup::Found);
  ASSERT_EQ(row.size(), 2u);
  EXPECT_EQ(row[1].value, "x");
  server->queueResult({{"KEY=T_Index\t1\t8"}});
  server->failNext("GetRecords", 0x41);
  server->failNext("CloseTable", 0x42);
  EXPECT_EQ(mv::lookupFirstRow(kSys, "UserInfoTBL", "q", row), mv::Lookup::Failed);
  EXPECT_EQ(lastError(), 0x41);
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
  EXPECT_TRUE(mv::ResultBlock<UserRec>(0).ok());
  EXPECT_FALSE(mv::ResultBlock<UserRec>(SIZE_MAX / 2).ok());
}

}  // namespace
}  // namespace mvtest
