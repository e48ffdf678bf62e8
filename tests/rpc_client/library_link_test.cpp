// The exports over the network: MVInit and MVChangeServer with a daemon's name, through the
// library's default connector.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "MVCore.h"
#include "client_env.h"
#include "frame/connection.h"
#include "rpc/remote_book_server.h"
#include "test_daemon.h"

namespace mvtest {
namespace {

class LibraryLink : public ClientEnvTest {
 protected:
  void SetUp() override {
    ClientEnvTest::SetUp();
    mv::setServerFactory(nullptr);
    mv::resetConnectionState();
  }
  void TearDown() override {
    while (MVExit() == 0) {
    }
    if (mv::connection().homeServer != nullptr) mv::connection().homeServer->Release();
    mv::resetConnectionState();
    ClientEnvTest::TearDown();
  }

  std::string serverInfo() {
    char info[260] = "";
    EXPECT_EQ(MVGetServerInfo(info), 0);
    return info;
  }
};

TEST_F(LibraryLink, InitReachesTheDaemonOnEitherLoopbackAndConnectCheckReportsItsLoss) {
  for (const char* address : {"127.0.0.1", "::1"}) {
    SCOPED_TRACE(address);
    DaemonOptions o;
    o.address = address;
    o.name = std::string("daemon on ") + address;
    std::unique_ptr<TestDaemon> daemon;
    try {
      daemon = std::make_unique<TestDaemon>(o);
    } catch (...) {
      GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
    ASSERT_EQ(MVInit(daemon->endpoint().c_str()), 0) << mv::rpc::lastConnectError();
    EXPECT_EQ(serverInfo(), o.name);
    EXPECT_EQ(MVConnectCheck(), 0);
    int32_t first = 0, second = 0;
    EXPECT_EQ(MVGetConnect(&first, &second), 0);
    EXPECT_EQ(first, 100);

    daemon->kill();
    EXPECT_EQ(MVConnectCheck(), -1);
    const int32_t lost = mv::connection().lastError;
    EXPECT_TRUE(lost == mv::rpc::kStatusServerUnavailable || lost == mv::rpc::kStatusCallFailed)
        << std::hex << lost;
    EXPECT_EQ(MVConnectCheck(), -1);
    EXPECT_EQ(mv::connection().lastError, mv::rpc::kStatusServerUnavailable);
    EXPECT_EQ(MVExit(), 0);
  }
}

TEST_F(LibraryLink, ChangeServerStacksASecondDaemonAndResetEndsItsSession) {
  TestDaemon home;
  DaemonOptions o;
  o.name = "other daemon";
  TestDaemon other(o);
  ASSERT_EQ(MVInit(home.endpoint().c_str()), 0);
  ASSERT_EQ(MVChangeServer(("localhost:" + std::to_string(other.port())).c_str()), 0)
      << mv::rpc::lastConnectError();
  EXPECT_EQ(serverInfo(), "other daemon");
  EXPECT_EQ(MVConnectCheck(), 0);  // checks both links
  EXPECT_EQ(other.log().sessions, 1);

  ASSERT_EQ(MVResetServer(), 0);
  EXPECT_EQ(serverInfo(), "test daemon");
  const auto t0 = std::chrono::steady_clock::now();
  while (other.log().sessions != 0 &&
         std::chrono::steady_clock::now() - t0 < std::chrono::seconds(2)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(other.log().sessions, 0);
  EXPECT_EQ(home.log().sessions, 1);
}

TEST_F(LibraryLink, AConfiguredNameCarriesItsToken) {
  DaemonOptions o;
  o.token = "library token";
  TestDaemon daemon(o);
  writeFile("books.token", "library token\n");
  useConfig("[books]\naddress = 127.0.0.1\nport = " + std::to_string(daemon.port()) +
            "\ntoken-file = books.token\n[wrong]\naddress = 127.0.0.1\nport = " +
            std::to_string(daemon.port()) + "\ntoken = nope\n");
  ASSERT_EQ(MVInit("books"), 0) << mv::rpc::lastConnectError();
  EXPECT_EQ(MVConnectCheck(), 0);
  EXPECT_EQ(MVExit(), 0);
  EXPECT_EQ(MVInit("wrong"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::rpc::kStatusAccessDenied);
}

TEST_F(LibraryLink, NamesThatCannotWorkFailWithTheirOwnStatus) {
  EXPECT_EQ(MVInit("no-such-host"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::kStatusClassNotRegistered);
  EXPECT_EQ(MVInit("127.0.0.1:port"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::kStatusClassNotRegistered);
  EXPECT_EQ(MVInit(("127.0.0.1:" + std::to_string(closedPort())).c_str()), -1);
  EXPECT_EQ(mv::connection().lastError, mv::rpc::kStatusServerUnavailable);
  useConfig("[books]\naddress = 127.0.0.1\nport = many\n");
  EXPECT_EQ(MVInit("books"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::rpc::kStatusConfigUnreadable);
  EXPECT_EQ(mv::connection().currentServer, nullptr);
}

}  // namespace
}  // namespace mvtest
