// Users and permissions against the server in this process and a daemon on loopback, each on a
// fresh data folder whose administrator is "admin" ("admin").
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exports.h"
#include "live_server.h"
#include "users_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

class UsersEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
    catchMessages(&shown);
  }
  void TearDown() override {
    releaseMessages();
    LiveServerTest::TearDown();
  }
  int32_t logon(const char* name, const char* password) {
    int32_t id = -1;
    return MVUserLogon(name, password, 0, &id) == 0 ? id : -1;
  }
  int32_t regist(const char* name, const char* password) {
    int32_t id = -1;
    EXPECT_EQ(MVRegistUser(name, password, &id), 0) << name;
    return id;
  }
  std::string admin() {
    char name[17] = "none";
    EXPECT_EQ(MVGetAdmin(name), 0);
    return name;
  }
  UserRec user(const char* name) {
    UserRec rec{};
    int32_t found = -1;
    EXPECT_EQ(MVGetUserInfo(name, &rec, &found), 0);
    if (found != 1) rec.tIndex = -1;
    return rec;
  }
  std::vector<std::string> shown;
};
MVCORE_ON_BOTH_SERVERS(UsersEndToEnd);

TEST_P(UsersEndToEnd, AccountsWithApostrophesAndJapaneseNamesLogOnAndChangeHands) {
  EXPECT_EQ(logon("admin", "Admin"), -1);
  const int32_t obrien = regist("O'Brien", "p'w");
  const int32_t yamada = regist("\x8E\x52\x93\x63", "");  // 山田
  EXPECT_EQ(logon("O'Brien", "p'w"), obrien);
  EXPECT_EQ(logon("\x8E\x52\x93\x63", ""), yamada);
  EXPECT_EQ(user("o'brien").tIndex, -1);  // names are exact
  int32_t again = -1;
  EXPECT_EQ(MVRegistUser("O'Brien", "x", &again), -1);
  UserRec* list = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetUserList(&list, &count), 0);
  ASSERT_EQ(count, 3);
  EXPECT_EQ(std::string(list[2].userName) + std::to_string(list[2].userAttribute),
            "\x8E\x52\x93\x63"
            "1");
  MVGlobalFree(MVGlobalHandle(list));

  ASSERT_EQ(MVLoginMgr("O'Brien", "pc1", "p'w", 1), 0);
  EXPECT_EQ(MVUpdateUser(obrien, "O'Brien", "new"), -1);
  EXPECT_THAT(shown, ElementsAre(kUnknownUser, kNameTaken, kAlreadyLoggedOn));
  ASSERT_EQ(MVLoginMgr("O'Brien", "pc1", "p'w", 0), 0);
  ASSERT_EQ(MVSetAdmin2(obrien), 0);
  EXPECT_EQ(admin(), "O'Brien");
  EXPECT_EQ(user("admin").userAttribute, 1);
  ASSERT_EQ(MVUpdateUser(obrien, "O'Brien", "new"), 0);
  EXPECT_EQ(logon("O'Brien", "new"), obrien);
  EXPECT_EQ(user("O'Brien").userAttribute, 0);  // an update keeps the administrator
  int32_t state = -1;
  ASSERT_EQ(MVSetUserAdmin("O'Brien", "new", 0, &state), 0);
  EXPECT_EQ(state, 1);
  ASSERT_EQ(MVSetAdmin("admin", 0), 0);
  EXPECT_EQ(admin(), "admin");
  EXPECT_EQ(MVSetAdmin("nobody", 0), -1);
  EXPECT_EQ(admin(), "none");  // the old one was demoted all the same
}

TEST_P(UsersEndToEnd, PermissionsFollowRowsDefaultsAndTheAdministrator) {
  const int32_t adminId = logon("admin", "admin");
  const int32_t taro = regist("taro", "t");
  const int32_t jiro = regist("jiro", "j");
  EXPECT_THAT(listed(MVGetROUserOfBS, 1), ::testing::IsEmpty());
  UserRec only[1] = {user("taro")};
  ASSERT_EQ(MVUpdateUserPermissionOfBS(7, only, 1), 0);
  EXPECT_THAT(listed(MVGetRWUserOfBS, 7), ElementsAre("admin", "taro"));
  EXPECT_THAT(listed(MVGetROUserOfBS, 7), ElementsAre("jiro"));
  ASSERT_EQ(MVUpdateUserPermissionOfBS2(7, jiro, 2), 0);
  EXPECT_EQ(shelfPower(7, jiro), 2);
  int32_t value = -9;
  ASSERT_EQ(MVGetUserPermissionOfBook(43, "taro", &value), 0);  // a book on no shelf
  EXPECT_EQ(value, 0);
  // An empty set takes value 1 from everybody; the administrator keeps it whatever is stored.
  ASSERT_EQ(MVUpdateUserPermissionOfBS(7, nullptr, 0), 0);
  EXPECT_THAT(listed(MVGetRWUserOfBS, 7), ElementsAre("admin"));
  EXPECT_EQ(shelfPower(7, adminId), 1);
  ASSERT_EQ(MVUpdateUserPermissionOfBS2(7, taro, 1), 0);
  ASSERT_EQ(MVDeleteUser(taro), 0);
  EXPECT_EQ(user("taro").tIndex, -1);
  EXPECT_EQ(shelfPower(7, taro), 0);  // its row went first
  EXPECT_EQ(MVDeleteUser(taro), -1);
}

}  // namespace
}  // namespace mvtest
