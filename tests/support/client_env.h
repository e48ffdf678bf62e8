// The environment the client configuration is looked up in ($MVCORE_CLIENT_CONF,
// $XDG_CONFIG_HOME, $HOME), pointed at a fresh folder for as long as the object lives and put back
// afterwards, so that a developer's own configuration can neither break nor pass a test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mvtest {

class ClientConfigHome {
 public:
  ClientConfigHome() {
    for (const char* name : {"MVCORE_CLIENT_CONF", "XDG_CONFIG_HOME", "HOME"}) {
      const char* v = std::getenv(name);
      saved_.emplace_back(name, v ? std::optional<std::string>(v) : std::nullopt);
    }
    std::string pattern = ::testing::TempDir() + "mvcore-client-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << pattern;
    dir_ = pattern;
    std::filesystem::create_directories(dir_ + "/home/.config");
    setenv("HOME", (dir_ + "/home").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir_ + "/home/.config").c_str(), 1);
    // An empty configuration of the test's own.
    useConfig("");
  }

  ~ClientConfigHome() {
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

  ClientConfigHome(const ClientConfigHome&) = delete;
  ClientConfigHome& operator=(const ClientConfigHome&) = delete;

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

class ClientEnvTest : public ::testing::Test, public ClientConfigHome {};

}  // namespace mvtest
