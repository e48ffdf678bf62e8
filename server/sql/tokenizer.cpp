#include "sql/tokenizer.h"

#include <cstdio>

#include "platform/utf.h"

namespace mv::server::sql {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isWordStart(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool isWordChar(char c) { return isWordStart(c) || isDigit(c); }

std::string describeChar(char c) {
  const auto u = static_cast<unsigned char>(c);
  if (u > 0x20 && u < 0x7f) return std::string("'") + c + "'";
  char buf[16];
  std::snprintf(buf, sizeof buf, "byte 0x%02X", static_cast<unsigned>(u));
  return buf;
}

constexpr std::string_view kTwoCharSymbols[] = {"<=", ">=", "<>", "!="};
constexpr std::string_view kOneCharSymbols = "=<>(),;*.+-";

// Words after which '(' opens a group rather than an argument list; only cosmetic.
constexpr std::string_view kSpacedBeforeParen[] = {
    "AND",  "OR",     "NOT",    "WHERE",   "IN",     "ON",     "SET",    "EXISTS", "BETWEEN",
    "LIKE", "GLOB",   "IS",     "WHEN",    "THEN",   "ELSE",   "BY",     "FROM",   "AS",
    "CASE", "SELECT", "VALUES", "DEFAULT", "ESCAPE", "UPDATE", "DELETE", "WITH"};

bool spacedBeforeParen(const Token& t) {
  for (std::string_view w : kSpacedBeforeParen) {
    if (isWord(t, w)) return true;
  }
  return false;
}

bool spaceBetween(TokenSpan t, size_t i) {
  const Token& a = t[i - 1];
  const Token& b = t[i];
  if (isSymbol(a, "(")) return false;
  if (isSymbol(b, ")") || isSymbol(b, ",") || isSymbol(b, ";")) return false;
  if (isSymbol(b, ".") && isName(a)) return false;
  if (isSymbol(a, ".") && isName(b)) return false;
  if (isSymbol(b, "(") && a.kind == TokenKind::Word && !spacedBeforeParen(a)) return false;
  // A unary minus sits against its number; after an operand it is a subtraction.
  if (isSymbol(a, "-") && b.kind == TokenKind::Number &&
      (i < 2 || (t[i - 2].kind == TokenKind::Symbol && !isSymbol(t[i - 2], ")")))) {
    return false;
  }
  return true;
}

}  // namespace

Tokenized tokenize(std::string_view sql) {
  Tokenized r;
  auto fail = [&r](std::string message) {
    r.tokens.clear();
    r.error = std::move(message);
    return r;
  };
  size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    if (isSpace(c)) {
      ++i;
      continue;
    }
    const bool national = (c == 'N' || c == 'n') && i + 1 < sql.size() && sql[i + 1] == '\'';
    if (c == '\'' || national) {
      const size_t start = i;
      size_t j = i + (national ? 2 : 1);
      std::string value;
      bool closed = false;
      while (j < sql.size()) {
        if (sql[j] == '\'') {
          if (j + 1 < sql.size() && sql[j + 1] == '\'') {
            value += '\'';
            j += 2;
            continue;
          }
          closed = true;
          ++j;
          break;
        }
        value += sql[j++];
      }
      if (!closed) {
        return fail("unterminated text literal starting at offset " + std::to_string(start));
      }
      if (value.find('\0') != std::string::npos) {
        return fail("NUL character in the text literal at offset " + std::to_string(start));
      }
      // The server stores what it is given; a literal that is not UTF-8 came through a broken
      // conversion on the client, and storing it would only move the damage into the database.
      if (!isValidUtf8(value)) {
        return fail("text literal at offset " + std::to_string(start) + " is not valid UTF-8");
      }
      r.tokens.push_back({TokenKind::Text, std::move(value)});
      i = j;
      continue;
    }
    if (c == '[') {
      std::string name;
      size_t j = i + 1;
      bool closed = false;
      while (j < sql.size()) {
        if (sql[j] == ']') {
          if (j + 1 < sql.size() && sql[j + 1] == ']') {
            name += ']';
            j += 2;
            continue;
          }
          closed = true;
          ++j;
          break;
        }
        if (sql[j] == '\0') return fail("NUL character in a [name]");
        name += sql[j++];
      }
      if (!closed) return fail("unterminated [name] starting at offset " + std::to_string(i));
      if (name.empty()) return fail("empty [] name at offset " + std::to_string(i));
      if (!isValidUtf8(name))
        return fail("[name] at offset " + std::to_string(i) + " is not UTF-8");
      r.tokens.push_back({TokenKind::QuotedName, std::move(name)});
      i = j;
      continue;
    }
    if (isWordStart(c)) {
      size_t j = i + 1;
      while (j < sql.size() && isWordChar(sql[j])) ++j;
      r.tokens.push_back(word(sql.substr(i, j - i)));
      i = j;
      continue;
    }
    if (isDigit(c)) {
      size_t j = i + 1;
      while (j < sql.size() && isDigit(sql[j])) ++j;
      if (j + 1 < sql.size() && sql[j] == '.' && isDigit(sql[j + 1])) {
        j += 2;
        while (j < sql.size() && isDigit(sql[j])) ++j;
      }
      if (j < sql.size() && (isWordChar(sql[j]) || sql[j] == '.')) {
        size_t k = j;
        while (k < sql.size() && (isWordChar(sql[k]) || sql[k] == '.')) ++k;
        return fail("malformed number '" + std::string(sql.substr(i, k - i)) + "'");
      }
      r.tokens.push_back({TokenKind::Number, std::string(sql.substr(i, j - i))});
      i = j;
      continue;
    }
    if (c == '-' && i + 1 < sql.size() && sql[i + 1] == '-') {
      return fail("comments ('--') are not accepted");
    }
    if (c == '"') return fail("double-quoted text is not accepted; text goes in '...'");
    bool matched = false;
    for (std::string_view s : kTwoCharSymbols) {
      if (sql.substr(i, 2) == s) {
        r.tokens.push_back(symbol(s));
        i += 2;
        matched = true;
        break;
      }
    }
    if (matched) continue;
    if (kOneCharSymbols.find(c) != std::string_view::npos) {
      r.tokens.push_back(symbol(sql.substr(i, 1)));
      ++i;
      continue;
    }
    return fail("unexpected character " + describeChar(c) + " at offset " + std::to_string(i));
  }
  r.ok = true;
  return r;
}

Token word(std::string_view text) { return {TokenKind::Word, std::string(text)}; }
Token symbol(std::string_view text) { return {TokenKind::Symbol, std::string(text)}; }
Token textLiteral(std::string_view value) { return {TokenKind::Text, std::string(value)}; }

std::string upper(std::string_view s) {
  std::string u(s);
  for (char& c : u) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return u;
}

bool isWord(const Token& t, std::string_view upperKeyword) {
  if (t.kind != TokenKind::Word || t.text.size() != upperKeyword.size()) return false;
  return upper(t.text) == upperKeyword;
}

bool isSymbol(const Token& t, std::string_view s) {
  return t.kind == TokenKind::Symbol && t.text == s;
}

bool isName(const Token& t) { return t.kind == TokenKind::Word || t.kind == TokenKind::QuotedName; }

std::string spell(const Token& t) {
  auto quoted = [](std::string_view s, char q) {
    std::string out(1, q);
    for (char c : s) {
      out += c;
      if (c == q) out += q;
    }
    out += q;
    return out;
  };
  switch (t.kind) {
    case TokenKind::QuotedName:
      return quoted(t.text, '"');
    case TokenKind::Text:
      return quoted(t.text, '\'');
    default:
      return t.text;
  }
}

std::string describe(const Token& t) {
  if (t.kind == TokenKind::QuotedName) return "[" + t.text + "]";
  if (t.kind == TokenKind::Text) return spell(t);
  return "'" + t.text + "'";
}

std::string render(TokenSpan tokens) {
  std::string out;
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (i > 0 && spaceBetween(tokens, i)) out += ' ';
    out += spell(tokens[i]);
  }
  return out;
}

}  // namespace mv::server::sql
