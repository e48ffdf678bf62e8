// What the files of a session share: the checks and readings more than one family of methods
// makes. Internal to the server core.
#pragma once

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <string>

#include "server/engine/storage.h"

namespace mv::server {

// A table name a client may use: an identifier that is not one of the engine's own.
inline bool validTable(const std::string& name) {
  if (name.empty() || name.size() > 128 || !std::isalpha(static_cast<unsigned char>(name[0]))) {
    return false;
  }
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  if (lower.rfind("sqlite_", 0) == 0 || lower.rfind("pragma_", 0) == 0) return false;
  return std::all_of(name.begin(), name.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

inline bool isBlob(ColumnType t) { return t == ColumnType::Image || t == ColumnType::Binary; }

// The column that holds the key in a snapshot, -1 when it has none.
inline int keyColumn(const Snapshot& s) {
  for (std::size_t i = 0; i < s.columns.size(); ++i) {
    if (s.columns[i].name == "T_Index" || s.columns[i].name == "T_index") {
      return static_cast<int>(i);
    }
  }
  return -1;
}

inline int32_t clampInt(int64_t v) {
  return static_cast<int32_t>(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX));
}

}  // namespace mv::server
