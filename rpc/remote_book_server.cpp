#include "rpc/remote_book_server.h"

#include <capnp/message.h>
#include <capnp/rpc-twoparty.h>
#include <capnp/serialize-async.h>
#include <kj/async-io.h>
#include <kj/compat/tls.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

#include "rpc/convert.h"

namespace mv::rpc {

namespace {

// kj writes some failures (a lost connection, a refused handshake) to standard error itself.
// The library reports them as statuses, and an application's standard error is not ours to
// write to, so every entry into kj runs with this on the stack.
class QuietKj final : public kj::ExceptionCallback {
 public:
  void logMessage(kj::LogSeverity, const char*, int, int, kj::String&&) override {}
};

template <typename F>
void quietly(F&& f) noexcept {
  try {
    f();
  } catch (...) {  // teardown of a broken link may complain; it is going away regardless
  }
}

// kj allows one event loop per thread, and MVChangeServer keeps two links open on the library's
// thread at once, so every link of a thread shares its loop. The last link to go ends it.
struct ThreadIo {
  kj::AsyncIoContext io = kj::setupAsyncIo();
};

std::shared_ptr<ThreadIo> threadIo() {
  thread_local std::weak_ptr<ThreadIo> current;
  if (auto io = current.lock()) return io;
  std::shared_ptr<ThreadIo> io(new ThreadIo, [](ThreadIo* p) {
    QuietKj quiet;
    quietly([p] { delete p; });
  });
  current = io;
  return io;
}

std::string key(capnp::Data::Reader bytes) {
  return std::string(reinterpret_cast<const char*>(bytes.begin()), bytes.size());
}

capnp::Data::Reader keyBytes(const std::string& key) {
  return {reinterpret_cast<const capnp::byte*>(key.data()), key.size()};
}

// Element texts naming a table handle start with this, in the wire's UTF-16LE.
constexpr char16_t kTableNamePrefix[] = u"TABLENAME=";

// The handles the "TABLENAME=" elements of a record name.
template <typename Each>
void namedHandles(capnp::List<capnp::Data>::Reader record, Each&& each) {
  constexpr std::size_t prefixBytes = (std::size(kTableNamePrefix) - 1) * 2;
  capnp::byte prefix[prefixBytes];
  for (std::size_t i = 0; i < prefixBytes / 2; ++i) {
    prefix[2 * i] = static_cast<capnp::byte>(kTableNamePrefix[i] & 0xFF);
    prefix[2 * i + 1] = static_cast<capnp::byte>(kTableNamePrefix[i] >> 8);
  }
  for (capnp::Data::Reader text : record) {
    if (text.size() >= prefixBytes && std::memcmp(text.begin(), prefix, prefixBytes) == 0) {
      each(capnp::Data::Reader(text.begin() + prefixBytes, text.size() - prefixBytes));
    }
  }
}

bool readFile(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// Keepalive finds a peer that vanished while the link was quiet; the user timeout (the same
// span) finds one that vanished with our bytes unacknowledged, which keepalive never probes and
// retransmission would take a quarter of an hour to give up on.
void tuneSocket(int fd, const KeepAlive& k) {
  const int on = 1;
  const unsigned userTimeoutMs = static_cast<unsigned>(k.idle + k.interval * k.count) * 1000u;
  (void)::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &k.idle, sizeof k.idle);
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &k.interval, sizeof k.interval);
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &k.count, sizeof k.count);
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &userTimeoutMs, sizeof userTimeoutMs);
  // Every call waits for its answer: Nagle would hold a request's last segment back.
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Buffers for the answers of a download being read ahead. Each incoming message would get a
// fresh buffer of a block's size, and the allocator hands buffers that large back to the kernel
// when they are freed, so every block paid again for faulting its pages in: more than reading it
// off the socket. While a download is read ahead, its answers land in buffers kept from earlier
// ones instead; a few at most are kept, and none once the download is over.
class BlockBuffers {
 public:
  // Buffers of `words` from now on, `keep` of them kept when they come back.
  void open(std::size_t words, std::size_t keep) {
    if (words != words_) spare_.clear();
    words_ = words;
    keep_ = keep;
  }
  void close() {
    words_ = 0;
    spare_.clear();
  }
  bool active() const { return words_ != 0; }

  kj::Array<capnp::word> take() {
    if (spare_.empty()) return kj::heapArray<capnp::word>(words_);
    kj::Array<capnp::word> b = kj::mv(spare_.back());
    spare_.pop_back();
    return b;
  }
  void give(kj::Array<capnp::word> b) {
    if (b.size() == words_ && spare_.size() < keep_) spare_.push_back(kj::mv(b));
  }

 private:
  std::size_t words_ = 0;
  std::size_t keep_ = 0;
  std::vector<kj::Array<capnp::word>> spare_;
};

// The connection's messages, read into BlockBuffers while they are open. A message too large
// for its buffer is read the usual way into one of its own.
//
// Cap'n Proto's MessageStream has virtual functions but no virtual destructor; this one is only
// ever a member, never deleted through the base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class ReusingMessageStream final : public capnp::MessageStream {
 public:
  ReusingMessageStream(kj::AsyncIoStream& stream, std::shared_ptr<BlockBuffers> buffers)
      : inner_(stream), buffers_(std::move(buffers)) {}

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(
      kj::ArrayPtr<kj::AutoCloseFd> fdSpace, capnp::ReaderOptions options,
      kj::ArrayPtr<capnp::word> scratchSpace) override {
    if (!buffers_->active() || scratchSpace.size() != 0) {
      return inner_.tryReadMessage(fdSpace, options, scratchSpace);
    }
    kj::Array<capnp::word> buffer = buffers_->take();
    const kj::ArrayPtr<capnp::word> space = buffer;
    return inner_.tryReadMessage(fdSpace, options, space)
        .then([buffers = buffers_,
               buffer = kj::mv(buffer)](kj::Maybe<capnp::MessageReaderAndFds>&& message) mutable {
          KJ_IF_MAYBE (m, message) {
            // Back once the message is let go of, and not before: its reader points into it.
            m->reader = kj::mv(m->reader).attach(
                kj::defer([buffers, b = kj::mv(buffer)]() mutable { buffers->give(kj::mv(b)); }));
          }
          return kj::mv(message);
        });
  }
  kj::Promise<void> writeMessage(
      kj::ArrayPtr<const int> fds,
      kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override {
    return inner_.writeMessage(fds, segments);
  }
  kj::Promise<void> writeMessages(
      kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override {
    return inner_.writeMessages(messages);
  }
  kj::Maybe<int> getSendBufferSize() override { return inner_.getSendBufferSize(); }
  kj::Promise<void> end() override { return inner_.end(); }

 private:
  capnp::AsyncIoMessageStream inner_;
  std::shared_ptr<BlockBuffers> buffers_;
};
#pragma GCC diagnostic pop

// What TwoPartyClient is, over a ReusingMessageStream.
struct RpcClient {
  RpcClient(kj::AsyncIoStream& stream, std::shared_ptr<BlockBuffers> buffers)
      : messages(stream, std::move(buffers)),
        network(messages, capnp::rpc::twoparty::Side::CLIENT),
        system(capnp::makeRpcClient(network)) {}

  capnp::Capability::Client bootstrap() {
    capnp::MallocMessageBuilder message(8);
    auto vat = message.initRoot<capnp::rpc::twoparty::VatId>();
    vat.setSide(capnp::rpc::twoparty::Side::SERVER);
    return system.bootstrap(vat);
  }

  ReusingMessageStream messages;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> system;
};

void putInt(int32_t* p, int32_t v) {
  if (p != nullptr) *p = v;
}

int32_t valueOr(const int32_t* p) { return p != nullptr ? *p : 0; }

// A text goes back to the caller only when it differs from what the caller had: a holder the
// server left alone stays exactly as it was (null stays null). Texts the wire does not send out
// count as empty, so an empty answer leaves those alone too.
void putBstrIfChanged(BSTR* holder, capnp::Data::Reader sent, capnp::Data::Reader back) {
  if (holder == nullptr) return;
  if (sent.size() == back.size() && std::equal(sent.begin(), sent.end(), back.begin())) return;
  putBstr(holder, back);
}

}  // namespace

struct RemoteBookServer::Link {
  // Rows of one handle held from an answer: `rows` are rows first, first + 1, ... of the result.
  // They are copied out of the answer so the answer can be released at once (the daemon keeps an
  // answer until the client lets go of it).
  struct Batch {
    std::string db;
    int32_t first = 0;
    std::unique_ptr<capnp::MallocMessageBuilder> message;
    capnp::List<::Row>::Reader rows;
  };

  using BlockAnswer = capnp::Response<::BookServer::DownLoadDataResults>;

  // One block asked for before the library asked for it. Its answer, or why none came, is kept
  // as it arrives for the DownLoadData call that asks for the block.
  struct Ahead {
    int32_t blockNo = 0;
    kj::Maybe<BlockAnswer> answer;
    kj::Maybe<kj::Exception> error;
    kj::Promise<void> arrival = nullptr;  // last: it goes before what it writes to

    // Whether nothing after this block is worth asking for: the data ended here, or the block
    // failed (the library stops at a failure too).
    bool closes() const {
      if (error != nullptr) return true;
      KJ_IF_MAYBE (a, answer) {
        return a->getStatus() != 0 || !a->getBlock().getPresent() || a->getIsEnd() == 1;
      }
      return false;
    }
  };

  // The download being read ahead: the library last asked for block `asked` of it, and blocks
  // asked + 1 .. sent are on their way, in order, in `pending`.
  struct Download {
    std::string db, handle, column;
    int32_t rowIndex = 0;
    int32_t blockSize = 0;
    int32_t asked = 0;
    int32_t sent = 0;
    bool closed = false;  // an answer that ends the data or fails has come: nothing more is sent
    std::deque<std::unique_ptr<Ahead>> pending;
  };

  ServerEndpoint endpoint;
  RemoteOptions options;
  KeepAlive keepAlive;

  // Destroyed in reverse order: what runs on the loop before the loop.
  std::shared_ptr<ThreadIo> io;
  kj::Own<kj::TlsContext> tls;
  kj::Own<kj::AsyncIoStream> stream;
  int fd = -1;  // the TCP socket under `stream`
  std::shared_ptr<BlockBuffers> buffers = std::make_shared<BlockBuffers>();
  kj::Own<RpcClient> rpc;
  kj::Maybe<::BookServer::Client> server;
  kj::Maybe<kj::Promise<void>> watch;
  bool broken = false;
  std::unordered_map<std::string, Batch> batches;
  // Declared after the connection so that its requests are cancelled while there is one.
  std::unique_ptr<Download> download;

  kj::WaitScope& waitScope() { return io->io.waitScope; }

  // Whether a call may go out. Runs the loop first so that a hang-up that arrived since the last
  // call is known before anything is sent into it.
  bool ready() {
    if (broken || server == nullptr) return false;
    waitScope().poll();
    if (broken) {
      batches.clear();
      endDownload();
    }
    return !broken;
  }

  int32_t failed(const kj::Exception& e) {
    if (e.getType() == kj::Exception::Type::DISCONNECTED) {
      broken = true;
      batches.clear();
      endDownload();
    }
    return kStatusCallFailed;
  }

  void endDownload() {
    download.reset();
    buffers->close();
  }

  // Whether the library's call asks for exactly the block that comes next in the download being
  // read ahead.
  bool follows(capnp::Data::Reader db, capnp::Data::Reader handle, capnp::Data::Reader column,
               int32_t rowIndex, int32_t blockNo, int32_t blockSize) const {
    if (!download || download->pending.empty()) return false;
    const Download& d = *download;
    return d.pending.front()->blockNo == blockNo && d.rowIndex == rowIndex &&
           d.blockSize == blockSize && d.handle == key(handle) && d.column == key(column) &&
           d.db == key(db);
  }

  // Sends requests for the blocks after the last one sent, up to options.readAhead past the one
  // the library asked for last, unless an answer already in says there is nothing more to ask.
  void requestAhead() {
    Download& d = *download;
    for (const auto& a : d.pending) d.closed = d.closed || a->closes();
    KJ_IF_MAYBE (s, server) {
      const int64_t limit =
          std::min<int64_t>(int64_t{d.asked} + options.readAhead, int64_t{INT32_MAX});
      while (!d.closed && d.sent < limit) {
        auto q = s->downLoadDataRequest();
        q.setDbName(keyBytes(d.db));
        q.setHandle(keyBytes(d.handle));
        q.setColumnName(keyBytes(d.column));
        q.setRowIndex(d.rowIndex);
        q.setBlockNo(d.sent + 1);
        q.setBlockSize(d.blockSize);
        auto a = std::make_unique<Ahead>();
        a->blockNo = d.sent + 1;
        Ahead* at = a.get();
        a->arrival = q.send()
                         .then([at](BlockAnswer&& r) { at->answer = kj::mv(r); },
                               [at](kj::Exception&& e) { at->error = kj::mv(e); })
                         .eagerlyEvaluate(nullptr);
        d.pending.push_back(std::move(a));
        ++d.sent;
      }
    }
  }

  void keepRows(std::string handle, capnp::Data::Reader db, int32_t first,
                capnp::List<::Row>::Reader rows) {
    if (rows.size() == 0) {
      batches.erase(handle);
      return;
    }
    Batch b;
    b.db = key(db);
    b.first = first;
    b.message = std::make_unique<capnp::MallocMessageBuilder>(
        static_cast<unsigned>(std::min<uint64_t>(rows.totalSize().wordCount + 8, 1u << 26)));
    auto root = b.message->initRoot<::BookServer::GetRecordsResults>();
    root.setRows(rows);
    b.rows = root.asReader().getRows();
    batches.insert_or_assign(std::move(handle), std::move(b));
  }

  // Serves a row from the handle's batch; false when the batch does not hold it.
  bool serve(const std::string& handle, capnp::Data::Reader db, int32_t rowIndex, VARIANT* row,
             int32_t& status) {
    const auto it = batches.find(handle);
    if (it == batches.end()) return false;
    const Batch& b = it->second;
    if (b.db != key(db) || rowIndex < b.first ||
        static_cast<int64_t>(rowIndex) - b.first >= static_cast<int64_t>(b.rows.size())) {
      return false;
    }
    status =
        setRow(row, b.rows[static_cast<unsigned>(rowIndex - b.first)]) ? 0 : kStatusOutOfMemory;
    return true;
  }

  void forget(capnp::Data::Reader handle) { batches.erase(key(handle)); }

  void shutdown() noexcept {
    QuietKj quiet;
    quietly([this] { batches.clear(); });
    quietly([this] { endDownload(); });
    quietly([this] { watch = nullptr; });
    quietly([this] { server = nullptr; });
    quietly([this] { rpc = nullptr; });
    quietly([this] { stream = nullptr; });
    quietly([this] { tls = nullptr; });
    fd = -1;
    io.reset();
  }
};

RemoteBookServer::RemoteBookServer(const ServerEndpoint& endpoint, const RemoteOptions& options)
    : link_(std::make_unique<Link>()) {
  link_->endpoint = endpoint;
  link_->options = options;
}

RemoteBookServer::~RemoteBookServer() { link_->shutdown(); }

void RemoteBookServer::Release() {
  link_->shutdown();
  delete this;
}

bool RemoteBookServer::broken() const { return link_->broken || link_->server == nullptr; }

bool RemoteBookServer::keepAlive(KeepAlive& k) const {
  const int fd = link_->fd;
  if (fd < 0) return false;
  int on = 0;
  socklen_t n = sizeof on;
  if (::getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, &n) != 0 || on == 0) return false;
  n = sizeof k.idle;
  if (::getsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &k.idle, &n) != 0) return false;
  n = sizeof k.interval;
  if (::getsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &k.interval, &n) != 0) return false;
  n = sizeof k.count;
  return ::getsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &k.count, &n) == 0;
}

int32_t RemoteBookServer::connect(std::string& error) {
  QuietKj quiet;
  Link& l = *link_;
  const ServerEndpoint& ep = l.endpoint;
  // What a failure means depends on how far the connection got.
  int32_t stage = kStatusServerUnavailable;
  try {
    kj::Maybe<kj::TlsCertificate> trusted;
    if (ep.tls()) {
      std::string pem;
      if (!readFile(ep.caFile, pem)) {
        error = ep.caFile + ": cannot be read";
        return kStatusConfigUnreadable;
      }
      stage = kStatusConfigUnreadable;  // a file that holds no certificate
      trusted = kj::TlsCertificate(kj::StringPtr(pem.c_str()));
      stage = kStatusServerUnavailable;
    }

    l.io = threadIo();
    kj::AsyncIoProvider& provider = *l.io->io.provider;
    kj::Timer& timer = provider.getTimer();
    // The timer's own now() only moves while the loop waits, and a shared loop may have slept
    // long; the clock it follows does not.
    const kj::TimePoint deadline =
        kj::systemPreciseMonotonicClock().now() + l.options.connectTimeoutMs * kj::MILLISECONDS;
    const std::string where =
        ep.address.find(':') != std::string::npos ? "[" + ep.address + "]" : ep.address;

    auto address =
        timer.timeoutAt(deadline, provider.getNetwork().parseAddress(where.c_str(), ep.port))
            .wait(l.waitScope());
    auto raw = timer.timeoutAt(deadline, address->connect()).wait(l.waitScope());
    KJ_IF_MAYBE (fd, raw->getFd()) {
      l.fd = *fd;
      tuneSocket(l.fd, l.keepAlive);
    }

    KJ_IF_MAYBE (ca, trusted) {
      stage = kStatusCertificateRefused;
      kj::TlsContext::Options o;
      o.useSystemTrustStore = false;
      o.trustedCertificates = kj::arrayPtr(ca, 1);
      l.tls = kj::heap<kj::TlsContext>(kj::mv(o));
      const std::string name = ep.tlsName.empty() ? ep.address : ep.tlsName;
      l.stream = timer.timeoutAt(deadline, l.tls->wrapClient(kj::mv(raw), name.c_str()))
                     .wait(l.waitScope());
    } else {
      l.stream = kj::mv(raw);
    }

    stage = kStatusAccessDenied;
    l.rpc = kj::heap<RpcClient>(*l.stream, l.buffers);
    auto login = l.rpc->bootstrap().castAs<::Gate>().loginRequest();
    login.setToken(ep.token);
    auto answer =
        timer.timeoutAt(deadline, kj::Promise<capnp::Response<::Gate::LoginResults>>(login.send()))
            .wait(l.waitScope());
    l.server = answer.getServer();
    l.watch = l.rpc->network.onDisconnect()
                  .then([&l]() { l.broken = true; }, [&l](kj::Exception&&) { l.broken = true; })
                  .eagerlyEvaluate(nullptr);
    return 0;
  } catch (const kj::Exception& e) {
    error = e.getDescription().cStr();
    l.shutdown();
    using Type = kj::Exception::Type;
    // A hang-up or a timeout is the daemon being unreachable at whatever stage; so is a logon
    // the other end does not understand.
    if (stage == kStatusAccessDenied && e.getType() != Type::FAILED)
      return kStatusServerUnavailable;
    if (stage == kStatusCertificateRefused && e.getType() == Type::OVERLOADED) {
      return kStatusServerUnavailable;
    }
    return stage;
  } catch (const std::bad_alloc&) {
    l.shutdown();
    return kStatusOutOfMemory;
  }
}

template <typename Make, typename Read>
int32_t RemoteBookServer::call(Make&& make, Read&& read) {
  QuietKj quiet;
  Link& l = *link_;
  try {
    // Whatever this call is, the library has stopped reading the download ahead of it.
    l.endDownload();
    if (!l.ready()) return kStatusServerUnavailable;
    KJ_IF_MAYBE (server, l.server) {
      auto request = make(*server);
      auto response = request.send().wait(l.waitScope());
      return read(response);
    }
    return kStatusServerUnavailable;
  } catch (const kj::Exception& e) {
    return l.failed(e);
  } catch (const std::bad_alloc&) {
    return kStatusOutOfMemory;
  }
}

template <typename Make>
int32_t RemoteBookServer::open(Make&& make, BSTR dbName, int32_t* rowCount, BSTR* handle) {
  return call(std::forward<Make>(make), [&](auto& r) {
    const int32_t status = r.getStatus();
    if (status != 0) return status;
    putInt(rowCount, r.getRowCount());
    putBstr(handle, r.getHandle());
    link_->keepRows(key(r.getHandle()), bytesOf(dbName), 0, r.getRows());
    return status;
  });
}

// --- databases and tables ----------------------------------------------------------------------

int32_t RemoteBookServer::DeleteDatabase(BSTR dbName, BSTR option) {
  // The server closes the handles of a deleted database; rows held for them would outlive them.
  link_->batches.clear();
  return call(
      [&](auto& s) {
        auto q = s.deleteDatabaseRequest();
        q.setDbName(bytesOf(dbName));
        q.setOption(bytesOf(option));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::CopyDatabase(BSTR srcDb, BSTR srcOption, BSTR dstDb, BSTR dstOption,
                                       int32_t kind) {
  return call(
      [&](auto& s) {
        auto q = s.copyDatabaseRequest();
        q.setSrcDb(bytesOf(srcDb));
        q.setSrcOption(bytesOf(srcOption));
        q.setDstDb(bytesOf(dstDb));
        q.setDstOption(bytesOf(dstOption));
        q.setKind(kind);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::OpenDatabase(BSTR dbName, int32_t mode, int32_t* out) {
  return call(
      [&](auto& s) {
        auto q = s.openDatabaseRequest();
        q.setDbName(bytesOf(dbName));
        q.setMode(mode);
        return q;
      },
      [&](auto& r) {
        if (r.getStatus() == 0) putInt(out, r.getOut());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::CreateTable(BSTR dbName, BSTR tableName, int32_t tableKind) {
  return call(
      [&](auto& s) {
        auto q = s.createTableRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setTableKind(tableKind);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::ExecuteQuery(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag,
                                       int32_t* rowCount, BSTR* handle) {
  return open(
      [&](auto& s) {
        auto q = s.executeQueryRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setSql(bytesOf(sql));
        q.setFlag(flag);
        q.setPrefetch(link_->options.prefetch);
        return q;
      },
      dbName, rowCount, handle);
}

int32_t RemoteBookServer::GetRecords(BSTR dbName, BSTR handle, int32_t rowIndex, VARIANT* row) {
  Link& l = *link_;
  const std::string held = key(bytesOf(handle));
  {
    QuietKj quiet;
    try {
      l.endDownload();
      // A held row is only as good as the link: a caller must learn of a lost server on the
      // next call whatever it asks for.
      if (!l.ready()) return kStatusServerUnavailable;
      int32_t status = 0;
      if (l.serve(held, bytesOf(dbName), rowIndex, row, status)) return status;
    } catch (const kj::Exception& e) {
      return l.failed(e);
    }
  }
  return call(
      [&](auto& s) {
        auto q = s.getRecordsRequest();
        q.setDbName(bytesOf(dbName));
        q.setHandle(bytesOf(handle));
        q.setRowIndex(rowIndex);
        q.setCount(std::max<uint32_t>(l.options.refill, 1));
        return q;
      },
      [&](auto& r) {
        const int32_t status = r.getStatus();
        if (status != 0) {
          l.batches.erase(held);
          return status;
        }
        const auto rows = r.getRows();
        if (rows.size() == 0) return kStatusCallFailed;  // a success must carry its row
        if (!setRow(row, rows[0])) return kStatusOutOfMemory;
        l.keepRows(held, bytesOf(dbName), rowIndex, rows);
        return 0;
      });
}

int32_t RemoteBookServer::CloseDatabase(BSTR dbName) {
  return call(
      [&](auto& s) {
        auto q = s.closeDatabaseRequest();
        q.setDbName(bytesOf(dbName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::OpenTable(BSTR dbName, BSTR tableName, int32_t mode, int32_t* rowCount,
                                    BSTR* handle) {
  return open(
      [&](auto& s) {
        auto q = s.openTableRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setMode(mode);
        q.setPrefetch(link_->options.prefetch);
        return q;
      },
      dbName, rowCount, handle);
}

int32_t RemoteBookServer::CloseTable(BSTR dbName, BSTR handle) {
  link_->forget(bytesOf(handle));
  return call(
      [&](auto& s) {
        auto q = s.closeTableRequest();
        q.setDbName(bytesOf(dbName));
        q.setHandle(bytesOf(handle));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::UnlockDatabase(BSTR dbName) {
  return call(
      [&](auto& s) {
        auto q = s.unlockDatabaseRequest();
        q.setDbName(bytesOf(dbName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::ExecuteSQL(BSTR dbName, BSTR sql) {
  return call(
      [&](auto& s) {
        auto q = s.executeSQLRequest();
        q.setDbName(bytesOf(dbName));
        q.setSql(bytesOf(sql));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::OpenTableEx(BSTR dbName, BSTR tableName, BSTR sql, int32_t flag,
                                      int32_t* rowCount, BSTR* handle) {
  return open(
      [&](auto& s) {
        auto q = s.openTableExRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setSql(bytesOf(sql));
        q.setFlag(flag);
        q.setPrefetch(link_->options.prefetch);
        return q;
      },
      dbName, rowCount, handle);
}

int32_t RemoteBookServer::CreateBookDatabase(BSTR templateName, BSTR option, BSTR newDbName) {
  return call(
      [&](auto& s) {
        auto q = s.createBookDatabaseRequest();
        q.setTemplateName(bytesOf(templateName));
        q.setOption(bytesOf(option));
        q.setNewDbName(bytesOf(newDbName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::CheckTBL(BSTR dbName, BSTR tableName) {
  return call(
      [&](auto& s) {
        auto q = s.checkTBLRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::CheckColumn(BSTR dbName, BSTR tableName, BSTR columnName) {
  return call(
      [&](auto& s) {
        auto q = s.checkColumnRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setColumnName(bytesOf(columnName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

// --- rows and blobs ----------------------------------------------------------------------------

int32_t RemoteBookServer::AddRecord(BSTR dbName, VARIANT* record, int32_t recordCount,
                                    int32_t* newIndex) {
  return call(
      [&](auto& s) {
        auto q = s.addRecordRequest();
        q.setDbName(bytesOf(dbName));
        copyTexts(record, q.initRecord(textCount(record)));
        namedHandles(q.getRecord().asReader(), [&](auto h) { link_->forget(h); });
        q.setRecordCount(recordCount);
        return q;
      },
      [&](auto& r) {
        if (r.getStatus() == 0) putInt(newIndex, r.getNewIndex());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::UpdateRecord(BSTR dbName, VARIANT* record, int32_t recordCount,
                                       int32_t* tIndex) {
  return call(
      [&](auto& s) {
        auto q = s.updateRecordRequest();
        q.setDbName(bytesOf(dbName));
        copyTexts(record, q.initRecord(textCount(record)));
        namedHandles(q.getRecord().asReader(), [&](auto h) { link_->forget(h); });
        q.setRecordCount(recordCount);
        q.setTIndex(valueOr(tIndex));
        return q;
      },
      [&](auto& r) {
        putInt(tIndex, r.getTIndex());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::DownLoadData(BSTR dbName, BSTR handle, BSTR columnName, int32_t rowIndex,
                                       int32_t blockNo, int32_t blockSize, VARIANT* block,
                                       int32_t* isEnd, int32_t* bytes) {
  Link& l = *link_;
  const auto read = [&](const auto& r) {
    const int32_t status = r.getStatus();
    if (status != 0) return status;
    // The one copy: from the received message into the caller's array.
    if (block != nullptr && !setBlock(block, r.getBlock())) return kStatusOutOfMemory;
    putInt(isEnd, r.getIsEnd());
    putInt(bytes, r.getBytes());
    return status;
  };

  {
    QuietKj quiet;
    try {
      // An answer already here is only as good as the link, as with held rows.
      if (!l.ready()) return kStatusServerUnavailable;
      if (l.follows(bytesOf(dbName), bytesOf(handle), bytesOf(columnName), rowIndex, blockNo,
                    blockSize)) {
        Link::Download& d = *l.download;
        const std::unique_ptr<Link::Ahead> a = std::move(d.pending.front());
        d.pending.pop_front();
        d.asked = blockNo;
        d.closed = d.closed || a->closes();
        // The next request goes out before this block is waited for, so the daemon always has
        // one to work on.
        l.requestAhead();
        // Waiting for a block that is already here need not turn the loop, which writes it.
        l.waitScope().poll();
        a->arrival.wait(l.waitScope());
        KJ_IF_MAYBE (e, a->error) {
          if (l.download) l.download->closed = true;
          return l.failed(*e);
        }
        KJ_IF_MAYBE (r, a->answer) {
          if (r->getStatus() == 0 && (!r->getBlock().getPresent() || r->getIsEnd() == 1)) {
            // The rest was asked for past the end; nobody will ask for it.
            l.endDownload();
          } else if (a->closes()) {
            l.download->closed = true;
          }
          return read(*r);
        }
        l.endDownload();  // not reached: `arrival` resolves only once one of the two is set
        return kStatusCallFailed;
      }
    } catch (const kj::Exception& e) {
      l.endDownload();
      return l.failed(e);
    } catch (const std::bad_alloc&) {
      l.endDownload();
      return kStatusOutOfMemory;
    }
  }

  bool more = false;
  const int32_t status = call(
      [&](auto& s) {
        auto q = s.downLoadDataRequest();
        q.setDbName(bytesOf(dbName));
        q.setHandle(bytesOf(handle));
        q.setColumnName(bytesOf(columnName));
        q.setRowIndex(rowIndex);
        q.setBlockNo(blockNo);
        q.setBlockSize(blockSize);
        return q;
      },
      [&](auto& r) {
        const int32_t result = read(r);
        more = result == 0 && r.getBlock().getPresent() && r.getIsEnd() != 1;
        return result;
      });
  // A blob that fits one block, or a failure, costs no requests beyond this one.
  if (more && l.options.readAhead > 0 && blockNo < INT32_MAX) {
    QuietKj quiet;
    try {
      auto d = std::make_unique<Link::Download>();
      d->db = key(bytesOf(dbName));
      d->handle = key(bytesOf(handle));
      d->column = key(bytesOf(columnName));
      d->rowIndex = rowIndex;
      d->blockSize = blockSize;
      d->asked = blockNo;
      d->sent = blockNo;
      l.download = std::move(d);
      // Room for a block and its answer's framing.
      l.buffers->open(static_cast<std::size_t>(std::max(blockSize, 0)) / sizeof(capnp::word) + 256,
                      std::size_t{l.options.readAhead} + 2);
      l.requestAhead();
      // Out now rather than at the next call: the daemon works while the library stores this
      // block.
      l.waitScope().poll();
    } catch (...) {  // a read-ahead that could not start changes nothing: the next call asks
      quietly([&l] { l.endDownload(); });
    }
  }
  return status;
}

int32_t RemoteBookServer::UpLoadData(VARIANT* record, int32_t blockNo, int32_t bytes,
                                     VARIANT* block, int32_t isLast) {
  return call(
      [&](auto& s) {
        auto q = s.upLoadDataRequest();
        copyTexts(record, q.initRecord(textCount(record)));
        namedHandles(q.getRecord().asReader(), [&](auto h) { link_->forget(h); });
        q.setBlockNo(blockNo);
        q.setBytes(bytes);
        auto b = q.initBlock();
        // Only the good bytes travel: a last block is mostly unused array.
        const bool present =
            block != nullptr && block->vt == (MV_VT_ARRAY | MV_VT_UI1) && block->parray != nullptr;
        b.setPresent(present);
        if (present) b.setData(blockBytes(block, bytes > 0 ? static_cast<uint32_t>(bytes) : 0));
        q.setIsLast(isLast);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::DeleteRecord(BSTR dbName, BSTR handle, int32_t tIndex) {
  link_->forget(bytesOf(handle));
  return call(
      [&](auto& s) {
        auto q = s.deleteRecordRequest();
        q.setDbName(bytesOf(dbName));
        q.setHandle(bytesOf(handle));
        q.setTIndex(tIndex);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::DeleteRecords(BSTR dbName, BSTR handle, int32_t firstRow,
                                        int32_t lastRow) {
  link_->forget(bytesOf(handle));
  return call(
      [&](auto& s) {
        auto q = s.deleteRecordsRequest();
        q.setDbName(bytesOf(dbName));
        q.setHandle(bytesOf(handle));
        q.setFirstRow(firstRow);
        q.setLastRow(lastRow);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::ImageFileDate(BSTR dbName, BSTR handle, int32_t op, int32_t tIndex,
                                        double* date) {
  return call(
      [&](auto& s) {
        auto q = s.imageFileDateRequest();
        q.setDbName(bytesOf(dbName));
        q.setHandle(bytesOf(handle));
        q.setOp(op);
        q.setTIndex(tIndex);
        q.setDate(date != nullptr ? *date : 0.0);
        return q;
      },
      [&](auto& r) {
        if (date != nullptr) *date = r.getDate();
        return r.getStatus();
      });
}

// --- counters and mutual exclusion -------------------------------------------------------------

namespace {

capnp::Data::Reader block16Bytes(const uint8_t* block16) {
  if (block16 == nullptr) return {};
  return {block16, 16};
}

void putBlock16(uint8_t* block16, capnp::Data::Reader back) {
  if (block16 != nullptr)
    std::memcpy(block16, back.begin(), std::min<std::size_t>(back.size(), 16));
}

}  // namespace

int32_t RemoteBookServer::SetBookUpdateCounter(BSTR dbName) {
  return call(
      [&](auto& s) {
        auto q = s.setBookUpdateCounterRequest();
        q.setDbName(bytesOf(dbName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::SetMutex(BSTR name, int32_t op) {
  return call(
      [&](auto& s) {
        auto q = s.setMutexRequest();
        q.setName(bytesOf(name));
        q.setOp(op);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::GetBookUpdateCounter(BSTR dbName, uint8_t* block16, int32_t* counter) {
  return call(
      [&](auto& s) {
        auto q = s.getBookUpdateCounterRequest();
        q.setDbName(bytesOf(dbName));
        q.setBlock16(block16Bytes(block16));
        q.setCounter(valueOr(counter));
        return q;
      },
      [&](auto& r) {
        putBlock16(block16, r.getBlock16());
        putInt(counter, r.getCounter());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::TagUpdateCounter(BSTR dbName, int32_t tagIndex, int32_t op,
                                           uint8_t* block16, int32_t* counter) {
  return call(
      [&](auto& s) {
        auto q = s.tagUpdateCounterRequest();
        q.setDbName(bytesOf(dbName));
        q.setTagIndex(tagIndex);
        q.setOp(op);
        q.setBlock16(block16Bytes(block16));
        q.setCounter(valueOr(counter));
        return q;
      },
      [&](auto& r) {
        putBlock16(block16, r.getBlock16());
        putInt(counter, r.getCounter());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::SetCounter(BSTR name, int32_t op, int32_t* value) {
  return call(
      [&](auto& s) {
        auto q = s.setCounterRequest();
        q.setName(bytesOf(name));
        q.setOp(op);
        q.setValue(valueOr(value));
        return q;
      },
      [&](auto& r) {
        putInt(value, r.getValue());
        return r.getStatus();
      });
}

// --- users and logon ---------------------------------------------------------------------------

int32_t RemoteBookServer::SetUserAdmin(BSTR first, BSTR second, int32_t third) {
  return call(
      [&](auto& s) {
        auto q = s.setUserAdminRequest();
        q.setFirst(bytesOf(first));
        q.setSecond(bytesOf(second));
        q.setThird(third);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::GetLoginUsers(VARIANT* list, int32_t* count) {
  return call([](auto& s) { return s.getLoginUsersRequest(); },
              [&](auto& r) {
                const int32_t status = r.getStatus();
                if (status != 0) return status;
                if (list != nullptr && !setValue(list, r.getList())) return kStatusOutOfMemory;
                putInt(count, r.getCount());
                return status;
              });
}

int32_t RemoteBookServer::GetConnect(int32_t* first, int32_t* second) {
  return call(
      [&](auto& s) {
        auto q = s.getConnectRequest();
        q.setFirst(valueOr(first));
        q.setSecond(valueOr(second));
        return q;
      },
      [&](auto& r) {
        putInt(first, r.getFirst());
        putInt(second, r.getSecond());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::LoginMgr(BSTR first, BSTR second, BSTR third, int32_t fourth) {
  return call(
      [&](auto& s) {
        auto q = s.loginMgrRequest();
        q.setFirst(bytesOf(first));
        q.setSecond(bytesOf(second));
        q.setThird(bytesOf(third));
        q.setFourth(fourth);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

// --- carrying, replication, shared folders -----------------------------------------------------

int32_t RemoteBookServer::CarryingInfoBook(BSTR dbName, int32_t first, int32_t second) {
  return call(
      [&](auto& s) {
        auto q = s.carryingInfoBookRequest();
        q.setDbName(bytesOf(dbName));
        q.setFirst(first);
        q.setSecond(second);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::CarryingOut(BSTR dbName, int32_t blockNo, int32_t blockSize,
                                      VARIANT* block, int32_t* isEnd, BSTR* fileName,
                                      int32_t* value) {
  return call(
      [&](auto& s) {
        auto q = s.carryingOutRequest();
        q.setDbName(bytesOf(dbName));
        q.setBlockNo(blockNo);
        q.setBlockSize(blockSize);
        q.setIsEnd(valueOr(isEnd));
        q.setValue(valueOr(value));
        return q;
      },
      [&](auto& r) {
        putInt(isEnd, r.getIsEnd());
        putInt(value, r.getValue());
        const int32_t status = r.getStatus();
        if (status != 0) return status;
        if (block != nullptr && !setBlock(block, r.getBlock())) return kStatusOutOfMemory;
        putBstrIfChanged(fileName, {}, r.getFileName());
        return status;
      });
}

int32_t RemoteBookServer::Carryingin(BSTR dbName, int32_t isFirst, int32_t bytes, VARIANT* block,
                                     int32_t isLast) {
  return call(
      [&](auto& s) {
        auto q = s.carryinginRequest();
        q.setDbName(bytesOf(dbName));
        q.setIsFirst(isFirst);
        q.setBytes(bytes);
        auto b = q.initBlock();
        const bool present =
            block != nullptr && block->vt == (MV_VT_ARRAY | MV_VT_UI1) && block->parray != nullptr;
        b.setPresent(present);
        if (present) b.setData(blockBytes(block, bytes > 0 ? static_cast<uint32_t>(bytes) : 0));
        q.setIsLast(isLast);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::CarryingSetup(BSTR first, BSTR second) {
  return call(
      [&](auto& s) {
        auto q = s.carryingSetupRequest();
        q.setFirst(bytesOf(first));
        q.setSecond(bytesOf(second));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::DBBackUpBase(int32_t a, int32_t b, int32_t c) {
  return call(
      [&](auto& s) {
        auto q = s.dbBackUpBaseRequest();
        q.setA(a);
        q.setB(b);
        q.setC(c);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::GetCarryingInfo(VARIANT* list) {
  return call([](auto& s) { return s.getCarryingInfoRequest(); },
              [&](auto& r) {
                const int32_t status = r.getStatus();
                if (status == 0 && list != nullptr && !setValue(list, r.getList())) {
                  return kStatusOutOfMemory;
                }
                return status;
              });
}

int32_t RemoteBookServer::OpenNetShare(BSTR shareClient, BSTR computerName, BSTR dbName,
                                       BSTR tableName, int32_t tIndex, BSTR* folder) {
  return call(
      [&](auto& s) {
        auto q = s.openNetShareRequest();
        q.setShareClient(bytesOf(shareClient));
        q.setComputerName(bytesOf(computerName));
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setTIndex(tIndex);
        return q;
      },
      [&](auto& r) {
        if (r.getStatus() == 0) putBstrIfChanged(folder, {}, r.getFolder());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::CloseNetShare(BSTR dbName, BSTR tableName, int32_t tIndex) {
  return call(
      [&](auto& s) {
        auto q = s.closeNetShareRequest();
        q.setDbName(bytesOf(dbName));
        q.setTableName(bytesOf(tableName));
        q.setTIndex(tIndex);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::RepricatOut(BSTR dbName, BSTR* fileName) {
  return call(
      [&](auto& s) {
        auto q = s.repricatOutRequest();
        q.setDbName(bytesOf(dbName));
        return q;
      },
      [&](auto& r) {
        if (r.getStatus() == 0) putBstrIfChanged(fileName, {}, r.getFileName());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::RepricatIn(BSTR dbName) {
  return call(
      [&](auto& s) {
        auto q = s.repricatInRequest();
        q.setDbName(bytesOf(dbName));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

// --- template book databases -------------------------------------------------------------------

int32_t RemoteBookServer::GetOrgBookDBInfo(VARIANT* first, VARIANT* second, VARIANT* third) {
  return call([](auto& s) { return s.getOrgBookDBInfoRequest(); },
              [&](auto& r) {
                const int32_t status = r.getStatus();
                if (status != 0) return status;
                const bool ok = (first == nullptr || setValue(first, r.getFirst())) &&
                                (second == nullptr || setValue(second, r.getSecond())) &&
                                (third == nullptr || setValue(third, r.getThird()));
                return ok ? status : kStatusOutOfMemory;
              });
}

int32_t RemoteBookServer::AddOrgBookDB(BSTR a, BSTR b, BSTR c, int32_t d) {
  return call(
      [&](auto& s) {
        auto q = s.addOrgBookDBRequest();
        q.setA(bytesOf(a));
        q.setB(bytesOf(b));
        q.setC(bytesOf(c));
        q.setD(d);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::DeleteOrgBookDB(int32_t a) {
  return call(
      [&](auto& s) {
        auto q = s.deleteOrgBookDBRequest();
        q.setA(a);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::RenameOrgBookDB(int32_t a, int32_t b) {
  return call(
      [&](auto& s) {
        auto q = s.renameOrgBookDBRequest();
        q.setA(a);
        q.setB(b);
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

// --- server and system queries -----------------------------------------------------------------

int32_t RemoteBookServer::GetServerFreeSpace(int32_t* freeSpace) {
  return call(
      [&](auto& s) {
        auto q = s.getServerFreeSpaceRequest();
        q.setFreeSpace(valueOr(freeSpace));
        return q;
      },
      [&](auto& r) {
        putInt(freeSpace, r.getFreeSpace());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::GetServerInfo(BSTR* info) {
  return call([](auto& s) { return s.getServerInfoRequest(); },
              [&](auto& r) {
                if (r.getStatus() == 0) putBstrIfChanged(info, {}, r.getInfo());
                return r.getStatus();
              });
}

int32_t RemoteBookServer::GetOption(int32_t kind, BSTR* text, int32_t* a, int32_t* b) {
  const capnp::Data::Reader sent = text != nullptr ? bytesOf(*text) : capnp::Data::Reader();
  return call(
      [&](auto& s) {
        auto q = s.getOptionRequest();
        q.setKind(kind);
        q.setText(sent);
        q.setA(valueOr(a));
        q.setB(valueOr(b));
        return q;
      },
      [&](auto& r) {
        putInt(a, r.getA());
        putInt(b, r.getB());
        putBstrIfChanged(text, sent, r.getText());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::ConnectCheck() {
  return call([](auto& s) { return s.connectCheckRequest(); },
              [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::GetLastError(BSTR* message) {
  return call([](auto& s) { return s.getLastErrorRequest(); },
              [&](auto& r) {
                if (r.getStatus() == 0) putBstrIfChanged(message, {}, r.getMessage());
                return r.getStatus();
              });
}

int32_t RemoteBookServer::GetDatabaseSize(BSTR dbName, int32_t* size) {
  return call(
      [&](auto& s) {
        auto q = s.getDatabaseSizeRequest();
        q.setDbName(bytesOf(dbName));
        q.setSize(valueOr(size));
        return q;
      },
      [&](auto& r) {
        putInt(size, r.getSize());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::GetDatabaseSize2(BSTR dbName, int64_t* size) {
  return call(
      [&](auto& s) {
        auto q = s.getDatabaseSize2Request();
        q.setDbName(bytesOf(dbName));
        q.setSize(size != nullptr ? *size : 0);
        return q;
      },
      [&](auto& r) {
        if (size != nullptr) *size = r.getSize();
        return r.getStatus();
      });
}

int32_t RemoteBookServer::CheckRecordableFolder(BSTR folder) {
  return call(
      [&](auto& s) {
        auto q = s.checkRecordableFolderRequest();
        q.setFolder(bytesOf(folder));
        return q;
      },
      [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::CheckSQLServerType() {
  return call([](auto& s) { return s.checkSQLServerTypeRequest(); },
              [](auto& r) { return r.getStatus(); });
}

int32_t RemoteBookServer::GetServerInfo2(int32_t* a, int32_t* b, int32_t* c, int32_t* d) {
  return call(
      [&](auto& s) {
        auto q = s.getServerInfo2Request();
        q.setA(valueOr(a));
        q.setB(valueOr(b));
        q.setC(valueOr(c));
        q.setD(valueOr(d));
        return q;
      },
      [&](auto& r) {
        putInt(a, r.getA());
        putInt(b, r.getB());
        putInt(c, r.getC());
        putInt(d, r.getD());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::GetOSVersion(int32_t* first, int32_t* second) {
  return call(
      [&](auto& s) {
        auto q = s.getOSVersionRequest();
        q.setFirst(valueOr(first));
        q.setSecond(valueOr(second));
        return q;
      },
      [&](auto& r) {
        putInt(first, r.getFirst());
        putInt(second, r.getSecond());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::CheckOSType(int32_t* type) {
  return call(
      [&](auto& s) {
        auto q = s.checkOSTypeRequest();
        q.setType(valueOr(type));
        return q;
      },
      [&](auto& r) {
        putInt(type, r.getType());
        return r.getStatus();
      });
}

int32_t RemoteBookServer::GetServerModuleVersion(int32_t* v1, int32_t* v2, int32_t* v3,
                                                 int32_t* v4) {
  return call([](auto& s) { return s.getServerModuleVersionRequest(); },
              [&](auto& r) {
                const int32_t status = r.getStatus();
                if (status != 0) return status;
                putInt(v1, r.getV1());
                putInt(v2, r.getV2());
                putInt(v3, r.getV3());
                putInt(v4, r.getV4());
                return status;
              });
}

// --- making the link ---------------------------------------------------------------------------

namespace {

std::string& connectError() {
  thread_local std::string text;
  return text;
}

}  // namespace

const std::string& lastConnectError() { return connectError(); }

int32_t connectRemote(const ServerEndpoint& endpoint, const RemoteOptions& options,
                      IBookServer** server) {
  if (server == nullptr) return kStatusCallFailed;
  *server = nullptr;
  RemoteBookServer* remote = nullptr;
  try {
    remote = new RemoteBookServer(endpoint, options);
  } catch (const std::bad_alloc&) {
    return kStatusOutOfMemory;
  }
  const int32_t status = remote->connect(connectError());
  if (status != 0) {
    remote->Release();
    return status;
  }
  connectError().clear();
  *server = remote;
  return 0;
}

int32_t connectRemote(std::string_view host, IBookServer** server) {
  if (server == nullptr) return kStatusCallFailed;
  *server = nullptr;
  ServerEndpoint endpoint;
  const int32_t status = resolveServer(host, endpoint, connectError());
  if (status != 0) return status;
  return connectRemote(endpoint, RemoteOptions{}, server);
}

}  // namespace mv::rpc
