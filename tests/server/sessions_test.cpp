// What sessions share through the core: named mutexes, logons, counters.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "book_server_session.h"
#include "server/core/status.h"

namespace mvtest::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using mv::server::kMutexFree;
using mv::server::kMutexHeldByAnother;
using mv::server::kMutexNotHeld;
using mv::server::kUserIsAdmin;
using mv::server::kUserIsNotAdmin;

class SessionsTest : public ServerTest {
 protected:
  std::vector<std::string> logons(mv::IBookServer& server, int32_t* count) {
    mv::Variant list;
    EXPECT_EQ(server.GetLoginUsers(list.get(), count), 0);
    return list.get()->vt == MV_VT_EMPTY ? std::vector<std::string>{} : texts(*list.get());
  }
  int32_t counter(mv::IBookServer& server, const char* name, int32_t op) {
    int32_t value = -1;
    EXPECT_EQ(server.SetCounter(In(name), op, &value), 0);
    return value;
  }
  int32_t bookCounter(mv::IBookServer& server, const char* db) {
    uint8_t block[16] = {};
    int32_t value = -1;
    EXPECT_EQ(server.GetBookUpdateCounter(In(db), block, &value), 0) << db;
    return value;
  }
};

TEST_F(SessionsTest, AMutexBelongsToTheSessionThatTookIt) {
  Session b = connect();
  EXPECT_EQ(s->SetMutex(In("shelf"), 1), kMutexFree);
  EXPECT_EQ(s->SetMutex(In("shelf"), 1), kMutexFree);  // taking it again is harmless
  EXPECT_EQ(b->SetMutex(In("shelf"), 0), kMutexHeldByAnother);
  EXPECT_EQ(b->SetMutex(In("shelf"), 1), kMutexHeldByAnother);
  EXPECT_EQ(b->SetMutex(In("shelf"), 2), kMutexHeldByAnother);
  EXPECT_EQ(b->SetMutex(In("other"), 1), kMutexFree);  // names are independent

  EXPECT_EQ(s->SetMutex(In("shelf"), 2), kMutexFree);
  EXPECT_EQ(s->SetMutex(In("shelf"), 2), kMutexNotHeld);
  EXPECT_EQ(b->SetMutex(In("shelf"), 0), kMutexFree);
  EXPECT_EQ(b->SetMutex(In("shelf"), 1), kMutexFree);
  EXPECT_EQ(s->SetMutex(In("shelf"), 0), kMutexHeldByAnother);
}

TEST_F(SessionsTest, EndingASessionReleasesItsMutexes) {
  Session b = connect();
  ASSERT_EQ(b->SetMutex(In("shelf"), 1), kMutexFree);
  ASSERT_EQ(b->SetMutex(In("book"), 1), kMutexFree);
  ASSERT_EQ(s->SetMutex(In("shelf"), 0), kMutexHeldByAnother);
  b.reset();
  EXPECT_EQ(s->SetMutex(In("shelf"), 0), kMutexFree);
  EXPECT_EQ(s->SetMutex(In("shelf"), 1), kMutexFree);
  EXPECT_EQ(s->SetMutex(In("book"), 1), kMutexFree);
}

TEST_F(SessionsTest, SessionsOnSeveralThreadsExcludeEachOtherAndCountExactly) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::vector<Session> sessions;
  for (int i = 0; i < kThreads; ++i) sessions.push_back(connect());
  std::vector<std::thread> threads;
  for (Session& session : sessions) {
    threads.emplace_back([&, server = session.get()] {
      for (int round = 0; round < kRounds; ++round) {
        while (server->SetMutex(In("shared"), 1) != kMutexFree) std::this_thread::yield();
        if (inside.fetch_add(1) != 0) ++overlaps;
        int32_t value = 0;
        server->SetCounter(In("rounds"), 1, &value);
        inside.fetch_sub(1);
        server->SetMutex(In("shared"), 2);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(counter(*s, "rounds", 0), kThreads * kRounds);
}

TEST_F(SessionsTest, LogonsAreListedUntilTheirSessionEnds) {
  Session b = connect();
  EXPECT_EQ(s->LoginMgr(In("admin"), In("PC-1"), In("admin"), 1), 0) << lastError(*s);
  EXPECT_EQ(b->LoginMgr(In("admin"), In("端末2"), In("admin"), 1), 0) << lastError(*b);
  EXPECT_NE(b->LoginMgr(In("admin"), In("PC-3"), In("wrong"), 1), 0);
  EXPECT_THAT(lastError(*b), testing::Not(IsEmpty()));
  EXPECT_NE(b->LoginMgr(In("nobody"), In("PC-3"), In("admin"), 1), 0);

  int32_t count = -1;
  EXPECT_THAT(logons(*s, &count), ElementsAre("admin", "PC-1", "admin", "端末2"));
  EXPECT_EQ(count, 2);

  b.reset();
  EXPECT_THAT(logons(*s, &count), ElementsAre("admin", "PC-1"));
  EXPECT_EQ(count, 1);

  EXPECT_EQ(s->LoginMgr(In("admin"), In(""), In(""), 0), 0);
  EXPECT_THAT(logons(*s, &count), IsEmpty());
  EXPECT_EQ(count, 0);
}

TEST_F(SessionsTest, SetUserAdminAnswersAndChangesTheRole) {
  EXPECT_EQ(s->SetUserAdmin(In("admin"), In("admin"), 0), kUserIsAdmin);
  const int32_t key = addRow(
      *s, kSystemDb, "UserInfoTBL",
      {field("UserName", 2, "worker"), field("Password", 2, "pw"), field("UserAttribute", 1, "1")});
  EXPECT_EQ(s->SetUserAdmin(In("worker"), In("pw"), 0), kUserIsNotAdmin);
  EXPECT_EQ(s->SetUserAdmin(In("worker"), In("pw"), 1), kUserIsAdmin);
  EXPECT_EQ(s->SetUserAdmin(In("worker"), In("pw"), 0), kUserIsAdmin);
  EXPECT_EQ(s->SetUserAdmin(In("worker"), In("pw"), 2), kUserIsNotAdmin);
  EXPECT_EQ(s->SetUserAdmin(In("worker"), In("pw"), 0), kUserIsNotAdmin);
  const auto rows =
      select(*s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE T_Index = " + std::to_string(key));
  EXPECT_THAT(column(rows, "UserAttribute"), ElementsAre("1"));

  for (const int32_t status :
       {s->SetUserAdmin(In("worker"), In("wrong"), 0), s->SetUserAdmin(In("nobody"), In(""), 0)}) {
    EXPECT_NE(status, 0);
    EXPECT_NE(status, kUserIsAdmin);
    EXPECT_NE(status, kUserIsNotAdmin);
  }
}

TEST_F(SessionsTest, NamedCountersAreSharedAndStepByOne) {
  Session b = connect();
  EXPECT_EQ(counter(*s, "伝票番号", 0), 0);
  EXPECT_EQ(counter(*s, "伝票番号", 1), 1);
  EXPECT_EQ(counter(*s, "伝票番号", 1), 2);
  EXPECT_EQ(counter(*b, "伝票番号", 0), 2);
  EXPECT_EQ(counter(*b, "伝票番号", 2), 1);
  EXPECT_EQ(counter(*s, "伝票番号", 0), 1);
  EXPECT_EQ(counter(*s, "other", 0), 0);
  int32_t value = -1;
  EXPECT_NE(s->SetCounter(In("伝票番号"), 3, &value), 0);
  EXPECT_EQ(counter(*s, "伝票番号", 0), 1);
}

TEST_F(SessionsTest, BookUpdateCountersRisePerBook) {
  constexpr char kOther[] = "BOOK1123000002";
  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kOther)), 0);
  EXPECT_EQ(bookCounter(*s, kBook), 0);
  EXPECT_EQ(s->SetBookUpdateCounter(In(kBook)), 0);
  EXPECT_EQ(s->SetBookUpdateCounter(In(kBook)), 0);
  EXPECT_EQ(bookCounter(*s, kBook), 2);
  Session b = connect();
  EXPECT_EQ(bookCounter(*b, kBook), 2);
  EXPECT_EQ(bookCounter(*b, kOther), 0);
  EXPECT_NE(s->SetBookUpdateCounter(In("BOOK9999999999")), 0);
  uint8_t block[16] = {};
  int32_t value = -1;
  EXPECT_NE(s->GetBookUpdateCounter(In("BOOK9999999999"), block, &value), 0);
}

TEST_F(SessionsTest, TagUpdateCounterRaisesThePageRowsCounter) {
  ASSERT_EQ(s->CreateBookDatabase(In(""), In(""), In(kBook)), 0);
  const int32_t tag =
      addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "t"), field("Up_DateCounter", 1, "5")});
  const int32_t fresh = addRow(*s, kBook, "TagPageTBL", {field("TagName", 2, "u")});
  uint8_t block[16] = {};
  int32_t value = -1;
  EXPECT_EQ(s->TagUpdateCounter(In(kBook), tag, 0, block, &value), 0);
  EXPECT_EQ(value, 5);
  EXPECT_EQ(s->TagUpdateCounter(In(kBook), tag, 1, block, &value), 0);
  EXPECT_EQ(value, 6);
  value = -1;
  EXPECT_EQ(s->TagUpdateCounter(In(kBook), tag, 0, block, &value), 0);
  EXPECT_EQ(value, 6);
  EXPECT_EQ(s->TagUpdateCounter(In(kBook), fresh, 1, block, &value), 0);
  EXPECT_EQ(value, 1);

  const auto rows = select(*s, kBook, "SELECT * FROM TagPageTBL ORDER BY T_Index");
  EXPECT_THAT(column(rows, "Up_DateCounter"), ElementsAre("6", "1"));
  EXPECT_NE(s->TagUpdateCounter(In(kBook), 9999, 0, block, &value), 0);
  EXPECT_NE(s->TagUpdateCounter(In(kBook), 9999, 1, block, &value), 0);
}

}  // namespace
}  // namespace mvtest::server
