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

constexpr int kExitConfig = 78;

std::vector<std::string> daemonArgs(const TempFolder& folder, std::vector<std::string> more) {
  std::vector<std::string> args = {BOOKSERVERD, "--data", folder / "data"};
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream s;
  s << file.rdbuf();
  return s.str();
}

struct Certificate {
  std::string cert;
  std::string key;
  std::string pem;
};

// The test program's throwaway certificate, and its PEM text for a client to trust.
Certificate makeCertificate(const TempFolder&) {
  const TestCertificate& t = testCertificate();
  EXPECT_TRUE(t.made);
  return {t.cert, t.key, readFile(t.cert)};
}

TEST(Bookserverd, ServesClientsAndEndsCleanlyOnSigterm) {
  TempFolder folder("daemon");
  ChildProcess daemon(daemonArgs(folder, {"--listen", "127.0.0.1:0"}));
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("serving data folder " + folder / "data"));
  EXPECT_THAT(daemon.log(), HasSubstr("(TLS off, tokens off)"));

  Wire wire;
  Client client(wire, port);
  auto s = client.login();
  EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0x63), 0);
  const Opened users = openTable(wire, s, kSystemDb, "UserInfoTBL", 5);
  EXPECT_EQ(users.status, 0);
  ASSERT_EQ(users.rows.size(), 1u);
  EXPECT_EQ(valueIn(users.rows[0], "UserName"), "admin");
  EXPECT_THAT(daemon.log(), HasSubstr("connect from 127.0.0.1:"));

  // With a client still connected.
  daemon.signal(SIGTERM);
  const auto status = daemon.waitExit();
  ASSERT_TRUE(status.has_value()) << daemon.log();
  EXPECT_EQ(*status, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("stopping: closing 1 connections"));
  EXPECT_THAT(daemon.log(), HasSubstr("disconnect from 127.0.0.1:"));
  EXPECT_THAT(daemon.log(), HasSubstr("stopped"));
  // The client sees its connection end.
  wire.wait(client.onDisconnect(), 10 * kj::SECONDS);
}

TEST(Bookserverd, AClientThatGoesAwayLetsGoOfItsMutex) {
  TempFolder folder("daemon");
  ChildProcess daemon(daemonArgs(folder, {"--listen", "127.0.0.1:0"}));
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  Wire wire;
  Client first(wire, port);
  Client second(wire, port);
  auto a = first.login();
  auto b = second.login();
  ASSERT_EQ(setMutex(wire, a, "BOOKSHELF", 1), 0);
  EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 1);
  a = nullptr;
  first.disconnect();
  ASSERT_TRUE(daemon.waitForLog("(1 connections, 1 sessions)", 10s)) << daemon.log();
  EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 0);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitExit(), std::optional<int>(0)) << daemon.log();
}

TEST(Bookserverd, SigintStopsItToo) {
  TempFolder folder("daemon");
  ChildProcess daemon(daemonArgs(folder, {"--listen", "[::1]:0"}));
  if (daemon.waitForPort() == 0) {
    // A host without IPv6 loopback cannot bind ::1; the refusal must say so.
    EXPECT_THAT(daemon.log(), HasSubstr("cannot listen on [::1]"));
    return;
  }
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.waitExit(), std::optional<int>(0)) << daemon.log();
}

TEST(Bookserverd, RefusesToListenBeyondLoopbackWithoutTlsAndTokens) {
  TempFolder folder("policy");
  const std::string tokens = folder.write("tokens", "t0ken\n");
  std::string output;
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "0.0.0.0:0"}), &output), kExitConfig);
  EXPECT_THAT(output, HasSubstr("refusing to listen on 0.0.0.0:0"));
  EXPECT_EQ(
      runProgram(daemonArgs(folder, {"--listen", "0.0.0.0:0", "--token-file", tokens}), &output),
      kExitConfig);
  EXPECT_THAT(output, HasSubstr("without TLS"));
  // Refused before the folder is touched.
  EXPECT_FALSE(std::filesystem::exists(folder / "data"));

  // --insecure lets it past the policy: an address this host does not have then fails to bind
  // (nothing listens beyond loopback in a test).
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "192.0.2.1:0", "--insecure"}), &output), 1);
  EXPECT_THAT(output, HasSubstr("cannot listen on 192.0.2.1:0"));
  EXPECT_THAT(output, HasSubstr("warning"));
  EXPECT_THAT(output, Not(HasSubstr("refusing")));

  // So do TLS and a token file.
  const Certificate c = makeCertificate(folder);
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "192.0.2.1:0", "--tls-cert", c.cert,
                                           "--tls-key", c.key, "--token-file", tokens}),
                       &output),
            1);
  EXPECT_THAT(output, HasSubstr("cannot listen on 192.0.2.1:0"));
  EXPECT_THAT(output, Not(HasSubstr("refusing")));
}

TEST(Bookserverd, BadCommandLinesAndConfigurationsStopTheStart) {
  TempFolder folder("bad");
  std::string output;
  EXPECT_EQ(runProgram({BOOKSERVERD, "--listen", "127.0.0.1:0"}, &output), 64);
  EXPECT_THAT(output, HasSubstr("--data"));
  EXPECT_EQ(runProgram(daemonArgs(folder, {}), &output), 64);
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "127.0.0.1:0", "--port", "1"}), &output),
            64);
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "127.0.0.1:0", "--tls-cert", "x"}), &output),
            kExitConfig);
  EXPECT_EQ(runProgram(
                daemonArgs(folder, {"--listen", "127.0.0.1:0", "--token-file", folder / "missing"}),
                &output),
            kExitConfig);
  EXPECT_THAT(output, HasSubstr("token file"));
  const std::string junk = folder.write("junk.pem", "not a certificate\n");
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "127.0.0.1:0", "--tls-cert", junk,
                                           "--tls-key", junk}),
                       &output),
            kExitConfig);
  EXPECT_THAT(output, HasSubstr("unusable certificate or key"));
  const std::string config = folder.write("bad.conf", "listen = 127.0.0.1:0\nport = 4\n");
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--config", config}), &output), kExitConfig);
  EXPECT_THAT(output, HasSubstr("line 2"));
}

TEST(Bookserverd, InitSetsTheFolderUpAndExits) {
  TempFolder folder("init");
  std::string output;
  ASSERT_EQ(
      runProgram(daemonArgs(folder, {"--init", "--admin", "boss", "--password", "pw"}), &output), 0)
      << output;
  EXPECT_TRUE(std::filesystem::exists(folder / "data/db/MarvekSystemCommonDB.sqlite"));

  ChildProcess daemon(daemonArgs(folder, {"--listen", "127.0.0.1:0"}));
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  Wire wire;
  Client client(wire, port);
  auto s = client.login();
  auto logon = [&](const char* user, const char* password) {
    return call(wire, s, 57, {std::string(user), std::string(), std::string(password), 1})
        .getStatus();
  };
  EXPECT_EQ(logon("boss", "pw"), 0);
  EXPECT_EQ(logon("admin", "admin"), kLogonRefused);

  // One process serves a folder: a second daemon on it gives up.
  EXPECT_EQ(runProgram(daemonArgs(folder, {"--listen", "127.0.0.1:0"}), &output), 1);
  EXPECT_THAT(output, HasSubstr("served by another process"));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitExit(), std::optional<int>(0)) << daemon.log();
}

TEST(Bookserverd, ConfigFileGivesTheOptionsAndTheCommandLineWins) {
  TempFolder folder("config");
  const std::string tokens = folder.write("tokens", "from-the-file\n");
  // The file's address would be refused; the command line's is not.
  const std::string config =
      folder.write("bookserverd.conf", "# test\ndata = " + (folder / "data") +
                                           "\nlisten = 0.0.0.0:0\ntoken-file = " + tokens + "\n");
  ChildProcess daemon({BOOKSERVERD, "--config", config, "--listen", "127.0.0.1:0"});
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("tokens on"));

  Wire wire;
  Client client(wire, port);
  auto s = client.login("from-the-file");
  EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0x63), 0);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitExit(), std::optional<int>(0)) << daemon.log();
}

TEST(Bookserverd, TlsWithTokensLetsInOnlyTheGoodToken) {
  TempFolder folder("tls");
  const Certificate c = makeCertificate(folder);
  ASSERT_FALSE(c.pem.empty());
  const std::string tokens = folder.write("tokens", "# clients\nclient-one\nclient-two\n");
  ChildProcess daemon(daemonArgs(folder, {"--listen", "127.0.0.1:0", "--tls-cert", c.cert,
                                          "--tls-key", c.key, "--token-file", tokens}));
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("(TLS on, tokens on)"));

  Wire wire;
  {
    Client client(wire, port, c.pem);
    auto s = client.login("client-two");
    EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0x63), 0);
    const Opened users = openTable(wire, s, kSystemDb, "UserInfoTBL", 5);
    EXPECT_EQ(users.rows.size(), 1u);

    auto request = client.gate().loginRequest();
    request.setToken("client-three");
    EXPECT_THROW(wire.wait(request.send(), 10 * kj::SECONDS), kj::Exception);
    EXPECT_TRUE(daemon.waitForLog("login refused for 127.0.0.1:", 5s)) << daemon.log();
  }
  {
    // A client that does not speak TLS gets nothing.
    Client plain(wire, port);
    EXPECT_THROW(plain.login("client-one"), kj::Exception);
  }
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitExit(), std::optional<int>(0)) << daemon.log();
}

}  // namespace
}  // namespace mvtest::rpc
