// What the book tests share: covers, and the library's message boxes caught as UTF-8 texts.
#pragma once

#include <string>
#include <vector>

#include "MVCore.h"
#include "platform/codepage.h"

namespace mvtest {

// A cover with the given texts; the rest empty, the colour 0.
inline CoverInfo makeCover(const std::string& siteName, const std::string& startDate = "",
                           const std::string& endDate = "") {
  CoverInfo cover{};
  mv::copyToField(cover.SiteName, sizeof cover.SiteName, siteName);
  mv::copyToField(cover.StartDate, sizeof cover.StartDate, startDate);
  mv::copyToField(cover.EndDate, sizeof cover.EndDate, endDate);
  return cover;
}

// Speaks UTF-8 and collects the message boxes in `shown` until the end of the test.
inline void catchMessages(std::vector<std::string>* shown) {
  MVSetCodePage("UTF-8");
  MVSetMessageHandler([](const char* text, const char*,
                         void* to) { static_cast<std::vector<std::string>*>(to)->push_back(text); },
                      shown);
}
inline void releaseMessages() {
  MVSetMessageHandler(nullptr, nullptr);
  MVSetCodePage("CP932");
}

}  // namespace mvtest
