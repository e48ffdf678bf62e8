// What sessions share through the core (mutexes, logons, counters) and whole databases: books
// made from templates, copied and deleted, and the templates themselves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "book_server_session.h"
#include "server/core/status.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using namespace mv::server;

constexpr int32_t kFailed = -100;

class SessionsTest : public ServerTest {
 protected:
  int32_t counter(Server& server, const char* name, int32_t op) {
    int32_t value = -1;
    return server.SetCounter(In(name), op, &value) == 0 ? value : kFailed;
  }
  int32_t bookCounter(const char* db) {
    uint8_t block[16] = {};
    int32_t value = -1;
    return s->GetBookUpdateCounter(In(db), block, &value) == 0 ? value : kFailed;
  }
  int32_t tagCounter(int32_t tag, int32_t op) {
    uint8_t block[16] = {};
    int32_t value = -1;
    return s->TagUpdateCounter(In(kBook), tag, op, block, &value) == 0 ? value : kFailed;
  }
  // Runs `work` on n sessions of their own at once.
  template <typename Work>
  void together(int n, Work work) {
    std::vector<Session> sessions;
    for (int i = 0; i < n; ++i) sessions.push_back(connect());
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) threads.emplace_back(work, i, sessions[i].get());
    for (std::thread& t : threads) t.join();
  }
};

TEST_F(SessionsTest, AMutexBelongsToTheSessionThatTookItUntilReleasedOrTheSessionEnds) {
  Session b = connect();
  // Op 0 asks, 1 takes, 2 releases.
  const std::tuple<Server*, const char*, int32_t, int32_t> steps[] = {
      {s.get(), "shelf", 1, kMutexFree},          {s.get(), "shelf", 1, kMutexFree},
      {b.get(), "shelf", 0, kMutexHeldByAnother}, {b.get(), "shelf", 1, kMutexHeldByAnother},
      {b.get(), "shelf", 2, kMutexHeldByAnother}, {b.get(), "other", 1, kMutexFree},
      {s.get(), "shelf", 2, kMutexFree},          {s.get(), "shelf", 2, kMutexNotHeld},
      {b.get(), "shelf", 0, kMutexFree},          {b.get(), "shelf", 1, kMutexFree},
      {s.get(), "shelf", 0, kMutexHeldByAnother}, {s.get(), "other", 1, kMutexHeldByAnother}};
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    const auto& [session, name, op, result] = steps[i];
    EXPECT_EQ(session->SetMutex(In(name), op), result) << "step " << i;
  }
  b.reset();
  EXPECT_EQ(s->SetMutex(In("shelf"), 1), kMutexFree);
  EXPECT_EQ(s->SetMutex(In("other"), 1), kMutexFree);
}

TEST_F(SessionsTest, SessionsOnSeveralThreadsExcludeEachOtherAndCountExactly) {
  std::atomic<int> inside{0}, overlaps{0};
  together(4, [&](int, Server* server) {
    for (int round = 0; round < 50; ++round) {
      while (server->SetMutex(In("shared"), 1) != kMutexFree) std::this_thread::yield();
      if (inside.fetch_add(1) != 0) ++overlaps;
      int32_t value = 0;
      server->SetCounter(In("rounds"), 1, &value);
      inside.fetch_sub(1);
      server->SetMutex(In("shared"), 2);
    }
  });
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(counter(*s, "rounds", 0), 200);
}

TEST_F(SessionsTest, LogonsAreListedUntilTheirSessionEndsAndRolesChange) {
  Session b = connect();
  const auto logons = [&](int32_t expectedCount) {
    mv::Variant list;
    int32_t count = -1;
    EXPECT_EQ(s->GetLoginUsers(list.get(), &count), 0);
    EXPECT_EQ(count, expectedCount);
    return list.get()->vt == MV_VT_EMPTY ? std::vector<std::string>{} : texts(*list.get());
  };
  EXPECT_EQ(s->LoginMgr(In("admin"), In("PC-1"), In("admin"), 1), 0) << lastError(*s);
  EXPECT_EQ(b->LoginMgr(In("admin"), In("端末2"), In("admin"), 1), 0) << lastError(*b);
  EXPECT_NE(b->LoginMgr(In("admin"), In("PC-3"), In("wrong"), 1), 0);
  EXPECT_THAT(lastError(*b), Not(IsEmpty()));
  EXPECT_NE(b->LoginMgr(In("nobody"), In("PC-3"), In("admin"), 1), 0);
  EXPECT_THAT(logons(2), ElementsAre("admin", "PC-1", "admin", "端末2"));
  b.reset();
  EXPECT_THAT(logons(1), ElementsAre("admin", "PC-1"));
  EXPECT_EQ(s->LoginMgr(In("admin"), In(""), In(""), 0), 0);
  EXPECT_THAT(logons(0), IsEmpty());

  // SetUserAdmin: 0 asks, 1 makes an administrator, 2 takes it back; the row is untouched.
  EXPECT_EQ(s->SetUserAdmin(In("admin"), In("admin"), 0), kUserIsAdmin);
  addRow(
      *s, kSystemDb, "UserInfoTBL",
      {field("UserName", 2, "worker"), field("Password", 2, "pw"), field("UserAttribute", 1, "1")});
  for (const auto& [op, role] : {std::pair{0, kUserIsNotAdmin},
                                 {1, kUserIsAdmin},
                                 {0, kUserIsAdmin},
                                 {2, kUserIsNotAdmin},
                                 {0, kUserIsNotAdmin}}) {
    EXPECT_EQ(s->SetUserAdmin(In("worker"), In("pw"), op), role) << op;
  }
  EXPECT_EQ(column(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE T_Index = 2", "UserAttribute"),
            "1");
  for (const int32_t status :
       {s->SetUserAdmin(In("worker"), In("wrong"), 0), s->SetUserAdmin(In("nobody"), In(""), 0)}) {
    EXPECT_TRUE(status != 0 && status != kUserIsAdmin && status != kUserIsNotAdmin) << status;
  }
}

TEST_F(SessionsTest, CountersAreSharedStepByOneAndRisePerBookOrTag) {
  Session b = connect();
  const std::tuple<Server*, const char*, int32_t, int32_t> steps[] = {
      {s.get(), "伝票番号", 0, 0},       {s.get(), "伝票番号", 1, 1}, {s.get(), "伝票番号", 1, 2},
      {b.get(), "伝票番号", 0, 2},       {b.get(), "伝票番号", 2, 1}, {s.get(), "other", 0, 0},
      {s.get(), "伝票番号", 3, kFailed}, {s.get(), "伝票番号", 0, 1}};
  for (const auto& [session, name, op, value] : steps) {
    EXPECT_EQ(counter(*session, name, op), value) << name << " op " << op;
  }
  createBook(kBook);
  createBook(kOther);
  EXPECT_EQ(bookCounter(kBook), 0);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(s->SetBookUpdateCounter(In(kBook)), 0);
  EXPECT_NE(s->SetBookUpdateCounter(In("BOOK9999999999")), 0);
  for (const auto& [db, value] : {std::pair{kBook, 2}, {kOther, 0}, {"BOOK9999999999", kFailed}}) {
    EXPECT_EQ(bookCounter(db), value) << db;
  }
  const int32_t tag =
      addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "t"), field("Up_DateCounter", 1, "5")});
  const int32_t fresh = addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "u")});
  for (const auto& [key, op, value] : {std::tuple{tag, 0, 5},
                                       {tag, 1, 6},
                                       {tag, 0, 6},
                                       {fresh, 1, 1},
                                       {9999, 0, kFailed},
                                       {9999, 1, kFailed}}) {
    EXPECT_EQ(tagCounter(key, op), value) << key << " op " << op;
  }
  EXPECT_EQ(column(*s, kBook, "SELECT * FROM TagPageTBL ORDER BY T_Index", "Up_DateCounter"),
            "6 1");
}

TEST_F(SessionsTest, CreateBookDatabaseRefusesTakenNamesAndUnknownTemplates) {
  createBook(kBook);
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "kept")});
  EXPECT_NE(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_EQ(tags(kBook), "kept");
  EXPECT_NE(s->CreateBookDatabase(In("ない雛形"), In(""), In(kOther)), 0);
  EXPECT_EQ(exists(kOther), mv::kStatusMissingDatabase);
  for (const char* bad : {"", "_hidden", "../escape", "a/b"}) {
    EXPECT_NE(s->CreateBookDatabase(In(""), In(""), In(bad)), 0) << bad;
  }
  createBook(kOther, "標準");
  EXPECT_EQ(tags(kOther), "");

  // Sessions that make the same book at the same moment: exactly one of them gets it.
  std::atomic<int> made{0};
  together(6, [&](int, Server* server) {
    if (server->CreateBookDatabase(In(""), In(""), In("BOOK1123010010")) == 0) ++made;
  });
  EXPECT_EQ(made.load(), 1);
  EXPECT_EQ(exists("BOOK1123010010"), 0);
}

TEST_F(SessionsTest, CopyDatabaseCopiesRowsAndBlobsAndDeleteDatabaseWaitsForOtherSessions) {
  createBook(kBook);
  for (const char* tag : {"a", "b"}) addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, tag)});
  const int32_t image = addRow(*s, kBook, "ImageDataTBL", {field("TagID", 1, "1")});
  const auto data = pattern(400000, 11);
  ASSERT_EQ(upload(*s, kBook, open(*s, kBook, "ImageDataTBL").handle, image, "RealityData", data),
            0);
  ASSERT_EQ(s->CopyDatabase(In(kBook), In(""), In(kOther), In(""), 0), 0) << lastError(*s);
  EXPECT_EQ(tags(kOther), "a b");
  EXPECT_TRUE(storedBlob(*s, kOther, "ImageDataTBL", image) == data);
  addRow(*s, kOther, "TagPageTBL", {field("TagName", 2, "copy only")});
  EXPECT_EQ(tags(kBook), "a b");
  EXPECT_NE(s->CopyDatabase(In(kBook), In(""), In(kOther), In(""), 0), 0);
  EXPECT_EQ(tags(kOther), "a b copy only");
  EXPECT_NE(s->CopyDatabase(In("BOOK9999999999"), In(""), In("BOOK9999999998"), In(""), 0), 0);
  EXPECT_EQ(exists("BOOK9999999998"), mv::kStatusMissingDatabase);

  // Deleting waits until no other session has the book open.
  Session other = connect();
  int32_t out = 0;
  ASSERT_EQ(other->OpenDatabase(In(kBook), mv::kOpenForWork, &out), 0);
  EXPECT_NE(s->DeleteDatabase(In(kBook), In("")), 0);
  EXPECT_THAT(lastError(*s), Not(IsEmpty()));
  EXPECT_EQ(exists(kBook), 0);
  EXPECT_EQ(other->CloseDatabase(In(kBook)), 0);
  EXPECT_EQ(s->DeleteDatabase(In(kBook), In("")), 0) << lastError(*s);
  EXPECT_EQ(exists(kBook), mv::kStatusMissingDatabase);
  EXPECT_NE(s->DeleteDatabase(In(kBook), In("")), 0);
  createBook(kBook);
  EXPECT_EQ(tags(kBook), "");
  // The deleting session's own hold does not stand in its way; a session's end frees its hold.
  ASSERT_EQ(s->OpenDatabase(In(kBook), mv::kOpenForWork, &out), 0);
  ASSERT_EQ(other->OpenDatabase(In(kBook), mv::kOpenHeld, &out), 0);
  EXPECT_NE(s->DeleteDatabase(In(kBook), In("")), 0);
  other.reset();
  EXPECT_EQ(s->DeleteDatabase(In(kBook), In("")), 0) << lastError(*s);
  EXPECT_EQ(exists(kBook), mv::kStatusMissingDatabase);
}

TEST_F(SessionsTest, TemplatesAreListedAddedUsedDeletedAndReversionedByPosition) {
  // "name/version[/info]" of each template; the standard one has no info.
  const auto list = [&] {
    mv::Variant infos, names, versions;
    EXPECT_EQ(s->GetOrgBookDBInfo(infos.get(), names.get(), versions.get()), 0);
    const auto i = texts(*infos.get()), n = texts(*names.get());
    const auto v = elements<int32_t>(*versions.get(), MV_VT_VARIANT);
    EXPECT_TRUE(i.size() == n.size() && v.size() == n.size());
    std::string out;
    for (std::size_t k = 0; k < std::min({i.size(), n.size(), v.size()}); ++k) {
      out += (k ? " " : "") + n[k] + "/" + std::to_string(v[k]) + (k ? "/" + i[k] : "");
    }
    return out;
  };
  EXPECT_EQ(list(), "標準/4");
  createBook(kBook);
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "雛形の頁")});
  ASSERT_EQ(s->AddOrgBookDB(In("空"), In("空のブック"), In(""), 5), 0) << lastError(*s);
  ASSERT_EQ(s->AddOrgBookDB(In("写し"), In("既存から"), In(kBook), 6), 0) << lastError(*s);
  EXPECT_EQ(list(), "標準/4 空/5/空のブック 写し/6/既存から");
  createBook("BOOK2", "空");
  EXPECT_EQ(s->CheckTBL(In("BOOK2"), In("ImageDataTBL")), mv::kStatusTableExists);
  EXPECT_EQ(tags("BOOK2"), "");
  // A template is a copy: later changes to its source do not reach it.
  addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "後から")});
  createBook("BOOK3", "写し");
  EXPECT_EQ(tags("BOOK3"), "雛形の頁");
  for (const int32_t status : {s->AddOrgBookDB(In("空"), In("二つ目"), In(""), 7),
                               s->AddOrgBookDB(In("無い元"), In(""), In("BOOK9999999999"), 7),
                               s->AddOrgBookDB(In(""), In(""), In(""), 7)}) {
    EXPECT_NE(status, 0);
  }
  EXPECT_EQ(s->RenameOrgBookDB(2, 9), 0) << lastError(*s);
  EXPECT_EQ(s->DeleteOrgBookDB(1), 0) << lastError(*s);
  EXPECT_EQ(list(), "標準/4 写し/9/既存から");
  EXPECT_NE(s->CreateBookDatabase(In("空"), In(""), In("BOOK4")), 0);
  EXPECT_EQ(exists("BOOK2"), 0);
  for (const int32_t status : {s->DeleteOrgBookDB(2), s->DeleteOrgBookDB(-1),
                               s->RenameOrgBookDB(2, 1), s->RenameOrgBookDB(-1, 1)}) {
    EXPECT_NE(status, 0);
  }
  // A restart keeps the templates, without a second standard one.
  reopen();
  EXPECT_EQ(list(), "標準/4 写し/9/既存から");
  createBook("BOOK5", "写し");
}

}  // namespace
}  // namespace mvtest::server
