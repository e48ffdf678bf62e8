// The frame's exports against a real server, the one in this process and a daemon on loopback,
// and a daemon that dies under its client: calls fail promptly, nothing hangs, and the data
// folder is whole when the daemon starts again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>

#include "MVCore.h"
#include "frame/blocks.h"
#include "frame/connection.h"
#include "frame/exchange.h"
#include "frame/handles.h"
#include "live_server.h"

namespace {

constexpr char kSys[] = "MarvekSystemCommonDB";
using Clock = std::chrono::steady_clock;

class FrameEndToEnd : public mvtest::LiveServerTest {
 protected:
  mv::IBookServer& server() { return *mv::connection().currentServer; }
  std::string lastErrorText() {
    char text[260] = "";
    MVGetLastError(text);
    return text;
  }
  void makeBook(const char* name) {
    ASSERT_EQ(server().CreateBookDatabase(mv::toWide("").get(), mv::toWide("").get(),
                                          mv::toWide(name).get()),
              0);
  }
  // Adds a row through an open handle; its new T_Index.
  int32_t addRow(const char* db, const std::string& handle, const char* column,
                 const std::string& value) {
    mv::RecordWriter record(handle, 2);
    record.putInt(1, "T_Index", mv::kTypeInt, 0);
    record.putText(2, column, mv::kTypeVarchar, value);
    int32_t index = 0;
    EXPECT_EQ(server().AddRecord(mv::toWide(db).get(), record.get(), 1, &index), 0);
    return index;
  }
  int32_t addRow(const char* db, const char* table, const char* column, const std::string& value) {
    std::string handle;
    int32_t rows = 0;
    EXPECT_EQ(mv::openWorkTable(db, table, &rows, handle), 1);
    const int32_t index = addRow(db, handle, column, value);
    EXPECT_EQ(mv::closeWorkTable(db, handle, 0), 1);
    return index;
  }
  int32_t countRows(const char* db, const char* table) {
    std::string handle;
    int32_t rows = -1;
    EXPECT_EQ(mv::openWorkTable(db, table, &rows, handle), 1);
    EXPECT_EQ(mv::closeWorkTable(db, handle, 0), 1);
    return rows;
  }
  // The text of `column` in the first row of a table opened by MVOpenTBL.
  std::string firstRow(const char* table, const char* column) {
    int32_t rows = 0, status = -1;
    char handle[260] = "";
    EXPECT_EQ(MVOpenTBL(kSys, table, 0, &rows, handle), 0);
    mv::Row row;
    EXPECT_TRUE(
        mv::fetchRow(server(), mv::toWide(kSys).get(), mv::toWide(handle).get(), 0, row, status));
    EXPECT_EQ(MVCloseTBL(kSys, handle), 0);
    EXPECT_EQ(MVCloseTBL(kSys, handle), -1);  // the handle is gone
    const mv::RowField* field = mv::findField(row, column);
    return std::to_string(rows) + " " + (field ? field->value : "none");
  }
  // The blob of the rows of ImageDataTBL `where` selects; the download's status.
  int32_t download(const char* db, const std::string& where, std::vector<uint8_t>* into) {
    int32_t found = 0;
    mv::Bstr h;
    const std::string sql = "SELECT * FROM ImageDataTBL " + where;
    EXPECT_EQ(server().OpenTableEx(mv::toWide(db).get(), mv::toWide("ImageDataTBL").get(),
                                   mv::toWide(sql).get(), 1, &found, h.out()),
              0);
    const mv::DownloadResult down =
        mv::downloadBlocks(server(), mv::toWide(db).get(), h.get(), mv::toWide("RealityData").get(),
                           [&](const uint8_t* data, std::size_t size) {
                             into->insert(into->end(), data, data + size);
                             return true;
                           });
    EXPECT_EQ(server().CloseTable(mv::toWide(db).get(), h.get()), 0);
    return down.status;
  }
  // After the daemon died: the link reports the loss, and leaving still works.
  void expectLinkLost(Clock::time_point killedAt) {
    EXPECT_LT(Clock::now() - killedAt, std::chrono::seconds(5));
    EXPECT_EQ(MVConnectCheck(), -1);
    EXPECT_NE(mv::connection().lastError, 0);
    EXPECT_EQ(MVExit(), 0);
    restartDaemon();
    ASSERT_EQ(MVInit(host().c_str()), 0);
  }
};
MVCORE_ON_BOTH_SERVERS(FrameEndToEnd);

TEST_P(FrameEndToEnd, AFreshFolderServesTheSystemDatabaseAndReportsWhatIsMissing) {
  ASSERT_EQ(MVOpenDB(kSys), 0);
  EXPECT_EQ(mv::connection().systemDbHeld, 1);
  EXPECT_EQ(MVCheckTBL(kSys, "UserInfoTBL"), 1);
  EXPECT_EQ(MVCheckTBL(kSys, "ViewAttributeTBL"), 0);  // made on first use
  EXPECT_EQ(firstRow("UserInfoTBL", "UserName"), "1 admin");
  EXPECT_NE(mv::connection().lastError, 0);
  EXPECT_FALSE(lastErrorText().empty());
  EXPECT_EQ(MVCloseDB(kSys), 0);

  EXPECT_EQ(MVOpenDBEx("BOOK9999999999"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x8A);
  EXPECT_EQ(mv::connection().bookDbHeld, 0);
  EXPECT_THAT(lastErrorText(), ::testing::HasSubstr("BOOK9999999999"));
  int32_t rows = 0;
  char handle[260] = "";
  EXPECT_EQ(MVOpenTBL(kSys, "NoSuchTBL", 0, &rows, handle), -1);
  EXPECT_NE(mv::connection().lastError, 0);
  EXPECT_EQ(MVDeleteDB("BOOK9999999999"), -1);

  makeBook("BOOK1123000001");  // held, opened for images and deleted
  ASSERT_EQ(MVOpenDBEx("BOOK1123000001"), 0);
  ASSERT_EQ(MVOpenTBLEx(0, "BOOK1123000001", handle), 0);
  EXPECT_NE(handle[0], '\0');
  ASSERT_EQ(MVOpenTBLEx(1, "BOOK1123000001", handle), 0);
  EXPECT_EQ(MVOpenTBLEx(1, "BOOK1123000001", handle), -1);  // closed already
  EXPECT_EQ(MVCloseDBEx("BOOK1123000001"), 0);
  EXPECT_EQ(MVDeleteDB("BOOK1123000001"), 0);
  EXPECT_EQ(MVOpenDBEx("BOOK1123000001"), -1);
}

TEST_P(FrameEndToEnd, RecordDeleteRemovesRowsThroughOneHandle) {
  ASSERT_EQ(MVOpenDB(kSys), 0);
  const std::string name = "\x8D\x48\x8E\x96\x96\xBC";  // 工事名 in CP932
  const int32_t a = addRow(kSys, "CommonTBL", "DataName", name + "A");
  const int32_t b = addRow(kSys, "CommonTBL", "DataName", name + "B");
  const int32_t c = addRow(kSys, "CommonTBL", "DataName", name + "C");
  EXPECT_LT(a, b);
  ASSERT_EQ(MVRecordDelete(kSys, "CommonTBL", 0, 1), 0);
  EXPECT_EQ(MVRecordDelete(kSys, "CommonTBL", a, 0), 0);
  EXPECT_EQ(MVRecordDelete(kSys, "CommonTBL", c, 0), 0);
  EXPECT_EQ(MVRecordDelete(kSys, "CommonTBL", 0, 2), 0);
  EXPECT_EQ(firstRow("CommonTBL", "DataName"), "1 " + name + "B");
  // A row that is not there fails the delete and closes the handle at once.
  ASSERT_EQ(MVRecordDelete(kSys, "CommonTBL", 0, 1), 0);
  EXPECT_EQ(MVRecordDelete(kSys, "CommonTBL", a, 0), -1);
  EXPECT_NE(mv::connection().lastError, 0);
}

TEST_P(FrameEndToEnd, ConnectionQueriesAnswerFromTheRealServerAndExitReleasesTheFolder) {
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
  ASSERT_EQ(MVExit(), 0);
  ASSERT_EQ(MVInit(host().c_str()), 0);
  EXPECT_EQ(MVOpenDB(kSys), 0);
  ASSERT_EQ(MVChangeServer(host().c_str()), 0);  // two links of one process to one server
  EXPECT_EQ(MVConnectCheck(), 0);
  EXPECT_EQ(MVResetServer(), 0);
}

TEST_P(FrameEndToEnd, ADaemonKilledDuringAListingOrAnUploadFailsItPromptlyAndKeepsItsData) {
  if (!remote()) GTEST_SKIP() << "only a daemon can die under its client";
  constexpr int kRows = 1500;
  std::string handle;
  int32_t rows = 0;
  ASSERT_EQ(mv::openWorkTable(kSys, "CommonTBL", &rows, handle), 1);
  for (int i = 0; i < kRows; ++i) addRow(kSys, handle, "DataName", "name" + std::to_string(i));
  ASSERT_EQ(mv::closeWorkTable(kSys, handle, 0), 1);
  ASSERT_EQ(mv::openWorkTable(kSys, "CommonTBL", &rows, handle), 1);
  ASSERT_EQ(rows, kRows);
  int fetched = 0;
  int32_t status = 0;
  Clock::time_point killedAt;
  for (int i = 0; i < kRows; ++i) {
    if (i == 300) {
      killDaemon();
      killedAt = Clock::now();
    }
    mv::Row fetchedRow;
    if (!mv::fetchRow(server(), mv::toWide(kSys).get(), mv::toWide(handle).get(), i, fetchedRow,
                      status)) {
      break;
    }
    ++fetched;
  }
  EXPECT_GE(fetched, 300);
  EXPECT_LT(fetched, kRows);
  EXPECT_NE(status, 0);
  expectLinkLost(killedAt);
  EXPECT_EQ(countRows(kSys, "CommonTBL"), kRows);

  constexpr char kBook[] = "BOOK1123000101";
  makeBook(kBook);
  ASSERT_EQ(mv::openWorkTable(kBook, "ImageDataTBL", &rows, handle), 1);
  const int32_t row = addRow(kBook, handle, "ImageDataInfo", "a.png");
  mv::BlockRecord record(kBook, handle, row, "RealityData");
  const std::vector<uint8_t> before(500000, 0x5A);
  std::size_t sent = 0;
  const auto source = [&](const std::vector<uint8_t>& bytes) {
    sent = 0;
    return [&](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
      const std::size_t n = std::min(size, bytes.size() - sent);
      std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(sent), n, data);
      sent += n;
      return static_cast<std::ptrdiff_t>(n);
    };
  };
  ASSERT_EQ(mv::uploadBlocks(server(), record.get(), mv::UploadForm::Insert, source(before)).status,
            0);
  int reads = 0;
  const mv::UploadResult r =
      mv::uploadBlocks(server(), record.get(), mv::UploadForm::Insert,
                       [&](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
                         if (++reads == 3) {
                           killDaemon();
                           killedAt = Clock::now();
                         }
                         std::fill_n(data, size, static_cast<uint8_t>(reads));
                         return reads < 10 ? static_cast<std::ptrdiff_t>(size) : 0;
                       });
  EXPECT_NE(r.status, 0);
  EXPECT_EQ(r.calls, 3);  // the first call after the kill fails, and the loop stops there
  expectLinkLost(killedAt);
  EXPECT_EQ(countRows(kBook, "ImageDataTBL"), 1);
  std::vector<uint8_t> bytes;  // the upload never finished: the row keeps what it had
  EXPECT_EQ(download(kBook, "", &bytes), 0);
  EXPECT_TRUE(bytes == before);
  // The restarted daemon swept the half-written file: one file per blob, nothing else.
  std::vector<std::string> files;
  for (const auto& e :
       std::filesystem::recursive_directory_iterator(serverDisk() + "/db/content")) {
    if (e.is_regular_file()) files.push_back(e.path().filename().string());
  }
  EXPECT_EQ(files.size(), 1u) << ::testing::PrintToString(files);
  // And the upload goes through when tried again.
  const std::vector<uint8_t> after(700001, 0xA5);
  ASSERT_EQ(mv::openWorkTable(kBook, "ImageDataTBL", &rows, handle), 1);
  mv::BlockRecord again(kBook, handle, row, "RealityData");
  EXPECT_EQ(mv::uploadBlocks(server(), again.get(), mv::UploadForm::Insert, source(after)).status,
            0);
  ASSERT_EQ(mv::closeWorkTable(kBook, handle, 0), 1);
  bytes.clear();
  EXPECT_EQ(download(kBook, "", &bytes), 0);
  EXPECT_TRUE(bytes == after);
  EXPECT_EQ(countRows(kSys, "UserInfoTBL"), 1);
}

}  // namespace
