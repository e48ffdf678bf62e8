// Tags, pages, attribute values and views end to end, on the server in this process and through
// a daemon, on a fresh book that lacks TagAttributeTBL and a system database without view tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "MVCore.h"
#include "frame/connection.h"
#include "platform/codepage.h"
#include "tags_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TagsEndToEnd : public ContentsEndToEnd {
 protected:
  // Each display row with its page, as "name/page name T_Order up:UpTagID rel:Relation"; a row
  // without its page, or a page without its row, shows as "unpaired".
  std::vector<std::string> tree() {
    MVHGLOBAL block = nullptr;
    int32_t count = 0;
    EXPECT_EQ(MVGetAllTag(kBook, &block, &count), 0);
    const auto rows = takeList(block, count);
    EXPECT_EQ(MVGetAllTagInfo(kBook, &block, &count), 0);
    const auto pages = takeInfoList(block, count);
    std::vector<std::string> out;
    for (const TagDispRecord& r : rows) {
      const auto page = std::find_if(pages.begin(), pages.end(),
                                     [&](const TagInfoRecord& p) { return p.T_Index == r.TagID; });
      if (page == pages.end()) {
        out.push_back("unpaired");
        continue;
      }
      EXPECT_EQ(page->Attribute, 0);
      out.push_back(std::string(r.TagName) + "/" + page->TagName + " " + std::to_string(r.T_Order) +
                    " up:" + std::to_string(r.UpTagID) + " rel:" + std::to_string(r.Relation) +
                    "/" + std::to_string(page->Relation));
    }
    if (pages.size() != rows.size()) out.push_back("unpaired");
    return out;
  }

  int32_t tag(const char* name, int32_t upTagID, int32_t* dispIndex, int32_t relation = 0) {
    TagInfoRecord info{};
    mv::copyToField(info.TagName, sizeof info.TagName, name);
    info.Relation = relation;
    int32_t tagIndex = 0;
    EXPECT_EQ(MVCreateTag(kBook, info, upTagID, &tagIndex, dispIndex), 0);
    EXPECT_GT(tagIndex, 0);
    return tagIndex;
  }
};
MVCORE_ON_BOTH_SERVERS(TagsEndToEnd);

TEST_P(TagsEndToEnd, TheTwoRowsOfATagStayInStepThroughItsLife) {
  EXPECT_THAT(tree(), IsEmpty());
  int32_t parentDisp = 0, childDisp = 0;
  const int32_t parent = tag("橋梁", 0, &parentDisp, 2);
  const int32_t child = tag("Piers", parent, &childDisp);
  const std::string up = std::to_string(parent);
  EXPECT_THAT(tree(),
              ElementsAre("橋梁/橋梁 0 up:0 rel:2/2", "Piers/Piers 0 up:" + up + " rel:0/0"));

  ASSERT_EQ(MVChangeTagName(kBook, child, "Abutments", childDisp), 0);
  ASSERT_EQ(MVChangeTagOrder(kBook, child, childDisp, 3), 0);
  EXPECT_THAT(tree(), ElementsAre("橋梁/橋梁 0 up:0 rel:2/2",
                                  "Abutments/Abutments 3 up:" + up + " rel:0/0"));

  // A page read and written back: both rows follow, the display row's parent is the argument.
  TagInfoRecord info{};
  ASSERT_EQ(MVGetTag(kBook, child, &info), 0);
  EXPECT_EQ(info.T_Index, child);
  mv::copyToField(info.TagName, sizeof info.TagName, "Deck");
  info.Relation = 5;
  info.UpTagID = 777;
  ASSERT_EQ(MVChangeTagInfo(kBook, info, parent, child, childDisp), 0);
  ASSERT_EQ(MVChangePageCount(kBook, child, 12), 0);
  ASSERT_EQ(MVChangeAppParam(kBook, child, "-view plan"), 0);
  ASSERT_EQ(MVChangeFieldData(kBook, "TagPageTBL", child, "KEY=Kensetu\t1\t6"), 0);
  TagInfoRecord back{};
  ASSERT_EQ(MVGetTag(kBook, child, &back), 0);
  EXPECT_STREQ(back.TagName, "Deck");
  EXPECT_EQ(back.UpTagID, 777);
  EXPECT_EQ(back.PageCount, 12);
  EXPECT_STREQ(back.TagAplOption, "-view plan");
  EXPECT_EQ(back.Kensetu, 6);
  EXPECT_THAT(tree()[1], ::testing::StartsWith("Deck/Deck "));
  EXPECT_THAT(tree()[1], ::testing::EndsWith(" up:" + up + " rel:5/5"));

  int32_t before = -1, after = -1;
  ASSERT_EQ(MVGetTagUpdateCounter(kBook, child, &before), 0);
  ASSERT_EQ(MVSetTagUpdateCounter(kBook, child), 0);
  ASSERT_EQ(MVGetTagUpdateCounter(kBook, child, &after), 0);
  EXPECT_GT(after, before);

  // Deleting the parent leaves the child pointing to nothing; a second delete finds no page.
  ASSERT_EQ(MVDeleteTag(kBook, parent, parentDisp), 0);
  EXPECT_THAT(tree(), ElementsAre("Deck/Deck 0 up:" + up + " rel:5/5"));
  EXPECT_EQ(MVDeleteTag(kBook, parent, parentDisp), -1);
  EXPECT_EQ(mv::connection().lastError, 0);

  // The same work with the book held, which no export then closes.
  ASSERT_EQ(MVOpenDBEx(kBook), 0);
  int32_t disp = 0;
  const int32_t held = tag("Held", 0, &disp);
  EXPECT_EQ(tree().size(), 2u);
  ASSERT_EQ(MVDeleteTag(kBook, held, disp), 0);
  ASSERT_EQ(MVDeleteTag(kBook, child, childDisp), 0);
  EXPECT_THAT(tree(), IsEmpty());
  ASSERT_EQ(MVCloseDBEx(kBook), 0);
}

TEST_P(TagsEndToEnd, AttributeValuesMakeTheirTableOnTheFirstAdd) {
  int32_t disp = 0;
  const int32_t page = tag("Piers", 0, &disp);
  int32_t count = 0;
  TagAttributeRecord list[2] = {};
  EXPECT_EQ(MVGetTagAttributeList(kBook, page, list, &count), -1);  // no table yet
  EXPECT_NE(mv::connection().lastError, 0);

  TagAttributeRecord value{0, page, 40, "12.5m"};
  ASSERT_EQ(MVAddTagAttribute(kBook, &value), 0) << mv::connection().lastError;
  EXPECT_GT(value.T_Index, 0);
  EXPECT_EQ(MVAddTagAttribute(kBook, &value), -1);
  EXPECT_EQ(mv::connection().lastError, 0x7E);
  TagAttributeRecord second{0, page, 41, "steel"};
  ASSERT_EQ(MVAddTagAttribute(kBook, &second), 0);

  count = 0;
  EXPECT_EQ(MVGetTagAttributeList(kBook, page, list, &count), -1);
  EXPECT_EQ(mv::connection().lastError, 0x64);
  EXPECT_EQ(count, 2);
  mv::copyToField(value.Value, sizeof value.Value, "13m");
  ASSERT_EQ(MVUpdateTagAttribute(kBook, &value), 0);
  ASSERT_EQ(MVGetTagAttributeList(kBook, page, list, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_THAT((std::vector<std::string>{list[0].Value, list[1].Value}),
              ::testing::UnorderedElementsAre("13m", "steel"));

  // Deleting the tag leaves its values; deleting a value removes it.
  ASSERT_EQ(MVDeleteTag(kBook, page, disp), 0);
  ASSERT_EQ(MVDeleteTagAttribute(kBook, second.T_Index), 0);
  ASSERT_EQ(MVGetTagAttributeList(kBook, page, list, &count), 0);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(list[0].T_Index, value.T_Index);
}

TEST_P(TagsEndToEnd, ViewTablesAreMadeOnFirstUseAndKeepTheirRows) {
  int32_t count = 0;
  EXPECT_NE(MVGetViewItemList(1, nullptr, &count), 0);    // no table, none made
  EXPECT_EQ(MVGetViewAttributeList(nullptr, &count), 0);  // made on the way, empty
  EXPECT_EQ(count, 0);

  ViewManageRecord view{0, "Bridge view", 1};
  ASSERT_EQ(MVAddViewManage(&view), 0);
  ViewAttributeRecord span{0, "Span", 2, 0, 0};
  ASSERT_EQ(MVAddViewAttribute(&span), 0);
  EXPECT_EQ(MVAddViewAttribute(&span), 0x7E);

  // The rest with the system database held.
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  ViewDataRecord data{0, view.T_Index, span.T_Index, 1};
  ASSERT_EQ(MVAddViewData(&data), 0);
  ViewItemRecord item{0, span.T_Index, 1, "short", "短", 1};
  ASSERT_EQ(MVAddViewItem(&item), 0);
  ViewItemRecord second{0, span.T_Index, 2, "long", "長", 2};
  ASSERT_EQ(MVAddViewItem(&second), 0);

  count = 0;
  EXPECT_EQ(MVGetViewItemList(span.T_Index, nullptr, &count), 0x64);
  EXPECT_EQ(count, 2);
  ViewItemRecord items[2] = {};
  ASSERT_EQ(MVGetViewItemList(span.T_Index, items, &count), 0);
  EXPECT_THAT((std::vector<std::string>{items[0].ItemName2, items[1].ItemName2}),
              ::testing::UnorderedElementsAre("短", "長"));

  mv::copyToField(view.ViewName, sizeof view.ViewName, "Renamed");
  ASSERT_EQ(MVUpdateViewManage(&view), 0);
  ViewManageRecord got{};
  ASSERT_EQ(MVGetViewManage(view.T_Index, &got), 0);
  EXPECT_STREQ(got.ViewName, "Renamed");
  EXPECT_EQ(got.OfferInfo, 1);

  // Deleting the view leaves its data rows.
  ASSERT_EQ(MVDeleteViewManage(view.T_Index), 0);
  count = 0;
  EXPECT_EQ(MVGetViewManageList(nullptr, &count), 0);
  EXPECT_EQ(count, 0);
  ViewDataRecord rows[1] = {};
  count = 1;
  ASSERT_EQ(MVGetViewDataList(view.T_Index, rows, &count), 0);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(rows[0].ViewAttriID, span.T_Index);
  ASSERT_EQ(MVCloseDB("MarvekSystemCommonDB"), 0);
}

}  // namespace
}  // namespace mvtest
