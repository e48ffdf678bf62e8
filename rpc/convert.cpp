#include "rpc/convert.h"

#include <algorithm>
#include <cstring>

namespace mv::rpc {

using K = ArgKind;

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

namespace {

bool isArrayOf(const VARIANT* v, VARTYPE element) {
  return v != nullptr && (v->vt & MV_VT_ARRAY) != 0 && v->parray != nullptr &&
         safeArrayElementType(v->parray) == element;
}

bool isTextArray(const VARIANT* v) {
  return isArrayOf(v, MV_VT_BSTR) || isArrayOf(v, MV_VT_VARIANT);
}

// An array of texts into a list made with textCount() elements; a non-text element travels as
// an empty text.
void copyTexts(const VARIANT* v, capnp::List<capnp::Data>::Builder list) {
  for (uint32_t i = 0; i < list.size(); ++i) {
    list.set(i, bytesOf(textAt(v, i)));
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

bool setInts(VARIANT* v, capnp::List<int32_t>::Reader list) {
  return fillVariantArray(v, MV_VT_VARIANT, list.size(), [&](void* data) {
    for (uint32_t i = 0; i < list.size(); ++i) {
      VARIANT& e = static_cast<VARIANT*>(data)[i];
      e.vt = MV_VT_I4;
      e.lVal = list[i];
    }
  });
}

bool setBytes(VARIANT* v, capnp::Data::Reader data) {
  return fillVariantArray(v, MV_VT_UI1, static_cast<uint32_t>(data.size()), [&](void* bytes) {
    if (data.size()) std::memcpy(bytes, data.begin(), data.size());
  });
}

// A variant the server filled (a row, a value or a block) into an answer's argument.
void copyVariant(const VARIANT* v, Arg::Builder out) {
  if (isArrayOf(v, MV_VT_UI1)) {
    out.setBytes({static_cast<const capnp::byte*>(v->parray->pvData), safeArrayCount(v->parray)});
    return;
  }
  if (isArrayOf(v, MV_VT_VARIANT)) {
    // An array of integers travels as such; any other array of variants as texts.
    const uint32_t n = safeArrayCount(v->parray);
    const auto* e = static_cast<const VARIANT*>(v->parray->pvData);
    if (n > 0 && std::all_of(e, e + n, [](const VARIANT& x) { return x.vt == MV_VT_I4; })) {
      auto list = out.initInts(n);
      for (uint32_t i = 0; i < n; ++i) list.set(i, e[i].lVal);
      return;
    }
  }
  if (isTextArray(v)) {
    copyTexts(v, out.initTexts(textCount(v)));
    return;
  }
  out.setAbsent();
}

bool setVariant(VARIANT* v, Arg::Reader in) {
  switch (in.which()) {
    case Arg::TEXTS:
      return setTexts(v, in.getTexts());
    case Arg::INTS:
      return setInts(v, in.getInts());
    case Arg::BYTES:
      return setBytes(v, in.getBytes());
    default:
      return true;  // the server left it without an array
  }
}

// A text goes back to the caller only when it differs from what the caller holds: a holder the
// server left alone stays exactly as it was (null stays null).
void putTextIfChanged(BSTR* holder, capnp::Data::Reader back) {
  const auto held = bytesOf(*holder);
  if (held.size() == back.size() && std::equal(held.begin(), held.end(), back.begin())) return;
  MVSysFreeString(*holder);
  *holder = toBstr(back);
}

// The shape a kind travels in, present.
Arg::Which shapeOf(ArgKind kind) {
  switch (kind) {
    case K::Int:
    case K::GoodBytes:
    case K::IntOut:
    case K::IntInOut:
      return Arg::INT;
    case K::LongOut:
      return Arg::LONG;
    case K::RealInOut:
      return Arg::REAL;
    case K::Text:
    case K::Handle:
    case K::TextOut:
    case K::TextInOut:
    case K::HandleOut:
      return Arg::TEXT;
    case K::Record:
    case K::RowOut:
    case K::ValueOut:
      return Arg::TEXTS;
    case K::Block16:
    case K::BlockIn:
    case K::BlockOut:
      return Arg::BYTES;
  }
  return Arg::ABSENT;
}

// Kinds passed by value: they are never absent.
bool byValue(ArgKind kind) {
  return kind == K::Text || kind == K::Handle || kind == K::Int || kind == K::GoodBytes;
}

bool isInOnly(ArgKind kind) { return byValue(kind) || kind == K::Record || kind == K::BlockIn; }

bool isVariantOut(ArgKind kind) {
  return kind == K::RowOut || kind == K::ValueOut || kind == K::BlockOut;
}

}  // namespace

uint32_t textCount(const VARIANT* v) { return isTextArray(v) ? safeArrayCount(v->parray) : 0; }

BSTR textAt(const VARIANT* v, uint32_t i) {
  if (i >= textCount(v)) return nullptr;
  if (safeArrayElementType(v->parray) == MV_VT_BSTR)
    return static_cast<BSTR*>(v->parray->pvData)[i];
  const VARIANT& e = static_cast<const VARIANT*>(v->parray->pvData)[i];
  return e.vt == MV_VT_BSTR ? e.bstrVal : nullptr;
}

std::string describeWire(uint32_t wire, uint64_t methods) {
  return "wire " + std::to_string(wire) + " with methods " + std::to_string(methods);
}

bool fits(ArgKind kind, Arg::Reader arg, bool request) {
  const Arg::Which w = arg.which();
  if (!request && isInOnly(kind)) return w == Arg::ABSENT;
  if (w == Arg::ABSENT) return !byValue(kind);
  // A value the server fills may come back as texts, integers or bytes.
  if (!request && kind == K::ValueOut) return w == Arg::TEXTS || w == Arg::INTS;
  return w == shapeOf(kind);
}

void encodeIn(ArgKind kind, const ArgRef& ref, int32_t goodBytes, Arg::Builder out) {
  switch (kind) {
    case K::Text:
    case K::Handle:
      out.setText(bytesOf(std::get<BSTR>(ref)));
      return;
    case K::Int:
    case K::GoodBytes:
      out.setInt(std::get<int32_t>(ref));
      return;
    case K::IntOut:
    case K::IntInOut:
      if (const int32_t* p = std::get<int32_t*>(ref)) return out.setInt(*p);
      break;
    case K::LongOut:
      if (const int64_t* p = std::get<int64_t*>(ref)) return out.setLong(*p);
      break;
    case K::RealInOut:
      if (const double* p = std::get<double*>(ref)) return out.setReal(*p);
      break;
    case K::TextOut:
    case K::HandleOut:
      if (std::get<BSTR*>(ref) != nullptr) return out.setText({});
      break;
    case K::TextInOut:
      if (const BSTR* p = std::get<BSTR*>(ref)) return out.setText(bytesOf(*p));
      break;
    case K::Block16:
      if (const uint8_t* p = std::get<uint8_t*>(ref)) return out.setBytes({p, 16});
      break;
    case K::Record:
      if (const VARIANT* v = std::get<VARIANT*>(ref)) {
        copyTexts(v, out.initTexts(textCount(v)));
        return;
      }
      break;
    case K::BlockIn:
      // Only the good bytes travel: a last block is mostly unused array.
      if (const VARIANT* v = std::get<VARIANT*>(ref); isArrayOf(v, MV_VT_UI1)) {
        const uint32_t n =
            std::min(static_cast<uint32_t>(std::max(goodBytes, 0)), safeArrayCount(v->parray));
        return out.setBytes({static_cast<const capnp::byte*>(v->parray->pvData), n});
      }
      break;
    case K::RowOut:
    case K::ValueOut:
      if (std::get<VARIANT*>(ref) != nullptr) return static_cast<void>(out.initTexts(0));
      break;
    case K::BlockOut:
      if (std::get<VARIANT*>(ref) != nullptr) return out.setBytes({});
      break;
  }
  out.setAbsent();
}

bool decodeOut(ArgKind kind, Arg::Reader in, const ArgRef& ref, bool succeeded) {
  if (isInOnly(kind) || in.isAbsent() || (isOutOnly(kind) && !succeeded)) return true;
  switch (kind) {
    case K::IntOut:
    case K::IntInOut:
      if (int32_t* p = std::get<int32_t*>(ref)) *p = in.getInt();
      return true;
    case K::LongOut:
      if (int64_t* p = std::get<int64_t*>(ref)) *p = in.getLong();
      return true;
    case K::RealInOut:
      if (double* p = std::get<double*>(ref)) *p = in.getReal();
      return true;
    case K::TextOut:
    case K::TextInOut:
    case K::HandleOut:
      if (BSTR* p = std::get<BSTR*>(ref)) putTextIfChanged(p, in.getText());
      return true;
    case K::Block16:
      if (uint8_t* p = std::get<uint8_t*>(ref)) {
        const auto back = in.getBytes();
        std::memcpy(p, back.begin(), std::min<std::size_t>(back.size(), 16));
      }
      return true;
    default:
      if (VARIANT* v = std::get<VARIANT*>(ref); v != nullptr && isVariantOut(kind)) {
        return setVariant(v, in);
      }
      return true;
  }
}

bool setRow(VARIANT* row, Row::Reader in) { return setTexts(row, in.getElements()); }

void copyRow(const VARIANT* row, Row::Builder out) {
  copyTexts(row, out.initElements(textCount(row)));
}

std::size_t rowBytes(const VARIANT* row) {
  std::size_t total = 0;
  for (uint32_t i = 0; i < textCount(row); ++i) {
    // Each text also costs its list pointer and padding; 16 bytes covers both.
    total += MVSysStringLen(textAt(row, i)) * sizeof(OLECHAR) + 16;
  }
  return total;
}

bool HeldArg::load(ArgKind kind, Arg::Reader arg) {
  present_ = !arg.isAbsent();
  if (!present_) return true;
  switch (kind) {
    case K::Text:
    case K::Handle:
    case K::TextOut:
    case K::HandleOut:
    case K::TextInOut:
      text_ = Bstr::adopt(toBstr(arg.getText()));
      return text_.get() != nullptr;
    case K::Int:
    case K::GoodBytes:
    case K::IntOut:
    case K::IntInOut:
      int_ = arg.getInt();
      return true;
    case K::LongOut:
      long_ = arg.getLong();
      return true;
    case K::RealInOut:
      real_ = arg.getReal();
      return true;
    case K::Block16: {
      const auto b = arg.getBytes();
      std::memcpy(block16_.data(), b.begin(), std::min(b.size(), block16_.size()));
      return true;
    }
    case K::Record:
      return setTexts(variant_.get(), arg.getTexts());
    case K::BlockIn: {
      const auto b = arg.getBytes();
      // The session only reads an in-block, so it may read it where it lies in the request.
      SAFEARRAY* view =
          safeArrayCreateView(const_cast<uint8_t*>(b.begin()), static_cast<uint32_t>(b.size()));
      if (view == nullptr) return false;
      variant_.get()->vt = MV_VT_ARRAY | MV_VT_UI1;
      variant_.get()->parray = view;
      return true;
    }
    case K::RowOut:
    case K::ValueOut:
    case K::BlockOut:
      return true;
  }
  return false;
}

ArgRef HeldArg::ref(ArgKind kind) {
  switch (kind) {
    case K::Text:
    case K::Handle:
      return text_.get();
    case K::Int:
    case K::GoodBytes:
      return int_;
    case K::IntOut:
    case K::IntInOut:
      return present_ ? &int_ : nullptr;
    case K::LongOut:
      return present_ ? &long_ : nullptr;
    case K::RealInOut:
      return present_ ? &real_ : nullptr;
    case K::TextOut:
    case K::TextInOut:
    case K::HandleOut:
      return present_ ? text_.inOut() : nullptr;
    case K::Block16:
      return present_ ? block16_.data() : nullptr;
    default:
      return present_ ? variant_.get() : nullptr;
  }
}

void HeldArg::store(ArgKind kind, Arg::Builder out) const {
  if (!present_ || isInOnly(kind)) return out.setAbsent();
  switch (kind) {
    case K::IntOut:
    case K::IntInOut:
      return out.setInt(int_);
    case K::LongOut:
      return out.setLong(long_);
    case K::RealInOut:
      return out.setReal(real_);
    case K::TextOut:
    case K::TextInOut:
    case K::HandleOut:
      return out.setText(bytesOf(text_.get()));
    case K::Block16:
      return out.setBytes({block16_.data(), block16_.size()});
    default:
      return copyVariant(variant_.get(), out);
  }
}

void putEntry(const fs::FileInfo& info, FileEntry::Builder entry) {
  entry.setName(info.name);
  entry.setIsDirectory(info.isDirectory);
  entry.setIsLink(info.isLink);
  entry.setReadOnly(info.readOnly);
  entry.setSize(info.size);
  entry.setLastWrite(info.lastWrite);
}

fs::FileInfo takeEntry(FileEntry::Reader entry) {
  fs::FileInfo info;
  info.name = std::string(entry.getName().begin(), entry.getName().size());
  info.isDirectory = entry.getIsDirectory();
  info.isLink = entry.getIsLink();
  info.readOnly = entry.getReadOnly();
  info.size = entry.getSize();
  info.lastWrite = static_cast<std::time_t>(entry.getLastWrite());
  return info;
}

}  // namespace mv::rpc
