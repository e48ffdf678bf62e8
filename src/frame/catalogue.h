// The system's data model as the library knows it: the databases, their tables and each
// table's columns in order. It is the one list of columns in the library: record builders and
// the add records walk it, and nothing else writes a column list down again.
#pragma once

#include <span>
#include <string_view>

namespace mv {

enum class ColumnType { Int, Varchar, Datetime, Float, Image, Binary };

// Which kind of database a table lives in. The common tables exist in both MarvekCommonDB and
// MarvekUserCommonDB; every book has the book tables.
enum class DbKind { System, Common, Book };

struct ColumnDef {
  const char* name;
  ColumnType type;
  int width;  // varchar width; 0 for other types
};

struct TableDef {
  DbKind db;
  const char* name;
  std::span<const ColumnDef> columns;

  // nullptr when the table has no such column (exact, case-sensitive).
  const ColumnDef* find(std::string_view column) const;
};

std::span<const TableDef> catalogue();
// nullptr when the catalogue has no such table in that kind of database.
const TableDef* findTable(DbKind db, std::string_view name);

// The typecode a column crosses with; 0 for Float, which has none.
int typeCode(ColumnType type);
// "int", "varchar", ... as the data model writes the types.
const char* typeWord(ColumnType type);

inline constexpr int kMaxColumnName = 23;

}  // namespace mv
