// Handles and the result snapshots behind them: what a row looks like on the wire, and that a
// snapshot is taken once and kept.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::SizeIs;

class SnapshotTest : public ServerTest {
 protected:
  void addUser(const std::string& name, int attribute) {
    addRow(*s, kSystemDb, "UserInfoTBL",
           {field("UserName", 2, name), field("Password", 2, "pw"),
            field("UserAttribute", 1, std::to_string(attribute))});
  }
};

TEST_F(SnapshotTest, EveryWayOfOpeningGivesAHandleAndTheRowCount) {
  addUser("u1", 1);
  addUser("u2", 1);

  const Opened table = openTable(*s, kSystemDb, "UserInfoTBL");
  EXPECT_EQ(table.status, 0);
  EXPECT_EQ(table.rows, 3);
  const Opened query =
      executeQuery(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE UserAttribute = 1");
  EXPECT_EQ(query.status, 0);
  EXPECT_EQ(query.rows, 2);
  const Opened ex =
      openTableEx(*s, kSystemDb, "UserInfoTBL", "SELECT * FROM UserInfoTBL WHERE UserName = 'u2'");
  EXPECT_EQ(ex.status, 0);
  EXPECT_EQ(ex.rows, 1);
  const Opened none =
      executeQuery(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE UserName = 'nobody'");
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.rows, 0);

  for (const Opened* o : {&table, &query, &ex, &none}) EXPECT_FALSE(o->handle.empty());
  EXPECT_NE(table.handle, query.handle);
  EXPECT_NE(query.handle, ex.handle);
  EXPECT_NE(ex.handle, none.handle);

  EXPECT_NE(openTable(*s, kSystemDb, "NoSuchTBL").status, 0);
  EXPECT_EQ(executeQuery(*s, "NoSuchDB", "SELECT * FROM UserInfoTBL").status,
            mv::kStatusMissingDatabase);
}

TEST_F(SnapshotTest, RowsAreTaggedTextsInColumnOrderWithoutBlobs) {
  const Opened users = openTable(*s, kSystemDb, "UserInfoTBL");
  mv::Variant row;
  ASSERT_EQ(s->GetRecords(In(kSystemDb), In(users.handle), 0, row.get()), 0);
  EXPECT_EQ(row.get()->vt, MV_VT_ARRAY | MV_VT_VARIANT);
  EXPECT_THAT(texts(*row.get()), ElementsAre("KEY=T_Index\t1\t1", "KEY=UserName\t2\tadmin",
                                             "KEY=Password\t2\tadmin", "KEY=UserAttribute\t1\t0"));

  // A projection keeps the order the statement asks for.
  std::vector<std::string> projected;
  const Opened names = executeQuery(*s, kSystemDb, "SELECT UserName, T_Index FROM UserInfoTBL");
  ASSERT_EQ(getRow(*s, kSystemDb, names.handle, 0, projected), 0);
  EXPECT_THAT(projected, ElementsAre("KEY=UserName\t2\tadmin", "KEY=T_Index\t1\t1"));

  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  const int32_t key = addRow(*s, kBook, "ImageDataTBL",
                             {field("TagID", 1, "7"), field("Up_Date", 3, "2024/01/31 12:34:56"),
                              field("FileName", 2, "図面.tif")});
  const Opened images = openTable(*s, kBook, "ImageDataTBL");
  std::vector<std::string> image;
  ASSERT_EQ(getRow(*s, kBook, images.handle, 0, image), 0);
  EXPECT_THAT(image, ElementsAre("KEY=T_Index\t1\t" + std::to_string(key), "KEY=TagID\t1\t7",
                                 "KEY=Up_DateCounter\t1\t", "KEY=Attribute\t1\t",
                                 "KEY=GroupNo\t1\t", "KEY=Various\t2\t", "KEY=SubIndex\t1\t",
                                 "KEY=ImageDataInfo\t2\t", "KEY=Up_Date\t3\t2024/01/31 12:34:56",
                                 "KEY=ImgFType\t1\t", "KEY=FileName\t2\t図面.tif"));
}

TEST_F(SnapshotTest, AnOpenSnapshotIgnoresLaterWrites) {
  const Opened before = openTable(*s, kSystemDb, "UserInfoTBL");
  ASSERT_EQ(before.rows, 1);

  Session other = connect();
  addRow(*other, kSystemDb, "UserInfoTBL", {field("UserName", 2, "late")});
  ASSERT_EQ(other->ExecuteSQL(In(kSystemDb),
                              In("UPDATE UserInfoTBL SET Password = 'changed' WHERE T_Index = 1")),
            0);
  addUser("later", 1);

  std::vector<std::string> row;
  ASSERT_EQ(getRow(*s, kSystemDb, before.handle, 0, row), 0);
  EXPECT_EQ(row.at(2), "KEY=Password\t2\tadmin");
  EXPECT_NE(getRow(*s, kSystemDb, before.handle, 1, row), 0);

  const Opened after = openTable(*s, kSystemDb, "UserInfoTBL");
  EXPECT_EQ(after.rows, 3);
  ASSERT_EQ(getRow(*s, kSystemDb, after.handle, 0, row), 0);
  EXPECT_EQ(row.at(2), "KEY=Password\t2\tchanged");
}

TEST_F(SnapshotTest, BadRowsAndHandlesFailWithAReason) {
  const Opened users = openTable(*s, kSystemDb, "UserInfoTBL");
  mv::Variant row;
  EXPECT_NE(s->GetRecords(In(kSystemDb), In(users.handle), users.rows, row.get()), 0);
  EXPECT_NE(s->GetRecords(In(kSystemDb), In(users.handle), -1, row.get()), 0);
  EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);

  Session fresh = connect();
  EXPECT_NE(fresh->GetRecords(In(kSystemDb), In("H999.999"), 0, row.get()), 0);
  const std::string reason = lastError(*fresh);
  EXPECT_THAT(reason, Not(SizeIs(0)));
  EXPECT_TRUE(hasNonAscii(reason)) << reason;

  // Handles belong to the session that opened them.
  EXPECT_NE(fresh->GetRecords(In(kSystemDb), In(users.handle), 0, row.get()), 0);
  EXPECT_NE(closeTable(*fresh, kSystemDb, users.handle), 0);

  EXPECT_EQ(closeTable(*s, kSystemDb, users.handle), 0);
  EXPECT_NE(s->GetRecords(In(kSystemDb), In(users.handle), 0, row.get()), 0);
  EXPECT_NE(closeTable(*s, kSystemDb, users.handle), 0);
}

}  // namespace
}  // namespace mvtest::server
