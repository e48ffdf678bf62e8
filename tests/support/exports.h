// Small wrappers of exports that several suites use the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MVCore.h"

namespace mvtest {

// Collects the library's message boxes in `shown` until releaseMessages().
inline void catchMessages(std::vector<std::string>* shown) {
  MVSetMessageHandler([](const char* text, const char*,
                         void* to) { static_cast<std::vector<std::string>*>(to)->push_back(text); },
                      shown);
}
inline void releaseMessages() { MVSetMessageHandler(nullptr, nullptr); }

// The permission of a user on a shelf; -9 when the export leaves it alone.
inline int32_t shelfPower(int32_t shelf, int32_t userId) {
  int32_t value = -9;
  MVGetUserPermissionOfBS(shelf, userId, &value);
  return value;
}

}  // namespace mvtest
