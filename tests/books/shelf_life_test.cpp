// Shelves: names that coexist and names that are refused, who may delete a shelf and when, the
// permissions a new shelf starts with, and the order of the shelf list.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MVCore.h"
#include "books_fixture.h"
#include "frame/connection.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ShelvesEndToEnd : public BooksEndToEnd {};
MVCORE_ON_BOTH_SERVERS(ShelvesEndToEnd);
using ShelvesRecorded = BooksRecorded;

int32_t power(int32_t shelfId, int32_t userId) {
  int32_t value = -9;
  MVGetUserPermissionOfBS(shelfId, userId, &value);
  return value;
}

TEST_P(ShelvesEndToEnd, NamesAreComparedByteForByteAndATakenNameIsRefusedSilently) {
  const int32_t upper = shelf("Bridge");
  shelf("bridge");
  const int32_t quoted = shelf("O'Brien's yard");
  mv::connection().lastError = 77;
  int32_t again = -5;
  EXPECT_EQ(MVCreateBookshelf("O'Brien's yard", "admin", &again), -1);
  EXPECT_EQ(again, -5);
  EXPECT_EQ(mv::connection().lastError, 77);
  ASSERT_EQ(MVChangeBookshelfName("bridge", upper, 0), 0);  // a rename is not checked
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "bridge", "bridge", "O'Brien's yard"));
  ASSERT_EQ(MVDeleteBookshelf("O'Brien's yard", "admin"), 0);
  int32_t rows = -1;
  ASSERT_EQ(MVIsExistBS(quoted, &rows), 0);
  EXPECT_EQ(rows, 0);
  // A name whose server counter is above 0 cannot be used.
  int32_t counter = 0;
  ASSERT_EQ(MVSetCounter("Culvert", 1, &counter), 0);
  EXPECT_EQ(MVCreateBookshelf("Culvert", "admin", &again), -1);
  EXPECT_THAT(shown, IsEmpty());
}

TEST_P(ShelvesEndToEnd, OnlyAnEmptyShelfIsDeletedAndOnlyByAUserWhoMayWrite) {
  bookRows(shelf("Full"), makeCover("Pier"));
  const int32_t empty = shelf("Empty");
  EXPECT_EQ(MVDeleteBookshelf("Full", "admin"), -1);
  EXPECT_EQ(MVDeleteBookshelf("Nowhere", "admin"), -1);
  EXPECT_THAT(shown, ElementsAre("指定の本棚には本が存在します", "指定の本棚は登録されていません"));
  int32_t taro = 0;
  ASSERT_EQ(MVRegistUser2("taro", "t", &taro), 0);  // "neither" on every shelf but the discard
  EXPECT_EQ(power(empty, taro), 2);
  EXPECT_EQ(MVDeleteBookshelf("Empty", "taro"), -1);
  ASSERT_EQ(MVDeleteBookshelf("Empty", "admin"), 0);
  EXPECT_EQ(power(empty, taro), 0);  // its permission rows went with it
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "Full"));
  EXPECT_EQ(shown.size(), 2u);
}

TEST_P(ShelvesEndToEnd, NewShelvesStartWithTheirOwnersPermissionOrACopyOfAnothers) {
  int32_t taro = 0, jiro = 0, open = 0, closed = 0, copy = 0;
  ASSERT_EQ(MVRegistUser("taro", "t", &taro), 0);
  ASSERT_EQ(MVRegistUser("jiro", "j", &jiro), 0);
  ASSERT_EQ(MVCreateBookshelf("Open", "taro", &open), 0);
  ASSERT_EQ(MVCreateBookshelf2("Closed", "taro", &closed), 0);
  // The named user gets 1 whatever the source said; the others keep the source's values.
  ASSERT_EQ(MVCopyBookshelfSurface("Copy", closed, "jiro", &copy), 0);
  EXPECT_THAT(std::vector({power(open, taro), power(open, jiro), power(closed, taro),
                           power(closed, jiro), power(copy, taro), power(copy, jiro)}),
              ElementsAre(1, 0, 1, 2, 1, 1));
  EXPECT_EQ(MVCreateBookshelf("Orphan", "nobody", &open), -1);  // made, without an owner
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "Open", "Closed", "Copy", "Orphan"));
}

TEST_P(ShelvesEndToEnd, OnceOrderedTheDiscardShelfComesFirstAndUnplacedShelvesLast) {
  const int32_t a = shelf("A");
  shelf("B");
  const int32_t c = shelf("C");
  bookRows(c, makeCover("Dam"));
  // Without OrderNo the ordered query fails, silently, and the plain one lists by T_Index.
  mv::connection().lastError = 77;
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "A", "B", "C"));
  EXPECT_EQ(mv::connection().lastError, 77);
  const OrderEntry order[] = {{c, 1}, {a, 2}, {1, 5}};
  ASSERT_EQ(MVSetBookShelfOrder(order, 3), 0);
  EXPECT_THAT(shelfNames(), ElementsAre("ゴミ箱", "C", "A", "B"));
  ShelfEntry* list = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetAllBookshelf(&list, &count), 0);
  ASSERT_EQ(count, 4);
  EXPECT_THAT(std::vector({list[0].Attribute, list[1].BookCount, list[2].BookCount}),
              ElementsAre(1, 1, 0));
  MVGlobalFree(MVGlobalHandle(list));
}

TEST_F(ShelvesRecorded, AShelfIsAddedThroughTheNameQueryAfterTheCounterAndTheNameAreTested) {
  server->queueResult({});                        // no shelf of that name
  server->queueResult({userRow(3, "admin", 0)});  // the owner
  int32_t id = 0;
  ASSERT_EQ(MVCreateBookshelf("Jo's", "admin", &id), 0);
  EXPECT_EQ(id, 100);
  EXPECT_EQ(server->log().substr(0, server->log().find("ExecuteQuery(MarvekSystemCommonDB, "
                                                       "UserInfoTBL")),
            "SetCounter(Jo's, 0)\n"
            "ExecuteQuery(MarvekSystemCommonDB, BookShelfTBL, SELECT * FROM BookShelfTBL WHERE "
            "CONVERT(varbinary(100), BookShelfName)=CONVERT(varbinary(100), 'Jo''s'), 0)\n"
            "AddRecord(MarvekSystemCommonDB, [TABLENAME=H1|KEY=T_Index\t1\t0|KEY=Attribute\t1\t0|"
            "KEY=BookShelfName\t2\tJo's], 1)\n"
            "CloseTable(MarvekSystemCommonDB, H1)\n");
  // A counter above 0 stops at once; a failing counter leaves its code.
  server->calls.clear();
  server->counters["Jo's"] = 1;
  EXPECT_EQ(MVCreateBookshelf("Jo's", "admin", &id), -1);
  server->failNext("SetCounter", 0x41);
  EXPECT_EQ(MVCreateBookshelf("Jo's", "admin", &id), -1);
  EXPECT_EQ(mv::connection().lastError, 0x41);
  EXPECT_THAT(server->methods(), ElementsAre("SetCounter", "SetCounter"));
}

TEST_F(ShelvesRecorded, AnEmptyShelfTableLeavesTheListAlone) {
  server->queueResult({});
  auto* const untouched = reinterpret_cast<ShelfEntry*>(this);
  ShelfEntry* list = untouched;
  int32_t count = -3;
  ASSERT_EQ(MVGetAllBookshelf(&list, &count), 0);
  EXPECT_EQ(list, untouched);
  EXPECT_EQ(count, -3);
}

}  // namespace
}  // namespace mvtest
