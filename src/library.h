// The library's entry: the one place that knows the ways to a server.
#pragma once

namespace mv {

// Installs the default server factory (the embedded server for "", a daemon on the network for a
// name) and SQLite as the embedded server's storage engine. The entry does it when the library is
// loaded; calling it again puts both back, over whatever factory a test installed.
void installDefaultServers();

}  // namespace mv
