// The book server's SQL translator: the client's Transact-SQL-like statements in, SQLite
// statements out, with everything outside the small accepted dialect refused.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mv::server {

enum class SqlKind { Select, Update, Delete, AlterTableAdd, UpdateBatch };

struct SqlTranslation {
  bool ok = false;
  SqlKind kind = SqlKind::Select;
  // SQLite text, one statement each, no trailing ';'. A batch: its UPDATEs in order.
  std::vector<std::string> statements;
  // The table the statement names (after FROM / UPDATE / DELETE FROM / ALTER TABLE), as written
  // (unquoted).
  std::string table;
  // When !ok: a short English reason naming the offending token.
  std::string error;
};

SqlTranslation translateSql(std::string_view text);  // text is UTF-8

}  // namespace mv::server
