// Which daemon a server name stands for: the configuration file, where it is found, and the
// loopback names that need none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "client_env.h"
#include "frame/connection.h"
#include "rpc/client_config.h"

namespace mvtest {
namespace {

using mv::rpc::kStatusConfigUnreadable;
using ::testing::HasSubstr;

// "name address port ca tls-name token token-file|" for every section.
std::string describe(const std::vector<mv::rpc::ServerEntry>& entries) {
  std::string out;
  for (const mv::rpc::ServerEntry& e : entries) {
    out += e.name + " " + e.address + " " + std::to_string(e.port) + " " + e.caFile + " " +
           e.tlsName + " " + e.token + " " + e.tokenFile + "|";
  }
  return out;
}

TEST(ClientConfigParse, ReadsEverySettingAndSaysWhichLineItRefusesAndWhy) {
  const struct {
    std::string text;
    const char* expected;  // describe() of what was read, or what the error must say
    bool ok = false;
  } cases[] = {
      {"# head office\r\n\n  [Books]  \r\naddress = books.example.org\nport=7400\nca = "
       "certs/ca.pem\n"
       "tls-name = books-tls.example.org\ntoken-file = /etc/mvcore/books.token\n; the branch\n"
       "[branch]\nADDRESS = [fd00::5]\ntoken = abc def=ghi#1\n[10.1.2.3]\n",
       "Books books.example.org 7400 /etc/mvcore/certs/ca.pem books-tls.example.org  "
       "/etc/mvcore/books.token|branch fd00::5 7340   abc def=ghi#1 |10.1.2.3  7340    |",
       true},
      {"# nothing\n\n; still nothing", "", true},
      {"address = x\n", "line 1: 'address' outside"},
      {"[a]\nadress = x\n", "line 2: unknown key 'adress'"},
      {"[a]\nport = 1\nPort = 2\n", "line 3: 'Port' repeated"},
      {"[a]\n[A]\n", "line 2: [A] repeated"},
      {"[a\n", "line 1: a section header must end"},
      {"[  ]\n", "line 1: a section needs a name"},
      {"[a]\nport = 0\n", "line 2: port must be"},
      {"[a]\nport = 65536\n", "line 2: port must be"},
      {"[a]\nport = 80x\n", "line 2: port must be"},
      {"[a]\nport = -1\n", "line 2: port must be"},
      {"[a]\nca =\n", "line 2: 'ca' has no value"},
      {"[a]\nca = x.pem # ours\n", "line 2: a comment must take a whole line"},
      {"[a]\njust words\n", "line 2: expected"},
      {"[a]\naddress = two words\n", "line 2: address"},
      {"[a]\naddress = [::1\n", "line 2: address"},
      {"[a]\naddress = host/path\n", "line 2: address"},
      {"[a]\ntoken = t\ntoken-file = f\n[b]\n", "line 1: [a] has both token and token-file"},
      {"[a]\ntls-name = a.example\n", "line 1: [a] has tls-name without ca"},
      {"[my server]\n", "line 1: [my server] has no address"},
      {std::string("[a]\ntoken = x\0y\n", 16), "NUL"}};
  for (const auto& c : cases) {
    std::vector<mv::rpc::ServerEntry> entries{mv::rpc::ServerEntry{}};
    std::string error;
    ASSERT_EQ(mv::rpc::parseClientConfig(c.text, "/etc/mvcore/", entries, error), c.ok)
        << c.text << " -> " << error;
    if (c.ok) {
      EXPECT_EQ(describe(entries), c.expected);
    } else {
      EXPECT_THAT(error, HasSubstr(c.expected)) << c.text;
    }
  }
}

// The example a reader copies from the README, with its one commented-out line in force.
TEST(ClientConfigParse, TheReadmeExampleParsesAsWritten) {
  std::ifstream in(MVCORE_TEST_DATA "/../../README.md");
  const std::string readme((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::size_t start = readme.find("# ~/.config/mvcore/client.conf");
  ASSERT_NE(start, std::string::npos);
  std::string example = readme.substr(start, readme.find("```", start) - start);
  std::vector<mv::rpc::ServerEntry> entries;
  std::string error;
  ASSERT_TRUE(mv::rpc::parseClientConfig(example, "/home/u/.config/mvcore", entries, error))
      << error;
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].address, "books.example.org");
  EXPECT_TRUE(entries[0].tokenFile.ends_with("/.config/mvcore/books.token"))
      << entries[0].tokenFile;
  example.replace(example.find("# share-mount"), 2, "");
  ASSERT_TRUE(mv::rpc::parseClientConfig(example, "/", entries, error)) << error;
  EXPECT_EQ(entries.at(0).shareMount, "/mnt/books");
}

TEST(HostPort, SplitsAddressAndPortOfLoopbackAndOtherNames) {
  const struct {
    const char* text;
    const char* address;  // null: no endpoint
    uint16_t port = 0;
    bool loopback = false;
  } cases[] = {{"127.0.0.1:7341", "127.0.0.1", 7341, true},
               {"127.9.8.7", "127.9.8.7", 7340, true},
               {"localhost:1", "localhost", 1, true},
               {"LocalHost", "LocalHost", 7340, true},
               {"[::1]:65535", "::1", 65535, true},
               {"[::1]", "::1", 7340, true},
               {"::1", "::1", 7340, true},
               {"10.0.0.1:80", "10.0.0.1", 80, false},
               {"[fd00::1]:9", "fd00::1", 9, false},
               {"books.example.org", "books.example.org", 7340, false},
               {"", nullptr},
               {"127.0.0.1:", nullptr},
               {"127.0.0.1:0", nullptr},
               {"127.0.0.1:70000", nullptr},
               {"127.0.0.1:7e3", nullptr},
               {":7340", nullptr},
               {"[::1", nullptr},
               {"[::1]7340", nullptr},
               {"[::1]:", nullptr},
               {"[127.0.0.1]:80", nullptr},
               {"::1:7340:x", nullptr},
               {"bad host:1", nullptr},
               {"-lead:1", nullptr},
               {"a..b", nullptr}};
  for (const auto& c : cases) {
    std::string address;
    uint16_t port = 0;
    bool loopback = false;
    ASSERT_EQ(mv::rpc::parseHostPort(c.text, address, port, loopback), c.address != nullptr)
        << c.text;
    if (c.address) {
      EXPECT_EQ(address + ":" + std::to_string(port) + (loopback ? " loopback" : ""),
                c.address + (":" + std::to_string(c.port)) + (c.loopback ? " loopback" : ""));
    }
  }
}

class ClientConfig : public ClientEnvTest {};

TEST_F(ClientConfig, TheVariableWinsAndMustExistThenTheUsersFolder) {
  const std::string named = writeFile("named.conf", "");
  const std::string xdg = writeFile("xdg/mvcore/client.conf", "");
  const std::string home = writeFile("home/.config/mvcore/client.conf", "");
  setenv("XDG_CONFIG_HOME", (dir() + "/xdg").c_str(), 1);
  const struct {
    const char* conf;   // $MVCORE_CLIENT_CONF, null: unset
    bool xdgSet;        // else unset, and $HOME is looked in
    std::string found;  // empty: fails
  } cases[] = {{named.c_str(), true, named},
               {"", true, xdg},  // an empty variable counts as unset
               {nullptr, true, xdg},
               {nullptr, false, home},
               {"/nonexistent/missing.conf", true, ""}};
  for (const auto& c : cases) {
    c.conf ? setenv("MVCORE_CLIENT_CONF", c.conf, 1) : unsetenv("MVCORE_CLIENT_CONF");
    c.xdgSet ? setenv("XDG_CONFIG_HOME", (dir() + "/xdg").c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
    std::string path, error;
    ASSERT_EQ(mv::rpc::findClientConfig(path, error), !c.found.empty()) << c.found;
    if (c.found.empty()) {
      EXPECT_THAT(error, HasSubstr("missing.conf"));
    } else {
      EXPECT_EQ(path, c.found);
    }
  }
}

TEST_F(ClientConfig, ANameResolvesThroughItsSectionOrAsLoopback) {
  writeFile("token", "  s3cret \r\nsecond line\n");
  writeFile("home/.config/mvcore/books.token", "from home\n");
  useConfig(
      "[Books]\naddress = 192.0.2.7\nport = 7400\nca = ca.pem\ntls-name = books.example\n"
      "token-file = token\n[127.0.0.1:7341]\naddress = 192.0.2.8\n"
      "[home]\naddress = 192.0.2.7\ntoken-file = ~/.config/mvcore/books.token\n"
      "[books.example.org]\ntoken = t\n");
  const struct {
    const char* name;
    int32_t status;
    std::string endpoint;  // "address port ca tls-name token"
  } cases[] = {{"books", 0, "192.0.2.7 7400 " + dir() + "/ca.pem books.example s3cret"},
               {"127.0.0.1:7341", 0, "192.0.2.8 7340   "},  // a section may take over host:port
               {"home", 0, "192.0.2.7 7340   from home"},
               {"BOOKS.example.org", 0, "books.example.org 7340   t"},
               {"[::1]:7400", 0, "::1 7400   "},
               {"library", mv::kStatusClassNotRegistered, "library"},
               {"192.0.2.7:7340", mv::kStatusClassNotRegistered, "only loopback"},
               {"127.0.0.1:x", mv::kStatusClassNotRegistered, "127.0.0.1:x"}};
  for (const auto& c : cases) {
    mv::rpc::ServerEndpoint e;
    std::string error;
    ASSERT_EQ(mv::rpc::resolveServer(c.name, e, error), c.status) << c.name << ": " << error;
    if (c.status != 0) {
      EXPECT_THAT(error, HasSubstr(c.endpoint));
      continue;
    }
    EXPECT_EQ(
        e.address + " " + std::to_string(e.port) + " " + e.caFile + " " + e.tlsName + " " + e.token,
        c.endpoint);
    EXPECT_EQ(e.tls(), std::string(c.name) == "books");
  }
}

TEST_F(ClientConfig, AnUnusableConfigurationOrTokenFileFailsTheName) {
  writeFile("empty.token", "\n");
  const std::string at = "[a]\naddress = 192.0.2.1\n";
  const struct {
    std::string config;  // empty: $MVCORE_CLIENT_CONF names no file
    const char* name;
    const char* error;
  } cases[] = {{"[books]\nport = none\n", "books", "line 2"},
               // Even a loopback name: a broken file is a mistake to report, not to step around.
               {"[books]\nport = none\n", "127.0.0.1:7341", "line 2"},
               {"", "127.0.0.1:7341", "absent.conf"},
               {at + "token-file = missing.token\n", "a", "missing.token"},
               {at + "token-file = empty.token\n", "a", "no token"},
               {at + "token-file = " + dir() + "\n", "a", "not a readable file"}};
  for (const auto& c : cases) {
    useConfig(c.config);
    if (c.config.empty()) setenv("MVCORE_CLIENT_CONF", (dir() + "/absent.conf").c_str(), 1);
    mv::rpc::ServerEndpoint e;
    std::string error;
    EXPECT_EQ(mv::rpc::resolveServer(c.name, e, error), kStatusConfigUnreadable) << c.config;
    EXPECT_THAT(error, HasSubstr(c.error)) << c.config;
  }
}

}  // namespace
}  // namespace mvtest
