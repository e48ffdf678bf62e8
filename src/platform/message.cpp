// The library's message boxes. Without a handler the text goes to standard error, which on this
// platform is read as UTF-8 whatever the boundary's code page is.

#include "platform/message.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "MVCore.h"
#include "platform/codepage.h"
#include "platform/utf.h"

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

// Going through UTF-16 also turns bytes that are invalid in the code page into U+FFFD, so the
// terminal never receives a broken sequence, even when the code page is UTF-8 itself.
std::string toTerminal(const char* text) {
  return mv::utf16ToUtf8(mv::ansiToWide(text == nullptr ? std::string_view() : text));
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

void showLibraryMessage(std::string_view utf8Text) {
  const std::string text = wideToAnsi(utf8ToUtf16(utf8Text));
  showMessage(text.c_str(), kMessageCaption);
}

}  // namespace mv
