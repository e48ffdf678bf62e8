// The view tables of the system database, and the one class whose members add, update, get, list
// and delete their rows. The attribute values of a book's tags (TagAttributeTBL) follow the same
// family on the book's database, so they are one more table of the class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "contents/tags.h"
#include "frame/catalogue.h"
#include "frame/db_work.h"
#include "frame/exchange.h"

namespace mv {

// The family's own codes in lastError.
inline constexpr int32_t kListTooSmall = 0x64;  // count below the rows found
inline constexpr int32_t kNoLink = 0x67;        // no server connection
inline constexpr int32_t kRowExists = 0x7E;     // add on a key that exists

// CreateTable kinds.
inline constexpr int32_t kViewAttributeKind = 0x20;
inline constexpr int32_t kViewItemKind = 0x21;
inline constexpr int32_t kViewManageKind = 0x22;
inline constexpr int32_t kViewDataKind = 0x23;
inline constexpr int32_t kTagAttributeKind = 0x24;

// What a list does after a row that could not be read.
enum class AfterFailedRow {
  Stop,         // stops; the row's status fails the list
  GoOn,         // leaves the row out and goes on; the last row's status decides
  StopQuietly,  // stops; the list succeeds with the rows read
};

// One table of the family.
struct FamilyTable {
  int32_t kind;                            // for CreateTable
  DbWork::Holder holder;                   // which flag holds its database
  const TableDef* table;                   // its columns
  std::span<const FieldBinding> bindings;  // the record's fields
  std::size_t recordSize;
  const char* listColumn;  // the parent column a list selects on; nullptr: the whole table,
                           // made if missing
  AfterFailedRow afterFailedRow;
};

// The tables by kind (0x20 .. 0x24); nullptr for another kind.
const FamilyTable* familyTable(int32_t kind);

// The family. Each member takes the table, the database (the system database for the view
// tables, a book database for TagAttributeTBL) and the caller's record or array, and gives 0 or
// the code it left in lastError (never 0 on a failure). lastError is cleared and the link is
// checked by the caller. The object holds nothing.
class ViewTables {
 public:
  ViewTables() = default;
  ViewTables(const ViewTables&) = delete;
  ViewTables& operator=(const ViewTables&) = delete;
  virtual ~ViewTables() = default;

  // Add (`add`) or update of the row of info's T_Index. An add on a key that exists gives
  // kRowExists; an add into a database without the table makes it. The add stores the server's
  // key in the record's T_Index.
  int32_t write(const FamilyTable& t, const char* db, void* info, bool add);
  // Row `tIndex` into `info`; on a failure `info` is untouched.
  int32_t get(const FamilyTable& t, const char* db, int32_t tIndex, void* info);
  // The rows (of `parentID` where the table lists by parent) into `records`, at most `*count`;
  // `*count` becomes the number read, or the number found with kListTooSmall.
  int32_t list(const FamilyTable& t, const char* db, int32_t parentID, void* records,
               int32_t* count);
  // Deletes row `tIndex`.
  int32_t remove(const FamilyTable& t, const char* db, int32_t tIndex);

 private:
  // SELECT * on the table where `column` is `value`; false with the status in lastError.
  bool select(DbWork& work, const FamilyTable& t, const char* column, int32_t value);
  // CreateTable, whatever it answers, then the whole table through OpenTable in mode 0.
  bool makeAndOpen(DbWork& work, const FamilyTable& t);
  // The close at the end: 0, or the first close failure's code.
  int32_t finish(DbWork& work);
};

}  // namespace mv
