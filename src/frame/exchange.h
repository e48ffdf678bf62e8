// The shapes in which rows cross between library and server: each column of a row is one
// tagged text "KEY=" name TAB typecode TAB value, a row an array of such texts, and a record
// sent for adding or updating an array whose element 0 names the table handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "frame/IBookServer.h"
#include "platform/wide.h"

namespace mv {

// Size of an application's buffer that receives a text from the server (a handle, a message):
// 259 bytes and the terminator. Longer texts are cut at a character boundary.
inline constexpr std::size_t kTextBuffer = 260;

// Typecodes of a FieldElement.
inline constexpr int kTypeInt = 1;
inline constexpr int kTypeVarchar = 2;
inline constexpr int kTypeDatetime = 3;
inline constexpr int kTypeImage = 4;
inline constexpr int kTypeBinary = 5;

// Text of the library's code page to a server text and back. A null pointer or BSTR is empty.
Bstr toWide(const char* text);
Bstr toWide(std::string_view text);
std::string toAnsi(BSTR text);

// One parsed element. The views point into the text that was parsed.
struct FieldElement {
  std::string_view name;
  int typecode = 0;
  std::string_view value;
};

// Finds "KEY=" anywhere in `text`; the name runs to the first tab, the typecode to the second,
// the value is everything after it (tabs included). False when "KEY=" or a tab is missing.
bool parseFieldElement(std::string_view text, FieldElement& out);

// The C library's atoi, without its undefined behaviour: leading blanks, a sign, digits up to
// the first other character; out-of-range values saturate.
int32_t parseInt(std::string_view text);

// Store a BSTR of "KEY=%s\t%d\t%d" / "KEY=%s\t%d\t%s" at `position` of an array of variants.
bool putIntField(SAFEARRAY* array, uint32_t position, std::string_view name, int typecode,
                 int32_t value);
bool putTextField(SAFEARRAY* array, uint32_t position, std::string_view name, int typecode,
                  std::string_view value);
// Stores any text (an empty one for a column left out) at `position`.
bool putElement(SAFEARRAY* array, uint32_t position, std::string_view text);

// A record for AddRecord or UpdateRecord: element 0 "TABLENAME=<handle>", then `fields` more
// positions, empty until filled.
class RecordWriter {
 public:
  RecordWriter(std::string_view tableHandle, uint32_t fields);
  bool ok() const { return ok_; }
  // Positions count from 1 (the first field after the handle).
  void putInt(uint32_t position, std::string_view name, int typecode, int32_t value);
  void putText(uint32_t position, std::string_view name, int typecode, std::string_view value);
  void putRaw(uint32_t position, std::string_view text);
  VARIANT* get() { return variant_.get(); }

 private:
  Variant variant_;
  uint32_t fields_;
  bool ok_;
};

// The BlockRecord that names the row and column a blob goes to.
class BlockRecord {
 public:
  BlockRecord(std::string_view dbName, std::string_view tableHandle, int32_t tIndex,
              std::string_view column);
  bool ok() const { return ok_; }
  VARIANT* get() { return variant_.get(); }

 private:
  Variant variant_;
  bool ok_;
};

// How one column of a row lands in a fixed record: an int32_t, or a text field of `width`
// bytes that is cut at a character boundary and always terminated.
enum class FieldKind { Int, Text };
struct FieldBinding {
  const char* column;
  FieldKind kind;
  std::size_t offset;
  std::size_t width;
};
#define MV_INT_FIELD(Record, member, column) \
  ::mv::FieldBinding { column, ::mv::FieldKind::Int, offsetof(Record, member), sizeof(int32_t) }
#define MV_TEXT_FIELD(Record, member, column)                                       \
  ::mv::FieldBinding {                                                              \
    column, ::mv::FieldKind::Text, offsetof(Record, member), sizeof(Record::member) \
  }

// One row as the server sent it: the elements that parsed, in array order.
struct RowField {
  std::string name;
  int typecode = 0;
  std::string value;
};
using Row = std::vector<RowField>;

// Fetches row `rowIndex` of an open handle. False when the server failed or sent something that
// is not an array of texts; `status` is then the method's status (which may be 0 for a wrong
// variant). Elements without "KEY=" or a tab are skipped without failing.
bool fetchRow(IBookServer& server, BSTR dbName, BSTR handle, int32_t rowIndex, Row& row,
              int32_t& status);
// Parses the elements of a row variant; false if it is not an array of texts.
bool parseRowVariant(const VARIANT& variant, Row& row);

// The texts of an array of texts (VT_ARRAY of VT_BSTR, or of variants holding texts), in array
// order and converted to the code page; an element that is not a text gives an empty string, so
// positions are kept. False, with `texts` empty, when `variant` is not such an array.
bool textArray(const VARIANT& variant, std::vector<std::string>& texts);

// Copies the row's columns into `record` by the bindings, matching names exactly; a column the
// row lacks leaves the record's bytes as they were. Integers go through parseInt.
void bindRow(const Row& row, std::span<const FieldBinding> bindings, void* record);

// The value of a column of the row, or nullptr.
const RowField* findField(const Row& row, std::string_view column);

}  // namespace mv
