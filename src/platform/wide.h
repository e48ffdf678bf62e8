// Owning wrappers over BSTR, VARIANT and SAFEARRAY, and the safe-array primitives the library
// builds rows and blocks from.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "MVCore.h"

namespace mv {

// Owns one BSTR; null means empty text.
class Bstr {
 public:
  Bstr() = default;
  explicit Bstr(std::u16string_view text);
  // Takes ownership of `s`.
  static Bstr adopt(BSTR s) {
    Bstr b;
    b.s_ = s;
    return b;
  }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  Bstr(Bstr&& o) noexcept : s_(std::exchange(o.s_, nullptr)) {}
  Bstr& operator=(Bstr&& o) noexcept;
  ~Bstr();

  BSTR get() const { return s_; }
  // Frees the current text and gives the address for a callee to fill.
  BSTR* out();
  BSTR release() { return std::exchange(s_, nullptr); }
  // The address of the held text, for a callee that may replace it (freeing the old one).
  BSTR* inOut() { return &s_; }
  std::u16string_view view() const;
  bool empty() const { return view().empty(); }

 private:
  BSTR s_ = nullptr;
};

// One-dimensional safe arrays of VT_VARIANT, VT_BSTR or VT_UI1 elements, lower bound 0 unless
// given. Elements are zero-filled. nullptr for another element type or when out of memory.
SAFEARRAY* safeArrayCreateVector(VARTYPE elementType, int32_t lowerBound, uint32_t count);
// A byte array over `count` bytes that stay the caller's: destroying it frees only the array
// itself. The bytes must outlive it. nullptr when out of memory.
SAFEARRAY* safeArrayCreateView(uint8_t* data, uint32_t count);
// Frees the array and what its elements hold. Non-zero (and nothing freed) while locked.
int32_t safeArrayDestroy(SAFEARRAY* array);
// Locks the array and gives its element storage; unlock with safeArrayUnaccessData.
int32_t safeArrayAccessData(SAFEARRAY* array, void** data);
int32_t safeArrayUnaccessData(SAFEARRAY* array);
// The element type the array was made with (VT_EMPTY when unknown).
VARTYPE safeArrayElementType(const SAFEARRAY* array);
uint32_t safeArrayCount(const SAFEARRAY* array);

// Makes `v` hold a fresh zero-filled array of `count` elements of `elementType` (what it held
// is cleared) and lets `fill` write the elements through their storage; false, with `v` as it
// was, for a null `v`, a locked array in it, or no memory.
template <typename Fill>
bool fillVariantArray(VARIANT* v, VARTYPE elementType, uint32_t count, Fill fill) {
  if (v == nullptr) return false;
  SAFEARRAY* array = safeArrayCreateVector(elementType, 0, count);
  if (array == nullptr) return false;
  if (MVVariantClear(v) != 0) {
    safeArrayDestroy(array);
    return false;
  }
  fill(array->pvData);
  v->vt = static_cast<VARTYPE>(MV_VT_ARRAY | elementType);
  v->parray = array;
  return true;
}

// Owns one VARIANT and clears it on destruction.
class Variant {
 public:
  Variant() { MVVariantInit(&v_); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant() { MVVariantClear(&v_); }

  VARIANT* get() { return &v_; }
  const VARIANT* get() const { return &v_; }
  void clear() { MVVariantClear(&v_); }
  // Makes the variant hold a fresh array (vt VT_ARRAY | elementType); false when out of memory.
  bool makeArray(VARTYPE elementType, uint32_t count);

 private:
  VARIANT v_;
};

}  // namespace mv
