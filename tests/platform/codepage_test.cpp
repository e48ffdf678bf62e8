// Code-page text is written as hex escapes so that the tests don't depend on how this file is
// encoded.

#include "platform/codepage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "MVCore.h"

namespace {

using namespace std::string_literals;

// "表紙入力" and "工事" in CP932. 表 ends in 0x5C, the backslash.
const std::string kCoverInput = "\x95\x5C\x8E\x86\x93\xFC\x97\xCD";
const std::u16string kCoverInputWide = u"\u8868\u7D19\u5165\u529B";
const std::string kWork = "\x8D\x48\x8E\x96";
const std::u16string kWorkWide = u"\u5DE5\u4E8B";

class CodePageTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(MVSetCodePage("CP932"), 0); }
  void TearDown() override { EXPECT_EQ(MVSetCodePage("CP932"), 0); }
};

TEST_F(CodePageTest, Cp932RoundTrips) {
  EXPECT_EQ(mv::currentCodePage(), "CP932");
  EXPECT_EQ(mv::ansiToWide(kCoverInput), kCoverInputWide);
  EXPECT_EQ(mv::wideToAnsi(kCoverInputWide), kCoverInput);
  EXPECT_EQ(mv::ansiToWide(kWork), kWorkWide);
  EXPECT_EQ(mv::wideToAnsi(kWorkWide), kWork);
  EXPECT_EQ(mv::ansiToWide("\xB1"), u"\uFF71");  // half-width katakana: one byte
  EXPECT_EQ(mv::wideToAnsi(u"\uFF71"), "\xB1");
  EXPECT_EQ(mv::ansiToWide("A\0\x95\x5C"s), u"A\0\u8868"s);
  EXPECT_EQ(mv::wideToAnsi(u"A\0\u8868"s), "A\0\x95\x5C"s);
  EXPECT_EQ(mv::ansiToWide(""), u"");
  EXPECT_EQ(mv::wideToAnsi(u""), "");
}

TEST_F(CodePageTest, BadTextIsReplacedNotDropped) {
  // A lead byte with an impossible trail: only the lead is replaced, the space survives.
  EXPECT_EQ(mv::ansiToWide("\x81\x20"), u"\uFFFD ");
  EXPECT_EQ(mv::ansiToWide("a\x80z"), u"a\uFFFDz");
  EXPECT_EQ(mv::ansiToWide("\x95\x5C\x95"), u"\u8868\uFFFD");  // cut off at the end

  EXPECT_EQ(mv::wideToAnsi(u"a\u20ACb"), "a?b");                        // not in the code page
  EXPECT_EQ(mv::wideToAnsi(u"\U0001F600\u8868"), "?\x95\x5C");          // one '?' for a pair
  EXPECT_EQ(mv::wideToAnsi(u"x\xD800y"), "x?y");                        // unpaired high
  EXPECT_EQ(mv::wideToAnsi(u"\xDC00z"), "?z");                          // unpaired low
  EXPECT_EQ(mv::wideToAnsi(std::u16string(1, char16_t{0xD83D})), "?");  // high at the end
}

TEST_F(CodePageTest, SwitchingCodePages) {
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  EXPECT_EQ(mv::currentCodePage(), "UTF-8");
  EXPECT_EQ(mv::ansiToWide("\xE8\xA1\xA8\xE7\xB4\x99"), u"\u8868\u7D19");
  EXPECT_EQ(mv::wideToAnsi(u"\U0001F600"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(mv::ansiToWide("\xE8\xA1"), u"\uFFFD\uFFFD");
  EXPECT_TRUE(mv::isLeadByte(0xE8));
  EXPECT_FALSE(mv::isLeadByte(0x85));  // a continuation byte
  EXPECT_EQ(mv::countCharacters("a\xE8\xA1\xA8\xF0\x9F\x98\x80"), 3u);
  EXPECT_EQ(mv::countCharacters("\xE0\x80\x80"), 3u);  // overlong: byte by byte

  EXPECT_EQ(MVSetCodePage("NO-SUCH-CODEPAGE"), -1);
  EXPECT_EQ(MVSetCodePage(""), -1);
  EXPECT_EQ(MVSetCodePage(nullptr), -1);
  EXPECT_EQ(MVSetCodePage("CP932//IGNORE"), -1);
  EXPECT_EQ(MVSetCodePage("UTF-16"), -1);  // can't carry zero-terminated text
  EXPECT_EQ(mv::currentCodePage(), "UTF-8");

  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  EXPECT_EQ(mv::ansiToWide(kCoverInput), kCoverInputWide);
  EXPECT_TRUE(mv::isLeadByte(0x95));
  EXPECT_FALSE(mv::isLeadByte(0xB1));
}

TEST_F(CodePageTest, ProbedCodePageKnowsItsCharacterLengths) {
  ASSERT_EQ(MVSetCodePage("EUC-JP"), 0);
  const std::string text =
      "\xC9\xBD"      // 表, two bytes
      "\x8F\xB0\xA1"  // 丂, three bytes
      "\x8E\xB1"      // half-width katakana, two bytes
      "a";
  EXPECT_EQ(mv::ansiToWide(text), u"\u8868\u4E02\uFF71a");
  EXPECT_TRUE(mv::isLeadByte(0xC9));
  EXPECT_FALSE(mv::isLeadByte('a'));
  const char* p = text.data();
  const char* end = p + text.size();
  EXPECT_EQ(mv::charLength(p, end), 2u);
  EXPECT_EQ(mv::charLength(p + 2, end), 3u);
  EXPECT_EQ(mv::charLength(p + 5, end), 2u);
  EXPECT_EQ(mv::charLength(p + 7, end), 1u);
  EXPECT_EQ(mv::countCharacters(text), 4u);
  EXPECT_EQ(mv::cutToBytes(text, 4), text.substr(0, 2));
}

TEST_F(CodePageTest, WalkingCharacters) {
  const std::string mixed = "A" + kCoverInput +
                            "\xB1"
                            "b";
  EXPECT_EQ(mv::countCharacters(mixed), 7u);
  EXPECT_EQ(mv::countCharacters(""), 0u);
  EXPECT_EQ(mv::countCharacters("\x95"), 1u);  // lone lead byte at the end
  // A lead byte before an impossible trail is one character, as the conversion sees it.
  EXPECT_EQ(mv::countCharacters("\x81 a"), 3u);
  EXPECT_EQ(mv::findText("\x81\t", "\t"), 1u);
  EXPECT_EQ(mv::findText("\x81\\", "\\"), std::string::npos);

  const char* p = mixed.data();
  const char* end = p + mixed.size();
  EXPECT_EQ(mv::charLength(p, end), 1u);
  EXPECT_EQ(mv::charLength(p + 1, end), 2u);
  EXPECT_EQ(mv::charLength(p + 1, p + 2), 1u);  // never past the end
  EXPECT_EQ(mv::charLength(end, end), 0u);
  EXPECT_EQ(mv::charLength(nullptr, nullptr), 0u);
}

TEST_F(CodePageTest, FindTextOnlyOnCharacterBoundaries) {
  EXPECT_EQ(mv::findText(kCoverInput, "\\"), std::string::npos);  // 表's trail byte
  EXPECT_EQ(mv::findText(kCoverInput + "\\", "\\"), kCoverInput.size());
  EXPECT_EQ(mv::findText("a\\b", "\\"), 1u);
  // 0x86 is 紙's trail and also a lead byte on its own.
  EXPECT_EQ(mv::findText(kCoverInput, "\x86"), std::string::npos);
  EXPECT_EQ(mv::findText("\x87\x40@", "@"), 2u);                    // ①'s trail is '@'
  EXPECT_EQ(mv::findText(kCoverInput, "\x95"), std::string::npos);  // half a character
  EXPECT_EQ(mv::findText(kCoverInput, "\x93\xFC"), 4u);
  EXPECT_EQ(mv::findText(kCoverInput, kWork), std::string::npos);
  EXPECT_EQ(mv::findText("abc", ""), 0u);
  EXPECT_EQ(mv::findText("ab", "abc"), std::string::npos);
}

TEST_F(CodePageTest, CuttingNeverSplitsACharacter) {
  EXPECT_EQ(mv::cutToBytes(kCoverInput, 3), kCoverInput.substr(0, 2));
  EXPECT_EQ(mv::cutToBytes(kCoverInput, 4), kCoverInput.substr(0, 4));
  EXPECT_EQ(mv::cutToBytes(kCoverInput, 1), "");
  EXPECT_EQ(mv::cutToBytes(kCoverInput, 100), kCoverInput);
  EXPECT_EQ(mv::cutToBytes("a\xB1"
                           "bc",
                           2),
            "a\xB1");

  struct Case {
    std::size_t width;
    std::size_t kept;
  };
  for (const Case& c : {Case{0, 0}, Case{1, 0}, Case{2, 0}, Case{3, 2}, Case{4, 2}, Case{5, 4},
                        Case{9, 8}, Case{12, 8}}) {
    char buffer[16];
    std::memset(buffer, 0x7E, sizeof(buffer));
    mv::copyToField(buffer, c.width, kCoverInput);
    SCOPED_TRACE(c.width);
    if (c.width == 0) {
      EXPECT_EQ(buffer[0], 0x7E);
      continue;
    }
    EXPECT_EQ(std::string(buffer, c.kept), kCoverInput.substr(0, c.kept));
    EXPECT_EQ(buffer[c.kept], '\0');
    for (std::size_t i = c.kept + 1; i < sizeof(buffer); ++i) EXPECT_EQ(buffer[i], 0x7E) << i;
  }
  mv::copyToField(nullptr, 10, kCoverInput);
}

TEST_F(CodePageTest, ConcurrentConversionsStayCorrect) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 300; ++i) {
        if (mv::ansiToWide(kCoverInput + "\x81") != kCoverInputWide + u"\uFFFD") ++failures[t];
        if (mv::wideToAnsi(kWorkWide + u"\u20AC") != kWork + "?") ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
