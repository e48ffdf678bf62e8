// Display order on tables with and without OrderNo.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MVCore.h"
#include "books_fixture.h"
#include "frame/connection.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

class OrderEndToEnd : public BooksEndToEnd {};
MVCORE_ON_BOTH_SERVERS(OrderEndToEnd);
using OrderRecorded = BooksRecorded;

TEST_P(OrderEndToEnd, BooksFollowTheirPositionsAndMovedOrNewBooksComeLast) {
  const int32_t site = shelf("Site");
  const int32_t other = shelf("Other");
  const int32_t a = bookRows(site, makeCover("A"));
  bookRows(site, makeCover("B"));
  const int32_t c = bookRows(site, makeCover("C"));
  EXPECT_THAT(booksOn(site), ElementsAre("A", "B", "C"));  // no OrderNo yet: by link
  const OrderEntry order[] = {{c, 1}, {a, 2}, {9999, 0}};  // an unknown book changes nothing
  ASSERT_EQ(MVSetBookOrder(site, order, 3), 0);
  EXPECT_THAT(booksOn(site), ElementsAre("C", "A", "B"));
  ASSERT_EQ(MVMoveBook(site, other, c, 0), 0);
  ASSERT_EQ(MVMoveBook(other, site, c, 0), 0);
  bookRows(site, makeCover("D"));
  EXPECT_THAT(booksOn(site), ElementsAre("A", "B", "C", "D"));
  int32_t count = -1;
  ASSERT_EQ(MVGetBookCntInBS(site, &count), 0);
  EXPECT_EQ(count, 4);
}

TEST_F(OrderRecorded, TheColumnIsAddedOnlyWhenMissingAndTheOrderGoesInOneTransaction) {
  const OrderEntry entries[] = {{3, 10}, {1, 20}};
  server->answerAlways("CheckColumn", 14);
  ASSERT_EQ(MVSetBookShelfOrder(entries, 2), 0);
  EXPECT_EQ(server->log(),
            "CheckColumn(MarvekSystemCommonDB, BookShelfTBL, OrderNo)\n"
            "ExecuteSQL(MarvekSystemCommonDB, BEGIN TRAN T1;"
            "UPDATE BookShelfTBL SET OrderNo=10 WHERE T_Index=3;"
            "UPDATE BookShelfTBL SET OrderNo=20 WHERE T_Index=1;"
            "UPDATE BookShelfTBL SET OrderNo=-1 WHERE Attribute=1;COMMIT TRAN T1;)\n");

  // A failing ALTER is not looked at; the batch's status is the result, lastError untouched.
  server->calls.clear();
  server->answerAlways("CheckColumn", 0x1002);
  server->failNext("ExecuteSQL", 0x66);
  server->failNext("ExecuteSQL", 0x55);
  mv::connection().lastError = 77;
  EXPECT_EQ(MVSetBookOrder(7, entries, 1), 0x55);
  EXPECT_EQ(mv::connection().lastError, 77);
  EXPECT_EQ(server->log(),
            "CheckColumn(MarvekSystemCommonDB, BookShelfInfoTBL, OrderNo)\n"
            "ExecuteSQL(MarvekSystemCommonDB, ALTER TABLE BookShelfInfoTBL ADD OrderNo int "
            "DEFAULT 2147483647 NOT NULL;)\n"
            "ExecuteSQL(MarvekSystemCommonDB, BEGIN TRAN T1;"
            "UPDATE BookShelfInfoTBL SET OrderNo=10 WHERE BookShelfID=7 AND BookID=3;"
            "COMMIT TRAN T1;)\n");

  // Bad arguments are told before the link is looked at.
  server->calls.clear();
  mv::connection().currentServer = nullptr;
  EXPECT_EQ(MVSetBookShelfOrder(nullptr, 1), -4);
  EXPECT_EQ(MVSetBookOrder(7, entries, 0), -4);
  EXPECT_EQ(MVSetBookShelfOrder(entries, 1), -1);
  EXPECT_TRUE(server->calls.empty());
}

}  // namespace
}  // namespace mvtest
