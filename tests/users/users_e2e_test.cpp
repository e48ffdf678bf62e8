// Users and permissions end to end, against the server in this process and a daemon on loopback,
// each on a fresh data folder whose server starts with the administrator "admin" ("admin").
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVCore.h"
#include "frame/exchange.h"
#include "frame/handles.h"
#include "live_server.h"
#include "users_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

void catchText(const char* text, const char*, void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back(text);
}

class UsersEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
    MVSetMessageHandler(catchText, &shown);
  }
  void TearDown() override {
    MVSetMessageHandler(nullptr, nullptr);
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
  int32_t power(int32_t shelf, int32_t userId) {
    int32_t value = -9;
    MVGetUserPermissionOfBS(shelf, userId, &value);
    return value;
  }

  std::vector<std::string> shown;
};

MVCORE_ON_BOTH_SERVERS(UsersEndToEnd);

TEST_P(UsersEndToEnd, UsersWithApostrophesJapaneseNamesAndEmptyPasswordsLogOn) {
  EXPECT_GT(logon("admin", "admin"), 0);
  EXPECT_EQ(logon("admin", "Admin"), -1);
  const int32_t obrien = regist("O'Brien", "p'w");
  const int32_t yamada = regist("\x8E\x52\x93\x63", "");  // 山田
  EXPECT_EQ(logon("O'Brien", "p'w"), obrien);
  EXPECT_EQ(logon("\x8E\x52\x93\x63", ""), yamada);
  EXPECT_STREQ(user("O'Brien").password, "p'w");
  EXPECT_EQ(user("o'brien").tIndex, -1);  // names are exact
  int32_t again = -1;
  EXPECT_EQ(MVRegistUser("O'Brien", "x", &again), -1);
  EXPECT_THAT(shown, ElementsAre(kUnknownUser, kNameTaken));

  UserRec* list = nullptr;
  int32_t count = 0;
  ASSERT_EQ(MVGetUserList(&list, &count), 0);
  ASSERT_EQ(count, 3);
  EXPECT_STREQ(list[2].userName, "\x8E\x52\x93\x63");
  EXPECT_EQ(list[2].userAttribute, 1);
  MVGlobalFree(MVGlobalHandle(list));
}

TEST_P(UsersEndToEnd, ALoggedOnUserCannotBeChangedAndAnUpdateKeepsTheAdministrator) {
  const int32_t taro = regist("taro", "old");
  ASSERT_EQ(MVLoginMgr("taro", "pc1", "old", 1), 0);
  EXPECT_EQ(MVUpdateUser(taro, "taro", "new"), -1);
  EXPECT_THAT(shown, ElementsAre(kAlreadyLoggedOn));
  ASSERT_EQ(MVLoginMgr("taro", "pc1", "old", 0), 0);

  ASSERT_EQ(MVSetAdmin2(taro), 0);
  EXPECT_EQ(admin(), "taro");
  EXPECT_EQ(user("admin").userAttribute, 1);
  ASSERT_EQ(MVUpdateUser(taro, "taro", "new"), 0);
  EXPECT_EQ(logon("taro", "new"), taro);
  EXPECT_EQ(user("taro").userAttribute, 0);
  int32_t state = -1;
  ASSERT_EQ(MVSetUserAdmin("taro", "new", 0, &state), 0);
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
  EXPECT_THAT(listed(MVGetROUserOfBS, 7), ElementsAre("taro", "jiro"));
  EXPECT_THAT(listed(MVGetROUserOfBS, 1), IsEmpty());

  UserRec only[1] = {user("taro")};
  ASSERT_EQ(MVUpdateUserPermissionOfBS(7, only, 1), 0);
  EXPECT_THAT(listed(MVGetRWUserOfBS, 7), ElementsAre("admin", "taro"));
  EXPECT_THAT(listed(MVGetROUserOfBS, 7), ElementsAre("jiro"));
  ASSERT_EQ(MVUpdateUserPermissionOfBS2(7, jiro, 2), 0);
  EXPECT_EQ(power(7, jiro), 2);

  // A book on shelf 7 has its values; a book on no shelf gives 0 to all but the administrator.
  std::string handle;
  int32_t rows = 0;
  ASSERT_EQ(mv::openWorkTable("MarvekSystemCommonDB", "BookShelfInfoTBL", &rows, handle), 1);
  mv::RecordWriter link(handle, 2);
  link.putInt(1, "BookShelfID", mv::kTypeInt, 7);
  link.putInt(2, "BookID", mv::kTypeInt, 42);
  ASSERT_EQ(mv::connection().currentServer->AddRecord(mv::toWide("MarvekSystemCommonDB").get(),
                                                      link.get(), 1, &rows),
            0);
  ASSERT_EQ(mv::closeWorkTable("MarvekSystemCommonDB", handle, 0), 1);
  int32_t value = -9;
  ASSERT_EQ(MVGetUserPermissionOfBook(42, "taro", &value), 0);
  EXPECT_EQ(value, 1);
  ASSERT_EQ(MVGetUserPermissionOfBook(43, "taro", &value), 0);
  EXPECT_EQ(value, 0);

  // An empty set takes value 1 from everybody; the administrator keeps it whatever is stored.
  ASSERT_EQ(MVUpdateUserPermissionOfBS(7, nullptr, 0), 0);
  EXPECT_THAT(listed(MVGetRWUserOfBS, 7), ElementsAre("admin"));
  EXPECT_EQ(power(7, adminId), 1);

  ASSERT_EQ(MVUpdateUserPermissionOfBS2(7, taro, 1), 0);
  ASSERT_EQ(MVDeleteUser(taro), 0);
  EXPECT_EQ(user("taro").tIndex, -1);
  EXPECT_EQ(power(7, taro), 0);  // its row went first
  EXPECT_EQ(MVDeleteUser(taro), -1);
}

}  // namespace
}  // namespace mvtest
