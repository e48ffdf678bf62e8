// Image rows against a recording server: the bytes of a file go up and come back byte for byte,
// with the exact block calls of each form; the calls, closes and codes on each failure; lists;
// the held handle and database; electronic-delivery rows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "MVCore.h"
#include "child_process.h"
#include "contents/images.h"
#include "frame/connection.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "server_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kDb[] = "BOOK0101000000";
constexpr int32_t kFailure = 0x1234;

std::vector<uint8_t> pattern(std::size_t size) {
  std::vector<uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
  return bytes;
}

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class ImagesRecorded : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
  }
  // The UpLoadData calls as "blockNo bytes isLast".
  std::vector<std::string> uploads() const {
    std::vector<std::string> out;
    for (const Call& c : server->calls) {
      if (c.method == "UpLoadData") out.push_back(c.args[1] + " " + c.args[2] + " " + c.args[4]);
    }
    return out;
  }
  const Call& first(const std::string& method) const {
    for (const Call& c : server->calls) {
      if (c.method == method) return c;
    }
    static const Call none;
    ADD_FAILURE() << "no call of " << method << "\n" << server->log();
    return none;
  }
  void queueRow() { server->queueResult({{"KEY=T_Index\t1\t7"}}); }

  RecordingServer* server = nullptr;
  TempFolder temp{"images"};
};

// --- blocks, byte for byte -------------------------------------------------------------------

class BlobSizes : public ImagesRecorded, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(BlobSizes, InsertSendsEveryByteAndEndsWithABlockMarkedLast) {
  const std::size_t size = GetParam();
  const auto bytes = pattern(size);
  const std::string path = temp / "up.bin";
  writeBytes(path, bytes);
  ImageInfoRecordEX info{};
  ASSERT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), 0) << server->log();
  EXPECT_EQ(info.T_Index, 100);
  EXPECT_TRUE(server->uploaded == bytes);
  const auto blocks = uploads();
  // An exact multiple of the block ends with one more, empty, block.
  ASSERT_EQ(blocks.size(), size / 307200 + 1);
  EXPECT_EQ(blocks.back(),
            std::to_string(blocks.size()) + " " + std::to_string(size % 307200) + " 1");
  for (std::size_t i = 0; i + 1 < blocks.size(); ++i) {
    EXPECT_EQ(blocks[i], std::to_string(i + 1) + " 307200 0");
  }
  EXPECT_THAT(first("UpLoadData").args[0], HasSubstr("MSTKEY=100"));
  EXPECT_THAT(first("UpLoadData").args[3], HasSubstr("307200 bytes"));  // always padded
}

TEST_P(BlobSizes, UpdateSendsEveryByteAndNoEmptyBlock) {
  const std::size_t size = GetParam();
  const auto bytes = pattern(size);
  const std::string path = temp / "up.bin";
  writeBytes(path, bytes);
  queueRow();
  ImageInfoRecordEX info{};
  ASSERT_EQ(MVUpDateImageDataEX(kDb, "ImageDataTBL", 7, path.c_str(), &info), 0) << server->log();
  EXPECT_TRUE(server->uploaded == bytes);
  const auto blocks = uploads();
  ASSERT_EQ(blocks.size(), (size + 307199) / 307200);
  if (!blocks.empty()) {
    // A multiple of the block size never sends last 1.
    EXPECT_EQ(blocks.back().back(), size % 307200 == 0 ? '0' : '1');
  }
}

TEST_P(BlobSizes, DownloadWritesEveryByte) {
  const std::size_t size = GetParam();
  server->download = pattern(size);
  queueRow();
  const std::string path = temp / "down.bin";
  ASSERT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 7, path.c_str()), 0) << server->log();
  EXPECT_TRUE(readBytes(path) == server->download);
}

INSTANTIATE_TEST_SUITE_P(Sizes, BlobSizes,
                         ::testing::Values(0u, 1u, 307199u, 307200u, 307201u, 5000000u));

// --- insert --------------------------------------------------------------------------------

TEST_F(ImagesRecorded, InsertSendsTheRowThenBlocksThenTheFileDateAndClosesAll) {
  const std::string path = temp.write("a.tif", "abc");
  const std::time_t when = 1700000000;
  ASSERT_TRUE(mv::fs::setFileTimes(path, when));
  ImageInfoRecordEX info{};
  info.Attribute = 5;
  std::snprintf(info.ImageDataInfo, sizeof info.ImageDataInfo, "a.tif");
  std::snprintf(info.Various, sizeof info.Various, "v");
  ASSERT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), 0);
  EXPECT_THAT(server->methods(), ElementsAre("OpenDatabase", "OpenTable", "AddRecord", "UpLoadData",
                                             "ImageFileDate", "CloseTable", "CloseDatabase"));
  EXPECT_EQ(first("AddRecord").args[1],
            "[TABLENAME=H1|KEY=T_Index\t1\t0|KEY=TagID\t1\t3|KEY=Up_DateCounter\t1\t0|"
            "KEY=Attribute\t1\t5|KEY=ImageDataInfo\t2\ta.tif|KEY=Various\t2\tv]");
  double expected = 0;
  ASSERT_TRUE(mv::systemTimeToOleDate(mv::toLocalSystemTime(when), &expected));
  EXPECT_DOUBLE_EQ(server->fileDate, expected);
  EXPECT_EQ(first("ImageFileDate").args[2], "1");
}

TEST_F(ImagesRecorded, LongTextsAreCutToWhatTheRecordElementHolds) {
  const std::string path = temp.write("a.tif", "x");
  ImageInfoRecordEX info{};
  std::memset(info.ImageDataInfo, 'i', sizeof info.ImageDataInfo);  // no terminator at all
  std::memset(info.Various, 'v', sizeof info.Various);
  ASSERT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), 0);
  const std::string record = first("AddRecord").args[1];
  EXPECT_THAT(record, HasSubstr("ImageDataInfo\t2\t" + std::string(239, 'i') + "|"));
  EXPECT_THAT(record, HasSubstr("Various\t2\t" + std::string(245, 'v') + "]"));
}

TEST_F(ImagesRecorded, FailedAddLeavesNoKeyAndSendsNoBytes) {
  const std::string path = temp.write("a.tif", "abc");
  server->failNext("AddRecord", kFailure);
  ImageInfoRecordEX info{};
  info.T_Index = 55;
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), -1);
  EXPECT_EQ(info.T_Index, 0);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_THAT(server->methods(),
              ElementsAre("OpenDatabase", "OpenTable", "AddRecord", "CloseTable", "CloseDatabase"));
}

TEST_F(ImagesRecorded, UnopenableFileLeavesTheRowWithoutBytesAndNoCode) {
  ImageInfoRecordEX info{};
  const std::string path = temp / "missing/a.tif";
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), -1);
  EXPECT_EQ(info.T_Index, 100);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->count("UpLoadData"), 0);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

TEST_F(ImagesRecorded, MissingFileIsCreatedEmptyAndSentAsOneEmptyBlock) {
  const std::string path = temp / "new.tif";
  ImageInfoRecordEX info{};
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), 0);
  EXPECT_TRUE(mv::fs::exists(path));
  EXPECT_THAT(uploads(), ElementsAre("1 0 1"));
}

TEST_F(ImagesRecorded, FailedBlockStopsWithItsCodeEvenWhenTheDateFailsToo) {
  const std::string path = temp / "big.bin";
  writeBytes(path, pattern(700000));
  server->failNext("UpLoadData", 0, 1);
  server->failNext("UpLoadData", kFailure);
  server->failNext("ImageFileDate", 0x999);
  ImageInfoRecordEX info{};
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), -1);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(server->count("UpLoadData"), 2);
  EXPECT_EQ(server->count("CloseTable"), 1);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

TEST_F(ImagesRecorded, FailedFileDateOnInsertIsRecordedButNoFailure) {
  const std::string path = temp.write("a.tif", "abc");
  server->failNext("ImageFileDate", kFailure);
  ImageInfoRecordEX info{};
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), 0);
  EXPECT_EQ(mv::connection().lastError, kFailure);
}

TEST_F(ImagesRecorded, HeldTableHandleAndDatabaseSaveTheirCalls) {
  const std::string path = temp.write("a.tif", "abc");
  char handle[260] = {};
  ASSERT_EQ(MVOpenDBEx(kDb), 0);
  ASSERT_EQ(MVOpenTBLEx(0, kDb, handle), 0);
  server->calls.clear();
  ImageInfoRecordEX info{};
  ASSERT_EQ(MVInsertImageDataEX(kDb, 3, &info, path.c_str()), 0);
  EXPECT_THAT(server->methods(), ElementsAre("AddRecord", "UpLoadData", "ImageFileDate"));
  EXPECT_THAT(first("AddRecord").args[1], HasSubstr(std::string("TABLENAME=") + handle));
  // The electronic-delivery insert never writes through the held handle.
  server->calls.clear();
  ASSERT_EQ(MVInsertELImageDataEX(kDb, &info, path.c_str(), 4), 0);
  EXPECT_THAT(server->methods(),
              ElementsAre("OpenTableEx", "AddRecord", "UpLoadData", "CloseTable"));
  EXPECT_EQ(mv::connection().imageTableHandle, handle);
}

TEST_F(ImagesRecorded, WrapperSendsAnEmptyVariousAndCopiesTheKeyBack) {
  const std::string path = temp.write("a.tif", "abc");
  ImageInfoRecord info{};
  std::snprintf(info.ImageDataInfo, sizeof info.ImageDataInfo, "a.tif");
  ASSERT_EQ(MVInsertImageData(kDb, 3, &info, path.c_str()), 0);
  EXPECT_EQ(info.T_Index, 100);
  EXPECT_THAT(first("AddRecord").args[1], HasSubstr("KEY=Various\t2\t]"));
}

TEST_F(ImagesRecorded, NullArgumentsFailWithoutAServerCall) {
  ImageInfoRecordEX info{};
  int32_t count = 0;
  MVHGLOBAL block = nullptr;
  EXPECT_EQ(MVInsertImageDataEX(nullptr, 3, &info, "x"), -1);
  EXPECT_EQ(MVInsertImageDataEX(kDb, 3, nullptr, "x"), -1);
  EXPECT_EQ(MVInsertImageData(kDb, 3, nullptr, "x"), -1);
  EXPECT_EQ(MVUpDateImageDataEX(kDb, nullptr, 1, "x", &info), -1);
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 1, nullptr), -1);
  EXPECT_EQ(MVGetImageInfo(kDb, 1, nullptr, &count), -1);
  EXPECT_EQ(MVGetELImageInfoEX(kDb, &block, nullptr, 1), -1);
  EXPECT_EQ(MVGetImageUpdateCounter(kDb, 1, nullptr), -1);
  EXPECT_EQ(MVSetImageVariousData(kDb, 1, nullptr), -1);
  EXPECT_EQ(MVInsertELImageData(kDb, nullptr, "x", 1), -1);
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL WHERE 1=1;--", 1, "x"), -1);
  EXPECT_TRUE(server->calls.empty()) << server->log();
}

// --- update --------------------------------------------------------------------------------

TEST_F(ImagesRecorded, UpdateReplacesBytesThenWritesCounterAndAttributeOnly) {
  const std::string path = temp.write("a.tif", "abc");
  queueRow();
  ImageInfoRecordEX info{};
  info.Up_DateCounter = 9;
  info.Attribute = 2;
  std::snprintf(info.ImageDataInfo, sizeof info.ImageDataInfo, "ignored");
  ASSERT_EQ(MVUpDateImageDataEX(kDb, "ImageDataTBL", 7, path.c_str(), &info), 0);
  EXPECT_THAT(server->methods(),
              ElementsAre("OpenDatabase", "OpenTableEx", "UpLoadData", "ImageFileDate",
                          "UpdateRecord", "CloseTable", "CloseDatabase"));
  EXPECT_EQ(first("OpenTableEx").args[2], "SELECT * FROM ImageDataTBL WHERE T_Index = 7");
  EXPECT_EQ(first("UpdateRecord").args[1],
            "[TABLENAME=H1|KEY=Up_DateCounter\t1\t9|KEY=Attribute\t1\t2]");
}

TEST_F(ImagesRecorded, UpdateOfAMissingRowFailsWithCodeZero) {
  mv::connection().lastError = 77;
  ImageInfoRecordEX info{};
  EXPECT_EQ(MVUpDateImageDataEX(kDb, "ImageDataTBL", 7, "x", &info), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->count("UpLoadData"), 0);
  EXPECT_EQ(server->count("CloseTable"), 1);
}

TEST_F(ImagesRecorded, FailedFileDateOnUpdateFailsBeforeTheRowIsWritten) {
  const std::string path = temp.write("a.tif", "abc");
  queueRow();
  server->failNext("ImageFileDate", kFailure);
  ImageInfoRecordEX info{};
  EXPECT_EQ(MVUpDateImageDataEX(kDb, "ImageDataTBL", 7, path.c_str(), &info), -1);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(server->count("UpdateRecord"), 0);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

// --- download ------------------------------------------------------------------------------

TEST_F(ImagesRecorded, DownloadCutsALongerOldFileAndStampsTheStoredDate) {
  const std::string path = temp / "down.bin";
  writeBytes(path, pattern(400000));
  server->download = {1, 2, 3};
  double date = 0;
  ASSERT_TRUE(mv::systemTimeToOleDate(mv::toLocalSystemTime(1600000000), &date));
  server->fileDate = date;
  queueRow();
  ASSERT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 7, path.c_str()), 0);
  EXPECT_THAT(readBytes(path), ElementsAre(1, 2, 3));
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(path, &t));
  EXPECT_EQ(t, 1600000000);
}

TEST_F(ImagesRecorded, DownloadStopsOnAFullDiskWithItsOwnCode) {
  server->download = pattern(700000);
  queueRow();
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 7, "/dev/full"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::kStatusDiskFull);
  EXPECT_EQ(server->count("DownLoadData"), 1);
  EXPECT_EQ(server->count("CloseTable"), 1);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

TEST_F(ImagesRecorded, FailedBlockKeepsWhatWasWrittenAndItsCode) {
  server->download = pattern(700000);
  server->failNext("DownLoadData", 0, 1);
  server->failNext("DownLoadData", kFailure);
  queueRow();
  const std::string path = temp / "down.bin";
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 7, path.c_str()), -1);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(readBytes(path).size(), 307200u);
}

TEST_F(ImagesRecorded, DownloadWithAFailedDateReadGoesOnWithoutADate) {
  server->download = {9};
  server->failNext("ImageFileDate", kFailure);
  queueRow();
  const std::string path = temp / "down.bin";
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 7, path.c_str()), 0);
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_THAT(readBytes(path), ElementsAre(9));
}

TEST_F(ImagesRecorded, DownloadOfAMissingRowTouchesNoFile) {
  const std::string path = temp / "down.bin";
  EXPECT_EQ(MVDownLoadImageData(kDb, "ImageDataTBL", 7, path.c_str()), -1);
  EXPECT_FALSE(mv::fs::exists(path));
  EXPECT_EQ(server->count("DownLoadData"), 0);
}

// --- lists, counters, delete ----------------------------------------------------------------

TEST_F(ImagesRecorded, ListHandsOverAnUnlockedMovableBlockOfRecords) {
  server->queueResult({{"KEY=T_Index\t1\t5", "KEY=Up_DateCounter\t1\t2",
                        "KEY=ImageDataInfo\t2\ta.tif", "KEY=Attribute\t1\t1", "KEY=Various\t2\tv1"},
                       {"KEY=T_Index\t1\t6", "KEY=ImageDataInfo\t2\t" + std::string(300, 'x')}});
  MVHGLOBAL block = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetImageInfoEX(kDb, 3, &block, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(MVGlobalSize(block), 2 * sizeof(ImageInfoRecordEX));
  auto* records = static_cast<ImageInfoRecordEX*>(MVGlobalLock(block));
  EXPECT_EQ(MVGlobalUnlock(block), 0);  // it came unlocked: one lock, one unlock
  EXPECT_EQ(records[0].T_Index, 5);
  EXPECT_EQ(records[0].Up_DateCounter, 2);
  EXPECT_EQ(records[0].Attribute, 1);
  EXPECT_STREQ(records[0].ImageDataInfo, "a.tif");
  EXPECT_STREQ(records[0].Various, "v1");
  EXPECT_EQ(std::string(records[1].ImageDataInfo), std::string(255, 'x'));
  EXPECT_EQ(MVGlobalFree(block), nullptr);
  EXPECT_EQ(first("OpenTableEx").args[2],
            "SELECT T_Index,Up_DateCounter,ImageDataInfo,Attribute,Various FROM ImageDataTBL "
            "WITH (NOLOCK) WHERE TagID = 3");
}

TEST_F(ImagesRecorded, EmptyListLeavesTheBlockAndFailedRowFreesIt) {
  MVHGLOBAL block = reinterpret_cast<MVHGLOBAL>(0x1);
  int32_t count = -1;
  EXPECT_EQ(MVGetImageInfo(kDb, 3, &block, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(block, reinterpret_cast<MVHGLOBAL>(0x1));
  server->queueResult({{"KEY=T_Index\t1\t5"}, {"KEY=T_Index\t1\t6"}});
  server->failNext("GetRecords", 0, 1);
  server->failNext("GetRecords", kFailure);
  EXPECT_EQ(MVGetImageInfo(kDb, 3, &block, &count), -1);
  EXPECT_EQ(block, reinterpret_cast<MVHGLOBAL>(0x1));
  EXPECT_EQ(mv::connection().lastError, kFailure);
  EXPECT_EQ(server->count("CloseDatabase"), 2);
}

TEST_F(ImagesRecorded, CounterAndVariousSettersOpenTheDatabaseEvenWhenItIsHeld) {
  ASSERT_EQ(MVOpenDBEx(kDb), 0);
  server->calls.clear();
  queueRow();
  ASSERT_EQ(MVSetImageUpdateCounter(kDb, 7, 12), 0);
  queueRow();
  ASSERT_EQ(MVSetImageVariousData(kDb, 7, "note"), 0);
  EXPECT_EQ(server->count("OpenDatabase"), 2);
  EXPECT_EQ(server->count("CloseDatabase"), 2);
  std::vector<std::string> updates;
  for (const Call& c : server->calls) {
    if (c.method == "UpdateRecord") updates.push_back(c.args[1]);
  }
  EXPECT_THAT(updates, ElementsAre("[TABLENAME=H1|KEY=Up_DateCounter\t1\t12]",
                                   "[TABLENAME=H2|KEY=Various\t2\tnote]"));
  // The getter, by contrast, leaves the held database alone.
  server->calls.clear();
  server->queueResult({{"KEY=Up_DateCounter\t1\t12"}});
  int32_t counter = 0;
  ASSERT_EQ(MVGetImageUpdateCounter(kDb, 7, &counter), 0);
  EXPECT_EQ(counter, 12);
  EXPECT_THAT(server->methods(), ElementsAre("OpenTableEx", "GetRecords", "CloseTable"));
}

TEST_F(ImagesRecorded, DeleteNeedsTheRowButTheElectronicDeleteDoesNot) {
  EXPECT_EQ(MVDeleteImageData(kDb, 7), -1);
  EXPECT_EQ(server->count("DeleteRecord"), 0);
  queueRow();
  EXPECT_EQ(MVDeleteImageData(kDb, 7), 0);
  EXPECT_EQ(server->count("DeleteRecord"), 1);
  EXPECT_EQ(MVDeleteELData(kDb, 8), 0);
  EXPECT_EQ(server->calls.back().method, "CloseDatabase");
  const Call* records = nullptr;
  for (const Call& c : server->calls) {
    if (c.method == "DeleteRecords") records = &c;
  }
  ASSERT_NE(records, nullptr);
  EXPECT_THAT(records->args, ElementsAre(kDb, "H3", "0", "-1"));
}

TEST_F(ImagesRecorded, ElectronicRowsCarryTagZeroAndTheirGroupAndNoDate) {
  const std::string path = temp.write("e.pdf", "pdf");
  ImageInfoRecord info{};
  info.Attribute = 1;
  ASSERT_EQ(MVInsertELImageData(kDb, &info, path.c_str(), 42), 0);
  EXPECT_EQ(info.T_Index, 100);
  EXPECT_EQ(first("AddRecord").args[1],
            "[TABLENAME=H1|KEY=T_Index\t1\t0|KEY=TagID\t1\t0|KEY=Up_DateCounter\t1\t0|"
            "KEY=Attribute\t1\t1|KEY=GroupNo\t1\t42|KEY=ImageDataInfo\t2\t|KEY=Various\t2\t]");
  EXPECT_EQ(server->count("ImageFileDate"), 0);
  MVHGLOBAL block = nullptr;
  int32_t count = 0;
  EXPECT_EQ(MVGetELImageInfo(kDb, &block, &count), 0);
  EXPECT_EQ(server->calls.at(server->calls.size() - 3).args[2],
            "SELECT T_Index,Up_DateCounter,ImageDataInfo,Attribute FROM ImageDataTBL WITH "
            "(NOLOCK) WHERE GroupNo = 9999");
}

}  // namespace
}  // namespace mvtest
