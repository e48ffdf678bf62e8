// Image rows against a recording server: the bytes of a file go up and come back byte for byte at
// the block boundaries; the closes and codes on each failure; lists; the held handle and
// database; electronic-delivery rows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "child_process.h"
#include "contents/images.h"
#include "contents_fixture.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Methods = std::vector<std::string>;

constexpr char kDb[] = "BOOK0101000000";
constexpr int32_t kFailure = 0x1234;
constexpr std::size_t kBlock = 307200;

class ImagesRecorded : public ContentsRecorded {
 protected:
  // The UpLoadData calls as "blockNo bytes isLast".
  std::vector<std::string> uploads() const {
    std::vector<std::string> out;
    for (const Call& c : server->calls)
      if (c.method == "UpLoadData") out.push_back(c.args[1] + " " + c.args[2] + " " + c.args[4]);
    return out;
  }
  std::string uploaded() const { return {server->uploaded.begin(), server->uploaded.end()}; }
  void queueRow() { server->queueResult({{"KEY=T_Index\t1\t7"}}); }
  int insert(const std::string& path, ImageInfoRecordEX* info) {
    return MVInsertImageDataEX(kDb, 3, info, path.c_str());
  }
  int update(const std::string& path, ImageInfoRecordEX* info) {
    return MVUpDateImageDataEX(kDb, "ImageDataTBL", 7, path.c_str(), info);
  }
  int download(const std::string& path) {
    return MVDownLoadImageData(kDb, "ImageDataTBL", 7, path.c_str());
  }
  TempFolder temp{"images"};
};

TEST_F(ImagesRecorded, InsertWritesTheRowCutTheBytesAndTheFileDate) {
  const std::string path = temp.write("a.tif", "abc");
  const std::time_t when = 1700000000;
  ASSERT_TRUE(mv::fs::setFileTimes(path, when));
  ImageInfoRecordEX info{};
  info.Attribute = 5;
  std::memset(info.ImageDataInfo, 'i', sizeof info.ImageDataInfo);  // no terminator at all
  std::memset(info.Various, 'v', sizeof info.Various);
  ASSERT_EQ(insert(path, &info), 0);
  EXPECT_THAT(server->argsOf("AddRecord", 1).at(0),
              HasSubstr("|KEY=ImageDataInfo\t2\t" + std::string(239, 'i') + "|KEY=Various\t2\t" +
                        std::string(245, 'v') + "]"));
  double expected = 0;
  ASSERT_TRUE(mv::systemTimeToOleDate(mv::toLocalSystemTime(when), &expected));
  EXPECT_DOUBLE_EQ(server->fileDate, expected);
  EXPECT_THAT(server->argsOf("ImageFileDate", 2), ElementsAre("1"));

  ImageInfoRecord plain{};  // the wrapper sends an empty Various
  ASSERT_EQ(MVInsertImageData(kDb, 3, &plain, path.c_str()), 0);
  EXPECT_THAT(server->argsOf("AddRecord", 1).back(), HasSubstr("KEY=Various\t2\t]"));

  // A missing file is made empty and sent as one empty block marked last; an update of an
  // empty file sends no block at all, and one of a whole block does not mark it last.
  server->calls.clear();
  ASSERT_EQ(insert(temp / "new.tif", &info), 0);
  EXPECT_TRUE(mv::fs::exists(temp / "new.tif"));
  EXPECT_THAT(uploads(), ElementsAre("1 0 1"));
  server->calls.clear();
  queueRow();
  ASSERT_EQ(update(temp / "new.tif", &info), 0);
  queueRow();
  ASSERT_EQ(update(temp.write("block.bin", pattern(kBlock)), &info), 0);
  EXPECT_THAT(uploads(), ElementsAre("1 307200 0"));
  EXPECT_TRUE(uploaded().ends_with(pattern(kBlock)));
}

TEST_F(ImagesRecorded, InsertFailuresCloseEverythingAndKeepTheirCode) {
  const std::string path = temp.write("a.tif", "abc");
  const std::string big = temp.write("big.bin", pattern(700000));
  struct Case {
    const char* name;
    std::string file;
    std::vector<std::pair<const char*, int32_t>> failures;
    int result;
    int32_t key, code;
    int uploads;
  } const cases[] = {
      {"no row: no key, no bytes", path, {{"AddRecord", kFailure}}, -1, 0, kFailure, 0},
      {"a file that cannot be opened: no code", temp / "missing/a.tif", {}, -1, 100, 0, 0},
      {"a failed block wins over a failed date",
       big,
       {{"UpLoadData", 0}, {"UpLoadData", kFailure}, {"ImageFileDate", 0x999}},
       -1,
       100,
       kFailure,
       2},
      {"a failed date is recorded, no failure",
       path,
       {{"ImageFileDate", kFailure}},
       0,
       100,
       kFailure,
       1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server->calls.clear();
    server->nextIndex = 100;
    mv::connection().lastError = 0;
    for (const auto& [method, status] : c.failures) server->failNext(method, status);
    ImageInfoRecordEX info{};
    info.T_Index = 55;
    EXPECT_EQ(insert(c.file, &info), c.result);
    EXPECT_EQ(info.T_Index, c.key);
    EXPECT_EQ(mv::connection().lastError, c.code);
    EXPECT_EQ(server->count("UpLoadData"), c.uploads);
    EXPECT_EQ(server->count("CloseTable"), 1);
    EXPECT_EQ(server->methods().back(), "CloseDatabase");
  }
}

TEST_F(ImagesRecorded, UpdateWritesCounterAndAttributeAfterTheBytesAndTheDate) {
  const std::string path = temp.write("a.tif", "abc");
  queueRow();
  ImageInfoRecordEX info{};
  info.Up_DateCounter = 9;
  info.Attribute = 2;
  std::snprintf(info.ImageDataInfo, sizeof info.ImageDataInfo, "ignored");
  ASSERT_EQ(update(path, &info), 0);
  EXPECT_THAT(server->argsOf("UpdateRecord", 1),
              ElementsAre("[TABLENAME=H1|KEY=Up_DateCounter\t1\t9|KEY=Attribute\t1\t2]"));
  // A failed date fails before the row is written; a missing row fails with code 0.
  server->calls.clear();
  queueRow();
  server->failNext("ImageFileDate", kFailure);
  EXPECT_EQ(update(path, &info), -1);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(server->count("UpdateRecord"), 0);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
  server->calls.clear();
  EXPECT_EQ(update("x", &info), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->count("UpLoadData"), 0);
  EXPECT_EQ(server->count("CloseTable"), 1);
}

TEST_F(ImagesRecorded, DownloadCutsAnOldFileStampsItsDateAndStopsAtAFailure) {
  const std::string path = temp.write("down.bin", pattern(400000));
  server->download = {1, 2, 3};
  ASSERT_TRUE(mv::systemTimeToOleDate(mv::toLocalSystemTime(1600000000), &server->fileDate));
  queueRow();
  ASSERT_EQ(download(path), 0);
  EXPECT_EQ(content(path), "\x01\x02\x03");
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(path, &t));
  EXPECT_EQ(t, 1600000000);
  server->download = {9};  // a failed date read: on without a date
  server->failNext("ImageFileDate", kFailure);
  queueRow();
  EXPECT_EQ(download(path), 0);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(content(path), "\x09");

  // A full disk gives its own code; a failed block keeps what was written and its code.
  server->download.assign(700000, 7);
  server->calls.clear();
  queueRow();
  EXPECT_EQ(download("/dev/full"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::kStatusDiskFull);
  EXPECT_EQ(server->count("DownLoadData"), 1);
  EXPECT_EQ(server->count("CloseTable"), 1);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
  server->failNext("DownLoadData", 0);
  server->failNext("DownLoadData", kFailure);
  queueRow();
  EXPECT_EQ(download(path), -1);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(content(path).size(), kBlock);
  // A missing row touches no file.
  server->calls.clear();
  EXPECT_EQ(download(temp / "none.bin"), -1);
  EXPECT_FALSE(mv::fs::exists(temp / "none.bin"));
  EXPECT_EQ(server->count("DownLoadData"), 0);
}

TEST_F(ImagesRecorded, ListsAreUnlockedBlocksAndAFailedRowLeavesTheBlockAlone) {
  server->queueResult({{"KEY=T_Index\t1\t5", "KEY=Up_DateCounter\t1\t2",
                        "KEY=ImageDataInfo\t2\ta.tif", "KEY=Attribute\t1\t1", "KEY=Various\t2\tv1"},
                       {"KEY=T_Index\t1\t6", "KEY=ImageDataInfo\t2\t" + std::string(300, 'x')}});
  MVHGLOBAL block = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetImageInfoEX(kDb, 3, &block, &count), 0);
  const auto records = take<ImageInfoRecordEX>(block, count);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_THAT(std::vector<std::string>(
                  {records[0].ImageDataInfo, records[0].Various, records[1].ImageDataInfo}),
              ElementsAre("a.tif", "v1", std::string(255, 'x')));
  block = reinterpret_cast<MVHGLOBAL>(0x1);
  EXPECT_EQ(MVGetImageInfo(kDb, 3, &block, &count), 0);
  EXPECT_EQ(count, 0);
  server->queueResult({{"KEY=T_Index\t1\t5"}, {"KEY=T_Index\t1\t6"}});
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", kFailure);
  EXPECT_EQ(MVGetImageInfo(kDb, 3, &block, &count), -1);
  EXPECT_EQ(block, reinterpret_cast<MVHGLOBAL>(0x1));
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(server->count("CloseDatabase"), 3);
}

TEST_F(ImagesRecorded, AHeldHandleAndDatabaseSaveCallsButTheSettersOpenTheirOwn) {
  const std::string path = temp.write("a.tif", "abc");
  char handle[260] = {};
  ASSERT_EQ(MVOpenDBEx(kDb), 0);
  ASSERT_EQ(MVOpenTBLEx(0, kDb, handle), 0);
  server->calls.clear();
  ImageInfoRecordEX info{};
  ASSERT_EQ(insert(path, &info), 0);
  EXPECT_EQ(server->methods(), Methods({"AddRecord", "UpLoadData", "ImageFileDate"}));
  EXPECT_THAT(server->argsOf("AddRecord", 1).at(0), HasSubstr(std::string("TABLENAME=") + handle));
  // The electronic-delivery insert never writes through the held handle.
  server->calls.clear();
  ASSERT_EQ(MVInsertELImageDataEX(kDb, &info, path.c_str(), 4), 0);
  EXPECT_EQ(server->methods(), Methods({"OpenTableEx", "AddRecord", "UpLoadData", "CloseTable"}));
  EXPECT_EQ(mv::connection().imageTableHandle, handle);

  server->calls.clear();
  queueRow();
  ASSERT_EQ(MVSetImageUpdateCounter(kDb, 7, 12), 0);
  queueRow();
  ASSERT_EQ(MVSetImageVariousData(kDb, 7, "note"), 0);
  EXPECT_EQ(server->count("OpenDatabase"), 2);
  EXPECT_EQ(server->count("CloseDatabase"), 2);
  EXPECT_THAT(server->argsOf("UpdateRecord", 1),
              ElementsAre("[TABLENAME=H3|KEY=Up_DateCounter\t1\t12]",
                          "[TABLENAME=H4|KEY=Various\t2\tnote]"));
  server->calls.clear();  // the getter leaves the held database alone
  server->queueResult({{"KEY=Up_DateCounter\t1\t12"}});
  int32_t counter = 0;
  ASSERT_EQ(MVGetImageUpdateCounter(kDb, 7, &counter), 0);
  EXPECT_EQ(counter, 12);
  EXPECT_EQ(server->methods(), Methods({"OpenTableEx", "GetRecords", "CloseTable"}));
}

TEST_F(ImagesRecorded, ElectronicRowsCarryTagZeroAndTheirGroupAndNullArgumentsAreRefused) {
  const std::string path = temp.write("e.pdf", "pdf");
  ImageInfoRecord info{};
  info.Attribute = 1;
  ASSERT_EQ(MVInsertELImageData(kDb, &info, path.c_str(), 42), 0);
  EXPECT_EQ(info.T_Index, 100);
  EXPECT_THAT(server->argsOf("AddRecord", 1).at(0), HasSubstr("|KEY=TagID\t1\t0|"));
  EXPECT_THAT(server->argsOf("AddRecord", 1).at(0), HasSubstr("|KEY=GroupNo\t1\t42|"));
  EXPECT_EQ(server->count("ImageFileDate"), 0);
  server->calls.clear();  // null arguments fail without a server call
  MVHGLOBAL block = nullptr;
  int32_t count = 0;
  ImageInfoRecordEX ex{};
  EXPECT_EQ(MVInsertImageDataEX(nullptr, 3, &ex, "x"), -1);
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, nullptr, "x"), -1);
  EXPECT_EQ(MVInsertImageData(kDb, 3, nullptr, "x"), -1);
  EXPECT_EQ(MVUpDateImageDataEX(kDb, nullptr, 1, "x", &ex), -1);
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 1, nullptr), -1);
  EXPECT_EQ(MVGetImageInfo(kDb, 1, nullptr, &count), -1);
  EXPECT_EQ(MVGetELImageInfoEX(kDb, &block, nullptr, 1), -1);
  EXPECT_EQ(MVGetImageUpdateCounter(kDb, 1, nullptr), -1);
  EXPECT_EQ(MVSetImageVariousData(kDb, 1, nullptr), -1);
  EXPECT_EQ(MVInsertELImageData(kDb, nullptr, "x", 1), -1);
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL WHERE 1=1;--", 1, "x"), -1);
  EXPECT_TRUE(server->calls.empty()) << server->log();
}

}  // namespace
}  // namespace mvtest
