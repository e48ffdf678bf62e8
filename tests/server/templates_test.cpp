// Template book databases: listing, adding, making books from, deleting and re-versioning them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct Templates {
  std::vector<std::string> infos;
  std::vector<std::string> names;
  std::vector<int32_t> versions;
};

class TemplatesTest : public ServerTest {
 protected:
  Templates list() {
    mv::Variant infos, names, versions;
    EXPECT_EQ(s->GetOrgBookDBInfo(infos.get(), names.get(), versions.get()), 0);
    return {texts(*infos.get()), texts(*names.get()), ints(*versions.get())};
  }
  std::vector<std::string> tags(const char* db) {
    return column(select(*s, db, "SELECT * FROM TagPageTBL ORDER BY T_Index"), "TagName");
  }
};

TEST_F(TemplatesTest, AddedTemplatesAreListedAndMakeBooks) {
  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "雛形の頁")});

  ASSERT_EQ(s->AddOrgBookDB(In("空"), In("空のブック"), In(""), 5), 0) << lastError(*s);
  ASSERT_EQ(s->AddOrgBookDB(In("写し"), In("既存のブックから"), In(kBook), 6), 0) << lastError(*s);
  const Templates t = list();
  EXPECT_THAT(t.names, ElementsAre("標準", "空", "写し"));
  EXPECT_THAT(t.versions, ElementsAre(4, 5, 6));
  ASSERT_THAT(t.infos, SizeIs(3));
  EXPECT_EQ(t.infos[1], "空のブック");
  EXPECT_EQ(t.infos[2], "既存のブックから");

  ASSERT_EQ(s->CreateBookDatabase(In("空"), In(""), In("BOOK2")), 0) << lastError(*s);
  EXPECT_EQ(s->CheckTBL(In("BOOK2"), In("ImageDataTBL")), mv::kStatusTableExists);
  EXPECT_THAT(tags("BOOK2"), IsEmpty());
  ASSERT_EQ(s->CreateBookDatabase(In("写し"), In(""), In("BOOK3")), 0) << lastError(*s);
  EXPECT_THAT(tags("BOOK3"), ElementsAre("雛形の頁"));

  // A template is a copy: later changes to its source do not reach it.
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "後から")});
  ASSERT_EQ(s->CreateBookDatabase(In("写し"), In(""), In("BOOK4")), 0) << lastError(*s);
  EXPECT_THAT(tags("BOOK4"), ElementsAre("雛形の頁"));

  EXPECT_NE(s->AddOrgBookDB(In("空"), In("二つ目"), In(""), 7), 0);
  EXPECT_NE(s->AddOrgBookDB(In("無い元"), In(""), In("BOOK9999999999"), 7), 0);
  EXPECT_NE(s->AddOrgBookDB(In(""), In(""), In(""), 7), 0);
  EXPECT_THAT(list().names, ElementsAre("標準", "空", "写し"));
}

TEST_F(TemplatesTest, TemplatesAreDeletedAndReversionedByPosition) {
  ASSERT_EQ(s->AddOrgBookDB(In("A"), In("a"), In(""), 5), 0);
  ASSERT_EQ(s->AddOrgBookDB(In("B"), In("b"), In(""), 6), 0);
  ASSERT_EQ(s->CreateBookDatabase(In("A"), In(""), In("BOOKA")), 0);

  EXPECT_EQ(s->RenameOrgBookDB(2, 9), 0) << lastError(*s);
  EXPECT_THAT(list().versions, ElementsAre(4, 5, 9));

  EXPECT_EQ(s->DeleteOrgBookDB(1), 0) << lastError(*s);
  const Templates t = list();
  EXPECT_THAT(t.names, ElementsAre("標準", "B"));
  EXPECT_THAT(t.versions, ElementsAre(4, 9));
  EXPECT_THAT(t.infos, SizeIs(2));

  EXPECT_NE(s->CreateBookDatabase(In("A"), In(""), In("BOOKA2")), 0);
  EXPECT_EQ(s->CreateBookDatabase(In("B"), In(""), In("BOOKB")), 0) << lastError(*s);
  int32_t out = 0;
  EXPECT_EQ(s->OpenDatabase(In("BOOKA"), mv::kOpenTestExists, &out), 0);

  EXPECT_NE(s->DeleteOrgBookDB(2), 0);
  EXPECT_NE(s->DeleteOrgBookDB(-1), 0);
  EXPECT_NE(s->RenameOrgBookDB(2, 1), 0);
  EXPECT_NE(s->RenameOrgBookDB(-1, 1), 0);
  EXPECT_THAT(list().versions, ElementsAre(4, 9));
}

}  // namespace
}  // namespace mvtest::server
