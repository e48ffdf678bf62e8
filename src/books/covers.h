// The cover of a book and its two copies: the row of BookCommonTBL in the system database, which
// lists and searches read, and the row of UserBookTbl inside the book's own database, which
// travels with the book. Both tables have the same columns but for one name and one order; the
// records are built from the catalogue, never from a list written here.
//
// Each operation gives 1 on success and 0 on failure; a failing server method leaves its code in
// lastError.
//
// Choices of this library where the data model leaves room:
// - A column longer than its CoverInfo field is cut at the last whole character that fits and
//   always terminated; nothing is written past a field. Reserve is the exception the library
//   reports: one of more than 63 bytes shows a message and stops the reading of the row there,
//   leaving the field as it was.
// - Dates come back in whatever text the server gives for them, cut to the 19 bytes of the field.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "MVCore.h"
#include "frame/exchange.h"

namespace mv {

inline constexpr char kCoverTable[] = "BookCommonTBL";
inline constexpr char kBookCoverTable[] = "UserBookTbl";

// Every column of a cover that lands in a CoverInfo but `columns`, by name.
std::vector<FieldBinding> coverBindingsWithout(std::initializer_list<std::string_view> columns);

// The central copy of book `bookId` into `cover`. A book with no row fails without a code.
int readCoverById(int32_t bookId, CoverInfo& cover);

// Adds the central row of a new book: everything the cover holds but the counter; `*bookId`
// gets the new id.
int addCentralRow(const CoverInfo& cover, int32_t* bookId);

// Rewrites the central row of `bookId`, leaving BookName, BookVer and MakeDate as they are.
int updateCentralRow(int32_t bookId, const CoverInfo& cover);

// Writes the cover into UserBookTbl of `dbName`: adds the row to an empty table, else overwrites
// its first row. MakeDate is written only for a new book (`isNew` 1).
int writeBookRow(const char* dbName, const CoverInfo& cover, int isNew);

// Current UTC time as the 14 digits a datetime column takes, into a date field of a cover.
void stampUtcNow(char (&field)[20]);

}  // namespace mv
