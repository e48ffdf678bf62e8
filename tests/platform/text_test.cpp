// Code-page text, UTF-8 and UTF-16, and message boxes. Code-page text is written as hex escapes
// so that the tests don't depend on how this file is encoded.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "MVCore.h"
#include "platform/codepage.h"
#include "platform/message.h"
#include "platform/utf.h"

namespace {

using namespace std::string_literals;

// "表紙入力" and "工事" in CP932. 表 ends in 0x5C, the backslash.
const std::string kCover = "\x95\x5C\x8E\x86\x93\xFC\x97\xCD";
const std::u16string kCoverWide = u"\u8868\u7D19\u5165\u529B";
const std::string kWork = "\x8D\x48\x8E\x96";
const std::u16string kWorkWide = u"\u5DE5\u4E8B";

class CodePageTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(MVSetCodePage("CP932"), 0); }
  void TearDown() override {
    MVSetMessageHandler(nullptr, nullptr);
    EXPECT_EQ(MVSetCodePage("CP932"), 0);
  }
};

TEST_F(CodePageTest, ConvertsBothWaysAndReplacesWhatDoesNotFit) {
  EXPECT_EQ(mv::currentCodePage(), "CP932");
  const std::pair<std::string, std::u16string> both[] = {
      {kCover, kCoverWide},
      {kWork, kWorkWide},
      {"\xB1", u"\uFF71"},  // half-width: one byte
      {"A\0\x95\x5C"s, u"A\0\u8868"s},
      {"", u""}};
  for (const auto& [ansi, wide] : both) {
    EXPECT_EQ(mv::ansiToWide(ansi), wide);
    EXPECT_EQ(mv::wideToAnsi(wide), ansi);
  }
  // A lead byte with an impossible trail: only the lead is replaced, the space survives.
  EXPECT_EQ(mv::ansiToWide("\x81\x20"), u"\uFFFD ");
  EXPECT_EQ(mv::ansiToWide("a\x80z"), u"a\uFFFDz");
  EXPECT_EQ(mv::ansiToWide("\x95\x5C\x95"), u"\u8868\uFFFD");  // cut off at the end
  const std::pair<std::u16string, std::string> unmappable[] = {
      {u"a\u20ACb", "a?b"},                  // not in the code page
      {u"\U0001F600\u8868", "?\x95\x5C"},    // one '?' for a pair
      {u"x\xD800y", "x?y"},                  // unpaired high
      {u"\xDC00z", "?z"},                    // unpaired low
      {std::u16string(1, u'\xD83D'), "?"}};  // high at the end
  for (const auto& [wide, ansi] : unmappable) EXPECT_EQ(mv::wideToAnsi(wide), ansi) << ansi;
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
  // UTF-16 can't carry zero-terminated text.
  for (const char* bad : {"NO-SUCH-CODEPAGE", "", "CP932//IGNORE", "UTF-16"}) {
    EXPECT_EQ(MVSetCodePage(bad), -1) << bad;
  }
  EXPECT_EQ(MVSetCodePage(nullptr), -1);
  EXPECT_EQ(mv::currentCodePage(), "UTF-8");

  // A code page the library has no table for is probed for its character lengths.
  ASSERT_EQ(MVSetCodePage("EUC-JP"), 0);
  const std::string euc =
      "\xC9\xBD\x8F\xB0\xA1\x8E\xB1"
      "a";  // 2, 3, 2 and 1 bytes
  EXPECT_EQ(mv::ansiToWide(euc), u"\u8868\u4E02\uFF71a");
  EXPECT_TRUE(mv::isLeadByte(0xC9));
  EXPECT_FALSE(mv::isLeadByte('a'));
  const char* end = euc.data() + euc.size();
  for (const auto& [at, length] : {std::pair{0, 2u}, {2, 3u}, {5, 2u}, {7, 1u}}) {
    EXPECT_EQ(mv::charLength(euc.data() + at, end), length) << at;
  }
  EXPECT_EQ(mv::countCharacters(euc), 4u);
  EXPECT_EQ(mv::cutToBytes(euc, 4), euc.substr(0, 2));
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  EXPECT_EQ(mv::ansiToWide(kCover), kCoverWide);
  EXPECT_TRUE(mv::isLeadByte(0x95));
  EXPECT_FALSE(mv::isLeadByte(0xB1));
}

TEST_F(CodePageTest, WalksFindsAndCutsByCharacters) {
  // A lone lead byte, and one before an impossible trail, is one character.
  for (const auto& [text, count] :
       {std::pair{"A" + kCover + "\xB1" + "b", 7u}, {"", 0u}, {"\x95", 1u}, {"\x81 a", 3u}}) {
    EXPECT_EQ(mv::countCharacters(text), count) << text;
  }
  const std::string mixed = "A" + kCover;
  const char* p = mixed.data();
  const char* end = p + mixed.size();
  // Never past the end.
  for (const auto& [from, to, length] :
       {std::tuple{p, end, 1u}, {p + 1, end, 2u}, {p + 1, p + 2, 1u}, {end, end, 0u}}) {
    EXPECT_EQ(mv::charLength(from, to), length) << from - p;
  }
  EXPECT_EQ(mv::charLength(nullptr, nullptr), 0u);
  const std::string npos = "npos";
  const auto find = [](const std::string& text, const std::string& needle) {
    const std::size_t at = mv::findText(text, needle);
    return at == std::string::npos ? "npos" : std::to_string(at);
  };
  const std::tuple<std::string, std::string, std::string> finds[] = {
      {kCover, "\\", npos},  // 表's trail byte
      {kCover + "\\", "\\", "8"}, {"a\\b", "\\", "1"},
      {kCover, "\x86", npos},   // 紙's trail, and a lead byte on its own
      {"\x87\x40@", "@", "2"},  // ①'s trail is '@'
      {kCover, "\x95", npos},   // half a character
      {kCover, "\x93\xFC", "4"},  {kCover, kWork, npos},
      {"abc", "", "0"},           {"ab", "abc", npos},
      {"\x81\t", "\t", "1"},      {"\x81\\", "\\", npos}};
  for (const auto& [text, needle, at] : finds) EXPECT_EQ(find(text, needle), at) << needle;
  EXPECT_EQ(mv::cutToBytes("a\xB1zz", 2), "a\xB1");
  for (const auto& [width, kept] : {std::pair<std::size_t, std::size_t>{0, 0},
                                    {1, 0},
                                    {2, 0},
                                    {3, 2},
                                    {4, 2},
                                    {5, 4},
                                    {9, 8},
                                    {12, 8}}) {
    SCOPED_TRACE(width);
    char buffer[16];
    std::memset(buffer, 0x7E, sizeof(buffer));
    mv::copyToField(buffer, width, kCover);
    const std::size_t written = width == 0 ? 0 : kept + 1;
    EXPECT_EQ(std::string(buffer, written), width == 0 ? "" : kCover.substr(0, kept) + '\0');
    EXPECT_EQ(std::string(buffer + written, buffer + 16), std::string(16 - written, 0x7E));
  }
  mv::copyToField(nullptr, 10, kCover);
}

void record(const char* text, const char* caption, void* shown) {
  static_cast<std::vector<std::string>*>(shown)->push_back(std::string(caption) + ": " + text);
}

TEST_F(CodePageTest, MessagesGoToTheHandlerUnchangedElseToStandardErrorInUtf8) {
  std::vector<std::string> shown, other;
  MVSetMessageHandler(record, &shown);
  mv::showMessage("\x95\x5C\x8E\x86", "Caption");  // still in the code page
  mv::showMessage(nullptr, nullptr);
  MVSetMessageHandler(record, &other);
  mv::showMessage("second", "box");
  EXPECT_EQ(shown, (std::vector<std::string>{"Caption: \x95\x5C\x8E\x86", ": "}));
  EXPECT_EQ(other, std::vector<std::string>{"box: second"});
  MVSetMessageHandler(nullptr, &shown);
  testing::internal::CaptureStderr();
  mv::showMessage("\x95\x5C\x8E\x86 ok", "\x8D\x48\x8E\x96");
  mv::showMessage("bad \x80", "c");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "\xE5\xB7\xA5\xE4\xBA\x8B: \xE8\xA1\xA8\xE7\xB4\x99 ok\nc: bad \xEF\xBF\xBD\n");
  EXPECT_EQ(shown.size(), 2u);
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  testing::internal::CaptureStderr();
  mv::showMessage("\xE8\xA1\xA8", "u");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "u: \xE8\xA1\xA8\n");
}

// Between server and wire, whatever the boundary's code page.
TEST(Utf, RoundTripsEveryPlaneAndMarksMalformedInput) {
  const std::string text = "表紙 a\xF0\x9F\x93\x98z";  // a character beyond the BMP
  EXPECT_EQ(mv::utf8ToUtf16(text), u"表紙 a\U0001F4D8z");
  EXPECT_EQ(mv::utf16ToUtf8(mv::utf8ToUtf16(text)), text);
  const std::pair<std::string, std::u16string> malformed[] = {
      {"a\xFF"s + "b", u"a\uFFFDb"},         // not a lead byte
      {"a\xE8\xA1"s + "b", u"a\uFFFDb"},     // cut short
      {"\xC0\xAF", u"\uFFFD\uFFFD"},         // overlong
      {"\xED\xA0\x80"s + "b", u"\uFFFDb"}};  // an encoded surrogate
  for (const auto& [in, out] : malformed) EXPECT_EQ(mv::utf8ToUtf16(in), out);
  EXPECT_EQ(mv::utf16ToUtf8(std::u16string(1, u'\xD800') + u"x"), "\xEF\xBF\xBDx");
  EXPECT_EQ(mv::utf16ToUtf8(std::u16string(1, u'\xDC00')), "\xEF\xBF\xBD");
  BSTR b = mv::utf8ToBstr("a\0b"s);
  EXPECT_EQ(MVSysStringLen(b), 3u);
  EXPECT_EQ(mv::bstrToUtf8(b), "a\0b"s);
  MVSysFreeString(b);
  EXPECT_EQ(mv::bstrToUtf8(nullptr), "");
}

}  // namespace
