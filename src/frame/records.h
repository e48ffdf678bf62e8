// Building the record that adds a row: the catalogue gives the columns and their order, the
// caller the values.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <variant>

#include "frame/catalogue.h"
#include "frame/exchange.h"

namespace mv {

// A column's value: none (the element stays an empty text), an integer or a text. The element's
// typecode always comes from the column's type.
using ColumnValue = std::variant<std::monostate, int32_t, std::string_view>;
using ColumnValues = std::function<ColumnValue(const ColumnDef& column)>;

// Whether the add record carries the key element (T_Index, typecode 1, value 0, which the server
// replaces), leaves the key out altogether, or carries the key with the value `valueOf` gives
// for it like any other column (Valued).
enum class KeyElement { Zero, Omitted, Valued };

// Number of fields after the handle element in the add record of `table`.
uint32_t addRecordFields(const TableDef& table, KeyElement key);

// Fills `record` (made with addRecordFields fields) with one element per column of `table` in
// the catalogue's order. False if the record could not be built.
bool fillAddRecord(RecordWriter& record, const TableDef& table, KeyElement key,
                   const ColumnValues& valueOf);

// Position (from 1, after the handle element) of `column` in a record of `table` that has one
// element per column, the key included: the layout of an update record, whose columns left out
// stay empty texts. 0 when the table has no such column.
uint32_t recordPosition(const TableDef& table, std::string_view column);

// The value of `column` in a fixed record described by bindings, or none when unbound.
ColumnValue boundValue(const void* record, std::span<const FieldBinding> bindings,
                       const ColumnDef& column);

}  // namespace mv
