#include "platform/files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

// Each test gets a fresh folder, addressed with '\' the way the library's callers do.
class FilesTest : public testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> counter{0};
    native_ = std::filesystem::path(testing::TempDir()) /
              ("mvcore_files_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(native_);
    std::filesystem::create_directories(native_);
    std::string root = native_.string();
    for (char& c : root) {
      if (c == '/') c = '\\';
    }
    root_ = root;
  }
  void TearDown() override { std::filesystem::remove_all(native_); }

  std::string path(const std::string& name) const { return mv::fs::join(root_, name); }

  void write(const std::string& name, const std::string& contents) const {
    std::ofstream(native_ / name, std::ios::binary) << contents;
  }
  std::string read(const std::string& name) const {
    std::ifstream in(native_ / name, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  std::filesystem::path native_;
  std::string root_;
};

TEST(PathTest, SeparatorsAndJoining) {
  EXPECT_EQ(mv::fs::toNative("C:\\data\\a/b.txt"), "C:/data/a/b.txt");
  EXPECT_EQ(mv::fs::join("a", "b"), "a\\b");
  EXPECT_EQ(mv::fs::join("a\\", "b"), "a\\b");
  EXPECT_EQ(mv::fs::join("a/", "\\b"), "a/b");
  EXPECT_EQ(mv::fs::join("a", "\\b"), "a\\b");
  EXPECT_EQ(mv::fs::join("", "b"), "b");
}

TEST_F(FilesTest, Directories) {
  const std::string dir = path("sub");
  EXPECT_FALSE(mv::fs::exists(dir));
  ASSERT_TRUE(mv::fs::createDirectory(dir));
  EXPECT_TRUE(mv::fs::exists(dir));
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

TEST_F(FilesTest, CopyKeepsContentsAndTime) {
  const std::string contents = "line\0with zero\n"s + std::string(100000, 'z');
  write("src.bin", contents);
  const std::time_t old = 1'000'000'000;
  ASSERT_TRUE(mv::fs::setFileTimes(path("src.bin"), old));

  ASSERT_TRUE(mv::fs::copyFile(path("src.bin"), path("dst.bin"), true));
  EXPECT_EQ(read("dst.bin"), contents);
  std::time_t t = 0;
  ASSERT_TRUE(mv::fs::lastWriteTime(path("dst.bin"), &t));
  EXPECT_EQ(t, old);

  write("other", "short");
  EXPECT_FALSE(mv::fs::copyFile(path("other"), path("dst.bin"), true));
  EXPECT_EQ(read("dst.bin"), contents);
  ASSERT_TRUE(mv::fs::copyFile(path("other"), path("dst.bin"), false));
  EXPECT_EQ(read("dst.bin"), "short");

  EXPECT_FALSE(mv::fs::copyFile(path("other"), path("other"), false));
  EXPECT_EQ(read("other"), "short");
  EXPECT_FALSE(mv::fs::copyFile(path("missing"), path("new"), false));
  EXPECT_FALSE(mv::fs::exists(path("new")));
  ASSERT_TRUE(mv::fs::createDirectory(path("dir")));
  EXPECT_FALSE(mv::fs::copyFile(path("dir"), path("new"), false));
  EXPECT_FALSE(mv::fs::exists(path("new")));
}

TEST_F(FilesTest, MoveRenamesButNeverReplaces) {
  write("a", "first");
  write("b", "second");
  ASSERT_TRUE(mv::fs::moveFile(path("a"), path("c")));
  EXPECT_FALSE(mv::fs::exists(path("a")));
  EXPECT_EQ(read("c"), "first");

  EXPECT_FALSE(mv::fs::moveFile(path("c"), path("b")));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read("b"), "second");
  EXPECT_EQ(read("c"), "first");
  EXPECT_FALSE(mv::fs::moveFile(path("missing"), path("d")));
}

TEST_F(FilesTest, FindFilesMatchesPatterns) {
  write("b.dat", "12345");
  write("a.txt", "1");
  write("noext", "");
  write("x[1].txt", "");
  ASSERT_TRUE(mv::fs::createDirectory(path("sub.d")));

  const auto names = [](const std::vector<mv::fs::FoundEntry>& found) {
    std::vector<std::string> result;
    for (const auto& e : found) result.push_back(e.name);
    return result;
  };
  using V = std::vector<std::string>;
  const auto all = mv::fs::findFiles(path("*.*"));
  EXPECT_EQ(names(all), (V{"a.txt", "b.dat", "noext", "sub.d", "x[1].txt"}));
  EXPECT_EQ(names(mv::fs::findFiles(path("*"))), names(all));
  EXPECT_EQ(names(mv::fs::findFiles(path("*.txt"))), (V{"a.txt", "x[1].txt"}));
  EXPECT_EQ(names(mv::fs::findFiles(path("?.dat"))), (V{"b.dat"}));
  EXPECT_EQ(names(mv::fs::findFiles(path("x[1]*"))), (V{"x[1].txt"}));
  EXPECT_EQ(names(mv::fs::findFiles(path("n*t"))), (V{"noext"}));
  EXPECT_EQ(names(mv::fs::findFiles(path("noext"))), (V{"noext"}));
  EXPECT_TRUE(mv::fs::findFiles(path("*.none")).empty());
  EXPECT_TRUE(mv::fs::findFiles(path("missing\\*.*")).empty());

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
  for (std::time_t when :
       {std::time_t{0}, std::time_t{1'234'567'890}, std::time_t{4'102'444'800}}) {
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
