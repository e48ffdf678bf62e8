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

#include "frame/IBookServer.h"
#include "platform/wide.h"
#include "rpc/book_server.capnp.h"
#include "rpc/book_server_stub.h"
#include "rpc/convert.h"

namespace mvtest {

namespace {

std::u16string number(int64_t n) {
  std::u16string s;
  for (char c : std::to_string(n)) s += static_cast<char16_t>(c);
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

std::u16string text(BSTR s) { return s == nullptr ? u"" : std::u16string(s, MVSysStringLen(s)); }

void putText(BSTR* holder, const std::u16string& t) {
  if (holder == nullptr) return;
  MVSysFreeString(*holder);
  *holder = mv::Bstr(t).release();
}

template <typename T>
T at(std::span<const mv::ArgRef> args, std::size_t i) {
  return std::get<T>(args[i]);
}

// The session behind the daemon's real stub: a handful of methods over one made-up table.
class FakeSession final : public mv::ForwardingServer {
 public:
  explicit FakeSession(State& state) : s_(state) { ++s_.log.sessions; }
  ~FakeSession() override { --s_.log.sessions; }

 protected:
  // Positions are the arguments' places in the method table's rows.
  int32_t forward(const mv::ServerMethod& m, std::span<const mv::ArgRef> args) override {
    switch (m.number) {
      case 24:  // ExecuteQuery
      case 60:  // OpenTableEx
        return open(at<int32_t*>(args, 4), at<BSTR*>(args, 5));
      case 46:  // OpenTable
        return open(at<int32_t*>(args, 3), at<BSTR*>(args, 4));
      case 25:  // GetRecords
        return row(at<BSTR>(args, 1), at<int32_t>(args, 2), at<VARIANT*>(args, 3));
      case 47:  // CloseTable
        return s_.handles.erase(text(at<BSTR>(args, 1))) > 0 ? 0 : kBadHandle;
      case 8:  // DeleteDatabase
        s_.handles.clear();
        return 0;
      case 19:  // AddRecord
      case 20:  // UpdateRecord
      case 40:  // UpLoadData
      case 42:  // DeleteRecord
      case 62:  // DeleteRecords
        ++s_.generation;
        return 0;
      case 26:  // DownLoadData
        return downLoad(args);
      case 35:  // GetConnect
        *at<int32_t*>(args, 0) += 100;
        return 0;
      case 58: {  // GetServerInfo
        std::u16string name;
        for (char c : s_.options.name) name += static_cast<char16_t>(c);
        putText(at<BSTR*>(args, 0), name);
        return 0;
      }
      default:
        return 0;
    }
  }

 private:
  int32_t open(int32_t* rowCount, BSTR* handle) {
    ++s_.log.opens;
    const std::u16string h = u"H" + number(++s_.serial);
    s_.handles[h] = true;
    *rowCount = s_.options.rows;
    putText(handle, h);
    return 0;
  }

  int32_t row(BSTR handle, int32_t index, VARIANT* out) {
    if (s_.handles.count(text(handle)) == 0) return kBadHandle;
    if (index < 0 || index >= s_.options.rows) return kNoRow;
    mv::fillVariantArray(out, MV_VT_VARIANT, 2, [&](void* data) {
      for (int c = 0; c < 2; ++c) {
        auto& e = static_cast<VARIANT*>(data)[c];
        e.vt = MV_VT_BSTR;
        e.bstrVal = mv::Bstr(rowElement(index, c, s_.generation.load())).release();
      }
    });
    return 0;
  }

  // As the server does; past the end, no array, flagged the end.
  int32_t downLoad(std::span<const mv::ArgRef> args) {
    const int32_t blockNo = at<int32_t>(args, 4);
    const int32_t blockSize = at<int32_t>(args, 5);
    VARIANT* block = at<VARIANT*>(args, 6);
    int32_t* isEnd = at<int32_t*>(args, 7);
    int32_t* bytes = at<int32_t*>(args, 8);
    const DaemonOptions& o = s_.options;
    const std::u16string column = text(at<BSTR>(args, 2));
    const int32_t rowIndex = at<int32_t>(args, 3);
    {
      std::lock_guard<std::mutex> lock(s_.log.mutex);
      s_.log.downloads.push_back({column, rowIndex, blockNo, blockSize});
    }
    if (blockNo < 1 || blockSize <= 0) return kBadArgument;
    if (blockNo == o.failBlock) {
      // Values a failure must not hand to the caller.
      *isEnd = 1;
      *bytes = 12345;
      return kReadFailed;
    }
    const int64_t offset = int64_t{blockNo - 1} * blockSize;
    const int64_t most = int64_t{blockSize} * (o.doubleBlocks ? 2 : 1);
    const int64_t n = std::clamp<int64_t>(o.blobBytes - offset, 0, most);
    *isEnd = offset + n >= o.blobBytes ? 1 : 0;
    *bytes = static_cast<int32_t>(n);
    if (n == 0) return 0;
    mv::fillVariantArray(block, MV_VT_UI1, static_cast<uint32_t>(n), [&](void* d) {
      for (int64_t i = 0; i < n; ++i) {
        static_cast<uint8_t*>(d)[i] = blobByte(column, rowIndex, offset + i);
      }
    });
    return 0;
  }

  State& s_;
};

// Cap'n Proto's server bases have virtual functions but no virtual destructor: kj::heap's
// disposer deletes the most derived type, so the warning does not apply.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// In front of the real stub: writes down what crossed the wire, holds DownLoadData answers back
// as a daemon on the far side of a slow link would, and never answers CheckSQLServerType (a
// call the daemon dies in the middle of).
class SlowWire final : public ::BookServer::Server {
 public:
  explicit SlowWire(State& state)
      : s_(state), stub_(kj::heap<mv::rpc::BookServerStub>(new FakeSession(state))) {}

 protected:
  kj::Promise<void> call(CallContext context) override {
    const auto p = context.getParams();
    switch (p.getMethod()) {
      case 24:
      case 46:
      case 60:
        s_.log.lastPrefetch = p.getRows();
        break;
      case 25:
        ++s_.log.getRecords;
        s_.log.lastCount = p.getRows();
        s_.log.lastRowIndex = p.getArgs()[2].getInt();
        break;
      case 98:
        return kj::NEVER_DONE;
      default:
        break;
    }
    auto forwarded = stub_.callRequest();
    forwarded.setMethod(p.getMethod());
    forwarded.setArgs(p.getArgs());
    forwarded.setRows(p.getRows());
    if (p.getMethod() != 26) return context.tailCall(kj::mv(forwarded));
    // Each call waits on a timer of its own, so calls that arrive together wait together.
    const int waiting = ++s_.log.downloadsUnanswered;
    int most = s_.log.mostDownloadsUnanswered.load();
    while (waiting > most && !s_.log.mostDownloadsUnanswered.compare_exchange_weak(most, waiting)) {
    }
    auto delay = s_.options.downloadDelayMs > 0
                     ? s_.timer->afterDelay(s_.options.downloadDelayMs * kj::MILLISECONDS)
                     : kj::Promise<void>(kj::READY_NOW);
    return delay.then([this, context, forwarded = kj::mv(forwarded)]() mutable {
      --s_.log.downloadsUnanswered;
      return context.tailCall(kj::mv(forwarded));
    });
  }

 private:
  State& s_;
  ::BookServer::Client stub_;
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
    auto results = context.getResults();
    results.setWire(mv::rpc::kWireFormat);
    results.setMethods(mv::serverMethodsSignature());
    results.setServer(kj::heap<SlowWire>(s_));
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
