// The library's message boxes. Without a handler the text goes to standard error, which on this
// platform is read as UTF-8 whatever the boundary's code page is.

#include "platform/message.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "MVCore.h"
#include "platform/codepage.h"

namespace {

struct HandlerState {
  std::mutex mutex;
  MVMessageHandler handler = nullptr;
  void* context = nullptr;
};

HandlerState& handlerState() {
  static auto* state = new HandlerState;
  return *state;
}

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// Going through UTF-16 also turns bytes that are invalid in the code page into U+FFFD, so the
// terminal never receives a broken sequence, even when the code page is UTF-8 itself.
std::string toTerminal(const char* text) {
  const std::u16string wide = mv::ansiToWide(text == nullptr ? std::string_view() : text);
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    char32_t c = wide[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 &&
        wide[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (wide[++i] - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    appendUtf8(out, c);
  }
  return out;
}

}  // namespace

extern "C" MVAPI void MVSetMessageHandler(MVMessageHandler handler, void* context) {
  HandlerState& state = handlerState();
  std::lock_guard guard(state.mutex);
  state.handler = handler;
  state.context = handler == nullptr ? nullptr : context;
}

namespace mv {

void showMessage(const char* text, const char* caption) {
  MVMessageHandler handler = nullptr;
  void* context = nullptr;
  {
    HandlerState& state = handlerState();
    std::lock_guard guard(state.mutex);
    handler = state.handler;
    context = state.context;
  }
  // Called outside the lock: the handler stands for a modal box and may take its time, or set
  // another handler.
  if (handler != nullptr) {
    handler(text == nullptr ? "" : text, caption == nullptr ? "" : caption, context);
    return;
  }
  const std::string line = toTerminal(caption) + ": " + toTerminal(text) + "\n";
  // Nothing sensible is left to do if standard error itself fails.
  (void)std::fwrite(line.data(), 1, line.size(), stderr);
  (void)std::fflush(stderr);
}

}  // namespace mv
