// The book server on another machine: an IBookServer whose every method is one `call` to the
// daemon's BookServer capability, marshalled from the method table. The library drives it from
// one thread and waits for each answer, so the object owns its side of the connection
// (RemoteLink) and runs the thread's event loop only while it waits.
//
// Rows are the exception to "one method, one call": the library asks for them one GetRecords at
// a time, which over a network would be one round trip per row. Opening a result therefore
// brings its first rows along, and a GetRecords the proxy cannot answer from what it holds asks
// for a whole run of rows from there on. A write through a handle, closing it, or deleting a
// database forgets what was held for it.
//
// Blobs are the other exception: the library asks for a blob's blocks one after the other and
// each would wait a round trip. Once a block comes back that does not end the data, the requests
// for the next few go out before the library asks for them, and the answers wait for it. Any
// other call first lets go of them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "frame/IBookServer.h"
#include "platform/file_system.h"
#include "rpc/client_config.h"
#include "rpc/remote_link.h"

namespace mv::rpc {

struct RemoteOptions {
  uint32_t prefetch = 256;            // rows that come with an opened result
  uint32_t refill = 1024;             // rows asked for when GetRecords misses
  uint32_t readAhead = 4;             // blocks of a download requested early (0: none)
  uint32_t connectTimeoutMs = 10000;  // name lookup, connection, handshake and logon together
};

// MVInit's connector for a non-empty server name: resolves it (client_config.h) and connects.
// 0 with a server holding one reference, else a failure status and null.
int32_t connectRemote(std::string_view host, IBookServer** server);
// Connects to an endpoint already resolved.
int32_t connectRemote(const ServerEndpoint& endpoint, const RemoteOptions& options,
                      IBookServer** server);

// Why the last connectRemote of this thread failed, in words (for logs and tests).
const std::string& lastConnectError();

class RemoteBookServer final : public ForwardingServer {
 public:
  // Use connectRemote(); a RemoteBookServer that failed to connect is never handed out.
  RemoteBookServer(const ServerEndpoint& endpoint, const RemoteOptions& options);
  int32_t connect(std::string& error) { return link_.connect(error); }

  // Ends the connection; never throws.
  void Release() override;

  bool keepAlive(KeepAlive& settings) const { return link_.keepAlive(settings); }
  // True once the link is known to be broken: every call now fails at once.
  bool broken() const { return link_.broken(); }

 protected:
  int32_t forward(const ServerMethod& method, std::span<const ArgRef> args) override;

 private:
  ~RemoteBookServer() override;
  struct Held;

  int32_t send(const ServerMethod& method, std::span<const ArgRef> args, uint32_t rows);
  int32_t read(const ServerMethod& method, std::span<const ArgRef> args,
               BookServer::CallResults::Reader answer);
  int32_t downLoad(const ServerMethod& method, std::span<const ArgRef> args);
  // A share path the daemon answered: rewritten to the local mount when one is configured, else
  // reached through this link's file service, attached for the server's name in front of any
  // other link's.
  void adoptSharePaths(const ServerMethod& method, std::span<const ArgRef> args);

  RemoteOptions options_;
  std::string shareMount_;
  std::shared_ptr<fs::FileSystem> files_;
  fs::Attachment attachment_ = 0;
  RemoteLink link_;
  // Declared after the link so that its requests are cancelled while there is one.
  std::unique_ptr<Held> held_;
};

}  // namespace mv::rpc
