// Images end to end, against the server in this process and a daemon on loopback, each on a
// fresh data folder with one book.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "MVCore.h"
#include "child_process.h"
#include "frame/connection.h"
#include "live_server.h"
#include "platform/files.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

std::string content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string bytes(std::size_t size, int seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 31 + seed) >> 3);
  return s;
}

class ImagesEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
    int32_t shelf = 0;
    ASSERT_EQ(MVCreateBookshelf("images", "admin", &shelf), 0);
    CoverInfo cover{};
    int32_t book = 0;
    ASSERT_EQ(MVCreateBook("images", 0, &cover, &book), 0) << mv::connection().lastError;
    db = cover.BookName;
  }

  std::vector<ImageInfoRecordEX> list(int32_t tag) {
    MVHGLOBAL block = nullptr;
    int32_t count = -1;
    EXPECT_EQ(MVGetImageInfoEX(db.c_str(), tag, &block, &count), 0);
    if (count <= 0) return {};
    const auto* records = static_cast<const ImageInfoRecordEX*>(MVGlobalLock(block));
    std::vector<ImageInfoRecordEX> out(records, records + count);
    MVGlobalUnlock(block);
    MVGlobalFree(block);
    return out;
  }

  std::string db;
  TempFolder temp{"images-e2e"};
};

MVCORE_ON_BOTH_SERVERS(ImagesEndToEnd);

TEST_P(ImagesEndToEnd, BytesDateCountersAndTextsRoundTrip) {
  const std::string up = temp / "up.tif";
  put(up, bytes(307201, 1));
  ASSERT_TRUE(mv::fs::setFileTimes(up, 1650000000));
  ImageInfoRecordEX info{};
  info.Attribute = 5;
  std::snprintf(info.ImageDataInfo, sizeof info.ImageDataInfo, "up.tif");
  std::snprintf(info.Various, sizeof info.Various, "O'Brien");
  ASSERT_EQ(MVInsertImageDataEX(db.c_str(), 7, &info, up.c_str()), 0) << mv::connection().lastError;
  ASSERT_GT(info.T_Index, 0);

  const auto rows = list(7);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].T_Index, info.T_Index);
  EXPECT_EQ(rows[0].Attribute, 5);
  EXPECT_STREQ(rows[0].ImageDataInfo, "up.tif");
  EXPECT_STREQ(rows[0].Various, "O'Brien");
  EXPECT_TRUE(list(8).empty());

  const std::string down = temp / "down.tif";
  put(down, bytes(700000, 9));  // an older, longer file
  ASSERT_EQ(MVDownLoadImageData(db.c_str(), "ImageDataTBL", info.T_Index, down.c_str()), 0);
  EXPECT_TRUE(content(down) == content(up));
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(down, &t));
  EXPECT_EQ(t, 1650000000);

  // An update of exactly one block, then of nothing: the blob keeps the last bytes sent.
  put(up, bytes(307200, 2));
  info.Up_DateCounter = 4;
  ASSERT_EQ(MVUpDateImageDataEX(db.c_str(), "ImageDataTBL", info.T_Index, up.c_str(), &info), 0)
      << mv::connection().lastError;
  ASSERT_EQ(MVDownLoadImageData(db.c_str(), "ImageDataTBL", info.T_Index, down.c_str()), 0);
  EXPECT_TRUE(content(down) == content(up));
  int32_t counter = 0;
  ASSERT_EQ(MVGetImageUpdateCounter(db.c_str(), info.T_Index, &counter), 0);
  EXPECT_EQ(counter, 4);
  ASSERT_EQ(MVSetImageUpdateCounter(db.c_str(), info.T_Index, 11), 0);
  ASSERT_EQ(MVSetImageVariousData(db.c_str(), info.T_Index, "again"), 0);
  EXPECT_EQ(list(7).at(0).Up_DateCounter, 11);
  EXPECT_STREQ(list(7).at(0).Various, "again");

  ASSERT_EQ(MVDeleteImageData(db.c_str(), info.T_Index), 0);
  EXPECT_TRUE(list(7).empty());
  EXPECT_EQ(MVDeleteImageData(db.c_str(), info.T_Index), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
}

TEST_P(ImagesEndToEnd, HeldHandleInsertsAndElectronicRowsByGroup) {
  const std::string file = temp / "e.pdf";
  put(file, "");
  ASSERT_EQ(MVOpenDBEx(db.c_str()), 0);
  char handle[260] = {};
  ASSERT_EQ(MVOpenTBLEx(0, db.c_str(), handle), 0);
  ImageInfoRecordEX info{};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(MVInsertImageDataEX(db.c_str(), 7, &info, file.c_str()), 0);
  ImageInfoRecord el{};
  std::snprintf(el.ImageDataInfo, sizeof el.ImageDataInfo, "e.pdf");
  ASSERT_EQ(MVInsertELImageData(db.c_str(), &el, file.c_str(), 9999), 0);
  ASSERT_EQ(MVInsertELImageData(db.c_str(), &el, file.c_str(), 5), 0);
  ASSERT_EQ(MVOpenTBLEx(1, db.c_str(), handle), 0);
  ASSERT_EQ(MVCloseDBEx(db.c_str()), 0);
  EXPECT_EQ(list(7).size(), 3u);
  EXPECT_TRUE(list(0).size() == 2u);  // electronic rows have TagID 0

  MVHGLOBAL block = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetELImageInfo(db.c_str(), &block, &count), 0);
  EXPECT_EQ(count, 1);
  MVGlobalFree(block);
  ASSERT_EQ(MVGetELImageInfoEX(db.c_str(), &block, &count, 5), 0);
  ASSERT_EQ(count, 1);
  const int32_t key = static_cast<const ImageInfoRecordEX*>(MVGlobalLock(block))->T_Index;
  EXPECT_EQ(key, el.T_Index);
  MVGlobalUnlock(block);
  MVGlobalFree(block);
  ASSERT_EQ(MVDeleteELData(db.c_str(), key), 0);
  EXPECT_EQ(MVDeleteELData(db.c_str(), key), 0);  // a missing row is no failure
  ASSERT_EQ(MVGetELImageInfoEX(db.c_str(), &block, &count, 5), 0);
  EXPECT_EQ(count, 0);
}

TEST_P(ImagesEndToEnd, ShareFilesInsertOverlayDownloadAndStaleness) {
  const std::string source = temp / "source";
  const std::string local = temp / "local";
  mkdir(source.c_str(), 0777);
  mkdir(local.c_str(), 0777);
  put(source + "/a.tif", "a1");
  put(source + "/b.tif", "b1");
  put(source + "/index.bif", "[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,2,,1");
  ASSERT_EQ(MVInsertImageDataEX2(db.c_str(), 7, source.c_str(), 1, "client"), 0);
  EXPECT_EQ(MVIsImageFilesUpdated(db.c_str(), 7, local.c_str(), "client"), 1);
  ASSERT_EQ(MVDownLoadImageData2(db.c_str(), 7, local.c_str(), 0, "client"), 0);
  EXPECT_EQ(content(local + "/a.tif"), "a1");
  EXPECT_FALSE(mv::fs::exists(local + "/b.tif"));
  EXPECT_EQ(MVIsImageFilesUpdated(db.c_str(), 7, local.c_str(), "client"), 1);  // b.tif missing
  ASSERT_EQ(MVDownLoadImageData2(db.c_str(), 7, local.c_str(), 1, "client"), 0);
  EXPECT_EQ(MVIsImageFilesUpdated(db.c_str(), 7, local.c_str(), "client"), 0);

  put(source + "/a.tif", "a2");
  put(source + "/index.bif", "[DataCnt],2\n[Data],a.tif,1,,2\n[Data],b.tif,2,,1");
  ASSERT_EQ(MVUpDateImageDataEx2(db.c_str(), 7, source.c_str(), 1, "client"), 0);
  EXPECT_EQ(MVIsImageFilesUpdated(db.c_str(), 7, local.c_str(), "client"), 1);
  ASSERT_EQ(MVDownLoadImageData2(db.c_str(), 7, local.c_str(), 1, "client"), 0);
  EXPECT_EQ(content(local + "/a.tif"), "a2");
  EXPECT_EQ(MVIsImageFilesUpdated(db.c_str(), 7, local.c_str(), "client"), 0);
  EXPECT_EQ(MVCheckIsAccessNetData("client", db.c_str()), 0);

  ASSERT_EQ(MVDeleteImageData2(db.c_str(), 7, "b.tif", "client"), 0);
  const std::string again = temp / "again";
  mkdir(again.c_str(), 0777);
  ASSERT_EQ(MVDownLoadImageData2(db.c_str(), 7, again.c_str(), 1, "client"), 0);
  EXPECT_FALSE(mv::fs::exists(again + "/b.tif"));
  EXPECT_TRUE(mv::fs::exists(again + "/a.tif"));
}

}  // namespace
}  // namespace mvtest
