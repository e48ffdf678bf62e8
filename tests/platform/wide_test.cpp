// BSTRs, variants and safe arrays. Leaks and double frees in the clearing paths are caught by the
// sanitizer build rather than by assertions.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "MVCore.h"
#include "platform/wide.h"

namespace {

std::uint32_t prefixOf(BSTR s) {
  std::uint32_t bytes = 0;
  std::memcpy(&bytes, reinterpret_cast<const char*>(s) - 4, sizeof(bytes));
  return bytes;
}

TEST(BstrTest, LengthsAndLayout) {
  BSTR s = MVSysAllocString(u"abc");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(MVSysStringLen(s), 3u);
  EXPECT_EQ(prefixOf(s), 6u);
  EXPECT_EQ(s[3], u'\0');
  MVSysFreeString(s);

  const char16_t withZero[] = {u'a', u'\0', u'b'};
  BSTR z = MVSysAllocStringLen(withZero, 3);
  EXPECT_EQ(MVSysStringLen(z), 3u);
  EXPECT_EQ(std::u16string_view(z, 3), std::u16string_view(withZero, 3));
  MVSysFreeString(z);

  BSTR blank = MVSysAllocStringLen(nullptr, 4);
  ASSERT_NE(blank, nullptr);
  EXPECT_EQ(MVSysStringLen(blank), 4u);
  for (int i = 0; i <= 4; ++i) EXPECT_EQ(blank[i], u'\0') << i;
  MVSysFreeString(blank);

  EXPECT_EQ(MVSysAllocString(nullptr), nullptr);
  EXPECT_EQ(MVSysStringLen(nullptr), 0u);
  MVSysFreeString(nullptr);
  EXPECT_EQ(MVSysAllocStringLen(nullptr, 0xFFFFFFFFu), nullptr);
}

TEST(BstrTest, WrapperOwnsExactlyOneString) {
  mv::Bstr a(u"\u8868\u7D19");
  EXPECT_EQ(a.view(), u"\u8868\u7D19");
  EXPECT_FALSE(a.empty());

  mv::Bstr b(u"other");
  b = std::move(a);  // b's old text must be freed, a's moved
  EXPECT_EQ(b.view(), u"\u8868\u7D19");
  EXPECT_EQ(a.get(), nullptr);
  EXPECT_TRUE(a.empty());

  BSTR* slot = b.out();
  EXPECT_EQ(*slot, nullptr);
  *slot = MVSysAllocString(u"filled");
  EXPECT_EQ(b.view(), u"filled");

  BSTR raw = b.release();
  EXPECT_TRUE(b.empty());
  mv::Bstr adopted = mv::Bstr::adopt(raw);
  EXPECT_EQ(adopted.get(), raw);

  mv::Bstr emptyText(u"");
  EXPECT_NE(emptyText.get(), nullptr);
  EXPECT_TRUE(emptyText.empty());
}

TEST(SafeArrayTest, CreatesOnlySupportedVectors) {
  struct Case {
    VARTYPE type;
    uint32_t size;
    uint16_t feature;
  };
  for (const Case& c : {Case{MV_VT_VARIANT, sizeof(VARIANT), 0x0800},
                        Case{MV_VT_BSTR, sizeof(BSTR), 0x0100}, Case{MV_VT_UI1, 1, 0}}) {
    SAFEARRAY* a = mv::safeArrayCreateVector(c.type, 5, 7);
    ASSERT_NE(a, nullptr) << c.type;
    EXPECT_EQ(a->cDims, 1);
    EXPECT_EQ(a->cbElements, c.size);
    EXPECT_EQ(a->fFeatures & c.feature, c.feature);
    EXPECT_EQ(a->rgsabound[0].lLbound, 5);
    EXPECT_EQ(mv::safeArrayCount(a), 7u);
    EXPECT_EQ(mv::safeArrayElementType(a), c.type);
    const auto* bytes = static_cast<const unsigned char*>(a->pvData);
    for (uint32_t i = 0; i < c.size * 7; ++i) ASSERT_EQ(bytes[i], 0) << i;
    EXPECT_EQ(mv::safeArrayDestroy(a), 0);
  }
  SAFEARRAY* none = mv::safeArrayCreateVector(MV_VT_UI1, 0, 0);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(mv::safeArrayCount(none), 0u);
  EXPECT_EQ(mv::safeArrayDestroy(none), 0);

  EXPECT_EQ(mv::safeArrayCreateVector(MV_VT_I4, 0, 1), nullptr);
  EXPECT_EQ(mv::safeArrayCreateVector(MV_VT_EMPTY, 0, 1), nullptr);
  EXPECT_EQ(mv::safeArrayCreateVector(MV_VT_VARIANT, 0, (1u << 30) + 1), nullptr);
  EXPECT_EQ(mv::safeArrayElementType(nullptr), MV_VT_EMPTY);
  EXPECT_EQ(mv::safeArrayCount(nullptr), 0u);
}

TEST(SafeArrayTest, LocksCountAndBlockDestruction) {
  SAFEARRAY* a = mv::safeArrayCreateVector(MV_VT_BSTR, 0, 2);
  ASSERT_NE(a, nullptr);
  void* data = nullptr;
  EXPECT_NE(mv::safeArrayUnaccessData(a), 0);
  ASSERT_EQ(mv::safeArrayAccessData(a, &data), 0);
  EXPECT_EQ(data, a->pvData);
  ASSERT_EQ(mv::safeArrayAccessData(a, &data), 0);
  EXPECT_EQ(a->cLocks, 2u);
  static_cast<BSTR*>(data)[1] = MVSysAllocString(u"kept");

  EXPECT_NE(mv::safeArrayDestroy(a), 0);
  EXPECT_EQ(mv::safeArrayUnaccessData(a), 0);
  EXPECT_NE(mv::safeArrayDestroy(a), 0);
  EXPECT_EQ(static_cast<BSTR*>(a->pvData)[1], std::u16string_view(u"kept"));
  EXPECT_EQ(mv::safeArrayUnaccessData(a), 0);
  EXPECT_NE(mv::safeArrayUnaccessData(a), 0);
  EXPECT_EQ(mv::safeArrayDestroy(a), 0);

  EXPECT_NE(mv::safeArrayAccessData(nullptr, &data), 0);
  EXPECT_NE(mv::safeArrayUnaccessData(nullptr), 0);
  EXPECT_EQ(mv::safeArrayDestroy(nullptr), 0);
}

// A row: VARIANT array whose elements hold strings and a nested array of strings.
void fillRow(mv::Variant& row) {
  ASSERT_TRUE(row.makeArray(MV_VT_VARIANT, 3));
  auto* cells = static_cast<VARIANT*>(row.get()->parray->pvData);
  cells[0].vt = MV_VT_BSTR;
  cells[0].bstrVal = MVSysAllocString(u"first");
  cells[1].vt = MV_VT_I4;
  cells[1].lVal = 42;
  cells[2].vt = MV_VT_ARRAY | MV_VT_BSTR;
  cells[2].parray = mv::safeArrayCreateVector(MV_VT_BSTR, 0, 2);
  ASSERT_NE(cells[2].parray, nullptr);
  static_cast<BSTR*>(cells[2].parray->pvData)[0] = MVSysAllocString(u"nested");
}

TEST(VariantTest, ClearFreesNestedContentUnlessLocked) {
  mv::Variant row;
  fillRow(row);
  EXPECT_EQ(row.get()->vt, MV_VT_ARRAY | MV_VT_VARIANT);

  // A lock anywhere below keeps the whole tree intact.
  auto* cells = static_cast<VARIANT*>(row.get()->parray->pvData);
  void* data = nullptr;
  ASSERT_EQ(mv::safeArrayAccessData(cells[2].parray, &data), 0);
  EXPECT_NE(MVVariantClear(row.get()), 0);
  EXPECT_EQ(row.get()->vt, MV_VT_ARRAY | MV_VT_VARIANT);
  EXPECT_EQ(cells[0].bstrVal, std::u16string_view(u"first"));
  EXPECT_EQ(static_cast<BSTR*>(data)[0], std::u16string_view(u"nested"));
  ASSERT_EQ(mv::safeArrayUnaccessData(cells[2].parray), 0);

  EXPECT_EQ(MVVariantClear(row.get()), 0);
  EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);
  EXPECT_EQ(row.get()->parray, nullptr);

  // Refilling over existing content frees it (checked by the leak sanitizer).
  fillRow(row);
  fillRow(row);
}

TEST(VariantTest, ClearResetsScalarsAndStrings) {
  VARIANT v;
  std::memset(&v, 0xCD, sizeof(v));
  MVVariantInit(&v);
  EXPECT_EQ(v.vt, MV_VT_EMPTY);
  EXPECT_EQ(v.parray, nullptr);

  v.vt = MV_VT_BSTR;
  v.bstrVal = MVSysAllocString(u"text");
  EXPECT_EQ(MVVariantClear(&v), 0);
  EXPECT_EQ(v.vt, MV_VT_EMPTY);
  EXPECT_EQ(v.bstrVal, nullptr);

  v.vt = MV_VT_R8;
  v.dblVal = 1.5;
  EXPECT_EQ(MVVariantClear(&v), 0);
  EXPECT_EQ(v.vt, MV_VT_EMPTY);

  v.vt = MV_VT_ARRAY | MV_VT_UI1;
  v.parray = nullptr;
  EXPECT_EQ(MVVariantClear(&v), 0);
  EXPECT_NE(MVVariantClear(nullptr), 0);

  mv::Variant bytes;
  ASSERT_TRUE(bytes.makeArray(MV_VT_UI1, 16));
  EXPECT_EQ(mv::safeArrayElementType(bytes.get()->parray), MV_VT_UI1);
  EXPECT_FALSE(bytes.makeArray(MV_VT_I4, 1));
  EXPECT_EQ(bytes.get()->vt, MV_VT_ARRAY | MV_VT_UI1);
}

}  // namespace
