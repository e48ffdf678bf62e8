#include "frame/exchange.h"

#include <cstring>
#include <limits>

#include "platform/codepage.h"

namespace mv {

Bstr toWide(const char* text) { return text ? toWide(std::string_view(text)) : Bstr(); }

Bstr toWide(std::string_view text) { return Bstr(ansiToWide(text)); }

std::string toAnsi(BSTR text) {
  if (text == nullptr) return {};
  return wideToAnsi(std::u16string_view(text, MVSysStringLen(text)));
}

bool parseFieldElement(std::string_view text, FieldElement& out) {
  // The searches walk by characters: a trail byte of a double-byte character never counts as a
  // tab or as part of the marker.
  const std::size_t key = findText(text, "KEY=");
  if (key == std::string_view::npos) return false;
  const std::string_view rest = text.substr(key + 4);
  const std::size_t tab1 = findText(rest, "\t");
  if (tab1 == std::string_view::npos) return false;
  const std::string_view afterName = rest.substr(tab1 + 1);
  const std::size_t tab2 = findText(afterName, "\t");
  if (tab2 == std::string_view::npos) return false;
  out.name = rest.substr(0, tab1);
  out.typecode = parseInt(afterName.substr(0, tab2));
  out.value = afterName.substr(tab2 + 1);
  return true;
}

int32_t parseInt(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  int64_t value = 0;
  constexpr int64_t kLimit = int64_t{std::numeric_limits<int32_t>::max()} + 1;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > kLimit) value = kLimit;
  }
  if (negative) value = -value;
  if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(value);
}

namespace {

std::string fieldText(std::string_view name, int typecode) {
  std::string s = "KEY=";
  s.append(name);
  s += '\t';
  s += std::to_string(typecode);
  s += '\t';
  return s;
}

}  // namespace

bool putElement(SAFEARRAY* array, uint32_t position, std::string_view text) {
  if (array == nullptr || safeArrayElementType(array) != MV_VT_VARIANT ||
      position >= safeArrayCount(array)) {
    return false;
  }
  Bstr wide = toWide(text);
  void* data = nullptr;
  if (safeArrayAccessData(array, &data) != 0) return false;
  VARIANT& slot = static_cast<VARIANT*>(data)[position];
  MVVariantClear(&slot);
  slot.vt = MV_VT_BSTR;
  // An empty text still travels as an allocated BSTR, as the server expects a string element.
  slot.bstrVal = wide.get() ? wide.release() : MVSysAllocStringLen(nullptr, 0);
  safeArrayUnaccessData(array);
  return true;
}

bool putIntField(SAFEARRAY* array, uint32_t position, std::string_view name, int typecode,
                 int32_t value) {
  return putElement(array, position, fieldText(name, typecode) + std::to_string(value));
}

bool putTextField(SAFEARRAY* array, uint32_t position, std::string_view name, int typecode,
                  std::string_view value) {
  std::string text = fieldText(name, typecode);
  text.append(value);
  return putElement(array, position, text);
}

RecordWriter::RecordWriter(std::string_view tableHandle, uint32_t fields)
    : fields_(fields), ok_(variant_.makeArray(MV_VT_VARIANT, fields + 1)) {
  std::string first = "TABLENAME=";
  first.append(tableHandle);
  ok_ = ok_ && putElement(variant_.get()->parray, 0, first);
  for (uint32_t i = 1; ok_ && i <= fields_; ++i) ok_ = putElement(variant_.get()->parray, i, {});
}

void RecordWriter::putInt(uint32_t position, std::string_view name, int typecode, int32_t value) {
  if (ok_ && position >= 1 && position <= fields_) {
    ok_ = putIntField(variant_.get()->parray, position, name, typecode, value);
  }
}

void RecordWriter::putText(uint32_t position, std::string_view name, int typecode,
                           std::string_view value) {
  if (ok_ && position >= 1 && position <= fields_) {
    ok_ = putTextField(variant_.get()->parray, position, name, typecode, value);
  }
}

void RecordWriter::putRaw(uint32_t position, std::string_view text) {
  if (ok_ && position >= 1 && position <= fields_) {
    ok_ = putElement(variant_.get()->parray, position, text);
  }
}

BlockRecord::BlockRecord(std::string_view dbName, std::string_view tableHandle, int32_t tIndex,
                         std::string_view column)
    : ok_(variant_.makeArray(MV_VT_VARIANT, 4)) {
  SAFEARRAY* a = variant_.get()->parray;
  ok_ = ok_ && putElement(a, 0, std::string("DBNAME=").append(dbName)) &&
        putElement(a, 1, std::string("TABLENAME=").append(tableHandle)) &&
        putElement(a, 2, "MSTKEY=" + std::to_string(tIndex)) &&
        putElement(a, 3, std::string("KEY=").append(column));
}

bool parseRowVariant(const VARIANT& variant, Row& row) {
  row.clear();
  if ((variant.vt & MV_VT_ARRAY) == 0 || (variant.vt & 0xC) == 0 || variant.parray == nullptr) {
    return false;
  }
  SAFEARRAY* array = variant.parray;
  const VARTYPE elementType = safeArrayElementType(array);
  if (elementType != MV_VT_VARIANT && elementType != MV_VT_BSTR) return false;
  void* data = nullptr;
  if (safeArrayAccessData(array, &data) != 0) return false;
  const uint32_t count = safeArrayCount(array);
  row.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    BSTR text = nullptr;
    if (elementType == MV_VT_BSTR) {
      text = static_cast<BSTR*>(data)[i];
    } else {
      const VARIANT& element = static_cast<const VARIANT*>(data)[i];
      if (element.vt != MV_VT_BSTR) continue;
      text = element.bstrVal;
    }
    const std::string ansi = toAnsi(text);
    FieldElement parsed;
    if (!parseFieldElement(ansi, parsed)) continue;
    row.push_back(RowField{std::string(parsed.name), parsed.typecode, std::string(parsed.value)});
  }
  safeArrayUnaccessData(array);
  return true;
}

bool textArray(const VARIANT& variant, std::vector<std::string>& texts) {
  texts.clear();
  if ((variant.vt & MV_VT_ARRAY) == 0 || variant.parray == nullptr) return false;
  SAFEARRAY* array = variant.parray;
  const VARTYPE elementType = safeArrayElementType(array);
  if (elementType != MV_VT_VARIANT && elementType != MV_VT_BSTR) return false;
  void* data = nullptr;
  if (safeArrayAccessData(array, &data) != 0) return false;
  const uint32_t count = safeArrayCount(array);
  texts.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    if (elementType == MV_VT_BSTR) {
      texts.push_back(toAnsi(static_cast<BSTR*>(data)[i]));
      continue;
    }
    const VARIANT& element = static_cast<const VARIANT*>(data)[i];
    texts.push_back(element.vt == MV_VT_BSTR ? toAnsi(element.bstrVal) : std::string());
  }
  safeArrayUnaccessData(array);
  return true;
}

bool fetchRow(IBookServer& server, BSTR dbName, BSTR handle, int32_t rowIndex, Row& row,
              int32_t& status) {
  Variant variant;
  status = server.GetRecords(dbName, handle, rowIndex, variant.get());
  if (!parseRowVariant(*variant.get(), row)) return false;
  return status == 0;
}

void bindRow(const Row& row, std::span<const FieldBinding> bindings, void* record) {
  auto* base = static_cast<unsigned char*>(record);
  for (const RowField& field : row) {
    for (const FieldBinding& b : bindings) {
      if (field.name != b.column) continue;
      if (b.kind == FieldKind::Int) {
        const int32_t v = parseInt(field.value);
        std::memcpy(base + b.offset, &v, sizeof v);
      } else {
        copyToField(reinterpret_cast<char*>(base + b.offset), b.width, field.value);
      }
    }
  }
}

const RowField* findField(const Row& row, std::string_view column) {
  for (const RowField& f : row) {
    if (f.name == column) return &f;
  }
  return nullptr;
}

}  // namespace mv
