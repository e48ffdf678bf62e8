// Row writes through handles: AddRecord, UpdateRecord, DeleteRecord and DeleteRecords.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RecordsTest : public ServerTest {
 protected:
  int32_t addUser(const std::string& name, int attribute) {
    return addRow(*s, kSystemDb, "UserInfoTBL",
                  {field("UserName", 2, name), field("Password", 2, "pw"),
                   field("UserAttribute", 1, std::to_string(attribute))});
  }
  std::vector<Row> user(int32_t key) {
    return select(*s, kSystemDb,
                  "SELECT * FROM UserInfoTBL WHERE T_Index = " + std::to_string(key));
  }
  std::vector<std::string> userNames() {
    return column(select(*s, kSystemDb, "SELECT * FROM UserInfoTBL ORDER BY T_Index"), "UserName");
  }
};

TEST_F(RecordsTest, AddRecordAssignsTheKeyAndStoresColumnTypes) {
  const Opened users = openTable(*s, kSystemDb, "UserInfoTBL");
  ASSERT_EQ(users.status, 0);
  int32_t first = -1;
  ASSERT_EQ(addRecord(*s, kSystemDb, users.handle,
                      {field("T_Index", 1, "0"), field("UserName", 1, "007"),
                       field("Password", 2, "pw"), field("UserAttribute", 2, "1")},
                      &first),
            0)
      << lastError(*s);
  EXPECT_THAT(first, Gt(1));
  // A key the record names, even one in use, is the server's to choose.
  int32_t second = -1;
  ASSERT_EQ(addRecord(*s, kSystemDb, users.handle,
                      {field("T_Index", 1, "1"), field("UserName", 2, "second")}, &second),
            0)
      << lastError(*s);
  EXPECT_THAT(second, Gt(first));
  EXPECT_THAT(userNames(), ElementsAre("admin", "007", "second"));

  const auto row = user(first);
  ASSERT_THAT(row, SizeIs(1));
  EXPECT_EQ(row[0].at("UserName"), "007");
  EXPECT_EQ(row[0].at("UserAttribute"), "1");
  const Opened byInt =
      executeQuery(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE UserAttribute = 1");
  std::vector<std::string> elements;
  ASSERT_EQ(getRow(*s, kSystemDb, byInt.handle, 0, elements), 0);
  EXPECT_THAT(elements, Contains("KEY=UserAttribute\t1\t1"));
  EXPECT_THAT(elements, Contains("KEY=UserName\t2\t007"));
}

TEST_F(RecordsTest, ElementsWithoutAKeyAreSkippedAndUnknownColumnsRefused) {
  const Opened users = openTable(*s, kSystemDb, "UserInfoTBL");
  int32_t key = -1;
  ASSERT_EQ(addRecord(*s, kSystemDb, users.handle,
                      {field("UserName", 2, "carol"), "", "no marker here",
                       field("Password", 2, "secret")},
                      &key),
            0)
      << lastError(*s);
  const auto carol = user(key);
  ASSERT_THAT(carol, SizeIs(1));
  EXPECT_EQ(carol[0].at("UserName"), "carol");
  EXPECT_EQ(carol[0].at("Password"), "secret");

  EXPECT_NE(addRecord(*s, kSystemDb, users.handle,
                      {field("UserName", 2, "dave"), field("NoSuchColumn", 2, "x")}, &key),
            0);
  EXPECT_THAT(lastError(*s), testing::Not(IsEmpty()));
  EXPECT_NE(addRecord(*s, kSystemDb, "H999.999", {field("UserName", 2, "erin")}, &key), 0);
  EXPECT_NE(addRecord(*s, "MarvekCommonDB", users.handle, {field("UserName", 2, "fred")}, &key), 0);
  EXPECT_THAT(userNames(), ElementsAre("admin", "carol"));
}

// The library adds, changes and deletes rows through the handle of the query that found them.
TEST_F(RecordsTest, QueryHandlesWriteToTheTableTheirStatementNames) {
  const int32_t key = addUser("kept", 1);
  const Opened query =
      executeQuery(*s, kSystemDb, "SELECT T_Index FROM UserInfoTBL WHERE UserName='kept'");
  ASSERT_EQ(query.status, 0);
  int32_t added = -1;
  ASSERT_EQ(addRecord(*s, kSystemDb, query.handle, {field("UserName", 2, "x")}, &added), 0)
      << lastError(*s);
  EXPECT_EQ(updateRecord(*s, kSystemDb, query.handle, {field("Password", 2, "new")}, key), 0);
  EXPECT_EQ(user(key).at(0).at("Password"), "new");
  EXPECT_EQ(s->DeleteRecord(In(kSystemDb), In(query.handle), added), 0) << lastError(*s);
  EXPECT_THAT(userNames(), ElementsAre("admin", "kept"));
}

TEST_F(RecordsTest, UpdateRecordChangesOnlyTheNamedColumnsOfOneRow) {
  const int32_t key = addUser("erin", 1);
  const Opened users = openTable(*s, kSystemDb, "UserInfoTBL");
  ASSERT_EQ(updateRecord(*s, kSystemDb, users.handle, {field("Password", 2, "new")}, key), 0)
      << lastError(*s);
  const auto erin = user(key);
  ASSERT_THAT(erin, SizeIs(1));
  EXPECT_EQ(erin[0].at("UserName"), "erin");
  EXPECT_EQ(erin[0].at("Password"), "new");
  EXPECT_EQ(erin[0].at("UserAttribute"), "1");
  EXPECT_EQ(user(1).at(0).at("Password"), "admin");

  EXPECT_EQ(updateRecord(*s, kSystemDb, users.handle, {field("UserAttribute", 2, "3")}, key), 0);
  EXPECT_EQ(user(key).at(0).at("UserAttribute"), "3");

  EXPECT_NE(updateRecord(*s, kSystemDb, users.handle, {field("Password", 2, "x")}, 9999), 0);
  EXPECT_NE(updateRecord(*s, kSystemDb, users.handle, {field("NoSuchColumn", 2, "x")}, key), 0);
  EXPECT_EQ(user(key).at(0).at("Password"), "new");
}

TEST_F(RecordsTest, DeleteRecordRemovesOneRow) {
  const int32_t gone = addUser("gone", 1);
  addUser("stays", 1);
  const Opened users = openTable(*s, kSystemDb, "UserInfoTBL");
  EXPECT_EQ(s->DeleteRecord(In(kSystemDb), In(users.handle), gone), 0) << lastError(*s);
  EXPECT_THAT(userNames(), ElementsAre("admin", "stays"));
  EXPECT_NE(s->DeleteRecord(In(kSystemDb), In(users.handle), gone), 0);
  EXPECT_NE(s->DeleteRecord(In(kSystemDb), In(users.handle), 9999), 0);
  EXPECT_THAT(userNames(), ElementsAre("admin", "stays"));
}

TEST_F(RecordsTest, DeleteRecordsRemovesTheRowsOfTheSnapshot) {
  addUser("a", 1);
  addUser("b", 1);
  addUser("c", 2);
  const Opened ones = openTableEx(*s, kSystemDb, "UserInfoTBL",
                                  "SELECT * FROM UserInfoTBL WHERE UserAttribute = 1");
  ASSERT_EQ(ones.rows, 2);
  addUser("d", 1);  // after the snapshot: not one of its rows

  const Opened all = openTable(*s, kSystemDb, "UserInfoTBL");
  EXPECT_EQ(s->DeleteRecords(In(kSystemDb), In(all.handle), 0, -1), 0);
  EXPECT_THAT(userNames(), ElementsAre("admin", "a", "b", "c", "d"));

  EXPECT_EQ(s->DeleteRecords(In(kSystemDb), In(ones.handle), 0, ones.rows - 1), 0) << lastError(*s);
  EXPECT_THAT(userNames(), ElementsAre("admin", "c", "d"));

  const Opened none = openTableEx(*s, kSystemDb, "UserInfoTBL",
                                  "SELECT * FROM UserInfoTBL WHERE UserAttribute = 99");
  ASSERT_EQ(none.rows, 0);
  EXPECT_EQ(s->DeleteRecords(In(kSystemDb), In(none.handle), 0, none.rows - 1), 0);
  EXPECT_THAT(userNames(), ElementsAre("admin", "c", "d"));
}

}  // namespace
}  // namespace mvtest::server
