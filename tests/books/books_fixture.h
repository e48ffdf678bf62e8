// What the book tests share: covers.
#pragma once

#include <string>
#include <vector>

#include "MVCore.h"
#include "exports.h"
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

}  // namespace mvtest
