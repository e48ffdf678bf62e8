// A fixture that owns the environment the client configuration is looked up in: a fresh folder
// per test, and the variables put back as they were afterwards.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mvtest {

class ClientEnvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"MVCORE_CLIENT_CONF", "XDG_CONFIG_HOME", "HOME"}) {
      const char* v = std::getenv(name);
      saved_.emplace_back(name, v ? std::optional<std::string>(v) : std::nullopt);
    }
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string suffix =
        std::to_string(::getpid()) + "-" + info->test_suite_name() + "-" + info->name();
    for (char& c : suffix) {
      if (c == '/') c = '_';
    }
    dir_ = ::testing::TempDir() + "mvcore-client-" + suffix;
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    // An empty configuration of the test's own: nothing on this machine leaks in.
    useConfig("");
  }

  void TearDown() override {
    for (const auto& [name, value] : saved_) {
      if (value) {
        setenv(name.c_str(), value->c_str(), 1);
      } else {
        unsetenv(name.c_str());
      }
    }
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  const std::string& dir() const { return dir_; }

  std::string writeFile(const std::string& relative, const std::string& text) {
    const std::filesystem::path path = std::filesystem::path(dir_) / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
  }

  // Writes client.conf and points $MVCORE_CLIENT_CONF at it.
  std::string useConfig(const std::string& text) {
    std::string path = writeFile("client.conf", text);
    setenv("MVCORE_CLIENT_CONF", path.c_str(), 1);
    return path;
  }

 private:
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
  std::string dir_;
};

}  // namespace mvtest
