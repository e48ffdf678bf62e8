// The library's modal message boxes.
#pragma once

#include <string_view>

namespace mv {

// The caption of the library's own boxes.
inline constexpr char kMessageCaption[] = "MVCore";

// Shows one of the library's fixed texts and returns when it has been dismissed: through the
// application's handler (MVSetMessageHandler), else on standard error.
void showMessage(const char* text, const char* caption);

// Shows one of the library's fixed texts, written in UTF-8 in the source, in the boundary's code
// page (CP932 bytes by default) under kMessageCaption.
void showLibraryMessage(std::string_view utf8Text);

}  // namespace mv
