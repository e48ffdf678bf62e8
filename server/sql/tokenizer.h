// Tokens of the client's SQL dialect. Everything the translator decides, it decides on these
// tokens, so text inside literals can never be mistaken for SQL.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mv::server::sql {

enum class TokenKind { Word, QuotedName, Number, Text, Symbol };

struct Token {
  TokenKind kind = TokenKind::Symbol;
  // Word, Number, Symbol: as written. QuotedName: the name between the brackets, ']]' folded.
  // Text: the literal's value, '' folded to one quote.
  std::string text;
};

using Tokens = std::vector<Token>;
using TokenSpan = std::span<const Token>;

struct Tokenized {
  bool ok = false;
  Tokens tokens;
  std::string error;
};

Tokenized tokenize(std::string_view sql);

Token word(std::string_view text);
Token symbol(std::string_view text);
Token textLiteral(std::string_view value);

std::string upper(std::string_view s);
// Keywords are bare words only: [Select] is a name.
bool isWord(const Token& t, std::string_view upperKeyword);
bool isSymbol(const Token& t, std::string_view s);
bool isName(const Token& t);
// The token as SQLite should read it: names double-quoted, literals single-quoted.
std::string spell(const Token& t);
// For error messages.
std::string describe(const Token& t);

// SQLite text of a token run; it only adds spaces, and never where two tokens would fuse.
std::string render(TokenSpan tokens);

}  // namespace mv::server::sql
