// Rows coming in and records going out in the tagged-text format, the catalogue of the data
// model the add records are built from, and SQL text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "MVCore.h"
#include "frame/catalogue.h"
#include "frame/exchange.h"
#include "frame/records.h"
#include "frame/sql_text.h"
#include "server_fixture.h"
#include "utf8.h"

namespace mvtest {
namespace {

std::string parsed(std::string_view text) {
  mv::FieldElement e;
  if (!mv::parseFieldElement(text, e)) return "refused";
  return std::string(e.name) + "|" + std::to_string(e.typecode) + "|" + std::string(e.value);
}

TEST(FieldElement, ParsesByCharactersAndOnlyTheFirstTwoTabsDelimit) {
  const std::pair<const char*, const char*> cases[] = {
      {"KEY=Various\t2\tleft\tright\t", "Various|2|left\tright\t"},
      {"KEY=Reserve\t2\t", "Reserve|2|"},
      {"junkKEY=T_Index\t1\t-42", "T_Index|1|-42"},  // the marker is looked for anywhere
      {"KEY=T_Index\t1", "refused"},
      {"T_Index\t1\t5", "refused"},
      {"", "refused"},
      // In CP932 a trail byte may be 'K' (0x83 0x4B is one character): never the marker.
      {"\x83KEY=A\t1\t2", "refused"},
      {"KEY=\x95\x5C\t2\t\x95\x5C", "\x95\x5C|2|\x95\x5C"}};
  for (const auto& [text, result] : cases) EXPECT_EQ(parsed(text), result) << text;

  // Integers read like atoi, without overflow.
  const std::pair<const char*, int32_t> ints[] = {{"  +17abc", 17},
                                                  {"abc", 0},
                                                  {"", 0},
                                                  {"-42", -42},
                                                  {"2147483647", 2147483647},
                                                  {"-2147483648", INT32_MIN},
                                                  {"99999999999999999999", INT32_MAX},
                                                  {"-99999999999999999999", INT32_MIN}};
  for (const auto& [text, value] : ints) EXPECT_EQ(mv::parseInt(text), value) << text;
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

class RecordsTest : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
  }
  // The first row of a table opened on the recording server, after its queued result.
  bool fetch(mv::Row& row, int32_t& status) {
    int32_t rows = 0;
    char handle[260];
    EXPECT_EQ(MVOpenTBL("DB", "T", 0, &rows, handle), 0);
    return mv::fetchRow(*server, mv::toWide("DB").get(), mv::toWide(handle).get(), 0, row, status);
  }
  RecordingServer* server = nullptr;
};

TEST_F(RecordsTest, ARowFillsFixedFieldsByExactNameNeverPastThemNorMidCharacter) {
  server->queueResult({{"KEY=T_Index\t1\t7", "KEY=name\t2\twrong case", "KEY=Name\t2\tabcdefghijk",
                        "KEY=Count\t1", "no marker", "KEY=Extra\t2\tdropped"}});
  server->queueResult({{"KEY=Name\t2\tab表紙入力"}});  // 2 + 4 x 2 bytes in CP932
  mv::Row row;
  int32_t status = -1;
  ASSERT_TRUE(fetch(row, status));
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
  ASSERT_TRUE(fetch(row, status));
  mv::bindRow(row, kProbe, &p);
  EXPECT_STREQ(p.name, "ab\x95\x5C\x8E\x86");  // 7 bytes would split the third character
}

TEST_F(RecordsTest, AnEmptyRowIsNoRowAndAWrongVariantOrStatusFails) {
  server->queueResult({{}});
  server->queueMalformedResult(1);
  mv::Row row;
  int32_t status = -1;
  ASSERT_TRUE(fetch(row, status));
  EXPECT_TRUE(row.empty());
  EXPECT_FALSE(fetch(row, status));
  EXPECT_EQ(status, 0);  // the method said yes but sent no array
  server->failNext("GetRecords", 0x70);
  EXPECT_FALSE(fetch(row, status));
  EXPECT_EQ(status, 0x70);

  // An array of plain texts is read too.
  VARIANT v;
  MVVariantInit(&v);
  v.parray = mv::safeArrayCreateVector(MV_VT_BSTR, 0, 2);
  v.vt = MV_VT_ARRAY | MV_VT_BSTR;
  static_cast<BSTR*>(v.parray->pvData)[0] = mv::toWide("KEY=A\t1\t5").release();
  static_cast<BSTR*>(v.parray->pvData)[1] = mv::toWide("KEY=B\t2\tx").release();
  ASSERT_TRUE(mv::parseRowVariant(v, row));
  ASSERT_EQ(row.size(), 2u);
  EXPECT_EQ(row[1].value, "x");
  EXPECT_EQ(MVVariantClear(&v), 0);
}

TEST_F(RecordsTest, RecordsCarryTheHandleFirstAndTaggedFieldsInUtf16After) {
  mv::RecordWriter record("H5", 4);
  ASSERT_TRUE(record.ok());
  record.putInt(1, "T_Index", mv::kTypeInt, 0);
  record.putText(2, "TagName", mv::kTypeVarchar, "\x8D\x48\x8E\x96\t\x8E\xCA\x90\x5E");
  record.putRaw(4, "KEY=PageCount\t1\t3");
  record.putInt(5, "Beyond", 1, 1);  // past the end: ignored
  int32_t newIndex = 0;
  ASSERT_EQ(server->AddRecord(mv::toWide("BOOK").get(), record.get(), 1, &newIndex), 0);
  EXPECT_EQ(server->calls.back().args[1],
            "[TABLENAME=H5|KEY=T_Index\t1\t0|KEY=TagName\t2\t工事\t写真||KEY=PageCount\t1\t3]");
  const mv::Bstr wide = mv::toWide("\x95\x5C\x8E\x86\x93\xFC\x97\xCD");  // 表紙入力 in CP932
  EXPECT_EQ(utf8(wide.get()), "表紙入力");
  EXPECT_EQ(mv::toAnsi(wide.get()), "\x95\x5C\x8E\x86\x93\xFC\x97\xCD");
  EXPECT_EQ(mv::toAnsi(nullptr), "");
  EXPECT_TRUE(mv::toWide(static_cast<const char*>(nullptr)).empty());
}

TEST(SqlText, ApostrophesAreDoubledAndNothingElseChanges) {
  EXPECT_EQ(mv::sqlText("O'Brien's"), "O''Brien''s");
  EXPECT_EQ(mv::sqlText("%_\x95\x5C"), "%_\x95\x5C");  // LIKE wildcards and a trail byte 0x5C
  EXPECT_EQ(mv::sqlFormat("SELECT * FROM T WHERE UserName='%s' AND T_Index=%d",
                          mv::sqlText("a'b").c_str(), 7),
            "SELECT * FROM T WHERE UserName='a''b' AND T_Index=7");
  EXPECT_EQ(mv::sqlFormat("%s", std::string(5000, 'x').c_str()).size(), 5000u);
}

std::string describe(const mv::TableDef& t) {
  std::string s;
  for (const mv::ColumnDef& c : t.columns) {
    s += (s.empty() ? "" : ", ") + std::string(c.name) + ':' + mv::typeWord(c.type);
    if (c.width) s += "(" + std::to_string(c.width) + ")";
  }
  return s;
}

TEST(Catalogue, MatchesTheDataModelFileTableByTable) {
  std::ifstream in(MVCORE_CATALOGUE);
  ASSERT_TRUE(in) << "missing catalogue.tsv";
  std::size_t tables = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string db, name, columns;
    std::getline(fields, db, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, columns);
    const mv::DbKind kind = db == "system"   ? mv::DbKind::System
                            : db == "common" ? mv::DbKind::Common
                                             : mv::DbKind::Book;
    const mv::TableDef* t = mv::findTable(kind, name);
    ASSERT_NE(t, nullptr) << db << " " << name;
    EXPECT_EQ(describe(*t), columns) << name;
    ++tables;
  }
  EXPECT_EQ(tables, mv::catalogue().size());
  for (const mv::TableDef& t : mv::catalogue()) {
    EXPECT_STREQ(t.columns.front().name, "T_Index") << t.name;
    for (const mv::ColumnDef& c : t.columns) {
      EXPECT_LE(std::strlen(c.name), std::size_t{mv::kMaxColumnName}) << c.name;
    }
  }
  // The book's copy of the cover differs in one name and one order.
  const mv::TableDef* common = mv::findTable(mv::DbKind::System, "BookCommonTBL");
  const mv::TableDef* own = mv::findTable(mv::DbKind::Book, "UserBookTbl");
  ASSERT_TRUE(common && own);
  ASSERT_EQ(common->columns.size(), 35u);
  ASSERT_EQ(own->columns.size(), 35u);
  std::vector<std::string> differences;
  for (std::size_t i = 0; i < 35; ++i) {
    const std::string a = common->columns[i].name, b = own->columns[i].name;
    if (a != b) differences.push_back(a + "/" + b);
  }
  EXPECT_THAT(differences,
              ::testing::ElementsAre("OrderName/ContractCompany", "ContractCompany/OrderName",
                                     "Up_DateCount/Up_DateCounter"));
  EXPECT_EQ(mv::findTable(mv::DbKind::Book, "BookCommonTBL"), nullptr);
  EXPECT_NE(common->find("Prepayment"), nullptr);
  EXPECT_EQ(common->find("prepayment"), nullptr);
}

TEST(AddRecord, WalksTheCatalogueOrderWithTypecodesFromTheColumnTypes) {
  const mv::TableDef* images = mv::findTable(mv::DbKind::Book, "ImageDataTBL");
  ASSERT_NE(images, nullptr);
  mv::RecordWriter record("H4", mv::addRecordFields(*images, mv::KeyElement::Zero));
  std::vector<std::string> asked;
  ASSERT_TRUE(mv::fillAddRecord(record, *images, mv::KeyElement::Zero,
                                [&](const mv::ColumnDef& c) -> mv::ColumnValue {
                                  asked.emplace_back(c.name);
                                  const std::string_view name = c.name;
                                  if (name == "TagID") return int32_t{12};
                                  if (name == "Up_Date") return std::string_view("20261123010203");
                                  if (name == "Various") return std::string_view("v");
                                  return {};
                                }));
  RecordingServer server;
  int32_t index = 0;
  server.AddRecord(nullptr, record.get(), 1, &index);
  EXPECT_EQ(server.calls[0].args[1],
            "[TABLENAME=H4|KEY=T_Index\t1\t0|KEY=TagID\t1\t12||||KEY=Various\t2\tv|||"
            "KEY=Up_Date\t3\t20261123010203||||]");
  // Blob columns are never asked for: they travel in blocks.
  EXPECT_THAT(asked, ::testing::Not(::testing::Contains("RealityData")));
  EXPECT_THAT(asked, ::testing::Not(::testing::Contains("T_Index")));

  // Values from a record through its bindings, without the key.
  const mv::TableDef* powers = mv::findTable(mv::DbKind::System, "BookShelfPowerTBL");
  ASSERT_NE(powers, nullptr);
  struct PowerRow {
    int32_t shelf;
    int32_t user;
    char reserve[4];
  } row{3, 8, "2"};
  constexpr mv::FieldBinding kBindings[] = {MV_INT_FIELD(PowerRow, shelf, "BookShelfID"),
                                            MV_INT_FIELD(PowerRow, user, "UserID"),
                                            MV_TEXT_FIELD(PowerRow, reserve, "Reserve")};
  mv::RecordWriter bound("H1", mv::addRecordFields(*powers, mv::KeyElement::Omitted));
  ASSERT_TRUE(mv::fillAddRecord(bound, *powers, mv::KeyElement::Omitted,
                                [&](const auto& c) { return mv::boundValue(&row, kBindings, c); }));
  server.AddRecord(nullptr, bound.get(), 1, &index);
  EXPECT_EQ(server.calls[1].args[1],
            "[TABLENAME=H1|KEY=BookShelfID\t1\t3|KEY=UserID\t1\t8|KEY=Reserve\t2\t2]");
}

}  // namespace
}  // namespace mvtest
