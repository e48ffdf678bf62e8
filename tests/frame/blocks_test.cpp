// Blobs in blocks: how a source of each size ends in the insert and update forms, and how a
// download stops.
#include <gtest/gtest.h>

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
  return [&bytes, offset = std::size_t{0}](uint8_t* data, std::size_t size) mutable {
    const std::size_t n = std::min(size, bytes.size() - offset);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), n, data);
    offset += n;
    return static_cast<std::ptrdiff_t>(n);
  };
}

// "bytes/isLast" of each UpLoadData call.
std::string uploads(const RecordingServer& server) {
  std::string out;
  for (const Call& c : server.calls) out += c.args[2] + "/" + c.args[4] + " ";
  return out;
}

mv::UploadResult upload(RecordingServer& server, mv::UploadForm form, const mv::BlockSource& src) {
  mv::BlockRecord record("BOOK1", "H1", 5, "RealityData");
  return mv::uploadBlocks(server, record.get(), form, src);
}

TEST(Upload, EndsAsTheFormRequiresAndDeliversEveryByte) {
  // An insert always ends on a block flagged last, if need be an empty one; an update never
  // sends an empty block.
  const std::tuple<std::size_t, const char*, const char*> cases[] = {
      {0, "0/1 ", ""},
      {1, "1/1 ", "1/1 "},
      {307199, "307199/1 ", "307199/1 "},
      {307200, "307200/0 0/1 ", "307200/0 "},
      {307201, "307200/0 1/1 ", "307200/0 1/1 "},
      {614400, "307200/0 307200/0 0/1 ", "307200/0 307200/0 "}};
  for (const auto& [size, insert, update] : cases) {
    SCOPED_TRACE(size);
    const std::vector<uint8_t> bytes = pattern(size);
    for (const auto form : {mv::UploadForm::Insert, mv::UploadForm::Update}) {
      RecordingServer server;
      EXPECT_EQ(upload(server, form, from(bytes)).status, 0);
      EXPECT_EQ(uploads(server), form == mv::UploadForm::Insert ? insert : update);
      EXPECT_EQ(server.uploaded, bytes);
      for (std::size_t i = 0; i < server.calls.size(); ++i) {
        EXPECT_EQ(server.calls[i].args[0], "[DBNAME=BOOK1|TABLENAME=H1|MSTKEY=5|KEY=RealityData]");
        EXPECT_EQ(server.calls[i].args[1], std::to_string(i + 1));  // block numbers from 1
        EXPECT_EQ(server.calls[i].args[3], "<307200 bytes>");       // always full-size arrays
      }
    }
  }
}

TEST(Upload, AFailingBlockOrReadStopsTheLoop) {
  RecordingServer server;
  server.failNext("UpLoadData", 0, 1);
  server.failNext("UpLoadData", 0x90, 1);
  const auto bytes = pattern(3 * 307200);
  const mv::UploadResult r = upload(server, mv::UploadForm::Insert, from(bytes));
  EXPECT_EQ(r.status, 0x90);
  EXPECT_EQ(r.calls, 2);
  EXPECT_EQ(server.count("UpLoadData"), 2);

  // A read failure marks the block last.
  RecordingServer other;
  int reads = 0;
  EXPECT_EQ(upload(other, mv::UploadForm::Insert,
                   [&reads](uint8_t* data, std::size_t size) -> std::ptrdiff_t {
                     if (++reads > 1) return -1;
                     std::fill_n(data, size, uint8_t{1});
                     return static_cast<std::ptrdiff_t>(size);
                   })
                .status,
            0);
  EXPECT_EQ(uploads(other), "307200/0 0/1 ");
}

TEST(Download, StopsOnTheEndFlagAnEmptyBlockAFailureOrARefusedWrite) {
  RecordingServer server;
  std::vector<uint8_t> got;
  bool accept = true;
  const auto run = [&] {
    got.clear();
    server.calls.clear();
    return mv::downloadBlocks(server, mv::toWide("BOOK1").get(), mv::toWide("H2").get(),
                              mv::toWide("RealityData").get(),
                              [&](const uint8_t* data, std::size_t n) {
                                got.insert(got.end(), data, data + n);
                                return accept;
                              });
  };
  server.download = pattern(700000);
  EXPECT_EQ(run().status, 0);
  EXPECT_EQ(got, server.download);
  EXPECT_EQ(server.log(),
            "DownLoadData(BOOK1, H2, RealityData, 0, 1, 307200)\n"
            "DownLoadData(BOOK1, H2, RealityData, 0, 2, 307200)\n"
            "DownLoadData(BOOK1, H2, RealityData, 0, 3, 307200)\n");
  server.flagEndOnLastBlock = false;
  server.downloadChunk = 1000;
  server.download = pattern(2500);
  EXPECT_EQ(run().status, 0);
  EXPECT_EQ(got, server.download);
  EXPECT_EQ(server.count("DownLoadData"), 4);  // the fourth brings no array
  server.download.clear();
  EXPECT_EQ(run().status, 0);
  EXPECT_TRUE(got.empty());
  EXPECT_EQ(server.count("DownLoadData"), 1);
  server.download = pattern(3000);
  server.failNext("DownLoadData", 0, 1);
  server.failNext("DownLoadData", 0xA0, 1);
  EXPECT_EQ(run().status, 0xA0);
  EXPECT_EQ(got.size(), 1000u);
  accept = false;
  const mv::DownloadResult refused = run();
  EXPECT_TRUE(refused.sinkFailed);
  EXPECT_EQ(server.count("DownLoadData"), 1);
}

}  // namespace
}  // namespace mvtest
