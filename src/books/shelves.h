// Bookshelves as the rest of the library uses them: one row of BookShelfTBL in the system
// database per shelf, its books linked through BookShelfInfoTBL, its users through
// BookShelfPowerTBL. The shelf whose Attribute is 1 is the discard shelf, where books deleted
// from any other shelf go; the library never makes it.
//
// Each operation gives 1 on success and 0 on failure unless said otherwise; a failing server
// method leaves its code in lastError. All count on the application holding the system database
// (MVOpenDB), as the exports do.
//
// Choices of this library where the data model leaves room:
// - A shelf name longer than ShelfEntry's 43 bytes is stored as given and cut at a character
//   boundary when read into an entry; nothing is ever written past the field.
// - Apostrophes in names are doubled in every quoted literal, so such names are stored, found
//   and refused as duplicates like any other.
// - A new shelf's row is added through the handle of the query that found its name free.
#pragma once

#include <cstdint>
#include <string>

#include "MVCore.h"
#include "frame/catalogue.h"
#include "frame/rows.h"

namespace mv {

inline constexpr char kShelfTable[] = "BookShelfTBL";
inline constexpr char kLinkTable[] = "BookShelfInfoTBL";

// Attribute of the discard shelf; ordinary shelves have 0.
inline constexpr int32_t kDiscardShelf = 1;
inline constexpr int32_t kOrdinaryShelf = 0;

// The value of OrderNo that stands for "no position": the column's default, and what a moved
// book gets, so that it comes last.
inline constexpr int32_t kNoPosition = 2147483647;

// The table as the records that add and update its rows lay it out: the catalogue's columns
// without OrderNo, which older servers lack until the library adds it.
TableDef withoutOrderNo(const TableDef& table);

// Opens a list in display order. `ordered` sorts by OrderNo, which a table that never got the
// column refuses: then `plain` is asked instead, and only its failure counts (in lastError).
bool openInDisplayOrder(WorkQuery& query, const char* table, const std::string& ordered,
                        const std::string& plain);

// Adds a shelf row named `name`: refused (0, lastError untouched) while the server's counter of
// that name is above 0 or a shelf of exactly that name (byte for byte) exists. `*shelfId` gets
// the new id.
int addShelfRow(const char* name, int32_t* shelfId);

// The id of the shelf named exactly `name`; an unknown name shows its message box.
int shelfIdByName(const char* name, int32_t* shelfId);

// T_Index, Attribute and BookShelfName of a shelf into `entry` (BookCount untouched). Opens the
// system database in the held mode unless the application holds it. Missing leaves `entry`
// alone.
Lookup readShelf(int32_t shelfId, ShelfEntry& entry);

// The id of the discard shelf: the first row with Attribute 1.
int discardShelfId(int32_t* shelfId);

// The number of books linked to a shelf; 0 on any failure.
int32_t shelfBookCount(int32_t shelfId);

}  // namespace mv
