// The view tables and the tag attributes against a recording server: the codes 100, 103 and 126,
// tables made on first use, list protocols, and the calls with and without a held database.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "MVCore.h"
#include "frame/connection.h"
#include "platform/codepage.h"
#include "tags_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

constexpr char kSys[] = "MarvekSystemCommonDB";
using ViewsRecorded = ContentsRecorded;

std::vector<std::string> manageRow(int index, const std::string& name, int offer) {
  return {element("T_Index", 1, std::to_string(index)), element("ViewName", 2, name),
          element("OfferInfo", 1, std::to_string(offer))};
}

TEST_F(ViewsRecorded, AnAddMakesAMissingTableRefusesAnExistingKeyAndStoresTheNewOne) {
  ViewAttributeRecord attr{};
  attr.T_Index = 0;
  mv::copyToField(attr.AttributeName, sizeof attr.AttributeName, "Span");
  attr.AttributeType = 2;
  attr.ELLinkID = 9;
  server->failNext("ExecuteQuery", 0x1F);  // no such table
  server->nextIndex = 40;
  ASSERT_EQ(MVAddViewAttribute(&attr), 0);
  EXPECT_EQ(attr.T_Index, 40);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->log(),
            "OpenDatabase(MarvekSystemCommonDB, 0)\n"
            "ExecuteQuery(MarvekSystemCommonDB, ViewAttributeTBL, SELECT * FROM ViewAttributeTBL "
            "WHERE T_Index='0', 0)\n"
            "CreateTable(MarvekSystemCommonDB, ViewAttributeTBL, 32)\n"
            "OpenTable(MarvekSystemCommonDB, ViewAttributeTBL, 0)\n"
            "AddRecord(MarvekSystemCommonDB, [TABLENAME=H1|KEY=T_Index\t1\t0|KEY=AttributeName\t2\t"
            "Span|KEY=AttributeType\t1\t2|KEY=OfferInfo\t1\t0|KEY=ELLinkID\t1\t9], 1)\n"
            "CloseTable(MarvekSystemCommonDB, H1)\nCloseDatabase(MarvekSystemCommonDB)\n");

  // The key exists: 126, nothing added, all closed; the record keeps its key.
  server->calls.clear();
  server->queueResult({manageRow(40, "x", 0)});
  EXPECT_EQ(MVAddViewAttribute(&attr), 0x7E);
  EXPECT_EQ(mv::connection().lastError, 0x7E);
  EXPECT_EQ(attr.T_Index, 40);
  EXPECT_EQ(server->methods(), (std::vector<std::string>{"OpenDatabase", "ExecuteQuery",
                                                         "CloseTable", "CloseDatabase"}));

  // While MVOpenDB holds the system database nothing here opens or closes it; the select's
  // handle writes the row; the table cannot be made: the open's code.
  ASSERT_EQ(MVOpenDB(kSys), 0);
  server->calls.clear();
  ViewManageRecord view{};
  mv::copyToField(view.ViewName, sizeof view.ViewName, "Main");
  server->failNext("ExecuteQuery", 0x1F);
  server->failNext("OpenTable", 0x20);
  EXPECT_EQ(MVAddViewManage(&view), 0x20);
  EXPECT_EQ(view.T_Index, 0);
  EXPECT_EQ(server->methods(),
            (std::vector<std::string>{"ExecuteQuery", "CreateTable", "OpenTable"}));
  server->calls.clear();
  ASSERT_EQ(MVAddViewManage(&view), 0);
  EXPECT_EQ(server->methods(),
            (std::vector<std::string>{"ExecuteQuery", "AddRecord", "CloseTable"}));
  EXPECT_EQ(server->calls[1].args[1],
            "[TABLENAME=H3|KEY=T_Index\t1\t0|KEY=ViewName\t2\tMain|"
            "KEY=OfferInfo\t1\t0]");
}

TEST_F(ViewsRecorded, UpdateGetAndDeleteWorkOnTheSelectedKey) {
  ViewItemRecord item{};
  item.T_Index = 8;
  item.ViewAttriID = 2;
  // 64 bytes without a terminator: sent cut to 63 at a character boundary (21 × 3 bytes).
  std::string name;
  for (int i = 0; i < 22; ++i) name += "あ";
  std::memcpy(item.ItemName, name.data(), sizeof item.ItemName);
  ASSERT_EQ(MVUpdateViewItem(&item), 0);
  EXPECT_EQ(server->calls[2].text(),
            "UpdateRecord(MarvekSystemCommonDB, [TABLENAME=H1|KEY=T_Index\t1\t8|KEY=ViewAttriID\t1"
            "\t2|KEY=ViewItemID\t1\t0|KEY=ItemName\t2\t" +
                name.substr(0, 63) + "|KEY=ItemName2\t2\t|KEY=SortNo\t1\t0], 1, 8)");
  server->failNext("ExecuteQuery", 0x21);
  EXPECT_EQ(MVUpdateViewItem(&item), 0x21);  // no table is made for an update
  EXPECT_EQ(server->count("CreateTable"), 0);

  // Get: names match without regard to case, only the table's first columns count, a long text
  // is cut; the rest of the record stays.
  ViewDataRecord data{};
  data.SortNo = 77;
  server->queueResult(
      {{element("t_index", 1, "5"), element("VIEWMANAGEID", 1, "6"), element("Other", 1, "1"),
        element("ViewAttriID", 1, "7"), element("SortNo", 1, "8")}});
  ASSERT_EQ(MVGetViewData(5, &data), 0);
  EXPECT_EQ(data.T_Index, 5);
  EXPECT_EQ(data.ViewManageID, 6);
  EXPECT_EQ(data.ViewAttriID, 7);
  EXPECT_EQ(data.SortNo, 77);  // fifth element: beyond the table's four columns
  server->failNext("GetRecords", 0x22);
  EXPECT_EQ(MVGetViewData(5, &data), 0x22);
  EXPECT_EQ(data.T_Index, 5);

  server->calls.clear();
  ASSERT_EQ(MVDeleteViewData(5), 0);
  EXPECT_EQ(server->log(),
            "OpenDatabase(MarvekSystemCommonDB, 0)\n"
            "ExecuteQuery(MarvekSystemCommonDB, ViewDataTBL, SELECT * FROM ViewDataTBL WHERE "
            "T_Index='5', 0)\n"
            "DeleteRecord(MarvekSystemCommonDB, H4, 5)\n"
            "CloseTable(MarvekSystemCommonDB, H4)\nCloseDatabase(MarvekSystemCommonDB)\n");
  server->failNext("DeleteRecord", 0x23);
  EXPECT_EQ(MVDeleteViewData(5), 0x23);
}

TEST_F(ViewsRecorded, ListsTellTheSizeFirstAndDifferInWhatTheyReadAndAfterAFailedRow) {
  // Whole table, made on the way; count 0 learns the size, nothing is read.
  server->queueResult({manageRow(1, "A", 0), manageRow(2, "B", 1)});
  int32_t count = 0;
  EXPECT_EQ(MVGetViewManageList(nullptr, &count), 0x64);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(server->log(),
            "OpenDatabase(MarvekSystemCommonDB, 0)\n"
            "CreateTable(MarvekSystemCommonDB, ViewManageTBL, 34)\n"
            "OpenTable(MarvekSystemCommonDB, ViewManageTBL, 0)\n"
            "CloseTable(MarvekSystemCommonDB, H1)\n"
            "CloseDatabase(MarvekSystemCommonDB)\n");
  ViewManageRecord views[3];
  std::memset(views, 0x5A, sizeof views);
  count = 3;
  server->queueResult({manageRow(1, "A", 0), manageRow(2, "B", 1)});
  ASSERT_EQ(MVGetViewManageList(views, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(views[1].ViewName, "B");
  EXPECT_EQ(views[1].OfferInfo, 1);
  EXPECT_EQ(views[2].T_Index, 0x5A5A5A5A);  // beyond the rows: untouched

  // Stops at a failed row with its code; count holds the rows read.
  server->queueResult({manageRow(1, "A", 0), manageRow(2, "B", 1)});
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", 0x24);
  count = 3;
  EXPECT_EQ(MVGetViewManageList(views, &count), 0x24);
  EXPECT_EQ(count, 1);

  // Items select on their attribute and make no table; a failed row is left out and the last
  // row decides.
  server->calls.clear();
  server->queueResult(
      {{element("T_Index", 1, "1")}, {element("T_Index", 1, "2")}, {element("T_Index", 1, "3")}});
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", 0x25);
  ViewItemRecord items[3] = {};
  count = 3;
  ASSERT_EQ(MVGetViewItemList(4, items, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(items[1].T_Index, 3);
  EXPECT_EQ(server->calls[1].text(),
            "ExecuteQuery(MarvekSystemCommonDB, ViewItemTBL, SELECT * FROM ViewItemTBL WHERE "
            "ViewAttriID='4', 0)");
  EXPECT_EQ(server->count("CreateTable"), 0);
  server->failNext("ExecuteQuery", 0x26);
  EXPECT_EQ(MVGetViewItemList(4, items, &count), 0x26);

  ViewDataRecord data[1];
  count = 1;
  ASSERT_EQ(MVGetViewDataList(6, data, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(server->calls.back().method, "CloseDatabase");
}

TEST_F(ViewsRecorded, WithoutALinkEveryViewExportGives103) {
  mv::connection().currentServer = nullptr;
  ViewAttributeRecord attr{};
  int32_t count = 0;
  EXPECT_EQ(MVAddViewAttribute(&attr), 0x67);
  EXPECT_EQ(MVGetViewItemList(1, nullptr, &count), 0x67);
  EXPECT_EQ(MVDeleteViewData(1), 0x67);
  EXPECT_EQ(mv::connection().lastError, 0x67);
  EXPECT_EQ(MVAddTagAttribute("BOOK1", nullptr), -1);
  EXPECT_EQ(mv::connection().lastError, 0x67);
  EXPECT_TRUE(server->calls.empty());
}

TEST_F(ViewsRecorded, TagAttributesFollowTheFamilyOnTheBookAndReturnMinusOne) {
  TagAttributeRecord value{};
  value.T_Index = 0;
  value.TagPageID = 10;
  value.ViewAttributeID = 40;
  mv::copyToField(value.Value, sizeof value.Value, "12.5m");
  server->failNext("ExecuteQuery", 0x1F);
  server->nextIndex = 300;
  ASSERT_EQ(MVAddTagAttribute("BOOK1", &value), 0);
  EXPECT_EQ(value.T_Index, 300);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1, 0)\n"
            "ExecuteQuery(BOOK1, TagAttributeTBL, SELECT * FROM TagAttributeTBL WHERE "
            "T_Index='0', 0)\n"
            "CreateTable(BOOK1, TagAttributeTBL, 36)\n"
            "OpenTable(BOOK1, TagAttributeTBL, 0)\n"
            "AddRecord(BOOK1, [TABLENAME=H1|KEY=T_Index\t1\t0|KEY=TagPageID\t1\t10|"
            "KEY=ViewAttributeID\t1\t40|KEY=Value\t2\t12.5m], 1)\n"
            "CloseTable(BOOK1, H1)\nCloseDatabase(BOOK1)\n");

  // Held by MVOpenDBEx: no database calls; an existing key gives -1 and 126.
  ASSERT_EQ(MVOpenDBEx("BOOK1"), 0);
  server->calls.clear();
  server->queueResult({{element("T_Index", 1, "300")}});
  EXPECT_EQ(MVAddTagAttribute("BOOK1", &value), -1);
  EXPECT_EQ(mv::connection().lastError, 0x7E);
  EXPECT_EQ(server->methods(), (std::vector<std::string>{"ExecuteQuery", "CloseTable"}));

  // The list: 100 with the count, then the rows; a failed row ends it without a failure.
  const std::vector<std::vector<std::string>> rows = {
      {element("T_Index", 1, "300"), element("TagPageID", 1, "10"),
       element("ViewAttributeID", 1, "40"), element("value", 2, "12.5m")},
      {element("T_Index", 1, "301")}};
  server->queueResult(rows);
  int32_t count = 1;
  TagAttributeRecord list[2] = {};
  EXPECT_EQ(MVGetTagAttributeList("BOOK1", 10, list, &count), -1);
  EXPECT_EQ(mv::connection().lastError, 0x64);
  EXPECT_EQ(count, 2);
  server->queueResult(rows);
  server->failNext("GetRecords", 0);
  server->failNext("GetRecords", 0x27);
  server->calls.clear();
  ASSERT_EQ(MVGetTagAttributeList("BOOK1", 10, list, &count), 0);
  EXPECT_EQ(count, 1);
  EXPECT_STREQ(list[0].Value, "12.5m");
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->calls[0].args[2], "SELECT * FROM TagAttributeTBL WHERE TagPageID='10'");

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
