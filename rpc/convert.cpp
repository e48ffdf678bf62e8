#include "rpc/convert.h"

#include <cstring>

#include "platform/wide.h"

namespace mv::rpc {

capnp::Data::Reader bytesOf(BSTR text) {
  if (text == nullptr) return {};
  return {reinterpret_cast<const capnp::byte*>(text), MVSysStringLen(text) * sizeof(OLECHAR)};
}

BSTR toBstr(capnp::Data::Reader bytes) {
  const auto units = static_cast<uint32_t>(bytes.size() / sizeof(OLECHAR));
  BSTR s = MVSysAllocStringLen(nullptr, units);
  if (s != nullptr && units > 0) std::memcpy(s, bytes.begin(), units * sizeof(OLECHAR));
  return s;
}

void putBstr(BSTR* holder, capnp::Data::Reader bytes) {
  if (holder == nullptr) return;
  MVSysFreeString(*holder);
  *holder = toBstr(bytes);
}

namespace {

// The BSTR at `i` of an array of BSTRs or of variants; null for anything else.
BSTR textAt(const SAFEARRAY* a, VARTYPE type, uint32_t i) {
  if (type == MV_VT_BSTR) return static_cast<BSTR*>(a->pvData)[i];
  const VARIANT& e = static_cast<const VARIANT*>(a->pvData)[i];
  return e.vt == MV_VT_BSTR ? e.bstrVal : nullptr;
}

bool isTextArray(const VARIANT* v) {
  if (v == nullptr || (v->vt & MV_VT_ARRAY) == 0 || v->parray == nullptr) return false;
  const VARTYPE t = safeArrayElementType(v->parray);
  return t == MV_VT_BSTR || t == MV_VT_VARIANT;
}

}  // namespace

uint32_t textCount(const VARIANT* v) { return isTextArray(v) ? safeArrayCount(v->parray) : 0; }

void copyTexts(const VARIANT* v, capnp::List<capnp::Data>::Builder list) {
  if (!isTextArray(v)) return;
  const VARTYPE type = safeArrayElementType(v->parray);
  for (uint32_t i = 0; i < list.size() && i < safeArrayCount(v->parray); ++i) {
    list.set(i, bytesOf(textAt(v->parray, type, i)));
  }
}

bool setTexts(VARIANT* v, capnp::List<capnp::Data>::Reader list) {
  return fillVariantArray(v, MV_VT_VARIANT, list.size(), [&](void* data) {
    for (uint32_t i = 0; i < list.size(); ++i) {
      VARIANT& e = static_cast<VARIANT*>(data)[i];
      e.vt = MV_VT_BSTR;
      e.bstrVal = toBstr(list[i]);
    }
  });
}

void copyRow(const VARIANT* row, Row::Builder out) {
  copyTexts(row, out.initElements(textCount(row)));
}

bool setRow(VARIANT* row, Row::Reader in) { return setTexts(row, in.getElements()); }

void copyValue(const VARIANT* v, Value::Builder out) {
  if (isTextArray(v) && safeArrayElementType(v->parray) == MV_VT_VARIANT) {
    // An array of integers travels as such; any other array of variants as texts.
    const uint32_t n = safeArrayCount(v->parray);
    const auto* e = static_cast<const VARIANT*>(v->parray->pvData);
    bool ints = n > 0;
    for (uint32_t i = 0; i < n && ints; ++i) ints = e[i].vt == MV_VT_I4;
    if (ints) {
      auto list = out.initInts(n);
      for (uint32_t i = 0; i < n; ++i) list.set(i, e[i].lVal);
      return;
    }
  }
  if (isTextArray(v)) {
    copyTexts(v, out.initTexts(textCount(v)));
    return;
  }
  out.setEmpty();
}

bool setValue(VARIANT* v, Value::Reader in) {
  switch (in.which()) {
    case Value::TEXTS:
      return setTexts(v, in.getTexts());
    case Value::INTS: {
      const auto list = in.getInts();
      return fillVariantArray(v, MV_VT_VARIANT, list.size(), [&](void* data) {
        for (uint32_t i = 0; i < list.size(); ++i) {
          VARIANT& e = static_cast<VARIANT*>(data)[i];
          e.vt = MV_VT_I4;
          e.lVal = list[i];
        }
      });
    }
    case Value::EMPTY:
      break;
  }
  return true;
}

capnp::Data::Reader blockBytes(const VARIANT* v, uint32_t good) {
  if (v == nullptr || v->vt != (MV_VT_ARRAY | MV_VT_UI1) || v->parray == nullptr) return {};
  const uint32_t n = std::min(good, safeArrayCount(v->parray));
  return {static_cast<const capnp::byte*>(v->parray->pvData), n};
}

void copyBlock(const VARIANT* v, Block::Builder out) {
  const bool present = v != nullptr && v->vt == (MV_VT_ARRAY | MV_VT_UI1) && v->parray != nullptr;
  out.setPresent(present);
  if (present) out.setData(blockBytes(v, safeArrayCount(v->parray)));
}

bool setBlock(VARIANT* v, Block::Reader in) {
  if (!in.getPresent()) return true;
  const auto data = in.getData();
  return fillVariantArray(v, MV_VT_UI1, static_cast<uint32_t>(data.size()), [&](void* bytes) {
    if (data.size()) std::memcpy(bytes, data.begin(), data.size());
  });
}

}  // namespace mv::rpc
