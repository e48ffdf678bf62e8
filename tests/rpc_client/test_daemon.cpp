#include "test_daemon.h"

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>
#include <kj/compat/tls.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <stdexcept>

#include "rpc/book_server.capnp.h"

namespace mvtest {

namespace {

std::u16string number(int64_t n) {
  std::u16string s;
  for (char c : std::to_string(n)) s += static_cast<char16_t>(c);
  return s;
}

capnp::Data::Reader bytes(const std::u16string& s) {
  return {reinterpret_cast<const capnp::byte*>(s.data()), s.size() * sizeof(char16_t)};
}

std::u16string text(capnp::Data::Reader b) {
  std::u16string s(b.size() / 2, u'\0');
  for (std::size_t i = 0; i < s.size(); ++i) {
    s[i] = static_cast<char16_t>(b[2 * i] | (b[2 * i + 1] << 8));
  }
  return s;
}

struct State {
  const DaemonOptions& options;
  DaemonLog& log;
  std::atomic<int>& generation;
  std::map<std::u16string, bool> handles;  // the daemon thread's alone
  int serial = 0;
  kj::Timer* timer = nullptr;
};

// Answers one DownLoadData of the blob as the server would.
void answerBlock(const DaemonOptions& o, const DownloadRequest& q,
                 ::BookServer::DownLoadDataResults::Builder r) {
  if (q.blockNo < 1 || q.blockSize <= 0) {
    r.setStatus(kBadArgument);
    return;
  }
  if (q.blockNo == o.failBlock) {
    // Values a failure must not hand to the caller.
    r.setIsEnd(1);
    r.setBytes(12345);
    r.setStatus(kReadFailed);
    return;
  }
  const int64_t offset = int64_t{q.blockNo - 1} * q.blockSize;
  const int64_t most = int64_t{q.blockSize} * (o.doubleBlocks ? 2 : 1);
  const int64_t n = std::clamp<int64_t>(o.blobBytes - offset, 0, most);
  r.setStatus(0);
  r.setIsEnd(offset + n >= o.blobBytes ? 1 : 0);
  r.setBytes(static_cast<int32_t>(n));
  if (n == 0) return;
  auto b = r.initBlock();
  b.setPresent(true);
  auto data = b.initData(static_cast<unsigned>(n));
  for (int64_t i = 0; i < n; ++i) {
    data[static_cast<unsigned>(i)] = blobByte(q.column, q.rowIndex, offset + i);
  }
}

// Cap'n Proto's server bases have virtual functions but no virtual destructor: kj::heap's
// disposer deletes the most derived type, so the warning does not apply.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class FakeBookServer final : public ::BookServer::Server {
 public:
  explicit FakeBookServer(State& state) : s_(state) { ++s_.log.sessions; }
  ~FakeBookServer() { --s_.log.sessions; }

 protected:
  template <typename Results>
  void fillRows(Results r, int64_t first, uint64_t count) {
    const int64_t end = std::min<int64_t>(s_.options.rows, first + static_cast<int64_t>(count));
    const auto n = static_cast<unsigned>(std::max<int64_t>(0, end - first));
    auto rows = r.initRows(n);
    for (unsigned i = 0; i < n; ++i) {
      auto e = rows[i].initElements(2);
      for (int c = 0; c < 2; ++c) {
        e.set(static_cast<unsigned>(c),
              bytes(rowElement(static_cast<int>(first) + static_cast<int>(i), c,
                               s_.generation.load())));
      }
    }
  }

  template <typename Context>
  kj::Promise<void> openResult(Context context) {
    ++s_.log.opens;
    const uint32_t prefetch = context.getParams().getPrefetch();
    s_.log.lastPrefetch = prefetch;
    auto r = context.getResults();
    const std::u16string handle = u"H" + number(++s_.serial);
    s_.handles[handle] = true;
    r.setStatus(0);
    r.setRowCount(s_.options.rows);
    r.setHandle(bytes(handle));
    fillRows(r, 0, prefetch);
    return kj::READY_NOW;
  }

  kj::Promise<void> openTable(OpenTableContext context) override { return openResult(context); }
  kj::Promise<void> openTableEx(OpenTableExContext context) override { return openResult(context); }
  kj::Promise<void> executeQuery(ExecuteQueryContext context) override {
    return openResult(context);
  }

  kj::Promise<void> getRecords(GetRecordsContext context) override {
    ++s_.log.getRecords;
    const auto p = context.getParams();
    s_.log.lastCount = p.getCount();
    s_.log.lastRowIndex = p.getRowIndex();
    auto r = context.getResults();
    if (s_.handles.count(text(p.getHandle())) == 0) {
      r.setStatus(kBadHandle);
    } else if (p.getRowIndex() < 0 || p.getRowIndex() >= s_.options.rows) {
      r.setStatus(kNoRow);
    } else {
      r.setStatus(0);
      fillRows(r, p.getRowIndex(), p.getCount());
    }
    return kj::READY_NOW;
  }

  kj::Promise<void> closeTable(CloseTableContext context) override {
    const bool known = s_.handles.erase(text(context.getParams().getHandle())) > 0;
    context.getResults().setStatus(known ? 0 : kBadHandle);
    return kj::READY_NOW;
  }

  kj::Promise<void> deleteDatabase(DeleteDatabaseContext context) override {
    s_.handles.clear();
    context.getResults().setStatus(0);
    return kj::READY_NOW;
  }

  kj::Promise<void> addRecord(AddRecordContext context) override {
    ++s_.generation;
    context.getResults().setStatus(0);
    context.getResults().setNewIndex(4242);
    return kj::READY_NOW;
  }

  kj::Promise<void> updateRecord(UpdateRecordContext context) override {
    ++s_.generation;
    context.getResults().setStatus(0);
    context.getResults().setTIndex(context.getParams().getTIndex() + 1);
    return kj::READY_NOW;
  }

  kj::Promise<void> deleteRecord(DeleteRecordContext context) override {
    ++s_.generation;
    context.getResults().setStatus(0);
    return kj::READY_NOW;
  }

  kj::Promise<void> deleteRecords(DeleteRecordsContext context) override {
    ++s_.generation;
    context.getResults().setStatus(0);
    return kj::READY_NOW;
  }

  kj::Promise<void> upLoadData(UpLoadDataContext context) override {
    ++s_.generation;
    const auto p = context.getParams();
    {
      std::lock_guard<std::mutex> lock(s_.log.mutex);
      const auto data = p.getBlock().getData();
      s_.log.uploaded.assign(data.begin(), data.end());
      s_.log.uploadRecord.clear();
      for (auto e : p.getRecord()) s_.log.uploadRecord.push_back(text(e));
    }
    s_.log.uploadBytes = p.getBytes();
    context.getResults().setStatus(0);
    return kj::READY_NOW;
  }

  kj::Promise<void> downLoadData(DownLoadDataContext context) override {
    if (s_.options.blobBytes >= 0) return downLoadBlob(context);
    const auto p = context.getParams();
    auto r = context.getResults();
    const auto n = static_cast<unsigned>(p.getBlockSize() / 2);
    auto data = r.initBlock().initData(n);
    for (unsigned i = 0; i < n; ++i) data[i] = static_cast<capnp::byte>(i * 7 + 3);
    r.getBlock().setPresent(true);
    r.setIsEnd(1);
    r.setBytes(static_cast<int32_t>(n));
    r.setStatus(0);
    return kj::READY_NOW;
  }

  kj::Promise<void> downLoadBlob(DownLoadDataContext context) {
    const auto p = context.getParams();
    DownloadRequest q{text(p.getColumnName()), p.getRowIndex(), p.getBlockNo(), p.getBlockSize()};
    {
      std::lock_guard<std::mutex> lock(s_.log.mutex);
      s_.log.downloads.push_back(q);
    }
    const int waiting = ++s_.log.downloadsUnanswered;
    int most = s_.log.mostDownloadsUnanswered.load();
    while (waiting > most && !s_.log.mostDownloadsUnanswered.compare_exchange_weak(most, waiting)) {
    }
    // Each call waits on a timer of its own, so calls that arrive together wait together, as
    // with a daemon on the far side of a slow link.
    auto answer = [&o = s_.options, &log = s_.log, context, q = std::move(q)]() mutable {
      answerBlock(o, q, context.getResults());
      --log.downloadsUnanswered;
    };
    if (s_.options.downloadDelayMs <= 0) {
      answer();
      return kj::READY_NOW;
    }
    return s_.timer->afterDelay(s_.options.downloadDelayMs * kj::MILLISECONDS).then(kj::mv(answer));
  }

  kj::Promise<void> openDatabase(OpenDatabaseContext context) override {
    // Fails, with an out value that must not reach the caller.
    context.getResults().setStatus(kMissingDatabase);
    context.getResults().setOut(99);
    return kj::READY_NOW;
  }

  kj::Promise<void> getConnect(GetConnectContext context) override {
    const auto p = context.getParams();
    s_.log.connectFirst = p.getFirst();
    s_.log.connectSecond = p.getSecond();
    auto r = context.getResults();
    r.setStatus(0);
    r.setFirst(p.getFirst() + 100);
    r.setSecond(p.getSecond());
    return kj::READY_NOW;
  }

  kj::Promise<void> getOption(GetOptionContext context) override {
    // Kind 5 fails but still changes `a`; `b` and the text come back as they went.
    const auto p = context.getParams();
    auto r = context.getResults();
    r.setStatus(p.getKind() == 5 ? kBadArgument : 0);
    r.setA(77);
    r.setB(p.getB());
    r.setText(p.getKind() == 5 ? p.getText() : bytes(u"BookServer"));
    return kj::READY_NOW;
  }

  kj::Promise<void> getDatabaseSize2(GetDatabaseSize2Context context) override {
    context.getResults().setStatus(0);
    context.getResults().setSize(context.getParams().getSize() * 2);
    return kj::READY_NOW;
  }

  kj::Promise<void> imageFileDate(ImageFileDateContext context) override {
    context.getResults().setStatus(0);
    context.getResults().setDate(context.getParams().getDate() + 1.5);
    return kj::READY_NOW;
  }

  kj::Promise<void> getServerInfo(GetServerInfoContext context) override {
    std::u16string name;
    for (char c : s_.options.name) name += static_cast<char16_t>(c);
    context.getResults().setStatus(0);
    context.getResults().setInfo(bytes(name));
    return kj::READY_NOW;
  }

  kj::Promise<void> getLastError(GetLastErrorContext context) override {
    context.getResults().setStatus(0);
    context.getResults().setMessage(bytes(u"行がありません"));
    return kj::READY_NOW;
  }

  kj::Promise<void> connectCheck(ConnectCheckContext context) override {
    context.getResults().setStatus(0);
    return kj::READY_NOW;
  }

  // Never answers: a call the daemon dies in the middle of.
  kj::Promise<void> checkSQLServerType(CheckSQLServerTypeContext) override {
    return kj::NEVER_DONE;
  }

 private:
  State& s_;
};

class FakeGate final : public ::Gate::Server {
 public:
  explicit FakeGate(State& state) : s_(state) {}

 protected:
  kj::Promise<void> login(LoginContext context) override {
    const std::string token = context.getParams().getToken();
    {
      std::lock_guard<std::mutex> lock(s_.log.mutex);
      s_.log.tokens.push_back(token);
    }
    if (!s_.options.token.empty() && token != s_.options.token) {
      return KJ_EXCEPTION(FAILED, "token refused");
    }
    ++s_.log.logins;
    context.getResults().setServer(kj::heap<FakeBookServer>(s_));
    return kj::READY_NOW;
  }

 private:
  State& s_;
};

class IgnoreErrors final : public kj::TaskSet::ErrorHandler {
 public:
  void taskFailed(kj::Exception&&) override {}
};

#pragma GCC diagnostic pop

}  // namespace

uint8_t blobByte(const std::u16string& column, int32_t rowIndex, int64_t offset) {
  uint64_t seed = static_cast<uint64_t>(rowIndex) * 0x9E3779B97F4A7C15ull;
  for (char16_t c : column) seed = seed * 131 + c;
  const auto x = static_cast<uint64_t>(offset);
  return static_cast<uint8_t>(x * 7 + (x >> 8) * 13 + (x >> 16) * 29 + seed);
}

std::u16string rowElement(int row, int column, int generation) {
  if (column == 0) return u"KEY=T_Index\t1\t" + number(row);
  return u"KEY=Name\t2\t帳票" + number(row) + u"-g" + number(generation);
}

struct TestDaemon::Impl {
  kj::Own<const kj::Executor> executor;
  kj::Own<kj::PromiseFulfiller<void>> stop;
  std::unique_ptr<State> state;
  kj::Maybe<kj::TlsKeypair> keypair;
  kj::Own<kj::TlsContext> tls;
  kj::Own<kj::ConnectionReceiver> listener;
  kj::Own<capnp::TwoPartyServer> server;
  IgnoreErrors errors;
  kj::Own<kj::TaskSet> tasks;
  kj::Maybe<kj::Promise<void>> accepting;

  kj::Promise<void> acceptLoop() {
    return listener->accept().then([this](kj::Own<kj::AsyncIoStream> stream) {
      if (tls) {
        tasks->add(tls->wrapServer(kj::mv(stream)).then([this](kj::Own<kj::AsyncIoStream> s) {
          server->accept(kj::mv(s));
        }));
      } else {
        server->accept(kj::mv(stream));
      }
      return acceptLoop();
    });
  }

  void close() {
    accepting = nullptr;
    tasks = nullptr;
    server = nullptr;
    listener = nullptr;
  }
};

TestDaemon::TestDaemon(DaemonOptions options)
    : options_(std::move(options)), impl_(std::make_unique<Impl>()) {
  std::promise<void> ready;
  auto started = ready.get_future();
  thread_ = std::thread([this, &ready] {
    Impl& d = *impl_;
    bool signalled = false;
    try {
      auto io = kj::setupAsyncIo();
      // Whatever ran on the loop goes before the loop does, however this scope is left.
      KJ_DEFER({
        d.close();
        d.tls = nullptr;
      });
      d.executor = kj::getCurrentThreadExecutor().addRef();
      auto stop = kj::newPromiseAndFulfiller<void>();
      d.stop = kj::mv(stop.fulfiller);
      d.state = std::make_unique<State>(
          State{options_, log_, generation_, {}, 0, &io.provider->getTimer()});
      const bool v6 = options_.address.find(':') != std::string::npos;
      const std::string where = v6 ? "[" + options_.address + "]" : options_.address;
      auto address = io.provider->getNetwork().parseAddress(where, 0).wait(io.waitScope);
      d.listener = address->listen();
      port_ = static_cast<uint16_t>(d.listener->getPort());
      if (!options_.certPem.empty()) {
        d.keypair = kj::TlsKeypair{kj::TlsPrivateKey(options_.keyPem.c_str()),
                                   kj::TlsCertificate(options_.certPem.c_str())};
        kj::TlsContext::Options o;
        KJ_IF_MAYBE (k, d.keypair) {
          o.defaultKeypair = *k;
        }
        d.tls = kj::heap<kj::TlsContext>(kj::mv(o));
      }
      d.server = kj::heap<capnp::TwoPartyServer>(kj::heap<FakeGate>(*d.state));
      d.tasks = kj::heap<kj::TaskSet>(d.errors);
      d.accepting = d.acceptLoop().eagerlyEvaluate([](kj::Exception&&) {});
      ready.set_value();
      signalled = true;
      stop.promise.wait(io.waitScope);
    } catch (...) {
      if (!signalled) ready.set_exception(std::current_exception());
    }
  });
  try {
    started.get();
  } catch (...) {
    thread_.join();
    throw;
  }
}

TestDaemon::~TestDaemon() {
  try {
    if (impl_->executor) impl_->executor->executeSync([this] { impl_->stop->fulfill(); });
  } catch (...) {  // the loop already ended
  }
  thread_.join();
}

void TestDaemon::kill() {
  impl_->executor->executeSync([this] { impl_->close(); });
}

uint16_t closedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) != 0) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("no loopback port");
  }
  ::close(fd);
  return ntohs(a.sin_port);
}

}  // namespace mvtest
