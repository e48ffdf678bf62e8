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

#include "child_process.h"
#include "rpc/daemon.h"
#include "rpc_test_client.h"

namespace mvtest::rpc {
namespace {

using ::testing::HasSubstr;

constexpr char kBook[] = "BOOK1123000001";

class InProcessDaemon : public ::testing::Test {
 protected:
  // Tokens and delays of the daemon; set before start().
  std::vector<std::string> tokens;
  kj::Duration refusalDelay = 1 * kj::SECONDS;
  kj::Duration loginTimeout = 30 * kj::SECONDS;

  void SetUp() override { start(); }

  void start() {
    std::string error;
    core_ = mv::server::ServerCore::open(folder_.path(), {}, error);
    ASSERT_TRUE(core_) << error;
    mv::rpc::ServeOptions options;
    options.core = core_;
    options.tokens = tokens;
    options.refusalDelay = refusalDelay;
    options.loginTimeout = loginTimeout;
    options.log = [this](const std::string& line) {
      std::lock_guard lock(logMutex_);
      log_ += line + "\n";
    };
    daemon_ = std::make_unique<mv::rpc::Daemon>(std::move(options));
    std::vector<mv::rpc::ListenAddress> addresses;
    ASSERT_TRUE(mv::rpc::resolveListen("127.0.0.1:0", addresses, error)) << error;
    ASSERT_TRUE(daemon_->listen(addresses, error)) << error;
    port = daemon_->port();
    ASSERT_NE(port, 0);
    thread_ = std::thread([this] { daemon_->run(); });
  }

  void TearDown() override { stopDaemon(); }

  void stopDaemon() {
    if (daemon_) daemon_->stop();
    if (thread_.joinable()) thread_.join();
    daemon_.reset();
    core_.reset();
  }

  std::string log() {
    std::lock_guard lock(logMutex_);
    return log_;
  }
  int liveSessions() { return core_->liveSessions(); }

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
  TempFolder folder_{"inproc"};
  std::shared_ptr<mv::server::ServerCore> core_;
  std::unique_ptr<mv::rpc::Daemon> daemon_;
  std::thread thread_;
  std::mutex logMutex_;
  std::string log_;
};

// --- sessions and the first calls --------------------------------------------------------------

TEST_F(InProcessDaemon, LoginGivesASessionThatAnswersDatabaseQuestions) {
  Client client(wire, port);
  auto s = client.login();
  EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0x63), 0);
  EXPECT_EQ(openDatabase(wire, s, "NoSuchDatabase", 0x63), kMissingDatabase);
  EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0), 0);

  EXPECT_EQ(wire.wait(s.connectCheckRequest().send()).getStatus(), 0);
  const auto version = wire.wait(s.getServerModuleVersionRequest().send());
  EXPECT_EQ(version.getStatus(), 0);
  EXPECT_EQ(version.getV1() * 1000 + version.getV2(), 1);  // 0.1
  const auto info = wire.wait(s.getServerInfoRequest().send());
  EXPECT_THAT(text(info.getInfo()), HasSubstr("SQLite"));

  // The failure's text travels as UTF-16 and comes back whole, Japanese included.
  EXPECT_EQ(openDatabase(wire, s, "データなし", 0), kMissingDatabase);
  const auto last = wire.wait(s.getLastErrorRequest().send());
  EXPECT_THAT(text(last.getMessage()), HasSubstr("データなし"));
  EXPECT_EQ(liveSessions(), 1);
}

TEST_F(InProcessDaemon, PlaceholdersAnswerUnimplemented) {
  Client client(wire, port);
  auto s = client.login();
  auto expectUnimplemented = [&](auto request, const char* name) {
    try {
      wire.wait(request.send());
      ADD_FAILURE() << name << " answered";
    } catch (const kj::Exception& e) {
      EXPECT_EQ(e.getType(), kj::Exception::Type::UNIMPLEMENTED) << name;
    }
  };
  expectUnimplemented(s.queryInterfaceRequest(), "queryInterface");
  expectUnimplemented(s.addRefRequest(), "addRef");
  expectUnimplemented(s.releaseRequest(), "release");
  expectUnimplemented(s.unused3Request(), "unused3");
  expectUnimplemented(s.unused97Request(), "unused97");
  // The session goes on after them.
  EXPECT_EQ(wire.wait(s.connectCheckRequest().send()).getStatus(), 0);
}

// --- rows --------------------------------------------------------------------------------------

class RowsTest : public InProcessDaemon {
 protected:
  // The session member's destructor is declared to throw; a test's may not.
  ~RowsTest() noexcept override {}

  // 25 users: the administrator and user01..user24, in key order.
  void SetUp() override {
    InProcessDaemon::SetUp();
    if (HasFatalFailure()) return;
    client = std::make_unique<Client>(wire, port);
    s = client->login();
    const Opened users = openTable(wire, s, kSystemDb, "UserInfoTBL", 0);
    ASSERT_EQ(users.status, 0);
    for (int i = 1; i <= 24; ++i) {
      int32_t key = 0;
      ASSERT_EQ(addRecord(wire, s, kSystemDb, users.handle,
                          {field("UserName", 2, name(i)), field("Password", 2, "pw"),
                           field("UserAttribute", 1, "1")},
                          &key),
                0);
      EXPECT_GT(key, 0);
    }
  }
  void TearDown() override {
    s = nullptr;
    client.reset();
    InProcessDaemon::TearDown();
  }
  static std::string name(int i) { return (i < 10 ? "user0" : "user") + std::to_string(i); }

  std::vector<std::vector<std::string>> getRecords(const std::string& handle, int32_t rowIndex,
                                                   uint32_t count, int32_t* status) {
    auto request = s.getRecordsRequest();
    request.setDbName(U16(kSystemDb));
    request.setHandle(U16(handle));
    request.setRowIndex(rowIndex);
    request.setCount(count);
    const auto response = wire.wait(request.send());
    *status = response.getStatus();
    std::vector<std::vector<std::string>> rows;
    for (const auto row : response.getRows()) {
      rows.emplace_back();
      for (const auto e : row.getElements()) rows.back().push_back(text(e));
    }
    return rows;
  }

  std::unique_ptr<Client> client;
  BookServer::Client s = nullptr;
};

TEST_F(RowsTest, OpenTableAnswersWithThePrefetchedRows) {
  const Opened t = openTable(wire, s, kSystemDb, "UserInfoTBL", 10);
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.rowCount, 25);
  EXPECT_THAT(t.handle, ::testing::StartsWith("H"));
  ASSERT_EQ(t.rows.size(), 10u);
  EXPECT_EQ(valueIn(t.rows[0], "UserName"), "admin");
  for (int i = 1; i < 10; ++i) EXPECT_EQ(valueIn(t.rows[i], "UserName"), name(i));
  EXPECT_EQ(valueIn(t.rows[3], "Password"), "pw");

  // Asking for more than there are gives what there is; none gives none.
  EXPECT_EQ(openTable(wire, s, kSystemDb, "UserInfoTBL", 1000).rows.size(), 25u);
  const Opened none = openTable(wire, s, kSystemDb, "UserInfoTBL", 0);
  EXPECT_EQ(none.rowCount, 25);
  EXPECT_TRUE(none.rows.empty());

  // A failure gives no handle and no rows.
  const Opened missing = openTable(wire, s, kSystemDb, "NoSuchTBL", 10);
  EXPECT_NE(missing.status, 0);
  EXPECT_EQ(missing.handle, "");
  EXPECT_TRUE(missing.rows.empty());
}

TEST_F(RowsTest, QueriesPrefetchToo) {
  const Opened q =
      executeQuery(wire, s, kSystemDb, "SELECT * FROM UserInfoTBL WHERE UserName LIKE 'user1%'", 4);
  ASSERT_EQ(q.status, 0);
  EXPECT_EQ(q.rowCount, 10);  // user10..user19
  ASSERT_EQ(q.rows.size(), 4u);
  EXPECT_EQ(valueIn(q.rows[0], "UserName"), "user10");
  EXPECT_EQ(valueIn(q.rows[3], "UserName"), "user13");

  auto request = s.openTableExRequest();
  request.setDbName(U16(kSystemDb));
  request.setTableName(U16("UserInfoTBL"));
  request.setSql(U16("SELECT * FROM UserInfoTBL WHERE UserName = 'user07'"));
  request.setPrefetch(5);
  const auto ex = wire.wait(request.send());
  ASSERT_EQ(ex.getStatus(), 0);
  EXPECT_EQ(ex.getRowCount(), 1);
  ASSERT_EQ(ex.getRows().size(), 1u);
  std::vector<std::string> row;
  for (const auto e : ex.getRows()[0].getElements()) row.push_back(text(e));
  EXPECT_EQ(valueIn(row, "UserName"), "user07");
}

TEST_F(RowsTest, GetRecordsAnswersBatchesUpToTheEnd) {
  const Opened t = openTable(wire, s, kSystemDb, "UserInfoTBL", 0);
  ASSERT_EQ(t.status, 0);
  std::vector<std::string> names;
  int32_t status = -1;
  for (int32_t from = 0; from < 25; from += 10) {
    const auto batch = getRecords(t.handle, from, 10, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(batch.size(), from < 20 ? 10u : 5u);
    for (const auto& r : batch) names.push_back(valueIn(r, "UserName"));
  }
  ASSERT_EQ(names.size(), 25u);
  EXPECT_EQ(names.front(), "admin");
  for (int i = 1; i <= 24; ++i) EXPECT_EQ(names[static_cast<std::size_t>(i)], name(i));

  // Past the end and before the start: the first row's status, no rows.
  EXPECT_TRUE(getRecords(t.handle, 25, 10, &status).empty());
  EXPECT_EQ(status, kNoRow);
  EXPECT_TRUE(getRecords(t.handle, -1, 10, &status).empty());
  EXPECT_EQ(status, kNoRow);
  EXPECT_TRUE(getRecords("H999.999", 0, 10, &status).empty());
  EXPECT_EQ(status, kBadHandle);
  // A huge count is bounded by the rows there are.
  EXPECT_EQ(getRecords(t.handle, 20, 0xFFFFFFFFu, &status).size(), 5u);
  EXPECT_EQ(status, 0);
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
  ASSERT_EQ(t.status, 0);
  ASSERT_EQ(t.rowCount, 7);
  ASSERT_GE(t.rows.size(), 1u);
  EXPECT_LT(t.rows.size(), 7u);
  auto rows = t.rows;
  for (int round = 0; round < 7 && rows.size() < 7; ++round) {
    auto request = s.getRecordsRequest();
    request.setDbName(U16(kSystemDb));
    request.setHandle(U16(t.handle));
    request.setRowIndex(static_cast<int32_t>(rows.size()));
    request.setCount(100);
    const auto response = wire.wait(request.send());
    ASSERT_EQ(response.getStatus(), 0);
    ASSERT_GT(response.getRows().size(), 0u);
    for (const auto row : response.getRows()) {
      rows.emplace_back();
      for (const auto e : row.getElements()) rows.back().push_back(text(e));
    }
  }
  ASSERT_EQ(rows.size(), 7u);
  EXPECT_EQ(valueIn(rows[0], "UserName"), "admin");
  for (int i = 0; i < 6; ++i) {
    const auto& row = rows[static_cast<std::size_t>(i) + 1];
    EXPECT_EQ(valueIn(row, "UserName"), "big" + std::to_string(i));
    EXPECT_EQ(valueIn(row, "Password"), std::string(1000000, static_cast<char>('a' + i)));
  }
}

// --- blocks ------------------------------------------------------------------------------------

std::vector<uint8_t> pattern(std::size_t size) {
  std::vector<uint8_t> data(size);
  uint32_t x = 2463534242u;
  for (auto& b : data) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<uint8_t>(x);
  }
  return data;
}

TEST_F(InProcessDaemon, BlobUploadedInBlocksDownloadsByteIdentical) {
  Client client(wire, port);
  auto s = client.login();
  {
    auto request = s.createBookDatabaseRequest();
    request.setTemplateName(U16(""));
    request.setOption(U16(""));
    request.setNewDbName(U16(kBook));
    ASSERT_EQ(wire.wait(request.send()).getStatus(), 0);
  }
  const Opened images = openTable(wire, s, kBook, "ImageDataTBL", 0);
  ASSERT_EQ(images.status, 0);
  int32_t key = 0;
  ASSERT_EQ(addRecord(wire, s, kBook, images.handle, {field("TagID", 1, "1")}, &key), 0);

  auto upload = [&](int32_t blockNo, const uint8_t* data, std::size_t size, int32_t bytes,
                    bool present, int32_t isLast) {
    auto request = s.upLoadDataRequest();
    auto record = request.initRecord(4);
    record.set(0, U16(std::string("DBNAME=") + kBook));
    record.set(1, U16("TABLENAME=" + images.handle));
    record.set(2, U16("MSTKEY=" + std::to_string(key)));
    record.set(3, U16("KEY=RealityData"));
    request.setBlockNo(blockNo);
    request.setBytes(bytes);
    auto block = request.initBlock();
    block.setPresent(present);
    if (present) block.setData(capnp::Data::Reader(data, size));
    request.setIsLast(isLast);
    return wire.wait(request.send()).getStatus();
  };

  const auto data = pattern(700000);
  int32_t blockNo = 1;
  for (std::size_t offset = 0; offset < data.size(); offset += kBlockSize) {
    const std::size_t n = std::min<std::size_t>(kBlockSize, data.size() - offset);
    ASSERT_EQ(upload(blockNo++, data.data() + offset, n, static_cast<int32_t>(n), true,
                     offset + n == data.size() ? 1 : 0),
              0);
  }
  EXPECT_EQ(blockNo, 4);

  // A missing block, or one shorter than it claims, is refused.
  EXPECT_EQ(upload(1, data.data(), 0, 0, false, 1), kBadArgument);
  EXPECT_EQ(upload(1, data.data(), 10, 11, true, 1), kBadArgument);

  const Opened row = executeQuery(
      wire, s, kBook, "SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(key), 0);
  ASSERT_EQ(row.status, 0);
  ASSERT_EQ(row.rowCount, 1);
  std::vector<uint8_t> back;
  bool ended = false;
  for (int32_t no = 1; no <= 10 && !ended; ++no) {
    auto request = s.downLoadDataRequest();
    request.setDbName(U16(kBook));
    request.setHandle(U16(row.handle));
    request.setColumnName(U16("RealityData"));
    request.setRowIndex(0);
    request.setBlockNo(no);
    request.setBlockSize(kBlockSize);
    const auto response = wire.wait(request.send());
    ASSERT_EQ(response.getStatus(), 0);
    ASSERT_TRUE(response.getBlock().getPresent());
    const auto bytes = response.getBlock().getData();
    EXPECT_EQ(response.getBytes(), static_cast<int32_t>(bytes.size()));
    back.insert(back.end(), bytes.begin(), bytes.end());
    ended = response.getIsEnd() == 1;
  }
  EXPECT_TRUE(ended);
  ASSERT_EQ(back.size(), data.size());
  EXPECT_TRUE(back == data);
}

// --- out-parameters ----------------------------------------------------------------------------

TEST_F(InProcessDaemon, OutParametersComeBackAsTheMethodLeftThem) {
  Client client(wire, port);
  auto s = client.login();
  {
    // A failure leaves them as they came.
    auto request = s.getOptionRequest();
    request.setKind(5);
    request.setText(U16("keep me"));
    request.setA(11);
    request.setB(-22);
    const auto r = wire.wait(request.send());
    EXPECT_NE(r.getStatus(), 0);
    EXPECT_EQ(text(r.getText()), "keep me");
    EXPECT_EQ(r.getA(), 11);
    EXPECT_EQ(r.getB(), -22);
  }
  {
    auto request = s.getOptionRequest();
    request.setKind(0);
    request.setText(U16("old"));
    request.setA(-1);
    request.setB(-1);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), 0);
    EXPECT_EQ(text(r.getText()), "BookServer");
    EXPECT_EQ(r.getA(), 0);
    EXPECT_EQ(r.getB(), 1);
  }
  {
    auto request = s.getDatabaseSize2Request();
    request.setDbName(U16("NoSuchDatabase"));
    request.setSize(1234567890123);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), kMissingDatabase);
    EXPECT_EQ(r.getSize(), 1234567890123);
  }
  {
    auto request = s.getDatabaseSize2Request();
    request.setDbName(U16(kSystemDb));
    request.setSize(-1);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), 0);
    EXPECT_GT(r.getSize(), 0);
  }
  {
    // The 16-byte block goes back as it came; the counter as the method left it.
    auto request = s.tagUpdateCounterRequest();
    request.setDbName(U16("NoSuchDatabase"));
    request.setTagIndex(1);
    request.setOp(0);
    uint8_t block[16];
    for (uint8_t i = 0; i < 16; ++i) block[i] = static_cast<uint8_t>(0xA0 + i);
    request.setBlock16(capnp::Data::Reader(block, 16));
    request.setCounter(77);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), kMissingDatabase);
    EXPECT_EQ(r.getCounter(), 77);
    ASSERT_EQ(r.getBlock16().size(), 16u);
    EXPECT_TRUE(std::equal(block, block + 16, r.getBlock16().begin()));
  }
  {
    auto request = s.getConnectRequest();
    request.setFirst(-5);
    request.setSecond(-6);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), 0);
    EXPECT_EQ(r.getFirst(), 1);  // sessions now
    EXPECT_GT(r.getSecond(), 0);
  }
  {
    auto request = s.setCounterRequest();
    request.setName(U16("jobs"));
    request.setOp(1);
    request.setValue(-9);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), 0);
    EXPECT_EQ(r.getValue(), 1);
  }
  {
    auto request = s.checkOSTypeRequest();
    request.setType(-3);
    const auto r = wire.wait(request.send());
    EXPECT_EQ(r.getStatus(), 0);
    EXPECT_EQ(r.getType(), 2);
  }
}

TEST_F(InProcessDaemon, ListsComeBackAsTextsAndIntegers) {
  Client client(wire, port);
  auto s = client.login();
  auto logon = s.loginMgrRequest();
  logon.setFirst(U16("admin"));
  logon.setSecond(U16("端末A"));
  logon.setThird(U16("admin"));
  logon.setFourth(1);
  ASSERT_EQ(wire.wait(logon.send()).getStatus(), 0);

  const auto users = wire.wait(s.getLoginUsersRequest().send());
  EXPECT_EQ(users.getStatus(), 0);
  EXPECT_EQ(users.getCount(), 1);
  ASSERT_TRUE(users.getList().isTexts());
  ASSERT_EQ(users.getList().getTexts().size(), 2u);
  EXPECT_EQ(text(users.getList().getTexts()[0]), "admin");
  EXPECT_EQ(text(users.getList().getTexts()[1]), "端末A");

  const auto templates = wire.wait(s.getOrgBookDBInfoRequest().send());
  EXPECT_EQ(templates.getStatus(), 0);
  ASSERT_TRUE(templates.getSecond().isTexts());
  ASSERT_EQ(templates.getSecond().getTexts().size(), 1u);
  EXPECT_EQ(text(templates.getSecond().getTexts()[0]), "標準");
  ASSERT_TRUE(templates.getThird().isInts());
  ASSERT_EQ(templates.getThird().getInts().size(), 1u);
  EXPECT_EQ(templates.getThird().getInts()[0], 4);
}

// --- what ends with a client -------------------------------------------------------------------

TEST_F(InProcessDaemon, AClientThatDisconnectsLetsGoOfItsMutexAndLogons) {
  Client first(wire, port);
  Client second(wire, port);
  auto a = first.login();
  auto b = second.login();
  ASSERT_EQ(setMutex(wire, a, "BOOKSHELF", 1), 0);
  auto logon = a.loginMgrRequest();
  logon.setFirst(U16("admin"));
  logon.setSecond(U16("first"));
  logon.setThird(U16("admin"));
  logon.setFourth(1);
  ASSERT_EQ(wire.wait(logon.send()).getStatus(), 0);
  EXPECT_EQ(setMutex(wire, b, "BOOKSHELF", 1), 1);  // held by another
  EXPECT_EQ(wire.wait(b.getLoginUsersRequest().send()).getCount(), 1);
  EXPECT_EQ(liveSessions(), 2);

  a = nullptr;
  first.disconnect();
  EXPECT_TRUE(eventually(wire, [&] { return setMutex(wire, b, "BOOKSHELF", 1) == 0; }));
  EXPECT_EQ(wire.wait(b.getLoginUsersRequest().send()).getCount(), 0);
  EXPECT_EQ(liveSessions(), 1);
  EXPECT_TRUE(eventually(
      wire, [&] { return log().find("disconnect from 127.0.0.1:") != std::string::npos; }));
}

TEST_F(InProcessDaemon, DroppingTheCapabilityEndsTheSessionOnALiveConnection) {
  Client client(wire, port);
  auto first = client.login();
  auto second = client.login();
  ASSERT_EQ(setMutex(wire, first, "M", 1), 0);
  EXPECT_EQ(setMutex(wire, second, "M", 1), 1);
  EXPECT_EQ(liveSessions(), 2);
  first = nullptr;
  EXPECT_TRUE(eventually(wire, [&] { return setMutex(wire, second, "M", 1) == 0; }));
  EXPECT_EQ(liveSessions(), 1);
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
          auto request = s.setCounterRequest();
          request.setName(U16("shared"));
          request.setOp(1);
          if (own.wait(request.send()).getStatus() != 0) ++failures;
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
  auto request = s.setCounterRequest();
  request.setName(U16("shared"));
  request.setOp(0);
  EXPECT_EQ(wire.wait(request.send()).getValue(), kClients * kRounds);
  // Every other client's mutex went with it.
  EXPECT_TRUE(eventually(wire, [&] { return liveSessions() == 1; }));
  for (int c = 0; c < kClients; ++c) EXPECT_EQ(setMutex(wire, s, "M" + std::to_string(c), 0), 0);
}

// --- tokens ------------------------------------------------------------------------------------

class TokenDaemon : public InProcessDaemon {
 protected:
  void SetUp() override {
    tokens = {"s3cret", "other-token"};
    InProcessDaemon::SetUp();
  }
};

class ImpatientTokenDaemon : public InProcessDaemon {
 protected:
  void SetUp() override {
    tokens = {"s3cret"};
    loginTimeout = 500 * kj::MILLISECONDS;
    InProcessDaemon::SetUp();
  }
};

TEST_F(TokenDaemon, AnUnknownTokenIsRefusedAfterADelayAndLogged) {
  Client client(wire, port);
  const auto started = std::chrono::steady_clock::now();
  auto request = client.gate().loginRequest();
  request.setToken("guess");
  try {
    wire.wait(request.send(), 10 * kj::SECONDS);
    ADD_FAILURE() << "an unknown token was let in";
  } catch (const kj::Exception& e) {
    EXPECT_THAT(e.getDescription().cStr(), HasSubstr("login refused"));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - started, 900ms);
  EXPECT_THAT(log(), HasSubstr("login refused for 127.0.0.1:"));
  EXPECT_EQ(liveSessions(), 0);

  // The same connection may still log in with a good token.
  auto s = client.login("other-token");
  EXPECT_EQ(openDatabase(wire, s, kSystemDb, 0x63), 0);
}

TEST_F(TokenDaemon, RefusalsOnOneConnectionComeOneAtATime) {
  Client client(wire, port);
  const auto started = std::chrono::steady_clock::now();
  std::vector<kj::Promise<void>> answers;
  for (int i = 0; i < 3; ++i) {
    auto request = client.gate().loginRequest();
    request.setToken("guess" + std::to_string(i));
    answers.push_back(
        request.send().then([](auto&&) { ADD_FAILURE() << "let in"; }, [](kj::Exception&&) {}));
  }
  for (auto& a : answers) wire.wait(kj::mv(a), 20 * kj::SECONDS);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 2700ms);
}

TEST_F(ImpatientTokenDaemon, AConnectionThatDoesNotLogInIsClosed) {
  Client idle(wire, port);
  auto gate = idle.gate();  // the connection is made, but nobody logs in
  wire.wait(idle.onDisconnect(), 10 * kj::SECONDS);
  EXPECT_THAT(log(), HasSubstr("no login in time"));

  // One that logged in stays past that time.
  Client busy(wire, port);
  auto s = busy.login("s3cret");
  wire.sleep(800 * kj::MILLISECONDS);
  EXPECT_EQ(wire.wait(s.connectCheckRequest().send()).getStatus(), 0);
}

TEST_F(InProcessDaemon, WithoutTokensAnyTokenLogsIn) {
  Client client(wire, port);
  for (const char* token : {"", "whatever"}) {
    auto s = client.login(token);
    EXPECT_EQ(wire.wait(s.connectCheckRequest().send()).getStatus(), 0) << token;
  }
}

}  // namespace
}  // namespace mvtest::rpc
