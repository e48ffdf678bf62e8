// The tag tree of a book, and the binding of fixed records that the exports on a book's contents
// and on the view definitions share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "frame/exchange.h"
#include "frame/records.h"

namespace mv {

// The value of `column` in a fixed record described by bindings, for a record that goes to the
// server: a text is read up to its terminator or the end of its field, and cut at a character
// boundary to what the field holds with a terminator.
ColumnValue recordValue(const void* record, std::span<const FieldBinding> bindings,
                        const ColumnDef& column);

// Copies the first `columns` elements of a row into `record` by the bindings, comparing names
// without regard to case; texts are cut at a character boundary to fit their fields.
void bindFirstColumns(const Row& row, std::size_t columns, std::span<const FieldBinding> bindings,
                      void* record);

}  // namespace mv
