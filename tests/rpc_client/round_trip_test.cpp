// Every method of the table through the library's proxy, the wire and the daemon's stub to a
// session that echoes: what the caller passes in arrives whole, and what the session leaves in
// the out-parameters comes back whole (out-only ones after a success only, in-out ones always,
// null pointers stay null). The table drives the test: a method added to it is covered here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "daemon_thread.h"
#include "platform/wide.h"
#include "rpc/convert.h"
#include "rpc/daemon.h"
#include "rpc/remote_book_server.h"
#include "server/core/book_server.h"
#include "server/core/server_core.h"
#include "server/sqlite/sqlite_engine.h"
#include "temp_folder.h"
#include "utf8.h"

namespace mvtest {
namespace {

using mv::ArgKind;
using mv::ArgRef;
using mv::ServerMethod;

constexpr int32_t kEchoRows = 10;  // GetRecords answers rows 0..9

std::string bytesText(const VARIANT* v, int32_t good) {
  if (v == nullptr || v->vt != (MV_VT_ARRAY | MV_VT_UI1)) return "none";
  const uint32_t n = std::min<uint32_t>(mv::safeArrayCount(v->parray), std::max(good, 0));
  std::string s = "<";
  for (uint32_t i = 0; i < n; ++i)
    s += std::to_string(static_cast<uint8_t*>(v->parray->pvData)[i]) + ",";
  return s + ">";
}

// What a call carries in, as text; both ends render their view the same way.
std::string renderIn(const ServerMethod& m, std::span<const ArgRef> args) {
  int32_t good = 0;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (m.args[i] == ArgKind::GoodBytes) good = std::get<int32_t>(args[i]);
  }
  std::string s = std::string(m.name) + "(";
  for (std::size_t i = 0; i < args.size(); ++i) {
    const ArgRef& a = args[i];
    switch (m.args[i]) {
      case ArgKind::Text:
      case ArgKind::Handle:
        s += utf8(std::get<BSTR>(a));
        break;
      case ArgKind::Int:
      case ArgKind::GoodBytes:
        s += std::to_string(std::get<int32_t>(a));
        break;
      case ArgKind::IntInOut:
        s += std::get<int32_t*>(a) ? std::to_string(*std::get<int32_t*>(a)) : "null";
        break;
      case ArgKind::RealInOut:
        s += std::get<double*>(a) ? std::to_string(*std::get<double*>(a)) : "null";
        break;
      case ArgKind::TextInOut:
        s += std::get<BSTR*>(a) ? utf8(*std::get<BSTR*>(a)) : "null";
        break;
      case ArgKind::Record:
        for (const auto& t : texts(std::get<VARIANT*>(a))) s += t + "|";
        break;
      case ArgKind::BlockIn:
        s += bytesText(std::get<VARIANT*>(a), good);
        break;
      default:  // out-only: whether the pointer is there
        s += std::visit([](auto p) { return p == decltype(p){} ? "null" : "out"; }, a);
    }
    s += ";";
  }
  return s + ")";
}

// The value the echo leaves in an argument, by method number and place.
std::string outText(int32_t number, std::size_t i) {
  return "out-" + std::to_string(number) + "-" + std::to_string(i) + "-出";
}

// Records what arrives; leaves distinct values in every pointer it is given, then answers
// `status` (0, or a failure after which the proxy must still hand back the in-out values).
class EchoServer final : public mv::ForwardingServer {
 public:
  struct Shared {
    std::mutex mutex;
    std::vector<std::string> calls;
    int32_t status = 0;
  };
  explicit EchoServer(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}

 protected:
  int32_t forward(const ServerMethod& m, std::span<const ArgRef> args) override {
    std::lock_guard lock(shared_->mutex);
    shared_->calls.push_back(renderIn(m, args));
    for (std::size_t i = 0; i < args.size(); ++i) {
      const ArgRef& a = args[i];
      const auto k = static_cast<int32_t>(i);
      switch (m.args[i]) {
        case ArgKind::IntOut:
          if (auto* p = std::get<int32_t*>(a)) *p = m.number * 100 + k;
          break;
        case ArgKind::IntInOut:
          if (auto* p = std::get<int32_t*>(a)) *p += 1;
          break;
        case ArgKind::LongOut:
          if (auto* p = std::get<int64_t*>(a)) *p = m.number * 10'000'000'000LL + k;
          break;
        case ArgKind::RealInOut:
          if (auto* p = std::get<double*>(a)) *p *= 2;
          break;
        case ArgKind::TextOut:
        case ArgKind::HandleOut:
          if (auto* p = std::get<BSTR*>(a)) putText(p, outText(m.number, i));
          break;
        case ArgKind::TextInOut:
          if (auto* p = std::get<BSTR*>(a)) putText(p, utf8(*p) + "+");
          break;
        case ArgKind::Block16:
          if (auto* p = std::get<uint8_t*>(a)) std::memset(p, m.number, 16);
          break;
        case ArgKind::RowOut: {
          const int32_t row = std::get<int32_t>(args[i - 1]);
          if (row >= kEchoRows) return 7;
          if (auto* p = std::get<VARIANT*>(a)) putTexts(p, {"row", std::to_string(row)});
          break;
        }
        case ArgKind::ValueOut:
          if (auto* p = std::get<VARIANT*>(a)) putTexts(p, {outText(m.number, i), "v"});
          break;
        case ArgKind::BlockOut:
          if (auto* p = std::get<VARIANT*>(a)) {
            const uint8_t bytes[] = {static_cast<uint8_t>(m.number), static_cast<uint8_t>(i), 9};
            mv::fillVariantArray(p, MV_VT_UI1, 3, [&](void* d) { std::memcpy(d, bytes, 3); });
          }
          break;
        default:
          break;
      }
    }
    return shared_->status;
  }

 private:
  std::shared_ptr<Shared> shared_;
};

// A caller's arguments for one method, every pointer set (or every pointer null).
struct CallArgs {
  std::vector<mv::Bstr> texts;
  std::vector<int32_t> ints;
  std::vector<int64_t> longs;
  std::vector<double> reals;
  std::vector<std::array<uint8_t, 16>> blocks16;
  std::vector<mv::Variant> variants;
  std::vector<ArgRef> refs;

  // `text` gives the text arguments; by default each names its method and place.
  CallArgs(const ServerMethod& m, bool nulls,
           const std::function<std::string(std::size_t, ArgKind)>& text = {})
      : texts(m.args.size()),
        ints(m.args.size()),
        longs(m.args.size()),
        reals(m.args.size()),
        blocks16(m.args.size()),
        variants(m.args.size()) {
    for (std::size_t i = 0; i < m.args.size(); ++i) {
      const auto k = static_cast<int32_t>(i);
      VARIANT* v = nulls ? nullptr : variants[i].get();
      switch (m.args[i]) {
        case ArgKind::Text:
        case ArgKind::Handle:
          texts[i] = mv::Bstr(utf16(text ? text(i, m.args[i])
                                         : "in-" + std::to_string(m.number) + "-" +
                                               std::to_string(i) + "-テキスト"));
          refs.emplace_back(texts[i].get());
          break;
        case ArgKind::Int:
          refs.emplace_back(k + 3);
          break;
        case ArgKind::GoodBytes:
          refs.emplace_back(int32_t{3});
          break;
        case ArgKind::IntOut:
        case ArgKind::IntInOut:
          ints[i] = 40 + k;
          refs.emplace_back(nulls ? nullptr : &ints[i]);
          break;
        case ArgKind::LongOut:
          longs[i] = -1;
          refs.emplace_back(nulls ? nullptr : &longs[i]);
          break;
        case ArgKind::RealInOut:
          reals[i] = 1.25 + k;
          refs.emplace_back(nulls ? nullptr : &reals[i]);
          break;
        case ArgKind::TextOut:
        case ArgKind::HandleOut:
        case ArgKind::TextInOut:
          if (m.args[i] == ArgKind::TextInOut) texts[i] = mv::Bstr(u"held");
          refs.emplace_back(nulls ? nullptr : texts[i].inOut());
          break;
        case ArgKind::Block16:
          refs.emplace_back(nulls ? nullptr : blocks16[i].data());
          break;
        case ArgKind::Record:
          if (v) putTexts(v, {"TABLENAME=H1", "KEY=Name\t2\tテキスト"});
          refs.emplace_back(v);
          break;
        case ArgKind::BlockIn:
          if (v) {
            mv::fillVariantArray(v, MV_VT_UI1, 8, [](void* d) {
              for (uint8_t b = 0; b < 8; ++b) static_cast<uint8_t*>(d)[b] = b;
            });
          }
          refs.emplace_back(v);
          break;
        case ArgKind::RowOut:
        case ArgKind::ValueOut:
        case ArgKind::BlockOut:
          refs.emplace_back(v);
          break;
      }
    }
  }

  int32_t call(mv::IBookServer& server, const ServerMethod& m) {
    return m.invoke(server, refs.data());
  }
};

class RoundTrip : public ::testing::Test {
 protected:
  void SetUp() override {
    mv::rpc::ServeOptions options;
    options.sessions = [shared = shared_]() { return new EchoServer(shared); };
    daemon_ = std::make_unique<DaemonThread>(std::move(options));
    ASSERT_EQ(daemon_->error(), "");
    mv::rpc::ServerEndpoint endpoint;
    endpoint.address = "127.0.0.1";
    endpoint.port = daemon_->port();
    ASSERT_EQ(mv::rpc::connectRemote(endpoint, {}, &proxy_), 0) << mv::rpc::lastConnectError();
  }
  void TearDown() override {
    if (proxy_) proxy_->Release();
    daemon_.reset();
  }

  // The first call of `name` the echo received since the last look (an open also reads rows).
  std::string received(const char* name) {
    std::lock_guard lock(shared_->mutex);
    for (const std::string& c : std::exchange(shared_->calls, {})) {
      if (c.rfind(std::string(name) + "(", 0) == 0) return c;
    }
    return "nothing";
  }

  std::shared_ptr<EchoServer::Shared> shared_ = std::make_shared<EchoServer::Shared>();
  mv::IBookServer* proxy_ = nullptr;

 private:
  std::unique_ptr<DaemonThread> daemon_;
};

// What the caller holds after the call, for the kinds that come back.
void expectBack(const ServerMethod& m, CallArgs& a, bool succeeded) {
  for (std::size_t i = 0; i < m.args.size(); ++i) {
    SCOPED_TRACE(std::string(m.name) + " argument " + std::to_string(i));
    const auto k = static_cast<int32_t>(i);
    const ArgRef& r = a.refs[i];
    switch (m.args[i]) {
      case ArgKind::IntOut:
        EXPECT_EQ(*std::get<int32_t*>(r), succeeded ? m.number * 100 + k : 40 + k);
        break;
      case ArgKind::IntInOut:
        EXPECT_EQ(*std::get<int32_t*>(r), 41 + k);
        break;
      case ArgKind::LongOut:
        EXPECT_EQ(*std::get<int64_t*>(r), succeeded ? m.number * 10'000'000'000LL + k : -1);
        break;
      case ArgKind::RealInOut:
        EXPECT_EQ(*std::get<double*>(r), 2 * (1.25 + k));
        break;
      case ArgKind::TextOut:
      case ArgKind::HandleOut:
        EXPECT_EQ(utf8(*std::get<BSTR*>(r)), succeeded ? outText(m.number, i) : "");
        break;
      case ArgKind::TextInOut:
        EXPECT_EQ(utf8(*std::get<BSTR*>(r)), "held+");
        break;
      case ArgKind::Block16:
        EXPECT_EQ(a.blocks16[i][15], succeeded ? m.number : 0);
        break;
      case ArgKind::RowOut: {
        using Texts = std::vector<std::string>;
        const Texts row{"row", std::to_string(std::get<int32_t>(a.refs[i - 1]))};
        EXPECT_EQ(texts(std::get<VARIANT*>(r)), succeeded ? row : Texts());
        break;
      }
      case ArgKind::ValueOut: {
        using Texts = std::vector<std::string>;
        const Texts value{outText(m.number, i), "v"};
        EXPECT_EQ(texts(std::get<VARIANT*>(r)), succeeded ? value : Texts());
        break;
      }
      case ArgKind::BlockOut:
        EXPECT_EQ(
            bytesText(std::get<VARIANT*>(r), 16),
            succeeded ? "<" + std::to_string(m.number) + "," + std::to_string(i) + ",9,>" : "none");
        break;
      default:  // in-only: the caller's own, unchanged
        break;
    }
  }
}

TEST_F(RoundTrip, EveryMethodCarriesItsArgumentsBothWays) {
  for (const int32_t status : {0, 0x4321}) {
    shared_->status = status;
    for (const ServerMethod* m : mv::serverMethods()) {
      SCOPED_TRACE(std::string(m->name) + " answering " + std::to_string(status));
      CallArgs sent(*m, false);
      const std::string expected = renderIn(*m, sent.refs);
      // GetRecords fails only on a row past the echo's; its row here is within them.
      EXPECT_EQ(sent.call(*proxy_, *m), status);
      EXPECT_EQ(received(m->name), expected);
      expectBack(*m, sent, status == 0);
    }
  }
}

TEST_F(RoundTrip, NullPointersStayNullAtBothEnds) {
  for (const ServerMethod* m : mv::serverMethods()) {
    if ((m->flags & mv::kReadsRows) != 0) continue;  // a row reader always has its row
    SCOPED_TRACE(m->name);
    CallArgs sent(*m, true);
    EXPECT_EQ(sent.call(*proxy_, *m), 0);
    EXPECT_EQ(received(m->name), renderIn(*m, sent.refs));
  }
}

// The real server, given a null pointer for every pointer argument of every method, on a real
// database, table and handle, answers a status and writes through none of them: a client can
// send exactly that over the wire.
TEST(NullPointers, TheServerAnswersEveryMethodWithoutWritingThroughThem) {
  TempFolder folder("nulls");
  std::string error;
  auto core = mv::server::ServerCore::open(folder.path(), {}, mv::server::openSqliteEngine, error);
  ASSERT_TRUE(core) << error;
  auto* session = new mv::server::BookServer(core);
  const mv::Bstr system(u"MarvekSystemCommonDB"), book(u"NullBook"), empty(u""),
      table(u"UserInfoTBL");
  ASSERT_EQ(session->CopyDatabase(system.get(), empty.get(), book.get(), empty.get(), 2), 0);
  int32_t rows = 0;
  mv::Bstr handle;
  ASSERT_EQ(session->OpenTable(book.get(), table.get(), 0, &rows, handle.out()), 0);
  const std::string handleText = utf8(handle.get());
  const auto text = [&](std::size_t i, ArgKind kind) -> std::string {
    if (kind == ArgKind::Handle) return handleText;
    return i == 0 ? "NullBook" : i == 1 ? "UserInfoTBL" : "SELECT * FROM UserInfoTBL";
  };
  std::vector<const ServerMethod*> methods(mv::serverMethods().begin(), mv::serverMethods().end());
  // Deleting the database goes last, so that every other method finds it.
  std::stable_partition(methods.begin(), methods.end(), [](const ServerMethod* m) {
    return (m->flags & mv::kForgetsAllRows) == 0;
  });
  for (const ServerMethod* m : methods) {
    SCOPED_TRACE(m->name);
    CallArgs sent(*m, true, text);
    sent.call(*session, *m);
    // Whatever the method answered, the session is whole and goes on.
    EXPECT_EQ(session->ConnectCheck(), 0);
  }
  session->Release();
}

}  // namespace
}  // namespace mvtest
