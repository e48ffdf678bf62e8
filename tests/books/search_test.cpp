// Finding books by their covers: every subject, the two joins, the overlap of a period with the
// works, texts with apostrophes and wildcards, and arguments refused before the server is asked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVCore.h"
#include "books_fixture.h"
#include "frame/connection.h"
#include "platform/codepage.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Found = std::vector<std::string>;

SearchCondition text(int32_t kind, const std::string& value) {
  SearchCondition c{};
  c.kind = kind;
  mv::copyToField(c.text, sizeof c.text, value);
  return c;
}

SearchCondition color(int32_t value) {
  SearchCondition c{};
  c.kind = 1024;
  c.color = value;
  return c;
}

SearchCondition period(uint16_t m1, uint16_t d1, uint16_t m2, uint16_t d2) {
  SearchCondition c{};
  c.kind = 8;
  c.period.start = {2024, m1, 0, d1, 0, 0, 0, 0};
  c.period.end = {2024, m2, 0, d2, 0, 0, 0, 0};
  return c;
}

// The site names of what a search found, and what every search leaves out checked on the way.
Found names(int result, CoverInfo* list, int32_t count, bool withBookNo) {
  EXPECT_EQ(result, 0);
  EXPECT_EQ(count == 0, list == nullptr);
  Found found;
  for (int32_t i = 0; i < count; ++i) {
    found.emplace_back(list[i].SiteName);
    EXPECT_EQ(list[i].BookVer, 0);
    EXPECT_STREQ(list[i].Reserve, "");
    EXPECT_EQ(list[i].BookNo[0] != '\0', withBookNo && found.back() == "Harbour wall");
  }
  if (list != nullptr) MVGlobalFree(MVGlobalHandle(list));
  return found;
}

class SearchEndToEnd : public BooksEndToEnd {
 protected:
  void SetUp() override {
    BooksEndToEnd::SetUp();
    const int32_t site = shelf("Site");
    CoverInfo harbour = makeCover("Harbour wall", "20240401", "20240930");
    const auto set = [](auto& field, const char* value) {
      mv::copyToField(field, sizeof field, value);
    };
    set(harbour.OrderName, "Port authority");
    set(harbour.Spot, "Sato");
    set(harbour.Year, "R6");
    set(harbour.BookNo, "No-1");
    set(harbour.SitePosition, "Quay 3");
    set(harbour.ContractCompany, "Seaside Works");
    set(harbour.Prefectual, "General");
    set(harbour.Access, "Heavy");
    set(harbour.Reserve, "標準");
    harbour.BookVer = 4;
    bookRows(site, harbour);
    CoverInfo bridge = makeCover("O'Neill's bridge", "20230101", "20231231");
    set(bridge.OrderName, "City office");
    set(bridge.Spot, "Ito");
    bridge.StatureColor = 0xFF0000;
    bookRows(site, bridge);
  }

  Found simple(int32_t kind, const char* value, int32_t exact) {
    CoverInfo* list = nullptr;
    int32_t count = -1;
    const int result = MVSearchBook(kind, value, exact, &list, &count);
    return names(result, list, count, false);
  }
  Found ex(int16_t join, std::vector<SearchCondition> conditions) {
    CoverInfo* list = nullptr;
    int32_t count = -1;
    const int result = MVSearchBookEx(join, conditions.data(),
                                      static_cast<int32_t>(conditions.size()), &list, &count);
    return names(result, list, count, true);
  }
};

MVCORE_ON_BOTH_SERVERS(SearchEndToEnd);

TEST_P(SearchEndToEnd, OneSubjectExactlyOrAnywhereWithApostrophesAndWildcards) {
  EXPECT_THAT(simple(1, "Harbour wall", 1), ElementsAre("Harbour wall"));
  EXPECT_THAT(simple(1, "Harbour", 1), IsEmpty());
  EXPECT_THAT(simple(1, "O'Neill", 0), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(2, "City office", 1), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(2, "authority", 0), ElementsAre("Harbour wall"));
  EXPECT_THAT(simple(4, "Ito", 1), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(8, "20240930", 1), ElementsAre("Harbour wall"));  // either end of the works
  EXPECT_THAT(simple(8, "2023", 0), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(simple(1, "", 0), UnorderedElementsAre("Harbour wall", "O'Neill's bridge"));
  EXPECT_THAT(simple(1, "O%s_bridge", 0), ElementsAre("O'Neill's bridge"));
  CoverInfo* list = nullptr;
  int32_t count = -1;
  EXPECT_EQ(MVSearchBook(16, "R6", 0, &list, &count), -1);
}

TEST_P(SearchEndToEnd, EverySubjectOfTheListFindsItsColumnAndTheJoinsCombineThem) {
  const std::pair<int32_t, const char*> subjects[] = {
      {1, "Harbour"}, {2, "Port"},      {4, "Sato"},      {16, "R6"},    {32, "No-1"},
      {64, "Quay"},   {128, "Seaside"}, {256, "General"}, {512, "Heavy"}};
  for (const auto& [kind, value] : subjects) {
    EXPECT_THAT(ex(1, {text(kind, value)}), ElementsAre("Harbour wall")) << kind;
  }
  EXPECT_THAT(ex(2, {color(0xFF0000)}), ElementsAre("O'Neill's bridge"));
  EXPECT_THAT(ex(2, {color(0)}), ElementsAre("Harbour wall"));  // 0 is a colour like any other
  EXPECT_THAT(ex(1, {text(1, "Harbour"), text(4, "Ito")}), IsEmpty());
  EXPECT_THAT(ex(2, {text(1, "Harbour"), text(4, "Ito")}),
              UnorderedElementsAre("Harbour wall", "O'Neill's bridge"));
}

TEST_P(SearchEndToEnd, APeriodFindsTheWorksItOverlaps) {
  // The harbour's works run from 1 April to 30 September 2024.
  const Found harbour = {"Harbour wall"};
  EXPECT_EQ(ex(1, {period(5, 1, 5, 31)}), harbour);    // inside the works
  EXPECT_EQ(ex(1, {period(1, 1, 12, 31)}), harbour);   // holding them
  EXPECT_EQ(ex(1, {period(3, 1, 4, 15)}), harbour);    // over their start
  EXPECT_EQ(ex(1, {period(9, 1, 10, 10)}), harbour);   // over their end
  EXPECT_EQ(ex(1, {period(4, 1, 4, 1)}), harbour);     // their first day alone
  EXPECT_EQ(ex(1, {period(1, 1, 3, 31)}), Found{});    // ending the day before
  EXPECT_EQ(ex(1, {period(10, 1, 10, 31)}), Found{});  // beginning the day after
}

using SearchRecorded = BooksRecorded;

TEST_F(SearchRecorded, BadArgumentsGiveMinusFourBeforeTheServerIsAsked) {
  const SearchCondition good = text(1, "x");
  auto* const untouched = reinterpret_cast<CoverInfo*>(this);
  CoverInfo* list = untouched;
  int32_t count = -3;
  mv::connection().lastError = 77;
  EXPECT_EQ(MVSearchBookEx(1, nullptr, 1, &list, &count), -4);
  EXPECT_EQ(MVSearchBookEx(1, &good, 0, &list, &count), -4);
  EXPECT_EQ(MVSearchBookEx(1, &good, 1, nullptr, &count), -4);
  EXPECT_EQ(MVSearchBookEx(3, &good, 1, &list, &count), -4);
  // An empty text, a period that ends before it starts, two subjects at once, no subject.
  for (const SearchCondition& bad :
       {text(1, ""), period(5, 2, 5, 1), text(3, "x"), text(0, "x"), text(2048, "x")}) {
    const SearchCondition pair[] = {good, bad};
    EXPECT_EQ(MVSearchBookEx(2, pair, 2, &list, &count), -4) << bad.kind;
  }
  EXPECT_THAT(server->calls, IsEmpty());
  EXPECT_EQ(list, untouched);
  EXPECT_EQ(count, -3);
  EXPECT_EQ(mv::connection().lastError, 77);

  // The statement: conditions in order, one join word between them, apostrophes doubled.
  const SearchCondition three[] = {text(1, "O'N"), period(3, 1, 3, 1), color(0)};
  ASSERT_EQ(MVSearchBookEx(2, three, 3, &list, &count), 0);
  EXPECT_EQ(
      server->calls.at(0).args.at(2),
      "SELECT * FROM BookCommonTBL WHERE ( ( SiteName LIKE '%O''N%' ) OR ( ( ( CAST ( StartDate "
      "AS INT ) <= 20240301 ) AND ( 20240301 <= CAST ( EndDate AS INT ) ) ) OR ( ( CAST ( "
      "StartDate AS INT ) <= 20240301 ) AND ( 20240301 <= CAST ( EndDate AS INT ) ) ) OR ( ( "
      "20240301 <= CAST ( StartDate AS INT ) ) AND ( CAST ( EndDate AS INT ) <= 20240301 ) ) ) "
      "OR ( StatureColor = 0 ) );");
}

}  // namespace
}  // namespace mvtest
