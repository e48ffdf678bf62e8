// UTF-8 and UTF-16 between server and wire, whatever the boundary's code page.
#include <gtest/gtest.h>

#include "platform/utf.h"

namespace {

TEST(Utf, RoundTripsEveryPlaneAndMarksMalformedInput) {
  const std::string text = "表紙 a\xF0\x9F\x93\x98z";  // a character beyond the BMP
  const std::u16string wide = mv::utf8ToUtf16(text);
  EXPECT_EQ(wide, u"表紙 a\U0001F4D8z");
  EXPECT_EQ(mv::utf16ToUtf8(wide), text);

  EXPECT_EQ(mv::utf8ToUtf16("a\xFF" "b"), u"a\uFFFDb");            // not a lead byte
  EXPECT_EQ(mv::utf8ToUtf16("a\xE8\xA1" "b"), u"a\uFFFDb");        // cut short
  EXPECT_EQ(mv::utf8ToUtf16("\xC0\xAF"), u"\uFFFD\uFFFD");         // overlong
  EXPECT_EQ(mv::utf8ToUtf16("\xED\xA0\x80" "b"), u"\uFFFDb");  // an encoded surrogate
  EXPECT_EQ(mv::utf16ToUtf8(std::u16string(1, u'\xD800') + u"x"), "\xEF\xBF\xBDx");
  EXPECT_EQ(mv::utf16ToUtf8(std::u16string(1, u'\xDC00')), "\xEF\xBF\xBD");
}

TEST(Utf, BstrsCarryEmbeddedZerosAndNullIsEmpty) {
  BSTR b = mv::utf8ToBstr(std::string("a\0b", 3));
  EXPECT_EQ(MVSysStringLen(b), 3u);
  EXPECT_EQ(mv::bstrToUtf8(b), std::string("a\0b", 3));
  MVSysFreeString(b);
  EXPECT_EQ(mv::bstrToUtf8(nullptr), "");
}

}  // namespace
