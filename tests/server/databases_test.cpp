// Whole databases: making books from templates, copying and deleting them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kCopy[] = "BOOK1123000002";

class DatabasesTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0) << lastError(*s);
  }
  int32_t exists(const char* db) {
    int32_t out = 0;
    return s->OpenDatabase(In(db), mv::kOpenTestExists, &out);
  }
  std::vector<std::string> tags(const char* db) {
    return column(select(*s, db, "SELECT * FROM TagPageTBL ORDER BY T_Index"), "TagName");
  }
};

TEST_F(DatabasesTest, CreateBookDatabaseRefusesTakenNamesAndUnknownTemplates) {
  EXPECT_EQ(exists(kBook), 0);
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "kept")});
  EXPECT_NE(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  EXPECT_THAT(lastError(*s), testing::Not(IsEmpty()));
  EXPECT_THAT(tags(kBook), ElementsAre("kept"));

  EXPECT_NE(s->CreateBookDatabase(In("ない雛形"), In(""), In(kCopy)), 0);
  EXPECT_EQ(exists(kCopy), mv::kStatusMissingDatabase);
  for (const char* bad : {"", "_hidden", "../escape", "a/b"}) {
    EXPECT_NE(s->CreateBookDatabase(In(""), In(""), In(bad)), 0) << bad;
  }

  EXPECT_EQ(s->CreateBookDatabase(In("標準"), In(""), In(kCopy)), 0) << lastError(*s);
  EXPECT_THAT(tags(kCopy), IsEmpty());
}

TEST_F(DatabasesTest, CopyDatabaseCopiesRowsAndBlobsAndRefusesATakenName) {
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "a")});
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "b")});
  const int32_t image = addRow(*s, kBook, "ImageDataTBL", {field("TagID", 1, "1")});
  const Opened images = openTable(*s, kBook, "ImageDataTBL");
  const auto data = pattern(400000, 11);
  ASSERT_EQ(upload(*s, kBook, images.handle, image, "RealityData", data, Ending::LastFlag), 0);

  ASSERT_EQ(s->CopyDatabase(In(kBook), In(""), In(kCopy), In(""), 0), 0) << lastError(*s);
  EXPECT_THAT(tags(kCopy), ElementsAre("a", "b"));
  EXPECT_TRUE(sameBytes(storedBlob(*s, kCopy, "ImageDataTBL", image, "RealityData"), data));

  // The copy goes its own way.
  addRow(*s, kCopy, "TagPageTBL", {field("TagName", 2, "copy only")});
  EXPECT_THAT(tags(kBook), ElementsAre("a", "b"));

  EXPECT_NE(s->CopyDatabase(In(kBook), In(""), In(kCopy), In(""), 0), 0);
  EXPECT_THAT(tags(kCopy), ElementsAre("a", "b", "copy only"));
  EXPECT_NE(s->CopyDatabase(In("BOOK9999999999"), In(""), In("BOOK9999999998"), In(""), 0), 0);
  EXPECT_EQ(exists("BOOK9999999998"), mv::kStatusMissingDatabase);
}

TEST_F(DatabasesTest, DeleteDatabaseWaitsUntilNoOtherSessionHasTheBookOpen) {
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "old")});
  Session other = connect();
  int32_t out = 0;
  ASSERT_EQ(other->OpenDatabase(In(kBook), mv::kOpenForWork, &out), 0);
  EXPECT_NE(s->DeleteDatabase(In(kBook), In("")), 0);
  EXPECT_THAT(lastError(*s), testing::Not(IsEmpty()));
  EXPECT_EQ(exists(kBook), 0);

  EXPECT_EQ(other->CloseDatabase(In(kBook)), 0);
  EXPECT_EQ(s->DeleteDatabase(In(kBook), In("")), 0) << lastError(*s);
  EXPECT_EQ(exists(kBook), mv::kStatusMissingDatabase);
  EXPECT_NE(s->DeleteDatabase(In(kBook), In("")), 0);

  // A book made again under the name starts empty.
  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0) << lastError(*s);
  EXPECT_THAT(tags(kBook), IsEmpty());

  // The deleting session's own hold does not stand in its way; a session's end frees its hold.
  ASSERT_EQ(s->OpenDatabase(In(kBook), mv::kOpenForWork, &out), 0);
  ASSERT_EQ(other->OpenDatabase(In(kBook), mv::kOpenHeld, &out), 0);
  EXPECT_NE(s->DeleteDatabase(In(kBook), In("")), 0);
  other.reset();
  EXPECT_EQ(s->DeleteDatabase(In(kBook), In("")), 0) << lastError(*s);
  EXPECT_EQ(exists(kBook), mv::kStatusMissingDatabase);
}

}  // namespace
}  // namespace mvtest::server

namespace mvtest::server {
namespace {

// Sessions that make the same book at the same moment: exactly one of them gets it.
TEST_F(DatabasesTest, OnlyOneOfManySessionsMakingOneNameSucceeds) {
  constexpr int kSessions = 6;
  for (int round = 0; round < 5; ++round) {
    const std::string name = "BOOK11230100" + std::to_string(10 + round);
    std::vector<Session> sessions;
    for (int i = 0; i < kSessions; ++i) sessions.push_back(connect());
    std::vector<int32_t> results(kSessions, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kSessions; ++i) {
      threads.emplace_back([&, i] {
        results[static_cast<std::size_t>(i)] =
            sessions[static_cast<std::size_t>(i)]->CreateBookDatabase(In(""), In(""), In(name));
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::count(results.begin(), results.end(), 0), 1) << name;
    EXPECT_EQ(exists(name.c_str()), 0);
  }
}

}  // namespace
}  // namespace mvtest::server
