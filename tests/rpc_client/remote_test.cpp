// RemoteBookServer and the exports over the wire, against the daemon's loop in this process with
// sessions of a made-up table: rows in runs, blob blocks read ahead, TLS, tokens, and what a lost
// daemon looks like to the caller.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "MVCore.h"
#include "certificate.h"
#include "client_env.h"
#include "daemon_thread.h"
#include "frame/blocks.h"
#include "frame/connection.h"
#include "platform/wide.h"
#include "rpc/remote_book_server.h"
#include "utf8.h"

namespace mvtest {
namespace {

using mv::rpc::kStatusCallFailed;
using mv::rpc::kStatusServerUnavailable;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// The fake's statuses: a row past the end, an unknown handle, a block it cannot serve, the
// failing block.
constexpr int32_t kNoRow = 0x1006, kBadHandle = 0x1005, kBadArgument = 0x1007, kReadFailed = 0x1011;
constexpr int32_t kBlock = 4096;

std::u16string u16(BSTR s) { return s ? std::u16string(s, MVSysStringLen(s)) : u""; }
std::u16string number(int64_t n) { return utf16(std::to_string(n)); }

std::vector<int32_t> range(int32_t first, int32_t last) {
  std::vector<int32_t> out;
  for (int32_t n = first; n <= last; ++n) out.push_back(n);
  return out;
}

bool waitFor(const std::function<bool()>& done, milliseconds limit = milliseconds(3000)) {
  for (const auto t0 = Clock::now(); !done(); std::this_thread::sleep_for(milliseconds(2))) {
    if (Clock::now() - t0 > limit) return false;
  }
  return true;
}

struct FakeOptions {
  std::string name = "fake daemon";  // GetServerInfo's text
  int rows = 3000;
  std::size_t rowChars = 0;   // else element 1 of every row holds this many characters
  int64_t blobBytes = 0;      // DownLoadData: a blob this long for every column and row
  int32_t failBlock = 0;      // this block answers kReadFailed
  bool doubleBlocks = false;  // blocks carry twice the bytes asked for, as no server does
  int downloadMs = 0;         // each DownLoadData is held this long
};

// Element `column` of row `row` while the data is at `generation` (each write moves it on).
std::u16string rowElement(int row, int column, int generation, std::size_t chars = 0) {
  if (column == 0) return u"KEY=T_Index\t1\t" + number(row);
  if (chars != 0) return u"KEY=Name\t2\t" + std::u16string(chars, char16_t(u'a' + row % 26));
  return u"KEY=Name\t2\t帳票" + number(row) + u"-g" + number(generation);
}

std::vector<std::u16string> expectedRow(int row, int generation, std::size_t chars = 0) {
  return {rowElement(row, 0, generation, chars), rowElement(row, 1, generation, chars)};
}

// Byte `offset` of the blob of `column` of row `row`: every block, column and row differs.
uint8_t blobByte(const std::u16string& column, int32_t row, int64_t offset) {
  uint64_t seed = static_cast<uint64_t>(row) * 0x9E3779B97F4A7C15ull;
  for (char16_t c : column) seed = seed * 131 + c;
  const auto x = static_cast<uint64_t>(offset);
  return static_cast<uint8_t>(x * 7 + (x >> 8) * 13 + (x >> 16) * 29 + seed);
}

std::vector<uint8_t> blobBlock(const std::u16string& column, int32_t row, int32_t blockNo,
                               int32_t blockSize, int64_t total, int64_t most = 0) {
  std::vector<uint8_t> out;
  const int64_t offset = int64_t{blockNo - 1} * blockSize;
  for (int64_t i = offset; i < std::min(total, offset + (most ? most : blockSize)); ++i) {
    out.push_back(blobByte(column, row, i));
  }
  return out;
}

// What the fake's sessions share with the test, which reads it under the mutex.
struct FakeState {
  explicit FakeState(FakeOptions o) : options(std::move(o)) {}
  const FakeOptions options;
  std::mutex mutex;
  std::condition_variable changed;
  bool released = false;  // a held call goes on at once
  int sessions = 0, generation = 0;
  std::vector<int32_t> rowsAsked;  // every row any GetRecords asked for, in order
  std::vector<std::pair<std::u16string, int32_t>> blocksAsked;  // (column, block) as they came

  void hold(int ms) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, milliseconds(ms), [&] { return released; });
  }
};

class FakeSession final : public mv::ForwardingServer {
 public:
  explicit FakeSession(std::shared_ptr<FakeState> s) : s_(std::move(s)) {
    std::lock_guard lock(s_->mutex);
    ++s_->sessions;
  }
  ~FakeSession() override {
    std::lock_guard lock(s_->mutex);
    --s_->sessions;
  }

 protected:
  template <typename T>
  static T at(std::span<const mv::ArgRef> a, std::size_t i) {
    return std::get<T>(a[i]);
  }

  // Positions are the arguments' places in the method table's rows.
  int32_t forward(const mv::ServerMethod& m, std::span<const mv::ArgRef> a) override {
    switch (m.number) {
      case 24:  // ExecuteQuery
      case 60:  // OpenTableEx
        return open(at<int32_t*>(a, 4), at<BSTR*>(a, 5));
      case 46:  // OpenTable
        return open(at<int32_t*>(a, 3), at<BSTR*>(a, 4));
      case 25:  // GetRecords
        return row(at<BSTR>(a, 1), at<int32_t>(a, 2), at<VARIANT*>(a, 3));
      case 47:  // CloseTable
        return handles_.erase(u16(at<BSTR>(a, 1))) > 0 ? 0 : kBadHandle;
      case 8:  // DeleteDatabase
        handles_.clear();
        return 0;
      case 19:  // the writes: AddRecord, UpdateRecord, UpLoadData, DeleteRecord(s)
      case 20:
      case 40:
      case 42:
      case 62: {
        std::lock_guard lock(s_->mutex);
        ++s_->generation;
        return 0;
      }
      case 26:
        return downLoad(a);
      case 35:  // GetConnect
        *at<int32_t*>(a, 0) += 100;
        return 0;
      case 58:  // GetServerInfo
        putText(at<BSTR*>(a, 0), s_->options.name);
        return 0;
      case 98:  // CheckSQLServerType: a call the daemon dies in
        s_->hold(10000);
        return 0;
      default:
        return 0;
    }
  }

 private:
  int32_t open(int32_t* rowCount, BSTR* handle) {
    const std::u16string h = u"H" + number(++serial_);
    handles_.insert(h);
    *rowCount = s_->options.rows;
    putText(handle, utf8(h));
    return 0;
  }

  int32_t row(BSTR handle, int32_t index, VARIANT* out) {
    int generation = 0;
    {
      std::lock_guard lock(s_->mutex);
      s_->rowsAsked.push_back(index);
      generation = s_->generation;
    }
    if (handles_.count(u16(handle)) == 0) return kBadHandle;
    if (index < 0 || index >= s_->options.rows) return kNoRow;
    mv::fillVariantArray(out, MV_VT_VARIANT, 2, [&](void* data) {
      for (int c = 0; c < 2; ++c) {
        auto& e = static_cast<VARIANT*>(data)[c];
        e.vt = MV_VT_BSTR;
        e.bstrVal = mv::Bstr(rowElement(index, c, generation, s_->options.rowChars)).release();
      }
    });
    return 0;
  }

  // As the server does: past the end, no array and the end flagged.
  int32_t downLoad(std::span<const mv::ArgRef> a) {
    const FakeOptions& o = s_->options;
    const std::u16string column = u16(at<BSTR>(a, 2));
    const int32_t rowIndex = at<int32_t>(a, 3), blockNo = at<int32_t>(a, 4),
                  blockSize = at<int32_t>(a, 5);
    int32_t* isEnd = at<int32_t*>(a, 7);
    int32_t* bytes = at<int32_t*>(a, 8);
    {
      std::lock_guard lock(s_->mutex);
      s_->blocksAsked.emplace_back(column, blockNo);
    }
    if (o.downloadMs > 0) s_->hold(o.downloadMs);
    if (blockNo < 1 || blockSize <= 0) return kBadArgument;
    if (blockNo == o.failBlock) {
      *isEnd = 1;  // values a failure must not hand to the caller
      *bytes = 12345;
      return kReadFailed;
    }
    const int64_t offset = int64_t{blockNo - 1} * blockSize;
    const int64_t n =
        std::clamp<int64_t>(o.blobBytes - offset, 0, int64_t{blockSize} * (o.doubleBlocks ? 2 : 1));
    *isEnd = offset + n >= o.blobBytes ? 1 : 0;
    *bytes = static_cast<int32_t>(n);
    if (n == 0) return 0;
    mv::fillVariantArray(at<VARIANT*>(a, 6), MV_VT_UI1, static_cast<uint32_t>(n), [&](void* d) {
      for (int64_t i = 0; i < n; ++i) {
        static_cast<uint8_t*>(d)[i] = blobByte(column, rowIndex, offset + i);
      }
    });
    return 0;
  }

  std::shared_ptr<FakeState> s_;
  std::set<std::u16string> handles_;
  int serial_ = 0;
};

mv::rpc::ServeOptions tokens(std::vector<std::string> accepted) {
  mv::rpc::ServeOptions o;
  o.tokens = std::move(accepted);
  return o;
}

class FakeDaemon {
 public:
  explicit FakeDaemon(FakeOptions o = {}, mv::rpc::ServeOptions serve = {},
                      const std::string& listen = "127.0.0.1:0")
      : state_(std::make_shared<FakeState>(std::move(o))) {
    serve.sessions = [s = state_] { return new FakeSession(s); };
    serve.refusalDelay = 0 * kj::SECONDS;
    daemon_ = std::make_unique<DaemonThread>(std::move(serve), listen);
    EXPECT_EQ(daemon_->error(), "");
  }
  ~FakeDaemon() { release(); }

  std::string log() const { return daemon_->log(); }
  uint16_t port() const { return daemon_->port(); }
  // Dies with every call it holds unanswered.
  void kill() {
    daemon_->kill([this] { release(); });
  }
  void release() {
    std::lock_guard lock(state_->mutex);
    state_->released = true;
    state_->changed.notify_all();
  }
  template <typename F>
  auto read(F f) {
    std::lock_guard lock(state_->mutex);
    return f(*state_);
  }
  int sessions() {
    return read([](FakeState& s) { return s.sessions; });
  }
  int generation() {
    return read([](FakeState& s) { return s.generation; });
  }
  // The rows GetRecords asked for since the last look, as "first+count"; "" when none.
  std::string rowsAsked() {
    return read([&](FakeState& s) {
      const std::size_t from = std::exchange(rowsSeen_, s.rowsAsked.size());
      if (from == s.rowsAsked.size()) return std::string();
      return std::to_string(s.rowsAsked[from]) + "+" + std::to_string(s.rowsAsked.size() - from);
    });
  }
  std::vector<int32_t> blocksAsked(const std::u16string& column) {
    return read([&](FakeState& s) {
      std::vector<int32_t> out;
      for (const auto& [c, n] : s.blocksAsked) {
        if (c == column) out.push_back(n);
      }
      return out;
    });
  }
  // Waits until `count` blocks of `column` were asked for, then a little longer, so that one too
  // many would be seen too.
  void settle(const std::u16string& column, std::size_t count) {
    waitFor([&] { return blocksAsked(column).size() >= count; });
    std::this_thread::sleep_for(milliseconds(50));
  }

 private:
  std::shared_ptr<FakeState> state_;
  std::unique_ptr<DaemonThread> daemon_;
  std::size_t rowsSeen_ = 0;
};

// One connection, released at the end of the scope.
class Link {
 public:
  explicit Link(const FakeDaemon& daemon, mv::rpc::RemoteOptions options = {},
                std::string token = {}) {
    mv::rpc::ServerEndpoint e;
    e.address = "127.0.0.1";
    e.port = daemon.port();
    e.token = std::move(token);
    status_ = mv::rpc::connectRemote(e, options, &server_);
  }
  ~Link() { release(); }
  void release() {
    if (server_ != nullptr) std::exchange(server_, nullptr)->Release();
  }
  int32_t status() const { return status_; }
  mv::IBookServer* operator->() const { return server_; }
  mv::IBookServer& operator*() const { return *server_; }
  mv::rpc::RemoteBookServer* remote() const {
    return static_cast<mv::rpc::RemoteBookServer*>(server_);
  }

 private:
  mv::IBookServer* server_ = nullptr;
  int32_t status_ = -1;
};

const mv::Bstr kDb(u"Book1"), kTable(u"TagPageTBL");

std::u16string open(mv::IBookServer& s) {
  int32_t rows = 0;
  mv::Bstr handle;
  EXPECT_EQ(s.OpenTable(kDb.get(), kTable.get(), 0, &rows, handle.out()), 0);
  return std::u16string(handle.view());
}

// The texts of a row; empty for anything that is not an array of texts.
std::vector<std::u16string> read(mv::IBookServer& s, const std::u16string& handle, int row,
                                 int32_t* status = nullptr, const mv::Bstr& db = kDb) {
  mv::Variant v;
  const int32_t got = s.GetRecords(db.get(), mv::Bstr(handle).get(), row, v.get());
  if (status) *status = got;
  std::vector<std::u16string> out;
  for (const std::string& t : texts(v.get())) out.push_back(utf16(t));
  return out;
}

// --- rows --------------------------------------------------------------------------------------

TEST(RemoteRows, AnOpenBringsItsFirstRowsAndEachMissAsksForARunFromThere) {
  using Opener = std::function<int32_t(mv::IBookServer&, BSTR*)>;
  const mv::Bstr sql(u"SELECT * FROM TagPageTBL");
  int32_t n = 0;
  const Opener openTable = [&](mv::IBookServer& s, BSTR* h) {
    return s.OpenTable(kDb.get(), kTable.get(), 0, &n, h);
  };
  const Opener query = [&](mv::IBookServer& s, BSTR* h) {
    return s.ExecuteQuery(kDb.get(), kTable.get(), sql.get(), 0, &n, h);
  };
  const Opener openEx = [&](mv::IBookServer& s, BSTR* h) {
    return s.OpenTableEx(kDb.get(), kTable.get(), sql.get(), 1, &n, h);
  };
  const std::vector<std::string> batched{"open 0+256", "256 256+1024", "1280 1280+1024",
                                         "2304 2304+697"};  // the last run stops past the end
  std::vector<std::string> rowByRow;
  for (int i = 0; i < 10; ++i)
    rowByRow.push_back(std::to_string(i) + " " + std::to_string(i) + "+1");
  const struct {
    const char* name;
    Opener open;
    uint32_t prefetch, refill;
    int rows;  // read in order
    std::vector<std::string> asked;
  } cases[] = {{"OpenTable", openTable, 256, 1024, 3000, batched},
               {"ExecuteQuery", query, 256, 1024, 3000, batched},
               {"OpenTableEx", openEx, 256, 1024, 3000, batched},
               {"row by row", openTable, 0, 1, 10, rowByRow}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeDaemon daemon;
    Link s(daemon, {.prefetch = c.prefetch, .refill = c.refill});
    mv::Bstr handle;
    ASSERT_EQ(c.open(*s, handle.out()), 0);
    EXPECT_EQ(n, 3000);
    std::vector<std::string> asked;
    if (const std::string a = daemon.rowsAsked(); !a.empty()) asked.push_back("open " + a);
    for (int i = 0; i < c.rows; ++i) {
      int32_t status = -1;
      ASSERT_EQ(read(*s, std::u16string(handle.view()), i, &status), expectedRow(i, 0)) << i;
      ASSERT_EQ(status, 0);
      if (const std::string a = daemon.rowsAsked(); !a.empty()) {
        asked.push_back(std::to_string(i) + " " + a);
      }
    }
    EXPECT_EQ(asked, c.asked);
  }
}

TEST(RemoteRows, ARowOutsideTheHeldRunIsAskedForFromThereWithTheServersStatus) {
  FakeDaemon daemon;
  Link s(daemon);
  const std::u16string handle = open(*s);
  EXPECT_EQ(daemon.rowsAsked(), "0+256");
  const mv::Bstr otherDb(u"Book2");
  const struct {
    int row;
    int32_t status;
    std::string asked;
    bool otherDb = false;
  } steps[] = {
      {300, 0, "300+1024"},
      {10, 0, "10+1024"},  // behind the run
      {1033, 0, ""},
      {1034, 0, "1034+1024"},
      {1035, 0, "1035+1024", true},  // held for one database, not for another
      {3000, kNoRow, "3000+1"},
      {-1, kNoRow, "-1+1"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.row);
    int32_t status = -1;
    const auto row = read(*s, handle, step.row, &status, step.otherDb ? otherDb : kDb);
    EXPECT_EQ(status, step.status);
    EXPECT_EQ(daemon.rowsAsked(), step.asked);
    EXPECT_EQ(row, step.status == 0 ? expectedRow(step.row, 0) : std::vector<std::u16string>());
  }
}

// Rows too big for one answer come in several, none lost.
TEST(RemoteRows, LargeRowsComeInSeveralAnswers) {
  FakeDaemon daemon({.rows = 7, .rowChars = 1'000'000});
  Link s(daemon);
  const std::u16string handle = open(*s);
  EXPECT_EQ(daemon.rowsAsked(), "0+5");  // 2 MB each: the answer is full after five
  for (int i = 0; i < 7; ++i) EXPECT_EQ(read(*s, handle, i), expectedRow(i, 0, 1'000'000)) << i;
  EXPECT_EQ(daemon.rowsAsked(), "5+3");
}

TEST(RemoteRows, AWriteThroughAHandleDropsItsRowsAndOnlyItsRows) {
  FakeDaemon daemon;
  Link s(daemon);
  const std::u16string h1 = open(*s), h2 = open(*s);
  // Element texts name the handle written through, as the library does.
  const auto record = [](mv::Variant& v, const std::u16string& h) {
    putTexts(v.get(), {"DBNAME=Book1", "TABLENAME=" + utf8(h), "KEY=Name\t2\tx"});
  };
  const std::vector<std::pair<const char*, std::function<int32_t(const std::u16string&)>>> writes{
      {"AddRecord",
       [&](const std::u16string& h) {
         mv::Variant rec;
         record(rec, h);
         int32_t index = 0;
         return s->AddRecord(kDb.get(), rec.get(), 3, &index);
       }},
      {"UpdateRecord",
       [&](const std::u16string& h) {
         mv::Variant rec;
         record(rec, h);
         int32_t index = 5;
         return s->UpdateRecord(kDb.get(), rec.get(), 3, &index);
       }},
      {"DeleteRecord",
       [&](const std::u16string& h) { return s->DeleteRecord(kDb.get(), mv::Bstr(h).get(), 5); }},
      {"DeleteRecords",
       [&](const std::u16string& h) {
         return s->DeleteRecords(kDb.get(), mv::Bstr(h).get(), 0, 1);
       }},
      {"UpLoadData",
       [&](const std::u16string& h) {
         mv::Variant rec, block;
         record(rec, h);
         EXPECT_TRUE(block.makeArray(MV_VT_UI1, 16));
         return s->UpLoadData(rec.get(), 1, 16, block.get(), 1);
       }},
  };
  int row = 300;
  for (const auto& [name, write] : writes) {
    SCOPED_TRACE(name);
    ASSERT_EQ(read(*s, h1, row), expectedRow(row, daemon.generation()));  // h1 holds a run
    const int held = daemon.generation();
    daemon.rowsAsked();
    ASSERT_EQ(write(h2), 0);
    EXPECT_EQ(read(*s, h1, row + 1), expectedRow(row + 1, held));
    EXPECT_EQ(daemon.rowsAsked(), "") << "a write through h2 dropped h1's rows";
    ASSERT_EQ(write(h1), 0);
    EXPECT_EQ(read(*s, h1, row + 2), expectedRow(row + 2, daemon.generation()));
    EXPECT_EQ(daemon.rowsAsked(), std::to_string(row + 2) + "+1024") << "h1's rows outlived it";
    row += 3;
  }
}

TEST(RemoteRows, ClosingTheHandleOrDeletingTheDatabaseForgetsItsRows) {
  FakeDaemon daemon;
  Link s(daemon);
  const std::u16string h1 = open(*s), h2 = open(*s);
  daemon.rowsAsked();
  int32_t status = 0;
  ASSERT_EQ(s->CloseTable(kDb.get(), mv::Bstr(h1).get()), 0);
  EXPECT_EQ(read(*s, h1, 3, &status), std::vector<std::u16string>());
  EXPECT_EQ(status, kBadHandle);
  EXPECT_EQ(read(*s, h2, 3), expectedRow(3, 0));
  ASSERT_EQ(s->DeleteDatabase(kDb.get(), nullptr), 0);
  read(*s, h2, 4, &status);
  EXPECT_EQ(status, kBadHandle);
  EXPECT_EQ(daemon.rowsAsked(), "3+2");  // the two that crossed the wire after the opens
}

// --- blobs read ahead --------------------------------------------------------------------------

constexpr int32_t kSentinel = -77;  // in isEnd and bytes: the proxy left them alone

// What one call left for its caller.
struct Answer {
  int32_t status = 0;
  int32_t isEnd = kSentinel;
  int32_t bytes = kSentinel;
  VARTYPE vt = MV_VT_EMPTY;
  std::vector<uint8_t> data = {};
  bool operator==(const Answer&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Answer& a) {
  return out << "{status " << a.status << ", isEnd " << a.isEnd << ", bytes " << a.bytes << ", vt "
             << a.vt << ", " << a.data.size() << " bytes}";
}

// What a call that answered `status` leaves: nothing of the caller's touched.
Answer only(int32_t status) { return Answer{.status = status}; }

Answer ask(mv::IBookServer& s, const std::u16string& column, int32_t blockNo,
           int32_t blockSize = kBlock, int32_t rowIndex = 0) {
  Answer a;
  mv::Variant block;
  a.status = s.DownLoadData(kDb.get(), mv::Bstr(u"H1").get(), mv::Bstr(column).get(), rowIndex,
                            blockNo, blockSize, block.get(), &a.isEnd, &a.bytes);
  a.vt = block.get()->vt;
  if (a.vt == (MV_VT_ARRAY | MV_VT_UI1)) {
    const auto* p = static_cast<const uint8_t*>(block.get()->parray->pvData);
    a.data.assign(p, p + mv::safeArrayCount(block.get()->parray));
  }
  return a;
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

// Whatever the library sees with read-ahead is what it sees when every block waits for its own
// round trip, byte for byte, and every block is asked for once and in order.
TEST(ReadAhead, EveryAnswerIsTheOneWithoutReadingAhead) {
  const Step check([](mv::IBookServer& s) { return s.ConnectCheck(); });
  // Lets the blocks already asked for arrive, without a call to the proxy.
  const Step pause([](mv::IBookServer&) {
    std::this_thread::sleep_for(milliseconds(150));
    return 0;
  });
  const auto blocks = [](int32_t first, int32_t last) {
    std::vector<Step> out;
    for (int32_t n = first; n <= last; ++n) out.emplace_back(u"I", n);
    return out;
  };
  std::vector<Step> failing = blocks(1, 1);
  failing.push_back(pause);  // block 3's failure is in before the library asks for block 2
  for (const Step& s : blocks(2, 6)) failing.push_back(s);
  const struct {
    const char* name;
    int64_t total;
    std::vector<Step> steps;
    int32_t failBlock = 0;
    bool doubleBlocks = false;
    std::size_t leastAsked = 0, mostAsked = 0;  // blocks of column I asked for
  } cases[] = {
      // The last block short; at most four past the end asked for.
      {"ten and a half blocks", kBlock * 10 + kBlock / 2, blocks(1, 11), 0, false, 11, 15},
      // A failure closes the read-ahead: 4 and 5 were on their way, 6 is asked anew.
      {"a failing block", kBlock * 8, failing, 3, false, 10, 10},
      // Block 3's answer ends the data before block 2 is asked for: nothing more goes out.
      {"the end read ahead",
       kBlock * 3 - 10,
       {{u"I", 1}, pause, {u"I", 2}, {u"I", 3}},
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
    const FakeOptions o{
        .blobBytes = c.total, .failBlock = c.failBlock, .doubleBlocks = c.doubleBlocks};
    FakeDaemon plainDaemon(o), aheadDaemon(o);
    Link plain(plainDaemon, {.readAhead = 0}), fast(aheadDaemon);
    for (std::size_t i = 0; i < c.steps.size(); ++i) {
      const Step& step = c.steps[i];
      if (step.column.empty()) {
        EXPECT_EQ(step.other(*fast), step.other(*plain)) << "step " << i;
        continue;
      }
      const Answer want = ask(*plain, step.column, step.blockNo, step.blockSize, step.rowIndex);
      EXPECT_EQ(ask(*fast, step.column, step.blockNo, step.blockSize, step.rowIndex), want)
          << "step " << i;
      if (want.status != 0) {  // a failure's own values stay at the daemon
        EXPECT_EQ(want, only(want.status)) << "step " << i;
      } else {
        EXPECT_EQ(want.data, blobBlock(step.column, step.rowIndex, step.blockNo, step.blockSize,
                                       c.total, c.doubleBlocks ? 2 * step.blockSize : 0))
            << "step " << i;
      }
    }
    if (c.mostAsked == 0) continue;
    aheadDaemon.settle(u"I", c.leastAsked);
    const std::vector<int32_t> asked = aheadDaemon.blocksAsked(u"I");
    EXPECT_GE(asked.size(), c.leastAsked);
    EXPECT_LE(asked.size(), c.mostAsked);
    EXPECT_EQ(asked, range(1, static_cast<int32_t>(asked.size())));
  }
}

// The daemon serves the next blocks while the library is busy with the last one.
TEST(ReadAhead, TheDaemonsWorkOverlapsTheLibrarysSoItIsPaidOnceNotPerBlock) {
  constexpr int kMs = 25, kBlocks = 12;
  for (const uint32_t blocks : {0u, 4u}) {
    SCOPED_TRACE(blocks);
    FakeDaemon slow({.blobBytes = int64_t{kBlock} * kBlocks, .downloadMs = kMs});
    Link s(slow, {.readAhead = blocks});
    const auto t0 = Clock::now();
    for (int32_t n = 1; n <= kBlocks; ++n) {
      ASSERT_EQ(ask(*s, u"Image", n).data, blobBlock(u"Image", 0, n, kBlock, kBlock * kBlocks));
      std::this_thread::sleep_for(milliseconds(kMs));  // the library's own work
    }
    const auto took = Clock::now() - t0;
    const milliseconds serial(2 * kMs * kBlocks);
    if (blocks == 0) {
      EXPECT_GE(took, serial * 9 / 10);
    } else {
      EXPECT_LT(took, serial * 3 / 4);
    }
  }
}

TEST(ReadAhead, NothingIsAskedForMoreThanTheSetNumberOfBlocksPastTheLastAsked) {
  for (const int32_t k : {1, 2, 4}) {
    SCOPED_TRACE(k);
    FakeDaemon daemon({.blobBytes = int64_t{kBlock} * 20});
    Link s(daemon, {.readAhead = static_cast<uint32_t>(k)});
    for (int32_t n = 1; n <= 3; ++n) {
      ASSERT_EQ(ask(*s, u"Image", n).status, 0);
      if (n == 1) continue;
      daemon.settle(u"Image", static_cast<std::size_t>(n + k));
      EXPECT_EQ(daemon.blocksAsked(u"Image"), range(1, n + k));
    }
  }
}

TEST(ReadAhead, AnyOtherCallDropsWhatWasReadAheadAndTheBlocksAreAskedForAgain) {
  const int64_t total = int64_t{kBlock} * 6;
  FakeDaemon daemon({.blobBytes = total});
  Link s(daemon);
  const std::u16string table = open(*s);
  daemon.rowsAsked();
  // Calls that cross the wire and one the proxy answers from rows it holds.
  const std::vector<std::pair<std::u16string, std::function<int32_t()>>> others = {
      {u"ConnectCheck", [&] { return s->ConnectCheck(); }},
      {u"GetRecords from held rows",
       [&] {
         int32_t status = -1;
         read(*s, table, 1, &status);
         return status;
       }},
      {u"GetServerInfo",
       [&] {
         mv::Bstr info;
         return s->GetServerInfo(info.out());
       }},
  };
  for (const auto& [column, other] : others) {
    ASSERT_EQ(ask(*s, column, 1).status, 0);
    ASSERT_EQ(ask(*s, column, 2).status, 0);
    ASSERT_EQ(other(), 0);
    for (int32_t n = 3; n <= 6; ++n) {
      EXPECT_EQ(ask(*s, column, n).data, blobBlock(column, 0, n, kBlock, total)) << n;
    }
    // Blocks 3 to 6 were on their way when the other call came; after it they are asked anew.
    const std::vector<int32_t> asked = daemon.blocksAsked(column);
    ASSERT_GE(asked.size(), 10u);
    EXPECT_EQ(std::vector<int32_t>(asked.begin(), asked.begin() + 10),
              (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 3, 4, 5, 6}));
  }
  EXPECT_EQ(daemon.rowsAsked(), "") << "the held row crossed the wire";
}

// --- the link ----------------------------------------------------------------------------------

// However the daemon dies, the call that finds it gone fails within its limit, and from then on
// nothing is sent: every call fails at once, held rows and blocks read ahead included.
TEST(RemoteLink, ADeadDaemonFailsTheCallUnderWayAndEveryLaterOnePromptly) {
  const auto download = [](mv::IBookServer& s) { return ask(s, u"Image", 2).status; };
  const struct {
    const char* name;
    int downloadMs;
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
      // The fake never answers CheckSQLServerType.
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
    FakeDaemon daemon({.blobBytes = int64_t{kBlock} * 20, .downloadMs = c.downloadMs});
    Link s(daemon);
    const std::u16string handle = open(*s);
    ASSERT_EQ(ask(*s, u"Image", 1).status, 0);
    if (c.killAtMs < 0) {
      daemon.settle(u"Image", 5);
      daemon.kill();
      std::this_thread::sleep_for(milliseconds(50));
    }
    std::thread killer([&] {
      if (c.killAtMs < 0) return;
      std::this_thread::sleep_for(milliseconds(c.killAtMs));
      daemon.kill();
    });
    const auto t0 = Clock::now();
    const int32_t status = c.call(*s);
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
    int32_t rowStatus = 0;
    EXPECT_EQ(read(*s, handle, 1, &rowStatus), std::vector<std::u16string>());
    EXPECT_EQ(rowStatus, kStatusServerUnavailable);
    EXPECT_EQ(ask(*s, u"Image", 3), only(kStatusServerUnavailable));
    int32_t a = 3, b = 4;
    EXPECT_EQ(s->GetConnect(&a, &b), kStatusServerUnavailable);
    EXPECT_EQ(a, 3);
    EXPECT_EQ(s->ConnectCheck(), kStatusServerUnavailable);
    EXPECT_LT(Clock::now() - t1, milliseconds(200));
  }
}

TEST(RemoteLink, TheSocketProbesForADeadPeerAndTheTokenDecidesTheLogon) {
  FakeDaemon open;
  Link s(open);
  mv::rpc::KeepAlive k{0, 0, 0};
  ASSERT_TRUE(s.remote()->keepAlive(k));
  EXPECT_EQ(k.idle, 10);
  EXPECT_EQ(k.interval, 3);
  EXPECT_EQ(k.count, 3);

  FakeDaemon guarded({}, tokens({"s3cret"}));
  const struct {
    const char* token;
    int32_t status;
  } logons[] = {
      {"s3cret", 0}, {"guess", mv::rpc::kStatusAccessDenied}, {"", mv::rpc::kStatusAccessDenied}};
  for (const auto& c : logons) {
    Link link(guarded, {}, c.token);
    EXPECT_EQ(link.status(), c.status) << c.token;
    if (c.status == 0) {
      EXPECT_EQ(link->ConnectCheck(), 0);
    }
  }
}

TEST(RemoteLink, TwoLinksOnOneThreadShareItsLoopAndEndTheirSessionsWithRequestsOutstanding) {
  FakeDaemon first;
  FakeDaemon second(
      {.name = "second daemon", .blobBytes = int64_t{kBlock} * 20, .downloadMs = 300});
  Link a(first), b(second);
  ASSERT_EQ(a.status(), 0);
  ASSERT_EQ(b.status(), 0);
  mv::Bstr ia, ib;
  EXPECT_EQ(a->GetServerInfo(ia.out()), 0);
  EXPECT_EQ(b->GetServerInfo(ib.out()), 0);
  EXPECT_EQ(ia.view(), u"fake daemon");
  EXPECT_EQ(ib.view(), u"second daemon");

  ASSERT_EQ(ask(*b, u"Image", 1).status, 0);  // blocks 2 to 5 wait at the daemon
  const auto t0 = Clock::now();
  b.release();
  EXPECT_LT(Clock::now() - t0, milliseconds(200));
  EXPECT_EQ(a->ConnectCheck(), 0);
  EXPECT_TRUE(waitFor([&] { return second.sessions() == 0; }, milliseconds(5000)));
  EXPECT_EQ(first.sessions(), 1);

  // With every link gone the loop ends; a new link makes a new one.
  a.release();
  Link c(second);
  ASSERT_EQ(c.status(), 0);
  EXPECT_EQ(c->ConnectCheck(), 0);
}

// --- by a configured name, and through the exports ----------------------------------------------

using TlsLink = ClientEnvTest;

TEST_F(TlsLink, LetsInOnlyAVerifiedDaemonAndABadCaFileIsAConfigurationError) {
  ASSERT_TRUE(testCertificate().made && testCertificate(true).made) << "openssl failed";
  const auto slurp = [](const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
  };
  mv::rpc::ServeOptions tls = tokens({"t"});
  tls.tlsCertPem = slurp(testCertificate().cert);
  tls.tlsKeyPem = slurp(testCertificate().key);
  FakeDaemon secure({}, tls);
  FakeDaemon plain;
  writeFile("not-a-cert.pem", "hello\n");
  const std::string ca = "ca = " + testCertificate().cert + "\ntoken = t\n";
  const struct {
    const FakeDaemon* daemon;
    std::string settings;
    int32_t status;
  } cases[] = {
      {&secure, ca + "tls-name = localhost\n", 0},
      {&secure, "ca = " + testCertificate(true).cert + "\ntls-name = localhost\ntoken = t\n",
       mv::rpc::kStatusCertificateRefused},
      {&secure, ca + "tls-name = books.example\n", mv::rpc::kStatusCertificateRefused},
      // The default name is the address, which the certificate does not carry.
      {&secure, ca, mv::rpc::kStatusCertificateRefused},
      {&plain, ca + "tls-name = localhost\n", mv::rpc::kStatusCertificateRefused},
      {&plain, "ca = not-a-cert.pem\n", mv::rpc::kStatusConfigUnreadable},
      {&plain, "ca = missing.pem\n", mv::rpc::kStatusConfigUnreadable}};
  for (const auto& c : cases) {
    useConfig("[secure]\naddress = 127.0.0.1\nport = " + std::to_string(c.daemon->port()) + "\n" +
              c.settings);
    mv::IBookServer* s = nullptr;
    EXPECT_EQ(mv::rpc::connectRemote("secure", &s), c.status)
        << c.settings << mv::rpc::lastConnectError();
    if (s == nullptr) {
      EXPECT_FALSE(mv::rpc::lastConnectError().empty());
      continue;
    }
    EXPECT_EQ(s->ConnectCheck(), 0);
    s->Release();
  }
  EXPECT_EQ(plain.log().find("login from"), std::string::npos);
}

class LibraryLink : public ClientEnvTest {
 protected:
  void SetUp() override {
    mv::setServerFactory(nullptr);
    mv::resetConnectionState();
  }
  void TearDown() override {
    while (MVExit() == 0) {
    }
    mv::resetConnectionState();
  }
};

TEST_F(LibraryLink, InitReachesTheDaemonOnEitherLoopbackAndConnectCheckReportsItsLoss) {
  for (const char* listen : {"127.0.0.1:0", "[::1]:0"}) {
    SCOPED_TRACE(listen);
    if (!DaemonThread({}, listen).error().empty()) GTEST_SKIP() << "no " << listen;
    FakeDaemon daemon({.name = listen}, {}, listen);
    std::string at = listen;
    at.replace(at.size() - 1, 1, std::to_string(daemon.port()));
    ASSERT_EQ(MVInit(at.c_str()), 0) << mv::rpc::lastConnectError();
    char info[260] = "";
    EXPECT_EQ(MVGetServerInfo(info), 0);
    EXPECT_STREQ(info, listen);
    int32_t first = 0, second = 0;
    EXPECT_EQ(MVGetConnect(&first, &second), 0);
    EXPECT_EQ(first, 100);

    daemon.kill();
    EXPECT_EQ(MVConnectCheck(), -1);
    const int32_t lost = mv::connection().lastError;
    EXPECT_TRUE(lost == kStatusServerUnavailable || lost == kStatusCallFailed) << std::hex << lost;
    EXPECT_EQ(MVConnectCheck(), -1);
    EXPECT_EQ(mv::connection().lastError, kStatusServerUnavailable);
    EXPECT_EQ(MVExit(), 0);
  }
}

TEST_F(LibraryLink, NamesThatCannotWorkFailWithTheirOwnStatus) {
  FakeDaemon daemon({}, tokens({"library token"}));
  DaemonThread closed;
  const std::string port = std::to_string(daemon.port()), shut = std::to_string(closed.port());
  closed.kill();
  writeFile("books.token", "library token\n");
  const std::string good =
      "[books]\naddress = 127.0.0.1\nport = " + port +
      "\ntoken-file = books.token\n[wrong]\naddress = 127.0.0.1\nport = " + port +
      "\ntoken = nope\n";
  const struct {
    std::string name;
    int32_t status;
    std::string config;
  } cases[] = {
      {"books", 0, good},
      {"wrong", mv::rpc::kStatusAccessDenied, good},
      {"no-such-host", mv::kStatusClassNotRegistered, good},
      {"127.0.0.1:port", mv::kStatusClassNotRegistered, good},
      {"127.0.0.1:" + shut, kStatusServerUnavailable, good},
      {"books", mv::rpc::kStatusConfigUnreadable, "[books]\naddress = 127.0.0.1\nport = x\n"}};
  for (const auto& c : cases) {
    useConfig(c.config);
    EXPECT_EQ(MVInit(c.name.c_str()), c.status == 0 ? 0 : -1) << c.name;
    if (c.status == 0) {
      EXPECT_EQ(MVConnectCheck(), 0);
      EXPECT_EQ(MVExit(), 0);
    } else {
      EXPECT_EQ(mv::connection().lastError, c.status) << c.name;
      EXPECT_EQ(mv::connection().currentServer, nullptr);
    }
  }
}

}  // namespace
}  // namespace mvtest
