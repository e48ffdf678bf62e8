// The frame's exports end to end against a real server: the one in this process and a daemon on
// loopback, each on a fresh data folder of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "MVCore.h"
#include "frame/blocks.h"
#include "frame/connection.h"
#include "frame/exchange.h"
#include "frame/handles.h"
#include "live_server.h"

namespace {

class FrameEndToEnd : public mvtest::LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    server_ = mv::connection().currentServer;
  }

  std::string lastErrorText() {
    char text[260] = "";
    MVGetLastError(text);
    return text;
  }

  // A new book database from the default template.
  void makeBook(const char* name) {
    ASSERT_EQ(server_->CreateBookDatabase(mv::toWide("").get(), mv::toWide("").get(),
                                          mv::toWide(name).get()),
              0);
  }

  // Adds a row through an OpenTable handle; its new T_Index.
  int32_t addRow(const char* db, const char* table, const char* name, const char* value) {
    std::string handle;
    int32_t rows = 0;
    EXPECT_EQ(mv::openWorkTable(db, table, &rows, handle), 1);
    mv::RecordWriter record(handle, 2);
    record.putInt(1, "T_Index", mv::kTypeInt, 0);
    record.putText(2, name, mv::kTypeVarchar, value);
    int32_t index = 0;
    EXPECT_EQ(server_->AddRecord(mv::toWide(db).get(), record.get(), 1, &index), 0);
    EXPECT_EQ(mv::closeWorkTable(db, handle, 0), 1);
    return index;
  }

  mv::IBookServer* server_ = nullptr;
};

MVCORE_ON_BOTH_SERVERS(FrameEndToEnd);

TEST_P(FrameEndToEnd, AFreshFolderServesTheSystemDatabaseAndItsTables) {
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  EXPECT_EQ(mv::connection().systemDbHeld, 1);
  EXPECT_EQ(MVCheckTBL("MarvekSystemCommonDB", "UserInfoTBL"), 1);
  EXPECT_EQ(MVCheckTBL("MarvekSystemCommonDB", "ViewAttributeTBL"), 0);  // made on first use

  int32_t rows = 0;
  char handle[260] = "";
  ASSERT_EQ(MVOpenTBL("MarvekSystemCommonDB", "UserInfoTBL", 0, &rows, handle), 0);
  EXPECT_EQ(rows, 1);
  mv::Row row;
  int32_t status = -1;
  ASSERT_TRUE(mv::fetchRow(*server_, mv::toWide("MarvekSystemCommonDB").get(),
                           mv::toWide(handle).get(), 0, row, status));
  constexpr mv::FieldBinding kUser[] = {MV_INT_FIELD(UserRec, tIndex, "T_Index"),
                                        MV_TEXT_FIELD(UserRec, userName, "UserName"),
                                        MV_TEXT_FIELD(UserRec, password, "Password"),
                                        MV_INT_FIELD(UserRec, userAttribute, "UserAttribute")};
  UserRec user{};
  user.userAttribute = -1;
  mv::bindRow(row, kUser, &user);
  EXPECT_GT(user.tIndex, 0);
  EXPECT_STREQ(user.userName, "admin");
  EXPECT_EQ(user.userAttribute, 0);
  EXPECT_EQ(MVCloseTBL("MarvekSystemCommonDB", handle), 0);
  EXPECT_EQ(MVCloseTBL("MarvekSystemCommonDB", handle), -1);  // the handle is gone
  EXPECT_NE(mv::connection().lastError, 0);
  EXPECT_FALSE(lastErrorText().empty());
  EXPECT_EQ(MVCloseDB("MarvekSystemCommonDB"), 0);
}

TEST_P(FrameEndToEnd, AMissingDatabaseIsReportedWithTheServersCodeAndText) {
  EXPECT_EQ(MVOpenDBEx("BOOK9999999999"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x8A);
  EXPECT_EQ(mv::connection().bookDbHeld, 0);
  EXPECT_THAT(lastErrorText(), ::testing::HasSubstr("BOOK9999999999"));
  int32_t rows = 0;
  char handle[260] = "";
  EXPECT_EQ(MVOpenTBL("MarvekSystemCommonDB", "NoSuchTBL", 0, &rows, handle), -1);
  EXPECT_NE(mv::connection().lastError, 0);
  EXPECT_EQ(MVDeleteDB("BOOK9999999999"), -1);
}

TEST_P(FrameEndToEnd, ABookIsHeldOpenedForImagesAndDeleted) {
  makeBook("BOOK1123000001");
  ASSERT_EQ(MVOpenDBEx("BOOK1123000001"), 0);
  char handle[260] = "";
  ASSERT_EQ(MVOpenTBLEx(0, "BOOK1123000001", handle), 0);
  EXPECT_NE(handle[0], '\0');
  ASSERT_EQ(MVOpenTBLEx(1, "BOOK1123000001", handle), 0);
  EXPECT_EQ(MVOpenTBLEx(1, "BOOK1123000001", handle), -1);  // closed already
  EXPECT_EQ(MVCloseDBEx("BOOK1123000001"), 0);
  EXPECT_EQ(MVDeleteDB("BOOK1123000001"), 0);
  EXPECT_EQ(MVOpenDBEx("BOOK1123000001"), -1);
}

// 工事名A, B, C in CP932.
constexpr char kNameA[] =
    "\x8D\x48\x8E\x96\x96\xBC"
    "A";
constexpr char kNameB[] =
    "\x8D\x48\x8E\x96\x96\xBC"
    "B";
constexpr char kNameC[] =
    "\x8D\x48\x8E\x96\x96\xBC"
    "C";

TEST_P(FrameEndToEnd, RecordDeleteRemovesRowsThroughOneHandle) {
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  const int32_t a = addRow("MarvekSystemCommonDB", "CommonTBL", "DataName", kNameA);
  const int32_t b = addRow("MarvekSystemCommonDB", "CommonTBL", "DataName", kNameB);
  const int32_t c = addRow("MarvekSystemCommonDB", "CommonTBL", "DataName", kNameC);
  EXPECT_LT(a, b);
  ASSERT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", 0, 1), 0);
  EXPECT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", a, 0), 0);
  EXPECT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", c, 0), 0);
  EXPECT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", 0, 2), 0);
  int32_t rows = 0;
  char handle[260] = "";
  ASSERT_EQ(MVOpenTBL("MarvekSystemCommonDB", "CommonTBL", 0, &rows, handle), 0);
  EXPECT_EQ(rows, 1);
  mv::Row row;
  int32_t status = 0;
  ASSERT_TRUE(mv::fetchRow(*server_, mv::toWide("MarvekSystemCommonDB").get(),
                           mv::toWide(handle).get(), 0, row, status));
  ASSERT_NE(mv::findField(row, "DataName"), nullptr);
  EXPECT_EQ(mv::findField(row, "DataName")->value, kNameB);
  EXPECT_EQ(MVCloseTBL("MarvekSystemCommonDB", handle), 0);

  // A row that is not there fails the delete and closes the handle at once.
  ASSERT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", 0, 1), 0);
  EXPECT_EQ(MVRecordDelete("MarvekSystemCommonDB", "CommonTBL", a, 0), -1);
  EXPECT_NE(mv::connection().lastError, 0);
}

TEST_P(FrameEndToEnd, BlobsGoUpAndComeBackByteForByte) {
  makeBook("BOOK1123000002");
  const int32_t row = addRow("BOOK1123000002", "ImageDataTBL", "ImageDataInfo", "a.png");
  std::string handle;
  int32_t rows = 0;
  ASSERT_EQ(mv::openWorkTable("BOOK1123000002", "ImageDataTBL", &rows, handle), 1);
  std::vector<uint8_t> bytes(3 * mv::kBlockSize + 123);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31 + 7);
  std::size_t offset = 0;
  mv::BlockRecord record("BOOK1123000002", handle, row, "RealityData");
  const mv::UploadResult up =
      mv::uploadBlocks(*server_, record.get(), mv::UploadForm::Insert,
                       [&](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
                         const std::size_t n = std::min(size, bytes.size() - offset);
                         std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), n, data);
                         offset += n;
                         return static_cast<std::ptrdiff_t>(n);
                       });
  EXPECT_EQ(up.status, 0);
  EXPECT_EQ(up.calls, 4);
  ASSERT_EQ(mv::closeWorkTable("BOOK1123000002", handle, 0), 1);

  int32_t count = 0;
  mv::Bstr h;
  ASSERT_EQ(
      server_->OpenTableEx(
          mv::toWide("BOOK1123000002").get(), mv::toWide("ImageDataTBL").get(),
          mv::toWide("SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(row)).get(), 1,
          &count, h.out()),
      0);
  std::vector<uint8_t> back;
  const mv::DownloadResult down = mv::downloadBlocks(*server_, mv::toWide("BOOK1123000002").get(),
                                                     h.get(), mv::toWide("RealityData").get(),
                                                     [&](const uint8_t* data, std::size_t size) {
                                                       back.insert(back.end(), data, data + size);
                                                       return true;
                                                     });
  EXPECT_EQ(down.status, 0);
  EXPECT_EQ(back, bytes);
  EXPECT_EQ(server_->CloseTable(mv::toWide("BOOK1123000002").get(), h.get()), 0);
}

TEST_P(FrameEndToEnd, ConnectionQueriesAnswerFromTheRealServer) {
  EXPECT_EQ(MVConnectCheck(), 0);
  int32_t first = -1, second = -1, fourth = -1;
  EXPECT_EQ(MVGetOption(&first, &second, nullptr, &fourth), 0);
  EXPECT_EQ(fourth, 1);  // sessions connected: this one
  EXPECT_EQ(MVGetConnect(&first, &second), 0);
  EXPECT_EQ(first, 1);
  char info[260] = "";
  EXPECT_EQ(MVGetServerInfo(info), 0);
  EXPECT_THAT(info, ::testing::HasSubstr("SQLite"));
  EXPECT_EQ(MVSetMutex("BOOK1123000003", 1), 0);
  EXPECT_EQ(MVSetMutex("BOOK1123000003", 0), 0);  // held by this client, not another
  EXPECT_EQ(MVSetMutex("BOOK1123000003", 2), 0);
  EXPECT_EQ(MVSetMutex("BOOK1123000003", 2), 2);  // not held any more
  EXPECT_EQ(MVSetMutex("x", 9), -1);
}

TEST_P(FrameEndToEnd, ExitReleasesTheFolderForTheNextRun) {
  ASSERT_EQ(MVExit(), 0);
  ASSERT_EQ(MVInit(host().c_str()), 0);
  EXPECT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  // Two links of one process to the same server.
  ASSERT_EQ(MVChangeServer(host().c_str()), 0);
  EXPECT_EQ(MVConnectCheck(), 0);
  EXPECT_EQ(MVResetServer(), 0);
}

}  // namespace
