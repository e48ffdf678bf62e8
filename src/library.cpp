// The library's entry. libMVCore.so is this unit and the client archives linked whole; the unit
// is also what joins the client to its servers. The frame only knows the factory seam, the
// server core only the storage interface: here MVInit("") becomes a session of the embedded
// server on SQLite in the application's data folder, and MVInit("name") a proxy to a daemon
// (rpc/client_config.h says what a name stands for).
#include "library.h"

#include "frame/connection.h"
#include "rpc/remote_book_server.h"
#include "server/core/book_server.h"
#include "server/sqlite/sqlite_engine.h"

namespace mv {

namespace {

int32_t connectServer(std::string_view host, IBookServer** server) {
  *server = nullptr;
  if (!host.empty()) return rpc::connectRemote(host, server);
  return server::connectEmbedded(dataFolder(), server::openSqliteEngine, server);
}

// The factory is in place before the application can call MVInit. This is the library's only
// load-time work; the connection state is still made on first use.
[[maybe_unused]] const bool installed = (installDefaultServers(), true);

}  // namespace

void installDefaultServers() { setDefaultServerFactory(connectServer); }

}  // namespace mv
