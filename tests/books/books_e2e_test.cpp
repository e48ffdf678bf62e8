// Shelves and books against the server in this process and a daemon on loopback, each on a fresh
// data folder: a book told by its four pieces (database, book row, central row, shelf link),
// names, permissions, searches and display order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <thread>

#include "books/books.h"
#include "books/covers.h"
#include "books_fixture.h"
#include "frame/connection.h"
#include "live_server.h"
#include "rpc/remote_book_server.h"
#include "server/core/book_server.h"
#include "server/sqlite/sqlite_engine.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAre;
using Names = std::vector<std::string>;

class BooksEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    if (HasFatalFailure()) return;
    MVSetCodePage("UTF-8");
    catchMessages(&shown);
    ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  }
  void TearDown() override {
    releaseMessages();
    MVSetCodePage("CP932");
    LiveServerTest::TearDown();
  }
  int32_t shelf(const char* name) {
    int32_t id = -1;
    EXPECT_EQ(MVCreateBookshelf(name, "admin", &id), 0) << name;
    return id;
  }
  // A book's database is named after the second it is made in: one second per book.
  int inOwnSecond(const std::function<int()>& make) {
    static std::time_t last = 0;
    while (std::time(nullptr) <= last) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const int result = make();
    last = std::time(nullptr);
    return result;
  }
  int32_t book(const char* shelfName, CoverInfo& cover) {
    int32_t id = -1;
    EXPECT_EQ(inOwnSecond([&] { return MVCreateBook(shelfName, 0, &cover, &id); }), 0);
    return id;
  }
  // A book's central row and link without its database: enough for lists and searches.
  int32_t bookRows(int32_t shelfId, const CoverInfo& cover) {
    int32_t id = -1;
    EXPECT_EQ(mv::addCentralRow(cover, &id), 1);
    EXPECT_EQ(mv::addLink(shelfId, id), 1);
    return id;
  }
  std::string pieces(int32_t bookId, const char* dbName) {
    std::string have;
    int32_t exists = -1, shelfId = -1;
    CoverInfo own{}, central{};
    EXPECT_EQ(MVIsExistDB(dbName, &exists), 0);
    if (exists == 1) have += "database, ";
    if (exists == 1 && MVGetBookDBCoverInfo(dbName, &own) == 0 && own.BookName[0] != '\0') {
      have += "book row, ";
    }
    if (MVGetCoverInfo(bookId, &central) == 0) have += "central row, ";
    EXPECT_EQ(MVGetBookExistBSID(bookId, &shelfId), 0);
    if (shelfId != 0) have += "shelf " + std::to_string(shelfId);
    return have;
  }
  Names shelfNames() {
    ShelfEntry* list = nullptr;
    int32_t count = 0;
    EXPECT_EQ(MVGetAllBookshelf(&list, &count), 0);
    Names names;
    for (int32_t i = 0; i < count; ++i) names.emplace_back(list[i].BookShelfName);
    MVGlobalFree(MVGlobalHandle(list));
    return names;
  }
  Names booksOn(int32_t shelfId) {
    CoverInfo* list = nullptr;
    int32_t count = -1;
    EXPECT_EQ(MVGetAllCoverInfoInBS(shelfId, &list, &count), 0);
    Names names;
    for (int32_t i = 0; i < count; ++i) names.emplace_back(list[i].SiteName);
    if (list != nullptr) MVGlobalFree(MVGlobalHandle(list));
    return names;
  }
  std::vector<std::string> shown;
};
MVCORE_ON_BOTH_SERVERS(BooksEndToEnd);

TEST_P(BooksEndToEnd, ABookIsMadeChangedDiscardedBroughtBackAndEndedPieceByPiece) {
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
  EXPECT_THAT(Names({central.SiteName, own.SiteName, central.MakeDate, own.MakeDate}),
              ElementsAre("Riverside east", "Riverside east", cover.MakeDate, cover.MakeDate));
  EXPECT_THAT(std::vector({central.T_Index, central.BookVer, own.T_Index, own.BookVer}),
              ElementsAre(id, 4, 0, 9));

  // Another client's mutex or a missing permission stops a deletion.
  mv::IBookServer* other = nullptr;
  ASSERT_EQ(remote()
                ? mv::rpc::connectRemote(host(), &other)
                : mv::server::connectEmbedded(dataFolder(), mv::server::openSqliteEngine, &other),
            0);
  ASSERT_EQ(other->SetMutex(mv::toWide(std::to_string(id)).get(), 1), 0);
  EXPECT_EQ(MVDeleteBook(site, id, "admin"), -1);
  EXPECT_EQ(mv::connection().lastError, 1);
  other->Release();  // its mutexes end with it
  int32_t taro = 0;
  ASSERT_EQ(MVRegistUser("taro", "t", &taro), 0);
  EXPECT_EQ(MVDeleteBook(site, id, "taro"), -1);
  EXPECT_EQ(MVDeleteBook(site, id, "nobody"), -1);
  EXPECT_EQ(pieces(id, db.c_str()), onSite);

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

TEST_P(BooksEndToEnd, CopiesAreWholeBooksAndOnlyTheirOwnCoverGetsANewDate) {
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

TEST_P(BooksEndToEnd, ShelfNamesAreBytesAndOnlyAnEmptyShelfIsDeletedByAUserWhoMayWrite) {
  const int32_t upper = shelf("Bridge");
  shelf("bridge");
  const int32_t quoted = shelf("O'Brien's yard");
  mv::connection().lastError = 77;
  int32_t again = -5;
  EXPECT_EQ(MVCreateBookshelf("O'Brien's yard", "admin", &again), -1);  // refused silently
  EXPECT_EQ(again, -5);
  EXPECT_EQ(mv::connection().lastError, 77);
  ASSERT_EQ(MVChangeBookshelfName("bridge", upper, 0), 0);  // a rename is not checked
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "bridge", "bridge", "O'Brien's yard"));
  ASSERT_EQ(MVDeleteBookshelf("O'Brien's yard", "admin"), 0);
  int32_t rows = -1;
  ASSERT_EQ(MVIsExistBS(quoted, &rows), 0);
  EXPECT_EQ(rows, 0);
  int32_t counter = 0;  // a name whose server counter is above 0 cannot be used
  ASSERT_EQ(MVSetCounter("Culvert", 1, &counter), 0);
  EXPECT_EQ(MVCreateBookshelf("Culvert", "admin", &again), -1);
  EXPECT_THAT(shown, IsEmpty());

  bookRows(shelf("Full"), makeCover("Pier"));
  const int32_t empty = shelf("Empty");
  EXPECT_EQ(MVDeleteBookshelf("Full", "admin"), -1);
  EXPECT_EQ(MVDeleteBookshelf("Nowhere", "admin"), -1);
  EXPECT_THAT(shown, ElementsAre("指定の本棚には本が存在します", "指定の本棚は登録されていません"));
  int32_t taro = 0;
  ASSERT_EQ(MVRegistUser2("taro", "t", &taro), 0);  // "neither" on every shelf but the discard
  EXPECT_EQ(shelfPower(empty, taro), 2);
  EXPECT_EQ(MVDeleteBookshelf("Empty", "taro"), -1);
  ASSERT_EQ(MVDeleteBookshelf("Empty", "admin"), 0);
  EXPECT_EQ(shelfPower(empty, taro), 0);  // its permission rows went with it
  EXPECT_EQ(shown.size(), 2u);
}

TEST_P(BooksEndToEnd, NewShelvesStartWithTheirOwnersPermissionAndFollowTheirOrder) {
  int32_t taro = 0, jiro = 0, open = 0, closed = 0, copy = 0;
  ASSERT_EQ(MVRegistUser("taro", "t", &taro), 0);
  ASSERT_EQ(MVRegistUser("jiro", "j", &jiro), 0);
  ASSERT_EQ(MVCreateBookshelf("Open", "taro", &open), 0);
  ASSERT_EQ(MVCreateBookshelf2("Closed", "taro", &closed), 0);
  // The named user gets 1 whatever the source said; the others keep the source's values.
  ASSERT_EQ(MVCopyBookshelfSurface("Copy", closed, "jiro", &copy), 0);
  EXPECT_THAT(
      std::vector({shelfPower(open, taro), shelfPower(open, jiro), shelfPower(closed, taro),
                   shelfPower(closed, jiro), shelfPower(copy, taro), shelfPower(copy, jiro)}),
      ElementsAre(1, 0, 1, 2, 1, 1));
  EXPECT_EQ(MVCreateBookshelf("Orphan", "nobody", &open), -1);  // made, without an owner
  bookRows(closed, makeCover("Dam"));
  // Without OrderNo the ordered query fails, silently, and the plain one lists by T_Index.
  mv::connection().lastError = 77;
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "Open", "Closed", "Copy", "Orphan"));
  EXPECT_EQ(mv::connection().lastError, 77);
  // Once ordered the discard shelf comes first and unplaced shelves last.
  const OrderEntry order[] = {{copy, 1}, {closed, 2}, {1, 5}};
  ASSERT_EQ(MVSetBookShelfOrder(order, 3), 0);
  ShelfEntry* list = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetAllBookshelf(&list, &count), 0);
  ASSERT_EQ(count, 5);
  EXPECT_THAT(Names({list[0].BookShelfName, list[1].BookShelfName, list[2].BookShelfName,
                     list[3].BookShelfName, list[4].BookShelfName}),
              ElementsAre("ゴミ箱", "Copy", "Closed", "Open", "Orphan"));
  EXPECT_THAT(std::vector({list[0].Attribute, list[1].BookCount, list[2].BookCount}),
              ElementsAre(1, 0, 1));
  MVGlobalFree(MVGlobalHandle(list));

  // Books follow their positions; moved or new books come last.
  const int32_t a = bookRows(open, makeCover("A"));
  bookRows(open, makeCover("B"));
  const int32_t c = bookRows(open, makeCover("C"));
  EXPECT_THAT(booksOn(open), ElementsAre("A", "B", "C"));  // no OrderNo yet: by link
  const OrderEntry books[] = {{c, 1}, {a, 2}, {9999, 0}};  // an unknown book changes nothing
  ASSERT_EQ(MVSetBookOrder(open, books, 3), 0);
  EXPECT_THAT(booksOn(open), ElementsAre("C", "A", "B"));
  ASSERT_EQ(MVMoveBook(open, copy, c, 0), 0);
  ASSERT_EQ(MVMoveBook(copy, open, c, 0), 0);
  bookRows(open, makeCover("D"));
  EXPECT_THAT(booksOn(open), ElementsAre("A", "B", "C", "D"));
  ASSERT_EQ(MVGetBookCntInBS(open, &count), 0);
  EXPECT_EQ(count, 4);
}

TEST_P(BooksEndToEnd, SearchesFindEverySubjectTheJoinsAndThePeriodsThatOverlapTheWorks) {
  const int32_t site = shelf("Site");
  CoverInfo harbour = makeCover("Harbour wall", "20240401", "20240930");
  const auto set = [](auto& field, const char* value) {
    mv::copyToField(field, sizeof field, value);
  };
  set(harbour.OrderName, "Port authority");
  set(harbour.Spot, "Sato");
  set(harbour.Year, "R6");
  set(harbour.BookNo, "No-1");
  set(harbour.SitePosition, "Quay 3");
  set(harbour.ContractCompany, "Seaside Works");
  set(harbour.Prefectual, "General");
  set(harbour.Access, "Heavy");
  set(harbour.Reserve, "標準");
  harbour.BookVer = 4;
  bookRows(site, harbour);
  CoverInfo bridge = makeCover("O'Neill's bridge", "20230101", "20231231");
  set(bridge.OrderName, "City office");
  set(bridge.Spot, "Ito");
  bridge.StatureColor = 0xFF0000;
  bookRows(site, bridge);

  // The site names found; what every search leaves out is checked on the way.
  const auto found = [](int result, CoverInfo* list, int32_t count, bool withBookNo) {
    EXPECT_EQ(result, 0);
    EXPECT_EQ(count == 0, list == nullptr);
    Names names;
    for (int32_t i = 0; i < count; ++i) {
      names.emplace_back(list[i].SiteName);
      EXPECT_EQ(list[i].BookVer, 0);
      EXPECT_STREQ(list[i].Reserve, "");
      EXPECT_EQ(list[i].BookNo[0] != '\0', withBookNo && names.back() == "Harbour wall");
    }
    if (list != nullptr) MVGlobalFree(MVGlobalHandle(list));
    return names;
  };
  const auto simple = [&](int32_t kind, const char* value, int32_t exact) {
    CoverInfo* list = nullptr;
    int32_t count = -1;
    const int result = MVSearchBook(kind, value, exact, &list, &count);
    return found(result, list, count, false);
  };
  EXPECT_THAT(simple(1, "Harbour wall", 1), ElementsAre("Harbour wall"));
  EXPECT_THAT(simple(1, "Harbour", 1), IsEmpty());
  EXPECT_THAT(simple(1, "O'Neill", 0), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(2, "City office", 1), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(2, "authority", 0), ElementsAre("Harbour wall"));
  EXPECT_THAT(simple(4, "Ito", 1), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(8, "20240930", 1), ElementsAre("Harbour wall"));  // either end of the works
  EXPECT_THAT(simple(8, "2023", 0), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(1, "", 0), UnorderedElementsAre("Harbour wall", "O'Neill's bridge"));
  EXPECT_THAT(simple(1, "O%s_bridge", 0), ElementsAre("O'Neill's bridge"));
  CoverInfo* none = nullptr;
  int32_t count = -1;
  EXPECT_EQ(MVSearchBook(16, "R6", 0, &none, &count), -1);

  const auto ex = [&](int16_t join, std::vector<SearchCondition> conditions) {
    CoverInfo* list = nullptr;
    int32_t n = -1;
    const int result =
        MVSearchBookEx(join, conditions.data(), static_cast<int32_t>(conditions.size()), &list, &n);
    return found(result, list, n, true);
  };
  const auto text = [](int32_t kind, const char* value) {
    SearchCondition c{};
    c.kind = kind;
    mv::copyToField(c.text, sizeof c.text, value);
    return c;
  };
  const std::pair<int32_t, const char*> subjects[] = {
      {1, "Harbour"}, {2, "Port"},      {4, "Sato"},      {16, "R6"},    {32, "No-1"},
      {64, "Quay"},   {128, "Seaside"}, {256, "General"}, {512, "Heavy"}};
  for (const auto& [kind, value] : subjects) {
    EXPECT_THAT(ex(1, {text(kind, value)}), ElementsAre("Harbour wall")) << kind;
  }
  SearchCondition color{};
  color.kind = 1024;
  color.color = 0xFF0000;
  EXPECT_THAT(ex(2, {color}), ElementsAre("O'Neill's bridge"));
  color.color = 0;
  EXPECT_THAT(ex(2, {color}), ElementsAre("Harbour wall"));  // 0 is a colour like any other
  EXPECT_THAT(ex(1, {text(1, "Harbour"), text(4, "Ito")}), IsEmpty());
  EXPECT_THAT(ex(2, {text(1, "Harbour"), text(4, "Ito")}),
              UnorderedElementsAre("Harbour wall", "O'Neill's bridge"));

  // The harbour's works run from 1 April to 30 September 2024.
  const struct {
    uint16_t m1, d1, m2, d2;
    bool found;
  } periods[] = {{5, 1, 5, 31, true},   {1, 1, 12, 31, true}, {3, 1, 4, 15, true},
                 {9, 1, 10, 10, true},  {4, 1, 4, 1, true},   {1, 1, 3, 31, false},
                 {10, 1, 10, 31, false}};
  for (const auto& p : periods) {
    SearchCondition c{};
    c.kind = 8;
    c.period.start = {2024, p.m1, 0, p.d1, 0, 0, 0, 0};
    c.period.end = {2024, p.m2, 0, p.d2, 0, 0, 0, 0};
    EXPECT_EQ(ex(1, {c}), p.found ? Names{"Harbour wall"} : Names{}) << p.m1 << "/" << p.d1;
  }
}

}  // namespace
}  // namespace mvtest
