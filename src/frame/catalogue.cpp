// The tables and columns of the system's databases, in the order rows are laid out, as
// catalogue.tsv gives them.
#include "frame/catalogue.h"

namespace mv {
namespace {

constexpr ColumnType k_int = ColumnType::Int;
constexpr ColumnType k_varchar = ColumnType::Varchar;
constexpr ColumnType k_datetime = ColumnType::Datetime;
constexpr ColumnType k_float = ColumnType::Float;
constexpr ColumnType k_image = ColumnType::Image;
constexpr ColumnType k_binary = ColumnType::Binary;

#include "catalogue_tables.inc"

}  // namespace

const ColumnDef* TableDef::find(std::string_view column) const {
  for (const ColumnDef& c : columns) {
    if (column == c.name) return &c;
  }
  return nullptr;
}

std::span<const TableDef> catalogue() { return kTables; }

const TableDef* findTable(DbKind db, std::string_view name) {
  for (const TableDef& t : kTables) {
    if (t.db == db && name == t.name) return &t;
  }
  return nullptr;
}

int typeCode(ColumnType type) {
  switch (type) {
    case ColumnType::Int:
      return 1;
    case ColumnType::Varchar:
      return 2;
    case ColumnType::Datetime:
      return 3;
    case ColumnType::Image:
      return 4;
    case ColumnType::Binary:
      return 5;
    case ColumnType::Float:
      break;
  }
  return 0;
}

const char* typeWord(ColumnType type) {
  switch (type) {
    case ColumnType::Int:
      return "int";
    case ColumnType::Varchar:
      return "varchar";
    case ColumnType::Datetime:
      return "datetime";
    case ColumnType::Float:
      return "float";
    case ColumnType::Image:
      return "image";
    case ColumnType::Binary:
      return "binary";
  }
  return "";
}

}  // namespace mv
