// bookserverd's options, listen policy, tokens, the gate's refusal delay and socket settings,
// without a network.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <kj/timer.h>

#include "frame/server_methods.h"
#include "rpc/convert.h"
#include "rpc/daemon.h"
#include "server/sqlite/sqlite_engine.h"
#include "temp_folder.h"

namespace mvtest {
namespace {

using mv::rpc::OptionMap;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    out.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

TEST(DaemonOptions, CommandLines) {
  const struct {
    const char* args;
    const char* expected;  // the options as "name=value" words; null: refused
  } cases[] = {{"--data /srv --listen=:1 --init --insecure --token-file t --tls-cert=c --tls-key k "
                "--admin boss --password=p=w --config f",
                "admin=boss config=f data=/srv init=true insecure=true listen=:1 password=p=w "
                "tls-cert=c tls-key=k token-file=t"},
               {"--init=no -h", "help=true init=no"},
               {"--help", "help=true"},
               {"--data", nullptr},
               {"--bogus x", nullptr},
               {"stray", nullptr},
               {"--data d stray", nullptr},
               {"-d x", nullptr}};
  for (const auto& c : cases) {
    std::vector<std::string> args = words(std::string("bookserverd ") + c.args);
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    OptionMap m;
    std::string error;
    ASSERT_EQ(mv::rpc::parseCommandLine(static_cast<int>(argv.size()), argv.data(), m, error),
              c.expected != nullptr)
        << c.args << ": " << error;
    std::string got;
    for (const auto& [name, value] : m) got += (got.empty() ? "" : " ") + name + "=" + value;
    if (c.expected) {
      EXPECT_EQ(got, c.expected);
    }
  }
}

// The file's options, then both together with the command line winning.
TEST(DaemonOptions, ConfigFileAndTheCommandLineWinning) {
  const OptionMap commandLine{{"listen", "127.0.0.1:1"}, {"insecure", "false"}};
  const struct {
    const char* text;
    const char* expected;  // the resolved options, or what the error must say
    bool ok = false;
  } cases[] = {
      {"# bookserverd\n\n  data = /var/lib/mv books \r\nLISTEN=0.0.0.0:2\ninsecure = on\n"
       "init = 0\ntls-key = a\nshare-name = books\n",
       "data=/var/lib/mv books listen=127.0.0.1:1 tls-key=a insecure=0 init=0 share=books", true},
      {"share-name = a\\b\n", "share-name \"a\\b\" is not a plain name"},
      {"data /x\n", "line 1"},
      {"data = x\nport = 4\n", "line 2: unknown name \"port\""},
      {"config = /etc/other\n", "line 1"},  // a configuration names no other
      {"data = x\n[s]\n", "line 2"},
      {"data = /x  # the books\n", "line 1: a comment"},
      {"init = maybe\n", "init"}};
  for (const auto& c : cases) {
    OptionMap file;
    mv::rpc::DaemonOptions o;
    std::string error;
    const bool ok = mv::rpc::parseConfig(c.text, file, error) &&
                    mv::rpc::resolveOptions(commandLine, file, o, error);
    ASSERT_EQ(ok, c.ok) << c.text << ": " << error;
    if (ok) {
      EXPECT_EQ("data=" + o.data + " listen=" + o.listen + " tls-key=" + o.tlsKey +
                    " insecure=" + std::to_string(o.insecure) + " init=" + std::to_string(o.init) +
                    " share=" + o.shareName,
                c.expected);
    } else {
      EXPECT_THAT(error, HasSubstr(c.expected)) << c.text;
    }
  }
}

TEST(ListenAddress, FormsAndThePolicyBeyondLoopback) {
  const auto resolved = [](const char* hostPort) {
    std::vector<mv::rpc::ListenAddress> out;
    std::string error;
    EXPECT_TRUE(mv::rpc::resolveListen(hostPort, out, error)) << hostPort << ": " << error;
    return out;
  };
  for (const char* text : {"127.0.0.1:4700", "[::1]:0", "127.9.8.7:65535"}) {
    const auto a = resolved(text);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(mv::rpc::describeAddress(reinterpret_cast<const sockaddr*>(&a[0].address)), text);
  }
  std::vector<mv::rpc::ListenAddress> out;
  std::string error;
  for (const char* bad : {"127.0.0.1", ":4700", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:x",
                          "[::1]4700", "[::1"}) {
    EXPECT_FALSE(mv::rpc::resolveListen(bad, out, error)) << bad;
  }

  for (const char* inside : {"127.0.0.1:0", "[::1]:0", "[::ffff:127.0.0.1]:0"}) {
    EXPECT_EQ(mv::rpc::listenPolicyError(resolved(inside), false, false, false), "") << inside;
  }
  for (const char* beyond : {"0.0.0.0:0", "192.0.2.1:0", "[::]:0"}) {
    const auto a = resolved(beyond);
    EXPECT_THAT(mv::rpc::listenPolicyError(a, false, false, false), HasSubstr("refusing"));
    EXPECT_THAT(mv::rpc::listenPolicyError(a, true, false, false), HasSubstr("token file"));
    EXPECT_THAT(mv::rpc::listenPolicyError(a, false, true, false), HasSubstr("TLS"));
    EXPECT_EQ(mv::rpc::listenPolicyError(a, true, true, false), "");
    EXPECT_EQ(mv::rpc::listenPolicyError(a, false, false, true), "");
    // One address beyond loopback among several is enough to refuse.
    auto both = resolved("127.0.0.1:0");
    both.push_back(a.front());
    EXPECT_NE(mv::rpc::listenPolicyError(both, false, false, false), "") << beyond;
  }
}

TEST(Tokens, FileLinesAndComparison) {
  TempFolder folder("tokens");
  std::vector<std::string> tokens;
  std::string error;
  ASSERT_TRUE(mv::rpc::loadTokens(
      folder.write("tokens", "# clients\n  alpha-1  \n\r\n#not-a-token\nbeta\tgamma\r\n"), tokens,
      error))
      << error;
  EXPECT_THAT(tokens, ElementsAre("alpha-1", "beta\tgamma"));
  const mv::rpc::Tokens set(tokens);
  EXPECT_TRUE(set.required());
  EXPECT_TRUE(set.accepts("alpha-1") && set.accepts("beta\tgamma"));
  for (const char* wrong : {"", "alpha", "alpha-10", "Alpha-1", "#not-a-token", "beta"}) {
    EXPECT_FALSE(set.accepts(wrong)) << wrong;
  }
  EXPECT_FALSE(mv::rpc::Tokens().required());
  EXPECT_FALSE(mv::rpc::loadTokens(folder.write("empty", "# none\n\n"), tokens, error));
  EXPECT_THAT(error, HasSubstr("no token"));
  EXPECT_FALSE(mv::rpc::loadTokens(folder / "missing", tokens, error));
}

// On a clock of the test's own: a refusal comes only once the delay has passed, refusals on one
// connection one after another, and a good token behind them waits its turn.
TEST(Gate, RefusalsWaitTheirDelayOneAtATime) {
  TempFolder folder("gate");
  std::string error;
  mv::rpc::GateServer::Shared shared;
  shared.core =
      mv::server::ServerCore::open(folder.path(), {}, mv::server::openSqliteEngine, error);
  ASSERT_TRUE(shared.core) << error;
  shared.tokens = std::make_shared<mv::rpc::Tokens>(std::vector<std::string>{"s3cret"});
  std::string log;
  shared.log = [&](const std::string& line) { log += line + "\n"; };
  kj::EventLoop loop;
  kj::WaitScope scope(loop);
  kj::TimerImpl clock(kj::origin<kj::TimePoint>());
  bool loggedIn = false;
  Gate::Client gate = kj::heap<mv::rpc::GateServer>(shared, clock, "peer", &loggedIn);
  const auto login = [&](const char* token) {
    auto request = gate.loginRequest();
    request.setToken(token);
    request.setWire(mv::rpc::kWireFormat);
    request.setMethods(mv::serverMethodsSignature());
    return request.send();
  };
  auto first = login("guess");
  auto second = login("other guess");
  auto good = login("s3cret");
  const auto at = [&](kj::Duration d) { clock.advanceTo(kj::origin<kj::TimePoint>() + d); };
  const auto refusal = [&](auto& answer) -> std::string {
    try {
      answer.wait(scope);
      return "let in";
    } catch (const kj::Exception& e) {
      return e.getDescription().cStr();
    }
  };

  EXPECT_FALSE(first.poll(scope));  // delivered at 0
  at(999 * kj::MILLISECONDS);
  EXPECT_FALSE(first.poll(scope));
  at(1 * kj::SECONDS);
  ASSERT_TRUE(first.poll(scope));
  EXPECT_THAT(refusal(first), HasSubstr("login refused"));
  EXPECT_FALSE(second.poll(scope));
  EXPECT_FALSE(good.poll(scope));
  at(2 * kj::SECONDS);
  ASSERT_TRUE(second.poll(scope));
  EXPECT_THAT(refusal(second), HasSubstr("login refused"));
  ASSERT_TRUE(good.poll(scope));
  good.wait(scope);
  EXPECT_TRUE(loggedIn);
  EXPECT_THAT(log, HasSubstr("login refused for peer"));
  EXPECT_THAT(log, HasSubstr("login from peer"));
}

TEST(Keepalive, AcceptedSocketsProbeADeadPeerWithinAboutTwentySeconds) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(mv::rpc::setKeepalive(fd, 10, 3, 3));
  const int expected[][3] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                             {IPPROTO_TCP, TCP_KEEPIDLE, 10},
                             {IPPROTO_TCP, TCP_KEEPINTVL, 3},
                             {IPPROTO_TCP, TCP_KEEPCNT, 3},
                             {IPPROTO_TCP, TCP_USER_TIMEOUT, 19000}};
  for (const auto& [level, name, value] : expected) {
    int got = -1;
    socklen_t length = sizeof got;
    EXPECT_EQ(::getsockopt(fd, level, name, &got, &length), 0);
    EXPECT_EQ(got, value) << name;
  }
  ::close(fd);
}

}  // namespace
}  // namespace mvtest
