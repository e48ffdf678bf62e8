#include "temp_folder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace mvtest {

TempFolder::TempFolder(std::string_view tag) {
  static std::atomic<int> serial{0};
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string test = info ? std::string(info->name()) : std::string("none");
  for (char& c : test) {
    if (c == '/') c = '_';  // parameterised names hold a slash
  }
  path_ = ::testing::TempDir() + "mvcore-test-" + std::string(tag) + "-" + test + "-" +
          std::to_string(::getpid()) + "-" + std::to_string(++serial);
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
  std::filesystem::create_directories(path_, ec);
  EXPECT_FALSE(ec) << ec.message();
}

TempFolder::~TempFolder() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempFolder::write(std::string_view name, std::string_view content) const {
  const std::string file = *this / name;
  std::ofstream(file, std::ios::binary) << content;
  std::filesystem::permissions(
      file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  return file;
}

std::string content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
  return bytes;
}

}  // namespace mvtest
