// Fixtures of the tag, page, attribute and view tests: a recording server (exact calls, injected
// failures) with UTF-8 at the boundary, and a live server with a fresh book database.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVCore.h"
#include "live_server.h"
#include "server_fixture.h"

namespace mvtest {

class ContentsRecorded : public ServerFixture {
 protected:
  void SetUp() override;
  void TearDown() override;
  RecordingServer* server = nullptr;
};

class ContentsEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  static constexpr char kBook[] = "BOOK0102030405";
};

// "KEY=name\ttype\tvalue".
std::string element(const std::string& name, int type, const std::string& value);

// The elements of a TagDispTBL row.
std::vector<std::string> dispRow(int index, const std::string& name, int tagId, int order,
                                 int upTagId);

// The display rows of a tag-list block, which the test unlocks and frees.
std::vector<TagDispRecord> takeList(MVHGLOBAL block, int32_t count);
std::vector<TagInfoRecord> takeInfoList(MVHGLOBAL block, int32_t count);

}  // namespace mvtest
