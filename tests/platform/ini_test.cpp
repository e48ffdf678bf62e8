// The INI form shared by client.conf, bookserverd's configuration and profile files.
#include "platform/ini.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "temp_folder.h"

namespace mvtest {
namespace {

using ::testing::HasSubstr;

// "[name@line]key=value@line ..." for every section, the unnamed one first.
std::string describe(const mv::ini::Document& d) {
  std::string out;
  for (const mv::ini::Section& s : d.sections) {
    out += (out.empty() ? "[" : " [") + s.name + "@" + std::to_string(s.line) + "]";
    for (const mv::ini::Entry& e : s.entries) {
      out += e.key + "=" + e.value + "@" + std::to_string(e.line) + ";";
    }
  }
  return out;
}

struct ParseCase {
  std::string text;
  const char* expected;  // describe() of the result, or what the error must say
  bool ok;
};

TEST(Ini, ParsesTheFormAndNamesTheLineOfEveryRefusal) {
  const ParseCase cases[] = {
      {"", "[@0]", true},
      {"# comment\n  ; comment\n\n \t\r\n", "[@0]", true},
      {"a = 1\n[Books]\r\n  key =  two words \r\nempty=\n",
       "[@0]a=1@1; [Books@2]key=two words@3;empty=@4;", true},
      {"[ spaced ]\nk = a=b\n", "[@0] [spaced@1]k=a=b@2;", true},
      {"k = a#b;c\nt = #start\n", "[@0]k=a#b;c@1;t=#start@2;", true},
      {"[s]\nk=1\n[S]\nk=2\nk=3", "[@0] [s@1]k=1@2; [S@3]k=2@4;k=3@5;", true},
      {"k = v # note\n", "line 1: a comment must take a whole line", false},
      {"k = v\t;note\n", "line 1: a comment must take a whole line", false},
      {"\n[s] ; note\n", "line 2: a comment must take a whole line", false},
      {"[s\n", "line 1: a section header must end with ']'", false},
      {"[s] x\n", "line 1: a section header must end with ']'", false},
      {"[ ]\n", "line 1: a section needs a name", false},
      {"[a[b]\n", "line 1: a section name holds '['", false},
      {"\n\njust words\n", "line 3: expected '[section]' or 'name = value'", false},
      {"k = 1\n = v\n", "line 2: a name is missing before '='", false},
      {std::string("k = a\0b\n", 8), "NUL", false}};
  for (const ParseCase& c : cases) {
    mv::ini::Document d;
    std::string error;
    ASSERT_EQ(mv::ini::parse(c.text, d, error), c.ok) << c.text << " -> " << error;
    if (c.ok) {
      EXPECT_EQ(describe(d), c.expected) << c.text;
    } else {
      EXPECT_THAT(error, HasSubstr(c.expected)) << c.text;
    }
  }
}

TEST(Ini, LooksUpIgnoringAsciiCaseAndWritesWhatReadsBack) {
  mv::ini::Document d;
  std::string error;
  ASSERT_TRUE(
      mv::ini::parse("top=0\n[Open]\nFile=a\nfile=b\n[open]\nOther=c\n[開く]\nK=d\n", d, error))
      << error;
  const struct {
    const char* section;
    const char* key;
    const char* value;  // null: not found
  } lookups[] = {{"", "TOP", "0"},        {"OPEN", "FILE", "a"},    {"open", "other", "c"},
                 {"開く", "k", "d"},      {"Open", "top", nullptr}, {"missing", "file", nullptr},
                 {"open", "fil", nullptr}};
  for (const auto& l : lookups) {
    const std::string* found = d.find(l.section, l.key);
    ASSERT_EQ(found != nullptr, l.value != nullptr) << l.section << "/" << l.key;
    if (found) {
      EXPECT_EQ(*found, l.value) << l.section << "/" << l.key;
    }
  }
  const struct {
    const char* section;
    const char* key;
    const char* value;
    bool ok;
  } sets[] = {{"open", "FILE", "z;y#x", true},  // the first "file" changes, case kept
              {"New", "k", "", true},           // a new section at the end
              {"", "top", "1", true},          {"open", "k", "two\nlines", false},
              {"open", "k", " padded", false}, {"open", "k", "v # note", false},
              {"open", "a=b", "v", false},     {"open", "", "v", false},
              {"open", ";k", "v", false},      {"a]b", "k", "v", false}};
  for (const auto& s : sets) {
    EXPECT_EQ(d.set(s.section, s.key, s.value), s.ok) << s.section << "/" << s.key;
  }
  const std::string text = mv::ini::format(d);
  EXPECT_EQ(text,
            "top=1\n\n[Open]\nFile=z;y#x\nfile=b\n\n[open]\nOther=c\n\n[開く]\nK=d\n\n[New]\nk=\n");
  mv::ini::Document back;
  ASSERT_TRUE(mv::ini::parse(text, back, error)) << error;
  EXPECT_EQ(mv::ini::format(back), text);
}

TEST(Ini, FilesMissingReadWrittenAndRefused) {
  TempFolder folder("ini");
  mv::ini::Document d;
  std::string error;
  EXPECT_EQ(mv::ini::readFile(folder / "absent.ini", d, error), mv::ini::FileState::kMissing);
  ASSERT_TRUE(d.set("s", "k", "v"));
  ASSERT_TRUE(mv::ini::writeFile(folder / "profile.ini", d, error)) << error;
  mv::ini::Document back;
  ASSERT_EQ(mv::ini::readFile(folder / "profile.ini", back, error), mv::ini::FileState::kRead)
      << error;
  ASSERT_NE(back.find("S", "K"), nullptr);
  EXPECT_EQ(*back.find("S", "K"), "v");
  EXPECT_EQ(mv::ini::readFile(folder.path(), d, error), mv::ini::FileState::kFailed);
  EXPECT_THAT(error, HasSubstr("not a readable file"));
  const std::string bad = folder.write("bad.ini", "[s]\nk = v ; no\n");
  EXPECT_EQ(mv::ini::readFile(bad, d, error), mv::ini::FileState::kFailed);
  EXPECT_THAT(error, HasSubstr(bad + ": line 2"));
  EXPECT_FALSE(mv::ini::writeFile(folder / "no/such/folder.ini", d, error));
}

}  // namespace
}  // namespace mvtest
