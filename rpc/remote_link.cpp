#include "rpc/remote_link.h"

#include <capnp/rpc-twoparty.h>
#include <capnp/serialize-async.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <utility>

#include "frame/server_methods.h"
#include "rpc/convert.h"

namespace mv::rpc {

namespace {

template <typename F>
void quietly(F&& f) noexcept {
  try {
    f();
  } catch (...) {  // teardown of a broken link may complain; it is going away regardless
  }
}

}  // namespace

// kj allows one event loop per thread, and MVChangeServer keeps two links open on the library's
// thread at once, so every link of a thread shares its loop. The last link to go ends it.
struct ThreadIo {
  kj::AsyncIoContext io = kj::setupAsyncIo();
};

namespace {

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

}  // namespace

void BlockBuffers::open(std::size_t words, std::size_t keep) {
  if (words != words_) spare_.clear();
  words_ = words;
  keep_ = keep;
}

void BlockBuffers::close() {
  words_ = 0;
  spare_.clear();
}

kj::Array<capnp::word> BlockBuffers::take() {
  if (spare_.empty()) return kj::heapArray<capnp::word>(words_);
  kj::Array<capnp::word> b = kj::mv(spare_.back());
  spare_.pop_back();
  return b;
}

void BlockBuffers::give(kj::Array<capnp::word> b) {
  if (b.size() == words_ && spare_.size() < keep_) spare_.push_back(kj::mv(b));
}

namespace {

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

}  // namespace

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

RemoteLink::RemoteLink(const ServerEndpoint& endpoint, uint32_t connectTimeoutMs)
    : endpoint_(endpoint), connectTimeoutMs_(connectTimeoutMs) {}

RemoteLink::~RemoteLink() noexcept { shutdown(); }

kj::WaitScope& RemoteLink::waitScope() { return io_->io.waitScope; }

BookServer::Client* RemoteLink::server() {
  KJ_IF_MAYBE (s, server_) {
    return s;
  }
  return nullptr;
}

bool RemoteLink::ready() {
  if (broken()) return false;
  waitScope().poll();
  return !broken_;
}

void RemoteLink::failed(const kj::Exception& e) {
  if (e.getType() == kj::Exception::Type::DISCONNECTED) broken_ = true;
}

void RemoteLink::shutdown() noexcept {
  QuietKj quiet;
  quietly([this] { buffers_->close(); });
  quietly([this] { watch_ = nullptr; });
  quietly([this] { server_ = nullptr; });
  quietly([this] { rpc_ = nullptr; });
  quietly([this] { stream_ = nullptr; });
  quietly([this] { tls_ = nullptr; });
  fd_ = -1;
  io_.reset();
}

bool RemoteLink::keepAlive(KeepAlive& k) const {
  const int fd = fd_;
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

int32_t RemoteLink::connect(std::string& error) {
  QuietKj quiet;
  const ServerEndpoint& ep = endpoint_;
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

    io_ = threadIo();
    kj::AsyncIoProvider& provider = *io_->io.provider;
    kj::Timer& timer = provider.getTimer();
    // The timer's own now() only moves while the loop waits, and a shared loop may have slept
    // long; the clock it follows does not.
    const kj::TimePoint deadline =
        kj::systemPreciseMonotonicClock().now() + connectTimeoutMs_ * kj::MILLISECONDS;
    const std::string where =
        ep.address.find(':') != std::string::npos ? "[" + ep.address + "]" : ep.address;

    auto address =
        timer.timeoutAt(deadline, provider.getNetwork().parseAddress(where.c_str(), ep.port))
            .wait(waitScope());
    auto raw = timer.timeoutAt(deadline, address->connect()).wait(waitScope());
    KJ_IF_MAYBE (fd, raw->getFd()) {
      fd_ = *fd;
      tuneSocket(fd_, keepAlive_);
    }

    KJ_IF_MAYBE (ca, trusted) {
      stage = kStatusCertificateRefused;
      kj::TlsContext::Options o;
      o.useSystemTrustStore = false;
      o.trustedCertificates = kj::arrayPtr(ca, 1);
      tls_ = kj::heap<kj::TlsContext>(kj::mv(o));
      const std::string name = ep.tlsName.empty() ? ep.address : ep.tlsName;
      stream_ =
          timer.timeoutAt(deadline, tls_->wrapClient(kj::mv(raw), name.c_str())).wait(waitScope());
    } else {
      stream_ = kj::mv(raw);
    }

    stage = kStatusAccessDenied;
    rpc_ = kj::heap<RpcClient>(*stream_, buffers_);
    auto login = rpc_->bootstrap().castAs<::Gate>().loginRequest();
    login.setToken(ep.token);
    login.setWire(kWireFormat);
    login.setMethods(serverMethodsSignature());
    auto answer =
        timer.timeoutAt(deadline, kj::Promise<capnp::Response<::Gate::LoginResults>>(login.send()))
            .wait(waitScope());
    if (answer.getWire() != kWireFormat || answer.getMethods() != serverMethodsSignature()) {
      error = "the daemon speaks " + describeWire(answer.getWire(), answer.getMethods()) +
              ", the library " + describeWire(kWireFormat, serverMethodsSignature());
      shutdown();
      return kStatusWireMismatch;
    }
    server_ = answer.getServer();
    watch_ = rpc_->network.onDisconnect()
                 .then([this]() { broken_ = true; }, [this](kj::Exception&&) { broken_ = true; })
                 .eagerlyEvaluate(nullptr);
    return 0;
  } catch (const kj::Exception& e) {
    error = e.getDescription().cStr();
    shutdown();
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
    shutdown();
    return kStatusOutOfMemory;
  }
}

}  // namespace mv::rpc
