// The stub and the gate through the daemon's loop in this process, over loopback, driven by a
// raw Cap'n Proto client that can send what the library's proxy never would.
#include <capnp/rpc-twoparty.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kj/async-io.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <variant>

#include "daemon_thread.h"
#include "frame/server_methods.h"
#include "platform/wide.h"
#include "rpc/book_server.capnp.h"
#include "rpc/convert.h"
#include "rpc/remote_book_server.h"
#include "utf8.h"

namespace mvtest {
namespace {

using ::testing::HasSubstr;

constexpr char kSystemDb[] = "MarvekSystemCommonDB";

// One event loop for a test's raw clients; every wait gives up in time.
struct Wire {
  kj::AsyncIoContext io = kj::setupAsyncIo();
  ~Wire() noexcept {}  // fixtures hold one; their destructors may not throw
  template <typename T>
  T wait(kj::Promise<T>&& promise, kj::Duration limit = 30 * kj::SECONDS) {
    return io.provider->getTimer().timeoutAfter(limit, kj::mv(promise)).wait(io.waitScope);
  }
  void sleep(kj::Duration d) { io.provider->getTimer().afterDelay(d).wait(io.waitScope); }
};

using Answer = capnp::Response<BookServer::CallResults>;
// An argument: absent, an integer, a text (UTF-8 here, UTF-16LE on the wire) or texts.
using RawArg = std::variant<std::monostate, int32_t, std::string, std::vector<std::string>>;

std::vector<capnp::byte> wireText(const std::string& utf8Text) {
  std::vector<capnp::byte> out;
  for (const char16_t unit : utf16(utf8Text)) {
    out.push_back(static_cast<capnp::byte>(unit & 0xFF));
    out.push_back(static_cast<capnp::byte>(unit >> 8));
  }
  return out;
}

class Client {
 public:
  Client(Wire& wire, uint16_t port) : wire_(wire) {
    auto address = wire.wait(wire.io.provider->getNetwork().parseAddress("127.0.0.1", port));
    stream_ = wire.wait(address->connect());
    rpc_ = kj::heap<capnp::TwoPartyClient>(*stream_);
  }
  Gate::Client gate() { return rpc_->bootstrap().castAs<Gate>(); }
  capnp::Response<Gate::LoginResults> loginAs(const std::string& token,
                                              uint32_t wire = mv::rpc::kWireFormat,
                                              uint64_t methods = mv::serverMethodsSignature()) {
    auto request = gate().loginRequest();
    request.setToken(token);
    request.setWire(wire);
    request.setMethods(methods);
    return wire_.wait(request.send());
  }
  BookServer::Client login(const std::string& token = "any") { return loginAs(token).getServer(); }
  // Drops the connection as a vanished client would.
  void disconnect() {
    rpc_ = nullptr;
    stream_ = nullptr;
  }
  kj::Promise<void> onDisconnect() { return rpc_->onDisconnect(); }

 private:
  Wire& wire_;
  kj::Own<kj::AsyncIoStream> stream_;
  kj::Own<capnp::TwoPartyClient> rpc_;
};

Answer call(Wire& wire, BookServer::Client& s, int32_t number, const std::vector<RawArg>& args) {
  auto request = s.callRequest();
  request.setMethod(number);
  auto list = request.initArgs(static_cast<unsigned>(args.size()));
  for (unsigned i = 0; i < args.size(); ++i) {
    if (const auto* n = std::get_if<int32_t>(&args[i])) list[i].setInt(*n);
    if (const auto* t = std::get_if<std::string>(&args[i])) {
      const auto bytes = wireText(*t);
      list[i].setText({bytes.data(), bytes.size()});
    }
    if (const auto* t = std::get_if<std::vector<std::string>>(&args[i])) {
      auto texts = list[i].initTexts(static_cast<unsigned>(t->size()));
      for (unsigned j = 0; j < t->size(); ++j) {
        const auto bytes = wireText((*t)[j]);
        texts.set(j, {bytes.data(), bytes.size()});
      }
    }
  }
  return wire.wait(request.send());
}

int32_t setMutex(Wire& wire, BookServer::Client& s, const std::string& name, int32_t op) {
  return call(wire, s, 31, {name, op}).getStatus();
}

class InProcessDaemon : public ::testing::Test {
 protected:
  void start(mv::rpc::ServeOptions options = {}) {
    daemon_ = std::make_unique<DaemonThread>(std::move(options));
    ASSERT_EQ(daemon_->error(), "");
    port = daemon_->port();
  }
  void SetUp() override { start(); }

  // Polls `done` on the wire's clock until it holds or ten seconds pass.
  template <typename F>
  bool eventually(F done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      wire.sleep(20 * kj::MILLISECONDS);
    }
    return true;
  }

  std::unique_ptr<DaemonThread> daemon_;
  uint16_t port = 0;
  Wire wire;
};

TEST_F(InProcessDaemon, CallsThatDoNotMatchTheTableAreRefusedAndTheSessionGoesOn) {
  Client client(wire, port);
  auto s = client.login("");  // without tokens any token logs in
  const std::string db = kSystemDb;
  const struct {
    int32_t method;
    std::vector<RawArg> args;
    int32_t status;
  } cases[] = {
      {0, {}, mv::rpc::kStatusUnknownMethod},    // the object's own
      {2, {}, mv::rpc::kStatusUnknownMethod},    // Release is not a call
      {11, {}, mv::rpc::kStatusUnknownMethod},   // a number the library never calls
      {104, {}, mv::rpc::kStatusUnknownMethod},  // past the table
      {-1, {}, mv::rpc::kStatusUnknownMethod},
      {72, {0}, mv::rpc::kStatusBadArguments},                          // ConnectCheck takes none
      {10, {db, 0x63}, mv::rpc::kStatusBadArguments},                   // one short
      {10, {0x63, db, 0}, mv::rpc::kStatusBadArguments},                // shapes swapped
      {10, {std::monostate{}, 0x63, 0}, mv::rpc::kStatusBadArguments},  // a text never absent
      {31, {std::string("M"), std::string("1")}, mv::rpc::kStatusBadArguments},
      {19, {db, std::string("TABLENAME=H1"), 1, 0}, mv::rpc::kStatusBadArguments},  // not texts
      // The right shape goes through, to the server's own answer.
      {10, {db, 0x63, 0}, 0},
      {10, {std::string("データなし"), 0, 0}, 0x8A},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    const auto answer = call(wire, s, c.method, c.args);
    EXPECT_EQ(answer.getStatus(), c.status);
    const bool refused =
        c.status == mv::rpc::kStatusUnknownMethod || c.status == mv::rpc::kStatusBadArguments;
    EXPECT_EQ(answer.getArgs().size(), refused ? 0u : c.args.size());
  }
  EXPECT_EQ(call(wire, s, 72, {}).getStatus(), 0);
}

TEST_F(InProcessDaemon, AClientOfAnotherWireIsRefusedAndToldWhy) {
  Client client(wire, port);
  // A client from before the wire had versions sends none; it learns why from the exception.
  try {
    client.loginAs("any", 0, 0);
    ADD_FAILURE() << "a client without a wire version was let in";
  } catch (const kj::Exception& e) {
    EXPECT_THAT(e.getDescription().cStr(), HasSubstr("wire 0"));
  }
  // A later one reads the daemon's versions from the answer, which holds no server.
  for (const auto& [wireFormat, methods] :
       {std::pair{mv::rpc::kWireFormat + 1, mv::serverMethodsSignature()},
        std::pair{mv::rpc::kWireFormat, mv::serverMethodsSignature() ^ 1}}) {
    const auto answer = client.loginAs("any", wireFormat, methods);
    EXPECT_EQ(answer.getWire(), mv::rpc::kWireFormat);
    EXPECT_EQ(answer.getMethods(), mv::serverMethodsSignature());
    EXPECT_THROW(wire.wait(answer.getServer().callRequest().send()), kj::Exception);
  }
  EXPECT_EQ(daemon_->liveSessions(), 0);
  EXPECT_THAT(daemon_->log(), HasSubstr("login refused for 127.0.0.1:"));
}

// Losing the connection, or dropping the capability on a live one, ends the session and
// releases its mutex and logon.
TEST_F(InProcessDaemon, ASessionEndsWithItsConnectionOrCapability) {
  const auto loggedOn = [&](BookServer::Client& s) {  // as GetLoginUsers counts them
    const auto answer = call(wire, s, 34, {std::vector<std::string>{}, 0});
    return answer.getArgs().size() == 2 ? answer.getArgs()[1].getInt() : -1;
  };
  for (const bool disconnect : {true, false}) {
    SCOPED_TRACE(disconnect ? "disconnect" : "drop the capability");
    Client first(wire, port), second(wire, port);
    auto a = first.login();
    auto b = (disconnect ? second : first).login();
    ASSERT_EQ(setMutex(wire, a, "BOOKSHELF", 1), 0);
    ASSERT_EQ(
        call(wire, a, 57, {std::string("admin"), std::string("first"), std::string("admin"), 1})
            .getStatus(),
        0);
    EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 1);  // held by another
    EXPECT_EQ(loggedOn(b), 1);
    EXPECT_TRUE(eventually([&] { return daemon_->liveSessions() == 2; }));

    a = nullptr;
    if (disconnect) first.disconnect();
    EXPECT_TRUE(eventually([&] { return setMutex(wire, b, "BOOKSHELF", 1) == 0; }));
    EXPECT_EQ(loggedOn(b), 0);
    EXPECT_TRUE(eventually([&] { return daemon_->liveSessions() == 1; }));
    ASSERT_EQ(setMutex(wire, b, "BOOKSHELF", 0), 0);
  }
  EXPECT_TRUE(eventually(
      [&] { return daemon_->log().find("disconnect from 127.0.0.1:") != std::string::npos; }));
}

// Through the library's proxy, one link per thread.
TEST_F(InProcessDaemon, ManyClientsAtOnceShareOneServer) {
  constexpr int kClients = 8, kRounds = 10;
  const mv::Bstr db(utf16(kSystemDb)), table(u"UserInfoTBL"), counter(u"shared");
  mv::rpc::ServerEndpoint endpoint;
  endpoint.address = "127.0.0.1";
  endpoint.port = port;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      mv::IBookServer* s = nullptr;
      if (mv::rpc::connectRemote(endpoint, {}, &s) != 0) return void(++failures);
      int32_t rows = 0, value = 0;
      mv::Bstr handle;
      if (s->OpenTable(db.get(), table.get(), 0, &rows, handle.out()) != 0) ++failures;
      for (int i = 0; i < kRounds; ++i) {
        mv::Variant record;
        putTexts(record.get(),
                 {"TABLENAME=" + utf8(handle.get()),
                  "KEY=UserName\t2\tc" + std::to_string(c) + "-" + std::to_string(i)});
        int32_t key = 0;
        if (s->AddRecord(db.get(), record.get(), 1, &key) != 0) ++failures;
        if (s->SetCounter(counter.get(), 1, &value) != 0) ++failures;
        const mv::Bstr mutex(utf16("M" + std::to_string(c)));
        if (s->SetMutex(mutex.get(), 1) != 0) ++failures;
      }
      s->Release();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);

  Client client(wire, port);
  auto s = client.login();
  EXPECT_EQ(
      call(wire, s, 46, {std::string(kSystemDb), std::string("UserInfoTBL"), 0, 0, std::string()})
          .getArgs()[3]
          .getInt(),
      1 + kClients * kRounds);
  EXPECT_EQ(call(wire, s, 48, {std::string("shared"), 0, 0}).getArgs()[2].getInt(),
            kClients * kRounds);
  // Every other client's mutex went with it.
  EXPECT_TRUE(eventually([&] { return daemon_->liveSessions() == 1; }));
  for (int c = 0; c < kClients; ++c) EXPECT_EQ(setMutex(wire, s, "M" + std::to_string(c), 0), 0);
}

TEST_F(InProcessDaemon, WithTokensAConnectionThatDoesNotLogInIsClosed) {
  mv::rpc::ServeOptions options;
  options.tokens = {"s3cret"};
  options.loginTimeout = 500 * kj::MILLISECONDS;
  start(std::move(options));
  Client idle(wire, port);
  auto gate = idle.gate();  // the connection is made, but nobody logs in
  wire.wait(idle.onDisconnect(), 10 * kj::SECONDS);
  EXPECT_THAT(daemon_->log(), HasSubstr("no login in time"));

  // One that logged in stays past that time.
  Client busy(wire, port);
  auto s = busy.login("s3cret");
  wire.sleep(800 * kj::MILLISECONDS);
  EXPECT_EQ(call(wire, s, 72, {}).getStatus(), 0);
}

}  // namespace
}  // namespace mvtest
