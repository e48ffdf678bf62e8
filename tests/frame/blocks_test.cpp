// Blobs in blocks: how a source of each size ends in the insert and update forms, and how a
// download stops.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "frame/blocks.h"
#include "frame/exchange.h"
#include "recording_server.h"

namespace mvtest {
namespace {

std::vector<uint8_t> pattern(std::size_t n) {
  std::vector<uint8_t> bytes(n);
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

mv::BlockSource from(const std::vector<uint8_t>& bytes) {
  auto offset = std::make_shared<std::size_t>(0);
  return [&bytes, offset](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
    const std::size_t n = std::min(size, bytes.size() - *offset);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(*offset), n, data);
    *offset += n;
    return static_cast<std::ptrdiff_t>(n);
  };
}

// (bytes, isLast) of each UpLoadData call.
std::vector<std::pair<std::string, std::string>> uploads(const RecordingServer& server) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const Call& c : server.calls) {
    if (c.method == "UpLoadData") out.emplace_back(c.args[2], c.args[4]);
  }
  return out;
}

struct Case {
  std::size_t size;
  std::vector<std::pair<std::string, std::string>> insert;
  std::vector<std::pair<std::string, std::string>> update;
};

class UploadSizes : public ::testing::TestWithParam<Case> {};

TEST_P(UploadSizes, EndsAsTheFormRequiresAndDeliversEveryByte) {
  const Case& c = GetParam();
  const std::vector<uint8_t> bytes = pattern(c.size);
  for (const auto form : {mv::UploadForm::Insert, mv::UploadForm::Update}) {
    RecordingServer server;
    mv::BlockRecord record("BOOK1", "H1", 5, "RealityData");
    const mv::UploadResult r = mv::uploadBlocks(server, record.get(), form, from(bytes));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(uploads(server), form == mv::UploadForm::Insert ? c.insert : c.update);
    EXPECT_EQ(server.uploaded, bytes);
    for (std::size_t i = 0; i < server.calls.size(); ++i) {
      EXPECT_EQ(server.calls[i].args[1], std::to_string(i + 1));  // block numbers from 1
      EXPECT_EQ(server.calls[i].args[3], "<307200 bytes>");       // always full-size arrays
      EXPECT_EQ(server.calls[i].args[0], "[DBNAME=BOOK1|TABLENAME=H1|MSTKEY=5|KEY=RealityData]");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, UploadSizes,
    ::testing::Values(Case{0, {{"0", "1"}}, {}}, Case{1, {{"1", "1"}}, {{"1", "1"}}},
                      Case{307199, {{"307199", "1"}}, {{"307199", "1"}}},
                      Case{307200, {{"307200", "0"}, {"0", "1"}}, {{"307200", "0"}}},
                      Case{307201, {{"307200", "0"}, {"1", "1"}}, {{"307200", "0"}, {"1", "1"}}},
                      Case{614400,
                           {{"307200", "0"}, {"307200", "0"}, {"0", "1"}},
                           {{"307200", "0"}, {"307200", "0"}}}),
    [](const ::testing::TestParamInfo<Case>& param) {
      return "Bytes" + std::to_string(param.param.size);
    });

TEST(Upload, AFailingBlockStopsTheLoopWithItsStatus) {
  RecordingServer server;
  server.failNext("UpLoadData", 0, 1);
  server.failNext("UpLoadData", 0x90, 1);
  mv::BlockRecord record("BOOK1", "H1", 5, "RealityData");
  const auto bytes = pattern(3 * 307200);
  const mv::UploadResult r =
      mv::uploadBlocks(server, record.get(), mv::UploadForm::Insert, from(bytes));
  EXPECT_EQ(r.status, 0x90);
  EXPECT_EQ(r.calls, 2);
  EXPECT_EQ(server.count("UpLoadData"), 2);
}

TEST(Upload, AReadFailureMarksTheBlockLast) {
  RecordingServer server;
  mv::BlockRecord record("BOOK1", "H1", 5, "RealityData");
  int reads = 0;
  const mv::UploadResult r =
      mv::uploadBlocks(server, record.get(), mv::UploadForm::Insert,
                       [&reads](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
                         if (++reads > 1) return -1;
                         std::fill_n(data, size, uint8_t{1});
                         return static_cast<std::ptrdiff_t>(size);
                       });
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(uploads(server),
            (std::vector<std::pair<std::string, std::string>>{{"307200", "0"}, {"0", "1"}}));
}

class Download : public ::testing::Test {
 protected:
  mv::DownloadResult run(std::vector<uint8_t>& sink, bool acceptWrites = true) {
    return mv::downloadBlocks(server, mv::toWide("BOOK1").get(), mv::toWide("H2").get(),
                              mv::toWide("RealityData").get(),
                              [&](const uint8_t* data, std::size_t n) {
                                if (!acceptWrites) return false;
                                sink.insert(sink.end(), data, data + n);
                                return true;
                              });
  }
  RecordingServer server;
};

TEST_F(Download, StopsOnTheEndFlagOrOnABlockWithoutAnArray) {
  server.download = pattern(700000);
  std::vector<uint8_t> got;
  mv::DownloadResult r = run(got);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(got, server.download);
  EXPECT_EQ(server.count("DownLoadData"), 3);
  EXPECT_EQ(server.calls[0].text(), "DownLoadData(BOOK1, H2, RealityData, 0, 1, 307200)");

  server.calls.clear();
  server.flagEndOnLastBlock = false;
  server.downloadChunk = 1000;
  server.download = pattern(2500);
  got.clear();
  r = run(got);
  EXPECT_EQ(got, server.download);
  EXPECT_EQ(server.count("DownLoadData"), 4);  // the fourth brings no array

  server.calls.clear();
  server.download.clear();
  got.clear();
  r = run(got);
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(got.empty());
  EXPECT_EQ(server.count("DownLoadData"), 1);
}

TEST_F(Download, AFailedBlockOrARefusedWriteStopsWhatFollows) {
  server.download = pattern(3000);
  server.downloadChunk = 1000;
  server.failNext("DownLoadData", 0, 1);
  server.failNext("DownLoadData", 0xA0, 1);
  std::vector<uint8_t> got;
  mv::DownloadResult r = run(got);
  EXPECT_EQ(r.status, 0xA0);
  EXPECT_EQ(got.size(), 1000u);

  server.calls.clear();
  r = run(got, false);
  EXPECT_TRUE(r.sinkFailed);
  EXPECT_EQ(server.count("DownLoadData"), 1);
}

}  // namespace
}  // namespace mvtest
