#include "frame/records.h"

#include <cstring>

namespace mv {

namespace {
bool isKey(const ColumnDef& c) { return std::string_view(c.name) == "T_Index"; }
}  // namespace

uint32_t addRecordFields(const TableDef& table, KeyElement key) {
  const auto n = static_cast<uint32_t>(table.columns.size());
  return key == KeyElement::Omitted && n > 0 && isKey(table.columns.front()) ? n - 1 : n;
}

bool fillAddRecord(RecordWriter& record, const TableDef& table, KeyElement key,
                   const ColumnValues& valueOf) {
  uint32_t position = 1;
  for (const ColumnDef& column : table.columns) {
    if (isKey(column) && key != KeyElement::Valued) {
      if (key == KeyElement::Zero) record.putInt(position++, column.name, kTypeInt, 0);
      continue;
    }
    const int typecode = typeCode(column.type);
    const ColumnValue value = typecode == kTypeImage || typecode == kTypeBinary || typecode == 0
                                  ? ColumnValue{}
                                  : valueOf(column);
    if (const auto* i = std::get_if<int32_t>(&value)) {
      record.putInt(position, column.name, typecode, *i);
    } else if (const auto* t = std::get_if<std::string_view>(&value)) {
      record.putText(position, column.name, typecode, *t);
    }
    ++position;
  }
  return record.ok();
}

uint32_t recordPosition(const TableDef& table, std::string_view column) {
  for (std::size_t i = 0; i < table.columns.size(); ++i) {
    if (column == table.columns[i].name) return static_cast<uint32_t>(i + 1);
  }
  return 0;
}

ColumnValue boundValue(const void* record, std::span<const FieldBinding> bindings,
                       const ColumnDef& column) {
  const auto* base = static_cast<const unsigned char*>(record);
  for (const FieldBinding& b : bindings) {
    if (std::string_view(b.column) != column.name) continue;
    if (b.kind == FieldKind::Int) {
      int32_t v = 0;
      std::memcpy(&v, base + b.offset, sizeof v);
      return v;
    }
    const char* text = reinterpret_cast<const char*>(base + b.offset);
    return std::string_view(text, strnlen(text, b.width));
  }
  return {};
}

}  // namespace mv
