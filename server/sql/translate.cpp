#include "sql/translate.h"

#include <optional>

#include "sql/rules.h"
#include "sql/tokenizer.h"

namespace mv::server {
namespace {

using sql::describe;
using sql::isName;
using sql::isSymbol;
using sql::isWord;
using sql::Token;
using sql::TokenKind;
using sql::Tokens;
using sql::TokenSpan;
using sql::upper;

// Deep enough for any condition the client builds; shallow enough that the recursive rules
// cannot exhaust the stack.
constexpr int kMaxNesting = 64;

// Statements and functions that could reach beyond the one table a request names.
constexpr std::string_view kRefusedKeywords[] = {
    "ATTACH", "DETACH", "PRAGMA", "DROP",    "CREATE",   "INSERT", "REPLACE",
    "VACUUM", "ALTER",  "EXEC",   "EXECUTE", "TRUNCATE", "GRANT",  "LOAD_EXTENSION"};
// Clauses the client never sends; each would widen a statement past one table or one result.
constexpr std::string_view kOutsideDialect[] = {"UNION", "INTERSECT", "EXCEPT", "JOIN",
                                                "GROUP", "HAVING",    "LIMIT",  "OFFSET",
                                                "INTO",  "RETURNING"};

struct Failure {
  std::string reason;
};

SqlTranslation refuse(std::string reason) {
  SqlTranslation r;
  r.error = std::move(reason);
  return r;
}

bool wordAt(TokenSpan t, size_t i, std::string_view w) { return i < t.size() && isWord(t[i], w); }
bool symbolAt(TokenSpan t, size_t i, std::string_view s) {
  return i < t.size() && isSymbol(t[i], s);
}

std::vector<TokenSpan> splitAtSemicolons(TokenSpan t) {
  std::vector<TokenSpan> pieces;
  size_t start = 0;
  for (size_t i = 0; i < t.size(); ++i) {
    if (isSymbol(t[i], ";")) {
      pieces.push_back(t.subspan(start, i - start));
      start = i + 1;
    }
  }
  pieces.push_back(t.subspan(start));
  return pieces;
}

std::optional<Failure> screen(TokenSpan t) {
  int depth = 0;
  for (size_t i = 0; i < t.size(); ++i) {
    const Token& tok = t[i];
    if (isSymbol(tok, "(") && ++depth > kMaxNesting) {
      return Failure{"parentheses nest deeper than " + std::to_string(kMaxNesting)};
    }
    if (isSymbol(tok, ")") && --depth < 0) return Failure{"unbalanced ')'"};
    if (!isName(tok)) continue;
    // Bracketed names are checked too: SQLite calls [load_extension](...) like the bare word.
    const std::string name = upper(tok.text);
    if (name.starts_with("SQLITE_")) {
      return Failure{"name " + describe(tok) + " is not accepted; sqlite_ names are internal"};
    }
    for (std::string_view k : kRefusedKeywords) {
      if (name == k) return Failure{"keyword " + name + " is not accepted"};
    }
    if (tok.kind != TokenKind::Word) continue;
    for (std::string_view k : kOutsideDialect) {
      if (name == k) return Failure{name + " is not accepted"};
    }
    if (name == "SELECT" && i > 0) return Failure{"sub-selects (a second SELECT) are not accepted"};
  }
  if (depth != 0) return Failure{"unbalanced '('"};
  return std::nullopt;
}

// <name> [WITH (NOLOCK)]; pos moves past both.
std::optional<Failure> parseTable(TokenSpan t, size_t& pos, std::string& table) {
  if (pos >= t.size() || !isName(t[pos])) {
    const std::string after = describe(t[pos - 1]);
    return Failure{"expected a table name after " + after +
                   (pos < t.size() ? ", found " + describe(t[pos]) : std::string())};
  }
  table = t[pos++].text;
  if (symbolAt(t, pos, ".")) return Failure{"qualified table names are not accepted"};
  if (wordAt(t, pos, "WITH")) {
    if (!symbolAt(t, pos + 1, "(") || !wordAt(t, pos + 2, "NOLOCK") || !symbolAt(t, pos + 3, ")")) {
      return Failure{"the only table hint accepted is WITH (NOLOCK)"};
    }
    pos += 4;
  }
  return std::nullopt;
}

std::optional<Failure> unexpectedAfterTable(TokenSpan t, size_t pos) {
  return Failure{"unexpected " + describe(t[pos]) +
                 " after the table name; one table, without joins or aliases, is accepted"};
}

std::optional<Failure> checkSelect(TokenSpan t, std::string& table) {
  size_t from = 0;
  int depth = 0;
  for (size_t i = 1; i < t.size() && from == 0; ++i) {
    if (isSymbol(t[i], "(")) ++depth;
    if (isSymbol(t[i], ")")) --depth;
    if (depth == 0 && isWord(t[i], "FROM")) from = i;
  }
  if (from == 0) return Failure{"SELECT needs FROM <table>"};
  if (from == 1) return Failure{"SELECT needs a column list before FROM"};
  size_t pos = from + 1;
  if (auto f = parseTable(t, pos, table)) return f;
  if (pos == t.size() || isWord(t[pos], "WHERE")) return std::nullopt;
  if (isWord(t[pos], "ORDER") && wordAt(t, pos + 1, "BY")) return std::nullopt;
  return unexpectedAfterTable(t, pos);
}

// What UPDATE and DELETE may not carry after their table.
std::optional<Failure> checkModifyTail(TokenSpan t, size_t pos, std::string_view kind) {
  for (size_t i = pos; i < t.size(); ++i) {
    if (isWord(t[i], "FROM")) return Failure{std::string(kind) + " ... FROM is not accepted"};
    if (isWord(t[i], "ORDER")) return Failure{"ORDER BY is accepted only in SELECT"};
  }
  return std::nullopt;
}

std::optional<Failure> checkUpdate(TokenSpan t, std::string& table) {
  size_t pos = 1;
  if (auto f = parseTable(t, pos, table)) return f;
  if (pos == t.size()) return Failure{"UPDATE needs SET"};
  if (!isWord(t[pos], "SET")) return unexpectedAfterTable(t, pos);
  if (pos + 1 == t.size()) return Failure{"SET needs at least one assignment"};
  return checkModifyTail(t, pos + 1, "UPDATE");
}

std::optional<Failure> checkDelete(TokenSpan t, std::string& table) {
  if (!wordAt(t, 1, "FROM")) return Failure{"DELETE needs FROM <table>"};
  size_t pos = 2;
  if (auto f = parseTable(t, pos, table)) return f;
  if (pos < t.size() && !isWord(t[pos], "WHERE")) return unexpectedAfterTable(t, pos);
  return checkModifyTail(t, pos, "DELETE");
}

// ALTER TABLE t ADD c <type> [DEFAULT v] [NOT NULL | NULL], the one schema change the client
// makes. Parsed in full: nothing else may ride along.
std::optional<Failure> translateAlter(TokenSpan t, SqlTranslation& r) {
  const Failure form{
      "only ALTER TABLE <table> ADD <column> <type> [DEFAULT v] [NOT NULL] is accepted"};
  if (!wordAt(t, 1, "TABLE") || t.size() < 3 || !isName(t[2]) || !wordAt(t, 3, "ADD") ||
      t.size() < 6 || !isName(t[4])) {
    return form;
  }
  if (upper(t[2].text).starts_with("SQLITE_")) {
    return Failure{"name " + describe(t[2]) + " is not accepted; sqlite_ names are internal"};
  }
  size_t pos = 5;
  size_t typeEnd = pos + 1;
  if (symbolAt(t, typeEnd, "(")) {
    const size_t close = sql::closingParen(t, typeEnd);
    if (close == static_cast<size_t>(-1)) return Failure{"unbalanced '(' in the column type"};
    typeEnd = close + 1;
  }
  const TokenSpan typeWords = t.subspan(pos, typeEnd - pos);
  const auto type = sql::sqliteType(typeWords);
  if (!type) return Failure{"column type " + sql::render(typeWords) + " is not accepted"};
  pos = typeEnd;

  std::optional<std::string> defaultValue;
  std::optional<bool> notNull;
  while (pos < t.size()) {
    if (isWord(t[pos], "DEFAULT")) {
      if (defaultValue) return Failure{"DEFAULT is given twice"};
      ++pos;
      std::string sign;
      if (symbolAt(t, pos, "-") || symbolAt(t, pos, "+")) sign = t[pos++].text;
      if (pos < t.size() && t[pos].kind == TokenKind::Number) {
        defaultValue = sign + t[pos++].text;
      } else if (sign.empty() && pos < t.size() && t[pos].kind == TokenKind::Text) {
        defaultValue = sql::spell(t[pos++]);
      } else {
        return Failure{"DEFAULT accepts a number or a text literal"};
      }
    } else if (isWord(t[pos], "NOT") && wordAt(t, pos + 1, "NULL") && !notNull) {
      notNull = true;
      pos += 2;
    } else if (isWord(t[pos], "NULL") && !notNull) {
      notNull = false;
      ++pos;
    } else {
      return Failure{"unexpected " + describe(t[pos]) + " in ALTER TABLE ... ADD"};
    }
  }
  // SQLite fills existing rows from the default; without one it refuses NOT NULL anyway.
  if (notNull.value_or(false) && !defaultValue) {
    return Failure{"a NOT NULL column added to a table needs a DEFAULT value"};
  }
  std::string text = "ALTER TABLE " + sql::spell(t[2]) + " ADD COLUMN " + sql::spell(t[4]) + " " +
                     std::string(*type);
  if (notNull.value_or(false)) text += " NOT NULL";
  if (defaultValue) text += " DEFAULT " + *defaultValue;
  r.kind = SqlKind::AlterTableAdd;
  r.table = t[2].text;
  r.statements.push_back(std::move(text));
  return std::nullopt;
}

// One SELECT, UPDATE, DELETE or ALTER statement, without its ';'.
std::optional<Failure> translateOne(TokenSpan t, SqlTranslation& r) {
  if (t.empty()) return Failure{"empty statement"};
  if (isWord(t[0], "ALTER")) return translateAlter(t, r);
  std::optional<Failure> f;
  if (isWord(t[0], "SELECT")) {
    r.kind = SqlKind::Select;
  } else if (isWord(t[0], "UPDATE")) {
    r.kind = SqlKind::Update;
  } else if (isWord(t[0], "DELETE")) {
    r.kind = SqlKind::Delete;
  } else if (t[0].kind == TokenKind::Word) {
    return Failure{"statement kind " + upper(t[0].text) + " is not accepted"};
  } else {
    return Failure{"a statement cannot start with " + describe(t[0])};
  }
  if ((f = screen(t))) return f;
  if (r.kind == SqlKind::Select) f = checkSelect(t, r.table);
  if (r.kind == SqlKind::Update) f = checkUpdate(t, r.table);
  if (r.kind == SqlKind::Delete) f = checkDelete(t, r.table);
  if (f) return f;
  Tokens out;
  std::string error;
  if (!sql::applyRules(t, out, error)) return Failure{error};
  r.statements.push_back(sql::render(out));
  return std::nullopt;
}

// BEGIN|COMMIT TRAN|TRANSACTION [name]
std::optional<Failure> parseTransactionPiece(TokenSpan t, std::string_view verb,
                                             std::optional<std::string>& name) {
  if (!wordAt(t, 0, verb) || !(wordAt(t, 1, "TRAN") || wordAt(t, 1, "TRANSACTION"))) {
    return Failure{"expected " + std::string(verb) + " TRAN"};
  }
  if (t.size() > 3 || (t.size() == 3 && !isName(t[2]))) {
    return Failure{"unexpected " + describe(t.back()) + " after " + std::string(verb) + " TRAN"};
  }
  if (t.size() == 3) name = t[2].text;
  return std::nullopt;
}

SqlTranslation translateBatch(const std::vector<TokenSpan>& pieces) {
  SqlTranslation r;
  r.kind = SqlKind::UpdateBatch;
  std::optional<std::string> beginName;
  if (auto f = parseTransactionPiece(pieces[0], "BEGIN", beginName)) return refuse(f->reason);
  size_t i = 1;
  for (; i < pieces.size(); ++i) {
    const TokenSpan piece = pieces[i];
    if (piece.empty() && i + 1 == pieces.size()) break;
    if (piece.empty()) return refuse("empty statement inside BEGIN TRAN ... COMMIT TRAN");
    if (isWord(piece[0], "COMMIT")) break;
    if (!isWord(piece[0], "UPDATE")) {
      return refuse("a batch accepts only UPDATE statements; found " + describe(piece[0]));
    }
    SqlTranslation one;
    if (auto f = translateOne(piece, one)) return refuse(f->reason);
    // The caller checks r.table alone, so every UPDATE must name that same table.
    if (r.table.empty()) r.table = one.table;
    if (upper(one.table) != upper(r.table)) {
      return refuse("a batch updates one table; " + one.table + " differs from " + r.table);
    }
    r.statements.push_back(std::move(one.statements.front()));
  }
  if (i == pieces.size() || pieces[i].empty()) return refuse("BEGIN TRAN without COMMIT TRAN");
  std::optional<std::string> commitName;
  if (auto f = parseTransactionPiece(pieces[i], "COMMIT", commitName)) return refuse(f->reason);
  if (beginName && commitName && *beginName != *commitName) {
    return refuse("COMMIT TRAN " + *commitName + " does not match BEGIN TRAN " + *beginName);
  }
  const bool endsHere = i + 1 == pieces.size() || (i + 2 == pieces.size() && pieces[i + 1].empty());
  if (!endsHere) {
    const TokenSpan next = pieces[i + 1].empty() ? pieces[i + 2] : pieces[i + 1];
    return refuse("nothing may follow COMMIT TRAN; found " +
                  (next.empty() ? std::string("';'") : describe(next[0])));
  }
  r.ok = true;
  return r;
}

}  // namespace

SqlTranslation translateSql(std::string_view text) {
  sql::Tokenized tokenized = sql::tokenize(text);
  if (!tokenized.ok) return refuse(tokenized.error);
  const Tokens& tokens = tokenized.tokens;
  if (tokens.empty()) return refuse("empty statement");
  const std::vector<TokenSpan> pieces = splitAtSemicolons(tokens);
  if (isWord(tokens[0], "BEGIN")) return translateBatch(pieces);

  SqlTranslation r;
  if (auto f = translateOne(pieces[0], r)) return refuse(f->reason);
  if (pieces.size() > 2 || (pieces.size() == 2 && !pieces[1].empty())) {
    return refuse("only one statement is accepted; found " +
                  (pieces[1].empty() ? std::string("a second ';'") : describe(pieces[1][0])) +
                  " after ';'");
  }
  r.ok = true;
  return r;
}

}  // namespace mv::server
