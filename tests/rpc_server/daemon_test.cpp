// The bookserverd program itself on loopback: start, serve, refuse, stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "certificate.h"
#include "child_process.h"
#include "rpc_test_client.h"

namespace mvtest::rpc {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::vector<std::string> daemonArgs(const TempFolder& folder, std::vector<std::string> more) {
  more.insert(more.begin(), {BOOKSERVERD, "--data", folder / "data"});
  return more;
}

// Stops a daemon that is still serving, as an administrator would.
void stop(ChildProcess& daemon, int signal = SIGTERM) {
  daemon.signal(signal);
  EXPECT_EQ(daemon.waitExit(), std::optional<int>(0)) << daemon.log();
}

TEST(Bookserverd, InitsServesReleasesAVanishedClientAndEndsCleanlyOnSigterm) {
  TempFolder folder("daemon");
  std::string output;
  ASSERT_EQ(
      runProgram(daemonArgs(folder, {"--init", "--admin", "boss", "--password", "pw"}), &output), 0)
      << output;
  EXPECT_TRUE(std::filesystem::exists(folder / "data/db/MarvekSystemCommonDB.sqlite"));
  ChildProcess daemon(daemonArgs(folder, {"--listen", "127.0.0.1:0"}));
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("serving data folder " + folder / "data"));
  EXPECT_THAT(daemon.log(), HasSubstr("(TLS off, tokens off)"));
  // One process serves a folder: a second daemon on it gives up.
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "127.0.0.1:0"}), &output), 1);
  EXPECT_THAT(output, HasSubstr("served by another process"));

  Wire wire;
  Client first(wire, port);
  Client second(wire, port);
  auto a = first.login();
  auto b = second.login();
  const Opened users = openTable(wire, b, kSystemDb, "UserInfoTBL", 5);
  ASSERT_EQ(users.rows.size(), 1u);
  EXPECT_EQ(valueIn(users.rows[0], "UserName"), "boss");
  const auto logon = [&](const char* user, const char* password) {
    return call(wire, b, 57, {std::string(user), std::string(), std::string(password), 1})
        .getStatus();
  };
  EXPECT_EQ(logon("admin", "admin"), kLogonRefused);
  EXPECT_EQ(logon("boss", "pw"), 0);
  EXPECT_THAT(daemon.log(), HasSubstr("connect from 127.0.0.1:"));
  ASSERT_EQ(setMutex(wire, a, "BOOKSHELF", 1), 0);
  EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 1);
  a = nullptr;
  first.disconnect();
  ASSERT_TRUE(daemon.waitForLog("(1 connections, 1 sessions)", 10s)) << daemon.log();
  EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 0);

  stop(daemon);  // with a client still connected
  EXPECT_THAT(daemon.log(), HasSubstr("stopping: closing 1 connections"));
  EXPECT_THAT(daemon.log(), HasSubstr("stopped"));
  wire.wait(second.onDisconnect(), 10 * kj::SECONDS);
}

TEST(Bookserverd, SigintStopsItToo) {
  TempFolder folder("daemon");
  ChildProcess daemon(daemonArgs(folder, {"--listen", "[::1]:0"}));
  if (daemon.waitForPort() != 0) return stop(daemon, SIGINT);
  // A host without IPv6 loopback cannot bind ::1; the refusal must say so.
  EXPECT_THAT(daemon.log(), HasSubstr("cannot listen on [::1]"));
}

TEST(Bookserverd, BadCommandLinesConfigurationsAndPoliciesStopTheStart) {
  TempFolder folder("bad");
  const TestCertificate& c = testCertificate();
  const std::string tokens = folder.write("tokens", "t0ken\n");
  const std::string junk = folder.write("junk.pem", "not a certificate\n");
  const std::string badConfig = folder.write("bad.conf", "listen = 127.0.0.1:0\nport = 4\n");
  const std::string data = folder / "data";
  const struct {
    std::vector<std::string> args;
    int status;
    const char* says;
    const char* neverSays;
  } cases[] = {
      {{"--listen", "127.0.0.1:0"}, 64, "--data", ""},
      {{"--data", data}, 64, "--listen", ""},
      {{"--data", data, "--listen", "127.0.0.1:0", "--port", "1"}, 64, "--port", ""},
      {{"--data", data, "--listen", "127.0.0.1:0", "--tls-cert", "x"}, 78, "--tls-key", ""},
      {{"--data", data, "--listen", "127.0.0.1:0", "--token-file", folder / "none"},
       78,
       "token file",
       ""},
      {{"--data", data, "--listen", "127.0.0.1:0", "--tls-cert", junk, "--tls-key", junk},
       78,
       "unusable certificate or key",
       ""},
      {{"--data", data, "--config", badConfig}, 78, "line 2", ""},
      {{"--data", data, "--listen", "0.0.0.0:0"}, 78, "refusing to listen on 0.0.0.0:0", ""},
      {{"--data", data, "--listen", "0.0.0.0:0", "--token-file", tokens}, 78, "without TLS", ""},
      // Let past the policy, an address this host does not have fails to bind.
      {{"--data", data, "--listen", "192.0.2.1:0", "--insecure"}, 1, "warning", "refusing"},
      {{"--data", data, "--listen", "192.0.2.1:0", "--tls-cert", c.cert, "--tls-key", c.key,
        "--token-file", tokens},
       1,
       "cannot listen on 192.0.2.1:0",
       "refusing"}};
  for (const auto& k : cases) {
    std::vector<std::string> args = k.args;
    args.insert(args.begin(), BOOKSERVERD);
    std::string output;
    EXPECT_EQ(runProgram(args, &output), k.status) << args[2] << " " << args.back();
    EXPECT_THAT(output, HasSubstr(k.says));
    if (*k.neverSays) {
      EXPECT_THAT(output, Not(HasSubstr(k.neverSays)));
    }
    // Refused before the folder is touched.
    if (k.status != 1) {
      EXPECT_FALSE(std::filesystem::exists(data)) << args.back();
    }
  }
}

// The file gives TLS and the tokens; its address, which cannot be bound, loses to the command
// line's.
TEST(Bookserverd, ConfigFileWithTlsAndTokensLetsInOnlyTheGoodToken) {
  TempFolder folder("tls");
  const TestCertificate& c = testCertificate();
  ASSERT_TRUE(c.made);
  std::ostringstream pem;
  pem << std::ifstream(c.cert).rdbuf();
  const std::string config = folder.write(
      "bookserverd.conf", "# test\ndata = " + folder / "data" + "\nlisten = 192.0.2.1:0\n" +
                              "tls-cert = " + c.cert + "\ntls-key = " + c.key + "\ntoken-file = " +
                              folder.write("tokens", "# clients\nclient-one\nclient-two\n") + "\n");
  ChildProcess daemon({BOOKSERVERD, "--config", config, "--listen", "127.0.0.1:0"});
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("(TLS on, tokens on)"));

  Wire wire;
  {
    Client client(wire, port, pem.str());
    auto s = client.login("client-two");
    EXPECT_EQ(openTable(wire, s, kSystemDb, "UserInfoTBL", 5).rows.size(), 1u);
    auto request = client.gate().loginRequest();
    request.setToken("client-three");
    // The refusal is logged at once; its answer would take the daemon's real delay.
    auto refused = request.send();
    bool logged = false;
    for (int i = 0; i < 100 && !logged; ++i) {
      wire.sleep(50 * kj::MILLISECONDS);  // the event loop sends the request meanwhile
      logged = daemon.log().find("login refused for 127.0.0.1:") != std::string::npos;
    }
    EXPECT_TRUE(logged) << daemon.log();
  }
  {
    // A client that does not speak TLS gets nothing.
    Client plain(wire, port);
    EXPECT_THROW(plain.login("client-one"), kj::Exception);
  }
  stop(daemon);
}

}  // namespace
}  // namespace mvtest::rpc
