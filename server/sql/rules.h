// The rewriting rules that turn the client's dialect into SQLite, kept as one table so that
// each rule can be listed, read and tested by itself. The translator walks the table over a
// statement's tokens: at every position the first rule that matches rewrites what it matched;
// tokens no rule matches are copied unchanged, which is how literals stay untouched.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sql/tokenizer.h"

namespace mv::server::sql {

// How many tokens from pos the rule takes (0: no match). It may look at tokens before pos.
using Matcher = size_t (*)(TokenSpan tokens, size_t pos);
// Appends the replacement of exactly what the matcher took; false with error to refuse.
using Rewriter = bool (*)(TokenSpan matched, Tokens& out, std::string& error);

struct Rule {
  std::string_view name;
  Matcher match;
  Rewriter rewrite;
};

std::span<const Rule> rewriteRules();
const Rule* findRule(std::string_view name);

bool applyRules(TokenSpan tokens, Tokens& out, std::string& error);

// The SQLite type for a column type as the client writes it (int, varchar(n), ...).
std::optional<std::string_view> sqliteType(TokenSpan type);

// Index of the ')' closing the '(' at open, or npos.
size_t closingParen(TokenSpan tokens, size_t open);

}  // namespace mv::server::sql
