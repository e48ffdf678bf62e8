// The tag tree and tag pages against a recording server: the exact calls, the two rows written in
// step, what each injected failure leaves, and the calls saved by a held book database.
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

constexpr char kDb[] = "BOOK1";
using TagsRecorded = ContentsRecorded;

TagInfoRecord sampleInfo() {
  TagInfoRecord info{};
  info.Attribute = 7;
  info.T_Index = 99;         // never sent
  info.Up_DateCounter = 42;  // never sent
  mv::copyToField(info.TagName, sizeof info.TagName, "Piers");
  info.Relation = 3;
  info.UpTagID = 11;  // the page's own, not the display row's
  info.PageCount = 5;
  mv::copyToField(info.TagAplOption, sizeof info.TagAplOption, "opt");
  info.NewRelation = 8;
  return info;
}

// The page record as it must go for sampleInfo() through handle `h`.
std::string pageRecord(const std::string& h) {
  return "[TABLENAME=" + h +
         "|KEY=T_Index\t1\t0|KEY=Up_DateCounter\t1\t0|KEY=TagName\t2\tPiers"
         "|KEY=TagNameAttribute\t1\t0|KEY=TagRenewAttribute\t1\t0|KEY=TagMakeAttribute\t1\t0"
         "|KEY=Relation\t1\t3|KEY=UpTagID\t1\t11|KEY=DispDataID\t1\t0|KEY=MasterDispType\t1\t0"
         "|KEY=ThumbnailID\t1\t0|KEY=AplAttribute\t1\t0|KEY=TagStartUpApl\t2\t|KEY=SrcFileID\t1\t0"
         "|KEY=CadAttribute\t1\t0|KEY=DynaCadFileID\t1\t0|KEY=PageCount\t1\t5"
         "|KEY=TagAplOption\t2\topt|KEY=TemplateName\t2\t|KEY=RefFileInfo\t1\t0|KEY=Kensetu\t1\t0"
         "|KEY=PdfConvert\t1\t0|KEY=NewRelation\t1\t8]";
}

std::string dispRecord(const std::string& h, int tagId) {
  return "[TABLENAME=" + h + "|KEY=T_Index\t1\t0|KEY=TagName\t2\tPiers|KEY=TagID\t1\t" +
         std::to_string(tagId) +
         "|KEY=Attribute\t1\t7|KEY=Relation\t1\t3|KEY=T_Order\t1\t0|KEY=UpTagID\t1\t55]";
}

TEST_F(TagsRecorded, CreateWritesThePageThenTheDisplayRowPointingToIt) {
  int32_t tagIndex = -1, dispIndex = -1;
  server->nextIndex = 100;
  ASSERT_EQ(MVCreateTag(kDb, sampleInfo(), 55, &tagIndex, &dispIndex), 0);
  EXPECT_EQ(tagIndex, 100);
  EXPECT_EQ(dispIndex, 101);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1, 0)\n"
            "OpenTable(BOOK1, TagPageTBL, 0)\n"
            "AddRecord(BOOK1, " +
                pageRecord("H1") +
                ", 1)\n"
                "CloseTable(BOOK1, H1)\n"
                "OpenTable(BOOK1, TagDispTBL, 0)\n"
                "AddRecord(BOOK1, " +
                dispRecord("H2", 100) +
                ", 1)\n"
                "CloseTable(BOOK1, H2)\n"
                "CloseDatabase(BOOK1)\n");

  // Held: the same minus the two database calls.
  ASSERT_EQ(MVOpenDBEx(kDb), 0);
  server->calls.clear();
  ASSERT_EQ(MVCreateTag(kDb, sampleInfo(), 55, &tagIndex, &dispIndex), 0);
  EXPECT_EQ(server->methods(), (std::vector<std::string>{"OpenTable", "AddRecord", "CloseTable",
                                                         "OpenTable", "AddRecord", "CloseTable"}));
}

TEST_F(TagsRecorded, CreateFailuresLeaveTheFirstRowAndCloseEverything) {
  int32_t tagIndex = -1, dispIndex = -1;
  server->failNext("AddRecord", 0x31);
  EXPECT_EQ(MVCreateTag(kDb, sampleInfo(), 0, &tagIndex, &dispIndex), -1);
  EXPECT_EQ(tagIndex, 0);
  EXPECT_EQ(mv::connection().lastError, 0x31);
  EXPECT_EQ(server->methods(), (std::vector<std::string>{"OpenDatabase", "OpenTable", "AddRecord",
                                                         "CloseTable", "CloseDatabase"}));

  // The display row fails: the page row was added, tagIndex is 0 all the same.
  server->calls.clear();
  server->failNext("AddRecord", 0);
  server->failNext("AddRecord", 0x32);
  tagIndex = dispIndex = -1;
  EXPECT_EQ(MVCreateTag(kDb, sampleInfo(), 0, &tagIndex, &dispIndex), -1);
  EXPECT_EQ(tagIndex, 0);
  EXPECT_EQ(dispIndex, -1);
  EXPECT_EQ(server->count("AddRecord"), 2);
  EXPECT_EQ(server->count("CloseTable"), 2);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
  EXPECT_EQ(mv::connection().lastError, 0x32);

  // A failing close of the first table keeps its own code and still closes the database.
  server->calls.clear();
  server->failNext("CloseTable", 0x33);
  EXPECT_EQ(MVCreateTag(kDb, sampleInfo(), 0, &tagIndex, &dispIndex), -1);
  EXPECT_EQ(mv::connection().lastError, 0x33);
  EXPECT_EQ(server->methods().back(), "CloseDatabase");
  EXPECT_EQ(server->count("AddRecord"), 1);
}

TEST_F(TagsRecorded, ListsComeAsUnlockedHandlesAndAFailureLeavesNoBlock) {
  server->queueResult(
      {dispRow(1, "あいうえおかきくけこさ", 10, 2, 0), dispRow(2, "Sub", 20, 0, 10)});
  MVHGLOBAL block = nullptr;
  int32_t count = -1;
  ASSERT_EQ(MVGetAllTag(kDb, &block, &count), 0);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1, 0)\nOpenTable(BOOK1, TagDispTBL, 1)\n"
            "GetRecords(BOOK1, H1, 0)\nGetRecords(BOOK1, H1, 1)\n"
            "CloseTable(BOOK1, H1)\nCloseDatabase(BOOK1)\n");
  const auto tags = takeList(block, count);
  ASSERT_EQ(tags.size(), 2u);
  // 33 bytes of name: cut at a character boundary to 30.
  EXPECT_STREQ(tags[0].TagName, "あいうえおかきくけこ");
  EXPECT_EQ(tags[0].TagID, 10);
  EXPECT_EQ(tags[0].T_Order, 2);
  EXPECT_EQ(tags[1].UpTagID, 10);

  // Pages: Attribute stays 0 whatever comes; an unknown column is skipped.
  server->queueResult(
      {{element("T_Index", 1, "10"), element("Attribute", 1, "9"), element("PageCount", 1, "4"),
        element("Mystery", 2, "x"), element("TemplateName", 2, "t.tpl")}});
  ASSERT_EQ(MVGetAllTagInfo(kDb, &block, &count), 0);
  const auto pages = takeInfoList(block, count);
  ASSERT_EQ(pages.size(), 1u);
  EXPECT_EQ(pages[0].Attribute, 0);
  EXPECT_EQ(pages[0].T_Index, 10);
  EXPECT_EQ(pages[0].PageCount, 4);
  EXPECT_STREQ(pages[0].TemplateName, "t.tpl");

  // An empty tree is a block of no records.
  ASSERT_EQ(MVGetAllTag(kDb, &block, &count), 0);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(count, 0);
  takeList(block, count);

  // A row that is not an array, a failed row, a failed close: -1, nothing handed out.
  server->queueMalformedResult(1);
  EXPECT_EQ(MVGetAllTag(kDb, &block, &count), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(count, 0);
  server->queueResult({dispRow(1, "A", 10, 0, 0)});
  server->failNext("GetRecords", 0x41);
  EXPECT_EQ(MVGetAllTag(kDb, &block, &count), -1);
  EXPECT_EQ(mv::connection().lastError, 0x41);
  server->queueResult({dispRow(1, "A", 10, 0, 0)});
  server->failNext("CloseTable", 0x42);
  server->calls.clear();
  EXPECT_EQ(MVGetAllTag(kDb, &block, &count), -1);
  EXPECT_EQ(mv::connection().lastError, 0x42);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(server->methods().back(), "CloseDatabase");
}

TEST_F(TagsRecorded, RenameOrderAndDeleteSelectByTagAndWriteByKey) {
  ASSERT_EQ(MVChangeTagName(kDb, 10, "North", 3), 0);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1, 0)\n"
            "OpenTableEx(BOOK1, TagPageTBL, SELECT * FROM TagPageTBL WHERE T_Index = 10, 0)\n"
            "UpdateRecord(BOOK1, [TABLENAME=H1|KEY=TagName\t2\tNorth], 1, 10)\n"
            "CloseTable(BOOK1, H1)\n"
            "OpenTableEx(BOOK1, TagDispTBL, SELECT * FROM TagDispTBL WHERE TagID = 10, 0)\n"
            "UpdateRecord(BOOK1, [TABLENAME=H2|KEY=TagName\t2\tNorth], 1, 3)\n"
            "CloseTable(BOOK1, H2)\nCloseDatabase(BOOK1)\n");

  // The display row's update fails: the page has the new name, the code is kept.
  server->calls.clear();
  server->failNext("UpdateRecord", 0);
  server->failNext("UpdateRecord", 0x51);
  EXPECT_EQ(MVChangeTagName(kDb, 10, "South", 3), -1);
  EXPECT_EQ(mv::connection().lastError, 0x51);
  EXPECT_EQ(server->count("CloseTable"), 2);
  EXPECT_EQ(server->count("CloseDatabase"), 1);

  // The order leaves lastError alone.
  server->calls.clear();
  mv::connection().lastError = 5;
  ASSERT_EQ(MVChangeTagOrder(kDb, 10, 3, 4), 0);
  EXPECT_EQ(mv::connection().lastError, 5);
  EXPECT_EQ(server->calls[2].text(), "UpdateRecord(BOOK1, [TABLENAME=H5|KEY=T_Order\t1\t4], 1, 3)");

  // Delete: page, display row, then every image row of the tag (none here: last row -1).
  server->calls.clear();
  server->queueResult({{element("T_Index", 1, "10")}});
  ASSERT_EQ(MVDeleteTag(kDb, 10, 3), 0);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1, 0)\n"
            "OpenTableEx(BOOK1, TagPageTBL, SELECT * FROM TagPageTBL WHERE (T_Index=10), 0)\n"
            "DeleteRecord(BOOK1, H6, 10)\nCloseTable(BOOK1, H6)\n"
            "OpenTableEx(BOOK1, TagDispTBL, SELECT * FROM TagDispTBL WHERE (TagID=10), 0)\n"
            "DeleteRecord(BOOK1, H7, 3)\nCloseTable(BOOK1, H7)\n"
            "OpenTableEx(BOOK1, ImageDataTBL, SELECT * FROM ImageDataTBL WITH (NOLOCK) WHERE "
            "(TagID=10), 1)\n"
            "DeleteRecords(BOOK1, H8, 0, -1)\nCloseTable(BOOK1, H8)\nCloseDatabase(BOOK1)\n");

  // No such page: -1 with lastError 0, nothing deleted, everything closed.
  server->calls.clear();
  EXPECT_EQ(MVDeleteTag(kDb, 10, 3), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->methods(), (std::vector<std::string>{"OpenDatabase", "OpenTableEx",
                                                         "CloseTable", "CloseDatabase"}));

  // The display row's delete fails: the page row is gone, the images stay.
  server->calls.clear();
  server->queueResult({{element("T_Index", 1, "10")}});
  server->failNext("DeleteRecord", 0);
  server->failNext("DeleteRecord", 0x52);
  EXPECT_EQ(MVDeleteTag(kDb, 10, 3), -1);
  EXPECT_EQ(mv::connection().lastError, 0x52);
  EXPECT_EQ(server->count("DeleteRecords"), 0);
  EXPECT_EQ(server->methods().back(), "CloseDatabase");
}

TEST_F(TagsRecorded, PageReadsLeaveWhatTheRowLacksAndWritesSendTheirOneElement) {
  TagInfoRecord info = sampleInfo();
  server->queueResult({{element("T_Index", 1, "10"), element("PageCount", 1, "9")}});
  ASSERT_EQ(MVGetTag(kDb, 10, &info), 0);
  EXPECT_EQ(server->calls[1].text(),
            "OpenTableEx(BOOK1, TagPageTBL, SELECT * FROM TagPageTBL WHERE T_Index = 10, 1)");
  EXPECT_EQ(info.T_Index, 10);
  EXPECT_EQ(info.PageCount, 9);
  EXPECT_EQ(info.Attribute, 7);  // not a column
  EXPECT_STREQ(info.TagName, "Piers");

  // A key that does not exist: GetRecords decides, the record stays.
  server->failNext("GetRecords", 0x61);
  EXPECT_EQ(MVGetTag(kDb, 77, &info), -1);
  EXPECT_EQ(info.T_Index, 10);
  EXPECT_EQ(mv::connection().lastError, 0x61);

  server->calls.clear();
  ASSERT_EQ(MVChangePageCount(kDb, 10, 12), 0);
  // An option longer than its field goes cut to 255 bytes at a character boundary.
  std::string option;
  for (int i = 0; i < 90; ++i) option += "あ";
  ASSERT_EQ(MVChangeAppParam(kDb, 10, option.c_str()), 0);
  ASSERT_EQ(MVChangeFieldData(kDb, "OtherTBL", 10, "KEY=Kensetu\t1\t2"), 0);
  std::vector<std::string> updates, opens;
  for (const Call& c : server->calls) {
    if (c.method == "UpdateRecord") updates.push_back(c.args[1] + " " + c.args[3]);
    if (c.method == "OpenTableEx") opens.push_back(c.args[1] + ": " + c.args[2]);
  }
  EXPECT_THAT(updates,
              ElementsAre("[TABLENAME=H3|KEY=PageCount\t1\t12] 10",
                          "[TABLENAME=H4|KEY=TagAplOption\t2\t" + option.substr(0, 255) + "] 10",
                          "[TABLENAME=H5|KEY=Kensetu\t1\t2] 10"));
  EXPECT_THAT(opens, ElementsAre("TagPageTBL: SELECT * FROM TagPageTBL WHERE T_Index = 10",
                                 "TagPageTBL: SELECT * FROM TagPageTBL WHERE T_Index = 10",
                                 "OtherTBL: SELECT * FROM TagPageTBL WHERE T_Index = 10"));
}

TEST_F(TagsRecorded, ChangeTagInfoRewritesBothRowsAndStopsAtAMissingRow) {
  server->queueResult({{element("T_Index", 1, "100")}});
  server->queueResult({{element("T_Index", 1, "101")}});
  ASSERT_EQ(MVChangeTagInfo(kDb, sampleInfo(), 55, 100, 101), 0);
  EXPECT_EQ(server->log(),
            "OpenDatabase(BOOK1, 0)\n"
            "OpenTableEx(BOOK1, TagPageTBL, SELECT * FROM TagPageTBL WHERE T_Index = 100, 0)\n"
            "UpdateRecord(BOOK1, " +
                pageRecord("H1") +
                ", 1, 100)\n"
                "CloseTable(BOOK1, H1)\n"
                "OpenTableEx(BOOK1, TagDispTBL, SELECT * FROM TagDispTBL WHERE TagID = 100, 0)\n"
                "UpdateRecord(BOOK1, " +
                dispRecord("H2", 100) +
                ", 1, 101)\n"
                "CloseTable(BOOK1, H2)\nCloseDatabase(BOOK1)\n");

  // The display row is missing: the page is rewritten, -1 with lastError 0.
  server->calls.clear();
  server->queueResult({{element("T_Index", 1, "100")}});
  EXPECT_EQ(MVChangeTagInfo(kDb, sampleInfo(), 55, 100, 101), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->count("UpdateRecord"), 1);
  EXPECT_EQ(server->methods().back(), "CloseDatabase");
}

TEST_F(TagsRecorded, TheCounterGoesStraightToTheServerAndNoLinkTouchesNothing) {
  int32_t counter = -1;
  ASSERT_EQ(MVGetTagUpdateCounter(kDb, 10, &counter), 0);
  ASSERT_EQ(MVSetTagUpdateCounter(kDb, 10), 0);
  server->failNext("TagUpdateCounter", 0x71);
  EXPECT_EQ(MVSetTagUpdateCounter(kDb, 10), -1);
  EXPECT_EQ(mv::connection().lastError, 0x71);
  EXPECT_EQ(server->log(),
            "TagUpdateCounter(BOOK1, 10, 0, out)\nTagUpdateCounter(BOOK1, 10, 1, out)\n"
            "TagUpdateCounter(BOOK1, 10, 1, out)\n");

  // Null arguments and no link: -1 without a call; the outputs stay.
  server->calls.clear();
  MVHGLOBAL block = reinterpret_cast<MVHGLOBAL>(0x1);
  int32_t count = 3, tagIndex = 4;
  EXPECT_EQ(MVGetAllTag(kDb, nullptr, &count), -1);
  EXPECT_EQ(MVCreateTag(nullptr, sampleInfo(), 0, &tagIndex, &tagIndex), -1);
  EXPECT_EQ(MVGetTag(kDb, 1, nullptr), -1);
  EXPECT_EQ(MVChangeTagName(kDb, 1, nullptr, 1), -1);
  EXPECT_EQ(MVGetTagUpdateCounter(kDb, 1, nullptr), -1);
  mv::connection().currentServer = nullptr;
  EXPECT_EQ(MVGetAllTag(kDb, &block, &count), -1);
  EXPECT_EQ(MVDeleteTag(kDb, 1, 1), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(block, reinterpret_cast<MVHGLOBAL>(0x1));
  EXPECT_EQ(count, 3);
  EXPECT_TRUE(server->calls.empty());
}

}  // namespace
}  // namespace mvtest
