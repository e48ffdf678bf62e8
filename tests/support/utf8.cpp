#include "utf8.h"

#include "platform/utf.h"
#include "platform/wide.h"

namespace mvtest {

std::string utf8(std::u16string_view text) { return mv::utf16ToUtf8(text); }
std::string utf8(BSTR text) { return mv::bstrToUtf8(text); }
std::u16string utf16(std::string_view utf8Text) { return mv::utf8ToUtf16(utf8Text); }

void putText(BSTR* holder, std::string_view utf8Text) {
  if (holder == nullptr) return;
  MVSysFreeString(*holder);
  *holder = mv::Bstr(utf16(utf8Text)).release();
}

void putTexts(VARIANT* v, const std::vector<std::string>& utf8Texts) {
  mv::fillVariantArray(v, MV_VT_VARIANT, static_cast<uint32_t>(utf8Texts.size()), [&](void* d) {
    for (std::size_t i = 0; i < utf8Texts.size(); ++i) {
      VARIANT& e = static_cast<VARIANT*>(d)[i];
      e.vt = MV_VT_BSTR;
      putText(&e.bstrVal, utf8Texts[i]);
    }
  });
}

std::vector<std::string> texts(const VARIANT* v) {
  std::vector<std::string> out;
  if (v == nullptr || v->vt != (MV_VT_ARRAY | MV_VT_VARIANT)) return out;
  const auto* e = static_cast<const VARIANT*>(v->parray->pvData);
  for (uint32_t i = 0; i < mv::safeArrayCount(v->parray); ++i) {
    out.push_back(e[i].vt == MV_VT_BSTR ? utf8(e[i].bstrVal) : "?");
  }
  return out;
}

}  // namespace mvtest
