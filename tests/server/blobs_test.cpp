// Blobs in blocks: UpLoadData series of every shape the library sends, DownLoadData back, and
// the file dates kept beside them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::IsEmpty;

constexpr char kImages[] = "ImageDataTBL";
constexpr char kData[] = "RealityData";

class BlobsTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0) << lastError(*s);
    images = openTable(*s, kBook, kImages);
    ASSERT_EQ(images.status, 0);
    reader = connect();
  }
  void TearDown() override {
    reader.reset();
    ServerTest::TearDown();
  }

  int32_t newRow() { return addRow(*s, kBook, kImages, {field("TagID", 1, "1")}); }
  // What another session reads: only what has been stored counts.
  std::vector<uint8_t> stored(int32_t key) {
    return storedBlob(*reader, kBook, kImages, key, kData);
  }
  int32_t send(int32_t key, const std::vector<uint8_t>& data, Ending ending) {
    return upload(*s, kBook, images.handle, key, kData, data, ending);
  }
  int32_t sendBlock(int32_t key, int32_t blockNo, const std::vector<uint8_t>& data, int32_t last) {
    TextArray target(blockRecord(kBook, images.handle, key, kData));
    ByteBlock block(data.data(), data.size(), kBlockSize);
    return s->UpLoadData(target.get(), blockNo, static_cast<int32_t>(data.size()), block.get(),
                         last);
  }

  Opened images;
  Session reader;
};

TEST_F(BlobsTest, SizesAroundTheBlockSizeRoundTrip) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{307199}, std::size_t{307200},
        std::size_t{307201}, std::size_t{5000000 + 17}}) {
    SCOPED_TRACE(size);
    const int32_t key = newRow();
    const auto data = pattern(size, static_cast<uint32_t>(size));
    ASSERT_EQ(send(key, data, Ending::LastFlag), 0) << lastError(*s);
    EXPECT_TRUE(sameBytes(stored(key), data));
  }

  const int32_t key = newRow();
  const auto exact = pattern(307200, 3);
  ASSERT_EQ(send(key, exact, Ending::EmptyLastBlock), 0) << lastError(*s);
  EXPECT_TRUE(sameBytes(stored(key), exact));

  // A shorter blob replaces a longer one whole, and a read after the rewrite sees it.
  const auto shorter = pattern(1000, 4);
  ASSERT_EQ(send(key, shorter, Ending::LastFlag), 0);
  EXPECT_TRUE(sameBytes(stored(key), shorter));
  std::vector<uint8_t> own;
  const Opened again =
      executeQuery(*s, kBook, "SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(key));
  ASSERT_EQ(download(*s, kBook, again.handle, kData, 0, own), 0);
  EXPECT_TRUE(sameBytes(own, shorter));
}

TEST_F(BlobsTest, ASeriesWithoutLastFlagIsStoredByTheSessionsNextCall) {
  const int32_t dated = newRow();
  const auto one = pattern(307200, 5);
  ASSERT_EQ(send(dated, one, Ending::NoLastFlag), 0);
  double date = 0;
  EXPECT_EQ(s->ImageFileDate(In(kBook), In(images.handle), 0, dated, &date), 0);
  EXPECT_TRUE(sameBytes(stored(dated), one));

  const int32_t closed = newRow();
  const auto two = pattern(2 * 307200, 6);
  ASSERT_EQ(send(closed, two, Ending::NoLastFlag), 0);
  EXPECT_EQ(closeTable(*s, kBook, images.handle), 0);
  EXPECT_TRUE(sameBytes(stored(closed), two));
}

TEST_F(BlobsTest, AnyNextCallStoresAPendingSeries) {
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"SetBookUpdateCounter", [&] { EXPECT_EQ(s->SetBookUpdateCounter(In(kBook)), 0); }},
      {"GetRecords",
       [&] {
         std::vector<std::string> row;
         EXPECT_EQ(getRow(*s, kBook, images.handle, 0, row), 0);
       }},
      {"CheckTBL", [&] { EXPECT_EQ(s->CheckTBL(In(kBook), In(kImages)), 10); }},
      {"SetMutex", [&] { EXPECT_EQ(s->SetMutex(In("image"), 1), 0); }},
      {"RepricatOut",
       [&] {
         mv::Bstr file;
         EXPECT_EQ(s->RepricatOut(In(kBook), file.out()), 0);
       }},
  };
  // The snapshot the GetRecords call reads needs a row.
  newRow();
  images = openTable(*s, kBook, kImages);
  for (const auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    const int32_t key = newRow();
    const auto data = pattern(307200, static_cast<uint32_t>(key));
    ASSERT_EQ(send(key, data, Ending::NoLastFlag), 0);
    call();
    EXPECT_TRUE(sameBytes(stored(key), data));
  }
}

TEST_F(BlobsTest, AnUnfinishedDownloadHoldsNothingUp) {
  const int32_t key = newRow();
  ASSERT_EQ(send(key, pattern(2 * kBlockSize, 31), Ending::LastFlag), 0);
  const Opened row =
      executeQuery(*s, kBook, "SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(key));
  // A reader may stop once it has what it needs, here after the first block.
  mv::Variant block;
  int32_t isEnd = 1;
  int32_t count = 0;
  ASSERT_EQ(s->DownLoadData(In(kBook), In(row.handle), In(kData), 0, 1, kBlockSize, block.get(),
                            &isEnd, &count),
            0);
  EXPECT_EQ(isEnd, 0);

  mv::Bstr file;
  ASSERT_EQ(reader->RepricatOut(In(kBook), file.out()), 0) << lastError(*reader);
  EXPECT_EQ(reader->RepricatIn(In(kBook)), 0) << lastError(*reader);
  const Opened theirs = openTable(*reader, kBook, kImages);
  const auto replaced = pattern(kBlockSize + 5, 32);
  ASSERT_EQ(upload(*reader, kBook, theirs.handle, key, kData, replaced, Ending::LastFlag), 0);

  // Starting again from block 1 is a new read, of the bytes stored now.
  std::vector<uint8_t> data;
  EXPECT_EQ(download(*s, kBook, row.handle, kData, 0, data), 0) << lastError(*s);
  EXPECT_TRUE(sameBytes(data, replaced));
}

TEST_F(BlobsTest, AnEmptyColumnGivesNoArray) {
  const int32_t key = newRow();
  const Opened row =
      executeQuery(*s, kBook, "SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(key));
  for (const char* column : {kData, "Reserve"}) {
    mv::Variant block;
    int32_t isEnd = 0;
    int32_t count = -1;
    EXPECT_EQ(s->DownLoadData(In(kBook), In(row.handle), In(column), 0, 1, kBlockSize, block.get(),
                              &isEnd, &count),
              0)
        << column << lastError(*s);
    EXPECT_EQ(block.get()->vt, MV_VT_EMPTY) << column;
    EXPECT_EQ(isEnd, 1) << column;
    EXPECT_EQ(count, 0) << column;
  }
  mv::Variant block;
  int32_t isEnd = 0;
  int32_t count = 0;
  EXPECT_NE(s->DownLoadData(In(kBook), In(row.handle), In(kData), 1, 1, kBlockSize, block.get(),
                            &isEnd, &count),
            0);
}

TEST_F(BlobsTest, BadSeriesAreRefusedAndChangeNothing) {
  const int32_t key = newRow();
  const std::vector<uint8_t> original{'A'};
  ASSERT_EQ(send(key, original, Ending::LastFlag), 0);
  const auto block = pattern(kBlockSize, 7);

  EXPECT_NE(sendBlock(key, 2, block, 1), 0);
  EXPECT_NE(sendBlock(key, 0, block, 1), 0);
  ASSERT_EQ(sendBlock(key, 1, block, 0), 0);
  EXPECT_NE(sendBlock(key, 3, block, 1), 0);
  EXPECT_THAT(lastError(*s), testing::Not(IsEmpty()));
  // The broken series is dropped, not resumed.
  EXPECT_NE(sendBlock(key, 2, block, 1), 0);
  EXPECT_EQ(closeTable(*s, kBook, images.handle), 0);
  EXPECT_TRUE(sameBytes(stored(key), original));

  images = openTable(*s, kBook, kImages);
  EXPECT_NE(upload(*s, kBook, images.handle, key, "FileName", block, Ending::LastFlag), 0);
  EXPECT_NE(send(9999, block, Ending::LastFlag), 0);
  EXPECT_NE(upload(*s, kBook, "H999.999", key, kData, block, Ending::LastFlag), 0);
  EXPECT_TRUE(sameBytes(stored(key), original));
}

TEST_F(BlobsTest, ImageFileDateRoundTripsADouble) {
  const int32_t dated = newRow();
  const int32_t undated = newRow();
  double date = 45321.515625;
  ASSERT_EQ(s->ImageFileDate(In(kBook), In(images.handle), 1, dated, &date), 0) << lastError(*s);
  double back = -1;
  EXPECT_EQ(s->ImageFileDate(In(kBook), In(images.handle), 0, dated, &back), 0);
  EXPECT_EQ(back, 45321.515625);
  back = -1;
  EXPECT_EQ(s->ImageFileDate(In(kBook), In(images.handle), 0, undated, &back), 0);
  EXPECT_EQ(back, 0.0);

  // The date is the row's, not the session's.
  const Opened theirs = openTable(*reader, kBook, kImages);
  back = -1;
  EXPECT_EQ(reader->ImageFileDate(In(kBook), In(theirs.handle), 0, dated, &back), 0);
  EXPECT_EQ(back, 45321.515625);

  EXPECT_NE(s->ImageFileDate(In(kBook), In(images.handle), 0, 9999, &back), 0);
  EXPECT_NE(s->ImageFileDate(In(kBook), In("H999.999"), 0, dated, &back), 0);
}

}  // namespace
}  // namespace mvtest::server
