// The library's modal message boxes.
#pragma once

namespace mv {

// Shows one of the library's fixed texts and returns when it has been dismissed: through the
// application's handler (MVSetMessageHandler), else on standard error.
void showMessage(const char* text, const char* caption);

}  // namespace mv
