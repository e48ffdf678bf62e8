// Blobs in blocks, the file dates kept beside them, share folders, and books leaving and
// returning whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

constexpr char kImages[] = "ImageDataTBL";
constexpr char kData[] = "RealityData";

class BlobsTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (HasFatalFailure()) return;
    createBook(kBook);
    images = open(*s, kBook, kImages);
    ASSERT_EQ(images.status, 0);
    reader = connect();
  }
  void TearDown() override {
    reader.reset();
    ServerTest::TearDown();
  }
  int32_t newRow() { return addRow(*s, kBook, kImages, {field("TagID", 1, "1")}); }
  // What another session reads: only what has been stored counts.
  Bytes stored(int32_t key) { return storedBlob(*reader, kBook, kImages, key); }
  int32_t send(int32_t key, const Bytes& data, Ending ending = Ending::LastFlag) {
    return upload(*s, kBook, images.handle, key, kData, data, ending);
  }
  int32_t sendBlock(int32_t key, int32_t blockNo, int32_t last) {
    TextArray target({"DBNAME=" + std::string(kBook), "TABLENAME=" + images.handle,
                      "MSTKEY=" + std::to_string(key), "KEY=RealityData"});
    ByteBlock block(nullptr, 0, kBlockSize);
    return s->UpLoadData(target.get(), blockNo, kBlockSize, block.get(), last);
  }
  Opened row(int32_t key) {
    return open(*s, kBook, "", "SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(key));
  }
  Opened images;
  Session reader;
};

// The files of the blob store, by name, whatever folder they are in.
std::vector<std::string> storeFiles(const std::string& dataFolder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : fs::recursive_directory_iterator(dataFolder + "/db/content", ec)) {
    if (e.is_regular_file()) names.push_back(e.path().filename().string());
  }
  return names;
}

TEST_F(BlobsTest, SizesAroundTheBlockSizeRoundTripAndAShorterBlobReplacesALongerOne) {
  for (const std::size_t size : {0, 1, 307199, 307200, 307201, 5000000 + 17}) {
    SCOPED_TRACE(size);
    const int32_t key = newRow();
    const auto data = pattern(size, static_cast<uint32_t>(size));
    ASSERT_EQ(send(key, data), 0) << lastError(*s);
    EXPECT_TRUE(stored(key) == data);
  }
  const int32_t key = newRow();
  const auto exact = pattern(307200, 3);
  ASSERT_EQ(send(key, exact, Ending::EmptyLastBlock), 0) << lastError(*s);
  EXPECT_TRUE(stored(key) == exact);
  const auto shorter = pattern(1000, 4);
  ASSERT_EQ(send(key, shorter), 0);
  EXPECT_TRUE(stored(key) == shorter);
  Bytes own;
  ASSERT_EQ(download(*s, kBook, row(key).handle, kData, 0, own), 0);
  EXPECT_TRUE(own == shorter);
}

TEST_F(BlobsTest, ASeriesWithoutLastFlagIsStoredByTheSessionsNextCall) {
  int32_t key = 0;
  std::vector<std::string> elements;
  mv::Bstr file;
  double date = 0;
  const std::pair<const char*, std::function<int32_t()>> calls[] = {
      {"ImageFileDate",
       [&] { return s->ImageFileDate(In(kBook), In(images.handle), 0, key, &date); }},
      {"CloseTable", [&] { return closeTable(*s, kBook, images.handle); }},
      {"SetBookUpdateCounter", [&] { return s->SetBookUpdateCounter(In(kBook)); }},
      {"GetRecords", [&] { return getRow(*s, kBook, images.handle, 0, elements); }},
      {"CheckTBL",
       [&] { return s->CheckTBL(In(kBook), In(kImages)) == mv::kStatusTableExists ? 0 : 1; }},
      {"SetMutex", [&] { return s->SetMutex(In("image"), 1); }},
      {"RepricatOut", [&] { return s->RepricatOut(In(kBook), file.out()); }}};
  newRow();  // the snapshot GetRecords reads needs a row
  images = open(*s, kBook, kImages);
  for (const auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    key = newRow();
    const auto data = pattern(2 * 307200, static_cast<uint32_t>(key));
    ASSERT_EQ(send(key, data, Ending::NoLastFlag), 0);
    EXPECT_EQ(call(), 0);
    EXPECT_TRUE(stored(key) == data);
    images = open(*s, kBook, kImages);
  }
}

TEST_F(BlobsTest, AnUnfinishedDownloadHoldsNothingUpAndAnEmptyColumnGivesNoArray) {
  const int32_t key = newRow();
  ASSERT_EQ(send(key, pattern(2 * kBlockSize, 31)), 0);
  const Opened mine = row(key);
  int32_t isEnd = -1, count = -1;
  const auto first = [&](const Opened& q, const char* column, int32_t rowIndex) {
    mv::Variant data;
    isEnd = count = -1;
    const int32_t status = s->DownLoadData(In(kBook), In(q.handle), In(column), rowIndex, 1,
                                           kBlockSize, data.get(), &isEnd, &count);
    return status != 0 ? "failed" : data.get()->vt == MV_VT_EMPTY ? "empty" : "bytes";
  };
  // A reader may stop once it has what it needs, here after the first block.
  EXPECT_STREQ(first(mine, kData, 0), "bytes");
  EXPECT_TRUE(isEnd == 0 && count == kBlockSize) << isEnd << " " << count;
  mv::Bstr file;
  ASSERT_EQ(reader->RepricatOut(In(kBook), file.out()), 0) << lastError(*reader);
  EXPECT_EQ(reader->RepricatIn(In(kBook)), 0) << lastError(*reader);
  const auto replaced = pattern(kBlockSize + 5, 32);
  ASSERT_EQ(upload(*reader, kBook, open(*reader, kBook, kImages).handle, key, kData, replaced), 0);
  // Starting again from block 1 is a new read, of the bytes stored now.
  Bytes data;
  EXPECT_EQ(download(*s, kBook, mine.handle, kData, 0, data), 0) << lastError(*s);
  EXPECT_TRUE(data == replaced);
  const Opened fresh = row(newRow());
  for (const char* column : {kData, "Reserve"}) {
    EXPECT_STREQ(first(fresh, column, 0), "empty") << column << lastError(*s);
    EXPECT_TRUE(isEnd == 1 && count == 0) << column;
  }
  EXPECT_STREQ(first(mine, kData, 1), "failed");
}

TEST_F(BlobsTest, BadSeriesAreRefusedAndChangeNothing) {
  const int32_t key = newRow();
  const Bytes original{'A'};
  ASSERT_EQ(send(key, original), 0);
  // Block numbers out of turn; the broken series is dropped, not resumed.
  for (const auto& [blockNo, last, ok] :
       {std::tuple{2, 1, false}, {0, 1, false}, {1, 0, true}, {3, 1, false}, {2, 1, false}}) {
    EXPECT_EQ(sendBlock(key, blockNo, last) == 0, ok) << blockNo;
    EXPECT_TRUE(ok || !lastError(*s).empty());
  }
  EXPECT_EQ(closeTable(*s, kBook, images.handle), 0);
  EXPECT_TRUE(stored(key) == original);
  images = open(*s, kBook, kImages);
  const auto block = pattern(kBlockSize, 7);
  EXPECT_NE(upload(*s, kBook, images.handle, key, "FileName", block), 0);
  EXPECT_NE(send(9999, block), 0);
  EXPECT_NE(upload(*s, kBook, "H999.999", key, kData, block), 0);
  EXPECT_TRUE(stored(key) == original);
}

TEST_F(BlobsTest, EachBlobIsOneFileThatGoesWithItsRowHoweverTheRowIsDeleted) {
  const auto filesNow = [&] { return storeFiles(folder()).size(); };
  int32_t tag = 100;
  const auto imageOfNewTag = [&] {
    const int32_t key = addRow(*s, kBook, kImages, {field("TagID", 1, std::to_string(++tag))});
    EXPECT_EQ(send(key, pattern(1000, static_cast<uint32_t>(key))), 0) << lastError(*s);
    return key;
  };
  const int32_t kept = imageOfNewTag();
  // Replacing content leaves one file per blob.
  ASSERT_EQ(send(kept, pattern(kBlockSize + 1, 5)), 0);
  ASSERT_EQ(filesNow(), 1u);
  const std::pair<const char*, std::function<int32_t(int32_t key)>> deletes[] = {
      {"DeleteRecord",
       [&](int32_t key) { return s->DeleteRecord(In(kBook), In(row(key).handle), key); }},
      {"DeleteRecords",
       [&](int32_t key) { return s->DeleteRecords(In(kBook), In(row(key).handle), 0, 0); }},
      {"ExecuteSQL", [&](int32_t) {
         return s->ExecuteSQL(In(kBook),
                              In("DELETE FROM ImageDataTBL WHERE TagID = " + std::to_string(tag)));
       }}};
  for (const auto& [name, remove] : deletes) {
    SCOPED_TRACE(name);
    const int32_t key = imageOfNewTag();
    ASSERT_EQ(filesNow(), 2u);
    ASSERT_EQ(remove(key), 0) << lastError(*s);
    EXPECT_EQ(filesNow(), 1u);
    // A key given out again starts without content.
    const int32_t again = newRow();
    EXPECT_TRUE(stored(again).empty());
  }
  EXPECT_TRUE(stored(kept) == pattern(kBlockSize + 1, 5));
  images = Opened{};
  ASSERT_EQ(s->DeleteDatabase(In(kBook), In("")), 0) << lastError(*s);
  EXPECT_EQ(filesNow(), 0u);
  EXPECT_TRUE(fs::is_empty(folder() + "/db/content"));
}

TEST_F(BlobsTest, AnUploadThatFailsOrLosesItsRowLeavesNoFileBehind) {
  const int32_t key = newRow();
  ASSERT_EQ(send(key, {'A'}), 0);
  // A series broken off, and one whose row another session deletes before the last block.
  EXPECT_EQ(sendBlock(key, 1, 0), 0);
  EXPECT_NE(sendBlock(key, 3, 1), 0);
  const int32_t doomed = newRow();
  EXPECT_EQ(sendBlock(doomed, 1, 0), 0);
  const Opened theirs = open(
      *reader, kBook, "", "SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(doomed));
  ASSERT_EQ(reader->DeleteRecord(In(kBook), In(theirs.handle), doomed), 0) << lastError(*reader);
  EXPECT_NE(sendBlock(doomed, 2, 1), 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_EQ(storeFiles(folder()).size(), 1u);
  EXPECT_TRUE(stored(key) == Bytes{'A'});
}

TEST_F(BlobsTest, AStartSweepsWhatACrashLeftAndMovesBlobsOutOfRows) {
  const int32_t key = newRow();
  const auto data = pattern(kBlockSize + 7, 9);
  ASSERT_EQ(send(key, data), 0);
  const auto files = storeFiles(folder());
  ASSERT_EQ(files.size(), 1u);
  // A write that never finished, a file whose commit never came, a folder whose database went.
  fs::path own;
  for (const auto& e : fs::recursive_directory_iterator(folder() + "/db/content")) {
    if (e.is_regular_file()) own = e.path().parent_path();
  }
  for (const fs::path& stray : {own / ".tmp-7-0000000000000001", own / "7-0000000000000002",
                                fs::path(folder() + "/db/content/0123456789abcdef/3-1")}) {
    fs::create_directories(stray.parent_path());
    std::ofstream(stray) << "stray";
  }
  // A row that still holds its blob, as a folder of an older version keeps them.
  const int32_t old = newRow();
  const auto inRow = pattern(2 * kBlockSize + 3, 11);
  s.reset();
  reader.reset();
  images = Opened{};
  core.reset();
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((folder() + "/db/" + kBook + ".sqlite").c_str(), &db), SQLITE_OK);
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, "UPDATE ImageDataTBL SET RealityData = ? WHERE T_Index = ?", -1, &st,
                       nullptr);
    sqlite3_bind_blob(st, 1, inRow.data(), static_cast<int>(inRow.size()), SQLITE_STATIC);
    sqlite3_bind_int(st, 2, old);
    EXPECT_EQ(sqlite3_step(st), SQLITE_DONE);
    sqlite3_finalize(st);
    sqlite3_close(db);
  }
  reopen();
  reader = connect();
  EXPECT_TRUE(stored(key) == data);
  EXPECT_TRUE(stored(old) == inRow);
  EXPECT_EQ(storeFiles(folder()).size(), 2u);
  EXPECT_FALSE(fs::exists(folder() + "/db/content/0123456789abcdef"));
  EXPECT_TRUE(core->engine().checkContent(false).orphans.empty());
}

TEST_F(BlobsTest, ImageFileDateRoundTripsADoubleOfTheRow) {
  const int32_t dated = newRow();
  const int32_t undated = newRow();
  const auto date = [&](Server& server, const std::string& handle, int32_t key) {
    double back = -1;
    const int32_t status = server.ImageFileDate(In(kBook), In(handle), 0, key, &back);
    return status == 0 ? back : -1.0;
  };
  double set = 45321.515625;
  ASSERT_EQ(s->ImageFileDate(In(kBook), In(images.handle), 1, dated, &set), 0) << lastError(*s);
  const std::string theirs = open(*reader, kBook, kImages).handle;
  // The date is the row's, not the session's; -1 stands for a failure.
  for (const auto& [server, handle, key, expected] :
       {std::tuple{s.get(), images.handle, dated, set},
        {s.get(), images.handle, undated, 0.0},
        {reader.get(), theirs, dated, set},
        {s.get(), images.handle, 9999, -1.0},
        {s.get(), std::string("H999.999"), dated, -1.0}}) {
    EXPECT_EQ(date(*server, handle, key), expected) << handle << " " << key;
  }
}

class SharesTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (HasFatalFailure()) return;
    createBook(kBook);
    addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "表紙"), field("Up_DateCounter", 1, "3")});
    addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "図面")});
    image = addRow(*s, kBook, "ImageDataTBL", {field("TagID", 1, "2")});
    const Opened images = open(*s, kBook, "ImageDataTBL");
    ASSERT_EQ(upload(*s, kBook, images.handle, image, kData, blob), 0);
    double date = kDate;
    ASSERT_EQ(s->ImageFileDate(In(kBook), In(images.handle), 1, image, &date), 0);
    ASSERT_EQ(closeTable(*s, kBook, images.handle), 0);
  }

  // The folder, or "refused".
  std::string share(const char* db, const char* table = "", int32_t key = -1) {
    mv::Bstr path;
    const int32_t status =
        s->OpenNetShare(In("client"), In("PC-1"), In(db), In(table), key, path.out());
    return status == 0 ? utf8(path) : "refused" + utf8(path);
  }
  static bool inside(const std::string& path, const std::string& parent) {
    const fs::path rel =
        fs::weakly_canonical(path).lexically_relative(fs::weakly_canonical(parent));
    return !rel.empty() && *rel.begin() != ".." && fs::is_directory(path);
  }
  void expectSameBook(const char* copy) {
    const char* pages = "SELECT * FROM TagPageTBL ORDER BY T_Index";
    EXPECT_EQ(select(*s, copy, pages), select(*s, kBook, pages));
    EXPECT_EQ(column(*s, copy, pages, "TagName"), "表紙 図面");
    EXPECT_TRUE(storedBlob(*s, copy, "ImageDataTBL", image) == blob);
    const Opened images = open(*s, copy, "ImageDataTBL");
    double back = 0;
    EXPECT_EQ(s->ImageFileDate(In(copy), In(images.handle), 0, image, &back), 0);
    EXPECT_EQ(back, kDate);
    EXPECT_EQ(closeTable(*s, copy, images.handle), 0);
  }
  static constexpr double kDate = 46349.25;
  const Bytes blob = pattern(200000, 21);
  int32_t image = -1;
};

TEST_F(SharesTest, OpenNetShareGivesFoldersInsideTheDataFolder) {
  const std::string book = share(kBook), staging = share("");
  EXPECT_TRUE(inside(book, folder())) << book;
  EXPECT_TRUE(inside(share(kBook, "ImageDataTBL", image), book));
  EXPECT_TRUE(inside(staging, folder()) && !inside(staging, book) && !inside(book, staging))
      << staging;
  EXPECT_EQ(share(kBook), book);
  for (const auto& [db, table, key] :
       {std::tuple{"BOOK9999999999", "", -1}, {kBook, "../..", 1}, {"../..", "", -1}}) {
    EXPECT_EQ(share(db, table, key), "refused") << db << table;
  }
}

TEST_F(SharesTest, ACarriedOutBookCarriesInUnderANewName) {
  constexpr int32_t kPiece = 64 * 1024;
  std::vector<Bytes> pieces;
  std::string name;
  for (int32_t blockNo = 1, isEnd = 0; !isEnd && blockNo <= 10000; ++blockNo) {
    mv::Variant block;
    int32_t value = 0;
    mv::Bstr fileName;
    ASSERT_EQ(
        s->CarryingOut(In(kBook), blockNo, kPiece, block.get(), &isEnd, fileName.out(), &value), 0)
        << lastError(*s);
    if (blockNo == 1) name = utf8(fileName);
    if (block.get()->vt != MV_VT_EMPTY) pieces.push_back(bytes(*block.get()));
  }
  EXPECT_THAT(name, Not(IsEmpty()));
  ASSERT_GT(pieces.size(), 1u);
  for (std::size_t i = 0; i + 1 < pieces.size(); ++i) EXPECT_EQ(pieces[i].size(), kPiece);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    ByteBlock block(pieces[i].data(), pieces[i].size(), kPiece);
    ASSERT_EQ(s->Carryingin(In(kOther), i == 0, static_cast<int32_t>(pieces[i].size()), block.get(),
                            i + 1 == pieces.size()),
              0)
        << "block " << i + 1 << ": " << lastError(*s);
  }
  EXPECT_EQ(exists(kOther), 0);
  expectSameBook(kOther);

  // Blocks that do not start a carry, and bytes that are no database, make nothing.
  ByteBlock stray(pieces[0].data(), pieces[0].size(), kPiece);
  EXPECT_NE(s->Carryingin(In("BOOK1123000003"), 0, kPiece, stray.get(), 1), 0);
  const auto garbage = pattern(kPiece, 99);
  ByteBlock junk(garbage.data(), garbage.size(), kPiece);
  EXPECT_NE(s->Carryingin(In("BOOK1123000003"), 1, kPiece, junk.get(), 1), 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_EQ(exists("BOOK1123000003"), mv::kStatusMissingDatabase);
}

TEST_F(SharesTest, ReplicationRoundTripsThroughTheStagingFolder) {
  const std::string staging = share("");
  mv::Bstr fileName;
  ASSERT_EQ(s->RepricatOut(In(kBook), fileName.out()), 0) << lastError(*s);
  const std::string file = utf8(fileName);
  ASSERT_TRUE(file.starts_with(kBook)) << file;
  ASSERT_TRUE(fs::is_regular_file(fs::path(staging) / file)) << file;
  // The same file under another book's name makes that book.
  fs::copy_file(fs::path(staging) / file,
                fs::path(staging) / (kOther + file.substr(std::string(kBook).size())));
  ASSERT_EQ(s->RepricatIn(In(kOther)), 0) << lastError(*s);
  expectSameBook(kOther);
  // Changes made after the replica was taken are undone by taking it in.
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "後から")});
  ASSERT_EQ(s->RepricatIn(In(kBook)), 0) << lastError(*s);
  expectSameBook(kBook);
  EXPECT_FALSE(fs::exists(fs::path(staging) / file));
  EXPECT_NE(s->RepricatIn(In(kBook)), 0);
}

}  // namespace
}  // namespace mvtest::server
