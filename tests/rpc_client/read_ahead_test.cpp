// Blob downloads through RemoteBookServer: the blocks after the one asked for are requested
// before the library asks, and whatever the library sees is what it saw when every block waited
// for its own round trip.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "frame/blocks.h"
#include "remote_test_util.h"

namespace mvtest {
namespace {

using mv::rpc::kStatusCallFailed;
using mv::rpc::kStatusServerUnavailable;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int32_t kBlock = 4096;
constexpr int32_t kSentinel = -77;  // in isEnd and bytes: the proxy left them alone

// What one DownLoadData call left for its caller.
struct Answer {
  int32_t status = 0;
  int32_t isEnd = kSentinel;
  int32_t bytes = kSentinel;
  VARTYPE vt = MV_VT_EMPTY;
  std::vector<uint8_t> data;

  bool operator==(const Answer&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Answer& a) {
  return out << "{status " << a.status << ", isEnd " << a.isEnd << ", bytes " << a.bytes << ", vt "
             << a.vt << ", " << a.data.size() << " bytes}";
}

// The blob bytes of one block, as the daemon makes them.
std::vector<uint8_t> blobBlock(const std::u16string& column, int32_t rowIndex, int32_t blockNo,
                               int32_t blockSize, int64_t total) {
  std::vector<uint8_t> out;
  const int64_t offset = int64_t{blockNo - 1} * blockSize;
  for (int64_t i = offset; i < std::min<int64_t>(total, offset + blockSize); ++i) {
    out.push_back(blobByte(column, rowIndex, i));
  }
  return out;
}

// A call the test makes: a DownLoadData, or any other method.
struct Step {
  Step(std::u16string c, int32_t n, int32_t size = kBlock, int32_t row = 0)
      : column(std::move(c)), blockNo(n), blockSize(size), rowIndex(row) {}
  explicit Step(std::function<int32_t(mv::IBookServer&)> f) : other(std::move(f)) {}

  std::u16string column;  // empty: `other` instead of a download
  int32_t blockNo = 0;
  int32_t blockSize = kBlock;
  int32_t rowIndex = 0;
  std::function<int32_t(mv::IBookServer&)> other;
};

class ReadAhead : public ::testing::Test {
 protected:
  const mv::Bstr db{u"Book1"};
  const mv::Bstr handle{u"H1"};

  static DaemonOptions blob(int64_t bytes, int delayMs = 0, int32_t failBlock = 0) {
    DaemonOptions o;
    o.blobBytes = bytes;
    o.downloadDelayMs = delayMs;
    o.failBlock = failBlock;
    return o;
  }

  static mv::rpc::RemoteOptions ahead(uint32_t blocks) {
    mv::rpc::RemoteOptions o;
    o.readAhead = blocks;
    return o;
  }

  Answer ask(mv::IBookServer& s, const std::u16string& column, int32_t blockNo,
             int32_t blockSize = kBlock, int32_t rowIndex = 0) {
    Answer a;
    mv::Variant block;
    a.status = s.DownLoadData(db.get(), handle.get(), mv::Bstr(column).get(), rowIndex, blockNo,
                              blockSize, block.get(), &a.isEnd, &a.bytes);
    a.vt = block.get()->vt;
    if (a.vt == (MV_VT_ARRAY | MV_VT_UI1) && block.get()->parray != nullptr) {
      const auto* p = static_cast<const uint8_t*>(block.get()->parray->pvData);
      a.data.assign(p, p + mv::safeArrayCount(block.get()->parray));
    }
    return a;
  }

  // The library's loop: blocks from 1 until the end, no array, or a failure.
  std::vector<Answer> readAll(mv::IBookServer& s, const std::u16string& column,
                              int32_t blockSize = kBlock) {
    std::vector<Answer> out;
    for (int32_t n = 1; n < 10000; ++n) {
      out.push_back(ask(s, column, n, blockSize));
      const Answer& a = out.back();
      if (a.status != 0 || a.vt != (MV_VT_ARRAY | MV_VT_UI1) || a.isEnd == 1) break;
    }
    return out;
  }

  std::vector<Answer> run(mv::IBookServer& s, const std::vector<Step>& steps) {
    std::vector<Answer> out;
    for (const Step& step : steps) {
      if (step.column.empty()) {
        Answer a;
        a.status = step.other(s);
        out.push_back(a);
      } else {
        out.push_back(ask(s, step.column, step.blockNo, step.blockSize, step.rowIndex));
      }
    }
    return out;
  }

  // Block numbers the daemon was asked for, for one column, in order.
  static std::vector<int32_t> blocksAsked(TestDaemon& d, const std::u16string& column) {
    std::vector<int32_t> out;
    for (const DownloadRequest& q : d.log().downloadsSoFar()) {
      if (q.column == column) out.push_back(q.blockNo);
    }
    return out;
  }

  // Waits until the daemon has been asked for `count` blocks of `column` (or two seconds went
  // by), then a little longer, so that a request too many would be seen too.
  static void settle(TestDaemon& d, const std::u16string& column, std::size_t count) {
    const auto t0 = Clock::now();
    while (blocksAsked(d, column).size() < count && Clock::now() - t0 < milliseconds(2000)) {
      std::this_thread::sleep_for(milliseconds(2));
    }
    std::this_thread::sleep_for(milliseconds(50));
  }

  static std::vector<int32_t> range(int32_t first, int32_t last) {
    std::vector<int32_t> out;
    for (int32_t n = first; n <= last; ++n) out.push_back(n);
    return out;
  }
};

// --- what the library sees ---------------------------------------------------------------------

class ReadAheadResults : public ReadAhead {};

TEST_F(ReadAheadResults, ADownloadArrivesByteForByteWithTheSameAnswersAsWithoutReadingAhead) {
  // Ten and a half blocks: the last one short.
  const int64_t total = int64_t{kBlock} * 10 + kBlock / 2;
  TestDaemon plainDaemon(blob(total)), aheadDaemon(blob(total));
  Link plain(plainDaemon, ahead(0)), fast(aheadDaemon);
  ASSERT_EQ(plain.status(), 0);
  ASSERT_EQ(fast.status(), 0);

  const std::vector<Answer> want = readAll(*plain.get(), u"Image");
  const std::vector<Answer> got = readAll(*fast.get(), u"Image");
  ASSERT_EQ(want.size(), 11u);
  EXPECT_EQ(got, want);
  for (int32_t n = 1; n <= 11; ++n) {
    SCOPED_TRACE(n);
    const Answer& a = got[static_cast<std::size_t>(n - 1)];
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(a.isEnd, n == 11 ? 1 : 0);
    EXPECT_EQ(a.bytes, n == 11 ? kBlock / 2 : kBlock);
    EXPECT_EQ(a.data, blobBlock(u"Image", 0, n, kBlock, total));
  }

  // Without reading ahead every block is one request; with it, each block is still asked for
  // once, in order, and at most four past the end.
  EXPECT_EQ(blocksAsked(plainDaemon, u"Image"), range(1, 11));
  const std::vector<int32_t> asked = blocksAsked(aheadDaemon, u"Image");
  ASSERT_GE(asked.size(), 11u);
  EXPECT_LE(asked.size(), 15u);
  EXPECT_EQ(asked, range(1, static_cast<int32_t>(asked.size())));
}

TEST_F(ReadAheadResults, TheLibrarysDownloadLoopGetsEveryByteOfFullSizeBlocks) {
  const int64_t total = int64_t{mv::kBlockSize} * 6 + 1000;
  TestDaemon daemon(blob(total));
  Link s(daemon);
  const mv::Bstr column(u"RealityData");
  std::vector<uint8_t> got;
  const mv::DownloadResult r = mv::downloadBlocks(*s.get(), db.get(), handle.get(), column.get(),
                                                  [&](const uint8_t* data, std::size_t n) {
                                                    got.insert(got.end(), data, data + n);
                                                    return true;
                                                  });
  EXPECT_EQ(r.status, 0);
  EXPECT_FALSE(r.sinkFailed);
  EXPECT_EQ(r.bytes, total);
  ASSERT_EQ(got.size(), static_cast<std::size_t>(total));
  for (int64_t i = 0; i < total; ++i) {
    ASSERT_EQ(got[static_cast<std::size_t>(i)], blobByte(u"RealityData", 0, i)) << i;
  }
  // Each block asked for once, in order, and none more than four past the end.
  const std::vector<int32_t> asked = blocksAsked(daemon, u"RealityData");
  ASSERT_GE(asked.size(), 7u);
  EXPECT_LE(asked.size(), 11u);
  EXPECT_EQ(asked, range(1, static_cast<int32_t>(asked.size())));
}

TEST_F(ReadAheadResults, AnswersLargerThanTheBlockAskedForArriveWhole) {
  // Each answer holds two blocks' worth from where its block starts: more than the proxy makes
  // room for when it reads ahead.
  const int64_t total = int64_t{kBlock} * 9;
  DaemonOptions o = blob(total);
  o.doubleBlocks = true;
  TestDaemon daemon(o);
  Link s(daemon);
  for (int32_t n = 1; n <= 8; ++n) {
    SCOPED_TRACE(n);
    const Answer a = ask(*s.get(), u"Image", n);
    ASSERT_EQ(a.status, 0);
    EXPECT_EQ(a.isEnd, n == 8 ? 1 : 0);
    std::vector<uint8_t> want = blobBlock(u"Image", 0, n, kBlock, total);
    const std::vector<uint8_t> next = blobBlock(u"Image", 0, n + 1, kBlock, total);
    want.insert(want.end(), next.begin(), next.end());
    EXPECT_EQ(a.data, want);
  }
}

TEST_F(ReadAheadResults, AFailingBlockFailsThatCallAloneAndOnlyWhenItIsAskedFor) {
  const int64_t total = int64_t{kBlock} * 8;
  TestDaemon plainDaemon(blob(total, 0, 3)), aheadDaemon(blob(total, 0, 3));
  Link plain(plainDaemon, ahead(0)), fast(aheadDaemon);
  const std::vector<Step> steps = {{u"Image", 1}, {u"Image", 2}, {u"Image", 3},
                                   {u"Image", 4}, {u"Image", 5}, {u"Image", 6}};
  const std::vector<Answer> want = run(*plain.get(), steps);

  std::vector<Answer> got;
  got.push_back(ask(*fast.get(), u"Image", 1));
  // Block 3's failure is in before the library asks for block 2.
  settle(aheadDaemon, u"Image", 5);
  got.push_back(ask(*fast.get(), u"Image", 2));
  for (int32_t n = 3; n <= 6; ++n) got.push_back(ask(*fast.get(), u"Image", n));

  EXPECT_EQ(got, want);
  EXPECT_EQ(got[1].status, 0);
  EXPECT_EQ(got[1].data, blobBlock(u"Image", 0, 2, kBlock, total));
  // The failure's own values stay at the daemon; the caller's are left as they were.
  EXPECT_EQ(got[2].status, kReadFailed);
  EXPECT_EQ(got[2].isEnd, kSentinel);
  EXPECT_EQ(got[2].bytes, kSentinel);
  EXPECT_EQ(got[2].vt, MV_VT_EMPTY);
  EXPECT_EQ(got[3].data, blobBlock(u"Image", 0, 4, kBlock, total));
  // A failure closes the read-ahead: blocks 4 and 5 were already on their way, 6 is asked anew
  // and starts another.
  settle(aheadDaemon, u"Image", 10);
  EXPECT_EQ(blocksAsked(aheadDaemon, u"Image"), range(1, 10));
}

TEST_F(ReadAheadResults, ABlobThatFitsOneBlockOrIsEmptyCostsOneRequest) {
  for (const int64_t total : {int64_t{0}, int64_t{100}, int64_t{kBlock}}) {
    SCOPED_TRACE(total);
    TestDaemon daemon(blob(total));
    Link s(daemon);
    const std::vector<Answer> got = readAll(*s.get(), u"Image");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].status, 0);
    EXPECT_EQ(got[0].isEnd, 1);
    EXPECT_EQ(got[0].bytes, total);
    EXPECT_EQ(got[0].vt, total == 0 ? MV_VT_EMPTY : (MV_VT_ARRAY | MV_VT_UI1));
    EXPECT_EQ(got[0].data, blobBlock(u"Image", 0, 1, kBlock, total));
    // The proxy has nothing in flight: a later call finds the daemon asked for block 1 only.
    EXPECT_EQ(s->ConnectCheck(), 0);
    EXPECT_EQ(blocksAsked(daemon, u"Image"), range(1, 1));
  }
}

// --- what the daemon sees ----------------------------------------------------------------------

class ReadAheadRequests : public ReadAhead {};

TEST_F(ReadAheadRequests, RequestsOverlapSoTheDaemonsDelayIsPaidOnceNotPerBlock) {
  constexpr int kDelayMs = 30;
  constexpr int kBlocks = 16;
  const int64_t total = int64_t{kBlock} * kBlocks;

  TestDaemon slow(blob(total, kDelayMs));
  Link plain(slow, ahead(0));
  auto t0 = Clock::now();
  ASSERT_EQ(readAll(*plain.get(), u"Image").size(), static_cast<std::size_t>(kBlocks));
  const auto oneByOne = Clock::now() - t0;
  EXPECT_GE(oneByOne, milliseconds(kBlocks * kDelayMs * 9 / 10));
  EXPECT_EQ(slow.log().mostDownloadsUnanswered, 1);
  plain.release();

  TestDaemon slow2(blob(total, kDelayMs));
  Link fast(slow2);
  t0 = Clock::now();
  const std::vector<Answer> got = readAll(*fast.get(), u"Image");
  const auto overlapped = Clock::now() - t0;
  ASSERT_EQ(got.size(), static_cast<std::size_t>(kBlocks));
  for (int32_t n = 1; n <= kBlocks; ++n) {
    ASSERT_EQ(got[static_cast<std::size_t>(n - 1)].data, blobBlock(u"Image", 0, n, kBlock, total))
        << n;
  }
  EXPECT_LT(overlapped, milliseconds(kBlocks * kDelayMs / 2));
  // The block asked for and the four after it.
  EXPECT_GE(slow2.log().mostDownloadsUnanswered, 2);
  EXPECT_LE(slow2.log().mostDownloadsUnanswered, 5);
}

TEST_F(ReadAheadRequests, NothingIsAskedForMoreThanTheSetNumberOfBlocksPastTheLastAsked) {
  const int64_t total = int64_t{kBlock} * 20;
  for (const uint32_t k : {1u, 2u, 4u}) {
    SCOPED_TRACE(k);
    TestDaemon daemon(blob(total));
    Link s(daemon, ahead(k));
    ASSERT_EQ(ask(*s.get(), u"Image", 1).status, 0);
    ASSERT_EQ(ask(*s.get(), u"Image", 2).status, 0);
    settle(daemon, u"Image", 2 + k);
    EXPECT_EQ(blocksAsked(daemon, u"Image"), range(1, 2 + static_cast<int32_t>(k)));
    ASSERT_EQ(ask(*s.get(), u"Image", 3).status, 0);
    settle(daemon, u"Image", 3 + k);
    EXPECT_EQ(blocksAsked(daemon, u"Image"), range(1, 3 + static_cast<int32_t>(k)));
  }
}

TEST_F(ReadAheadRequests, AnAnswerThatEndsTheDataStopsTheRequests) {
  const int64_t total = int64_t{kBlock} * 3 - 10;
  TestDaemon daemon(blob(total));
  Link s(daemon);
  ASSERT_EQ(ask(*s.get(), u"Image", 1).isEnd, 0);
  // Blocks 2 to 5 went out after block 1; block 3's answer, the end, is in before block 2 is
  // asked for, so nothing more goes out.
  settle(daemon, u"Image", 5);
  ASSERT_EQ(ask(*s.get(), u"Image", 2).isEnd, 0);
  const Answer last = ask(*s.get(), u"Image", 3);
  EXPECT_EQ(last.isEnd, 1);
  EXPECT_EQ(last.data, blobBlock(u"Image", 0, 3, kBlock, total));
  settle(daemon, u"Image", 5);
  EXPECT_EQ(blocksAsked(daemon, u"Image"), range(1, 5));

  // Past the end, as the library never asks but a caller may: the daemon's answer, no array.
  const Answer past = ask(*s.get(), u"Image", 4);
  EXPECT_EQ(past.status, 0);
  EXPECT_EQ(past.isEnd, 1);
  EXPECT_EQ(past.bytes, 0);
  EXPECT_EQ(past.vt, MV_VT_EMPTY);
  EXPECT_EQ(blocksAsked(daemon, u"Image"), (std::vector<int32_t>{1, 2, 3, 4, 5, 4}));
}

// --- other calls -------------------------------------------------------------------------------

class ReadAheadDropped : public ReadAhead {};

TEST_F(ReadAheadDropped, AnyOtherCallDropsWhatWasReadAheadAndTheBlocksAreAskedForAgain) {
  const int64_t total = int64_t{kBlock} * 6;
  TestDaemon daemon(blob(total));
  Link s(daemon);
  int32_t rows = 0;
  mv::Bstr table;
  ASSERT_EQ(s->OpenTable(db.get(), mv::Bstr(u"T").get(), 0, &rows, table.out()), 0);

  // Calls that cross the wire and one the proxy answers from rows it holds.
  const std::vector<std::pair<const char*, std::function<int32_t()>>> others = {
      {"ConnectCheck", [&] { return s->ConnectCheck(); }},
      {"GetRecords from held rows",
       [&] {
         mv::Variant row;
         return s->GetRecords(db.get(), table.get(), 1, row.get());
       }},
      {"GetServerInfo",
       [&] {
         mv::Bstr info;
         return s->GetServerInfo(info.out());
       }},
  };
  const int gets = daemon.log().getRecords;
  for (const auto& [name, other] : others) {
    SCOPED_TRACE(name);
    const std::u16string column = u"C-" + std::u16string(name, name + std::strlen(name));
    ASSERT_EQ(ask(*s.get(), column, 1).status, 0);
    ASSERT_EQ(ask(*s.get(), column, 2).status, 0);
    ASSERT_EQ(other(), 0);
    for (int32_t n = 3; n <= 6; ++n) {
      const Answer a = ask(*s.get(), column, n);
      ASSERT_EQ(a.status, 0);
      EXPECT_EQ(a.isEnd, n == 6 ? 1 : 0);
      EXPECT_EQ(a.data, blobBlock(column, 0, n, kBlock, total)) << n;
    }
    // Blocks 3 to 6 were on their way when the other call came; after it they are asked anew.
    const std::vector<int32_t> asked = blocksAsked(daemon, column);
    ASSERT_GE(asked.size(), 10u);
    EXPECT_EQ(std::vector<int32_t>(asked.begin(), asked.begin() + 6), range(1, 6));
    EXPECT_EQ(std::vector<int32_t>(asked.begin() + 6, asked.begin() + 10), range(3, 6));
  }
  EXPECT_EQ(daemon.log().getRecords, gets) << "the held row crossed the wire";
}

TEST_F(ReadAheadDropped, InterleavedAndOutOfOrderCallsGetTheSameAnswersAsWithoutReadingAhead) {
  const int64_t total = int64_t{kBlock} * 5 + 7;
  const auto check = [](mv::IBookServer& s) { return s.ConnectCheck(); };
  const std::vector<Step> steps = {
      // Two downloads taking turns.
      {u"A", 1},
      {u"B", 1},
      {u"A", 2},
      {u"B", 2},
      {u"A", 3},
      {u"A", 4},
      {u"B", 3},
      // Out of order, repeated, and the same block with another size or row.
      {u"C", 1},
      {u"C", 2},
      {u"C", 4},
      {u"C", 3},
      {u"C", 3},
      {u"C", 4, kBlock * 2},
      {u"C", 1, kBlock, 1},
      {u"C", 2, kBlock, 1},
      {u"C", 3},
      {u"C", 4, kBlock, 1},
      // Past the end and back.
      {u"D", 1},
      {u"D", 2},
      {u"D", 9},
      {u"D", 3},
      Step(check),
      {u"D", 4},
      {u"D", 5},
      {u"D", 6},
      {u"D", 7},
      // A size the daemon refuses, then a good one.
      {u"E", 1},
      {u"E", 2, 0},
      {u"E", 2},
  };
  TestDaemon plainDaemon(blob(total)), aheadDaemon(blob(total));
  Link plain(plainDaemon, ahead(0)), fast(aheadDaemon);
  const std::vector<Answer> want = run(*plain.get(), steps);
  const std::vector<Answer> got = run(*fast.get(), steps);
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const Step& step = steps[i];
    EXPECT_EQ(got[i], want[i]) << "step " << i;
    if (step.column.empty() || want[i].status != 0) continue;
    EXPECT_EQ(got[i].data,
              blobBlock(step.column, step.rowIndex, step.blockNo, step.blockSize, total))
        << "step " << i;
  }
  EXPECT_EQ(want[steps.size() - 2].status, kBadArgument);
}

// --- the link ----------------------------------------------------------------------------------

class ReadAheadLink : public ReadAhead {};

TEST_F(ReadAheadLink, ReleaseWithRequestsOutstandingIsPromptAndEndsTheSession) {
  TestDaemon daemon(blob(int64_t{kBlock} * 20, 500));
  Link s(daemon);
  ASSERT_EQ(ask(*s.get(), u"Image", 1).status, 0);
  // Blocks 2 to 5 are waiting at the daemon.
  const auto t0 = Clock::now();
  s.release();
  EXPECT_LT(Clock::now() - t0, milliseconds(200));
  while (daemon.log().sessions != 0 && Clock::now() - t0 < milliseconds(3000)) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_EQ(daemon.log().sessions, 0);
}

TEST_F(ReadAheadLink, ADaemonThatDiesWithBlocksOnTheirWayFailsTheNextCallPromptly) {
  // Dies while the library waits for a block read ahead.
  {
    TestDaemon daemon(blob(int64_t{kBlock} * 20, 400));
    Link s(daemon);
    ASSERT_EQ(ask(*s.get(), u"Image", 1).status, 0);
    std::thread killer([&] {
      std::this_thread::sleep_for(milliseconds(100));
      daemon.kill();
    });
    const auto t0 = Clock::now();
    const Answer a = ask(*s.get(), u"Image", 2);
    killer.join();
    EXPECT_EQ(a.status, kStatusCallFailed);
    EXPECT_EQ(a.vt, MV_VT_EMPTY);
    EXPECT_EQ(a.isEnd, kSentinel);
    EXPECT_LT(Clock::now() - t0, milliseconds(2000));
    EXPECT_TRUE(s.remote()->broken());
    const auto t1 = Clock::now();
    EXPECT_EQ(ask(*s.get(), u"Image", 3).status, kStatusServerUnavailable);
    EXPECT_EQ(s->ConnectCheck(), kStatusServerUnavailable);
    EXPECT_LT(Clock::now() - t1, milliseconds(200));
  }
  // Dies after the blocks read ahead arrived: they are not handed out from a dead link.
  {
    TestDaemon daemon(blob(int64_t{kBlock} * 20));
    Link s(daemon);
    ASSERT_EQ(ask(*s.get(), u"Image", 1).status, 0);
    settle(daemon, u"Image", 5);
    daemon.kill();
    std::this_thread::sleep_for(milliseconds(50));
    const auto t0 = Clock::now();
    const Answer a = ask(*s.get(), u"Image", 2);
    EXPECT_NE(a.status, 0);
    EXPECT_EQ(a.vt, MV_VT_EMPTY);
    EXPECT_EQ(a.isEnd, kSentinel);
    EXPECT_LT(Clock::now() - t0, milliseconds(200));
    EXPECT_TRUE(s.remote()->broken());
  }
}

}  // namespace
}  // namespace mvtest
