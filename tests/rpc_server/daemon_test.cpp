// The bookserverd program itself on loopback: start, serve, refuse, stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "certificate.h"
#include "child_process.h"
#include "platform/wide.h"
#include "rpc/remote_book_server.h"
#include "utf8.h"

namespace mvtest {
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

// A link of the library's proxy to 127.0.0.1:port, TLS when `ca` is given.
struct Proxy {
  explicit Proxy(uint16_t port, const std::string& ca = {}, const std::string& token = {}) {
    mv::rpc::ServerEndpoint e;
    e.address = "127.0.0.1";
    e.port = port;
    e.caFile = ca;
    e.tlsName = ca.empty() ? "" : "localhost";
    e.token = token;
    status = mv::rpc::connectRemote(e, {}, &server);
  }
  ~Proxy() {
    if (server) server->Release();
  }
  mv::IBookServer* operator->() const { return server; }
  // The user names of UserInfoTBL's rows.
  std::vector<std::string> users() const {
    const mv::Bstr db(u"MarvekSystemCommonDB");
    int32_t rows = 0;
    mv::Bstr handle;
    std::vector<std::string> out;
    EXPECT_EQ(server->OpenTable(db.get(), mv::Bstr(u"UserInfoTBL").get(), 0, &rows, handle.out()),
              0);
    for (int32_t i = 0; i < rows; ++i) {
      mv::Variant row;
      EXPECT_EQ(server->GetRecords(db.get(), handle.get(), i, row.get()), 0);
      for (const std::string& t : texts(row.get())) {
        if (t.rfind("KEY=UserName\t", 0) == 0) out.push_back(t.substr(t.rfind('\t') + 1));
      }
    }
    return out;
  }
  mv::IBookServer* server = nullptr;
  int32_t status = -1;
};

TEST(Bookserverd, InitsServesOneFolderAloneAndEndsCleanlyOnSigtermWithAClientConnected) {
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

  Proxy client(port);
  ASSERT_EQ(client.status, 0) << mv::rpc::lastConnectError();
  EXPECT_EQ(client.users(), std::vector<std::string>{"boss"});
  const auto logon = [&](const char* user, const char* password) {
    return client->LoginMgr(mv::Bstr(utf16(user)).get(), mv::Bstr(u"").get(),
                            mv::Bstr(utf16(password)).get(), 1);
  };
  EXPECT_EQ(logon("admin", "admin"), 0x100D);  // refused
  EXPECT_EQ(logon("boss", "pw"), 0);
  EXPECT_THAT(daemon.log(), HasSubstr("connect from 127.0.0.1:"));

  stop(daemon);
  EXPECT_THAT(daemon.log(), HasSubstr("stopping: closing 1 connections"));
  EXPECT_THAT(daemon.log(), HasSubstr("stopped"));
  EXPECT_NE(client->ConnectCheck(), 0);
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
  const std::vector<std::string> local{"--data", data, "--listen", "127.0.0.1:0"};
  const auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), local.begin(), local.end());
    return more;
  };
  const struct {
    std::vector<std::string> args;
    int status;
    const char* says;
    const char* neverSays = "";
  } cases[] = {
      {{"--listen", "127.0.0.1:0"}, 64, "--data"},
      {{"--data", data}, 64, "--listen"},
      {with({"--port", "1"}), 64, "--port"},
      {with({"--tls-cert", "x"}), 78, "--tls-key"},
      {with({"--token-file", folder / "none"}), 78, "token file"},
      {with({"--tls-cert", junk, "--tls-key", junk}), 78, "unusable certificate or key"},
      {{"--data", data, "--config", badConfig}, 78, "line 2"},
      {{"--data", data, "--listen", "0.0.0.0:0"}, 78, "refusing to listen on 0.0.0.0:0"},
      {{"--data", data, "--listen", "0.0.0.0:0", "--token-file", tokens}, 78, "without TLS"},
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
    if (k.status != 1) {  // refused before the folder is touched
      EXPECT_FALSE(std::filesystem::exists(data)) << args.back();
    }
  }
}

// The file gives TLS and the tokens; its address, which cannot be bound, loses to the command
// line's. (The remote end-to-end suites run every test through a daemon with TLS and a token.)
TEST(Bookserverd, ConfigFileWithTlsAndTokensLosesToTheCommandLine) {
  TempFolder folder("tls");
  const TestCertificate& c = testCertificate();
  ASSERT_TRUE(c.made);
  const std::string config = folder.write(
      "bookserverd.conf", "# test\ndata = " + folder / "data" + "\nlisten = 192.0.2.1:0\n" +
                              "tls-cert = " + c.cert + "\ntls-key = " + c.key + "\ntoken-file = " +
                              folder.write("tokens", "# clients\nclient-one\nclient-two\n") + "\n");
  ChildProcess daemon({BOOKSERVERD, "--config", config, "--listen", "127.0.0.1:0"});
  const uint16_t port = daemon.waitForPort();
  ASSERT_NE(port, 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("(TLS on, tokens on)"));
  Proxy good(port, c.cert, "client-two");
  EXPECT_EQ(good.status, 0) << mv::rpc::lastConnectError();
  EXPECT_NE(Proxy(port, {}, "client-one").status, 0);  // a client that does not speak TLS
  stop(daemon);
}

}  // namespace
}  // namespace mvtest
