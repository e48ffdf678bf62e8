// Accounts, logon and shelf permissions against a recording server: the rules that decide an
// answer, the order of failures, the rows written and the message boxes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "frame/rows.h"
#include "users/shelf_power.h"
#include "users_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Rows = RecordingServer::ResultRows;

struct Shown {
  std::string text, caption;
  std::size_t callsBefore;  // server calls made when the box came up
};

class UsersTest : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ASSERT_EQ(MVSetCodePage("CP932"), 0);
    server = &connect();
    ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
    server->calls.clear();
    MVSetMessageHandler(
        [](const char* text, const char* caption, void* self) {
          auto* t = static_cast<UsersTest*>(self);
          t->shown.push_back({text, caption, t->server->calls.size()});
        },
        this);
  }
  void TearDown() override {
    MVSetMessageHandler(nullptr, nullptr);
    ServerFixture::TearDown();
  }
  static std::vector<std::string> user(int id, const std::string& name, const std::string& pw,
                                       int attribute = 1) {
    return {"KEY=T_Index\t1\t" + std::to_string(id), "KEY=UserName\t2\t" + name,
            "KEY=Password\t2\t" + pw, "KEY=UserAttribute\t1\t" + std::to_string(attribute)};
  }
  static std::vector<std::string> power(int shelf, int userId, const std::string& reserve) {
    return {"KEY=T_Index\t1\t1", "KEY=BookShelfID\t1\t" + std::to_string(shelf),
            "KEY=UserID\t1\t" + std::to_string(userId), "KEY=Reserve\t2\t" + reserve};
  }
  // The administrator's query answers the user `id`, or none.
  void queueAdmin(int id) {
    server->queueResult(id ? Rows{user(id, "admin", "admin", 0)} : Rows{});
  }

  RecordingServer* server = nullptr;
  std::vector<Shown> shown;
};

TEST_F(UsersTest, LogonComparesOnlyAPasswordFollowingTheNameAndShowsOneMessageForAnyMiss) {
  struct Case {
    Rows rows;
    const char* password;
    int32_t id;  // -7: refused
  } const cases[] = {
      {{user(12, "taro", "pw")}, "pw", 12},
      {{user(12, "taro", "pw")}, "PW", -7},
      {{}, "pw", -7},
      {{{"KEY=Password\t2\tpw", "KEY=UserName\t2\ttaro", "KEY=T_Index\t1\t3"}}, "pw", -7},
      {{{"KEY=T_Index\t1\t3", "KEY=UserName\t2\ttaro"}}, "pw", -7},
      // Nothing resets the match between rows of one name: the last row decides.
      {{user(3, "taro", "pw"), user(4, "taro", "other")}, "pw", -7},
      {{user(5, "taro", "")}, "", 5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rows.size());
    shown.clear();
    server->calls.clear();
    server->queueResult(c.rows);
    int32_t id = -7;
    EXPECT_EQ(MVUserLogon("taro", c.password, 0, &id), c.id == -7 ? -1 : 0);
    EXPECT_EQ(id, c.id);
    EXPECT_EQ(server->calls.back().method, "CloseTable");
    ASSERT_EQ(shown.size(), c.id == -7 ? 1u : 0u);
    for (const Shown& box : shown) {  // after the close
      EXPECT_EQ(std::tuple(box.text, box.caption, box.callsBefore),
                std::tuple(kUnknownUser, "MVCore", server->calls.size()));
    }
  }
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  int32_t id = 0;
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(shown.back().text, "指定のユーザーは登録されていません");
}

TEST_F(UsersTest, LogonFailuresOfTheServerShowNoMessageAndKeepTheFirstCode) {
  int32_t id = 0;
  server->failNext("ExecuteQuery", 0x51);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(mv::connection().lastError, 0x51);
  server->queueResult({user(12, "taro", "pw")});
  server->failNext("GetRecords", 0x52);
  server->failNext("CloseTable", 0x53);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, &id), -1);
  EXPECT_EQ(mv::connection().lastError, 0x52);
  EXPECT_EQ(server->count("CloseTable"), 1);
  EXPECT_THAT(shown, IsEmpty());
  EXPECT_EQ(MVUserLogon(nullptr, "pw", 0, &id), -1);
  EXPECT_EQ(MVUserLogon("taro", "pw", 0, nullptr), -1);
  EXPECT_EQ(server->calls.size(), 4u);
}

TEST_F(UsersTest, RegisterRefusesATakenNameAndKeepsTheFirstCodeOfAFailure) {
  int32_t id = -7;
  server->queueResult({user(3, "hanako", "x")});
  EXPECT_EQ(MVRegistUser("hanako", "pw", &id), -1);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].text, kNameTaken);
  EXPECT_EQ(shown[0].callsBefore, 1u);  // before the close
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
  server->loginUsers = {{"jiro", "taro"}};  // only the first text of a pair is a name
  ASSERT_EQ(MVUpdateUser(12, "taro", "new"), 0);
  server->failNext("GetLoginUsers", 0x71);
  EXPECT_EQ(MVUpdateUser(12, "taro", "new"), -1);
  EXPECT_EQ(mv::connection().lastError, 0x71);
  EXPECT_EQ(server->calls.size(), 6u);
}

TEST_F(UsersTest, SetAdmin2LeavesTheAdministratorAloneAndNeedsOne) {
  queueAdmin(12);
  EXPECT_EQ(MVSetAdmin2(12), 0);
  EXPECT_EQ(server->count("UpdateRecord"), 0);
  queueAdmin(0);
  EXPECT_EQ(MVSetAdmin2(12), -1);
}

TEST_F(UsersTest, GetAdminCutsTheNameToItsFieldAndUserInfoTellsUnknownFromFailed) {
  char name[64];
  std::memset(name, '#', sizeof name);
  server->queueResult({user(1, "administrator12ー", "x", 0)});
  ASSERT_EQ(MVGetAdmin(name), 0);
  EXPECT_STREQ(name, "administrator12");  // the double-byte character does not fit in 16 bytes
  EXPECT_EQ(name[17], '#');
  std::strcpy(name, "kept");
  EXPECT_EQ(MVGetAdmin(name), 0);
  server->failNext("ExecuteQuery", 0x81);
  EXPECT_EQ(MVGetAdmin(name), -1);
  EXPECT_STREQ(name, "kept");

  UserRec rec{};
  int32_t found = -1;
  EXPECT_EQ(MVGetUserInfo("nobody", &rec, &found), 0);
  EXPECT_EQ(found, 0);
  server->queueResult({user(12, "taro", "pw")});
  EXPECT_EQ(MVGetUserInfo("taro", &rec, &found), -1);  // gone between the two queries
  EXPECT_EQ(found, 0);
}

TEST_F(UsersTest, ForwardedCallsGiveTheirAnswers) {
  // A list opens and closes the system database when it is not held.
  mv::connection().systemDbHeld = 0;
  UserRec* list = nullptr;
  int32_t count = -1;
  ASSERT_EQ(MVGetUserList(&list, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(MVGlobalFree(MVGlobalHandle(list)), nullptr);
  EXPECT_EQ(server->methods().front() + " " + server->methods().back(),
            "OpenDatabase CloseDatabase");
  // SetUserAdmin: status 3 and 4 are answers, anything else a failure.
  const int32_t answers[][3] = {{0, 0, 9}, {3, 1, 1}, {4, 2, 0}};
  int32_t state = 9;
  for (const auto& [status, op, expected] : answers) {
    if (status != 0) server->failNext("SetUserAdmin", status);
    EXPECT_EQ(MVSetUserAdmin("taro", "pw", op, &state), 0);
    EXPECT_EQ(state, expected);
  }
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

TEST_F(UsersTest, APowerComesFromTheAdministratorThenARowThenTheShelfsDefault) {
  struct Case {
    int32_t shelf;
    Rows rows;
    int32_t power;
  } const cases[] = {{1, {}, 2},
                     {7, {}, 0},
                     {7, {power(7, 5, "")}, 1},
                     {7, {power(7, 5, " 2 ")}, 2},
                     {7, {{"KEY=UserID\t1\t5"}}, -1}};  // a row without Reserve
  for (const Case& c : cases) {
    SCOPED_TRACE(c.power);
    server->calls.clear();
    queueAdmin(1);
    server->queueResult(c.rows);
    int32_t value = -9;
    EXPECT_EQ(MVGetUserPermissionOfBS(c.shelf, 5, &value), c.power == -1 ? -1 : 0);
    EXPECT_EQ(value, c.power);
  }
  server->calls.clear();
  queueAdmin(5);
  int32_t value = -9;
  ASSERT_EQ(MVGetUserPermissionOfBS(7, 5, &value), 0);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(server->count("ExecuteQuery"), 1);           // the table is not asked
  EXPECT_EQ(MVGetUserPermissionOfBS(7, 5, &value), -1);  // no administrator: no answer
  EXPECT_EQ(value, -1);
}

TEST_F(UsersTest, SetPowerUpdatesARowThatExistsAndAddsOneOtherwiseKeepingItsOwnStatus) {
  mv::BookShelfPower power(server);
  server->queueResult({UsersTest::power(7, 5, "0")});
  ASSERT_EQ(power.setPower(7, 5, 1), 1);
  ASSERT_EQ(power.setPower(7, 5, 2), 1);
  EXPECT_EQ(server->count("ExecuteSQL") * 10 + server->count("AddRecord"), 11);
  mv::connection().lastError = 0;
  server->failNext("AddRecord", 0xA2);
  EXPECT_EQ(power.setPower(7, 5, 2), 0);
  EXPECT_EQ(power.status(), 0xA2);
  EXPECT_EQ(mv::connection().lastError, 0);
  server->failNext("ExecuteQuery", 0xA3);
  EXPECT_EQ(MVUpdateUserPermissionOfBS2(7, 5, 2), -1);
  EXPECT_EQ(mv::connection().lastError, 0);

  // Rows that cannot be read are left out of a shelf's list.
  mv::PowerRow* rows = nullptr;
  int32_t count = -1;
  EXPECT_EQ(power.listShelfPowers(7, &rows, &count), 0);  // no rows
  server->queueResult(
      {UsersTest::power(7, 12, "2"), {"KEY=UserID\t1\t13"}, UsersTest::power(7, 14, "")});
  ASSERT_EQ(power.listShelfPowers(7, &rows, &count), 1);
  ASSERT_EQ(count, 2);
  EXPECT_THAT(std::vector({rows[0].userId, rows[0].power, rows[1].bookShelfId, rows[1].power}),
              ElementsAre(12, 2, 7, 1));
  mv::freeResultBlock(rows);
}

TEST_F(UsersTest, ListsCountTheAdministratorAsReadWriteAndUpdatesResetOthersToTheDefault) {
  const auto users = [&] {
    server->queueResult({user(1, "admin", "a", 0), user(12, "taro", "t"), user(13, "jiro", "j")});
  };
  // A row of an id that is no user is listed too, and then cannot be read.
  users();
  server->queueResult({power(7, 99, "1")});
  server->queueResult({user(1, "admin", "a", 0)});
  UserRec sentinel{};
  UserRec* list = &sentinel;
  int32_t count = -1;
  EXPECT_EQ(MVGetRWUserOfBS(7, &list, &count), -1);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(count, 0);

  server->calls.clear();
  users();
  server->queueResult({power(7, 12, "1"), power(7, 13, "1")});
  server->queueResult({});                   // administrator: no row yet
  server->queueResult({});                   // its table
  server->queueResult({power(7, 12, "1")});  // taro: a row
  UserRec set[2] = {{13, "jiro", "", 1}, {14, "hanako", "", 1}};
  ASSERT_EQ(MVUpdateUserPermissionOfBS(7, set, 2), 0);
  EXPECT_EQ(set[0].tIndex, -1);
  EXPECT_EQ(set[1].tIndex, 14);
  EXPECT_EQ(server->count("AddRecord") + 10 * server->count("ExecuteSQL"), 12);
  server->failNext("ExecuteQuery", 0xA4);  // the present set is unknown: nothing changes
  EXPECT_EQ(MVUpdateUserPermissionOfBS(7, set, 2), -1);
  EXPECT_EQ(MVUpdateUserPermissionOfBS(7, nullptr, 1), -1);
}

TEST_F(UsersTest, ABookHasTheValueOfTheFirstOfAtMostTwentyShelvesAndAUserLosesItsRowsFirst) {
  server->queueResult({user(5, "taro", "t")});
  queueAdmin(1);
  Rows shelves;
  for (int i = 0; i < 25; ++i) shelves.push_back({"KEY=BookShelfID\t1\t" + std::to_string(30 + i)});
  server->queueResult(shelves);
  queueAdmin(1);
  int32_t value = -9;
  ASSERT_EQ(MVGetUserPermissionOfBook(42, "taro", &value), 0);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(server->count("GetRecords"), 2 + 20 + 1);
  EXPECT_THAT(server->calls.at(31).text(), HasSubstr("BookShelfID='30' AND UserID='5'"));
  value = -9;
  EXPECT_EQ(MVGetUserPermissionOfBook(42, "nobody", &value), -1);
  EXPECT_EQ(value, -9);

  // The power rows go first; their failure leaves the user.
  server->calls.clear();
  ASSERT_EQ(MVDeleteUser(12), 0);
  EXPECT_THAT(server->methods(),
              ElementsAre("ExecuteSQL", "OpenTable", "DeleteRecord", "CloseTable"));
  server->failNext("ExecuteSQL", 0xB1);
  EXPECT_EQ(MVDeleteUser(12), -1);
  EXPECT_EQ(server->calls.size(), 5u);
  server->failNext("DeleteRecord", 0xB2);
  server->failNext("CloseTable", 0xB3);
  EXPECT_EQ(MVDeleteUser(12), -1);
  EXPECT_EQ(mv::connection().lastError, 0xB2);
}

}  // namespace
}  // namespace mvtest
