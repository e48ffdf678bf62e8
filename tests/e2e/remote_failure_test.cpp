// A daemon that dies under a client: the client's calls fail promptly with a non-zero status,
// nothing hangs, and the data folder is whole when the daemon starts again.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "MVCore.h"
#include "frame/blocks.h"
#include "frame/connection.h"
#include "frame/exchange.h"
#include "frame/handles.h"
#include "live_server.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPrompt = std::chrono::seconds(5);

class RemoteFailure : public mvtest::LiveServerTest {
 protected:
  mv::IBookServer& server() { return *mv::connection().currentServer; }

  int32_t addRow(const char* db, const char* table, const std::string& handle, const char* column,
                 const std::string& value) {
    mv::RecordWriter record(handle, 2);
    record.putInt(1, "T_Index", mv::kTypeInt, 0);
    record.putText(2, column, mv::kTypeVarchar, value);
    int32_t index = 0;
    EXPECT_EQ(server().AddRecord(mv::toWide(db).get(), record.get(), 1, &index), 0);
    (void)table;
    return index;
  }

  int32_t countRows(const char* db, const char* table) {
    std::string handle;
    int32_t rows = -1;
    EXPECT_EQ(mv::openWorkTable(db, table, &rows, handle), 1);
    EXPECT_EQ(mv::closeWorkTable(db, handle, 0), 1);
    return rows;
  }

  // After the daemon died: the link reports the loss, and leaving still works.
  void expectLinkLost() {
    EXPECT_EQ(MVConnectCheck(), -1);
    EXPECT_NE(mv::connection().lastError, 0);
    EXPECT_EQ(MVExit(), 0);
  }
};

INSTANTIATE_TEST_SUITE_P(Servers, RemoteFailure, ::testing::Values(mvtest::ServerKind::Remote),
                         mvtest::serverKindName);

TEST_P(RemoteFailure, ADaemonKilledDuringAnUploadFailsItPromptlyAndKeepsItsData) {
  constexpr char kBook[] = "BOOK1123000101";
  ASSERT_EQ(server().CreateBookDatabase(mv::toWide("").get(), mv::toWide("").get(),
                                        mv::toWide(kBook).get()),
            0);
  std::string handle;
  int32_t rows = 0;
  ASSERT_EQ(mv::openWorkTable(kBook, "ImageDataTBL", &rows, handle), 1);
  const int32_t row = addRow(kBook, "ImageDataTBL", handle, "ImageDataInfo", "a.png");

  int reads = 0;
  Clock::time_point killedAt;
  mv::BlockRecord record(kBook, handle, row, "RealityData");
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
  EXPECT_LT(Clock::now() - killedAt, kPrompt);
  expectLinkLost();

  restartDaemon();
  ASSERT_EQ(MVInit(host().c_str()), 0);
  int32_t out = 0;
  EXPECT_EQ(server().OpenDatabase(mv::toWide(kBook).get(), mv::kOpenTestExists, &out), 0);
  EXPECT_EQ(countRows(kBook, "ImageDataTBL"), 1);
  // The upload never finished: the row keeps no bytes of it.
  int32_t found = 0;
  mv::Bstr h;
  ASSERT_EQ(
      server().OpenTableEx(mv::toWide(kBook).get(), mv::toWide("ImageDataTBL").get(),
                           mv::toWide("SELECT * FROM ImageDataTBL").get(), 0, &found, h.out()),
      0);
  int64_t bytes = 0;
  const mv::DownloadResult down =
      mv::downloadBlocks(server(), mv::toWide(kBook).get(), h.get(),
                         mv::toWide("RealityData").get(), [&](const uint8_t*, std::size_t n) {
                           bytes += static_cast<int64_t>(n);
                           return true;
                         });
  EXPECT_EQ(down.status, 0);
  EXPECT_EQ(bytes, 0);
  EXPECT_EQ(countRows("MarvekSystemCommonDB", "UserInfoTBL"), 1);
}

TEST_P(RemoteFailure, ADaemonKilledDuringAListingFailsTheNextFetchPromptly) {
  constexpr int kRows = 1500;
  std::string handle;
  int32_t rows = 0;
  ASSERT_EQ(mv::openWorkTable("MarvekSystemCommonDB", "CommonTBL", &rows, handle), 1);
  for (int i = 0; i < kRows; ++i) {
    addRow("MarvekSystemCommonDB", "CommonTBL", handle, "DataName", "name" + std::to_string(i));
  }
  ASSERT_EQ(mv::closeWorkTable("MarvekSystemCommonDB", handle, 0), 1);

  ASSERT_EQ(mv::openWorkTable("MarvekSystemCommonDB", "CommonTBL", &rows, handle), 1);
  ASSERT_EQ(rows, kRows);
  const mv::Bstr db = mv::toWide("MarvekSystemCommonDB");
  const mv::Bstr h = mv::toWide(handle);
  int fetched = 0;
  int32_t status = 0;
  Clock::time_point killedAt;
  for (int i = 0; i < kRows; ++i) {
    if (i == 300) {
      killDaemon();
      killedAt = Clock::now();
    }
    mv::Row row;
    if (!mv::fetchRow(server(), db.get(), h.get(), i, row, status)) break;
    ++fetched;
  }
  EXPECT_GE(fetched, 300);
  EXPECT_LT(fetched, kRows);
  EXPECT_NE(status, 0);
  EXPECT_LT(Clock::now() - killedAt, kPrompt);
  expectLinkLost();

  restartDaemon();
  ASSERT_EQ(MVInit(host().c_str()), 0);
  EXPECT_EQ(countRows("MarvekSystemCommonDB", "CommonTBL"), kRows);
}

}  // namespace
