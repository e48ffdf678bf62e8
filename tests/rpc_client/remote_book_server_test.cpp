// RemoteBookServer against the test daemon: rows in batches, blob blocks read ahead, and what a
// lost daemon looks like to the caller.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include "remote_test_util.h"

namespace mvtest {
namespace {

using mv::rpc::kStatusCallFailed;
using mv::rpc::kStatusServerUnavailable;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int32_t kBlock = 4096;
constexpr int32_t kSentinel = -77;  // in isEnd and bytes: the proxy left them alone

// What one call left for its caller.
struct Answer {
  int32_t status = 0;
  int32_t isEnd = kSentinel;
  int32_t bytes = kSentinel;
  VARTYPE vt = MV_VT_EMPTY;
  std::vector<uint8_t> data;
  bool operator==(const Answer&) const = default;
};

// What a call that returned `status` left, touching nothing of the caller's.
Answer only(int32_t status) {
  Answer a;
  a.status = status;
  return a;
}

std::ostream& operator<<(std::ostream& out, const Answer& a) {
  return out << "{status " << a.status << ", isEnd " << a.isEnd << ", bytes " << a.bytes << ", vt "
             << a.vt << ", " << a.data.size() << " bytes}";
}

// The blob bytes the daemon answers for a block of `blockSize` holding up to `most` bytes.
std::vector<uint8_t> blobBlock(const std::u16string& column, int32_t row, int32_t blockNo,
                               int32_t blockSize, int64_t total, int64_t most = 0) {
  std::vector<uint8_t> out;
  const int64_t offset = int64_t{blockNo - 1} * blockSize;
  for (int64_t i = offset; i < std::min(total, offset + (most ? most : blockSize)); ++i) {
    out.push_back(blobByte(column, row, i));
  }
  return out;
}

std::vector<int32_t> range(int32_t first, int32_t last) {
  std::vector<int32_t> out;
  for (int32_t n = first; n <= last; ++n) out.push_back(n);
  return out;
}

template <typename F>
void waitFor(F done) {
  for (const auto t0 = Clock::now(); !done() && Clock::now() - t0 < milliseconds(2000);) {
    std::this_thread::sleep_for(milliseconds(2));
  }
}

// A DownLoadData the test makes, or (column empty) anything else.
struct Step {
  Step(std::u16string c, int32_t n, int32_t size = kBlock, int32_t row = 0)
      : column(std::move(c)), blockNo(n), blockSize(size), rowIndex(row) {}
  explicit Step(std::function<int32_t(mv::IBookServer&)> f) : other(std::move(f)) {}
  std::u16string column;
  int32_t blockNo = 0, blockSize = kBlock, rowIndex = 0;
  std::function<int32_t(mv::IBookServer&)> other;
};

// Lets the blocks already asked for arrive, without a call to the proxy.
const Step kPause([](mv::IBookServer&) {
  std::this_thread::sleep_for(milliseconds(150));
  return 0;
});

DaemonOptions blob(int64_t bytes, int delayMs = 0, int32_t failBlock = 0) {
  DaemonOptions o;
  o.blobBytes = bytes;
  o.downloadDelayMs = delayMs;
  o.failBlock = failBlock;
  return o;
}

mv::rpc::RemoteOptions ahead(uint32_t blocks) {
  mv::rpc::RemoteOptions o;
  o.readAhead = blocks;
  return o;
}

const mv::Bstr& db() {
  static const mv::Bstr book(u"Book1");
  return book;
}

Answer ask(mv::IBookServer& s, const std::u16string& column, int32_t blockNo,
           int32_t blockSize = kBlock, int32_t rowIndex = 0) {
  Answer a;
  mv::Variant block;
  a.status = s.DownLoadData(db().get(), mv::Bstr(u"H1").get(), mv::Bstr(column).get(), rowIndex,
                            blockNo, blockSize, block.get(), &a.isEnd, &a.bytes);
  a.vt = block.get()->vt;
  if (a.vt == (MV_VT_ARRAY | MV_VT_UI1)) {
    const auto* p = static_cast<const uint8_t*>(block.get()->parray->pvData);
    a.data.assign(p, p + mv::safeArrayCount(block.get()->parray));
  }
  return a;
}

// The library's loop: blocks from 1 until the end, no array, or a failure.
std::vector<Answer> readAll(mv::IBookServer& s, const std::u16string& column) {
  std::vector<Answer> out;
  for (int32_t n = 1; n < 10000; ++n) {
    out.push_back(ask(s, column, n));
    if (out.back().status != 0 || out.back().vt == MV_VT_EMPTY || out.back().isEnd == 1) break;
  }
  return out;
}

std::vector<Answer> run(mv::IBookServer& s, const std::vector<Step>& steps) {
  std::vector<Answer> out;
  for (const Step& step : steps) {
    out.push_back(step.column.empty()
                      ? only(step.other(s))
                      : ask(s, step.column, step.blockNo, step.blockSize, step.rowIndex));
  }
  return out;
}

// Block numbers the daemon was asked for, for one column, in order.
std::vector<int32_t> blocksAsked(TestDaemon& d, const std::u16string& column) {
  std::vector<int32_t> out;
  for (const DownloadRequest& q : d.log().downloadsSoFar()) {
    if (q.column == column) out.push_back(q.blockNo);
  }
  return out;
}

// Waits until `count` blocks of `column` were asked for, then a little longer, so that a request
// too many would be seen too.
void settle(TestDaemon& d, const std::u16string& column, std::size_t count) {
  waitFor([&] { return blocksAsked(d, column).size() >= count; });
  std::this_thread::sleep_for(milliseconds(50));
}

// Opens the daemon's table; the handle's text.
std::u16string open(mv::IBookServer& s) {
  int32_t rows = 0;
  mv::Bstr handle;
  EXPECT_EQ(s.OpenTable(db().get(), mv::Bstr(u"TagPageTBL").get(), 0, &rows, handle.out()), 0);
  EXPECT_EQ(rows, 3000);
  return std::u16string(handle.view());
}

int32_t read(mv::IBookServer& s, const std::u16string& handle, int row, mv::Variant& out,
             const mv::Bstr& book = db()) {
  out.clear();
  return s.GetRecords(book.get(), mv::Bstr(handle).get(), row, out.get());
}

// --- rows --------------------------------------------------------------------------------------

TEST(RemoteRows, EveryOpenBringsItsFirstRowsAndRefillsBringTheRestWithFewCalls) {
  using Opener = std::function<int32_t(mv::IBookServer&, BSTR*)>;
  const mv::Bstr table(u"TagPageTBL"), sql(u"SELECT * FROM TagPageTBL");
  int32_t n = 0;
  const Opener openTable = [&](mv::IBookServer& s, BSTR* h) {
    return s.OpenTable(db().get(), table.get(), 0, &n, h);
  };
  const Opener query = [&](mv::IBookServer& s, BSTR* h) {
    return s.ExecuteQuery(db().get(), table.get(), sql.get(), 0, &n, h);
  };
  const Opener openEx = [&](mv::IBookServer& s, BSTR* h) {
    return s.OpenTableEx(db().get(), table.get(), sql.get(), 1, &n, h);
  };
  const struct {
    const char* name;
    Opener open;
    uint32_t prefetch, refill;
    int rows, getRecords;  // rows read in order; the GetRecords calls that took
    int32_t lastRowIndex;
  } cases[] = {
      // 256 rows come with the result; refills of 1024 start at rows 256, 1280 and 2304.
      {"OpenTable", openTable, 256, 1024, 3000, 3, 2304},
      {"ExecuteQuery", query, 256, 1024, 3000, 3, 2304},
      {"OpenTableEx", openEx, 256, 1024, 3000, 3, 2304},
      {"row by row", openTable, 0, 1, 10, 10, 9},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TestDaemon daemon;
    mv::rpc::RemoteOptions o;
    o.prefetch = c.prefetch;
    o.refill = c.refill;
    Link s(daemon, o);
    mv::Bstr handle;
    ASSERT_EQ(c.open(*s.get(), handle.out()), 0);
    EXPECT_EQ(n, 3000);
    EXPECT_EQ(daemon.log().lastPrefetch, c.prefetch);
    for (int i = 0; i < c.rows; ++i) {
      mv::Variant row;
      ASSERT_EQ(read(*s.get(), std::u16string(handle.view()), i, row), 0) << i;
      ASSERT_EQ(rowTexts(row), expectedRow(i, 0)) << i;
    }
    EXPECT_EQ(daemon.log().getRecords, c.getRecords);
    EXPECT_EQ(daemon.log().lastCount, c.refill);
    EXPECT_EQ(daemon.log().lastRowIndex, c.lastRowIndex);
  }
}

TEST(RemoteRows, ARowOutsideTheHeldRunIsAskedForFromThere) {
  TestDaemon daemon;
  Link s(daemon);
  const std::u16string handle = open(*s.get());
  const mv::Bstr otherDb(u"Book2");
  const struct {
    int row;
    int32_t status;
    int getRecords;    // so far
    int lastRowIndex;  // of the last refill
    bool otherDb = false;
  } steps[] = {
      {300, 0, 1, 300},  // holds 300..1323
      {10, 0, 2, 10},    // behind the run: 10..1033
      {1033, 0, 2, 10},         {1034, 0, 3, 1034},
      {1035, 0, 4, 1035, true},  // held for one database, not for another
      {3000, kNoRow, 5, 3000},   // past the end: the server's status
      {-1, kNoRow, 6, -1},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.row);
    mv::Variant row;
    ASSERT_EQ(read(*s.get(), handle, step.row, row, step.otherDb ? otherDb : db()), step.status);
    EXPECT_EQ(daemon.log().getRecords, step.getRecords);
    EXPECT_EQ(daemon.log().lastRowIndex, step.lastRowIndex);
    if (step.status == 0) {
      EXPECT_EQ(rowTexts(row), expectedRow(step.row, 0));
    } else {
      EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);
    }
  }
}

TEST(RemoteRows, AWriteThroughAHandleDropsItsRowsAndOnlyItsRows) {
  TestDaemon daemon;
  Link s(daemon);
  const std::u16string h1 = open(*s.get());
  const std::u16string h2 = open(*s.get());
  // Element texts name the handle written through, as the library does.
  const auto record = [](mv::Variant& v, const std::u16string& h) {
    makeTexts(v, {u"DBNAME=Book1", u"TABLENAME=" + h, u"KEY=Name\t2\tx"});
  };
  const std::vector<std::pair<const char*, std::function<int32_t(const std::u16string&)>>> writes{
      {"AddRecord",
       [&](const std::u16string& h) {
         mv::Variant rec;
         record(rec, h);
         int32_t index = 0;
         return s->AddRecord(db().get(), rec.get(), 3, &index);
       }},
      {"UpdateRecord",
       [&](const std::u16string& h) {
         mv::Variant rec;
         record(rec, h);
         int32_t index = 5;
         return s->UpdateRecord(db().get(), rec.get(), 3, &index);
       }},
      {"DeleteRecord",
       [&](const std::u16string& h) { return s->DeleteRecord(db().get(), mv::Bstr(h).get(), 5); }},
      {"DeleteRecords",
       [&](const std::u16string& h) {
         return s->DeleteRecords(db().get(), mv::Bstr(h).get(), 0, 1);
       }},
      {"UpLoadData",
       [&](const std::u16string& h) {
         mv::Variant rec, block;
         record(rec, h);
         EXPECT_TRUE(block.makeArray(MV_VT_UI1, 16));
         return s->UpLoadData(rec.get(), 1, 16, block.get(), 1);
       }},
  };
  int row = 0;
  for (const auto& [name, write] : writes) {
    SCOPED_TRACE(name);
    mv::Variant v;
    ASSERT_EQ(read(*s.get(), h1, row, v), 0);  // h1 holds row `row` and the ones after it
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

TEST(RemoteRows, ClosingTheHandleOrDeletingTheDatabaseForgetsItsRows) {
  TestDaemon daemon;
  Link s(daemon);
  const std::u16string h1 = open(*s.get());
  const std::u16string h2 = open(*s.get());
  mv::Variant row;
  ASSERT_EQ(s->CloseTable(db().get(), mv::Bstr(h1).get()), 0);
  EXPECT_EQ(read(*s.get(), h1, 3, row), kBadHandle);
  EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);
  ASSERT_EQ(read(*s.get(), h2, 3, row), 0);
  ASSERT_EQ(s->DeleteDatabase(db().get(), nullptr), 0);
  EXPECT_EQ(read(*s.get(), h2, 4, row), kBadHandle);
  EXPECT_EQ(daemon.log().getRecords, 2);
}

// --- blobs read ahead --------------------------------------------------------------------------

// Whatever the library sees with read-ahead is what it sees when every block waits for its own
// round trip, byte for byte, and every block is asked for once and in order.
TEST(ReadAhead, EveryAnswerIsTheOneWithoutReadingAhead) {
  const Step check([](mv::IBookServer& s) { return s.ConnectCheck(); });
  const auto blocks = [](int32_t first, int32_t last) {
    std::vector<Step> out;
    for (int32_t n = first; n <= last; ++n) out.emplace_back(u"I", n);
    return out;
  };
  std::vector<Step> failing = blocks(1, 1);
  failing.push_back(kPause);  // block 3's failure is in before the library asks for block 2
  for (const Step& s : blocks(2, 6)) failing.push_back(s);
  const struct {
    const char* name;
    int64_t total;
    std::vector<Step> steps;
    int32_t failBlock = 0;
    bool doubleBlocks = false;
    std::size_t leastAsked = 0, mostAsked = 0;  // blocks of the first column asked for
  } cases[] = {
      // The last block short; at most four past the end asked for.
      {"ten and a half blocks", kBlock * 10 + kBlock / 2, blocks(1, 11), 0, false, 11, 15},
      // A failure closes the read-ahead: 4 and 5 were on their way, 6 is asked anew.
      {"a failing block", kBlock * 8, failing, 3, false, 10, 10},
      // Block 3's answer ends the data before block 2 is asked for: nothing more goes out.
      {"the end read ahead",
       kBlock * 3 - 10,
       {{u"I", 1}, kPause, {u"I", 2}, {u"I", 3}},
       0,
       false,
       5,
       5},
      {"an empty blob", 0, {{u"I", 1}, check}, 0, false, 1, 1},
      {"a short blob", 100, {{u"I", 1}, check}, 0, false, 1, 1},
      {"one whole block", kBlock, {{u"I", 1}, check}, 0, false, 1, 1},
      // Answers of twice the bytes asked for: more than the proxy makes room for.
      {"oversized answers", kBlock * 9, blocks(1, 8), 0, true},
      // clang-format off
      {"interleaved, out of order, other sizes and rows, past the end", kBlock * 5 + 7,
       {{u"A", 1}, {u"B", 1}, {u"A", 2}, {u"B", 2}, {u"A", 3}, {u"A", 4}, {u"B", 3},
        {u"C", 1}, {u"C", 2}, {u"C", 4}, {u"C", 3}, {u"C", 3}, {u"C", 4, kBlock * 2},
        {u"C", 1, kBlock, 1}, {u"C", 2, kBlock, 1}, {u"C", 3}, {u"C", 4, kBlock, 1},
        {u"D", 1}, {u"D", 2}, {u"D", 9}, {u"D", 3}, check, {u"D", 4}, {u"D", 5}, {u"D", 6},
        {u"D", 7}, {u"E", 1}, {u"E", 2, 0}, {u"E", 2}}},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DaemonOptions o = blob(c.total, 0, c.failBlock);
    o.doubleBlocks = c.doubleBlocks;
    TestDaemon plainDaemon(o), aheadDaemon(o);
    Link plain(plainDaemon, ahead(0)), fast(aheadDaemon);
    const std::vector<Answer> want = run(*plain.get(), c.steps);
    const std::vector<Answer> got = run(*fast.get(), c.steps);
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < c.steps.size(); ++i) {
      const Step& step = c.steps[i];
      EXPECT_EQ(got[i], want[i]) << "step " << i;
      if (step.column.empty()) continue;
      if (want[i].status != 0) {  // a failure's own values stay at the daemon
        EXPECT_EQ(want[i], only(want[i].status)) << "step " << i;
        continue;
      }
      EXPECT_EQ(got[i].data, blobBlock(step.column, step.rowIndex, step.blockNo, step.blockSize,
                                       c.total, c.doubleBlocks ? 2 * step.blockSize : 0))
          << "step " << i;
    }
    if (c.mostAsked == 0) continue;
    settle(aheadDaemon, u"I", c.leastAsked);
    const std::vector<int32_t> asked = blocksAsked(aheadDaemon, u"I");
    EXPECT_GE(asked.size(), c.leastAsked);
    EXPECT_LE(asked.size(), c.mostAsked);
    EXPECT_EQ(asked, range(1, static_cast<int32_t>(asked.size())));
  }
}

TEST(ReadAhead, RequestsOverlapSoTheDaemonsDelayIsPaidOnceNotPerBlock) {
  constexpr int kDelayMs = 30, kBlocks = 16;
  for (const uint32_t blocks : {0u, 4u}) {
    SCOPED_TRACE(blocks);
    TestDaemon slow(blob(int64_t{kBlock} * kBlocks, kDelayMs));
    Link s(slow, ahead(blocks));
    const auto t0 = Clock::now();
    const std::vector<Answer> got = readAll(*s.get(), u"Image");
    const auto took = Clock::now() - t0;
    ASSERT_EQ(got.size(), static_cast<std::size_t>(kBlocks));
    EXPECT_EQ(got.back().data, blobBlock(u"Image", 0, kBlocks, kBlock, kBlock * kBlocks));
    if (blocks == 0) {
      EXPECT_GE(took, milliseconds(kBlocks * kDelayMs * 9 / 10));
      EXPECT_EQ(slow.log().mostDownloadsUnanswered, 1);
    } else {  // the block asked for and the four after it
      EXPECT_LT(took, milliseconds(kBlocks * kDelayMs / 2));
      EXPECT_GE(slow.log().mostDownloadsUnanswered, 2);
      EXPECT_LE(slow.log().mostDownloadsUnanswered, 5);
    }
  }
}

TEST(ReadAhead, NothingIsAskedForMoreThanTheSetNumberOfBlocksPastTheLastAsked) {
  for (const int32_t k : {1, 2, 4}) {
    SCOPED_TRACE(k);
    TestDaemon daemon(blob(int64_t{kBlock} * 20));
    Link s(daemon, ahead(static_cast<uint32_t>(k)));
    for (int32_t n = 1; n <= 3; ++n) {
      ASSERT_EQ(ask(*s.get(), u"Image", n).status, 0);
      if (n == 1) continue;
      settle(daemon, u"Image", static_cast<std::size_t>(n + k));
      EXPECT_EQ(blocksAsked(daemon, u"Image"), range(1, n + k));
    }
  }
}

TEST(ReadAhead, AnyOtherCallDropsWhatWasReadAheadAndTheBlocksAreAskedForAgain) {
  const int64_t total = int64_t{kBlock} * 6;
  TestDaemon daemon(blob(total));
  Link s(daemon);
  const std::u16string table = open(*s.get());
  // Calls that cross the wire and one the proxy answers from rows it holds.
  const std::vector<std::pair<std::u16string, std::function<int32_t()>>> others = {
      {u"ConnectCheck", [&] { return s->ConnectCheck(); }},
      {u"GetRecords from held rows",
       [&] {
         mv::Variant row;
         return read(*s.get(), table, 1, row);
       }},
      {u"GetServerInfo",
       [&] {
         mv::Bstr info;
         return s->GetServerInfo(info.out());
       }},
  };
  for (const auto& [column, other] : others) {
    ASSERT_EQ(ask(*s.get(), column, 1).status, 0);
    ASSERT_EQ(ask(*s.get(), column, 2).status, 0);
    ASSERT_EQ(other(), 0);
    for (int32_t n = 3; n <= 6; ++n) {
      EXPECT_EQ(ask(*s.get(), column, n).data, blobBlock(column, 0, n, kBlock, total)) << n;
    }
    // Blocks 3 to 6 were on their way when the other call came; after it they are asked anew.
    const std::vector<int32_t> asked = blocksAsked(daemon, column);
    ASSERT_GE(asked.size(), 10u);
    EXPECT_EQ(std::vector<int32_t>(asked.begin(), asked.begin() + 10),
              (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 3, 4, 5, 6}));
  }
  EXPECT_EQ(daemon.log().getRecords, 0) << "the held row crossed the wire";
}

// --- the link ----------------------------------------------------------------------------------

TEST(RemoteLink, NobodyListeningIsServerUnavailableAtOnce) {
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

// However the daemon dies, the call that finds it gone fails within its limit, and from then on
// nothing is sent: every call fails at once, held rows and blocks read ahead included.
TEST(RemoteLink, ADeadDaemonFailsTheCallUnderWayAndEveryLaterOnePromptly) {
  const auto download = [](mv::IBookServer& s) { return ask(s, u"Image", 2).status; };
  const struct {
    const char* name;
    int delayMs;   // of each download
    int killAtMs;  // after the call starts; below 0: before it
    std::function<int32_t(mv::IBookServer&)> call;
    int32_t status;  // 0: any failure
    milliseconds least, most;
  } cases[] = {
      {"idle",
       0,
       -1,
       [](mv::IBookServer& s) { return s.ConnectCheck(); },
       0,
       {},
       milliseconds(2000)},
      // The daemon never answers CheckSQLServerType.
      {"in a call", 0, 200, [](mv::IBookServer& s) { return s.CheckSQLServerType(); },
       kStatusCallFailed, milliseconds(150), milliseconds(3000)},
      {"while a block read ahead is awaited",
       400,
       100,
       download,
       kStatusCallFailed,
       {},
       milliseconds(2000)},
      {"after the blocks read ahead arrived", 0, -1, download, 0, {}, milliseconds(200)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TestDaemon daemon(blob(int64_t{kBlock} * 20, c.delayMs));
    Link s(daemon);
    const std::u16string handle = open(*s.get());
    ASSERT_EQ(ask(*s.get(), u"Image", 1).status, 0);
    if (c.killAtMs < 0) {
      settle(daemon, u"Image", 5);
      daemon.kill();
      std::this_thread::sleep_for(milliseconds(50));
    }
    std::thread killer([&] {
      if (c.killAtMs < 0) return;
      std::this_thread::sleep_for(milliseconds(c.killAtMs));
      daemon.kill();
    });
    const auto t0 = Clock::now();
    const int32_t status = c.call(*s.get());
    const auto took = Clock::now() - t0;
    killer.join();
    if (c.status != 0) {
      EXPECT_EQ(status, c.status);
    } else {
      EXPECT_NE(status, 0);
    }
    EXPECT_GE(took, c.least);
    EXPECT_LT(took, c.most);
    EXPECT_TRUE(s.remote()->broken());

    const auto t1 = Clock::now();
    mv::Variant row;
    EXPECT_EQ(read(*s.get(), handle, 1, row), kStatusServerUnavailable);
    EXPECT_EQ(row.get()->vt, MV_VT_EMPTY);
    EXPECT_EQ(ask(*s.get(), u"Image", 3), only(kStatusServerUnavailable));
    int32_t a = 3, b = 4;
    EXPECT_EQ(s->GetConnect(&a, &b), kStatusServerUnavailable);
    EXPECT_EQ(a, 3);
    EXPECT_EQ(s->ConnectCheck(), kStatusServerUnavailable);
    EXPECT_LT(Clock::now() - t1, milliseconds(200));
  }
}

TEST(RemoteLink, TheSocketProbesForADeadPeer) {
  TestDaemon daemon;
  Link s(daemon);
  mv::rpc::KeepAlive k{0, 0, 0};
  ASSERT_TRUE(s.remote()->keepAlive(k));
  EXPECT_EQ(k.idle, 10);
  EXPECT_EQ(k.interval, 3);
  EXPECT_EQ(k.count, 3);
}

TEST(RemoteLink, TheTokenIsSentAndAWrongOneIsRefused) {
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

TEST(RemoteLink, TwoLinksOnOneThreadShareItsLoopAndEndTheirSessionsWithRequestsOutstanding) {
  TestDaemon first;
  DaemonOptions o = blob(int64_t{kBlock} * 20, 500);
  o.name = "second daemon";
  TestDaemon second(o);
  Link a(first), b(second);
  ASSERT_EQ(a.status(), 0);
  ASSERT_EQ(b.status(), 0);
  mv::Bstr ia, ib;
  EXPECT_EQ(a->GetServerInfo(ia.out()), 0);
  EXPECT_EQ(b->GetServerInfo(ib.out()), 0);
  EXPECT_EQ(ia.view(), u"test daemon");
  EXPECT_EQ(ib.view(), u"second daemon");

  ASSERT_EQ(ask(*b.get(), u"Image", 1).status, 0);  // blocks 2 to 5 wait at the daemon
  const auto t0 = Clock::now();
  b.release();
  EXPECT_LT(Clock::now() - t0, milliseconds(200));
  EXPECT_EQ(a->ConnectCheck(), 0);
  waitFor([&] { return second.log().sessions == 0; });
  EXPECT_EQ(second.log().sessions, 0);
  EXPECT_EQ(first.log().sessions, 1);

  // With every link gone the loop ends; a new link makes a new one.
  a.release();
  Link c(second);
  ASSERT_EQ(c.status(), 0);
  EXPECT_EQ(c->ConnectCheck(), 0);
}

}  // namespace
}  // namespace mvtest
