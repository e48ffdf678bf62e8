// The view tables and the tag attributes against a recording server: which calls a held database
// saves, what each injected failure returns, list protocols after a failed row, and field cuts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "contents_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using Methods = std::vector<std::string>;
using ViewsRecorded = ContentsRecorded;

std::vector<std::string> manageRow(int index, const std::string& name, int offer) {
  return {element("T_Index", 1, std::to_string(index)), element("ViewName", 2, name),
          element("OfferInfo", 1, std::to_string(offer))};
}

TEST_F(ViewsRecorded, AnAddClosesWhatItOpenedOnEveryOutcome) {
  ViewAttributeRecord attr{0, "Span", 2, 0, 9};
  server->queueResult({manageRow(40, "x", 0)});  // the key exists: 126, nothing added
  EXPECT_EQ(MVAddViewAttribute(&attr), 0x7E);
  EXPECT_EQ(mv::connection().lastError, 0x7E);
  EXPECT_EQ(server->methods(),
            Methods({"OpenDatabase", "ExecuteQuery", "CloseTable", "CloseDatabase"}));
  // Held by MVOpenDB: nothing opens or closes it; a table that cannot be made gives the code.
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  server->calls.clear();
  ViewManageRecord view{0, "Main", 0};
  server->failNext("ExecuteQuery", 0x1F);
  server->failNext("OpenTable", 0x20);
  EXPECT_EQ(MVAddViewManage(&view), 0x20);
  EXPECT_EQ(view.T_Index, 0);
  EXPECT_EQ(server->methods(), Methods({"ExecuteQuery", "CreateTable", "OpenTable"}));
  server->calls.clear();
  ASSERT_EQ(MVAddViewManage(&view), 0);
  EXPECT_EQ(server->methods(), Methods({"ExecuteQuery", "AddRecord", "CloseTable"}));
}

TEST_F(ViewsRecorded, UpdateGetAndDeleteKeepTheFieldAndGiveTheServersCode) {
  ViewItemRecord item{8, 2, 0, "", "", 0};
  std::string name;  // 64 bytes without a terminator: sent cut to 63 at a character boundary
  for (int i = 0; i < 22; ++i) name += "あ";
  std::memcpy(item.ItemName, name.data(), sizeof item.ItemName);
  ASSERT_EQ(MVUpdateViewItem(&item), 0);
  EXPECT_THAT(server->argsOf("UpdateRecord", 1).at(0),
              ::testing::HasSubstr("|KEY=ItemName\t2\t" + name.substr(0, 63) + "|"));
  server->failNext("ExecuteQuery", 0x21);
  EXPECT_EQ(MVUpdateViewItem(&item), 0x21);  // no table is made for an update
  EXPECT_EQ(server->count("CreateTable"), 0);

  // Names match without regard to case, only the table's columns count; the rest stays.
  ViewDataRecord data{};
  data.SortNo = 77;
  server->queueResult(
      {{element("t_index", 1, "5"), element("VIEWMANAGEID", 1, "6"), element("Other", 1, "1"),
        element("ViewAttriID", 1, "7"), element("SortNo", 1, "8")}});
  ASSERT_EQ(MVGetViewData(5, &data), 0);
  EXPECT_THAT(std::vector({data.T_Index, data.ViewManageID, data.ViewAttriID, data.SortNo}),
              ElementsAre(5, 6, 7, 77));
  server->failNext("GetRecords", 0x22);
  EXPECT_EQ(MVGetViewData(5, &data), 0x22);
  EXPECT_EQ(data.T_Index, 5);
  server->failNext("DeleteRecord", 0x23);
  EXPECT_EQ(MVDeleteViewData(5), 0x23);
}

TEST_F(ViewsRecorded, ListsStopOrSkipAtAFailedRowAndNeverWritePastTheRows) {
  const RecordingServer::ResultRows two = {manageRow(1, "A", 0), manageRow(2, "B", 1)};
  ViewManageRecord views[3];
  std::memset(views, 0x5A, sizeof views);
  int32_t count = 3;
  server->queueResult(two);
  ASSERT_EQ(MVGetViewManageList(views, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(views[1].ViewName, "B");
  EXPECT_EQ(views[2].T_Index, 0x5A5A5A5A);  // beyond the rows: untouched
  server->queueResult(two);  // stops at a failed row with its code; count holds the rows read
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", 0x24);
  count = 3;
  EXPECT_EQ(MVGetViewManageList(views, &count), 0x24);
  EXPECT_EQ(count, 1);
  // Items leave a failed row out.
  server->queueResult(
      {{element("T_Index", 1, "1")}, {element("T_Index", 1, "2")}, {element("T_Index", 1, "3")}});
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", 0x25);
  ViewItemRecord items[3] = {};
  count = 3;
  ASSERT_EQ(MVGetViewItemList(4, items, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(items[1].T_Index, 3);
  server->failNext("ExecuteQuery", 0x26);
  EXPECT_EQ(MVGetViewItemList(4, items, &count), 0x26);

  // Without a link every view export gives 103 and the tag attributes -1.
  mv::connection().currentServer = nullptr;
  server->calls.clear();
  ViewAttributeRecord attr{};
  EXPECT_EQ(MVAddViewAttribute(&attr), 0x67);
  EXPECT_EQ(MVGetViewItemList(1, nullptr, &count), 0x67);
  EXPECT_EQ(MVDeleteViewData(1), 0x67);
  EXPECT_EQ(MVAddTagAttribute("BOOK1", nullptr), -1);
  EXPECT_EQ(mv::connection().lastError, 0x67);
  EXPECT_TRUE(server->calls.empty());
}

TEST_F(ViewsRecorded, TagAttributesReturnMinusOneWithTheCodeInLastError) {
  TagAttributeRecord value{0, 10, 40, "12.5m"};
  ASSERT_EQ(MVOpenDBEx("BOOK1"), 0);  // held: no database calls; an existing key: -1 and 126
  server->calls.clear();
  server->queueResult({{element("T_Index", 1, "300")}});
  EXPECT_EQ(MVAddTagAttribute("BOOK1", &value), -1);
  EXPECT_EQ(mv::connection().lastError, 0x7E);
  EXPECT_EQ(server->methods(), Methods({"ExecuteQuery", "CloseTable"}));
  // Too small a list: 100 in lastError with the count; a failed row ends it without a failure.
  const RecordingServer::ResultRows rows = {
      {element("T_Index", 1, "300"), element("value", 2, "12.5m")}, {element("T_Index", 1, "301")}};
  server->queueResult(rows);
  int32_t count = 1;
  TagAttributeRecord list[2] = {};
  EXPECT_EQ(MVGetTagAttributeList("BOOK1", 10, list, &count), -1);
  EXPECT_EQ(mv::connection().lastError, 0x64);
  EXPECT_EQ(count, 2);
  server->queueResult(rows);
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", 0x27);
  ASSERT_EQ(MVGetTagAttributeList("BOOK1", 10, list, &count), 0);
  EXPECT_EQ(count, 1);
  EXPECT_STREQ(list[0].Value, "12.5m");
  EXPECT_EQ(mv::connection().lastError, 0);
  // A missing table fails the list and the delete with the server's code and makes nothing.
  server->calls.clear();
  server->failNext("ExecuteQuery", 0x1F, 2);
  EXPECT_EQ(MVGetTagAttributeList("BOOK1", 10, list, &count), -1);
  EXPECT_EQ(MVDeleteTagAttribute("BOOK1", 300), -1);
  EXPECT_EQ(mv::connection().lastError, 0x1F);
  EXPECT_EQ(server->count("CreateTable"), 0);
  server->failNext("UpdateRecord", 0x28);
  EXPECT_EQ(MVUpdateTagAttribute("BOOK1", &value), -1);
  EXPECT_EQ(mv::connection().lastError, 0x28);
}

}  // namespace
}  // namespace mvtest
