// Each rewriting rule by itself: where it takes hold, what it writes, and where it keeps out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "sql/rules.h"

namespace mvtest {
namespace {

using namespace mv::server::sql;

struct Case {
  const char* rule;
  const char* sql;
  size_t pos;
  const char* taken;   // the text the rule takes; "" when it must not match
  const char* result;  // its rewrite, or the start of its refusal
};

const Case kCases[] = {
    {"table-hint-nolock", "FROM t WITH (NOLOCK) WHERE a = 1", 2, "WITH (NOLOCK)", ""},
    {"table-hint-nolock", "UPDATE t WITH(NOLOCK) SET a = 1", 2, "WITH (NOLOCK)", ""},
    {"table-hint-nolock", "WHERE a WITH (NOLOCK)", 2, "", ""},
    {"byte-exact-like", "WHERE x LIKE CONVERT(varbinary(9), '%a_[b%') AND y", 1,
     "x LIKE CONVERT(varbinary(9), '%a_[b%')", "x GLOB '*a?[[]b*'"},
    {"byte-exact-like", "(CONVERT(varbinary(9), x) NOT LIKE CONVERT(varbinary(max), 'a*'))", 1,
     "CONVERT(varbinary(9), x) NOT LIKE CONVERT(varbinary(max), 'a*')", "x NOT GLOB 'a[*]'"},
    {"byte-exact-like", "WHERE x LIKE CONVERT(varbinary(9), y)", 1, "", ""},
    {"byte-exact-like", "WHERE x LIKE CONVERT(varbinary(9), 'a!%') ESCAPE '!'", 1, "", ""},
    {"byte-exact-comparison", "WHERE CONVERT(varbinary(9), a) <> b.c AND d", 1,
     "CONVERT(varbinary(9), a) <> b.c", "CAST(a AS BLOB) <> CAST(b.c AS BLOB)"},
    {"byte-exact-comparison", "WHERE CAST(a AS INT) = CONVERT(varbinary, 'x')", 1,
     "CAST(a AS INT) = CONVERT(varbinary, 'x')",
     "CAST(CAST(a AS INTEGER) AS BLOB) = CAST('x' AS BLOB)"},
    {"byte-exact-comparison", "WHERE c + a = CONVERT(varbinary(9), b)", 3, "", ""},
    {"byte-exact-comparison", "WHERE a = CONVERT(varbinary(9), b) COLLATE NOCASE", 1, "", ""},
    {"byte-exact-comparison", "WHERE a = b", 1, "", ""},
    {"cast-type", "CAST ( CAST(a AS varchar(10)) AS INT ) = 1", 0,
     "CAST(CAST(a AS varchar(10)) AS INT)", "CAST(CAST(a AS TEXT) AS INTEGER)"},
    {"cast-type", "CAST(a AS float)", 0, "CAST(a AS float)", "CAST(a AS REAL)"},
    {"cast-type", "CAST(a AS money)", 0, "CAST(a AS money)", "CAST to type money"},
    {"cast-type", "CAST(a)", 0, "", ""},
    {"convert-elsewhere", "SET a = CONVERT(varbinary(9), 'x')", 3, "CONVERT",
     "CONVERT is accepted"},
};

TEST(RulesTest, EachRuleAloneTakesAndRewritesOnlyItsPattern) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.rule) + ": " + c.sql);
    const Rule* rule = findRule(c.rule);
    ASSERT_NE(rule, nullptr);
    const Tokenized t = tokenize(c.sql);
    ASSERT_TRUE(t.ok) << t.error;
    const size_t taken = rule->match(t.tokens, c.pos);
    EXPECT_EQ(render(TokenSpan(t.tokens).subspan(c.pos, taken)), c.taken);
    if (taken == 0) continue;
    Tokens out;
    std::string error;
    const bool ok = rule->rewrite(TokenSpan(t.tokens).subspan(c.pos, taken), out, error);
    EXPECT_THAT(ok ? render(out) : error, ::testing::StartsWith(c.result));
    EXPECT_EQ(ok, error.empty());
  }
}

TEST(RulesTest, EveryRuleInTheTableHasCasesHere) {
  std::set<std::string> named;
  for (const Rule& r : rewriteRules()) {
    EXPECT_TRUE(named.insert(std::string(r.name)).second) << "twice: " << r.name;
    EXPECT_EQ(findRule(r.name), &r);
    EXPECT_TRUE(std::any_of(std::begin(kCases), std::end(kCases), [&](const Case& c) {
      return r.name == c.rule;
    })) << r.name;
  }
  EXPECT_EQ(findRule("no-such-rule"), nullptr);
}

}  // namespace
}  // namespace mvtest
