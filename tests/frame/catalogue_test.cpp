// The catalogue against the project's data file of the data model, and add records built from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "MVCore.h"
#include "frame/catalogue.h"
#include "frame/records.h"
#include "recording_server.h"

namespace mvtest {
namespace {

std::string describe(const mv::TableDef& t) {
  std::string s;
  for (const mv::ColumnDef& c : t.columns) {
    if (!s.empty()) s += ", ";
    s += c.name;
    s += ':';
    s += mv::typeWord(c.type);
    if (c.width) s += "(" + std::to_string(c.width) + ")";
  }
  return s;
}

mv::DbKind kindOf(const std::string& word) {
  if (word == "system") return mv::DbKind::System;
  if (word == "common") return mv::DbKind::Common;
  return mv::DbKind::Book;
}

TEST(Catalogue, MatchesTheDataModelFileTableByTable) {
  std::ifstream in(MVCORE_TEST_DATA "/catalogue.tsv");
  ASSERT_TRUE(in) << "missing catalogue.tsv";
  std::string line;
  std::size_t tables = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string db, name, columns;
    std::getline(fields, db, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, columns);
    const mv::TableDef* t = mv::findTable(kindOf(db), name);
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
}

TEST(Catalogue, TheBooksCoverCopyDiffersInOneNameAndOneOrder) {
  const mv::TableDef* common = mv::findTable(mv::DbKind::System, "BookCommonTBL");
  const mv::TableDef* own = mv::findTable(mv::DbKind::Book, "UserBookTbl");
  ASSERT_TRUE(common && own);
  ASSERT_EQ(common->columns.size(), 35u);
  ASSERT_EQ(own->columns.size(), 35u);
  std::vector<std::string> differences;
  for (std::size_t i = 0; i < 35; ++i) {
    if (std::strcmp(common->columns[i].name, own->columns[i].name) != 0) {
      differences.push_back(std::string(common->columns[i].name) + "/" + own->columns[i].name);
    }
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
                                  if (std::string_view(c.name) == "TagID") return int32_t{12};
                                  if (std::string_view(c.name) == "Up_Date") {
                                    return std::string_view("20261123010203");
                                  }
                                  if (std::string_view(c.name) == "Various") {
                                    return std::string_view("v");
                                  }
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
}

TEST(AddRecord, TakesValuesFromARecordThroughItsBindingsAndCanOmitTheKey) {
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
  mv::RecordWriter record("H1", mv::addRecordFields(*powers, mv::KeyElement::Omitted));
  ASSERT_TRUE(mv::fillAddRecord(
      record, *powers, mv::KeyElement::Omitted,
      [&](const mv::ColumnDef& c) { return mv::boundValue(&row, kBindings, c); }));
  RecordingServer server;
  int32_t index = 0;
  server.AddRecord(nullptr, record.get(), 1, &index);
  EXPECT_EQ(server.calls[0].args[1],
            "[TABLENAME=H1|KEY=BookShelfID\t1\t3|KEY=UserID\t1\t8|KEY=Reserve\t2\t2]");
}

}  // namespace
}  // namespace mvtest
