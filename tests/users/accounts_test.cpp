// Accounts and logon against a recording server: the exact calls, the order of failures, and the
// message boxes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "MVCore.h"
#include "users_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using LogonTest = UsersTest;

TEST_F(LogonTest, TheRightPasswordGivesTheIdFromOneQueryOnTheHeldDatabase) {
  server->queueResult({userRow(12, "taro", "pw", 1)});
  int32_t id = 0;
  ASSERT_EQ(MVUserLogon("taro", "pw", 0, &id), 0);
  EXPECT_EQ(id, 12);
  EXPECT_THAT(shown, IsEmpty());
  EXPECT_EQ(server->log(),
            "ExecuteQuery(MarvekSystemCommonDB, UserInfoTBL, SELECT * FROM UserInfoTBL WHERE "
            "UserName='taro', 0)\n"
            "GetRecords(MarvekSystemCommonDB, H1, 0)\n"
            "CloseTable(MarvekSystemCommonDB, H1)\n");
}

TEST_F(LogonTest, AWrongPasswordAndAnUnknownNameShowTheSameMessageAfterTheClose) {
  int32_t id = -7;
  server->queueResult({userRow(12, "taro", "pw", 1)});
  EXPECT_EQ(MVUserLogon("taro", "PW", 0, &id), -1);
  server->queueResult({});
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(id, -7);
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[0].text, kUnknownUser);
  EXPECT_EQ(shown[1].text, kUnknownUser);
  EXPECT_EQ(shown[1].caption, "MVCore");
  EXPECT_EQ(shown[1].callsBefore, server->calls.size());

  // An application working in UTF-8 gets the text in UTF-8.
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(shown.back().text, "指定のユーザーは登録されていません");
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
}

TEST_F(LogonTest, OnlyAPasswordFollowingTheNameIsComparedAndExactly) {
  int32_t id = 0;
  server->queueResult({{"KEY=Password\t2\tbad", "KEY=UserName\t2\ttaro", "KEY=T_Index\t1\t3"}});
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  server->queueResult({{"KEY=T_Index\t1\t3", "KEY=UserName\t2\ttaro"}});
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  // Two rows of one name: nothing resets the match between rows, so the last row decides.
  server->queueResult({userRow(3, "taro", "pw", 1), userRow(4, "taro", "other", 1)});
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  server->queueResult({userRow(5, "taro", "", 1)});
  EXPECT_EQ(MVUserLogon("taro", "", 0, &id), 0);
  EXPECT_EQ(id, 5);
}

TEST_F(LogonTest, ServerFailuresShowNoMessageAndKeepTheFirstCode) {
  int32_t id = 0;
  server->failNext("ExecuteQuery", 0x51);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(mv::connection().lastError, 0x51);
  server->queueResult({userRow(12, "taro", "pw", 1)});
  server->failNext("GetRecords", 0x52);
  server->failNext("CloseTable", 0x53);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(mv::connection().lastError, 0x52);
  EXPECT_THAT(server->methods(),
              ElementsAre("ExecuteQuery", "ExecuteQuery", "GetRecords", "CloseTable"));
  EXPECT_THAT(shown, IsEmpty());

  // Apostrophes are doubled: a name cannot change the statement.
  EXPECT_EQ(MVUserLogon("o'x' OR ''='", "pw", 0, &id), -1);
  EXPECT_EQ(server->calls[4].args[2],
            "SELECT * FROM UserInfoTBL WHERE UserName='o''x'' OR ''''='''");
  EXPECT_EQ(MVUserLogon(nullptr, "pw", 0, &id), -1);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, nullptr), -1);
  EXPECT_EQ(server->calls.size(), 6u);
}

using RegisterTest = UsersTest;

TEST_F(RegisterTest, AddsAnOrdinaryUserFromTheCatalogueAndUnlocksOnTheLastClose) {
  mv::connection().systemDbHeld = 0;
  int32_t id = 0;
  ASSERT_EQ(MVRegistUser("hanako", "pw", &id), 0);
  EXPECT_EQ(id, 100);
  EXPECT_EQ(server->log(),
            "OpenDatabase(MarvekSystemCommonDB, 0)\n"
            "ExecuteQuery(MarvekSystemCommonDB, UserInfoTBL, SELECT * FROM UserInfoTBL WHERE "
            "UserName='hanako', 0)\n"
            "CloseTable(MarvekSystemCommonDB, H1)\n"
            "OpenTable(MarvekSystemCommonDB, UserInfoTBL, 0)\n"
            "AddRecord(MarvekSystemCommonDB, [TABLENAME=H2|KEY=T_Index\t1\t0|KEY=UserName\t2\t"
            "hanako|KEY=Password\t2\tpw|KEY=UserAttribute\t1\t1], 1)\n"
            "CloseTable(MarvekSystemCommonDB, H2)\n"
            "UnlockDatabase(MarvekSystemCommonDB)\n"
            "CloseDatabase(MarvekSystemCommonDB)\n");
}

TEST_F(RegisterTest, ATakenNameShowsItsMessageBeforeTheCloseAndFailuresKeepTheirCode) {
  server->queueResult({userRow(3, "hanako", "x", 1)});
  int32_t id = -7;
  EXPECT_EQ(MVRegistUser("hanako", "pw", &id), -1);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].text, kNameTaken);
  EXPECT_EQ(shown[0].callsBefore, 1u);
  EXPECT_THAT(server->methods(), ElementsAre("ExecuteQuery", "CloseTable"));

  server->failNext("AddRecord", 0x61);
  server->failNext("CloseTable", 0);  // the test query's
  server->failNext("CloseTable", 0x62);
  EXPECT_EQ(MVRegistUser("hanako", "pw", &id), -1);
  EXPECT_EQ(id, -7);
  EXPECT_EQ(mv::connection().lastError, 0x61);
  EXPECT_EQ(server->count("UnlockDatabase"), 0);

  // The id is given before the last close, whose failure still fails the export.
  server->failNext("UnlockDatabase", 0x63);
  EXPECT_EQ(MVRegistUser("hanako", "pw", &id), -1);
  EXPECT_EQ(id, 100);
  EXPECT_EQ(mv::connection().lastError, 0x63);
}

TEST_F(UsersTest, AnUpdateRefusesALoggedOnNameAndNeverSendsTheAttribute) {
  server->loginUsers = {{"jiro", "taro"}, {"taro", "pc1"}};
  EXPECT_EQ(MVUpdateUser(12, "taro", "new"), -1);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].text, kAlreadyLoggedOn);
  EXPECT_THAT(server->methods(), ElementsAre("GetLoginUsers"));

  server->calls.clear();
  server->loginUsers = {{"jiro", "taro"}};  // only the first text of a pair is a name
  ASSERT_EQ(MVUpdateUser(12, "taro", "new"), 0);
  EXPECT_EQ(call(2),
            "UpdateRecord(MarvekSystemCommonDB, [TABLENAME=H1|KEY=T_Index\t1\t0|"
            "KEY=UserName\t2\ttaro|KEY=Password\t2\tnew|], 1, 12)");
  EXPECT_EQ(server->calls.size(), 4u);

  server->failNext("GetLoginUsers", 0x71);
  EXPECT_EQ(MVUpdateUser(12, "taro", "new"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x71);
  EXPECT_EQ(server->calls.size(), 5u);
}

using AdminTest = UsersTest;

TEST_F(AdminTest, SetAdminDemotesTheOldOneFirstAndAnUnknownNameLeavesNone) {
  queueAdmin(1);
  server->queueResult({});  // the demote's table
  server->queueResult({userRow(12, "taro", "pw", 1)});
  ASSERT_EQ(MVSetAdmin("taro", 0), 0);
  EXPECT_EQ(call(4),
            "UpdateRecord(MarvekSystemCommonDB, [TABLENAME=H2|KEY=T_Index\t1\t1|||"
            "KEY=UserAttribute\t2\t1], 1, 1)");
  EXPECT_EQ(call(10),
            "UpdateRecord(MarvekSystemCommonDB, [TABLENAME=H4|KEY=T_Index\t1\t12|||"
            "KEY=UserAttribute\t1\t0], 1, 12)");

  server->calls.clear();
  queueAdmin(1);
  EXPECT_EQ(MVSetAdmin("nobody", 0), -1);
  EXPECT_EQ(server->count("UpdateRecord"), 1);  // the old one stays demoted
}

TEST_F(AdminTest, SetAdmin2PromotesBeforeDemotingAndLeavesTheSameAdminAlone) {
  queueAdmin(12);
  EXPECT_EQ(MVSetAdmin2(12), 0);
  EXPECT_EQ(server->count("UpdateRecord"), 0);
  server->calls.clear();
  queueAdmin(1);
  ASSERT_EQ(MVSetAdmin2(12), 0);
  EXPECT_THAT(call(4), ::testing::HasSubstr("KEY=UserAttribute\t1\t0], 1, 12)"));
  EXPECT_THAT(call(7), ::testing::HasSubstr("KEY=UserAttribute\t2\t1], 1, 1)"));
  queueAdmin(0);
  EXPECT_EQ(MVSetAdmin2(12), -1);
}

TEST_F(AdminTest, GetAdminCutsTheNameToAUserNameFieldAndLeavesTheBufferWithoutAnAdmin) {
  char name[64];
  std::memset(name, '#', sizeof name);
  server->queueResult({userRow(1, "administrator12ー", "x", 0)});
  ASSERT_EQ(MVGetAdmin(name), 0);
  EXPECT_STREQ(name, "administrator12");  // the double-byte character does not fit in 16 bytes
  EXPECT_EQ(name[17], '#');
  EXPECT_EQ(server->calls[0].args[2], "SELECT * FROM UserInfoTBL WHERE UserAttribute='0'");
  std::strcpy(name, "kept");
  EXPECT_EQ(MVGetAdmin(name), 0);
  server->failNext("ExecuteQuery", 0x81);
  EXPECT_EQ(MVGetAdmin(name), -1);
  EXPECT_STREQ(name, "kept");
}

TEST_F(UsersTest, UserInfoTellsAnUnknownNameFromAFailureAndListsAreApplicationBlocks) {
  UserRec rec{};
  int32_t found = -1;
  EXPECT_EQ(MVGetUserInfo("nobody", &rec, &found), 0);
  EXPECT_EQ(found, 0);
  server->queueResult({userRow(12, "taro", "pw", 1)});
  server->queueResult({userRow(12, "taro", "pw", 1)});
  ASSERT_EQ(MVGetUserInfo("taro", &rec, &found), 0);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(rec.tIndex, 12);
  EXPECT_STREQ(rec.password, "pw");
  EXPECT_EQ(server->calls[5].args[2], "SELECT * FROM UserInfoTBL WHERE T_index='12'");
  server->queueResult({userRow(12, "taro", "pw", 1)});
  EXPECT_EQ(MVGetUserInfo("taro", &rec, &found), -1);  // gone between the two queries
  EXPECT_EQ(found, 0);

  server->calls.clear();
  mv::connection().systemDbHeld = 0;
  server->queueResult({userRow(1, "admin", "a", 0), userRow(12, "taro", "pw", 1)});
  UserRec* list = nullptr;
  int32_t count = -1;
  ASSERT_EQ(MVGetUserList(&list, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(list[1].userName, "taro");
  EXPECT_EQ(MVGlobalFree(MVGlobalHandle(list)), nullptr);
  EXPECT_EQ(server->calls.front().method, "OpenDatabase");
  EXPECT_EQ(server->calls.back().method, "CloseDatabase");
  ASSERT_EQ(MVGetUserList(&list, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(MVGlobalFree(MVGlobalHandle(list)), nullptr);
}

TEST_F(UsersTest, ForwardedCallsAndTheAnswersOfSetUserAdmin) {
  int32_t state = 9;
  EXPECT_EQ(MVSetUserAdmin("taro", "pw", 0, &state), 0);
  EXPECT_EQ(state, 9);
  server->failNext("SetUserAdmin", 3);
  EXPECT_EQ(MVSetUserAdmin("taro", "pw", 1, &state), 0);
  EXPECT_EQ(state, 1);
  server->failNext("SetUserAdmin", 4);
  EXPECT_EQ(MVSetUserAdmin("taro", "pw", 2, &state), 0);
  EXPECT_EQ(state, 0);
  server->failNext("SetUserAdmin", 5);
  EXPECT_EQ(MVSetUserAdmin("taro", "pw", 2, &state), -1);
  EXPECT_EQ(mv::connection().lastError, 5);
  server->failNext("LoginMgr", 0x92);
  EXPECT_EQ(MVLoginMgr("taro", "pc1", "pw", 1), -1);
  EXPECT_EQ(mv::connection().lastError, 0x92);
  EXPECT_EQ(server->calls.back().text(), "LoginMgr(taro, pc1, pw, 1)");
  EXPECT_EQ(MVGetAdminLogon(0), 0);
  MVExit();
  EXPECT_EQ(MVGetAdminLogon(0), -1);
}

}  // namespace
}  // namespace mvtest
