// Tags, pages, attribute values, views and images against the server in this process and a
// daemon on loopback, on a fresh book that lacks TagAttributeTBL and a system database without
// view tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "child_process.h"
#include "contents_fixture.h"
#include "platform/files.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ContentsLive : public ContentsEndToEnd {
 protected:
  // Each display row with its page, as "name/page name T_Order up:UpTagID rel:Relation"; a row
  // without its page, or a page without its row, shows as "unpaired".
  std::vector<std::string> tree() {
    MVHGLOBAL block = nullptr;
    int32_t count = 0;
    EXPECT_EQ(MVGetAllTag(kBook, &block, &count), 0);
    const auto rows = take<TagDispRecord>(block, count);
    EXPECT_EQ(MVGetAllTagInfo(kBook, &block, &count), 0);
    const auto pages = take<TagInfoRecord>(block, count);
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
  std::vector<ImageInfoRecordEX> images(int32_t tag) {
    MVHGLOBAL block = nullptr;
    int32_t count = -1;
    EXPECT_EQ(MVGetImageInfoEX(kBook, tag, &block, &count), 0);
    return count > 0 ? take<ImageInfoRecordEX>(block, count) : std::vector<ImageInfoRecordEX>{};
  }
  TempFolder temp{"contents-e2e"};
};
MVCORE_ON_BOTH_SERVERS(ContentsLive);

TEST_P(ContentsLive, TheTwoRowsOfATagStayInStepThroughItsLife) {
  EXPECT_THAT(tree(), IsEmpty());
  int32_t parentDisp = 0, childDisp = 0;
  const int32_t parent = tag("橋梁", 0, &parentDisp, 2);
  const int32_t child = tag("Piers", parent, &childDisp);
  const std::string up = std::to_string(parent);
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
  EXPECT_THAT(std::vector<std::string>({back.TagName, back.TagAplOption}),
              ElementsAre("Deck", "-view plan"));
  EXPECT_THAT(std::vector({back.UpTagID, back.PageCount, back.Kensetu}), ElementsAre(777, 12, 6));
  EXPECT_EQ(tree()[1], "Deck/Deck 0 up:" + up + " rel:5/5");
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
  ASSERT_EQ(MVOpenDBEx(kBook), 0);  // the same with the book held, which no export then closes
  int32_t disp = 0;
  const int32_t held = tag("Held", 0, &disp);
  EXPECT_EQ(tree().size(), 2u);
  ASSERT_EQ(MVDeleteTag(kBook, held, disp), 0);
  ASSERT_EQ(MVDeleteTag(kBook, child, childDisp), 0);
  EXPECT_THAT(tree(), IsEmpty());
  ASSERT_EQ(MVCloseDBEx(kBook), 0);
}

TEST_P(ContentsLive, AttributeValuesAndViewTablesAreMadeOnFirstUse) {
  int32_t disp = 0;
  const int32_t page = tag("Piers", 0, &disp);
  int32_t count = 0;
  TagAttributeRecord list[2] = {};
  EXPECT_EQ(MVGetTagAttributeList(kBook, page, list, &count), -1);  // no table yet
  EXPECT_NE(mv::connection().lastError, 0);
  TagAttributeRecord value{0, page, 40, "12.5m"}, second{0, page, 41, "steel"};
  ASSERT_EQ(MVAddTagAttribute(kBook, &value), 0) << mv::connection().lastError;
  EXPECT_EQ(MVAddTagAttribute(kBook, &value), -1);
  EXPECT_EQ(mv::connection().lastError, 0x7E);
  ASSERT_EQ(MVAddTagAttribute(kBook, &second), 0);
  mv::copyToField(value.Value, sizeof value.Value, "13m");
  ASSERT_EQ(MVUpdateTagAttribute(kBook, &value), 0);
  count = 2;
  ASSERT_EQ(MVGetTagAttributeList(kBook, page, list, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_THAT((std::vector<std::string>{list[0].Value, list[1].Value}),
              UnorderedElementsAre("13m", "steel"));
  ASSERT_EQ(MVDeleteTag(kBook, page, disp), 0);  // the tag's values stay
  ASSERT_EQ(MVDeleteTagAttribute(kBook, second.T_Index), 0);
  ASSERT_EQ(MVGetTagAttributeList(kBook, page, list, &count), 0);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(list[0].T_Index, value.T_Index);

  count = 0;
  EXPECT_NE(MVGetViewItemList(1, nullptr, &count), 0);    // no table, none made
  EXPECT_EQ(MVGetViewAttributeList(nullptr, &count), 0);  // made on the way, empty
  EXPECT_EQ(count, 0);
  ViewManageRecord view{0, "Bridge view", 1};
  ASSERT_EQ(MVAddViewManage(&view), 0);
  ViewAttributeRecord span{0, "Span", 2, 0, 0};
  ASSERT_EQ(MVAddViewAttribute(&span), 0);
  EXPECT_EQ(MVAddViewAttribute(&span), 0x7E);
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);  // the rest with the database held
  ViewDataRecord data{0, view.T_Index, span.T_Index, 1};
  ASSERT_EQ(MVAddViewData(&data), 0);
  ViewItemRecord items[2] = {{0, span.T_Index, 1, "short", "短", 1},
                             {0, span.T_Index, 2, "long", "長", 2}};
  ASSERT_EQ(MVAddViewItem(&items[0]), 0);
  ASSERT_EQ(MVAddViewItem(&items[1]), 0);
  count = 0;
  EXPECT_EQ(MVGetViewItemList(span.T_Index, nullptr, &count), 0x64);
  EXPECT_EQ(count, 2);
  ASSERT_EQ(MVGetViewItemList(span.T_Index, items, &count), 0);
  EXPECT_THAT((std::vector<std::string>{items[0].ItemName2, items[1].ItemName2}),
              UnorderedElementsAre("短", "長"));
  mv::copyToField(view.ViewName, sizeof view.ViewName, "Renamed");
  ASSERT_EQ(MVUpdateViewManage(&view), 0);
  ViewManageRecord got{};
  ASSERT_EQ(MVGetViewManage(view.T_Index, &got), 0);
  EXPECT_STREQ(got.ViewName, "Renamed");
  EXPECT_EQ(got.OfferInfo, 1);
  ASSERT_EQ(MVDeleteViewManage(view.T_Index), 0);  // its data rows stay
  count = 0;
  EXPECT_EQ(MVGetViewManageList(nullptr, &count), 0);
  EXPECT_EQ(count, 0);
  count = 1;
  ASSERT_EQ(MVGetViewDataList(view.T_Index, &data, &count), 0);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(data.ViewAttriID, span.T_Index);
  ASSERT_EQ(MVCloseDB("MarvekSystemCommonDB"), 0);
}

TEST_P(ContentsLive, ImageBytesDatesCountersAndElectronicRowsRoundTrip) {
  const std::string up = temp.write("up.tif", std::string(3 * 307200 + 123, 'u'));
  ASSERT_TRUE(mv::fs::setFileTimes(up, 1650000000));
  ImageInfoRecordEX info{0, 0, 5, "up.tif", "O'Brien"};
  ASSERT_EQ(MVInsertImageDataEX(kBook, 7, &info, up.c_str()), 0) << mv::connection().lastError;
  auto rows = images(7);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_THAT(std::vector({rows[0].T_Index, rows[0].Attribute}), ElementsAre(info.T_Index, 5));
  EXPECT_THAT(std::vector<std::string>({rows[0].ImageDataInfo, rows[0].Various}),
              ElementsAre("up.tif", "O'Brien"));
  const std::string down = temp.write("down.tif", std::string(1000000, 'd'));  // older, longer
  ASSERT_EQ(MVDownLoadImageData(kBook, "ImageDataTBL", info.T_Index, down.c_str()), 0);
  EXPECT_TRUE(content(down) == content(up));
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(down, &t));
  EXPECT_EQ(t, 1650000000);
  // An update of exactly one block: the blob keeps the last bytes sent.
  std::string block(307200, 'b');
  put(up, block);
  info.Up_DateCounter = 4;
  ASSERT_EQ(MVUpDateImageDataEX(kBook, "ImageDataTBL", info.T_Index, up.c_str(), &info), 0);
  ASSERT_EQ(MVDownLoadImageData(kBook, "ImageDataTBL", info.T_Index, down.c_str()), 0);
  EXPECT_TRUE(content(down) == block);
  int32_t counter = 0;
  ASSERT_EQ(MVGetImageUpdateCounter(kBook, info.T_Index, &counter), 0);
  EXPECT_EQ(counter, 4);
  ASSERT_EQ(MVSetImageUpdateCounter(kBook, info.T_Index, 11), 0);
  ASSERT_EQ(MVSetImageVariousData(kBook, info.T_Index, "again"), 0);
  rows = images(7);
  EXPECT_EQ(std::to_string(rows.at(0).Up_DateCounter) + rows.at(0).Various, "11again");
  ASSERT_EQ(MVDeleteImageData(kBook, info.T_Index), 0);
  EXPECT_TRUE(images(7).empty());
  EXPECT_EQ(MVDeleteImageData(kBook, info.T_Index), -1);
  EXPECT_EQ(mv::connection().lastError, 0);

  // Through a held handle, and electronic rows (tag 0) by group.
  const std::string file = temp.write("e.pdf", "");
  ASSERT_EQ(MVOpenDBEx(kBook), 0);
  char handle[260] = {};
  ASSERT_EQ(MVOpenTBLEx(0, kBook, handle), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(MVInsertImageDataEX(kBook, 7, &info, file.c_str()), 0);
  ImageInfoRecord el{0, 0, 0, "e.pdf"};
  ASSERT_EQ(MVInsertELImageData(kBook, &el, file.c_str(), 9999), 0);
  ASSERT_EQ(MVInsertELImageData(kBook, &el, file.c_str(), 5), 0);
  ASSERT_EQ(MVOpenTBLEx(1, kBook, handle), 0);
  ASSERT_EQ(MVCloseDBEx(kBook), 0);
  EXPECT_EQ(images(7).size(), 3u);
  EXPECT_EQ(images(0).size(), 2u);
  MVHGLOBAL list = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetELImageInfo(kBook, &list, &count), 0);
  EXPECT_EQ(take<ImageInfoRecord>(list, count).size(), 1u);
  ASSERT_EQ(MVGetELImageInfoEX(kBook, &list, &count, 5), 0);
  const auto group = take<ImageInfoRecordEX>(list, count);
  ASSERT_EQ(group.size(), 1u);
  EXPECT_EQ(group[0].T_Index, el.T_Index);
  ASSERT_EQ(MVDeleteELData(kBook, el.T_Index), 0);
  EXPECT_EQ(MVDeleteELData(kBook, el.T_Index), 0);  // a missing row is no failure
  ASSERT_EQ(MVGetELImageInfoEX(kBook, &list, &count, 5), 0);
  EXPECT_EQ(count, 0);
}

TEST_P(ContentsLive, ShareFilesInsertOverlayDownloadAndStaleness) {
  const std::string source = temp / "source", local = temp / "local", again = temp / "again";
  for (const auto& f : {source, local, again}) mkdir(f.c_str(), 0777);
  put(source + "/a.tif", "a1");
  put(source + "/b.tif", "b1");
  put(source + "/index.bif", "[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,2,,1");
  const auto stale = [&] { return MVIsImageFilesUpdated(kBook, 7, local.c_str(), "client"); };
  ASSERT_EQ(MVInsertImageDataEX2(kBook, 7, source.c_str(), 1, "client"), 0);
  EXPECT_EQ(stale(), 1);
  ASSERT_EQ(MVDownLoadImageData2(kBook, 7, local.c_str(), 0, "client"), 0);
  EXPECT_EQ(content(local + "/a.tif"), "a1");
  EXPECT_FALSE(mv::fs::exists(local + "/b.tif"));
  EXPECT_EQ(stale(), 1);  // b.tif missing
  ASSERT_EQ(MVDownLoadImageData2(kBook, 7, local.c_str(), 1, "client"), 0);
  EXPECT_EQ(stale(), 0);
  put(source + "/a.tif", "a2");
  put(source + "/index.bif", "[DataCnt],2\n[Data],a.tif,1,,2\n[Data],b.tif,2,,1");
  ASSERT_EQ(MVUpDateImageDataEx2(kBook, 7, source.c_str(), 1, "client"), 0);
  EXPECT_EQ(stale(), 1);
  ASSERT_EQ(MVDownLoadImageData2(kBook, 7, local.c_str(), 1, "client"), 0);
  EXPECT_EQ(content(local + "/a.tif"), "a2");
  EXPECT_EQ(stale(), 0);
  EXPECT_EQ(MVCheckIsAccessNetData("client", kBook), 0);
  ASSERT_EQ(MVDeleteImageData2(kBook, 7, "b.tif", "client"), 0);
  ASSERT_EQ(MVDownLoadImageData2(kBook, 7, again.c_str(), 1, "client"), 0);
  EXPECT_FALSE(mv::fs::exists(again + "/b.tif"));
  EXPECT_TRUE(mv::fs::exists(again + "/a.tif"));

  // An index whose names lead out of the folders: the plain names are copied, the others never
  // written, and the download fails.
  put(source + "/index.bif",
      "[DataCnt],3\n[Data],a.tif,1,,3\n[Data],..\\..\\evil.tif,1,,3\n"
      "[Data],/tmp/evil.tif,5,,3");
  ASSERT_EQ(MVUpDateImageDataEx2(kBook, 7, source.c_str(), 1, "client"), 0);
  const std::string fresh = temp / "fresh";
  mkdir(fresh.c_str(), 0777);
  EXPECT_EQ(MVDownLoadImageData2(kBook, 7, fresh.c_str(), 0, "client"), -1);
  EXPECT_EQ(content(fresh + "/a.tif"), "a2");
  EXPECT_FALSE(mv::fs::exists(temp / "evil.tif"));
  EXPECT_EQ(MVDeleteImageData2(kBook, 7, "..\\a.tif", "client"), -1);
  // Only the index, then a tag whose files go with it.
  const std::string indexOnly = temp / "index-only";
  mkdir(indexOnly.c_str(), 0777);
  ASSERT_EQ(MVDownLoadImageData2(kBook, 7, indexOnly.c_str(), 3, "client"), 0);
  EXPECT_EQ(mv::fs::findFiles(indexOnly + "/*").size(), 1u);
  EXPECT_TRUE(mv::fs::exists(indexOnly + "/index.bif"));
  int32_t disp = 0;
  const int32_t photos = tag("photos", 0, &disp);
  ASSERT_EQ(MVInsertImageDataEX2(kBook, photos, source.c_str(), 2, "client"), 0);
  ASSERT_EQ(MVDeleteTag2(kBook, photos, disp, "client"), 0);
  const std::string gone = temp / "gone";
  mkdir(gone.c_str(), 0777);
  ASSERT_EQ(MVDownLoadImageData2(kBook, photos, gone.c_str(), 2, "client"), 0);
  EXPECT_TRUE(mv::fs::findFiles(gone + "/*").empty());
  if (remote() && mvtest::namespacedDaemons()) {
    EXPECT_FALSE(mv::fs::exists(dataFolder() + "/shares")) << "the daemon's disk is its own";
  }
}

}  // namespace
}  // namespace mvtest
