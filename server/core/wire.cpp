#include "server/core/wire.h"

#include <cstring>

#include "platform/utf.h"
#include "platform/wide.h"

namespace mv::server {

std::string text(BSTR s) { return bstrToUtf8(s); }

void putText(BSTR* out, std::string_view utf8) {
  if (out == nullptr) return;
  MVSysFreeString(*out);
  *out = utf8ToBstr(utf8);
}

bool arrayTexts(const VARIANT* v, std::vector<std::string>& out) {
  out.clear();
  if (v == nullptr || (v->vt & MV_VT_ARRAY) == 0 || v->parray == nullptr) return false;
  const VARTYPE type = safeArrayElementType(v->parray);
  if (type != MV_VT_VARIANT && type != MV_VT_BSTR) return false;
  void* data = nullptr;
  if (safeArrayAccessData(v->parray, &data) != 0) return false;
  const uint32_t n = safeArrayCount(v->parray);
  for (uint32_t i = 0; i < n; ++i) {
    if (type == MV_VT_BSTR) {
      out.push_back(text(static_cast<BSTR*>(data)[i]));
    } else {
      const VARIANT& e = static_cast<const VARIANT*>(data)[i];
      out.push_back(e.vt == MV_VT_BSTR ? text(e.bstrVal) : std::string());
    }
  }
  safeArrayUnaccessData(v->parray);
  return true;
}

bool putTexts(VARIANT* v, const std::vector<std::string>& texts) {
  return fillVariantArray(v, MV_VT_VARIANT, static_cast<uint32_t>(texts.size()), [&](void* data) {
    for (std::size_t i = 0; i < texts.size(); ++i) {
      VARIANT& e = static_cast<VARIANT*>(data)[i];
      e.vt = MV_VT_BSTR;
      e.bstrVal = utf8ToBstr(texts[i]);
    }
  });
}

bool putInts(VARIANT* v, const std::vector<int32_t>& values) {
  return fillVariantArray(v, MV_VT_VARIANT, static_cast<uint32_t>(values.size()), [&](void* data) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      VARIANT& e = static_cast<VARIANT*>(data)[i];
      e.vt = MV_VT_I4;
      e.lVal = values[i];
    }
  });
}

bool putBytes(VARIANT* v, const uint8_t* bytes, std::size_t size) {
  return fillVariantArray(v, MV_VT_UI1, static_cast<uint32_t>(size), [&](void* data) {
    if (size) std::memcpy(data, bytes, size);
  });
}

bool blockBytes(const VARIANT* v, int32_t bytes, const uint8_t** data) {
  if (v == nullptr || v->vt != (MV_VT_ARRAY | MV_VT_UI1) || v->parray == nullptr || bytes < 0 ||
      static_cast<uint32_t>(bytes) > safeArrayCount(v->parray)) {
    return false;
  }
  *data = static_cast<const uint8_t*>(v->parray->pvData);
  return true;
}

bool parseElement(std::string_view text, Element& out) {
  const std::size_t key = text.find("KEY=");
  if (key == std::string_view::npos) return false;
  const std::string_view rest = text.substr(key + 4);
  const std::size_t tab1 = rest.find('\t');
  if (tab1 == std::string_view::npos) return false;
  const std::size_t tab2 = rest.find('\t', tab1 + 1);
  if (tab2 == std::string_view::npos) return false;
  out.name = rest.substr(0, tab1);
  out.value = rest.substr(tab2 + 1);
  return true;
}

std::string_view after(std::string_view text, std::string_view prefix) {
  return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : std::string_view();
}

}  // namespace mv::server
