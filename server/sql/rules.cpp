#include "sql/rules.h"

namespace mv::server::sql {
namespace {

constexpr size_t npos = static_cast<size_t>(-1);

bool symbolAt(TokenSpan t, size_t i, std::string_view s) {
  return i < t.size() && isSymbol(t[i], s);
}
bool wordAt(TokenSpan t, size_t i, std::string_view w) { return i < t.size() && isWord(t[i], w); }

// One side of a comparison. For CONVERT(varbinary(n), expr) the inner range is expr.
struct Operand {
  size_t end = 0;
  bool convert = false;
  size_t innerBegin = 0;
  size_t innerEnd = 0;
};

bool isBinaryType(const Token& t) { return isWord(t, "VARBINARY") || isWord(t, "BINARY"); }

// CONVERT ( varbinary [ ( n | max ) ] , expr )
std::optional<Operand> parseConvert(TokenSpan t, size_t pos) {
  if (!wordAt(t, pos, "CONVERT") || !symbolAt(t, pos + 1, "(")) return std::nullopt;
  const size_t close = closingParen(t, pos + 1);
  size_t p = pos + 2;
  if (close == npos || p >= close || !isBinaryType(t[p])) return std::nullopt;
  ++p;
  if (symbolAt(t, p, "(")) {
    if (closingParen(t, p) != p + 2) return std::nullopt;
    if (t[p + 1].kind != TokenKind::Number && !isWord(t[p + 1], "MAX")) return std::nullopt;
    p += 3;
  }
  if (!symbolAt(t, p, ",") || p + 1 >= close) return std::nullopt;
  return Operand{close + 1, true, p + 1, close};
}

std::optional<Operand> parseOperand(TokenSpan t, size_t pos) {
  if (pos >= t.size()) return std::nullopt;
  if (auto c = parseConvert(t, pos)) return c;
  const Token& tok = t[pos];
  size_t end = npos;
  if (isSymbol(tok, "(")) {
    const size_t close = closingParen(t, pos);
    if (close != npos) end = close + 1;
  } else if (tok.kind == TokenKind::Text || tok.kind == TokenKind::Number) {
    end = pos + 1;
  } else if (isSymbol(tok, "-") && pos + 1 < t.size() && t[pos + 1].kind == TokenKind::Number) {
    end = pos + 2;
  } else if (isName(tok) && !isWord(tok, "AND") && !isWord(tok, "OR") && !isWord(tok, "NOT") &&
             !isWord(tok, "CONVERT")) {
    if (tok.kind == TokenKind::Word && symbolAt(t, pos + 1, "(")) {
      const size_t close = closingParen(t, pos + 1);
      if (close != npos) end = close + 1;
    } else {
      end = pos + 1;
      while (symbolAt(t, end, ".") && end + 1 < t.size() && isName(t[end + 1])) end += 2;
    }
  }
  if (end == npos) return std::nullopt;
  return Operand{end, false, pos, end};
}

// A rewritten comparison must be a whole condition, or wrapping its sides would regroup the
// expression around them.
bool startsCondition(TokenSpan t, size_t pos) {
  if (pos == 0) return true;
  const Token& prev = t[pos - 1];
  return isSymbol(prev, "(") || isWord(prev, "WHERE") || isWord(prev, "AND") ||
         isWord(prev, "OR") || isWord(prev, "NOT");
}
bool endsCondition(TokenSpan t, size_t pos) {
  return pos == t.size() || isSymbol(t[pos], ")") || isWord(t[pos], "AND") ||
         isWord(t[pos], "OR") || isWord(t[pos], "ORDER");
}

bool isComparison(const Token& t) {
  for (std::string_view op : {"=", "<>", "!=", "<", "<=", ">", ">="}) {
    if (isSymbol(t, op)) return true;
  }
  return false;
}

// The operand's own tokens, CONVERT unwrapped, with the rules applied inside.
bool rewriteOperand(TokenSpan t, const Operand& o, Tokens& out, std::string& error) {
  return applyRules(t.subspan(o.innerBegin, o.innerEnd - o.innerBegin), out, error);
}

// ---- table-hint-nolock: FROM t WITH (NOLOCK) -> FROM t. SQLite readers never block writers'
// snapshots, so the hint has nothing to ask for.
size_t matchNolock(TokenSpan t, size_t pos) {
  if (!wordAt(t, pos, "WITH") || pos < 2 || !isName(t[pos - 1])) return 0;
  if (!isWord(t[pos - 2], "FROM") && !isWord(t[pos - 2], "UPDATE")) return 0;
  if (!symbolAt(t, pos + 1, "(") || !wordAt(t, pos + 2, "NOLOCK") || !symbolAt(t, pos + 3, ")")) {
    return 0;
  }
  return 4;
}
bool rewriteNolock(TokenSpan, Tokens&, std::string&) { return true; }

// ---- byte-exact-like: x LIKE CONVERT(varbinary(n), 'pat') -> x GLOB 'globpat'. GLOB compares
// bytes, which is what the binary conversion asks for; LIKE would fold ASCII case.
struct LikeMatch {
  Operand lhs;
  bool negated = false;
  Operand pattern;
};

std::optional<LikeMatch> parseLike(TokenSpan t, size_t pos) {
  LikeMatch m;
  auto lhs = parseOperand(t, pos);
  if (!lhs) return std::nullopt;
  m.lhs = *lhs;
  size_t p = lhs->end;
  if (wordAt(t, p, "NOT")) m.negated = true, ++p;
  if (!wordAt(t, p, "LIKE")) return std::nullopt;
  auto pattern = parseConvert(t, p + 1);
  if (!pattern || pattern->innerEnd != pattern->innerBegin + 1) return std::nullopt;
  if (t[pattern->innerBegin].kind != TokenKind::Text) return std::nullopt;
  m.pattern = *pattern;
  return m;
}

size_t matchByteLike(TokenSpan t, size_t pos) {
  if (!startsCondition(t, pos)) return 0;
  auto m = parseLike(t, pos);
  if (!m || !endsCondition(t, m->pattern.end)) return 0;
  return m->pattern.end - pos;
}

std::string globPattern(std::string_view like) {
  std::string glob;
  for (char c : like) {
    switch (c) {
      case '%':
        glob += '*';
        break;
      case '_':
        glob += '?';
        break;
      case '*':
        glob += "[*]";
        break;
      case '?':
        glob += "[?]";
        break;
      case '[':
        glob += "[[]";
        break;
      default:
        glob += c;
    }
  }
  return glob;
}

bool rewriteByteLike(TokenSpan matched, Tokens& out, std::string& error) {
  const LikeMatch m = *parseLike(matched, 0);
  if (!rewriteOperand(matched, m.lhs, out, error)) return false;
  if (m.negated) out.push_back(word("NOT"));
  out.push_back(word("GLOB"));
  out.push_back(textLiteral(globPattern(matched[m.pattern.innerBegin].text)));
  return true;
}

// ---- byte-exact-comparison: a CONVERT(varbinary(n), ...) on either side of a comparison
// compares both sides as bytes: CAST(lhs AS BLOB) op CAST(rhs AS BLOB).
struct Comparison {
  Operand lhs;
  size_t op = 0;
  Operand rhs;
};

std::optional<Comparison> parseComparison(TokenSpan t, size_t pos) {
  auto lhs = parseOperand(t, pos);
  if (!lhs || lhs->end >= t.size() || !isComparison(t[lhs->end])) return std::nullopt;
  auto rhs = parseOperand(t, lhs->end + 1);
  if (!rhs || (!lhs->convert && !rhs->convert)) return std::nullopt;
  return Comparison{*lhs, lhs->end, *rhs};
}

size_t matchByteCompare(TokenSpan t, size_t pos) {
  if (!startsCondition(t, pos)) return 0;
  auto c = parseComparison(t, pos);
  if (!c || !endsCondition(t, c->rhs.end)) return 0;
  return c->rhs.end - pos;
}

bool appendBlobCast(TokenSpan t, const Operand& o, Tokens& out, std::string& error) {
  out.push_back(word("CAST"));
  out.push_back(symbol("("));
  if (!rewriteOperand(t, o, out, error)) return false;
  out.push_back(word("AS"));
  out.push_back(word("BLOB"));
  out.push_back(symbol(")"));
  return true;
}

bool rewriteByteCompare(TokenSpan matched, Tokens& out, std::string& error) {
  const Comparison c = *parseComparison(matched, 0);
  if (!appendBlobCast(matched, c.lhs, out, error)) return false;
  out.push_back(matched[c.op]);
  return appendBlobCast(matched, c.rhs, out, error);
}

// ---- cast-type: CAST(x AS int) -> CAST(x AS INTEGER), and the other type words likewise.
size_t castAs(TokenSpan t, size_t pos, size_t close) {
  size_t as = npos;
  int depth = 0;
  for (size_t i = pos + 2; i < close; ++i) {
    if (isSymbol(t[i], "(")) ++depth;
    if (isSymbol(t[i], ")")) --depth;
    if (depth == 0 && isWord(t[i], "AS")) as = i;
  }
  return as;
}

size_t matchCast(TokenSpan t, size_t pos) {
  if (!wordAt(t, pos, "CAST") || !symbolAt(t, pos + 1, "(")) return 0;
  const size_t close = closingParen(t, pos + 1);
  if (close == npos) return 0;
  const size_t as = castAs(t, pos, close);
  if (as == npos || as == pos + 2 || as + 1 == close) return 0;
  return close + 1 - pos;
}

bool rewriteCast(TokenSpan matched, Tokens& out, std::string& error) {
  const size_t close = matched.size() - 1;
  const size_t as = castAs(matched, 0, close);
  const TokenSpan type = matched.subspan(as + 1, close - as - 1);
  const auto sqlite = sqliteType(type);
  if (!sqlite) {
    error = "CAST to type " + render(type) + " is not accepted";
    return false;
  }
  out.push_back(word("CAST"));
  out.push_back(symbol("("));
  if (!applyRules(matched.subspan(2, as - 2), out, error)) return false;
  out.push_back(word("AS"));
  out.push_back(word(*sqlite));
  out.push_back(symbol(")"));
  return true;
}

// ---- convert-elsewhere: any CONVERT the rules above did not take has no faithful SQLite
// form, so it is refused rather than guessed at.
size_t matchConvert(TokenSpan t, size_t pos) { return wordAt(t, pos, "CONVERT") ? 1 : 0; }

bool rewriteConvert(TokenSpan matched, Tokens&, std::string& error) {
  (void)matched;
  error =
      "CONVERT is accepted only as CONVERT(varbinary(n), ...) forming a whole side of a "
      "comparison, or as the pattern of LIKE";
  return false;
}

constexpr Rule kRules[] = {
    {"table-hint-nolock", matchNolock, rewriteNolock},
    {"byte-exact-like", matchByteLike, rewriteByteLike},
    {"byte-exact-comparison", matchByteCompare, rewriteByteCompare},
    {"cast-type", matchCast, rewriteCast},
    {"convert-elsewhere", matchConvert, rewriteConvert},
};

}  // namespace

std::span<const Rule> rewriteRules() { return kRules; }

const Rule* findRule(std::string_view name) {
  for (const Rule& r : kRules) {
    if (r.name == name) return &r;
  }
  return nullptr;
}

bool applyRules(TokenSpan tokens, Tokens& out, std::string& error) {
  size_t pos = 0;
  while (pos < tokens.size()) {
    size_t taken = 0;
    for (const Rule& rule : kRules) {
      taken = rule.match(tokens, pos);
      if (taken == 0) continue;
      if (!rule.rewrite(tokens.subspan(pos, taken), out, error)) return false;
      break;
    }
    if (taken == 0) {
      out.push_back(tokens[pos]);
      taken = 1;
    }
    pos += taken;
  }
  return true;
}

std::optional<std::string_view> sqliteType(TokenSpan type) {
  if (type.empty() || type[0].kind != TokenKind::Word) return std::nullopt;
  const std::string name = upper(type[0].text);
  if (type.size() == 1) {
    if (name == "INT" || name == "INTEGER") return "INTEGER";
    if (name == "DATETIME" || name == "VARCHAR" || name == "NVARCHAR" || name == "TEXT") {
      return "TEXT";
    }
    if (name == "FLOAT" || name == "REAL") return "REAL";
    if (name == "IMAGE" || name == "BINARY" || name == "VARBINARY" || name == "BLOB") {
      return "BLOB";
    }
    return std::nullopt;
  }
  const bool width = type.size() == 4 && isSymbol(type[1], "(") && isSymbol(type[3], ")") &&
                     (type[2].kind == TokenKind::Number || isWord(type[2], "MAX"));
  if (!width) return std::nullopt;
  if (name == "VARCHAR" || name == "NVARCHAR") return "TEXT";
  if (name == "BINARY" || name == "VARBINARY") return "BLOB";
  return std::nullopt;
}

size_t closingParen(TokenSpan tokens, size_t open) {
  int depth = 0;
  for (size_t i = open; i < tokens.size(); ++i) {
    if (isSymbol(tokens[i], "(")) ++depth;
    if (isSymbol(tokens[i], ")") && --depth == 0) return i;
  }
  return npos;
}

}  // namespace mv::server::sql
