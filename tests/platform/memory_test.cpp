// Global memory blocks, BSTRs, variants and safe arrays. Leaks and double frees in the clearing
// paths are caught by the sanitizer build rather than by assertions.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "MVCore.h"
#include "platform/wide.h"

namespace {

class GlobalMemTest : public testing::TestWithParam<uint32_t> {};

TEST_P(GlobalMemTest, BlocksAreZeroedCountLocksAndDieWithTheirHandle) {
  for (const uint32_t size : {0u, 100u}) {
    SCOPED_TRACE(size);
    MVHGLOBAL h = MVGlobalAlloc(GetParam(), size);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(MVGlobalSize(h), size);
    auto* p = static_cast<unsigned char*>(MVGlobalLock(h));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::vector<unsigned char>(p, p + size), std::vector<unsigned char>(size, 0));
    std::memset(p, 0x5A, size);
    EXPECT_EQ(MVGlobalLock(h), p);  // blocks never move
    EXPECT_EQ(MVGlobalHandle(p), h);
    if (size > 0) {
      EXPECT_EQ(MVGlobalHandle(p + 1), nullptr);
    }
    EXPECT_EQ(MVGlobalUnlock(h), 1);
    EXPECT_EQ(MVGlobalUnlock(h), 0);
    EXPECT_EQ(MVGlobalUnlock(h), 0);  // already unlocked
    if (size > 0) {
      EXPECT_EQ(static_cast<unsigned char*>(MVGlobalLock(h))[99], 0x5A);
    }

    // Freed although still locked: the application owns the block.
    EXPECT_EQ(MVGlobalFree(h), nullptr);
    EXPECT_EQ(MVGlobalLock(h), nullptr);
    EXPECT_EQ(MVGlobalUnlock(h), 0);
    EXPECT_EQ(MVGlobalSize(h), 0u);
    EXPECT_EQ(MVGlobalHandle(p), nullptr);
    EXPECT_EQ(MVGlobalFree(h), h);
  }
}

INSTANTIATE_TEST_SUITE_P(Flags, GlobalMemTest,
                         testing::Values(0u, MV_GMEM_MOVEABLE,
                                         MV_GMEM_MOVEABLE | MV_GMEM_ZEROINIT));

TEST(GlobalMemHandles, FixedMovableAndBogusHandles) {
  MVHGLOBAL fixed = MVGlobalAlloc(0, 8);
  MVHGLOBAL movable = MVGlobalAlloc(MV_GMEM_MOVEABLE, 8);
  ASSERT_NE(fixed, nullptr);
  ASSERT_NE(movable, nullptr);
  // Fixed memory may be used through its handle directly; a movable handle is no address.
  EXPECT_EQ(MVGlobalLock(fixed), fixed);
  EXPECT_NE(MVGlobalLock(movable), movable);
  EXPECT_EQ(MVGlobalFree(fixed), nullptr);
  EXPECT_EQ(MVGlobalFree(movable), nullptr);
  // A new block never takes over a freed movable handle.
  MVHGLOBAL next = MVGlobalAlloc(MV_GMEM_MOVEABLE, 8);
  EXPECT_NE(next, movable);
  EXPECT_EQ(MVGlobalSize(movable), 0u);
  EXPECT_EQ(MVGlobalFree(next), nullptr);
  int local = 0;
  for (const MVHGLOBAL bad : {static_cast<MVHGLOBAL>(&local), MVHGLOBAL{nullptr}}) {
    EXPECT_EQ(MVGlobalLock(bad), nullptr);
    EXPECT_EQ(MVGlobalUnlock(bad), 0);
    EXPECT_EQ(MVGlobalSize(bad), 0u);
    EXPECT_EQ(MVGlobalHandle(bad), nullptr);
    EXPECT_EQ(MVGlobalFree(bad), bad);
  }
}

TEST(GlobalMemHandles, ConcurrentUseKeepsBlocksApart) {
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 1; t <= 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 500; ++i) {
        MVHGLOBAL h = MVGlobalAlloc(MV_GMEM_MOVEABLE, 16);
        auto* p = static_cast<unsigned char*>(MVGlobalLock(h));
        if (p != nullptr) std::memset(p, t, 16);
        failures += p == nullptr || MVGlobalHandle(p) != h || p[15] != t || MVGlobalFree(h);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST(BstrTest, LayoutAndTheOwningWrapper) {
  BSTR s = MVSysAllocString(u"abc");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(MVSysStringLen(s), 3u);
  std::uint32_t prefix = 0;
  std::memcpy(&prefix, reinterpret_cast<const char*>(s) - 4, sizeof(prefix));
  EXPECT_EQ(prefix, 6u);  // bytes, not characters
  EXPECT_EQ(s[3], u'\0');
  MVSysFreeString(s);
  BSTR z = MVSysAllocStringLen(u"a\0b", 3);
  EXPECT_EQ(std::u16string_view(z, 4), std::u16string_view(u"a\0b", 4));
  MVSysFreeString(z);
  BSTR blank = MVSysAllocStringLen(nullptr, 4);
  ASSERT_NE(blank, nullptr);
  EXPECT_EQ(std::u16string_view(blank, 5), std::u16string(5, u'\0'));
  MVSysFreeString(blank);
  EXPECT_EQ(MVSysAllocString(nullptr), nullptr);
  EXPECT_EQ(MVSysStringLen(nullptr), 0u);
  MVSysFreeString(nullptr);
  EXPECT_EQ(MVSysAllocStringLen(nullptr, 0xFFFFFFFFu), nullptr);
  mv::Bstr a(u"\u8868\u7D19");
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
  EXPECT_EQ(mv::Bstr::adopt(raw).get(), raw);
  mv::Bstr emptyText(u"");
  EXPECT_NE(emptyText.get(), nullptr);
  EXPECT_TRUE(emptyText.empty());
}

TEST(SafeArrayTest, CreatesOnlySupportedVectorsAndLocksBlockDestruction) {
  for (const auto& [type, size, feature] :
       {std::tuple<VARTYPE, uint32_t, uint16_t>{MV_VT_VARIANT, sizeof(VARIANT), 0x0800},
        {MV_VT_BSTR, sizeof(BSTR), 0x0100},
        {MV_VT_UI1, 1, 0}}) {
    SCOPED_TRACE(type);
    for (const uint32_t count : {0u, 7u}) {
      SAFEARRAY* a = mv::safeArrayCreateVector(type, 5, count);
      ASSERT_NE(a, nullptr);
      EXPECT_EQ(a->cDims, 1);
      EXPECT_EQ(a->cbElements, size);
      EXPECT_EQ(a->fFeatures & feature, feature);
      EXPECT_EQ(a->rgsabound[0].lLbound, 5);
      EXPECT_EQ(mv::safeArrayCount(a), count);
      EXPECT_EQ(mv::safeArrayElementType(a), type);
      const auto* bytes = static_cast<const unsigned char*>(a->pvData);
      EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + size * count),
                std::vector<unsigned char>(size * count, 0));
      EXPECT_EQ(mv::safeArrayDestroy(a), 0);
    }
  }
  EXPECT_EQ(mv::safeArrayCreateVector(MV_VT_I4, 0, 1), nullptr);
  EXPECT_EQ(mv::safeArrayCreateVector(MV_VT_VARIANT, 0, (1u << 30) + 1), nullptr);
  EXPECT_EQ(mv::safeArrayElementType(nullptr), MV_VT_EMPTY);
  EXPECT_EQ(mv::safeArrayCount(nullptr), 0u);
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

// A row: VARIANT array whose elements hold a string, a number and a nested array of strings.
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

TEST(VariantTest, ClearFreesNestedContentUnlessLockedAndResetsScalars) {
  mv::Variant row;
  fillRow(row);
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
  fillRow(row);  // refilling over existing content frees it (checked by the leak sanitizer)
  fillRow(row);
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
  EXPECT_FALSE(bytes.makeArray(MV_VT_I4, 1));
  EXPECT_EQ(bytes.get()->vt, MV_VT_ARRAY | MV_VT_UI1);
}

}  // namespace
