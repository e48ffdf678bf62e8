// Rows coming in and records going out in the tagged-text format.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "MVCore.h"
#include "frame/exchange.h"
#include "frame/sql_text.h"
#include "server_fixture.h"
#include "utf8.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

TEST(FieldElement, OnlyTheFirstTwoTabsDelimit) {
  mv::FieldElement e;
  ASSERT_TRUE(mv::parseFieldElement("KEY=Various\t2\tleft\tright\t", e));
  EXPECT_EQ(e.name, "Various");
  EXPECT_EQ(e.typecode, 2);
  EXPECT_EQ(e.value, "left\tright\t");

  ASSERT_TRUE(mv::parseFieldElement("KEY=Reserve\t2\t", e));
  EXPECT_EQ(e.value, "");
  // The marker is looked for anywhere in the text.
  ASSERT_TRUE(mv::parseFieldElement("junkKEY=T_Index\t1\t-42", e));
  EXPECT_EQ(e.name, "T_Index");
  EXPECT_EQ(mv::parseInt(e.value), -42);

  EXPECT_FALSE(mv::parseFieldElement("KEY=T_Index\t1", e));
  EXPECT_FALSE(mv::parseFieldElement("T_Index\t1\t5", e));
  EXPECT_FALSE(mv::parseFieldElement("", e));
}

TEST(FieldElement, IntegersReadLikeAtoiWithoutOverflow) {
  EXPECT_EQ(mv::parseInt("  +17abc"), 17);
  EXPECT_EQ(mv::parseInt("abc"), 0);
  EXPECT_EQ(mv::parseInt(""), 0);
  EXPECT_EQ(mv::parseInt("2147483647"), 2147483647);
  EXPECT_EQ(mv::parseInt("-2147483648"), -2147483647 - 1);
  EXPECT_EQ(mv::parseInt("99999999999999999999"), 2147483647);
  EXPECT_EQ(mv::parseInt("-99999999999999999999"), -2147483647 - 1);
}

TEST(FieldElement, ATrailByteIsNeverTakenForATabOrTheMarker) {
  // In CP932 the second byte of a double-byte character can be any of 0x40..0xFC; the marker
  // text is plain ASCII, so test that the search walks by characters: 0x83 0x4B is one
  // character whose second byte is 'K'.
  mv::FieldElement e;
  EXPECT_FALSE(mv::parseFieldElement("\x83KEY=A\t1\t2", e));
  ASSERT_TRUE(mv::parseFieldElement("KEY=\x95\x5C\t2\t\x95\x5C", e));  // name "表"
  EXPECT_EQ(e.name, "\x95\x5C");
}

struct Probe {
  int32_t id;
  char name[8];
  int32_t count;
  char tail[4];  // guard: must stay untouched
};
constexpr mv::FieldBinding kProbe[] = {MV_INT_FIELD(Probe, id, "T_Index"),
                                       MV_TEXT_FIELD(Probe, name, "Name"),
                                       MV_INT_FIELD(Probe, count, "Count")};

class RowReadingTest : public ServerFixture {};

TEST_F(RowReadingTest, ARowFillsFixedFieldsByExactNameAndNeverWritesPastThem) {
  RecordingServer& server = connect();
  server.queueResult({{"KEY=T_Index\t1\t7", "KEY=name\t2\twrong case", "KEY=Name\t2\tabcdefghijk",
                       "KEY=Count\t1", "no marker", "KEY=Extra\t2\tdropped"}});
  int32_t rows = 0;
  char handle[260];
  ASSERT_EQ(MVOpenTBL("DB", "T", 0, &rows, handle), 0);
  mv::Row row;
  int32_t status = -1;
  ASSERT_TRUE(
      mv::fetchRow(server, mv::toWide("DB").get(), mv::toWide(handle).get(), 0, row, status));
  EXPECT_EQ(status, 0);
  Probe p;
  std::memset(&p, 0, sizeof p);
  std::memcpy(p.tail, "zzz", 4);
  mv::bindRow(row, kProbe, &p);
  EXPECT_EQ(p.id, 7);
  EXPECT_STREQ(p.name, "abcdefg");  // cut to the field, terminator kept
  EXPECT_EQ(p.count, 0);            // the short element was skipped
  EXPECT_STREQ(p.tail, "zzz");
  EXPECT_EQ(row.size(), 4u);
  EXPECT_NE(mv::findField(row, "Extra"), nullptr);
}

TEST_F(RowReadingTest, CutsAtACharacterBoundary) {
  RecordingServer& server = connect();
  server.queueResult({{"KEY=Name\t2\tab表紙入力"}});  // 2 + 4 x 2 bytes in CP932
  int32_t rows = 0;
  char handle[260];
  ASSERT_EQ(MVOpenTBL("DB", "T", 0, &rows, handle), 0);
  mv::Row row;
  int32_t status = 0;
  ASSERT_TRUE(
      mv::fetchRow(server, mv::toWide("DB").get(), mv::toWide(handle).get(), 0, row, status));
  Probe p{};
  mv::bindRow(row, kProbe, &p);
  EXPECT_STREQ(p.name, "ab\x95\x5C\x8E\x86");  // 7 bytes would split the third character
}

TEST_F(RowReadingTest, AnEmptyRowLeavesTheRecordZeroAndAWrongVariantFails) {
  RecordingServer& server = connect();
  server.queueResult({{}});
  server.queueMalformedResult(1);
  int32_t rows = 0;
  char h1[260], h2[260];
  ASSERT_EQ(MVOpenTBL("DB", "T", 0, &rows, h1), 0);
  ASSERT_EQ(MVOpenTBL("DB", "T", 0, &rows, h2), 0);
  mv::Row row;
  int32_t status = -1;
  ASSERT_TRUE(mv::fetchRow(server, mv::toWide("DB").get(), mv::toWide(h1).get(), 0, row, status));
  EXPECT_TRUE(row.empty());
  EXPECT_FALSE(mv::fetchRow(server, mv::toWide("DB").get(), mv::toWide(h2).get(), 0, row, status));
  EXPECT_EQ(status, 0);  // the method said yes but sent no array
  server.failNext("GetRecords", 0x70);
  EXPECT_FALSE(mv::fetchRow(server, mv::toWide("DB").get(), mv::toWide(h1).get(), 0, row, status));
  EXPECT_EQ(status, 0x70);
}

TEST(RowVariant, AnArrayOfPlainTextsIsReadToo) {
  VARIANT v;
  MVVariantInit(&v);
  v.parray = mv::safeArrayCreateVector(MV_VT_BSTR, 0, 2);
  v.vt = MV_VT_ARRAY | MV_VT_BSTR;
  void* data = nullptr;
  ASSERT_EQ(mv::safeArrayAccessData(v.parray, &data), 0);
  static_cast<BSTR*>(data)[0] = mv::toWide("KEY=A\t1\t5").release();
  static_cast<BSTR*>(data)[1] = mv::toWide("KEY=B\t2\tx").release();
  mv::safeArrayUnaccessData(v.parray);
  mv::Row row;
  ASSERT_TRUE(mv::parseRowVariant(v, row));
  ASSERT_EQ(row.size(), 2u);
  EXPECT_EQ(row[1].value, "x");
  EXPECT_EQ(MVVariantClear(&v), 0);
}

class RecordWritingTest : public ServerFixture {};

TEST_F(RecordWritingTest, RecordsCarryTheHandleFirstAndTaggedFieldsAfter) {
  RecordingServer& server = connect();
  mv::RecordWriter record("H5", 4);
  ASSERT_TRUE(record.ok());
  record.putInt(1, "T_Index", mv::kTypeInt, 0);
  record.putText(2, "TagName", mv::kTypeVarchar,
                 "\x8D\x48\x8E\x96\t\x8E\xCA\x90\x5E");  // 工事\t写真
  record.putRaw(4, "KEY=PageCount\t1\t3");
  record.putInt(5, "Beyond", 1, 1);  // past the end: ignored
  int32_t newIndex = 0;
  ASSERT_EQ(server.AddRecord(mv::toWide("BOOK").get(), record.get(), 1, &newIndex), 0);
  EXPECT_EQ(server.calls.back().args[1],
            "[TABLENAME=H5|KEY=T_Index\t1\t0|KEY=TagName\t2\t工事\t写真||KEY=PageCount\t1\t3]");
  EXPECT_EQ(newIndex, 100);
}

TEST(BlockRecordShape, NamesDatabaseHandleRowAndColumn) {
  mv::BlockRecord record("BOOK1123101010", "H3", 812, "RealityData");
  ASSERT_TRUE(record.ok());
  const VARIANT* v = record.get();
  EXPECT_EQ(v->vt, MV_VT_ARRAY | MV_VT_VARIANT);
  void* data = nullptr;
  ASSERT_EQ(mv::safeArrayAccessData(v->parray, &data), 0);
  std::vector<std::string> texts;
  for (uint32_t i = 0; i < mv::safeArrayCount(v->parray); ++i) {
    texts.push_back(utf8(static_cast<VARIANT*>(data)[i].bstrVal));
  }
  mv::safeArrayUnaccessData(v->parray);
  EXPECT_THAT(
      texts, ElementsAre("DBNAME=BOOK1123101010", "TABLENAME=H3", "MSTKEY=812", "KEY=RealityData"));
}

TEST(TextConversion, JapaneseCrossesAsUtf16AndBack) {
  const mv::Bstr wide = mv::toWide("\x95\x5C\x8E\x86\x93\xFC\x97\xCD");  // 表紙入力 in CP932
  EXPECT_EQ(utf8(wide.get()), "表紙入力");
  EXPECT_EQ(mv::toAnsi(wide.get()), "\x95\x5C\x8E\x86\x93\xFC\x97\xCD");
  EXPECT_EQ(mv::toAnsi(nullptr), "");
  EXPECT_TRUE(mv::toWide(static_cast<const char*>(nullptr)).empty());
}

}  // namespace
}  // namespace mvtest

namespace mvtest {
namespace {

TEST(SqlText, ApostrophesAreDoubledAndNothingElseChanges) {
  EXPECT_EQ(mv::sqlText("O'Brien's"), "O''Brien''s");
  EXPECT_EQ(mv::sqlText("%_\x95\x5C"), "%_\x95\x5C");  // LIKE wildcards and a trail byte 0x5C
  EXPECT_EQ(mv::sqlFormat("SELECT * FROM UserInfoTBL WHERE UserName='%s' AND T_Index=%d",
                          mv::sqlText("a'b").c_str(), 7),
            "SELECT * FROM UserInfoTBL WHERE UserName='a''b' AND T_Index=7");
  EXPECT_EQ(mv::sqlFormat("%s", std::string(5000, 'x').c_str()).size(), 5000u);
}

}  // namespace
}  // namespace mvtest
