// The client's end of one connection to a daemon: name lookup, TCP with dead-peer detection,
// TLS, the logon at the gate with the wire's version check, and the event loop the library's
// thread runs while it waits for an answer.
#pragma once

#include <capnp/message.h>
#include <kj/async-io.h>
#include <kj/compat/tls.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "rpc/book_server.capnp.h"
#include "rpc/client_config.h"

namespace mv::rpc {

// The daemon cannot be reached, or the link to it is known to be broken; nothing was sent.
inline constexpr int32_t kStatusServerUnavailable = static_cast<int32_t>(0x800706BAu);
// The call was sent but no answer came: the link broke while waiting, or the daemon failed the
// call without a status of its own. Whether the server acted on it is unknown.
inline constexpr int32_t kStatusCallFailed = static_cast<int32_t>(0x800706BEu);
// The daemon refused the logon token.
inline constexpr int32_t kStatusAccessDenied = static_cast<int32_t>(0x80070005u);
// The TLS handshake failed: the daemon's certificate did not verify against the configured CA
// or name, or the other end does not speak TLS.
inline constexpr int32_t kStatusCertificateRefused = static_cast<int32_t>(0x800B0109u);

// Dead-peer detection on the socket: the kernel probes after `idle` quiet seconds, every
// `interval` seconds, and gives up after `count` unanswered probes.
struct KeepAlive {
  int idle = 10;
  int interval = 3;
  int count = 3;
};

// kj writes some failures (a lost connection, a refused handshake) to standard error itself.
// The library reports them as statuses, and an application's standard error is not ours to
// write to, so every entry into kj runs with this on the stack.
class QuietKj final : public kj::ExceptionCallback {
 public:
  void logMessage(kj::LogSeverity, const char*, int, int, kj::String&&) override {}
};

// Buffers for the answers of a download being read ahead. Each incoming message would get a
// fresh buffer of a block's size, and the allocator hands buffers that large back to the kernel
// when they are freed, so every block paid again for faulting its pages in: more than reading it
// off the socket. While a download is read ahead, its answers land in buffers kept from earlier
// ones instead; a few at most are kept, and none once the download is over.
class BlockBuffers {
 public:
  // Buffers of `words` from now on, `keep` of them kept when they come back.
  void open(std::size_t words, std::size_t keep);
  void close();
  bool active() const { return words_ != 0; }
  kj::Array<capnp::word> take();
  void give(kj::Array<capnp::word> b);

 private:
  std::size_t words_ = 0;
  std::size_t keep_ = 0;
  std::vector<kj::Array<capnp::word>> spare_;
};

struct ThreadIo;
struct RpcClient;

class RemoteLink {
 public:
  RemoteLink(const ServerEndpoint& endpoint, uint32_t connectTimeoutMs);
  ~RemoteLink() noexcept;
  RemoteLink(const RemoteLink&) = delete;
  RemoteLink& operator=(const RemoteLink&) = delete;

  // 0 once logged on, else a failure status with `error` in words.
  int32_t connect(std::string& error);
  // Ends the connection; never throws.
  void shutdown() noexcept;

  kj::WaitScope& waitScope();
  BookServer::Client* server();
  BlockBuffers& buffers() { return *buffers_; }
  // Whether a call may go out. Runs the loop first so that a hang-up that arrived since the
  // last call is known before anything is sent into it.
  bool ready();
  bool broken() const { return broken_ || server_ == nullptr; }
  // Takes note of a call's failure: a lost connection breaks the link for good.
  void failed(const kj::Exception& e);
  // What the kernel was told about dead-peer detection, read back from the socket.
  bool keepAlive(KeepAlive& settings) const;

 private:
  ServerEndpoint endpoint_;
  uint32_t connectTimeoutMs_;
  KeepAlive keepAlive_;
  // Destroyed in reverse order: what runs on the loop before the loop.
  std::shared_ptr<ThreadIo> io_;
  kj::Own<kj::TlsContext> tls_;
  kj::Own<kj::AsyncIoStream> stream_;
  int fd_ = -1;  // the TCP socket under `stream_`
  std::shared_ptr<BlockBuffers> buffers_ = std::make_shared<BlockBuffers>();
  kj::Own<RpcClient> rpc_;
  kj::Maybe<BookServer::Client> server_;
  kj::Maybe<kj::Promise<void>> watch_;
  bool broken_ = false;
};

}  // namespace mv::rpc
