// Finding books by their covers across all shelves: one SELECT over BookCommonTBL, the matching
// rows handed out as a list of covers.
//
// Choices of this library where the data model leaves room:
// - Texts go into the statements with their apostrophes doubled; '%' and '_' keep their meaning
//   as wildcards of LIKE.
// - MVSearchBook with a subject other than 1, 2, 4 and 8 gives -1 without asking the server.
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "MVCore.h"
#include "books/covers.h"
#include "frame/connection.h"
#include "frame/rows.h"
#include "frame/sql_text.h"
#include "platform/codepage.h"

namespace mv {
namespace {

constexpr int kBadArguments = -4;

// Subjects of a condition.
constexpr int32_t kSiteName = 1;
constexpr int32_t kOrderName = 2;
constexpr int32_t kSpot = 4;
constexpr int32_t kPeriod = 8;
constexpr int32_t kYear = 16;
constexpr int32_t kBookNo = 32;
constexpr int32_t kSitePosition = 64;
constexpr int32_t kContractCompany = 128;
constexpr int32_t kPrefectual = 256;
constexpr int32_t kAccess = 512;
constexpr int32_t kColor = 1024;

constexpr int16_t kJoinAnd = 1;
constexpr int16_t kJoinOr = 2;

// The column a text subject of MVSearchBookEx searches, or nullptr for another subject.
const char* textColumn(int32_t kind) {
  switch (kind) {
    case kSiteName:
      return "SiteName";
    case kOrderName:
      return "OrderName";
    case kSpot:
      return "Spot";
    case kYear:
      return "Year";
    case kBookNo:
      return "BookNo";
    case kSitePosition:
      return "SitePosition";
    case kContractCompany:
      return "ContractCompany";
    case kPrefectual:
      return "Prefectual";
    case kAccess:
      return "Access";
    default:
      return nullptr;
  }
}

std::string dateDigits(const SYSTEMTIME& day) {
  return sqlFormat("%04d%02d%02d", day.wYear, day.wMonth, day.wDay);
}

// The text of one condition of MVSearchBookEx; false for a condition that is not valid.
bool conditionText(const SearchCondition& condition, std::string& text) {
  if (const char* column = textColumn(condition.kind)) {
    const std::string_view value = fieldText(condition.text);
    if (value.empty()) return false;
    text = sqlFormat("( %s LIKE '%%%s%%' )", column, sqlText(value).c_str());
    return true;
  }
  if (condition.kind == kPeriod) {
    // The period overlaps the works: its start or its end lies within them, or it holds them.
    const std::string start = dateDigits(condition.period.start);
    const std::string end = dateDigits(condition.period.end);
    if (parseInt(end) < parseInt(start)) return false;
    text = sqlFormat(
        "( ( ( CAST ( StartDate AS INT ) <= %s ) AND ( %s <= CAST ( EndDate AS INT ) ) ) OR ( ( "
        "CAST ( StartDate AS INT ) <= %s ) AND ( %s <= CAST ( EndDate AS INT ) ) ) OR ( ( %s <= "
        "CAST ( StartDate AS INT ) ) AND ( CAST ( EndDate AS INT ) <= %s ) ) )",
        start.c_str(), start.c_str(), end.c_str(), end.c_str(), start.c_str(), end.c_str());
    return true;
  }
  if (condition.kind == kColor) {
    text = sqlFormat("( StatureColor = %ld )", static_cast<long>(condition.color));
    return true;
  }
  return false;  // an unknown subject, or several bits together
}

// The statement of MVSearchBook; empty for a subject it does not search.
std::string simpleSearchSql(int32_t kind, std::string_view text, bool exact) {
  const std::string t = sqlText(text);
  switch (kind) {
    case kSiteName:
      return exact ? sqlFormat("SELECT * FROM BookCommonTBL WHERE (SiteName = '%s')", t.c_str())
                   : sqlFormat("SELECT * FROM BookCommonTBL WHERE (SiteName LIKE '%%%s%%')",
                               t.c_str());
    case kOrderName:
      return exact ? sqlFormat(
                         "SELECT * FROM BookCommonTBL WHERE (OrderName = "
                         "CONVERT(varbinary(100),'%s'))",
                         t.c_str())
                   : sqlFormat(
                         "SELECT * FROM BookCommonTBL WHERE (OrderName LIKE "
                         "CONVERT(varbinary(100),'%%%s%%'))",
                         t.c_str());
    case kSpot:
      return exact ? sqlFormat("SELECT * FROM BookCommonTBL WHERE (Spot = '%s')", t.c_str())
                   : sqlFormat("SELECT * FROM BookCommonTBL WHERE (Spot LIKE '%%%s%%')", t.c_str());
    case kPeriod:
      // A book matches if either end of its works matches the text.
      return exact ? sqlFormat(
                         "SELECT * FROM BookCommonTBL WHERE (StartDate = '%s' OR EndDate = "
                         "'%s')",
                         t.c_str(), t.c_str())
                   : sqlFormat(
                         "SELECT * FROM BookCommonTBL WHERE (StartDate LIKE '%%%s%%' OR "
                         "EndDate LIKE '%%%s%%')",
                         t.c_str(), t.c_str());
    default:
      return {};
  }
}

// Runs a search and hands the covers out. BookVer and Reserve are never filled; `bindings` says
// which of the others are.
int runSearch(const std::string& sql, std::span<const FieldBinding> bindings, CoverInfo** list,
              int32_t* count) {
  WorkQuery query(kSystemDb);
  if (failed(query.open(kCoverTable, sql))) return -1;
  if (query.rowCount() < 1) {
    if (query.close() != 1) return -1;
    *count = 0;
    *list = nullptr;
    return 0;
  }
  ResultBlock<CoverInfo> covers(static_cast<std::size_t>(query.rowCount()));
  if (!covers.ok() || !readRecords(query, bindings, covers)) {
    query.abandon();
    return -1;
  }
  if (query.close() != 1) return -1;
  *count = static_cast<int32_t>(covers.size());
  *list = covers.release();
  return 0;
}

}  // namespace
}  // namespace mv

using mv::connection;

extern "C" {

MVAPI int MVSearchBook(int32_t kind, const char* text, int32_t exact, CoverInfo** list,
                       int32_t* count) {
  if (connection().currentServer == nullptr || text == nullptr || list == nullptr ||
      count == nullptr) {
    return -1;
  }
  const std::string sql = mv::simpleSearchSql(kind, text, exact != 0);
  if (sql.empty()) return -1;
  static const std::vector<mv::FieldBinding> bindings =
      mv::coverBindingsWithout({"BookVer", "Reserve", "BookNo"});
  return mv::runSearch(sql, bindings, list, count);
}

MVAPI int MVSearchBookEx(int16_t joinMode, const SearchCondition* conditions,
                         int32_t conditionCount, CoverInfo** list, int32_t* count) {
  if (connection().currentServer == nullptr) return -1;
  if (conditions == nullptr || conditionCount < 1 || list == nullptr || count == nullptr ||
      (joinMode != mv::kJoinAnd && joinMode != mv::kJoinOr)) {
    return mv::kBadArguments;
  }
  // Every condition is checked before anything goes to the server.
  std::string joined;
  for (int32_t i = 0; i < conditionCount; ++i) {
    std::string text;
    if (!mv::conditionText(conditions[i], text)) return mv::kBadArguments;
    if (i > 0) joined += joinMode == mv::kJoinAnd ? " AND " : " OR ";
    joined += text;
  }
  static const std::vector<mv::FieldBinding> bindings =
      mv::coverBindingsWithout({"BookVer", "Reserve"});
  return mv::runSearch(mv::sqlFormat("SELECT * FROM BookCommonTBL WHERE ( %s );", joined.c_str()),
                       bindings, list, count);
}

}  // extern "C"
