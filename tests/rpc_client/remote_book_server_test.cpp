// RemoteBookServer against the test daemon: rows in batches, what crosses the wire and back,
// and what a lost daemon looks like to the caller.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "remote_test_util.h"

namespace mvtest {
namespace {

using mv::rpc::kStatusCallFailed;
using mv::rpc::kStatusServerUnavailable;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

class RemoteTest : public ::testing::Test {
 protected:
  TestDaemon daemon;
  const mv::Bstr db{u"Book1"};
  const mv::Bstr table{u"TagPageTBL"};

  // Opens the daemon's table; the handle's text.
  std::u16string open(mv::IBookServer& s) {
    int32_t rows = 0;
    mv::Bstr handle;
    EXPECT_EQ(s.OpenTable(db.get(), table.get(), 0, &rows, handle.out()), 0);
    EXPECT_EQ(rows, 3000);
    return std::u16string(handle.view());
  }

  int32_t read(mv::IBookServer& s, const std::u16string& handle, int row, mv::Variant& out) {
    out.clear();
    return s.GetRecords(db.get(), mv::Bstr(handle).get(), row, out.get());
  }
};

// --- rows --------------------------------------------------------------------------------------

class RemoteRows : public RemoteTest {};

TEST_F(RemoteRows, PrefetchAndRefillBringEveryRowInOrderWithFewCalls) {
  Link s(daemon);
  ASSERT_EQ(s.status(), 0);
  const std::u16string handle = open(*s.get());
  EXPECT_EQ(daemon.log().lastPrefetch, 256u);
  for (int i = 0; i < 3000; ++i) {
    mv::Variant row;
    ASSERT_EQ(read(*s.get(), handle, i, row), 0) << "row " << i;
    ASSERT_EQ(rowTexts(row), expectedRow(i, 0)) << "row " << i;
  }
  // 256 rows came with the table; refills of 1024 start at rows 256, 1280 and 2304.
  EXPECT_EQ(daemon.log().opens, 1);
  EXPECT_EQ(daemon.log().getRecords, 3);
  EXPECT_EQ(daemon.log().lastCount, 1024u);
  EXPECT_EQ(daemon.log().lastRowIndex, 2304);
}

TEST_F(RemoteRows, QueriesBringTheirFirstRowsToo) {
  Link s(daemon);
  int32_t rows = 0;
  mv::Bstr query, ex;
  const mv::Bstr sql(u"SELECT * FROM TagPageTBL");
  ASSERT_EQ(s->ExecuteQuery(db.get(), table.get(), sql.get(), 0, &rows, query.out()), 0);
  ASSERT_EQ(s->OpenTableEx(db.get(), table.get(), sql.get(), 1, &rows, ex.out()), 0);
  for (int i = 0; i < 256; ++i) {
    mv::Variant a, b;
    ASSERT_EQ(read(*s.get(), std::u16string(query.view()), i, a), 0);
    ASSERT_EQ(read(*s.get(), std::u16string(ex.view()), i, b), 0);
    ASSERT_EQ(rowTexts(a), expectedRow(i, 0));
    ASSERT_EQ(rowTexts(b), expectedRow(i, 0));
  }
  EXPECT_EQ(daemon.log().getRecords, 0);
}

TEST_F(RemoteRows, ARowOutsideTheHeldRunIsFetchedFromThere) {
  Link s(daemon);
  const std::u16string handle = open(*s.get());
  mv::Variant row;
  ASSERT_EQ(read(*s.get(), handle, 300, row), 0);  // refill 300..1323
  EXPECT_EQ(daemon.log().lastRowIndex, 300);
  ASSERT_EQ(read(*s.get(), handle, 10, row), 0);  // behind the run: refill 10..1033
  EXPECT_EQ(daemon.log().lastRowIndex, 10);
  EXPECT_EQ(rowTexts(row), expectedRow(10, 0));
  ASSERT_EQ(read(*s.get(), handle, 1033, row), 0);
  ASSERT_EQ(read(*s.get(), handle, 1034, row), 0);
  EXPECT_EQ(daemon.log().lastRowIndex, 1034);
  EXPECT_EQ(daemon.log().getRecords, 3);
  // What is held was read for one database; the same handle text with another is asked for.
  const mv::Bstr otherDb(u"Book2");
  ASSERT_EQ(s->GetRecords(otherDb.get(), mv::Bstr(handle).get(), 1035, row.get()), 0);
  EXPECT_EQ(daemon.log().getRecords, 4);
}

TEST_F(RemoteRows, ARowPastTheEndGetsTheServersStatusAndTheRowIsLeftAlone) {
  Link s(daemon);
  const std::u16string handle = open(*s.get());
  mv::Variant row;
  EXPECT_EQ(read(*s.get(), handle, 3000, row), kNoRow);
  EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);
  EXPECT_EQ(read(*s.get(), handle, -1, row), kNoRow);
  EXPECT_EQ(daemon.log().getRecords, 2);
}

TEST_F(RemoteRows, BatchSizesFollowTheOptions) {
  mv::rpc::RemoteOptions perRow;
  perRow.prefetch = 0;
  perRow.refill = 1;
  Link s(daemon, perRow);
  const std::u16string handle = open(*s.get());
  EXPECT_EQ(daemon.log().lastPrefetch, 0u);
  for (int i = 0; i < 10; ++i) {
    mv::Variant row;
    ASSERT_EQ(read(*s.get(), handle, i, row), 0);
    ASSERT_EQ(rowTexts(row), expectedRow(i, 0));
  }
  EXPECT_EQ(daemon.log().getRecords, 10);
  EXPECT_EQ(daemon.log().lastCount, 1u);
}

TEST_F(RemoteRows, AWriteThroughAHandleDropsItsRowsAndOnlyItsRows) {
  Link s(daemon);
  const std::u16string h1 = open(*s.get());
  const std::u16string h2 = open(*s.get());
  const mv::Bstr column(u"Image");

  // Each write goes through the handle it is given; element texts name it as the library does.
  const std::vector<std::pair<const char*, std::function<int32_t(const std::u16string&)>>> writes =
      {
          {"AddRecord",
           [&](const std::u16string& h) {
             mv::Variant rec;
             makeTexts(rec, {u"TABLENAME=" + h, u"KEY=Name\t2\tx"});
             int32_t index = 0;
             return s->AddRecord(db.get(), rec.get(), 2, &index);
           }},
          {"UpdateRecord",
           [&](const std::u16string& h) {
             mv::Variant rec;
             makeTexts(rec, {u"TABLENAME=" + h, u"KEY=Name\t2\ty"});
             int32_t index = 5;
             return s->UpdateRecord(db.get(), rec.get(), 2, &index);
           }},
          {"DeleteRecord",
           [&](const std::u16string& h) {
             return s->DeleteRecord(db.get(), mv::Bstr(h).get(), 5);
           }},
          {"DeleteRecords",
           [&](const std::u16string& h) {
             return s->DeleteRecords(db.get(), mv::Bstr(h).get(), 0, 1);
           }},
          {"UpLoadData",
           [&](const std::u16string& h) {
             mv::Variant rec, block;
             makeTexts(rec, {u"DBNAME=Book1", u"TABLENAME=" + h, u"MSTKEY=5", u"KEY=Image"});
             EXPECT_TRUE(block.makeArray(MV_VT_UI1, 16));
             return s->UpLoadData(rec.get(), 1, 16, block.get(), 1);
           }},
      };
  int row = 0;
  for (const auto& [name, write] : writes) {
    SCOPED_TRACE(name);
    mv::Variant v;
    // Whatever h1 holds now, row `row` is served from it after at most one refill.
    ASSERT_EQ(read(*s.get(), h1, row, v), 0);
    const int before = daemon.log().getRecords;
    const int heldGeneration = daemon.generation();

    ASSERT_EQ(write(h2), 0);
    ASSERT_EQ(read(*s.get(), h1, row + 1, v), 0);
    EXPECT_EQ(daemon.log().getRecords, before) << "a write through h2 dropped h1's rows";
    EXPECT_EQ(rowTexts(v), expectedRow(row + 1, heldGeneration));

    ASSERT_EQ(write(h1), 0);
    ASSERT_EQ(read(*s.get(), h1, row + 2, v), 0);
    EXPECT_EQ(daemon.log().getRecords, before + 1) << "h1's rows outlived a write through it";
    EXPECT_EQ(rowTexts(v), expectedRow(row + 2, daemon.generation()));
    row += 3;
  }
}

TEST_F(RemoteRows, ClosingTheHandleOrDeletingTheDatabaseForgetsItsRows) {
  Link s(daemon);
  const std::u16string h1 = open(*s.get());
  const std::u16string h2 = open(*s.get());
  mv::Variant row;
  ASSERT_EQ(s->CloseTable(db.get(), mv::Bstr(h1).get()), 0);
  EXPECT_EQ(read(*s.get(), h1, 3, row), kBadHandle);
  EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);

  ASSERT_EQ(read(*s.get(), h2, 3, row), 0);
  ASSERT_EQ(s->DeleteDatabase(db.get(), nullptr), 0);
  EXPECT_EQ(read(*s.get(), h2, 4, row), kBadHandle);
  EXPECT_EQ(daemon.log().getRecords, 2);
}

// --- the link ----------------------------------------------------------------------------------

class LinkTest : public RemoteTest {};

TEST_F(LinkTest, NobodyListeningIsServerUnavailableAtOnce) {
  mv::rpc::ServerEndpoint e;
  e.address = "127.0.0.1";
  e.port = closedPort();
  mv::IBookServer* server = reinterpret_cast<mv::IBookServer*>(1);
  const auto t0 = Clock::now();
  EXPECT_EQ(mv::rpc::connectRemote(e, {}, &server), kStatusServerUnavailable);
  EXPECT_EQ(server, nullptr);
  EXPECT_LT(Clock::now() - t0, milliseconds(2000));
  EXPECT_FALSE(mv::rpc::lastConnectError().empty());
}

TEST_F(LinkTest, TheSocketProbesForADeadPeer) {
  Link s(daemon);
  mv::rpc::KeepAlive k{0, 0, 0};
  ASSERT_TRUE(s.remote()->keepAlive(k));
  EXPECT_EQ(k.idle, 10);
  EXPECT_EQ(k.interval, 3);
  EXPECT_EQ(k.count, 3);
}

TEST_F(LinkTest, ADeadDaemonFailsEveryCallPromptly) {
  Link s(daemon);
  const std::u16string handle = open(*s.get());
  ASSERT_EQ(s->ConnectCheck(), 0);
  daemon.kill();

  const auto t0 = Clock::now();
  EXPECT_NE(s->ConnectCheck(), 0);
  EXPECT_LT(Clock::now() - t0, milliseconds(2000));
  EXPECT_TRUE(s.remote()->broken());
  // From now on nothing is sent: every call fails at once, held rows included.
  const auto t1 = Clock::now();
  mv::Variant row;
  EXPECT_EQ(read(*s.get(), handle, 1, row), kStatusServerUnavailable);
  EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);
  int32_t a = 3, b = 4;
  EXPECT_EQ(s->GetConnect(&a, &b), kStatusServerUnavailable);
  EXPECT_EQ(a, 3);
  EXPECT_EQ(s->ConnectCheck(), kStatusServerUnavailable);
  EXPECT_LT(Clock::now() - t1, milliseconds(200));
  s.release();  // a broken link still goes quietly
}

TEST_F(LinkTest, ACallUnderWayWhenTheDaemonDiesFailsAndLaterOnesFindItGone) {
  Link s(daemon);
  std::thread killer([&] {
    std::this_thread::sleep_for(milliseconds(200));
    daemon.kill();
  });
  const auto t0 = Clock::now();
  const int32_t status = s->CheckSQLServerType();  // the daemon never answers this one
  const auto waited = Clock::now() - t0;
  killer.join();
  EXPECT_EQ(status, kStatusCallFailed);
  EXPECT_GE(waited, milliseconds(150));
  EXPECT_LT(waited, milliseconds(3000));
  EXPECT_EQ(s->ConnectCheck(), kStatusServerUnavailable);
}

TEST_F(LinkTest, TheTokenIsSentAndAWrongOneIsRefused) {
  DaemonOptions o;
  o.token = "s3cret";
  TestDaemon guarded(o);
  {
    Link ok(guarded, {}, "s3cret");
    ASSERT_EQ(ok.status(), 0);
    EXPECT_EQ(ok->ConnectCheck(), 0);
  }
  Link wrong(guarded, {}, "guess");
  EXPECT_EQ(wrong.status(), mv::rpc::kStatusAccessDenied);
  Link none(guarded);
  EXPECT_EQ(none.status(), mv::rpc::kStatusAccessDenied);
  EXPECT_EQ(guarded.log().logins, 1);
  std::lock_guard<std::mutex> lock(guarded.log().mutex);
  EXPECT_EQ(guarded.log().tokens, (std::vector<std::string>{"s3cret", "guess", ""}));
}

TEST_F(LinkTest, TwoLinksOnOneThreadShareItsLoopAndEndTheirSessions) {
  DaemonOptions o;
  o.name = "second daemon";
  TestDaemon other(o);
  Link a(daemon);
  Link b(other);
  ASSERT_EQ(a.status(), 0);
  ASSERT_EQ(b.status(), 0);
  mv::Bstr ia, ib;
  EXPECT_EQ(a->GetServerInfo(ia.out()), 0);
  EXPECT_EQ(b->GetServerInfo(ib.out()), 0);
  EXPECT_EQ(ia.view(), u"test daemon");
  EXPECT_EQ(ib.view(), u"second daemon");

  b.release();
  EXPECT_EQ(a->ConnectCheck(), 0);
  // The released link's session ends at the daemon.
  const auto t0 = Clock::now();
  while (other.log().sessions != 0 && Clock::now() - t0 < milliseconds(2000)) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_EQ(other.log().sessions, 0);
  EXPECT_EQ(daemon.log().sessions, 1);

  // With every link gone the loop ends; a new link makes a new one.
  a.release();
  Link c(other);
  ASSERT_EQ(c.status(), 0);
  EXPECT_EQ(c->ConnectCheck(), 0);
}

}  // namespace
}  // namespace mvtest
