// Shelf permissions against a recording server: the rules that decide a value, who is listed, and
// the rows that are written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MVCore.h"
#include "frame/rows.h"
#include "users/shelf_power.h"
#include "users_fixture.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;

class PermissionsTest : public UsersTest {
 protected:
  // The value of user 5 on a shelf, with the administrator 1 and the power rows given.
  int32_t powerOf5(int32_t shelf, RecordingServer::ResultRows rows) {
    queueAdmin(1);
    server->queueResult(std::move(rows));
    int32_t power = -9;
    const int result = MVGetUserPermissionOfBS(shelf, 5, &power);
    EXPECT_EQ(result, power == -1 ? -1 : 0);
    return power;
  }
  void queueUsers() {
    server->queueResult(
        {userRow(1, "admin", "a", 0), userRow(12, "taro", "t", 1), userRow(13, "jiro", "j", 1)});
  }
};

TEST_F(PermissionsTest, TheAdministratorThenARowThenTheShelfsDefaultDecide) {
  EXPECT_EQ(powerOf5(1, {}), 2);
  EXPECT_EQ(powerOf5(7, {}), 0);
  EXPECT_EQ(powerOf5(7, {powerRow(7, 5, "")}), 1);
  EXPECT_EQ(powerOf5(7, {powerRow(7, 5, " 2 ")}), 2);
  EXPECT_EQ(powerOf5(7, {{"KEY=UserID\t1\t5"}}), -1);  // a row without Reserve
  EXPECT_EQ(server->calls[3].args[2],
            "SELECT * FROM BookShelfPowerTBL WHERE BookShelfID='1' AND UserID='5'");

  server->calls.clear();
  queueAdmin(5);
  int32_t power = -9;
  ASSERT_EQ(MVGetUserPermissionOfBS(7, 5, &power), 0);
  EXPECT_EQ(power, 1);
  EXPECT_EQ(server->count("ExecuteQuery"), 1);           // the table is not asked
  EXPECT_EQ(MVGetUserPermissionOfBS(7, 5, &power), -1);  // no administrator: no answer
  EXPECT_EQ(power, -1);
}

TEST_F(PermissionsTest, SetPowerUpdatesARowThatExistsAndAddsOneWithoutAKeyOtherwise) {
  mv::BookShelfPower power(server);
  server->queueResult({powerRow(7, 5, "0")});
  ASSERT_EQ(power.setPower(7, 5, 1), 1);
  EXPECT_EQ(call(2),
            "ExecuteSQL(MarvekSystemCommonDB, UPDATE BookShelfPowerTBL SET Reserve='1' WHERE "
            "BookShelfID='7' AND UserID='5')");
  server->calls.clear();
  ASSERT_EQ(power.setPower(7, 5, 2), 1);
  EXPECT_EQ(call(3),
            "AddRecord(MarvekSystemCommonDB, [TABLENAME=H3|KEY=BookShelfID\t1\t7|KEY=UserID\t1\t5|"
            "KEY=Reserve\t2\t2], 1)");
  EXPECT_EQ(server->calls.size(), 5u);

  // The class's own failures stay in its status, not in lastError.
  mv::connection().lastError = 0;
  server->failNext("AddRecord", 0xA2);
  EXPECT_EQ(power.setPower(7, 5, 2), 0);
  EXPECT_EQ(power.status(), 0xA2);
  EXPECT_EQ(mv::connection().lastError, 0);
  server->failNext("ExecuteQuery", 0xA3);
  EXPECT_EQ(MVUpdateUserPermissionOfBS2(7, 5, 2), -1);
  EXPECT_EQ(mv::connection().lastError, 0);
}

TEST_F(PermissionsTest, ListsCountTheAdministratorAsReadWriteOnlyAndRowsOfLostUsersFail) {
  queueUsers();
  server->queueResult({});
  server->queueResult({userRow(12, "taro", "t", 1)});
  server->queueResult({userRow(13, "jiro", "j", 1)});
  EXPECT_THAT(listed(MVGetROUserOfBS, 7), ElementsAre("taro", "jiro"));
  queueUsers();
  EXPECT_THAT(listed(MVGetROUserOfBS, 1), ::testing::IsEmpty());  // the default is 2 there

  queueUsers();
  server->queueResult({powerRow(7, 1, "0"), powerRow(7, 13, ""), powerRow(7, 12, "2")});
  server->queueResult({userRow(1, "admin", "a", 0)});
  server->queueResult({userRow(13, "jiro", "j", 1)});
  EXPECT_THAT(listed(MVGetRWUserOfBS, 7), ElementsAre("admin", "jiro"));

  // A row of an id that is no user is listed too, and then cannot be read.
  queueUsers();
  server->queueResult({powerRow(7, 99, "1")});
  server->queueResult({userRow(1, "admin", "a", 0)});
  UserRec sentinel{};
  UserRec* list = &sentinel;
  int32_t count = -1;
  EXPECT_EQ(MVGetRWUserOfBS(7, &list, &count), -1);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(count, 0);
}

TEST_F(PermissionsTest, UpdatingTheSetMarksKeptUsersAndResetsTheOthersToTheDefault) {
  queueUsers();
  server->queueResult({powerRow(7, 12, "1"), powerRow(7, 13, "1")});
  server->queueResult({});                      // administrator: no row yet
  server->queueResult({});                      // its table
  server->queueResult({powerRow(7, 12, "1")});  // taro: a row
  UserRec users[2] = {{13, "jiro", "", 1}, {14, "hanako", "", 1}};
  ASSERT_EQ(MVUpdateUserPermissionOfBS(7, users, 2), 0);
  EXPECT_EQ(users[0].tIndex, -1);
  EXPECT_EQ(users[1].tIndex, 14);
  std::vector<std::string> writes;
  for (const Call& c : server->calls) {
    if (c.method == "AddRecord" || c.method == "ExecuteSQL") writes.push_back(c.args[1]);
  }
  EXPECT_THAT(
      writes,
      ElementsAre("[TABLENAME=H4|KEY=BookShelfID\t1\t7|KEY=UserID\t1\t1|KEY=Reserve\t2\t0]",
                  "UPDATE BookShelfPowerTBL SET Reserve='0' WHERE BookShelfID='7' AND UserID='12'",
                  "[TABLENAME=H7|KEY=BookShelfID\t1\t7|KEY=UserID\t1\t14|KEY=Reserve\t2\t1]"));

  server->failNext("ExecuteQuery", 0xA4);  // the present set is unknown: nothing changes
  EXPECT_EQ(MVUpdateUserPermissionOfBS(7, users, 2), -1);
  EXPECT_EQ(MVUpdateUserPermissionOfBS(7, nullptr, 1), -1);
}

TEST_F(PermissionsTest, ABookHasTheValueOfTheFirstOfAtMostTwentyShelvesRead) {
  server->queueResult({userRow(5, "taro", "t", 1)});
  queueAdmin(1);
  RecordingServer::ResultRows shelves;
  for (int i = 0; i < 25; ++i) shelves.push_back({"KEY=BookShelfID\t1\t" + std::to_string(30 + i)});
  server->queueResult(shelves);
  queueAdmin(1);
  int32_t power = -9;
  ASSERT_EQ(MVGetUserPermissionOfBook(42, "taro", &power), 0);
  EXPECT_EQ(power, 0);
  EXPECT_EQ(call(6),
            "ExecuteQuery(MarvekSystemCommonDB, BookShelfInfoTBL, SELECT BookShelfID FROM "
            "BookShelfInfoTBL WHERE BookID='42', 0)");
  EXPECT_EQ(server->count("GetRecords"), 2 + 20 + 1);
  EXPECT_THAT(call(31), ::testing::HasSubstr("BookShelfID='30' AND UserID='5'"));

  power = -9;
  EXPECT_EQ(MVGetUserPermissionOfBook(42, "nobody", &power), -1);
  EXPECT_EQ(power, -9);
}

TEST_F(PermissionsTest, DeletingAUserTakesItsRowsFirst) {
  ASSERT_EQ(MVDeleteUser(12), 0);
  EXPECT_EQ(server->log(),
            "ExecuteSQL(MarvekSystemCommonDB, DELETE FROM BookShelfPowerTBL WHERE UserID='12')\n"
            "OpenTable(MarvekSystemCommonDB, UserInfoTBL, 0)\n"
            "DeleteRecord(MarvekSystemCommonDB, H1, 12)\n"
            "CloseTable(MarvekSystemCommonDB, H1)\n");
  server->failNext("ExecuteSQL", 0xB1);
  EXPECT_EQ(MVDeleteUser(12), -1);
  EXPECT_EQ(server->calls.size(), 5u);
  server->failNext("DeleteRecord", 0xB2);
  server->failNext("CloseTable", 0xB3);
  EXPECT_EQ(MVDeleteUser(12), -1);
  EXPECT_EQ(mv::connection().lastError, 0xB2);
}

TEST_F(PermissionsTest, AShelfsRowsAreListedWithoutThoseThatCannotBeRead) {
  mv::BookShelfPower power(server);
  mv::PowerRow* rows = nullptr;
  int32_t count = -1;
  EXPECT_EQ(power.listShelfPowers(7, &rows, &count), 0);  // no rows
  server->queueResult({powerRow(7, 12, "2"), {"KEY=UserID\t1\t13"}, powerRow(7, 14, "")});
  ASSERT_EQ(power.listShelfPowers(7, &rows, &count), 1);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(rows[0].userId, 12);
  EXPECT_EQ(rows[0].power, 2);
  EXPECT_EQ(rows[1].bookShelfId, 7);
  EXPECT_EQ(rows[1].power, 1);
  mv::freeResultBlock(rows);
}

}  // namespace
}  // namespace mvtest
