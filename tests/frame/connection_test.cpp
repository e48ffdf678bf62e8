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

class ConnectionTest : public ServerFixture {};

TEST_F(ConnectionTest, EveryExportFailsWithoutALinkAndLeavesLastErrorAlone) {
  mv::connection().lastError = 77;
  int32_t a = 5, b = 6, c = 7, d = 8;
  char info[260] = "untouched";
  EXPECT_EQ(MVChangeServer("other"), -1);
  EXPECT_EQ(MVResetServer(), -1);
  EXPECT_EQ(MVExit(), -1);
  EXPECT_EQ(MVGetServerInfo(info), -1);
  EXPECT_EQ(MVGetConnect(&a, &b), -1);
  EXPECT_EQ(MVGetOption(&a, &b, &c, &d), -1);
  EXPECT_EQ(MVGetLastError(info), 77);
  EXPECT_STREQ(info, "untouched");
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, 6);
  EXPECT_EQ(mv::connection().lastError, 77);
  EXPECT_EQ(mv::connection().homeServer, nullptr);
  EXPECT_EQ(mv::connection().currentServer, nullptr);
  // The two exports that clear lastError on entry do so even without a link.
  EXPECT_EQ(MVConnectCheck(), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  mv::connection().lastError = 77;
  EXPECT_EQ(MVSetMutex("m", 0), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_TRUE(servers.empty());
}

TEST_F(ConnectionTest, InitAsksTheFactoryForTheNamedHostAndStoresAFailedActivation) {
  failActivation = mv::kStatusClassNotRegistered;
  EXPECT_EQ(MVInit("dbhost"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::kStatusClassNotRegistered);
  EXPECT_EQ(mv::connection().currentServer, nullptr);

  EXPECT_EQ(MVInit(""), 0);
  EXPECT_THAT(hosts, ElementsAre("dbhost", ""));
  EXPECT_EQ(mv::connection().currentServer, servers.back().get());
  EXPECT_EQ(MVInit(nullptr), -1);
  EXPECT_EQ(hosts.size(), 2u);
}

TEST_F(ConnectionTest, DefaultConnectorReportsAnUnregisteredServerClass) {
  const ClientConfigHome home;  // a section for "anyhost" at home must not make it known
  mv::setServerFactory(nullptr);
  mv::connection().lastError = 0;
  EXPECT_EQ(MVInit("anyhost"), -1);
  EXPECT_EQ(mv::connection().lastError, mv::kStatusClassNotRegistered);
}

TEST_F(ConnectionTest, ChangeResetAndExitMoveTheTwoServersAsAStack) {
  RecordingServer& home = connect();
  ASSERT_EQ(MVChangeServer("branch"), 0);
  RecordingServer& branch = *servers.back();
  EXPECT_EQ(mv::connection().currentServer, &branch);
  EXPECT_EQ(mv::connection().homeServer, &home);
  EXPECT_FALSE(home.released);

  // Work goes to the changed server only.
  EXPECT_EQ(MVOpenDB("MarvekCommonDB"), 0);
  EXPECT_EQ(branch.count("OpenDatabase"), 1);
  EXPECT_EQ(home.count("OpenDatabase"), 0);

  ASSERT_EQ(MVResetServer(), 0);
  EXPECT_TRUE(branch.released);
  EXPECT_FALSE(home.released);
  EXPECT_EQ(mv::connection().currentServer, &home);
  EXPECT_EQ(mv::connection().homeServer, nullptr);
  EXPECT_EQ(MVResetServer(), -1);  // no change in force: current stays
  EXPECT_EQ(mv::connection().currentServer, &home);

  EXPECT_EQ(MVExit(), 0);
  EXPECT_TRUE(home.released);
  // The released server is never reached again.
  EXPECT_EQ(MVOpenDB("MarvekCommonDB"), -1);
  EXPECT_EQ(MVExit(), -1);
  EXPECT_EQ(home.count("OpenDatabase"), 0);
}

TEST_F(ConnectionTest, AFailedChangeLeavesNoWayBack) {
  RecordingServer& home = connect();
  failActivation = 0x800706BA;
  EXPECT_EQ(MVChangeServer("gone"), -1);
  EXPECT_EQ(mv::connection().lastError, static_cast<int32_t>(0x800706BA));
  EXPECT_EQ(mv::connection().currentServer, nullptr);
  EXPECT_EQ(mv::connection().homeServer, &home);
  EXPECT_EQ(MVResetServer(), -1);
  EXPECT_EQ(MVConnectCheck(), -1);
  EXPECT_EQ(home.count("ConnectCheck"), 0);
  EXPECT_FALSE(home.released);
}

TEST_F(ConnectionTest, ExitSurvivesAServerThatThrowsOnRelease) {
  RecordingServer& server = connect();
  server.throwOnRelease = true;
  EXPECT_EQ(MVExit(), 0);
  EXPECT_TRUE(server.released);
}

TEST_F(ConnectionTest, ConnectCheckTestsBothServersCurrentFirst) {
  RecordingServer& home = connect();
  ASSERT_EQ(MVChangeServer("branch"), 0);
  RecordingServer& branch = *servers.back();
  EXPECT_EQ(MVConnectCheck(), 0);
  EXPECT_EQ(branch.count("ConnectCheck"), 1);
  EXPECT_EQ(home.count("ConnectCheck"), 1);

  home.failNext("ConnectCheck", 0x6BA);
  EXPECT_EQ(MVConnectCheck(), -1);
  EXPECT_EQ(mv::connection().lastError, 0x6BA);

  branch.failNext("ConnectCheck", 0x6BE);
  EXPECT_EQ(MVConnectCheck(), -1);
  EXPECT_EQ(mv::connection().lastError, 0x6BE);
  EXPECT_EQ(home.count("ConnectCheck"), 2);  // the current one's failure ends the check

  EXPECT_EQ(MVConnectCheck(), 0);
  EXPECT_EQ(mv::connection().lastError, 0);
}

TEST_F(ConnectionTest, GetOptionMakesTwoQueriesAndSwapsTheFirstAnswer) {
  RecordingServer& server = connect();
  server.optionValues[0] = {11, 22};
  server.optionValues[0x63] = {33, 44};
  int32_t first = 0, second = 0, fourth = 0;
  int32_t third = 1234;
  ASSERT_EQ(MVGetOption(&first, &second, &third, &fourth), 0);
  EXPECT_EQ(first, 22);
  EXPECT_EQ(second, 11);
  EXPECT_EQ(fourth, 33);
  EXPECT_EQ(third, 1234);
  ASSERT_EQ(server.calls.size(), 2u);
  EXPECT_EQ(server.calls[0].text(), "GetOption(0, , 0, 0)");
  // The second query starts from a = 0, the b the first query left and an emptied text holder.
  EXPECT_EQ(server.calls[1].text(), "GetOption(99, , 0, 22)");

  // A failing second query still succeeds; fourth is what the method left in a (still 0).
  server.failNext("GetOption", 0, 1);
  server.failNext("GetOption", 5, 1);
  EXPECT_EQ(MVGetOption(&first, &second, nullptr, &fourth), 0);
  EXPECT_EQ(fourth, 0);

  mv::connection().lastError = 0;
  server.failNext("GetOption", 9);
  first = 1;
  EXPECT_EQ(MVGetOption(&first, &second, &third, &fourth), -1);
  EXPECT_EQ(mv::connection().lastError, 9);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(MVGetOption(nullptr, &second, &third, &fourth), -1);
  EXPECT_EQ(server.count("GetOption"), 5);
}

TEST_F(ConnectionTest, GetConnectZeroesBothOnFailure) {
  RecordingServer& server = connect();
  server.connectFirst = 3;
  server.connectSecond = 4;
  int32_t first = -1, second = -1;
  EXPECT_EQ(MVGetConnect(&first, &second), 0);
  EXPECT_EQ(first, 3);
  EXPECT_EQ(second, 4);
  server.failNext("GetConnect", 0x20);
  EXPECT_EQ(MVGetConnect(&first, &second), -1);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(mv::connection().lastError, 0x20);
  EXPECT_EQ(MVGetConnect(nullptr, &second), -1);
  EXPECT_EQ(server.count("GetConnect"), 2);
}

TEST_F(ConnectionTest, GetLastErrorCopiesTheServersTextAndKeepsTheCode) {
  RecordingServer& server = connect();
  mv::connection().lastError = 0x8A;
  char message[260] = "before";
  EXPECT_EQ(MVGetLastError(message), 0x8A);
  EXPECT_STREQ(message, "before");  // empty server text: buffer as it stands

  server.lastErrorText = "データベースがありません";  // "the database does not exist"
  EXPECT_EQ(MVGetLastError(message), 0x8A);
  EXPECT_STREQ(message,
               "\x83\x66\x81\x5B\x83\x5E\x83\x78\x81\x5B\x83\x58\x82\xAA\x82\xA0\x82\xE8\x82"
               "\xDC\x82\xB9\x82\xF1");
  EXPECT_EQ(mv::connection().lastError, 0x8A);

  // A text longer than the buffer is cut on a character boundary, terminator kept.
  std::string longText = "a";
  for (int i = 0; i < 200; ++i) longText += "表";
  server.lastErrorText = longText;
  char big[300];
  std::memset(big, '#', sizeof big);
  MVGetLastError(big);
  EXPECT_EQ(std::strlen(big), 259u);  // "a" + 129 double-byte characters
  EXPECT_EQ(big[260], '#');
}

TEST_F(ConnectionTest, SetMutexHandsOnOnlyTheKnownResults) {
  RecordingServer& server = connect();
  server.mutexAnswers["BOOK1123010101"] = 1;
  EXPECT_EQ(MVSetMutex("BOOK1123010101", 0), 1);
  server.mutexAnswers["odd"] = 7;
  mv::connection().lastError = 55;
  EXPECT_EQ(MVSetMutex("odd", 1), -1);
  EXPECT_EQ(mv::connection().lastError, 0);  // an unknown result is not stored
  server.mutexAnswers["odd"] = -2;
  EXPECT_EQ(MVSetMutex("odd", 2), -1);
  server.mutexAnswers["odd"] = 2;
  EXPECT_EQ(MVSetMutex("odd", 2), 2);
  EXPECT_EQ(MVSetMutex(nullptr, 2), -1);
  EXPECT_EQ(server.calls[1].text(), "SetMutex(odd, 1)");
  EXPECT_EQ(server.count("SetMutex"), 4);
}

TEST_F(ConnectionTest, ServerInfoIsCopiedIntoTheApplicationsBuffer) {
  RecordingServer& server = connect();
  server.serverInfo = "BookServer 1.0";
  char info[260] = {};
  EXPECT_EQ(MVGetServerInfo(info), 0);
  EXPECT_STREQ(info, "BookServer 1.0");
  server.failNext("GetServerInfo", 3);
  EXPECT_EQ(MVGetServerInfo(info), -1);
  EXPECT_EQ(mv::connection().lastError, 3);
  EXPECT_EQ(MVGetServerInfo(nullptr), -1);
  EXPECT_EQ(server.count("GetServerInfo"), 2);
}

TEST_F(ConnectionTest, LastImageErrorIsWidened) {
  mv::connection().lastImageError = -3;
  EXPECT_EQ(MVGetLastErrorImage(), -3);
}

}  // namespace
}  // namespace mvtest
