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

#include "temp_folder.h"

namespace mvtest {

class ClientConfigHome {
 public:
  ClientConfigHome() {
    for (const char* name : {"MVCORE_CLIENT_CONF", "XDG_CONFIG_HOME", "HOME"}) {
      const char* v = std::getenv(name);
      saved_.emplace_back(name, v ? std::optional<std::string>(v) : std::nullopt);
    }
    std::filesystem::create_directories(folder_ / "home/.config");
    setenv("HOME", (folder_ / "home").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (folder_ / "home/.config").c_str(), 1);
    useConfig("");  // an empty configuration of the test's own
  }
  ~ClientConfigHome() {
    for (const auto& [name, value] : saved_) {
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
    }
  }
  ClientConfigHome(const ClientConfigHome&) = delete;
  ClientConfigHome& operator=(const ClientConfigHome&) = delete;

  const std::string& dir() const { return folder_.path(); }
  std::string writeFile(const std::string& relative, const std::string& text) {
    const std::filesystem::path path = folder_ / relative;
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
  TempFolder folder_{"client"};
};

class ClientEnvTest : public ::testing::Test, public ClientConfigHome {};

}  // namespace mvtest
