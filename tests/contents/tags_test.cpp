// The tag tree and tag pages against a recording server: what each injected failure leaves, the
// fields the page row never carries, field widths, and the calls a held book database saves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contents_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kDb[] = "BOOK1";
using TagsRecorded = ContentsRecorded;

TagInfoRecord sampleInfo() {
  TagInfoRecord info{};
  info.Attribute = 7;
  info.T_Index = 99;         // never sent
  info.Up_DateCounter = 42;  // never sent
  mv::copyToField(info.TagName, sizeof info.TagName, "Piers");
  return info;
}

std::vector<std::string> dispRow(int index, const std::string& name) {
  return {element("T_Index", 1, std::to_string(index)), element("TagName", 2, name),
          element("TagID", 1, "10"), element("T_Order", 1, "2")};
}

TEST_F(TagsRecorded, CreateWritesThePageThenItsDisplayRowAndAFailureLeavesTheFirstRow) {
  int32_t tagIndex = -1, dispIndex = -1;
  ASSERT_EQ(MVCreateTag(kDb, sampleInfo(), 55, &tagIndex, &dispIndex), 0);
  EXPECT_EQ(std::pair(tagIndex, dispIndex), std::pair(100, 101));
  EXPECT_THAT(server->argsOf("AddRecord", 1).at(0),
              HasSubstr("|KEY=T_Index\t1\t0|KEY=Up_DateCounter\t1\t0|KEY=TagName\t2\tPiers|"));
  EXPECT_THAT(server->argsOf("AddRecord", 1).at(0), Not(HasSubstr("KEY=Attribute")));

  // The page row fails, the display row fails, the first close fails: the tables and the
  // database are closed each time and the first code stays.
  struct Case {
    const char* method;
    int passing, addRecords;
  } const cases[] = {{"AddRecord", 0, 1}, {"AddRecord", 1, 2}, {"CloseTable", 0, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + std::to_string(c.passing));
    server->calls.clear();
    server->failNext(c.method, 0, c.passing);
    server->failNext(c.method, 0x31);
    tagIndex = dispIndex = -1;
    EXPECT_EQ(MVCreateTag(kDb, sampleInfo(), 0, &tagIndex, &dispIndex), -1);
    if (c.method[0] == 'A') {
      EXPECT_EQ(tagIndex, 0);  // even when the page row was added
    }
    EXPECT_EQ(dispIndex, -1);
    EXPECT_EQ(mv::connection().lastError, 0x31);
    EXPECT_EQ(server->count("AddRecord"), c.addRecords);
    EXPECT_EQ(server->count("CloseTable"), c.addRecords);
    EXPECT_EQ(server->methods().back(), "CloseDatabase");
  }
  ASSERT_EQ(MVOpenDBEx(kDb), 0);
  server->calls.clear();
  ASSERT_EQ(MVCreateTag(kDb, sampleInfo(), 55, &tagIndex, &dispIndex), 0);
  EXPECT_EQ(server->count("OpenDatabase") + server->count("CloseDatabase"), 0);
}

TEST_F(TagsRecorded, ListsCutNamesAtACharacterAndAFailureLeavesNoBlock) {
  server->queueResult({dispRow(1, "あいうえおかきくけこさ"), dispRow(2, "Sub")});
  MVHGLOBAL block = nullptr;
  int32_t count = -1;
  ASSERT_EQ(MVGetAllTag(kDb, &block, &count), 0);
  const auto tags = take<TagDispRecord>(block, count);
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_STREQ(tags[0].TagName, "あいうえおかきくけこ");  // 33 bytes cut at a character to 30
  EXPECT_THAT(std::vector({tags[0].TagID, tags[0].T_Order}), ElementsAre(10, 2));
  // Pages: Attribute stays 0 whatever comes; an unknown column is skipped.
  server->queueResult({{element("T_Index", 1, "10"), element("Attribute", 1, "9"),
                        element("Mystery", 2, "x"), element("TemplateName", 2, "t.tpl")}});
  ASSERT_EQ(MVGetAllTagInfo(kDb, &block, &count), 0);
  const auto pages = take<TagInfoRecord>(block, count);
  ASSERT_EQ(pages.size(), 1u);
  EXPECT_THAT(std::vector({pages[0].Attribute, pages[0].T_Index}), ElementsAre(0, 10));
  EXPECT_STREQ(pages[0].TemplateName, "t.tpl");
  ASSERT_EQ(MVGetAllTag(kDb, &block, &count), 0);  // an empty tree: a block of no records
  EXPECT_NE(block, nullptr);
  take<TagDispRecord>(block, count);

  // A row that is not an array, a failed row, a failed close: -1, nothing handed out.
  for (const std::string method : {"malformed", "GetRecords", "CloseTable"}) {
    SCOPED_TRACE(method);
    server->calls.clear();
    if (method == "malformed") {
      server->queueMalformedResult(1);
    } else {
      server->queueResult({dispRow(1, "A")});
      server->failNext(method, 0x41);
    }
    EXPECT_EQ(MVGetAllTag(kDb, &block, &count), -1);
    EXPECT_EQ(mv::connection().lastError, method == "malformed" ? 0 : 0x41);
    EXPECT_EQ(std::pair(block, count), std::pair(MVHGLOBAL{nullptr}, 0));
    EXPECT_EQ(server->methods().back(), "CloseDatabase");
  }
}

TEST_F(TagsRecorded, RenameAndDeleteGoRowByRowAndStopAtTheFirstFailure) {
  server->failNext("UpdateRecord", 0);
  server->failNext("UpdateRecord", 0x51);
  EXPECT_EQ(MVChangeTagName(kDb, 10, "South", 3), -1);
  EXPECT_EQ(mv::connection().lastError, 0x51);
  EXPECT_EQ(server->count("CloseTable"), 2);
  EXPECT_EQ(server->methods().back(), "CloseDatabase");
  mv::connection().lastError = 5;
  ASSERT_EQ(MVChangeTagOrder(kDb, 10, 3, 4), 0);
  EXPECT_EQ(mv::connection().lastError, 5);  // the order leaves it alone

  // Delete: the page, the display row, then every image row of the tag. A failing step keeps
  // the later rows; no page: -1 with lastError 0 and nothing deleted.
  struct Case {
    bool page;
    int passing;  // DeleteRecord calls that succeed; 2: none fails
    std::vector<std::string> deletes;
  } const cases[] = {{true, 2, {"DeleteRecord 10", "DeleteRecord 3", "DeleteRecords 0 -1"}},
                     {true, 1, {"DeleteRecord 10", "DeleteRecord 3"}},
                     {true, 0, {"DeleteRecord 10"}},
                     {false, 2, {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.passing);
    server->calls.clear();
    if (c.page) server->queueResult({{element("T_Index", 1, "10")}});
    if (c.passing < 2) server->failNext("DeleteRecord", 0, c.passing);
    if (c.passing < 2) server->failNext("DeleteRecord", 0x52);
    EXPECT_EQ(MVDeleteTag(kDb, 10, 3), c.page && c.passing == 2 ? 0 : -1);
    EXPECT_EQ(mv::connection().lastError, c.page && c.passing < 2 ? 0x52 : 0);
    std::vector<std::string> deletes;
    for (const Call& call : server->calls) {
      if (call.method == "DeleteRecord") deletes.push_back(call.method + " " + call.args[2]);
      if (call.method == "DeleteRecords")
        deletes.push_back(call.method + " " + call.args[2] + " " + call.args[3]);
    }
    EXPECT_EQ(deletes, c.deletes);
    EXPECT_EQ(server->count("CloseTable"), server->count("OpenTableEx"));
    EXPECT_EQ(server->methods().back(), "CloseDatabase");
  }
}

TEST_F(TagsRecorded, PageReadsLeaveWhatTheRowLacksAndWritesSendTheirOneElementCut) {
  TagInfoRecord info = sampleInfo();
  server->queueResult({{element("T_Index", 1, "10"), element("PageCount", 1, "9")}});
  ASSERT_EQ(MVGetTag(kDb, 10, &info), 0);
  EXPECT_THAT(std::vector({info.T_Index, info.PageCount, info.Attribute}), ElementsAre(10, 9, 7));
  EXPECT_STREQ(info.TagName, "Piers");
  server->failNext("GetRecords", 0x61);  // a key that does not exist: the record stays
  EXPECT_EQ(MVGetTag(kDb, 77, &info), -1);
  EXPECT_EQ(info.T_Index, 10);
  EXPECT_EQ(mv::connection().lastError, 0x61);

  server->calls.clear();
  std::string option;  // longer than its field: cut to 255 bytes at a character boundary
  for (int i = 0; i < 90; ++i) option += "あ";
  ASSERT_EQ(MVChangeAppParam(kDb, 10, option.c_str()), 0);
  EXPECT_THAT(server->argsOf("UpdateRecord", 1),
              ElementsAre("[TABLENAME=H3|KEY=TagAplOption\t2\t" + option.substr(0, 255) + "]"));
  // A missing display row: the page is rewritten, -1 with lastError 0.
  server->calls.clear();
  server->queueResult({{element("T_Index", 1, "100")}});
  EXPECT_EQ(MVChangeTagInfo(kDb, sampleInfo(), 55, 100, 101), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_EQ(server->count("UpdateRecord"), 1);
  EXPECT_EQ(server->methods().back(), "CloseDatabase");
  server->failNext("TagUpdateCounter", 0x71);
  EXPECT_EQ(MVSetTagUpdateCounter(kDb, 10), -1);
  EXPECT_EQ(mv::connection().lastError, 0x71);
}

TEST_F(TagsRecorded, BadArgumentsAndNoLinkTouchNothing) {
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
  EXPECT_EQ(std::pair(block, count), std::pair(reinterpret_cast<MVHGLOBAL>(0x1), 3));
  EXPECT_TRUE(server->calls.empty());
}

}  // namespace
}  // namespace mvtest
