// A tag's page, its row of TagPageTBL, and the two records that write a tag's rows: the full page
// row and the short display row of TagDispTBL.
#pragma once

#include <cstdint>
#include <span>

#include "MVCore.h"
#include "frame/exchange.h"

namespace mv {

// The fields of a TagInfoRecord that a page row fills: all but Attribute, which no column holds.
std::span<const FieldBinding> tagInfoBindings();

// The full page row: T_Index and Up_DateCounter as 0, then the record's fields in the table's
// order; Up_Date is not sent. Fields after the handle element, and the filling.
uint32_t pageRecordFields();
bool fillPageRecord(RecordWriter& record, const TagInfoRecord& info);

// The display row: T_Index 0, the record's TagName, Attribute and Relation, TagID `tagIndex`,
// T_Order 0 and UpTagID `upTagID`.
uint32_t dispRecordFields();
bool fillDispRecord(RecordWriter& record, const TagInfoRecord& info, int32_t tagIndex,
                    int32_t upTagID);

}  // namespace mv
