// Shelves, books, covers, searches and display order against a recording server: what each
// failing step leaves behind, the mutex released, the messages and the arguments refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "books_fixture.h"
#include "frame/connection.h"
#include "server_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class BooksRecorded : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
    ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
    server->calls.clear();
    MVSetCodePage("UTF-8");
    catchMessages(&shown);
  }
  void TearDown() override {
    releaseMessages();
    MVSetCodePage("CP932");
    ServerFixture::TearDown();
  }
  static std::vector<std::string> shelfRow(int id, int attribute, const std::string& name) {
    return {"KEY=T_Index\t1\t" + std::to_string(id),
            "KEY=Attribute\t1\t" + std::to_string(attribute), "KEY=BookShelfName\t2\t" + name};
  }
  static std::vector<std::string> adminRow() {
    return {"KEY=T_Index\t1\t1", "KEY=UserName\t2\tadmin", "KEY=Password\t2\tpw",
            "KEY=UserAttribute\t1\t0"};
  }
  std::vector<std::string> removals() const {  // what was deleted, in order
    std::vector<std::string> out;
    for (const Call& c : server->calls) {
      if (c.method == "DeleteDatabase") out.push_back(c.method + " " + c.args[0]);
      if (c.method == "DeleteRecord") out.push_back(c.method + " " + c.args[2]);
    }
    return out;
  }

  RecordingServer* server = nullptr;
  std::vector<std::string> shown;
};

TEST_F(BooksRecorded, EachFailingCreationStepKeepsTheEarlierPiecesAndReleasesTheMutex) {
  struct Step {
    const char* method;
    int passing;  // calls of `method` that succeed before the one that fails
    int32_t idAfter;
    std::vector<std::string> messages;
  } const steps[] = {{"nothing", 0, 101, {}},
                     {"CreateBookDatabase", 0, -7, {"Book DB雛形コピーに失敗"}},
                     {"AddRecord", 0, -7, {}},    // the book's own row
                     {"AddRecord", 1, -7, {}},    // the central row
                     {"AddRecord", 2, 101, {}}};  // the link: a book on no shelf
  for (const Step& step : steps) {
    SCOPED_TRACE(std::string(step.method) + " after " + std::to_string(step.passing));
    server->calls.clear();
    shown.clear();
    server->nextIndex = 100;
    server->queueResult({shelfRow(7, 0, "Site")});
    for (int i = 0; i < step.passing; ++i) server->failNext(step.method, 0);
    server->failNext(step.method, 0x7A);
    CoverInfo cover = makeCover("Works");
    int32_t id = -7;
    mv::connection().lastError = 0;
    const bool ok = std::string(step.method) == "nothing";
    EXPECT_EQ(MVCreateBook("Site", 0, &cover, &id), ok ? 0 : -1);
    EXPECT_EQ(mv::connection().lastError, ok ? 0 : 0x7A);
    EXPECT_EQ(id, step.idAfter);
    EXPECT_EQ(shown, step.messages);
    const std::string name = server->calls.front().args[0];
    EXPECT_EQ(server->calls.back().text(), "SetMutex(" + name + ", 2)");
  }
  // An unknown shelf, or another client making a book in this second: nothing is made.
  server->calls.clear();
  server->queueResult({});
  CoverInfo cover = makeCover("Works");
  int32_t id = -7;
  EXPECT_EQ(MVCreateBook("Nowhere", 0, &cover, &id), -1);
  EXPECT_THAT(shown, ElementsAre("指定の本棚は登録されていません"));
  EXPECT_EQ(server->count("CreateBookDatabase"), 0);
  EXPECT_EQ(server->calls.back().method, "SetMutex");
  server->calls.clear();
  server->answerAlways("SetMutex", 1);
  EXPECT_EQ(MVCreateBook("Site", 0, &cover, &id), -1);
  EXPECT_THAT(server->methods(), ElementsAre("SetMutex"));
}

TEST_F(BooksRecorded, EachFailingFinalDeletionStepKeepsTheLaterPieces) {
  const std::vector<RecordingServer::ResultRows> reads = {
      {adminRow()},                                                // the user
      {adminRow()},                                                // the administrator
      {shelfRow(1, 1, "ゴミ箱")},                                  // the discard shelf
      {{"KEY=T_Index\t1\t5", "KEY=BookName\t2\tBOOK0101000000"}},  // the cover
      {},                                                          // BookCommonTBL
      {{"KEY=T_Index\t1\t9"}}};                                    // the link
  const std::vector<std::string> all = {"DeleteDatabase BOOK0101000000", "DeleteRecord 5",
                                        "DeleteRecord 9"};
  for (int failing = -1; failing < 3; ++failing) {
    SCOPED_TRACE(failing);
    server->calls.clear();
    for (std::size_t i = 0; i < reads.size() - (failing < 0 ? 0 : 2 - failing); ++i) {
      server->queueResult(reads[i]);
    }
    if (failing == 0) server->failNext("DeleteDatabase", 0x7B);
    if (failing == 2) server->failNext("DeleteRecord", 0);
    if (failing > 0) server->failNext("DeleteRecord", 0x7B);
    EXPECT_EQ(MVDeleteBook(1, 5, "admin"), failing < 0 ? 0 : -1);
    EXPECT_EQ(removals(), std::vector(all.begin(), all.begin() + (failing < 0 ? 3 : failing + 1)));
    EXPECT_EQ(server->calls.back().text(), "SetMutex(5, 2)");
  }
  // A shelf that cannot be read stops the deletion before anything is removed.
  server->calls.clear();
  server->queueResult(reads[0]);
  server->queueResult(reads[1]);
  server->failNext("ExecuteQuery", 0, 2);
  server->failNext("ExecuteQuery", 0x7C);
  EXPECT_EQ(MVDeleteBook(1, 5, "admin"), -1);
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(server->calls.back().text(), "SetMutex(5, 2)");
}

TEST_F(BooksRecorded, CoversAreReadWithTheirLimitsAndChangedInBothCopies) {
  const std::string name63(63, 'r');
  CoverInfo cover = makeCover("old");
  server->queueResult({{"KEY=Reserve\t2\t" + name63, "KEY=SiteName\t2\tnew"}});
  server->queueResult(
      {{"KEY=Year\t2\tR6", "KEY=Reserve\t2\t" + name63 + "x", "KEY=SiteName\t2\tx"}});
  ASSERT_EQ(MVGetCoverInfo(5, &cover), 0);
  EXPECT_THAT(shown, IsEmpty());
  ASSERT_EQ(MVGetCoverInfo(5, &cover), 0);  // a template name too long stops the reading
  EXPECT_THAT(std::vector<std::string>({cover.Reserve, cover.SiteName, cover.Year}),
              ElementsAre(name63, "new", "R6"));
  EXPECT_THAT(shown, ElementsAre("雛形工事Book名が長すぎます"));
  // No such book: -1 without a code. An empty book table: 0, the buffer untouched.
  mv::connection().lastError = 77;
  EXPECT_EQ(MVGetCoverInfo(6, &cover), -1);
  EXPECT_EQ(mv::connection().lastError, 77);
  ASSERT_EQ(MVGetBookDBCoverInfo("BOOK0101000000", &cover), 0);
  EXPECT_STREQ(cover.SiteName, "new");

  // The central row without name, version and making date, then the book's first row, even
  // when its T_Index cannot be asked for.
  server->calls.clear();
  shown.clear();
  mv::copyToField(cover.BookName, sizeof cover.BookName, "BOOK0101000000");
  server->queueResult({});                       // BookCommonTBL
  server->queueResult({{"KEY=T_Index\t1\t3"}});  // UserBookTbl holds a row
  server->failNext("ExecuteQuery", 0x33);
  ASSERT_EQ(MVSetCoverInfo(5, &cover), 0);
  std::vector<Call> updates;
  for (const Call& c : server->calls)
    if (c.method == "UpdateRecord") updates.push_back(c);
  ASSERT_EQ(updates.size(), 2u);
  EXPECT_THAT(updates[0].args,
              ElementsAre("MarvekSystemCommonDB", Not(HasSubstr("KEY=BookName")), "1", "5"));
  EXPECT_THAT(updates[1].args, ElementsAre(cover.BookName, HasSubstr("KEY=BookName"), "1", "1"));
  for (const Call& c : updates) EXPECT_THAT(c.args[1], Not(HasSubstr("KEY=MakeDate")));
  EXPECT_THAT(shown, ElementsAre("T_Indexの取得失敗"));
}

TEST_F(BooksRecorded, AShelfNameIsTestedByCounterAndBytesAndBadArgumentsAreRefusedFirst) {
  server->queueResult({});            // no shelf of that name
  server->queueResult({adminRow()});  // the owner
  int32_t id = 0;
  ASSERT_EQ(MVCreateBookshelf("Jo's", "admin", &id), 0);
  EXPECT_EQ(id, 100);
  server->calls.clear();
  server->counters["Jo's"] = 1;  // in use: stops at once
  EXPECT_EQ(MVCreateBookshelf("Jo's", "admin", &id), -1);
  server->failNext("SetCounter", 0x41);
  EXPECT_EQ(MVCreateBookshelf("Jo's", "admin", &id), -1);
  EXPECT_EQ(mv::connection().lastError, 0x41);
  EXPECT_THAT(server->methods(), ElementsAre("SetCounter", "SetCounter"));

  // An empty shelf table leaves the list alone.
  server->queueResult({});
  auto* const untouched = reinterpret_cast<ShelfEntry*>(this);
  ShelfEntry* shelves = untouched;
  int32_t count = -3;
  ASSERT_EQ(MVGetAllBookshelf(&shelves, &count), 0);
  EXPECT_EQ(shelves, untouched);
  EXPECT_EQ(count, -3);

  // Searches: -4 before the server is asked, for an empty text, a period that ends before it
  // starts, two subjects at once or none, a bad join, no list.
  server->calls.clear();
  SearchCondition good{}, bad[5]{};
  good.kind = 1;
  std::strcpy(good.text, "x");
  for (SearchCondition& b : bad) b = good;
  bad[0].text[0] = '\0';
  bad[1].kind = 8;
  bad[1].period.start = {2024, 5, 0, 2, 0, 0, 0, 0};
  bad[1].period.end = {2024, 5, 0, 1, 0, 0, 0, 0};
  bad[2].kind = 3;
  bad[3].kind = 0;
  bad[4].kind = 2048;
  CoverInfo* list = reinterpret_cast<CoverInfo*>(this);
  count = -3;
  mv::connection().lastError = 77;
  EXPECT_EQ(MVSearchBookEx(1, nullptr, 1, &list, &count), -4);
  EXPECT_EQ(MVSearchBookEx(1, &good, 0, &list, &count), -4);
  EXPECT_EQ(MVSearchBookEx(1, &good, 1, nullptr, &count), -4);
  EXPECT_EQ(MVSearchBookEx(3, &good, 1, &list, &count), -4);
  for (const SearchCondition& b : bad) {
    const SearchCondition pair[] = {good, b};
    EXPECT_EQ(MVSearchBookEx(2, pair, 2, &list, &count), -4) << b.kind;
  }
  EXPECT_EQ(list, reinterpret_cast<CoverInfo*>(this));
  EXPECT_EQ(count, -3);
  const OrderEntry entries[] = {{3, 10}};
  EXPECT_EQ(MVSetBookShelfOrder(nullptr, 1), -4);
  EXPECT_EQ(MVSetBookOrder(7, entries, 0), -4);
  EXPECT_THAT(server->calls, IsEmpty());
  EXPECT_EQ(mv::connection().lastError, 77);
}

TEST_F(BooksRecorded, AnOrderGoesInOneTransactionWhoseStatusIsTheResult) {
  const OrderEntry entries[] = {{3, 10}, {1, 20}};
  server->answerAlways("CheckColumn", 14);  // the column is there
  ASSERT_EQ(MVSetBookShelfOrder(entries, 2), 0);
  EXPECT_THAT(server->methods(), ElementsAre("CheckColumn", "ExecuteSQL"));
  // A failing ALTER is not looked at; lastError is left alone.
  server->answerAlways("CheckColumn", 0x1002);
  server->failNext("ExecuteSQL", 0x66);
  server->failNext("ExecuteSQL", 0x55);
  mv::connection().lastError = 77;
  EXPECT_EQ(MVSetBookOrder(7, entries, 1), 0x55);
  EXPECT_EQ(mv::connection().lastError, 77);
  EXPECT_EQ(server->count("ExecuteSQL"), 3);
  server->calls.clear();
  mv::connection().currentServer = nullptr;
  EXPECT_EQ(MVSetBookShelfOrder(entries, 1), -1);
  EXPECT_TRUE(server->calls.empty());
}

}  // namespace
}  // namespace mvtest
