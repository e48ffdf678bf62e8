// bookserverd's pieces: its options (command line and configuration file), where it listens and
// whether it may, and the server loop. The loop accepts on the calling thread and gives every
// connection a thread with an event loop of its own; sessions share the ServerCore, which is
// safe across threads.
#pragma once

#include <sys/socket.h>

#include <kj/time.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "rpc/gate.h"
#include "server/core/server_core.h"

namespace mv::rpc {

struct DaemonOptions {
  std::string data;
  std::string listen;
  bool init = false;
  std::string admin;
  std::string password;
  std::string tlsCert;
  std::string tlsKey;
  std::string tokenFile;
  bool insecure = false;
  std::string config;
  std::string shareName;  // empty: the host name
};

// Options by their names without dashes ("data", "tls-cert"), as given.
using OptionMap = std::map<std::string, std::string>;

// getopt_long's forms: --name value or --name=value (or an unambiguous start of the name); the
// flags --init and --insecure stand alone or take =value. "help" is set for --help or -h.
bool parseCommandLine(int argc, const char* const* argv, OptionMap& out, std::string& error);
// The configuration file: the INI form of platform/ini.h without sections, `name = value` lines
// with the options' names (ASCII case ignored; a repeated name, the last wins); flags take
// true/false, yes/no, on/off or 1/0.
bool parseConfig(std::string_view text, OptionMap& out, std::string& error);
bool readConfigFile(const std::string& path, OptionMap& out, std::string& error);
// Both together, the command line winning; unknown names and malformed flags are errors.
bool resolveOptions(const OptionMap& commandLine, const OptionMap& file, DaemonOptions& out,
                    std::string& error);

struct ListenAddress {
  sockaddr_storage address{};
  socklen_t length = 0;
};
// HOST:PORT, [IPv6]:PORT or *:PORT (every interface); a host name may give several addresses.
bool resolveListen(const std::string& hostPort, std::vector<ListenAddress>& out,
                   std::string& error);
bool isLoopback(const sockaddr* address);
// "127.0.0.1:4000", "[::1]:4000".
std::string describeAddress(const sockaddr* address);
// Why the daemon may not listen there so; empty when it may. Beyond loopback, clients need TLS
// and a token to be let in, unless told otherwise.
std::string listenPolicyError(const std::vector<ListenAddress>& addresses, bool tls, bool tokens,
                              bool insecure);

// Keepalive probes on an accepted socket, so that a client that vanished without a word is
// found and its session released; unacknowledged data gives up after as long.
bool setKeepalive(int fd, int idleSeconds, int intervalSeconds, int count);

// A line on standard error, with the time unless the journal adds its own.
void logToStderr(const std::string& line);

struct ServeOptions {
  std::shared_ptr<server::ServerCore> core;
  // Makes a logged-on client's session; unset, a session of `core`'s server.
  std::function<IBookServer*()> sessions;
  // The server name in the share paths that sessions answer ("\\\\<name>\\shares\\..."), which
  // clients reach through the sessions' file services; empty: this machine's host name.
  std::string shareServer;
  std::vector<std::string> tokens;  // none: any token logs on
  std::string tlsCertPem;           // both empty: no TLS
  std::string tlsKeyPem;
  kj::Duration refusalDelay = 1 * kj::SECONDS;
  // With tokens, a connection that has not logged on by then is closed.
  kj::Duration loginTimeout = 30 * kj::SECONDS;
  kj::Duration handshakeTimeout = 10 * kj::SECONDS;
  LogFn log = logToStderr;
};

class Daemon {
 public:
  explicit Daemon(ServeOptions options);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Binds and listens on every address; false with `error` when none could be bound.
  bool listen(const std::vector<ListenAddress>& addresses, std::string& error);
  // Where it listens, with the ports the system chose for port 0.
  std::vector<std::string> listening() const;
  uint16_t port() const;

  // Serves until stop(): then stops accepting, closes every connection and returns once each
  // connection's thread has ended (and with it its sessions).
  void run();
  // Safe from a signal handler and from any thread.
  void stop();

 private:
  struct Connection {
    int fd = -1;  // -1 once the connection's thread gave it up
    std::thread thread;
  };

  void accept(int listener);
  void serve(uint64_t id, int fd, const std::string& peer);
  void serveStream(int fd, const std::string& peer);
  // Joins the threads that ended.
  void reap();
  void drainWake();

  ServeOptions options_;
  GateServer::Shared gate_;
  std::vector<int> listeners_;
  int wake_[2] = {-1, -1};
  std::atomic<bool> stopping_{false};

  std::mutex mutex_;
  uint64_t nextId_ = 0;
  std::map<uint64_t, Connection> connections_;
  std::vector<uint64_t> finished_;
};

}  // namespace mv::rpc
