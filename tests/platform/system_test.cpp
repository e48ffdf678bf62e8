// OLE dates and the clock, and files addressed with '\' the way the library's callers do.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <sstream>

#include "platform/clock.h"
#include "platform/files.h"
#include "temp_folder.h"

namespace {

using namespace std::string_literals;

// "Y-M-D h:m:s.ms", any trailing part left out being zero.
SYSTEMTIME at(const char* text) {
  int v[7] = {};
  std::sscanf(text, "%d-%d-%d %d:%d:%d.%d", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]);
  SYSTEMTIME st{};
  uint16_t* fields[] = {&st.wYear,   &st.wMonth,  &st.wDay,         &st.wHour,
                        &st.wMinute, &st.wSecond, &st.wMilliseconds};
  for (int i = 0; i < 7; ++i) *fields[i] = static_cast<uint16_t>(v[i]);
  return st;
}

std::string show(const SYSTEMTIME& st) {
  char s[48];
  std::snprintf(s, sizeof s, "%d-%d-%d %d:%d:%d.%d", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds);
  return s;
}

std::string fromOle(double date) {
  SYSTEMTIME st{};
  return mv::oleDateToSystemTime(date, &st) ? show(st) + " w" + std::to_string(st.wDayOfWeek)
                                            : "refused";
}

TEST(OleDateTest, KnownDatesBothWays) {
  const std::pair<double, const char*> cases[] = {
      {0.0, "1899-12-30 0:0:0.0 w6"},      {1.5, "1899-12-31 12:0:0.0 w0"},
      {2.0, "1900-1-1 0:0:0.0 w1"},        {2.25, "1900-1-1 6:0:0.0 w1"},
      {36526.0, "2000-1-1 0:0:0.0 w6"},    {-1.25, "1899-12-29 6:0:0.0 w5"},
      {-1.0, "1899-12-29 0:0:0.0 w5"},     {-657434.0, "100-1-1 0:0:0.0 w5"},
      {60.0, "1900-2-28 0:0:0.0 w3"},      {61.0, "1900-3-1 0:0:0.0 w4"},
      {36585.75, "2000-2-29 18:0:0.0 w2"},
  };
  for (const auto& [date, text] : cases) {
    SCOPED_TRACE(date);
    EXPECT_EQ(fromOle(date), text);
    double back = 0;
    ASSERT_TRUE(mv::systemTimeToOleDate(at(text), &back));
    EXPECT_DOUBLE_EQ(back, date);
  }
}

TEST(OleDateTest, RoundsToTheNearestMillisecondAndRefusesWhatIsNoDate) {
  const double ms = 1.0 / 86'400'000;
  // Rounding up to midnight lands on the next day, before day 0 as well as after.
  const std::pair<double, const char*> cases[] = {
      {2.25 + 0.4 * ms, "1900-1-1 6:0:0.0 w1"},
      {2.25 + 0.6 * ms, "1900-1-1 6:0:0.1 w1"},
      {-1.25 - 0.6 * ms, "1899-12-29 6:0:0.1 w5"},
      {3.0 - 0.2 * ms, "1900-1-2 0:0:0.0 w2"},
      {-2.0 + 0.2 * ms, "1899-12-30 0:0:0.0 w6"},
      {2958465.0 + 86'399'999 * ms, "9999-12-31 23:59:59.999 w5"},
      {-657435.0, "refused"},
      {2958466.0, "refused"},
      {1e300, "refused"},
      {std::numeric_limits<double>::quiet_NaN(), "refused"},
      {std::numeric_limits<double>::infinity(), "refused"},
  };
  for (const auto& [date, text] : cases) EXPECT_EQ(fromOle(date), text) << date;
  EXPECT_FALSE(mv::oleDateToSystemTime(0.0, nullptr));
  double date = 0;
  for (const char* bad : {"99-12-31", "10000-1-1", "2000-0-1", "2000-13-1", "2000-1-0", "2000-1-32",
                          "2000-1-257", "2000-257-1",  // 1 once cut to a byte
                          "2001-2-29", "1900-2-29", "2000-4-31", "2000-1-1 24:0:0",
                          "2000-1-1 0:60:0", "2000-1-1 0:0:60", "2000-1-1 0:0:0.1000"}) {
    EXPECT_FALSE(mv::systemTimeToOleDate(at(bad), &date)) << bad;
  }
  EXPECT_TRUE(mv::systemTimeToOleDate(at("2000-2-29"), &date));
  EXPECT_FALSE(mv::systemTimeToOleDate(at("2000-1-1"), nullptr));
}

TEST(ClockTest, NowAndPosixTimesConvert) {
  const SYSTEMTIME now = mv::localTimeNow();
  double date = 0, utcDate = 0;
  ASSERT_TRUE(mv::systemTimeToOleDate(now, &date));
  EXPECT_EQ(fromOle(date), show(now) + " w" + std::to_string(now.wDayOfWeek));
  ASSERT_TRUE(mv::systemTimeToOleDate(mv::utcTimeNow(), &utcDate));
  EXPECT_LT(std::fabs(utcDate - date), 1.0);  // time zones are less than a day apart
  const SYSTEMTIME epoch = mv::toUtcSystemTime(0, 999'999'999);
  EXPECT_EQ(show(epoch) + " w" + std::to_string(epoch.wDayOfWeek), "1970-1-1 0:0:0.999 w4");
  const SYSTEMTIME leap = mv::toUtcSystemTime(951'782'400 + 3'723, 4'000'000);
  EXPECT_EQ(show(leap) + " w" + std::to_string(leap.wDayOfWeek), "2000-2-29 1:2:3.4 w2");
  std::time_t back = 0;
  ASSERT_TRUE(mv::localSystemTimeToTime(mv::toLocalSystemTime(1'700'000'000), &back));
  EXPECT_EQ(back, 1'700'000'000);
  EXPECT_FALSE(mv::localSystemTimeToTime(at("2023-2-30"), &back));
  EXPECT_FALSE(mv::localSystemTimeToTime(at("2023-1-1 25:0:0"), &back));
  EXPECT_FALSE(mv::localSystemTimeToTime(at("2023-1-1"), nullptr));
}

// A fresh folder for each test, addressed with '\'.
class FilesTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return mv::fs::join(root_, name); }
  void write(const std::string& name, const std::string& contents) const {
    folder_.write(name, contents);
  }
  std::string read(const std::string& name) const {
    std::stringstream s;
    s << std::ifstream(folder_ / name, std::ios::binary).rdbuf();
    return s.str();
  }
  mvtest::TempFolder folder_{"files"};
  std::string root_ = [this] {
    std::string root = folder_.path();
    std::replace(root.begin(), root.end(), '/', '\\');
    return root;
  }();
};

TEST_F(FilesTest, PathsAndDirectories) {
  EXPECT_EQ(mv::fs::toNative("C:\\data\\a/b.txt"), "C:/data/a/b.txt");
  for (const auto& [folder, name, joined] : {std::tuple{"a", "b", "a\\b"},
                                             {"a\\", "b", "a\\b"},
                                             {"a/", "\\b", "a/b"},
                                             {"a", "\\b", "a\\b"},
                                             {"", "b", "b"}}) {
    EXPECT_EQ(mv::fs::join(folder, name), joined) << folder << " + " << name;
  }
  const std::string dir = path("sub");
  EXPECT_FALSE(mv::fs::exists(dir));
  ASSERT_TRUE(mv::fs::createDirectory(dir));
  EXPECT_TRUE(mv::fs::isDirectory(dir));
  EXPECT_FALSE(mv::fs::createDirectory(dir));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_FALSE(mv::fs::createDirectory(path("missing\\child")));
  write("sub/file", "x");
  EXPECT_TRUE(mv::fs::exists(dir + "\\file"));
  EXPECT_FALSE(mv::fs::isDirectory(dir + "\\file"));
  EXPECT_FALSE(mv::fs::removeDirectory(dir));  // not empty
  EXPECT_FALSE(mv::fs::deleteFile(dir));       // not a file
  EXPECT_TRUE(mv::fs::deleteFile(dir + "\\file"));
  EXPECT_FALSE(mv::fs::deleteFile(dir + "\\file"));
  EXPECT_TRUE(mv::fs::removeDirectory(dir));
  EXPECT_FALSE(mv::fs::exists(dir));

  // A path with a zero inside must not quietly stand for its prefix.
  EXPECT_FALSE(mv::fs::createDirectory(path("bad\0tail"s)));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(mv::fs::exists(path("bad")));
}

TEST_F(FilesTest, CopyKeepsContentsAndTimeAndMoveNeverReplaces) {
  const std::string contents = "line\0with zero\n"s + std::string(100000, 'z');
  write("src.bin", contents);
  ASSERT_TRUE(mv::fs::setFileTimes(path("src.bin"), 1'000'000'000));
  ASSERT_TRUE(mv::fs::copyFile(path("src.bin"), path("dst.bin"), true));
  EXPECT_EQ(read("dst.bin"), contents);
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(path("dst.bin"), &t));
  EXPECT_EQ(t, 1'000'000'000);
  write("other", "short");
  EXPECT_FALSE(mv::fs::copyFile(path("other"), path("dst.bin"), true));
  EXPECT_EQ(read("dst.bin"), contents);
  ASSERT_TRUE(mv::fs::copyFile(path("other"), path("dst.bin"), false));
  EXPECT_EQ(read("dst.bin"), "short");
  EXPECT_FALSE(mv::fs::copyFile(path("other"), path("other"), false));
  EXPECT_EQ(read("other"), "short");
  ASSERT_TRUE(mv::fs::createDirectory(path("dir")));
  for (const char* from : {"missing", "dir"}) {
    EXPECT_FALSE(mv::fs::copyFile(path(from), path("new"), false)) << from;
    EXPECT_FALSE(mv::fs::exists(path("new"))) << from;
  }
  ASSERT_TRUE(mv::fs::moveFile(path("src.bin"), path("moved")));
  EXPECT_FALSE(mv::fs::exists(path("src.bin")));
  EXPECT_FALSE(mv::fs::moveFile(path("moved"), path("other")));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read("other"), "short");
  EXPECT_EQ(read("moved"), contents);
  EXPECT_FALSE(mv::fs::moveFile(path("missing"), path("d")));
}

TEST_F(FilesTest, FindFilesMatchesPatterns) {
  for (const char* name : {"b.dat", "a.txt", "noext", "x[1].txt"}) write(name, name);
  ASSERT_TRUE(mv::fs::createDirectory(path("sub.d")));
  const auto names = [this](const char* pattern) {
    std::string out;
    for (const auto& e : mv::fs::findFiles(path(pattern))) out += e.name + " ";
    return out;
  };
  const std::pair<const char*, const char*> cases[] = {{"*.*", "a.txt b.dat noext sub.d x[1].txt "},
                                                       {"*", "a.txt b.dat noext sub.d x[1].txt "},
                                                       {"*.txt", "a.txt x[1].txt "},
                                                       {"?.dat", "b.dat "},
                                                       {"x[1]*", "x[1].txt "},
                                                       {"n*t", "noext "},
                                                       {"noext", "noext "},
                                                       {"*.none", ""},
                                                       {"missing\\*.*", ""}};
  for (const auto& [pattern, found] : cases) EXPECT_EQ(names(pattern), found) << pattern;
  const auto all = mv::fs::findFiles(path("*"));
  ASSERT_EQ(all.size(), 5u);
  EXPECT_FALSE(all[1].isDirectory);
  EXPECT_EQ(all[1].size, 5u);
  EXPECT_TRUE(all[3].isDirectory);
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(path("b.dat"), &t));
  EXPECT_EQ(all[1].lastWrite, t);
}

TEST_F(FilesTest, TimesSpaceAndMachine) {
  write("f", "x");
  for (const std::time_t when : {std::time_t{0}, std::time_t{4'102'444'800}}) {
    ASSERT_TRUE(mv::fs::setFileTimes(path("f"), when));
    std::time_t t = -1;
    ASSERT_TRUE(mv::fs::lastWriteTime(path("f"), &t));
    EXPECT_EQ(t, when);
  }
  std::time_t t = 0;
  EXPECT_FALSE(mv::fs::lastWriteTime(path("missing"), &t));
  EXPECT_FALSE(mv::fs::setFileTimes(path("missing"), 0));
  std::uint64_t bytes = 0;
  ASSERT_TRUE(mv::fs::freeSpace(root_, &bytes));
  EXPECT_GT(bytes, 0u);
  EXPECT_FALSE(mv::fs::freeSpace(path("missing\\deeper"), &bytes));
  const std::string name = mv::fs::computerName();
  EXPECT_FALSE(name.empty());
  EXPECT_LE(name.size(), 259u);
  EXPECT_EQ(name.find('\0'), std::string::npos);
}

}  // namespace
