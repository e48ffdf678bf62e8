// The stub and the gate through a daemon loop in this process, over loopback: sessions, rows,
// blocks, out-parameters, and what ends with a connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

#include "child_process.h"
#include "daemon_thread.h"
#include "frame/server_methods.h"
#include "rpc/convert.h"
#include "rpc/daemon.h"
#include "rpc_test_client.h"

namespace mvtest::rpc {
namespace {

using ::testing::HasSubstr;

constexpr char kBook[] = "BOOK1123000001";

// How many users are logged on, as GetLoginUsers counts them.
int32_t loggedOn(Wire& wire, BookServer::Client& s) {
  const auto answer = call(wire, s, 34, {std::vector<std::string>{}, 0});
  return answer.getArgs().size() == 2 ? answer.getArgs()[1].getInt() : -1;
}

class InProcessDaemon : public ::testing::Test {
 protected:
  std::vector<std::string> tokens;  // set before SetUp
  kj::Duration loginTimeout = 30 * kj::SECONDS;

  void SetUp() override {
    mv::rpc::ServeOptions options;
    options.tokens = tokens;
    options.loginTimeout = loginTimeout;
    daemon_ = std::make_unique<DaemonThread>(std::move(options));
    ASSERT_EQ(daemon_->error(), "");
    port = daemon_->port();
  }

  std::string log() { return daemon_->log(); }
  int liveSessions() { return daemon_->liveSessions(); }

  // Polls `done` on the wire's clock until it holds or `limit` passes.
  template <typename F>
  bool eventually(Wire& w, F done, std::chrono::milliseconds limit = 10s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      w.sleep(20 * kj::MILLISECONDS);
    }
    return true;
  }

  uint16_t port = 0;
  Wire wire;

 private:
  std::unique_ptr<DaemonThread> daemon_;
};

// --- sessions and what the stub refuses ------------------------------------------------------

TEST_F(InProcessDaemon, LoginWithAnyTokenGivesASessionThatAnswersInItsOwnWords) {
  Client client(wire, port);
  auto s = client.login("");  // without tokens any token logs in
  EXPECT_EQ(call(wire, s, 72, {}).getStatus(), 0);
  s = client.login("whatever");
  EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0x63), 0);
  EXPECT_EQ(openDatabase(wire, s, "NoSuchDatabase", 0x63), kMissingDatabase);
  // The failure's text travels as UTF-16 and comes back whole, Japanese included.
  EXPECT_EQ(openDatabase(wire, s, "データなし", 0), kMissingDatabase);
  const auto last = call(wire, s, 73, {std::string()});
  ASSERT_EQ(last.getArgs().size(), 1u);
  EXPECT_THAT(text(last.getArgs()[0].getText()), HasSubstr("データなし"));
  EXPECT_TRUE(eventually(wire, [&] { return liveSessions() == 1; }));
}

TEST_F(InProcessDaemon, CallsThatDoNotMatchTheTableAreRefusedAndTheSessionGoesOn) {
  Client client(wire, port);
  auto s = client.login();
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
      {72, {0}, mv::rpc::kStatusBadArguments},  // ConnectCheck takes none
      {10, {std::string(kSystemDb), 0x63}, mv::rpc::kStatusBadArguments},     // one short
      {10, {0x63, std::string(kSystemDb), 0}, mv::rpc::kStatusBadArguments},  // shapes swapped
      {10, {std::monostate{}, 0x63, 0}, mv::rpc::kStatusBadArguments},        // a text never absent
      {31, {std::string("M"), std::string("1")}, mv::rpc::kStatusBadArguments},
      {19,
       {std::string(kSystemDb), std::string("TABLENAME=H1"), 1, 0},
       mv::rpc::kStatusBadArguments},              // a record is texts
      {10, {std::string(kSystemDb), 0x63, 0}, 0},  // and the right shape goes through
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    const auto answer = call(wire, s, c.method, c.args);
    EXPECT_EQ(answer.getStatus(), c.status);
    if (c.status != 0) {
      EXPECT_EQ(answer.getArgs().size(), 0u);
    }
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
  EXPECT_EQ(liveSessions(), 0);
  EXPECT_THAT(log(), HasSubstr("login refused for 127.0.0.1:"));
}

// --- rows --------------------------------------------------------------------------------------

// 25 users: the administrator and user01..user24, in key order.
TEST_F(InProcessDaemon, OpensBringTheirFirstRowsAndGetRecordsRunsOfTheRest) {
  Client client(wire, port);
  auto s = client.login();
  const auto name = [](int i) { return (i < 10 ? "user0" : "user") + std::to_string(i); };
  const Opened users = openTable(wire, s, kSystemDb, "UserInfoTBL", 0);
  ASSERT_EQ(users.status, 0);
  for (int i = 1; i <= 24; ++i) {
    ASSERT_EQ(addRecord(wire, s, kSystemDb, users.handle,
                        {field("UserName", 2, name(i)), field("Password", 2, "pw")}, nullptr),
              0);
  }

  const Opened t = openTable(wire, s, kSystemDb, "UserInfoTBL", 10);
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.rowCount, 25);
  ASSERT_EQ(t.rows.size(), 10u);
  EXPECT_EQ(valueIn(t.rows[0], "UserName"), "admin");
  EXPECT_EQ(valueIn(t.rows[9], "UserName"), name(9));
  EXPECT_EQ(openTable(wire, s, kSystemDb, "UserInfoTBL", 1000).rows.size(), 25u);
  const Opened missing = openTable(wire, s, kSystemDb, "NoSuchTBL", 10);
  EXPECT_NE(missing.status, 0);
  EXPECT_TRUE(missing.rows.empty());

  const Opened q =
      executeQuery(wire, s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE UserName LIKE 'user1%'", 4);
  EXPECT_EQ(q.rowCount, 10);
  ASSERT_EQ(q.rows.size(), 4u);
  EXPECT_EQ(valueIn(q.rows[3], "UserName"), "user13");

  std::vector<std::string> names;
  for (int32_t from = 0; from < 25; from += 10) {
    const auto batch = rowsOf(getRecords(wire, s, kSystemDb, t.handle, from, 10));
    EXPECT_EQ(batch.size(), from < 20 ? 10u : 5u);
    for (const auto& r : batch) names.push_back(valueIn(r, "UserName"));
  }
  ASSERT_EQ(names.size(), 25u);
  EXPECT_EQ(names[24], name(24));
  // Past the end, before the start, a stale handle: the first row's status and no rows.
  for (const auto& [handle, from, status] :
       {std::tuple{t.handle, 25, kNoRow}, std::tuple{t.handle, -1, kNoRow},
        std::tuple{std::string("H999.999"), 0, kBadHandle}}) {
    const auto answer = getRecords(wire, s, kSystemDb, handle, from, 10);
    EXPECT_EQ(answer.getStatus(), status);
    EXPECT_EQ(answer.getRows().size(), 0u);
  }
  EXPECT_EQ(getRecords(wire, s, kSystemDb, t.handle, 20, 0xFFFFFFFFu).getRows().size(), 5u);
}

TEST_F(InProcessDaemon, LargeRowsComeInSeveralAnswersWithoutLosingAny) {
  Client client(wire, port);
  auto s = client.login();
  const Opened users = openTable(wire, s, kSystemDb, "UserInfoTBL", 0);
  ASSERT_EQ(users.status, 0);
  // Six rows of two megabytes each on the wire: more than one answer should carry.
  for (int i = 0; i < 6; ++i) {
    ASSERT_EQ(addRecord(wire, s, kSystemDb, users.handle,
                        {field("UserName", 2, "big" + std::to_string(i)),
                         field("Password", 2, std::string(1000000, static_cast<char>('a' + i)))},
                        nullptr),
              0);
  }
  const Opened t = openTable(wire, s, kSystemDb, "UserInfoTBL", 100);
  ASSERT_EQ(t.rowCount, 7);
  ASSERT_GE(t.rows.size(), 1u);
  EXPECT_LT(t.rows.size(), 7u);
  auto rows = t.rows;
  for (int round = 0; round < 7 && rows.size() < 7; ++round) {
    const auto answer =
        getRecords(wire, s, kSystemDb, t.handle, static_cast<int32_t>(rows.size()), 100);
    ASSERT_EQ(answer.getStatus(), 0);
    ASSERT_GT(answer.getRows().size(), 0u);
    for (auto& r : rowsOf(answer)) rows.push_back(std::move(r));
  }
  ASSERT_EQ(rows.size(), 7u);
  for (int i = 0; i < 6; ++i) {
    const auto& row = rows[static_cast<std::size_t>(i) + 1];
    EXPECT_EQ(valueIn(row, "Password"), std::string(1000000, static_cast<char>('a' + i)));
  }
}

// --- what ends with a client -------------------------------------------------------------------

// Losing the connection, or dropping the capability on a live one, ends the session and
// releases its mutex and logon.
TEST_F(InProcessDaemon, ASessionEndsWithItsConnectionOrCapability) {
  for (const bool disconnect : {true, false}) {
    SCOPED_TRACE(disconnect ? "disconnect" : "drop the capability");
    Client first(wire, port);
    Client second(wire, port);
    auto a = first.login();
    auto b = (disconnect ? second : first).login();
    ASSERT_EQ(setMutex(wire, a, "BOOKSHELF", 1), 0);
    ASSERT_EQ(
        call(wire, a, 57, {std::string("admin"), std::string("first"), std::string("admin"), 1})
            .getStatus(),
        0);
    EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 1);  // held by another
    EXPECT_EQ(loggedOn(wire, b), 1);
    EXPECT_TRUE(eventually(wire, [&] { return liveSessions() == 2; }));

    a = nullptr;
    if (disconnect) first.disconnect();
    EXPECT_TRUE(eventually(wire, [&] { return setMutex(wire, b, "BOOKSHELF", 1) == 0; }));
    EXPECT_EQ(loggedOn(wire, b), 0);
    EXPECT_TRUE(eventually(wire, [&] { return liveSessions() == 1; }));
    ASSERT_EQ(setMutex(wire, b, "BOOKSHELF", 0), 0);
  }
  EXPECT_TRUE(eventually(
      wire, [&] { return log().find("disconnect from 127.0.0.1:") != std::string::npos; }));
}

TEST_F(InProcessDaemon, ManyClientsAtOnceShareOneServer) {
  constexpr int kClients = 8;
  constexpr int kRounds = 10;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      try {
        Wire own;
        Client client(own, port);
        auto s = client.login();
        const Opened users = openTable(own, s, kSystemDb, "UserInfoTBL", 0);
        if (users.status != 0) ++failures;
        for (int i = 0; i < kRounds; ++i) {
          int32_t key = 0;
          if (addRecord(own, s, kSystemDb, users.handle,
                        {field("UserName", 2, "c" + std::to_string(c) + "-" + std::to_string(i))},
                        &key) != 0) {
            ++failures;
          }
          if (call(own, s, 48, {std::string("shared"), 1, 0}).getStatus() != 0) ++failures;
          if (setMutex(own, s, "M" + std::to_string(c), 1) != 0) ++failures;
        }
      } catch (const kj::Exception& e) {
        ADD_FAILURE() << e.getDescription().cStr();
        ++failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);

  Client client(wire, port);
  auto s = client.login();
  EXPECT_EQ(openTable(wire, s, kSystemDb, "UserInfoTBL", 0).rowCount, 1 + kClients * kRounds);
  EXPECT_EQ(call(wire, s, 48, {std::string("shared"), 0, 0}).getArgs()[2].getInt(),
            kClients * kRounds);
  // Every other client's mutex went with it.
  EXPECT_TRUE(eventually(wire, [&] { return liveSessions() == 1; }));
  for (int c = 0; c < kClients; ++c) EXPECT_EQ(setMutex(wire, s, "M" + std::to_string(c), 0), 0);
}

// --- tokens ------------------------------------------------------------------------------------

class ImpatientTokenDaemon : public InProcessDaemon {
 protected:
  void SetUp() override {
    tokens = {"s3cret"};
    loginTimeout = 500 * kj::MILLISECONDS;
    InProcessDaemon::SetUp();
  }
};

TEST_F(ImpatientTokenDaemon, AConnectionThatDoesNotLogInIsClosed) {
  Client idle(wire, port);
  auto gate = idle.gate();  // the connection is made, but nobody logs in
  wire.wait(idle.onDisconnect(), 10 * kj::SECONDS);
  EXPECT_THAT(log(), HasSubstr("no login in time"));

  // One that logged in stays past that time.
  Client busy(wire, port);
  auto s = busy.login("s3cret");
  wire.sleep(800 * kj::MILLISECONDS);
  EXPECT_EQ(call(wire, s, 72, {}).getStatus(), 0);
}

}  // namespace
}  // namespace mvtest::rpc
