#include "platform/message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVCore.h"

namespace {

struct Shown {
  std::string text;
  std::string caption;
};

void record(const char* text, const char* caption, void* context) {
  static_cast<std::vector<Shown>*>(context)->push_back({text, caption});
}

class MessageTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(MVSetCodePage("CP932"), 0); }
  void TearDown() override { MVSetMessageHandler(nullptr, nullptr); }
};

TEST_F(MessageTest, HandlerGetsTheTextUnchanged) {
  std::vector<Shown> shown;
  MVSetMessageHandler(record, &shown);
  mv::showMessage("\x95\x5C\x8E\x86", "Caption");
  mv::showMessage(nullptr, nullptr);
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[0].text, "\x95\x5C\x8E\x86");  // still in the code page
  EXPECT_EQ(shown[0].caption, "Caption");
  EXPECT_EQ(shown[1].text, "");
  EXPECT_EQ(shown[1].caption, "");

  std::vector<Shown> other;
  MVSetMessageHandler(record, &other);
  mv::showMessage("second", "box");
  EXPECT_EQ(shown.size(), 2u);
  ASSERT_EQ(other.size(), 1u);
  EXPECT_EQ(other[0].text, "second");
}

TEST_F(MessageTest, DefaultWritesUtf8ToStandardError) {
  std::vector<Shown> shown;
  MVSetMessageHandler(record, &shown);
  MVSetMessageHandler(nullptr, &shown);
  testing::internal::CaptureStderr();
  mv::showMessage("\x95\x5C\x8E\x86 ok", "\x8D\x48\x8E\x96");
  mv::showMessage("bad \x80", "c");
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(shown.empty());
  EXPECT_EQ(written,
            "\xE5\xB7\xA5\xE4\xBA\x8B: \xE8\xA1\xA8\xE7\xB4\x99 ok\n"
            "c: bad \xEF\xBF\xBD\n");

  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  testing::internal::CaptureStderr();
  mv::showMessage("\xE8\xA1\xA8", "u");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "u: \xE8\xA1\xA8\n");
  EXPECT_EQ(MVSetCodePage("CP932"), 0);
}

}  // namespace
