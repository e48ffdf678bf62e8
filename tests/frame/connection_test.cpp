// The link to the server: activation, the stack of two servers, and the last-error rules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "MVCore.h"
#include "client_env.h"
#include "server_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

mv::ConnectionState& link() { return mv::connection(); }

class ConnectionTest : public ServerFixture {
 protected:
  // MVChangeServer("branch") after MVInit: the home server and the branch.
  std::pair<RecordingServer*, RecordingServer*> changed() {
    RecordingServer* home = &connect();
    EXPECT_EQ(MVChangeServer("branch"), 0);
    return {home, servers.back().get()};
  }
};

TEST_F(ConnectionTest, EveryExportFailsWithoutALinkAndLeavesLastErrorAlone) {
  link().lastError = 77;
  int32_t a = 5, b = 6, c = 7, d = 8;
  char info[260] = "untouched";
  for (const int32_t status :
       {MVChangeServer("other"), MVResetServer(), MVExit(), MVGetServerInfo(info),
        MVGetConnect(&a, &b), MVGetOption(&a, &b, &c, &d)}) {
    EXPECT_EQ(status, -1);
  }
  EXPECT_EQ(MVGetLastError(info), 77);
  EXPECT_STREQ(info, "untouched");
  EXPECT_TRUE(a == 5 && b == 6);
  EXPECT_EQ(link().homeServer, nullptr);
  EXPECT_EQ(link().currentServer, nullptr);
  // The two exports that clear lastError on entry do so even without a link.
  EXPECT_EQ(MVConnectCheck(), -1);
  EXPECT_EQ(link().lastError, 0);
  link().lastError = 77;
  EXPECT_EQ(MVSetMutex("m", 0), -1);
  EXPECT_EQ(link().lastError, 0);
  EXPECT_TRUE(servers.empty());
}

TEST_F(ConnectionTest, InitAsksTheFactoryForTheNamedHostAndStoresAFailedActivation) {
  failActivation = mv::kStatusClassNotRegistered;
  EXPECT_EQ(MVInit("dbhost"), -1);
  EXPECT_EQ(link().lastError, mv::kStatusClassNotRegistered);
  EXPECT_EQ(link().currentServer, nullptr);
  EXPECT_EQ(MVInit(""), 0);
  EXPECT_EQ(link().currentServer, servers.back().get());
  EXPECT_EQ(MVInit(nullptr), -1);
  EXPECT_THAT(hosts, ElementsAre("dbhost", ""));

  // The default connector knows no host, not even one with a section in the client's file.
  const ClientConfigHome home;
  mv::setServerFactory(nullptr);
  link().lastError = 0;
  EXPECT_EQ(MVInit("anyhost"), -1);
  EXPECT_EQ(link().lastError, mv::kStatusClassNotRegistered);
}

TEST_F(ConnectionTest, ChangeResetAndExitMoveTheTwoServersAsAStack) {
  auto [home, branch] = changed();
  EXPECT_EQ(link().currentServer, branch);
  EXPECT_EQ(link().homeServer, home);
  EXPECT_EQ(MVOpenDB("MarvekCommonDB"), 0);
  EXPECT_EQ(branch->count("OpenDatabase"), 1);
  ASSERT_EQ(MVResetServer(), 0);
  EXPECT_TRUE(branch->released);
  EXPECT_FALSE(home->released);
  EXPECT_EQ(link().currentServer, home);
  EXPECT_EQ(link().homeServer, nullptr);
  EXPECT_EQ(MVResetServer(), -1);  // no change in force: current stays
  EXPECT_EQ(link().currentServer, home);
  home->throwOnRelease = true;
  EXPECT_EQ(MVExit(), 0);
  EXPECT_TRUE(home->released);
  EXPECT_EQ(MVOpenDB("MarvekCommonDB"), -1);
  EXPECT_EQ(MVExit(), -1);
  EXPECT_EQ(home->count("OpenDatabase"), 0);

  // A failed change leaves no way back.
  RecordingServer& again = connect();
  failActivation = 0x800706BA;
  EXPECT_EQ(MVChangeServer("gone"), -1);
  EXPECT_EQ(link().lastError, static_cast<int32_t>(0x800706BA));
  EXPECT_EQ(link().currentServer, nullptr);
  EXPECT_EQ(link().homeServer, &again);
  EXPECT_EQ(MVResetServer(), -1);
  EXPECT_EQ(MVConnectCheck(), -1);
  EXPECT_EQ(again.count("ConnectCheck"), 0);
  EXPECT_FALSE(again.released);
}

TEST_F(ConnectionTest, ConnectCheckTestsBothServersCurrentFirst) {
  auto [home, branch] = changed();
  // Who fails, the resulting status and lastError, and the home server's checks so far.
  const std::tuple<RecordingServer*, int32_t, int32_t, int> steps[] = {
      {nullptr, 0, 0, 1}, {home, -1, 0x6BA, 2}, {branch, -1, 0x6BE, 2}, {nullptr, 0, 0, 3}};
  for (const auto& [failing, status, error, homeChecks] : steps) {
    if (failing) failing->failNext("ConnectCheck", error);
    EXPECT_EQ(MVConnectCheck(), status);
    EXPECT_EQ(link().lastError, error);
    EXPECT_EQ(home->count("ConnectCheck"), homeChecks);
  }
  EXPECT_EQ(branch->count("ConnectCheck"), 4);
}

TEST_F(ConnectionTest, GetOptionMakesTwoQueriesAndSwapsTheFirstAnswer) {
  RecordingServer& server = connect();
  server.optionValues[0] = {11, 22};
  server.optionValues[0x63] = {33, 44};
  int32_t first = 0, second = 0, third = 1234, fourth = 0;
  ASSERT_EQ(MVGetOption(&first, &second, &third, &fourth), 0);
  EXPECT_EQ(std::tuple(first, second, third, fourth), std::tuple(22, 11, 1234, 33));
  // The second query starts from a = 0, the b the first query left and an emptied text holder.
  EXPECT_EQ(server.log(), "GetOption(0, , 0, 0)\nGetOption(99, , 0, 22)\n");

  // A failing second query still succeeds; fourth is what the method left in a (still 0).
  server.failNext("GetOption", 0, 1);
  server.failNext("GetOption", 5, 1);
  EXPECT_EQ(MVGetOption(&first, &second, nullptr, &fourth), 0);
  EXPECT_EQ(fourth, 0);
  server.failNext("GetOption", 9);
  first = 1;
  EXPECT_EQ(MVGetOption(&first, &second, &third, &fourth), -1);
  EXPECT_EQ(link().lastError, 9);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(MVGetOption(nullptr, &second, &third, &fourth), -1);
  EXPECT_EQ(server.count("GetOption"), 5);
}

TEST_F(ConnectionTest, GetConnectAndServerInfoCopyOutOnlyOnSuccess) {
  RecordingServer& server = connect();
  server.connectFirst = 3;
  server.connectSecond = 4;
  server.serverInfo = "BookServer 1.0";
  int32_t first = -1, second = -1;
  char info[260] = {};
  EXPECT_EQ(MVGetConnect(&first, &second), 0);
  EXPECT_EQ(std::pair(first, second), std::pair(3, 4));
  EXPECT_EQ(MVGetServerInfo(info), 0);
  EXPECT_STREQ(info, "BookServer 1.0");
  server.failNext("GetConnect", 0x20);
  EXPECT_EQ(MVGetConnect(&first, &second), -1);
  EXPECT_EQ(std::pair(first, second), std::pair(0, 0));  // zeroed on failure
  EXPECT_EQ(link().lastError, 0x20);
  server.failNext("GetServerInfo", 3);
  EXPECT_EQ(MVGetServerInfo(info), -1);
  EXPECT_EQ(link().lastError, 3);
  EXPECT_EQ(MVGetConnect(nullptr, &second), -1);
  EXPECT_EQ(MVGetServerInfo(nullptr), -1);
  EXPECT_EQ(server.count("GetConnect") + server.count("GetServerInfo"), 4);
}

TEST_F(ConnectionTest, GetLastErrorCopiesTheServersTextAndKeepsTheCode) {
  RecordingServer& server = connect();
  link().lastError = 0x8A;
  char message[260] = "before";
  EXPECT_EQ(MVGetLastError(message), 0x8A);
  EXPECT_STREQ(message, "before");  // empty server text: buffer as it stands
  server.lastErrorText = "データベースがありません";
  EXPECT_EQ(MVGetLastError(message), 0x8A);
  EXPECT_STREQ(message,
               "\x83\x66\x81\x5B\x83\x5E\x83\x78\x81\x5B\x83\x58\x82\xAA\x82\xA0\x82\xE8\x82"
               "\xDC\x82\xB9\x82\xF1");
  EXPECT_EQ(link().lastError, 0x8A);

  // A text longer than the buffer is cut on a character boundary, terminator kept.
  server.lastErrorText = "a";
  for (int i = 0; i < 200; ++i) server.lastErrorText += "表";
  char big[300];
  std::memset(big, '#', sizeof big);
  MVGetLastError(big);
  EXPECT_EQ(std::strlen(big), 259u);  // "a" + 129 double-byte characters
  EXPECT_EQ(big[260], '#');
  link().lastImageError = -3;
  EXPECT_EQ(MVGetLastErrorImage(), -3);
}

TEST_F(ConnectionTest, SetMutexHandsOnOnlyTheKnownResults) {
  RecordingServer& server = connect();
  // The server's answer and what the export makes of it.
  for (const auto& [answer, result] : {std::pair{1, 1}, {7, -1}, {-2, -1}, {2, 2}}) {
    server.mutexAnswers["m"] = answer;
    link().lastError = 55;
    EXPECT_EQ(MVSetMutex("m", 1), result) << answer;
    EXPECT_EQ(link().lastError, 0);  // an unknown result is not stored
  }
  EXPECT_EQ(MVSetMutex(nullptr, 2), -1);
  EXPECT_EQ(server.calls[1].text(), "SetMutex(m, 1)");
  EXPECT_EQ(server.count("SetMutex"), 4);
}

}  // namespace
}  // namespace mvtest
