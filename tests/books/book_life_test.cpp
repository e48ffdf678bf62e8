// The life of a book, told by its four pieces (database, book row, central row, shelf link) after
// each step; what each failing step leaves behind; and the two copies of a cover.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "MVCore.h"
#include "books_fixture.h"
#include "frame/connection.h"
#include "frame/exchange.h"
#include "platform/codepage.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

class BookLifeEndToEnd : public BooksEndToEnd {};
MVCORE_ON_BOTH_SERVERS(BookLifeEndToEnd);
using BookLifeRecorded = BooksRecorded;

TEST_P(BookLifeEndToEnd, ABookIsMadeDiscardedBroughtBackAndEndedPieceByPiece) {
  const int32_t site = shelf("Site");
  const std::string onSite = "database, book row, central row, shelf " + std::to_string(site);
  CoverInfo cover = makeCover("Riverside", "20240401", "20240930");
  cover.BookVer = 4;
  const int32_t id = book("Site", cover);
  const std::string db = cover.BookName;
  EXPECT_THAT(db, MatchesRegex("BOOK[0-9]{10}"));
  EXPECT_THAT(std::string(cover.MakeDate), MatchesRegex("[0-9]{14}"));
  EXPECT_EQ(pieces(id, db.c_str()), onSite);

  // A change reaches both copies; the central one keeps its version and its making date.
  CoverInfo central{}, own{};
  ASSERT_EQ(MVGetCoverInfo(id, &central), 0);
  CoverInfo changed = central;
  mv::copyToField(changed.SiteName, sizeof changed.SiteName, "Riverside east");
  changed.BookVer = 9;
  mv::copyToField(changed.MakeDate, sizeof changed.MakeDate, "19990101000000");
  ASSERT_EQ(MVSetCoverInfo(id, &changed), 0);
  ASSERT_EQ(MVGetCoverInfo(id, &central), 0);
  ASSERT_EQ(MVGetBookDBCoverInfo(db.c_str(), &own), 0);
  EXPECT_THAT(
      std::vector<std::string>({central.SiteName, own.SiteName, central.MakeDate, own.MakeDate}),
      ElementsAre("Riverside east", "Riverside east", cover.MakeDate, cover.MakeDate));
  EXPECT_THAT(std::vector({central.T_Index, central.BookVer, own.T_Index, own.BookVer}),
              ElementsAre(id, 4, 0, 9));

  // Deleted from its shelf it goes whole to the discard shelf, which remembers where from.
  ASSERT_EQ(MVDeleteBook(site, id, "admin"), 0);
  EXPECT_EQ(pieces(id, db.c_str()), "database, book row, central row, shelf 1");
  int32_t from = -1;
  ASSERT_EQ(MVGetPrevBSID(id, &from), 0);
  EXPECT_EQ(from, site);
  ShelfEntry where{};
  ASSERT_EQ(MVGetBookExistBSInfo(id, &where), 0);
  EXPECT_STREQ(where.BookShelfName, "ゴミ箱");
  ASSERT_EQ(MVMoveBook(1, from, id, 0), 0);
  EXPECT_EQ(pieces(id, db.c_str()), onSite);

  // Deleted from the discard shelf it is ended.
  ASSERT_EQ(MVDeleteBook(site, id, "admin"), 0);
  ASSERT_EQ(MVDeleteBook(1, id, "admin"), 0);
  EXPECT_EQ(pieces(id, db.c_str()), "");
  from = -5;
  ASSERT_EQ(MVGetPrevBSID(id, &from), 0);
  EXPECT_EQ(from, -5);
  EXPECT_THAT(shown, IsEmpty());
}

TEST_P(BookLifeEndToEnd, CopiesAreWholeBooksAndOnlyTheirOwnCoverGetsANewDate) {
  const int32_t from = shelf("From");
  const int32_t to = shelf("To");
  CoverInfo cover = makeCover("Tunnel");
  const int32_t source = book("From", cover);
  int32_t copy = -1, shelfCopy = -1, emptyCopy = -1;
  ASSERT_EQ(inOwnSecond([&] { return MVCopyBook(0, to, source, cover.BookName, 0, &copy); }), 0);
  CoverInfo central{}, own{};
  ASSERT_EQ(MVGetCoverInfo(copy, &central), 0);
  ASSERT_EQ(MVGetBookDBCoverInfo(central.BookName, &own), 0);
  EXPECT_STRNE(central.BookName, cover.BookName);
  EXPECT_STREQ(central.Up_Date, "");  // as the source has it
  EXPECT_THAT(std::string(own.Up_Date), MatchesRegex("[0-9]{14}"));
  EXPECT_EQ(pieces(copy, central.BookName),
            "database, book row, central row, shelf " + std::to_string(to));
  ASSERT_EQ(inOwnSecond([&] { return MVCopyBookshelf("Again", from, "admin", &shelfCopy); }), 0);
  EXPECT_THAT(booksOn(shelfCopy), ElementsAre("Tunnel"));
  ASSERT_EQ(MVCopyBookshelf("Empty", shelf("Nothing"), "admin", &emptyCopy), 0);
  EXPECT_THAT(booksOn(emptyCopy), IsEmpty());
}

TEST_P(BookLifeEndToEnd, AnotherClientsMutexOrAMissingPermissionStopsADeletion) {
  const int32_t site = shelf("Site");
  CoverInfo cover = makeCover("Locked");
  const int32_t id = book("Site", cover);
  const std::string whole = pieces(id, cover.BookName);
  mv::IBookServer* other = otherClient();
  ASSERT_NE(other, nullptr);
  ASSERT_EQ(other->SetMutex(mv::toWide(std::to_string(id)).get(), 1), 0);
  EXPECT_EQ(MVDeleteBook(site, id, "admin"), -1);
  EXPECT_EQ(mv::connection().lastError, 1);
  other->Release();  // its mutexes end with it
  int32_t taro = 0;
  ASSERT_EQ(MVRegistUser("taro", "t", &taro), 0);
  EXPECT_EQ(MVDeleteBook(site, id, "taro"), -1);
  EXPECT_EQ(MVDeleteBook(site, id, "nobody"), -1);
  EXPECT_EQ(pieces(id, cover.BookName), whole);
  EXPECT_EQ(MVDeleteBook(site, id, "admin"), 0);
}

TEST_F(BookLifeRecorded, EachFailingCreationStepKeepsTheEarlierPiecesAndReleasesTheMutex) {
  struct Step {
    const char* method;
    int passing;  // calls of `method` that succeed before the one that fails
    int result;
    int32_t idAfter;
    std::vector<std::string> messages;
  };
  const Step steps[] = {{"nothing", 0, 0, 101, {}},
                        {"CreateBookDatabase", 0, -1, -7, {"Book DB雛形コピーに失敗"}},
                        {"AddRecord", 0, -1, -7, {}},    // the book's own row
                        {"AddRecord", 1, -1, -7, {}},    // the central row
                        {"AddRecord", 2, -1, 101, {}}};  // the link: a book on no shelf
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
    EXPECT_EQ(MVCreateBook("Site", 0, &cover, &id), step.result);
    EXPECT_EQ(mv::connection().lastError, step.result == 0 ? 0 : 0x7A);
    EXPECT_EQ(id, step.idAfter);
    EXPECT_EQ(shown, step.messages);
    const std::string name = server->calls.front().args[0];
    EXPECT_EQ(server->calls.back().text(), "SetMutex(" + name + ", 2)");
    EXPECT_EQ(server->calls[5].text(), "CreateBookDatabase(, , " + name + ")");
  }

  // Another client making a book in this second, or an unknown shelf: nothing is made.
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

TEST_F(BookLifeRecorded, BothCopiesOfACoverAreWrittenInTheirOwnTablesColumnOrder) {
  server->queueResult({shelfRow(7, 0, "Site")});
  CoverInfo cover = makeCover("Works");
  mv::copyToField(cover.OrderName, sizeof cover.OrderName, "Ordering");
  mv::copyToField(cover.ContractCompany, sizeof cover.ContractCompany, "Contractor");
  int32_t id = 0;
  ASSERT_EQ(MVCreateBook("Site", 0, &cover, &id), 0);
  std::vector<std::string> records;
  for (const Call& c : server->calls) {
    if (c.method == "AddRecord") records.push_back(c.args[1]);
  }
  ASSERT_EQ(records.size(), 3u);
  EXPECT_THAT(records[0],
              HasSubstr("|KEY=ContractCompany\t2\tContractor|KEY=OrderName\t2\tOrdering|"));
  EXPECT_THAT(records[1],
              HasSubstr("|KEY=OrderName\t2\tOrdering|KEY=ContractCompany\t2\tContractor|"));
  for (const std::string& r : {records[0], records[1]}) {
    EXPECT_EQ(std::count(r.begin(), r.end(), '|'), 35) << r;
    EXPECT_THAT(r, HasSubstr("|KEY=MakeDate\t3\t" + std::string(cover.MakeDate) + "|"));
  }
  EXPECT_THAT(records[2], MatchesRegex("\\[TABLENAME=H[0-9]+\\|KEY=T_Index\t1\t0\\|"
                                       "KEY=BookShelfID\t1\t7\\|KEY=BookID\t1\t101\\|\\]"));

  // A change: the central row without name, version and making date, then the book's first row,
  // even when its T_Index cannot be asked for.
  server->calls.clear();
  server->queueResult({});                       // BookCommonTBL
  server->queueResult({{"KEY=T_Index\t1\t3"}});  // UserBookTbl holds a row
  server->failNext("ExecuteQuery", 0x33);
  ASSERT_EQ(MVSetCoverInfo(5, &cover), 0);
  std::vector<Call> updates;
  std::copy_if(server->calls.begin(), server->calls.end(), std::back_inserter(updates),
               [](const Call& c) { return c.method == "UpdateRecord"; });
  ASSERT_EQ(updates.size(), 2u);
  EXPECT_THAT(updates[0].args,
              ElementsAre("MarvekSystemCommonDB", Not(HasSubstr("KEY=BookName")), "1", "5"));
  EXPECT_THAT(updates[0].args[1], Not(HasSubstr("KEY=MakeDate")));
  EXPECT_THAT(updates[1].args, ElementsAre(cover.BookName, HasSubstr("KEY=BookName"), "1", "1"));
  EXPECT_THAT(updates[1].args[1], Not(HasSubstr("KEY=MakeDate")));
  EXPECT_THAT(shown, ElementsAre("T_Indexの取得失敗"));
}

TEST_F(BookLifeRecorded, EachFailingFinalDeletionStepKeepsTheLaterPieces) {
  // What the deletion reads, in order; a failing step reads only the first ones.
  const std::vector<RecordingServer::ResultRows> results = {
      {userRow(1, "admin", 0)},         // the user
      {userRow(1, "admin", 0)},         // the administrator
      {shelfRow(1, 1, "ゴミ箱")},       // the shelf named: the discard shelf
      {coverRow(5, "BOOK0101000000")},  // the cover, for its database
      {},                               // BookCommonTBL, to delete from
      {{"KEY=T_Index\t1\t9"}}};         // the link
  for (int failing = -1; failing < 3; ++failing) {
    SCOPED_TRACE(failing);
    server->calls.clear();
    for (std::size_t i = 0; i < results.size() - (failing < 0 ? 0 : 2 - failing); ++i) {
      server->queueResult(results[i]);
    }
    if (failing == 0) server->failNext("DeleteDatabase", 0x7B);
    if (failing == 2) server->failNext("DeleteRecord", 0);
    if (failing > 0) server->failNext("DeleteRecord", 0x7B);
    EXPECT_EQ(MVDeleteBook(1, 5, "admin"), failing < 0 ? 0 : -1);
    std::vector<std::string> removals;  // what was asked for, in order, the failing call included
    for (const Call& c : server->calls) {
      if (c.method == "DeleteDatabase") removals.push_back(c.method + " " + c.args[0]);
      if (c.method == "DeleteRecord") removals.push_back(c.method + " " + c.args[2]);
    }
    const std::vector<std::string> all = {"DeleteDatabase BOOK0101000000", "DeleteRecord 5",
                                          "DeleteRecord 9"};
    EXPECT_EQ(removals, std::vector(all.begin(), all.begin() + (failing < 0 ? 3 : failing + 1)));
    EXPECT_EQ(server->calls.back().text(), "SetMutex(5, 2)");
  }
  // A shelf that cannot be read stops the deletion before anything is removed.
  server->calls.clear();
  server->queueResult(results[0]);
  server->queueResult(results[1]);
  server->failNext("ExecuteQuery", 0);
  server->failNext("ExecuteQuery", 0);
  server->failNext("ExecuteQuery", 0x7C);
  EXPECT_EQ(MVDeleteBook(1, 5, "admin"), -1);
  EXPECT_EQ(server->count("DeleteDatabase") + server->count("DeleteRecord"), 0);
  EXPECT_EQ(server->calls.back().text(), "SetMutex(5, 2)");
}

TEST_F(BookLifeRecorded, ATooLongTemplateNameStopsTheReadingOfACover) {
  const std::string name63(63, 'r');
  CoverInfo cover = makeCover("old");
  server->queueResult({{"KEY=Reserve\t2\t" + name63, "KEY=SiteName\t2\tnew"}});
  server->queueResult(
      {{"KEY=Year\t2\tR6", "KEY=Reserve\t2\t" + name63 + "x", "KEY=SiteName\t2\tx"}});
  ASSERT_EQ(MVGetCoverInfo(5, &cover), 0);
  EXPECT_THAT(shown, IsEmpty());
  ASSERT_EQ(MVGetCoverInfo(5, &cover), 0);
  EXPECT_THAT(std::vector<std::string>({cover.Reserve, cover.SiteName, cover.Year}),
              ElementsAre(name63, "new", "R6"));
  EXPECT_THAT(shown, ElementsAre("雛形工事Book名が長すぎます"));
  // No such book: -1 without a code. An empty book table: 0, the buffer untouched.
  mv::connection().lastError = 77;
  EXPECT_EQ(MVGetCoverInfo(6, &cover), -1);
  EXPECT_EQ(mv::connection().lastError, 77);
  ASSERT_EQ(MVGetBookDBCoverInfo("BOOK0101000000", &cover), 0);
  EXPECT_STREQ(cover.SiteName, "new");
}

}  // namespace
}  // namespace mvtest
