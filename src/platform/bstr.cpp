// Length-prefixed UTF-16 strings. The four bytes before the first code unit hold the length in
// bytes; a zero unit follows the last one so that the text can also be read as zero-terminated.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "MVCore.h"
#include "platform/wide.h"

namespace {

constexpr std::size_t kPrefixBytes = sizeof(std::uint32_t);
// The byte length has to fit the prefix, and the whole block (prefix, text, terminator) a
// 32-bit size_t as well.
constexpr std::uint32_t kMaxUnits = (UINT32_MAX - 2 * kPrefixBytes) / sizeof(OLECHAR);

char* blockOf(BSTR s) { return reinterpret_cast<char*>(s) - kPrefixBytes; }

}  // namespace

extern "C" MVAPI BSTR MVSysAllocStringLen(const OLECHAR* s, uint32_t len) {
  if (len > kMaxUnits) return nullptr;
  const std::uint32_t bytes = len * static_cast<std::uint32_t>(sizeof(OLECHAR));
  auto* block = static_cast<char*>(std::malloc(kPrefixBytes + bytes + sizeof(OLECHAR)));
  if (block == nullptr) return nullptr;
  std::memcpy(block, &bytes, kPrefixBytes);
  char* data = block + kPrefixBytes;
  if (s != nullptr && bytes != 0) {
    std::memcpy(data, s, bytes);
  } else {
    std::memset(data, 0, bytes);
  }
  std::memset(data + bytes, 0, sizeof(OLECHAR));
  return reinterpret_cast<BSTR>(data);
}

extern "C" MVAPI BSTR MVSysAllocString(const OLECHAR* s) {
  if (s == nullptr) return nullptr;
  const std::size_t len = std::char_traits<OLECHAR>::length(s);
  if (len > kMaxUnits) return nullptr;
  return MVSysAllocStringLen(s, static_cast<uint32_t>(len));
}

extern "C" MVAPI uint32_t MVSysStringLen(BSTR s) {
  if (s == nullptr) return 0;
  std::uint32_t bytes = 0;
  std::memcpy(&bytes, blockOf(s), kPrefixBytes);
  return bytes / static_cast<std::uint32_t>(sizeof(OLECHAR));
}

extern "C" MVAPI void MVSysFreeString(BSTR s) {
  if (s != nullptr) std::free(blockOf(s));
}

namespace mv {

Bstr::Bstr(std::u16string_view text) {
  // An empty text still gets a string of its own: callers may tell it apart from "no text".
  if (text.size() > kMaxUnits) throw std::bad_alloc();
  s_ = MVSysAllocStringLen(text.data(), static_cast<uint32_t>(text.size()));
  if (s_ == nullptr) throw std::bad_alloc();
}

Bstr& Bstr::operator=(Bstr&& o) noexcept {
  if (this != &o) {
    MVSysFreeString(s_);
    s_ = std::exchange(o.s_, nullptr);
  }
  return *this;
}

Bstr::~Bstr() { MVSysFreeString(s_); }

BSTR* Bstr::out() {
  MVSysFreeString(std::exchange(s_, nullptr));
  return &s_;
}

std::u16string_view Bstr::view() const {
  if (s_ == nullptr) return {};
  return {s_, MVSysStringLen(s_)};
}

}  // namespace mv
