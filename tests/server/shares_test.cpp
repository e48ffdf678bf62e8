// Share folders, and books leaving and returning whole: carrying out and in, replication.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

constexpr char kOther[] = "BOOK1123000002";

class SharesTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0) << lastError(*s);
    addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "表紙"), field("Up_DateCounter", 1, "3")});
    addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "図面")});
    image = addRow(*s, kBook, "ImageDataTBL", {field("TagID", 1, "2")});
    const Opened images = openTable(*s, kBook, "ImageDataTBL");
    ASSERT_EQ(upload(*s, kBook, images.handle, image, "RealityData", blob, Ending::LastFlag), 0);
    ASSERT_EQ(closeTable(*s, kBook, images.handle), 0);
  }

  int32_t share(const char* db, const char* table, int32_t key, std::string& path) {
    mv::Bstr folder;
    const int32_t status =
        s->OpenNetShare(In("client"), In("PC-1"), In(db), In(table), key, folder.out());
    path = utf8(folder);
    return status;
  }
  bool inside(const std::string& path, const std::string& parent) {
    const fs::path p = fs::weakly_canonical(path);
    const fs::path rel = p.lexically_relative(fs::weakly_canonical(parent));
    return !rel.empty() && *rel.begin() != ".." && fs::is_directory(p);
  }
  std::vector<Row> pages(const char* db) {
    return select(*s, db, "SELECT * FROM TagPageTBL ORDER BY T_Index");
  }
  void expectSameBook(const char* copy) {
    EXPECT_EQ(pages(copy), pages(kBook));
    EXPECT_THAT(column(pages(copy), "TagName"), ElementsAre("表紙", "図面"));
    EXPECT_TRUE(sameBytes(storedBlob(*s, copy, "ImageDataTBL", image, "RealityData"), blob));
  }

  const std::vector<uint8_t> blob = pattern(200000, 21);
  int32_t image = -1;
};

TEST_F(SharesTest, OpenNetShareGivesFoldersInsideTheDataFolder) {
  std::string book, row, staging;
  ASSERT_EQ(share(kBook, "", -1, book), 0) << lastError(*s);
  EXPECT_TRUE(inside(book, folder())) << book;
  ASSERT_EQ(share(kBook, "ImageDataTBL", image, row), 0) << lastError(*s);
  EXPECT_TRUE(inside(row, book)) << row;
  ASSERT_EQ(share("", "", -1, staging), 0) << lastError(*s);
  EXPECT_TRUE(inside(staging, folder())) << staging;
  EXPECT_FALSE(inside(staging, book)) << staging;
  EXPECT_FALSE(inside(book, staging)) << book;

  std::string again;
  EXPECT_EQ(share(kBook, "", -1, again), 0);
  EXPECT_EQ(again, book);

  std::string none;
  EXPECT_NE(share("BOOK9999999999", "", -1, none), 0);
  EXPECT_THAT(none, IsEmpty());
  EXPECT_NE(share(kBook, "../..", 1, none), 0);
  EXPECT_THAT(none, IsEmpty());
  EXPECT_NE(share("../..", "", -1, none), 0);
}

TEST_F(SharesTest, ACarriedOutBookCarriesInUnderANewName) {
  constexpr int32_t kPiece = 64 * 1024;
  std::vector<std::vector<uint8_t>> pieces;
  std::string name;
  for (int32_t blockNo = 1; blockNo <= 10000; ++blockNo) {
    mv::Variant block;
    int32_t isEnd = 0;
    int32_t value = 0;
    mv::Bstr fileName;
    ASSERT_EQ(
        s->CarryingOut(In(kBook), blockNo, kPiece, block.get(), &isEnd, fileName.out(), &value), 0)
        << lastError(*s);
    if (blockNo == 1) name = utf8(fileName);
    if (block.get()->vt != MV_VT_EMPTY) pieces.push_back(bytes(*block.get()));
    if (isEnd) break;
  }
  EXPECT_THAT(name, Not(IsEmpty()));
  ASSERT_GT(pieces.size(), 1u);
  for (std::size_t i = 0; i + 1 < pieces.size(); ++i) EXPECT_EQ(pieces[i].size(), kPiece);

  for (std::size_t i = 0; i < pieces.size(); ++i) {
    ByteBlock block(pieces[i].data(), pieces[i].size(), kPiece);
    ASSERT_EQ(s->Carryingin(In(kOther), i == 0 ? 1 : 0, static_cast<int32_t>(pieces[i].size()),
                            block.get(), i + 1 == pieces.size() ? 1 : 0),
              0)
        << "block " << i + 1 << ": " << lastError(*s);
  }
  int32_t out = 0;
  EXPECT_EQ(s->OpenDatabase(In(kOther), mv::kOpenTestExists, &out), 0);
  expectSameBook(kOther);

  // Blocks that do not start a carry, and bytes that are no database, make nothing.
  ByteBlock stray(pieces[0].data(), pieces[0].size(), kPiece);
  EXPECT_NE(s->Carryingin(In("BOOK1123000003"), 0, kPiece, stray.get(), 1), 0);
  const auto garbage = pattern(kPiece, 99);
  ByteBlock junk(garbage.data(), garbage.size(), kPiece);
  EXPECT_NE(s->Carryingin(In("BOOK1123000003"), 1, kPiece, junk.get(), 1), 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_EQ(s->OpenDatabase(In("BOOK1123000003"), mv::kOpenTestExists, &out),
            mv::kStatusMissingDatabase);
}

TEST_F(SharesTest, ReplicationRoundTripsThroughTheStagingFolder) {
  std::string staging;
  ASSERT_EQ(share("", "", -1, staging), 0);
  mv::Bstr fileName;
  ASSERT_EQ(s->RepricatOut(In(kBook), fileName.out()), 0) << lastError(*s);
  const std::string file = utf8(fileName);
  ASSERT_THAT(file, Not(IsEmpty()));
  EXPECT_TRUE(fs::is_regular_file(fs::path(staging) / file)) << file;

  // The same file under another book's name makes that book.
  ASSERT_EQ(file.rfind(kBook, 0), 0u) << file;
  const std::string suffix = file.substr(std::string(kBook).size());
  fs::copy_file(fs::path(staging) / file, fs::path(staging) / (kOther + suffix));
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
