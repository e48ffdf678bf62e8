// bookserverd's options, listen policy, tokens and socket settings, without a network.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "child_process.h"
#include "rpc/daemon.h"

namespace mvtest::rpc {
namespace {

using mv::rpc::OptionMap;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

bool parse(std::vector<const char*> args, OptionMap& out, std::string& error) {
  args.insert(args.begin(), "bookserverd");
  return mv::rpc::parseCommandLine(static_cast<int>(args.size()), args.data(), out, error);
}

TEST(DaemonOptions, CommandLineTakesBothValueFormsAndStandaloneFlags) {
  OptionMap m;
  std::string error;
  ASSERT_TRUE(parse(
      {"--data", "/srv/books", "--listen=127.0.0.1:4700", "--init", "--insecure", "--token-file",
       "t", "--tls-cert=c", "--tls-key", "k", "--admin", "boss", "--password=p=w"},
      m, error))
      << error;
  EXPECT_EQ(m["data"], "/srv/books");
  EXPECT_EQ(m["listen"], "127.0.0.1:4700");
  EXPECT_EQ(m["init"], "true");
  EXPECT_EQ(m["insecure"], "true");
  EXPECT_EQ(m["token-file"], "t");
  EXPECT_EQ(m["tls-cert"], "c");
  EXPECT_EQ(m["tls-key"], "k");
  EXPECT_EQ(m["admin"], "boss");
  EXPECT_EQ(m["password"], "p=w");  // only the first '=' splits

  for (const auto& bad : std::vector<std::vector<const char*>>{
           {"--data"}, {"--bogus", "x"}, {"stray"}, {"-d", "x"}}) {
    OptionMap ignored;
    EXPECT_FALSE(parse(bad, ignored, error)) << bad.front();
    EXPECT_FALSE(error.empty());
  }
}

TEST(DaemonOptions, ConfigFileLinesCommentsAndErrors) {
  OptionMap m;
  std::string error;
  ASSERT_TRUE(
      mv::rpc::parseConfig("# bookserverd\n\n  data = /var/lib/mv books \r\n"
                           "listen=[::1]:4700\ninsecure = yes\n",
                           m, error))
      << error;
  EXPECT_EQ(m["data"], "/var/lib/mv books");
  EXPECT_EQ(m["listen"], "[::1]:4700");
  EXPECT_EQ(m["insecure"], "yes");

  EXPECT_FALSE(mv::rpc::parseConfig("data /x\n", m, error));
  EXPECT_THAT(error, HasSubstr("line 1"));
  EXPECT_FALSE(mv::rpc::parseConfig("data = x\nport = 4\n", m, error));
  EXPECT_THAT(error, HasSubstr("line 2"));
  // A configuration file does not name another.
  EXPECT_FALSE(mv::rpc::parseConfig("config = /etc/other\n", m, error));
}

TEST(DaemonOptions, CommandLineWinsOverTheFileAndFlagsAreChecked) {
  mv::rpc::DaemonOptions o;
  std::string error;
  ASSERT_TRUE(mv::rpc::resolveOptions(
      {{"listen", "127.0.0.1:1"}, {"insecure", "false"}},
      {{"listen", "0.0.0.0:2"}, {"data", "/d"}, {"insecure", "on"}, {"init", "0"}}, o, error))
      << error;
  EXPECT_EQ(o.listen, "127.0.0.1:1");
  EXPECT_EQ(o.data, "/d");
  EXPECT_FALSE(o.insecure);
  EXPECT_FALSE(o.init);

  EXPECT_FALSE(mv::rpc::resolveOptions({}, {{"insecure", "maybe"}}, o, error));
  EXPECT_THAT(error, HasSubstr("insecure"));
}

std::vector<mv::rpc::ListenAddress> resolved(const std::string& hostPort) {
  std::vector<mv::rpc::ListenAddress> out;
  std::string error;
  EXPECT_TRUE(mv::rpc::resolveListen(hostPort, out, error)) << hostPort << ": " << error;
  return out;
}

std::vector<std::string> described(const std::vector<mv::rpc::ListenAddress>& addresses) {
  std::vector<std::string> out;
  for (const auto& a : addresses) {
    out.push_back(mv::rpc::describeAddress(reinterpret_cast<const sockaddr*>(&a.address)));
  }
  return out;
}

TEST(ListenAddress, FormsResolveAndMalformedOnesAreRefused) {
  EXPECT_THAT(described(resolved("127.0.0.1:4700")), ElementsAre("127.0.0.1:4700"));
  EXPECT_THAT(described(resolved("[::1]:0")), ElementsAre("[::1]:0"));
  EXPECT_THAT(described(resolved("127.9.8.7:65535")), ElementsAre("127.9.8.7:65535"));

  std::vector<mv::rpc::ListenAddress> out;
  std::string error;
  for (const char* bad : {"127.0.0.1", ":4700", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:x",
                          "[::1]4700", "[::1"}) {
    EXPECT_FALSE(mv::rpc::resolveListen(bad, out, error)) << bad;
  }
}

TEST(ListenAddress, BeyondLoopbackNeedsTlsAndTokensOrInsecure) {
  const auto loopback = resolved("127.0.0.1:0");
  const auto loopback6 = resolved("[::1]:0");
  const auto mapped = resolved("[::ffff:127.0.0.1]:0");
  const auto any = resolved("0.0.0.0:0");
  const auto lan = resolved("192.0.2.1:0");
  const auto any6 = resolved("[::]:0");

  for (const auto* a : {&loopback, &loopback6, &mapped}) {
    EXPECT_EQ(mv::rpc::listenPolicyError(*a, false, false, false), "");
  }
  for (const auto* a : {&any, &lan, &any6}) {
    EXPECT_THAT(mv::rpc::listenPolicyError(*a, false, false, false), HasSubstr("refusing"));
    EXPECT_THAT(mv::rpc::listenPolicyError(*a, true, false, false), HasSubstr("token file"));
    EXPECT_THAT(mv::rpc::listenPolicyError(*a, false, true, false), HasSubstr("TLS"));
    EXPECT_EQ(mv::rpc::listenPolicyError(*a, true, true, false), "");
    EXPECT_EQ(mv::rpc::listenPolicyError(*a, false, false, true), "");
  }
  // One address beyond loopback among several is enough to refuse.
  auto both = loopback;
  both.push_back(lan.front());
  EXPECT_NE(mv::rpc::listenPolicyError(both, false, false, false), "");
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
  EXPECT_TRUE(set.accepts("alpha-1"));
  EXPECT_TRUE(set.accepts("beta\tgamma"));
  for (const char* wrong : {"", "alpha", "alpha-10", "Alpha-1", "#not-a-token", "beta"}) {
    EXPECT_FALSE(set.accepts(wrong)) << wrong;
  }
  EXPECT_FALSE(mv::rpc::Tokens().required());

  EXPECT_FALSE(mv::rpc::loadTokens(folder.write("empty", "# none\n\n"), tokens, error));
  EXPECT_THAT(error, HasSubstr("no token"));
  EXPECT_FALSE(mv::rpc::loadTokens(folder / "missing", tokens, error));
}

TEST(Keepalive, AcceptedSocketsProbeADeadPeerWithinAboutTwentySeconds) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(mv::rpc::setKeepalive(fd, 10, 3, 3));
  auto get = [&](int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(fd, level, name, &value, &length), 0);
    return value;
  };
  EXPECT_EQ(get(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(get(IPPROTO_TCP, TCP_KEEPIDLE), 10);
  EXPECT_EQ(get(IPPROTO_TCP, TCP_KEEPINTVL), 3);
  EXPECT_EQ(get(IPPROTO_TCP, TCP_KEEPCNT), 3);
  EXPECT_EQ(get(IPPROTO_TCP, TCP_USER_TIMEOUT), 19000);
  ::close(fd);
}

}  // namespace
}  // namespace mvtest::rpc
