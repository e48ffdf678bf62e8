// Which daemon a server name stands for: the configuration file, where it is found, and the
// loopback names that need none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "client_env.h"
#include "frame/connection.h"
#include "rpc/client_config.h"

namespace mvtest {
namespace {

using mv::rpc::kStatusConfigUnreadable;
using mv::rpc::ServerEndpoint;
using mv::rpc::ServerEntry;

// --- the file's form ---------------------------------------------------------------------------

TEST(ClientConfigParse, ReadsEverySettingAndAnchorsRelativePathsAtTheFile) {
  const std::string text =
      "# books of the head office\r\n"
      "\n"
      "  [Books]  \r\n"
      "address = books.example.org\n"
      "port=7400\n"
      "ca = certs/ca.pem\n"
      "tls-name = books-tls.example.org\n"
      "token-file = /etc/mvcore/books.token\n"
      "; the branch\n"
      "[branch]\n"
      "address = [fd00::5]\n"
      "token = abc def=ghi\n"
      "[10.1.2.3]\n";
  std::vector<ServerEntry> entries;
  std::string error;
  ASSERT_TRUE(mv::rpc::parseClientConfig(text, "/etc/mvcore/", entries, error)) << error;
  ASSERT_EQ(entries.size(), 3u);
  const ServerEntry& books = entries[0];
  EXPECT_EQ(books.name, "Books");
  EXPECT_EQ(books.address, "books.example.org");
  EXPECT_EQ(books.port, 7400);
  EXPECT_EQ(books.caFile, "/etc/mvcore/certs/ca.pem");
  EXPECT_EQ(books.tlsName, "books-tls.example.org");
  EXPECT_EQ(books.tokenFile, "/etc/mvcore/books.token");
  EXPECT_EQ(books.token, "");
  const ServerEntry& branch = entries[1];
  EXPECT_EQ(branch.address, "fd00::5");
  EXPECT_EQ(branch.port, mv::rpc::kDefaultPort);
  EXPECT_EQ(branch.token, "abc def=ghi");  // everything after the first '='
  EXPECT_TRUE(branch.caFile.empty());
  EXPECT_EQ(entries[2].name, "10.1.2.3");
  EXPECT_TRUE(entries[2].address.empty());
}

TEST(ClientConfigParse, AnEmptyFileOrOnlyCommentsHoldsNoServer) {
  std::vector<ServerEntry> entries{ServerEntry{}};
  std::string error;
  EXPECT_TRUE(mv::rpc::parseClientConfig("", "/", entries, error));
  EXPECT_TRUE(entries.empty());
  EXPECT_TRUE(mv::rpc::parseClientConfig("# nothing\n\n; still nothing", "/", entries, error));
  EXPECT_TRUE(entries.empty());
}

struct BadConfig {
  const char* text;
  const char* where;  // what the error must name
};

class ClientConfigRejects : public ::testing::TestWithParam<BadConfig> {};

TEST_P(ClientConfigRejects, SaysWhichLineAndWhy) {
  std::vector<ServerEntry> entries;
  std::string error;
  EXPECT_FALSE(mv::rpc::parseClientConfig(GetParam().text, "/etc/", entries, error));
  EXPECT_THAT(error, ::testing::HasSubstr(GetParam().where)) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    BadLines, ClientConfigRejects,
    ::testing::Values(BadConfig{"address = x\n", "line 1: 'address' outside"},
                      BadConfig{"[a]\nadress = x\n", "line 2: unknown key 'adress'"},
                      BadConfig{"[a]\nport = 1\nport = 2\n", "line 3: 'port' repeated"},
                      BadConfig{"[a]\n[A]\n", "line 2: [A] repeated"},
                      BadConfig{"[a\n", "line 1: a section header must end"},
                      BadConfig{"[  ]\n", "line 1: a section needs a server name"},
                      BadConfig{"[a]\nport = 0\n", "line 2: port must be"},
                      BadConfig{"[a]\nport = 65536\n", "line 2: port must be"},
                      BadConfig{"[a]\nport = 80x\n", "line 2: port must be"},
                      BadConfig{"[a]\nport = -1\n", "line 2: port must be"},
                      BadConfig{"[a]\nca =\n", "line 2: 'ca' has no value"},
                      BadConfig{"[a]\njust words\n", "line 2: expected"},
                      BadConfig{"[a]\naddress = two words\n", "line 2: address"},
                      BadConfig{"[a]\naddress = [::1\n", "line 2: address"},
                      BadConfig{"[a]\naddress = host/path\n", "line 2: address"},
                      BadConfig{"[a]\ntoken = t\ntoken-file = f\n[b]\n",
                                "line 1: [a] has both token and token-file"},
                      BadConfig{"[a]\ntls-name = a.example\n",
                                "line 1: [a] has tls-name without ca"},
                      BadConfig{"[my server]\n", "line 1: [my server] has no address"}));

TEST(ClientConfigParse, ABinaryFileIsNoConfiguration) {
  std::vector<ServerEntry> entries;
  std::string error;
  const std::string text("[a]\ntoken = x\0y\n", 16);
  EXPECT_FALSE(mv::rpc::parseClientConfig(text, "/", entries, error));
  EXPECT_THAT(error, ::testing::HasSubstr("NUL"));
}

// --- where the file is -------------------------------------------------------------------------

class ClientConfigFile : public ClientEnvTest {};

TEST_F(ClientConfigFile, TheVariableWinsAndMustNameAFileThatExists) {
  const std::string named = writeFile("named.conf", "");
  writeFile("xdg/mvcore/client.conf", "");
  setenv("XDG_CONFIG_HOME", (dir() + "/xdg").c_str(), 1);
  setenv("MVCORE_CLIENT_CONF", named.c_str(), 1);
  std::string path, error;
  ASSERT_TRUE(mv::rpc::findClientConfig(path, error));
  EXPECT_EQ(path, named);

  setenv("MVCORE_CLIENT_CONF", (dir() + "/missing.conf").c_str(), 1);
  EXPECT_FALSE(mv::rpc::findClientConfig(path, error));
  EXPECT_THAT(error, ::testing::HasSubstr("missing.conf"));
}

TEST_F(ClientConfigFile, WithoutTheVariableTheUsersConfigurationFolderIsLookedIn) {
  unsetenv("MVCORE_CLIENT_CONF");
  const std::string xdg = writeFile("xdg/mvcore/client.conf", "");
  setenv("XDG_CONFIG_HOME", (dir() + "/xdg").c_str(), 1);
  std::string path, error;
  ASSERT_TRUE(mv::rpc::findClientConfig(path, error));
  EXPECT_EQ(path, xdg);

  unsetenv("XDG_CONFIG_HOME");
  const std::string home = writeFile("home/.config/mvcore/client.conf", "");
  setenv("HOME", (dir() + "/home").c_str(), 1);
  ASSERT_TRUE(mv::rpc::findClientConfig(path, error));
  EXPECT_EQ(path, home);

  // An empty variable counts as unset.
  setenv("MVCORE_CLIENT_CONF", "", 1);
  ASSERT_TRUE(mv::rpc::findClientConfig(path, error));
  EXPECT_EQ(path, home);
}

// --- names without configuration ---------------------------------------------------------------

struct HostPortCase {
  const char* text;
  bool ok;
  const char* address;
  uint16_t port;
  bool loopback;
};

class HostPort : public ::testing::TestWithParam<HostPortCase> {};

TEST_P(HostPort, SplitsAddressAndPort) {
  const HostPortCase& c = GetParam();
  std::string address;
  uint16_t port = 0;
  bool loopback = false;
  ASSERT_EQ(mv::rpc::parseHostPort(c.text, address, port, loopback), c.ok) << c.text;
  if (!c.ok) return;
  EXPECT_EQ(address, c.address) << c.text;
  EXPECT_EQ(port, c.port) << c.text;
  EXPECT_EQ(loopback, c.loopback) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Names, HostPort,
    ::testing::Values(
        HostPortCase{"127.0.0.1:7341", true, "127.0.0.1", 7341, true},
        HostPortCase{"127.9.8.7", true, "127.9.8.7", 7340, true},
        HostPortCase{"localhost:1", true, "localhost", 1, true},
        HostPortCase{"LocalHost", true, "LocalHost", 7340, true},
        HostPortCase{"[::1]:65535", true, "::1", 65535, true},
        HostPortCase{"[::1]", true, "::1", 7340, true},
        HostPortCase{"::1", true, "::1", 7340, true},
        HostPortCase{"10.0.0.1:80", true, "10.0.0.1", 80, false},
        HostPortCase{"books.example.org", true, "books.example.org", 7340, false},
        HostPortCase{"[fd00::1]:9", true, "fd00::1", 9, false},
        HostPortCase{"", false, "", 0, false}, HostPortCase{"127.0.0.1:", false, "", 0, false},
        HostPortCase{"127.0.0.1:0", false, "", 0, false},
        HostPortCase{"127.0.0.1:70000", false, "", 0, false},
        HostPortCase{"127.0.0.1:7e3", false, "", 0, false},
        HostPortCase{":7340", false, "", 0, false}, HostPortCase{"[::1", false, "", 0, false},
        HostPortCase{"[::1]7340", false, "", 0, false}, HostPortCase{"[::1]:", false, "", 0, false},
        HostPortCase{"[127.0.0.1]:80", false, "", 0, false},
        HostPortCase{"::1:7340:x", false, "", 0, false},
        HostPortCase{"bad host:1", false, "", 0, false},
        HostPortCase{"-lead:1", false, "", 0, false}, HostPortCase{"a..b", false, "", 0, false}));

// --- a name to an endpoint ---------------------------------------------------------------------

class ResolveServer : public ClientEnvTest {};

TEST_F(ResolveServer, AConfiguredNameTakesItsSectionIgnoringCase) {
  writeFile("token", "  s3cret \r\nsecond line\n");
  useConfig(
      "[Books]\naddress = 192.0.2.7\nport = 7400\nca = ca.pem\ntls-name = books.example\n"
      "token-file = token\n"
      "[127.0.0.1:7341]\naddress = 192.0.2.8\n");
  ServerEndpoint e;
  std::string error;
  ASSERT_EQ(mv::rpc::resolveServer("books", e, error), 0) << error;
  EXPECT_EQ(e.address, "192.0.2.7");
  EXPECT_EQ(e.port, 7400);
  EXPECT_EQ(e.caFile, dir() + "/ca.pem");
  EXPECT_TRUE(e.tls());
  EXPECT_EQ(e.tlsName, "books.example");
  EXPECT_EQ(e.token, "s3cret");

  // A section may even take over a host:port name.
  ASSERT_EQ(mv::rpc::resolveServer("127.0.0.1:7341", e, error), 0) << error;
  EXPECT_EQ(e.address, "192.0.2.8");
  EXPECT_EQ(e.port, mv::rpc::kDefaultPort);
  EXPECT_FALSE(e.tls());
}

TEST_F(ResolveServer, AHomeRelativeTokenFileIsFoundInHome) {
  setenv("HOME", (dir() + "/home").c_str(), 1);
  writeFile("home/.config/mvcore/books.token", "from home\n");
  useConfig("[books]\naddress = 192.0.2.7\ntoken-file = ~/.config/mvcore/books.token\n");
  ServerEndpoint e;
  std::string error;
  ASSERT_EQ(mv::rpc::resolveServer("books", e, error), 0) << error;
  EXPECT_EQ(e.token, "from home");
}

TEST_F(ResolveServer, ASectionWithoutAddressUsesItsName) {
  useConfig("[books.example.org]\ntoken = t\n");
  ServerEndpoint e;
  std::string error;
  ASSERT_EQ(mv::rpc::resolveServer("BOOKS.example.org", e, error), 0) << error;
  EXPECT_EQ(e.address, "books.example.org");
  EXPECT_EQ(e.token, "t");
}

TEST_F(ResolveServer, LoopbackNeedsNoSectionAndNothingElseGoesWithout) {
  useConfig("[books]\naddress = 192.0.2.7\n");
  ServerEndpoint e;
  std::string error;
  ASSERT_EQ(mv::rpc::resolveServer("[::1]:7400", e, error), 0) << error;
  EXPECT_EQ(e.address, "::1");
  EXPECT_EQ(e.port, 7400);
  EXPECT_TRUE(e.token.empty());
  EXPECT_FALSE(e.tls());

  EXPECT_EQ(mv::rpc::resolveServer("library", e, error), mv::kStatusClassNotRegistered);
  EXPECT_THAT(error, ::testing::HasSubstr("library"));
  EXPECT_EQ(mv::rpc::resolveServer("192.0.2.7:7340", e, error), mv::kStatusClassNotRegistered);
  EXPECT_EQ(mv::rpc::resolveServer("127.0.0.1:x", e, error), mv::kStatusClassNotRegistered);
}

TEST_F(ResolveServer, AnUnusableConfigurationFailsEveryName) {
  useConfig("[books]\nport = none\n");
  ServerEndpoint e;
  std::string error;
  EXPECT_EQ(mv::rpc::resolveServer("books", e, error), kStatusConfigUnreadable);
  EXPECT_THAT(error, ::testing::HasSubstr("line 2"));
  // Even a loopback name: a broken file is a mistake to report, not to step around.
  EXPECT_EQ(mv::rpc::resolveServer("127.0.0.1:7341", e, error), kStatusConfigUnreadable);

  setenv("MVCORE_CLIENT_CONF", (dir() + "/absent.conf").c_str(), 1);
  EXPECT_EQ(mv::rpc::resolveServer("127.0.0.1:7341", e, error), kStatusConfigUnreadable);
}

TEST_F(ResolveServer, ATokenFileThatCannotBeUsedFailsTheName) {
  writeFile("empty.token", "\n");
  useConfig(
      "[a]\naddress = 192.0.2.1\ntoken-file = missing.token\n"
      "[b]\naddress = 192.0.2.1\ntoken-file = empty.token\n"
      "[c]\naddress = 192.0.2.1\ntoken-file = " +
      dir() + "\n");
  ServerEndpoint e;
  std::string error;
  EXPECT_EQ(mv::rpc::resolveServer("a", e, error), kStatusConfigUnreadable);
  EXPECT_THAT(error, ::testing::HasSubstr("missing.token"));
  EXPECT_EQ(mv::rpc::resolveServer("b", e, error), kStatusConfigUnreadable);
  EXPECT_THAT(error, ::testing::HasSubstr("no token"));
  EXPECT_EQ(mv::rpc::resolveServer("c", e, error), kStatusConfigUnreadable);
}

}  // namespace
}  // namespace mvtest
