// What the contents tests share: a recording server with UTF-8 at the boundary, a live server
// with a fresh book database, rows as element texts, list blocks, and files.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVCore.h"
#include "frame/connection.h"
#include "frame/exchange.h"
#include "live_server.h"
#include "platform/codepage.h"
#include "server_fixture.h"
#include "temp_folder.h"

namespace mvtest {

class ContentsRecorded : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
    server = &connect();
  }
  void TearDown() override {
    MVSetCodePage("CP932");
    ServerFixture::TearDown();
  }
  RecordingServer* server = nullptr;
};

class ContentsEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
    const mv::Bstr none = mv::toWide("");
    ASSERT_EQ(mv::connection().currentServer->CreateBookDatabase(none.get(), none.get(),
                                                                 mv::toWide(kBook).get()),
              0);
  }
  void TearDown() override {
    LiveServerTest::TearDown();
    MVSetCodePage("CP932");
  }
  static constexpr char kBook[] = "BOOK0102030405";
};

// "KEY=name\ttype\tvalue".
inline std::string element(const std::string& name, int type, const std::string& value) {
  return "KEY=" + name + "\t" + std::to_string(type) + "\t" + value;
}

// The records of a list block handed out unlocked, which is then freed.
template <typename T>
std::vector<T> take(MVHGLOBAL block, int32_t count) {
  if (block == nullptr) return {};
  EXPECT_EQ(MVGlobalSize(block), sizeof(T) * static_cast<std::size_t>(count));
  const auto* p = static_cast<const T*>(MVGlobalLock(block));
  std::vector<T> records(p, p + count);
  EXPECT_EQ(MVGlobalUnlock(block), 0) << "handed out locked";
  EXPECT_EQ(MVGlobalFree(block), nullptr);
  return records;
}

}  // namespace mvtest
