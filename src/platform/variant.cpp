// Variants and the one-dimensional safe arrays the library builds rows and blocks from.
//
// An array is one heap block: a hidden header that records the element type, the SAFEARRAY the
// caller sees, then the zero-filled elements. Keeping the element type beside the array lets
// destruction free what the elements own without trusting the variant's own vt.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "MVCore.h"
#include "platform/wide.h"

namespace {

constexpr std::uint16_t kFeatureHaveVarType = 0x0080;
constexpr std::uint16_t kFeatureBstr = 0x0100;
constexpr std::uint16_t kFeatureVariant = 0x0800;
constexpr std::uint32_t kMaxElements = std::uint32_t{1} << 30;
constexpr int32_t kFailed = -1;

struct alignas(16) ArrayBlock {
  VARTYPE elementType;
  SAFEARRAY array;
};
static_assert(sizeof(ArrayBlock) % alignof(VARIANT) == 0, "elements follow the block header");

const ArrayBlock* blockOf(const SAFEARRAY* array) {
  const auto* bytes = reinterpret_cast<const char*>(array) - offsetof(ArrayBlock, array);
  return static_cast<const ArrayBlock*>(static_cast<const void*>(bytes));
}

ArrayBlock* blockOf(SAFEARRAY* array) {
  return const_cast<ArrayBlock*>(blockOf(static_cast<const SAFEARRAY*>(array)));
}

std::size_t elementSize(VARTYPE type) {
  switch (type) {
    case MV_VT_VARIANT:
      return sizeof(VARIANT);
    case MV_VT_BSTR:
      return sizeof(BSTR);
    case MV_VT_UI1:
      return 1;
    default:
      return 0;
  }
}

// Whether destroying the array would run into a lock, on itself or on an array nested in one of
// its variants. Checked before anything is freed so that a refused destroy leaves all intact.
bool lockedAnywhere(const SAFEARRAY* array) {
  if (array == nullptr) return false;
  if (array->cLocks > 0) return true;
  if (mv::safeArrayElementType(array) != MV_VT_VARIANT) return false;
  const auto* elements = static_cast<const VARIANT*>(array->pvData);
  for (uint32_t i = 0; i < array->rgsabound[0].cElements; ++i) {
    if ((elements[i].vt & MV_VT_ARRAY) != 0 && lockedAnywhere(elements[i].parray)) return true;
  }
  return false;
}

void destroyUnlocked(SAFEARRAY* array) {
  const uint32_t count = array->rgsabound[0].cElements;
  switch (mv::safeArrayElementType(array)) {
    case MV_VT_BSTR: {
      auto* elements = static_cast<BSTR*>(array->pvData);
      for (uint32_t i = 0; i < count; ++i) MVSysFreeString(elements[i]);
      break;
    }
    case MV_VT_VARIANT: {
      auto* elements = static_cast<VARIANT*>(array->pvData);
      for (uint32_t i = 0; i < count; ++i) MVVariantClear(&elements[i]);
      break;
    }
    default:
      break;
  }
  ArrayBlock* block = blockOf(array);
  block->~ArrayBlock();
  std::free(block);
}

}  // namespace

extern "C" MVAPI void MVVariantInit(VARIANT* v) {
  if (v == nullptr) return;
  std::memset(static_cast<void*>(v), 0, sizeof(*v));
  v->vt = MV_VT_EMPTY;
}

extern "C" MVAPI int32_t MVVariantClear(VARIANT* v) {
  if (v == nullptr) return kFailed;
  if ((v->vt & MV_VT_ARRAY) != 0) {
    if (mv::safeArrayDestroy(v->parray) != 0) return kFailed;
  } else if (v->vt == MV_VT_BSTR) {
    MVSysFreeString(v->bstrVal);
  }
  MVVariantInit(v);
  return 0;
}

namespace mv {

namespace {

// A block of `extra` bytes after its header, the header filled in for `count` elements of
// `elementType` at `data` (the block's own bytes when null).
SAFEARRAY* newArray(VARTYPE elementType, std::size_t extra, void* data, int32_t lowerBound,
                    uint32_t count) {
  // calloc zero-fills, which is an empty VARIANT and a null BSTR as well as a zero byte.
  void* memory = std::calloc(1, sizeof(ArrayBlock) + extra);
  if (memory == nullptr) return nullptr;
  auto* block = new (memory) ArrayBlock{};
  block->elementType = elementType;
  SAFEARRAY& array = block->array;
  array.cDims = 1;
  array.fFeatures = kFeatureHaveVarType;
  if (elementType == MV_VT_BSTR) array.fFeatures |= kFeatureBstr;
  if (elementType == MV_VT_VARIANT) array.fFeatures |= kFeatureVariant;
  array.cbElements = static_cast<uint32_t>(elementSize(elementType));
  array.pvData = data != nullptr ? data : static_cast<char*>(memory) + sizeof(ArrayBlock);
  array.rgsabound[0].cElements = count;
  array.rgsabound[0].lLbound = lowerBound;
  return &array;
}

}  // namespace

SAFEARRAY* safeArrayCreateVector(VARTYPE elementType, int32_t lowerBound, uint32_t count) {
  const std::size_t size = elementSize(elementType);
  if (size == 0 || count > kMaxElements) return nullptr;
  if (count > (SIZE_MAX - sizeof(ArrayBlock)) / size) return nullptr;
  return newArray(elementType, size * count, nullptr, lowerBound, count);
}

SAFEARRAY* safeArrayCreateView(uint8_t* data, uint32_t count) {
  // The header alone: destroying the array frees its block, which holds no elements.
  return newArray(MV_VT_UI1, 0, data, 0, count);
}

int32_t safeArrayDestroy(SAFEARRAY* array) {
  if (array == nullptr) return 0;
  if (lockedAnywhere(array)) return kFailed;
  destroyUnlocked(array);
  return 0;
}

int32_t safeArrayAccessData(SAFEARRAY* array, void** data) {
  if (array == nullptr || data == nullptr || array->cLocks == UINT32_MAX) return kFailed;
  ++array->cLocks;
  *data = array->pvData;
  return 0;
}

int32_t safeArrayUnaccessData(SAFEARRAY* array) {
  if (array == nullptr || array->cLocks == 0) return kFailed;
  --array->cLocks;
  return 0;
}

VARTYPE safeArrayElementType(const SAFEARRAY* array) {
  if (array == nullptr) return MV_VT_EMPTY;
  if ((array->fFeatures & kFeatureHaveVarType) != 0) return blockOf(array)->elementType;
  if ((array->fFeatures & kFeatureBstr) != 0) return MV_VT_BSTR;
  if ((array->fFeatures & kFeatureVariant) != 0) return MV_VT_VARIANT;
  return MV_VT_EMPTY;
}

uint32_t safeArrayCount(const SAFEARRAY* array) {
  return array == nullptr ? 0 : array->rgsabound[0].cElements;
}

bool Variant::makeArray(VARTYPE elementType, uint32_t count) {
  return fillVariantArray(&v_, elementType, count, [](void*) {});
}

}  // namespace mv
