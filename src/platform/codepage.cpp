// The boundary's code page. Each code page, once opened, stays open for the life of the process
// and the current one is published through an atomic pointer: text walking asks for lead bytes
// once per character and must not take a lock for it. The iconv descriptors keep shift state, so
// each has its own mutex.

#include "platform/codepage.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "MVCore.h"
#include "platform/utf.h"

namespace {

const iconv_t kNoDescriptor =
    reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr): iconv's own failure value
constexpr std::size_t kConversionFailed = static_cast<std::size_t>(-1);
constexpr char16_t kReplacement = u'\uFFFD';

enum class Family { kCp932, kUtf8, kOther };

const unsigned char* bytesOf(const char* p) { return reinterpret_cast<const unsigned char*>(p); }

bool isCp932Lead(unsigned char c) { return (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC); }
bool isCp932Trail(unsigned char c) { return c >= 0x40 && c <= 0xFC && c != 0x7F; }

Family familyOf(const std::string& name) {
  std::string key;
  for (char c : name) {
    if (c != '-' && c != '_') key += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  if (key == "CP932" || key == "MS932" || key == "WINDOWS31J" || key == "CSWINDOWS31J") {
    return Family::kCp932;
  }
  if (key == "UTF8") return Family::kUtf8;
  return Family::kOther;
}

void resetState(iconv_t cd) { iconv(cd, nullptr, nullptr, nullptr, nullptr); }

// Runs iconv until the input is used up or a character fails; `in` null flushes the shift state.
// Returns 0 or the errno of the failure.
int pump(iconv_t cd, char** in, std::size_t* inLeft, std::string& out) {
  char buffer[4096];
  for (;;) {
    char* o = buffer;
    std::size_t oLeft = sizeof(buffer);
    const std::size_t result = iconv(cd, in, inLeft, &o, &oLeft);
    const int error = errno;
    out.append(buffer, static_cast<std::size_t>(o - buffer));
    if (result != kConversionFailed) return 0;
    if (error != E2BIG) return error;
  }
}

class CodePage {
 public:
  // nullptr for a name iconv does not know or a code page that can't carry zero-terminated text.
  static std::unique_ptr<CodePage> open(const std::string& name) {
    // A suffix such as //IGNORE would make the conversion drop characters silently.
    if (name.empty() || name.find('/') != std::string::npos) return nullptr;
    iconv_t toWide = iconv_open("UTF-16LE", name.c_str());
    if (toWide == kNoDescriptor) return nullptr;
    iconv_t toAnsi = iconv_open(name.c_str(), "UTF-16LE");
    if (toAnsi == kNoDescriptor) {
      iconv_close(toWide);
      return nullptr;
    }
    auto page = std::unique_ptr<CodePage>(new CodePage(name, familyOf(name), toWide, toAnsi));
    if (!page->probeLeadBytes()) return nullptr;
    return page;
  }

  // Stands in when the C library has no converter for the default code page: ASCII passes,
  // everything else is replaced.
  static std::unique_ptr<CodePage> asciiOnly(const std::string& name) {
    return std::unique_ptr<CodePage>(
        new CodePage(name, Family::kOther, kNoDescriptor, kNoDescriptor));
  }

  CodePage(const CodePage&) = delete;
  CodePage& operator=(const CodePage&) = delete;
  ~CodePage() {
    if (toWide_ != kNoDescriptor) iconv_close(toWide_);
    if (toAnsi_ != kNoDescriptor) iconv_close(toAnsi_);
  }

  const std::string& name() const { return name_; }

  bool isLead(unsigned char c) const {
    switch (family_) {
      case Family::kCp932:
        return isCp932Lead(c);
      case Family::kUtf8:
        return c >= 0xC2 && c <= 0xF4;
      case Family::kOther:
        break;
    }
    return lead_[c];
  }

  std::size_t charLength(const unsigned char* p, std::size_t available) const {
    if (available == 0) return 0;
    switch (family_) {
      case Family::kCp932:
        return available >= 2 && isCp932Lead(p[0]) && isCp932Trail(p[1]) ? 2 : 1;
      case Family::kUtf8: {
        // A broken sequence is walked byte by byte, as the conversion replaces it byte by byte.
        const mv::Utf8Char c =
            mv::decodeUtf8(std::string_view(reinterpret_cast<const char*>(p), available));
        return c.valid ? c.length : 1;
      }
      case Family::kOther:
        break;
    }
    if (!lead_[p[0]]) return 1;
    return probedLength(p, available);
  }

  std::u16string toWide(std::string_view text) const {
    std::u16string result;
    if (toWide_ == kNoDescriptor) {
      for (unsigned char c : text) result += c < 0x80 ? static_cast<char16_t>(c) : kReplacement;
      return result;
    }
    std::string bytes;
    bytes.reserve(text.size() * 2);
    {
      std::lock_guard guard(toWideMutex_);
      resetState(toWide_);
      char* in = const_cast<char*>(text.data());
      std::size_t inLeft = text.size();
      while (inLeft > 0) {
        if (pump(toWide_, &in, &inLeft, bytes) == 0) break;
        // An invalid or incomplete sequence: replace its first byte and go on with the next.
        bytes += "\xFD\xFF";
        ++in;
        --inLeft;
        resetState(toWide_);
      }
    }
    result.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
      result += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                      static_cast<unsigned char>(bytes[i + 1]) << 8);
    }
    return result;
  }

  std::string toAnsi(std::u16string_view text) const {
    std::string result;
    if (toAnsi_ == kNoDescriptor) {
      for (std::size_t i = 0; i < text.size(); i += pairAt(text, i) ? 2 : 1) {
        result += text[i] < 0x80 ? static_cast<char>(text[i]) : '?';
      }
      return result;
    }
    std::string bytes;
    bytes.reserve(text.size() * 2);
    for (char16_t unit : text) {
      bytes += static_cast<char>(unit & 0xFF);
      bytes += static_cast<char>(unit >> 8);
    }
    result.reserve(text.size());
    std::lock_guard guard(toAnsiMutex_);
    resetState(toAnsi_);
    char* in = bytes.data();
    std::size_t inLeft = bytes.size();
    while (inLeft > 0) {
      if (pump(toAnsi_, &in, &inLeft, result) == 0) break;
      // A character the code page has no place for, or an unpaired surrogate: one '?' each,
      // itself converted so that a shifting code page stays in step.
      const std::size_t unit = static_cast<std::size_t>(in - bytes.data()) / 2;
      const std::size_t skip =
          std::min<std::size_t>((pairAt(text, unit) ? std::size_t{2} : std::size_t{1}) * 2, inLeft);
      in += skip;
      inLeft -= skip;
      char question[] = {'?', '\0'};
      char* q = question;
      std::size_t qLeft = 2;
      if (pump(toAnsi_, &q, &qLeft, result) != 0) result += '?';
    }
    pump(toAnsi_, nullptr, nullptr, result);
    return result;
  }

 private:
  CodePage(std::string name, Family family, iconv_t toWide, iconv_t toAnsi)
      : name_(std::move(name)), family_(family), toWide_(toWide), toAnsi_(toAnsi) {}

  static bool pairAt(std::u16string_view text, std::size_t i) {
    return i + 1 < text.size() && text[i] >= 0xD800 && text[i] <= 0xDBFF && text[i + 1] >= 0xDC00 &&
           text[i + 1] <= 0xDFFF;
  }

  // A byte that converts on its own is a character; one the converter calls incomplete starts a
  // longer one. The zero byte has to be a character of its own, or text could not end in one.
  bool probeLeadBytes() {
    std::lock_guard guard(toWideMutex_);
    for (int b = 0; b < 256; ++b) {
      char byte = static_cast<char>(b);
      char* in = &byte;
      std::size_t inLeft = 1;
      char out[16];
      char* o = out;
      std::size_t oLeft = sizeof(out);
      resetState(toWide_);
      const std::size_t result = iconv(toWide_, &in, &inLeft, &o, &oLeft);
      const int error = errno;
      if (b == 0 && (result == kConversionFailed || o - out != 2 || out[0] != 0 || out[1] != 0)) {
        return false;
      }
      lead_[static_cast<std::size_t>(b)] = result == kConversionFailed && error == EINVAL;
    }
    resetState(toWide_);
    return true;
  }

  // For code pages without a known structure the converter itself tells how many bytes the
  // character takes: the shortest prefix it accepts. Invalid sequences count one byte.
  std::size_t probedLength(const unsigned char* p, std::size_t available) const {
    if (toWide_ == kNoDescriptor) return 1;
    const std::size_t longest = std::min<std::size_t>(available, 4);
    std::lock_guard guard(toWideMutex_);
    for (std::size_t n = 2; n <= longest; ++n) {
      char bytes[4];
      std::memcpy(bytes, p, n);
      char* in = bytes;
      std::size_t inLeft = n;
      char out[16];
      char* o = out;
      std::size_t oLeft = sizeof(out);
      resetState(toWide_);
      const std::size_t result = iconv(toWide_, &in, &inLeft, &o, &oLeft);
      const int error = errno;
      if (result != kConversionFailed) return n;
      if (error != EINVAL) return 1;
    }
    return 1;
  }

  std::string name_;
  Family family_;
  std::array<bool, 256> lead_{};
  iconv_t toWide_;
  iconv_t toAnsi_;
  mutable std::mutex toWideMutex_;
  mutable std::mutex toAnsiMutex_;
};

class CodePages {
 public:
  CodePages() {
    auto page = CodePage::open(kDefault);
    if (page == nullptr) page = CodePage::asciiOnly(kDefault);
    current_.store(page.get(), std::memory_order_release);
    opened_.push_back(std::move(page));
  }

  const CodePage& current() const { return *current_.load(std::memory_order_acquire); }

  bool select(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    std::lock_guard guard(mutex_);
    for (const auto& page : opened_) {
      if (page->name() == name) {
        current_.store(page.get(), std::memory_order_release);
        return true;
      }
    }
    auto page = CodePage::open(name);
    if (page == nullptr) return false;
    current_.store(page.get(), std::memory_order_release);
    opened_.push_back(std::move(page));
    return true;
  }

 private:
  static constexpr const char* kDefault = "CP932";
  std::mutex mutex_;
  std::vector<std::unique_ptr<CodePage>> opened_;
  std::atomic<const CodePage*> current_{nullptr};
};

// Never destroyed: other threads may still convert while the process exits.
CodePages& codePages() {
  static auto* instance = new CodePages;
  return *instance;
}

const CodePage& current() { return codePages().current(); }

}  // namespace

extern "C" MVAPI int MVSetCodePage(const char* name) { return codePages().select(name) ? 0 : -1; }

namespace mv {

std::u16string ansiToWide(std::string_view text) { return current().toWide(text); }

std::string wideToAnsi(std::u16string_view text) { return current().toAnsi(text); }

std::string currentCodePage() { return current().name(); }

std::size_t charLength(const char* p, const char* end) {
  if (p == nullptr || end == nullptr || p >= end) return 0;
  return current().charLength(bytesOf(p), static_cast<std::size_t>(end - p));
}

bool isLeadByte(unsigned char c) { return current().isLead(c); }

std::size_t countCharacters(std::string_view text) {
  const CodePage& page = current();
  const unsigned char* p = bytesOf(text.data());
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++count) i += page.charLength(p + i, text.size() - i);
  return count;
}

std::size_t findText(std::string_view text, std::string_view needle) {
  if (needle.empty()) return 0;
  const CodePage& page = current();
  const unsigned char* p = bytesOf(text.data());
  for (std::size_t i = 0; i + needle.size() <= text.size();
       i += page.charLength(p + i, text.size() - i)) {
    if (text.compare(i, needle.size(), needle) != 0) continue;
    // The match has to end on a boundary too: a needle ending in a lead byte is no match for
    // the first half of a character.
    std::size_t end = i;
    while (end < i + needle.size()) end += page.charLength(p + end, text.size() - end);
    if (end == i + needle.size()) return i;
  }
  return std::string_view::npos;
}

std::string_view cutToBytes(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  const CodePage& page = current();
  const unsigned char* p = bytesOf(text.data());
  std::size_t cut = 0;
  for (;;) {
    const std::size_t length = page.charLength(p + cut, text.size() - cut);
    if (cut + length > maxBytes) break;
    cut += length;
  }
  return text.substr(0, cut);
}

void copyToField(char* field, std::size_t width, std::string_view text) {
  if (field == nullptr || width == 0) return;
  const std::string_view kept = cutToBytes(text, width - 1);
  if (!kept.empty()) std::memcpy(field, kept.data(), kept.size());
  field[kept.size()] = '\0';
}

}  // namespace mv
