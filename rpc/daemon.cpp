#include "rpc/daemon.h"

#include "platform/files.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>
#include <kj/compat/tls.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <set>

#include "platform/ini.h"
#include "platform/text.h"

namespace mv::rpc {

namespace {

// Every option by its name; flags take no value on the command line (or "=value").
const option kOptions[] = {{"data", required_argument, nullptr, 0},
                           {"listen", required_argument, nullptr, 0},
                           {"admin", required_argument, nullptr, 0},
                           {"password", required_argument, nullptr, 0},
                           {"tls-cert", required_argument, nullptr, 0},
                           {"tls-key", required_argument, nullptr, 0},
                           {"token-file", required_argument, nullptr, 0},
                           {"config", required_argument, nullptr, 0},
                           {"init", optional_argument, nullptr, 0},
                           {"insecure", optional_argument, nullptr, 0},
                           {"share-name", required_argument, nullptr, 0},
                           {"help", no_argument, nullptr, 'h'},
                           {nullptr, 0, nullptr, 0}};

bool flagValue(const std::string& name, const std::string& text, bool& value, std::string& error) {
  static const std::set<std::string, std::less<>> yes = {"1", "true", "yes", "on"};
  static const std::set<std::string, std::less<>> no = {"0", "false", "no", "off"};
  if (yes.count(text)) {
    value = true;
  } else if (no.count(text)) {
    value = false;
  } else {
    error = "option " + name + " takes true or false, not \"" + text + "\"";
    return false;
  }
  return true;
}

}  // namespace

bool parseCommandLine(int argc, const char* const* argv, OptionMap& out, std::string& error) {
  // getopt keeps its place in globals: start afresh, and report errors here, not on stderr.
  optind = 0;
  opterr = 0;
  // getopt_long only reorders the pointers, and "+" stops it doing even that.
  char* const* args = const_cast<char* const*>(argv);
  for (;;) {
    int index = -1;
    const int c = ::getopt_long(argc, args, "+:h", kOptions, &index);
    if (c == -1) break;
    if (c == 'h') {
      out["help"] = "true";
    } else if (c == ':') {
      error = "option " + std::string(argv[optind - 1]) + " needs a value";
      return false;
    } else if (c == '?') {
      error = "unknown option " + std::string(argv[optind - 1]);
      return false;
    } else {
      const option& o = kOptions[index];
      out[o.name] = optarg != nullptr ? optarg : "true";
    }
  }
  if (optind < argc) {
    error = "unexpected argument \"" + std::string(argv[optind]) + "\"";
    return false;
  }
  return true;
}

namespace {

bool configOptions(const ini::Document& document, OptionMap& out, std::string& error) {
  if (document.sections.size() > 1) {
    error = "line " + std::to_string(document.sections[1].line) + ": there are no sections";
    return false;
  }
  for (const ini::Entry& e : document.sections[0].entries) {
    std::string name = e.key;
    for (char& c : name) c = asciiLower(c);
    const auto known = std::find_if(std::begin(kOptions), std::end(kOptions), [&](const option& o) {
      return o.name != nullptr && name == o.name;
    });
    // A configuration file names no other, and asks for no help.
    if (known == std::end(kOptions) || name == "config" || name == "help") {
      error = "line " + std::to_string(e.line) + ": unknown name \"" + e.key + "\"";
      return false;
    }
    out[name] = e.value;
  }
  return true;
}

}  // namespace

bool parseConfig(std::string_view text, OptionMap& out, std::string& error) {
  ini::Document document;
  return ini::parse(text, document, error) && configOptions(document, out, error);
}

bool readConfigFile(const std::string& path, OptionMap& out, std::string& error) {
  ini::Document document;
  switch (ini::readFile(path, document, error)) {
    case ini::FileState::kMissing:
      error = "cannot read the configuration file " + path;
      return false;
    case ini::FileState::kFailed:
      return false;
    case ini::FileState::kRead:
      break;
  }
  if (!configOptions(document, out, error)) {
    error = path + ": " + error;
    return false;
  }
  return true;
}

bool resolveOptions(const OptionMap& commandLine, const OptionMap& file, DaemonOptions& out,
                    std::string& error) {
  OptionMap all = file;
  for (const auto& [name, value] : commandLine) all[name] = value;
  out = DaemonOptions{};
  for (const auto& [name, value] : all) {
    if (name == "data") {
      out.data = value;
    } else if (name == "listen") {
      out.listen = value;
    } else if (name == "admin") {
      out.admin = value;
    } else if (name == "password") {
      out.password = value;
    } else if (name == "tls-cert") {
      out.tlsCert = value;
    } else if (name == "tls-key") {
      out.tlsKey = value;
    } else if (name == "token-file") {
      out.tokenFile = value;
    } else if (name == "config") {
      out.config = value;
    } else if (name == "share-name") {
      // It stands between "\\\\" and the share's name in every share path a client gets.
      if (value.empty() || value.find_first_of("\\/") != std::string::npos) {
        error = "share-name \"" + value + "\" is not a plain name";
        return false;
      }
      out.shareName = value;
    } else if (name == "init") {
      if (!flagValue(name, value, out.init, error)) return false;
    } else if (name == "insecure") {
      if (!flagValue(name, value, out.insecure, error)) return false;
    } else if (name != "help") {
      error = "unknown option " + name;
      return false;
    }
  }
  return true;
}

bool resolveListen(const std::string& hostPort, std::vector<ListenAddress>& out,
                   std::string& error) {
  out.clear();
  std::string host, port;
  if (!hostPort.empty() && hostPort.front() == '[') {
    const auto close = hostPort.find(']');
    if (close == std::string::npos || close + 1 >= hostPort.size() || hostPort[close + 1] != ':') {
      error = "listen address \"" + hostPort + "\" is not [IPv6]:PORT";
      return false;
    }
    host = hostPort.substr(1, close - 1);
    port = hostPort.substr(close + 2);
  } else {
    const auto colon = hostPort.rfind(':');
    if (colon == std::string::npos || colon == 0) {
      error = "listen address \"" + hostPort + "\" is not HOST:PORT";
      return false;
    }
    host = hostPort.substr(0, colon);
    port = hostPort.substr(colon + 1);
  }
  char* end = nullptr;
  const long number = std::strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || number < 0 || number > 65535) {
    error = "listen port \"" + port + "\" is not a number from 0 to 65535";
    return false;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int rc = ::getaddrinfo(host == "*" ? nullptr : host.c_str(), port.c_str(), &hints, &found);
  if (rc != 0) {
    error = "cannot resolve \"" + host + "\": " + ::gai_strerror(rc);
    return false;
  }
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    if (a->ai_addrlen > sizeof(sockaddr_storage)) continue;
    ListenAddress l;
    std::memcpy(&l.address, a->ai_addr, a->ai_addrlen);
    l.length = a->ai_addrlen;
    bool seen = false;
    for (const ListenAddress& o : out) {
      seen |= o.length == l.length && std::memcmp(&o.address, &l.address, l.length) == 0;
    }
    if (!seen) out.push_back(l);
  }
  ::freeaddrinfo(found);
  if (out.empty()) {
    error = "\"" + host + "\" has no address to listen on";
    return false;
  }
  return true;
}

bool isLoopback(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    sockaddr_in v4;
    std::memcpy(&v4, address, sizeof v4);
    return (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
  }
  if (address->sa_family == AF_INET6) {
    sockaddr_in6 v6;
    std::memcpy(&v6, address, sizeof v6);
    if (IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr)) return true;
    return IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) && v6.sin6_addr.s6_addr[12] == 127;
  }
  return false;
}

std::string describeAddress(const sockaddr* address) {
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  const socklen_t length =
      address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (::getnameinfo(address, length, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "(unknown address)";
  }
  return address->sa_family == AF_INET6 ? "[" + std::string(host) + "]:" + port
                                        : std::string(host) + ":" + port;
}

std::string listenPolicyError(const std::vector<ListenAddress>& addresses, bool tls, bool tokens,
                              bool insecure) {
  if (insecure || (tls && tokens)) return {};
  for (const ListenAddress& a : addresses) {
    const auto* address = reinterpret_cast<const sockaddr*>(&a.address);
    if (!isLoopback(address)) {
      return "refusing to listen on " + describeAddress(address) + " without " +
             (tls      ? "a token file"
              : tokens ? "TLS"
                       : "TLS and a token file") +
             " (give --tls-cert, --tls-key and --token-file, or --insecure)";
    }
  }
  return {};
}

bool setKeepalive(int fd, int idleSeconds, int intervalSeconds, int count) {
  const int on = 1;
  const unsigned userTimeout = static_cast<unsigned>(idleSeconds + intervalSeconds * count) * 1000u;
  return ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
         ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds) == 0 &&
         ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof intervalSeconds) ==
             0 &&
         ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count) == 0 &&
         ::setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &userTimeout, sizeof userTimeout) == 0;
}

void logToStderr(const std::string& line) {
  static std::mutex mutex;
  // The journal stamps lines itself; elsewhere the time is worth having.
  static const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
  std::string text;
  if (!journal) {
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char stamp[32];
    text.assign(stamp, std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S ", &tm));
  }
  text += "bookserverd: " + line + "\n";
  std::lock_guard lock(mutex);
  // Nowhere to report a log that cannot be written.
  (void)std::fwrite(text.data(), 1, text.size(), stderr);
  (void)std::fflush(stderr);
}

// --- the server loop ---------------------------------------------------------------------------

Daemon::Daemon(ServeOptions options) : options_(std::move(options)) {
  if (options_.core != nullptr) {
    options_.core->serveSharesAs(options_.shareServer.empty() ? fs::computerName()
                                                              : options_.shareServer);
  }
  gate_.core = options_.core;
  gate_.sessions = options_.sessions;
  if (!options_.tokens.empty()) gate_.tokens = std::make_shared<Tokens>(options_.tokens);
  gate_.refusalDelay = options_.refusalDelay;
  gate_.log = options_.log;
  if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) wake_[0] = wake_[1] = -1;
}

Daemon::~Daemon() {
  stop();
  for (int fd : listeners_) ::close(fd);
  // run() joins every thread; a Daemon that never ran has none.
  for (int fd : wake_) {
    if (fd >= 0) ::close(fd);
  }
}

bool Daemon::listen(const std::vector<ListenAddress>& addresses, std::string& error) {
  if (wake_[0] < 0) {
    error = std::string("cannot make a pipe: ") + std::strerror(errno);
    return false;
  }
  std::string failures;
  for (const ListenAddress& a : addresses) {
    const auto* address = reinterpret_cast<const sockaddr*>(&a.address);
    const int fd = ::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    bool ok = fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
    // "*" gives both families; each socket takes its own.
    if (ok && address->sa_family == AF_INET6) {
      ok = ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0;
    }
    ok = ok && ::bind(fd, address, a.length) == 0 && ::listen(fd, SOMAXCONN) == 0;
    if (!ok) {
      failures += (failures.empty() ? "" : "; ") + std::string("cannot listen on ") +
                  describeAddress(address) + ": " + std::strerror(errno);
      if (fd >= 0) ::close(fd);
      continue;
    }
    listeners_.push_back(fd);
  }
  if (listeners_.empty()) {
    error = failures.empty() ? "no address to listen on" : failures;
    return false;
  }
  if (!failures.empty() && options_.log) options_.log(failures);
  return true;
}

std::vector<std::string> Daemon::listening() const {
  std::vector<std::string> out;
  for (int fd : listeners_) {
    sockaddr_storage a{};
    socklen_t length = sizeof a;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) == 0) {
      out.push_back(describeAddress(reinterpret_cast<const sockaddr*>(&a)));
    }
  }
  return out;
}

uint16_t Daemon::port() const {
  if (listeners_.empty()) return 0;
  sockaddr_storage a{};
  socklen_t length = sizeof a;
  if (::getsockname(listeners_.front(), reinterpret_cast<sockaddr*>(&a), &length) != 0) return 0;
  if (a.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6*>(&a)->sin6_port);
  return ntohs(reinterpret_cast<const sockaddr_in*>(&a)->sin_port);
}

void Daemon::stop() {
  stopping_.store(true);
  if (wake_[1] >= 0) {
    const char c = 's';
    [[maybe_unused]] const ssize_t n = ::write(wake_[1], &c, 1);
  }
}

void Daemon::drainWake() {
  char buffer[64];
  while (::read(wake_[0], buffer, sizeof buffer) > 0) {
  }
}

void Daemon::reap() {
  std::vector<std::thread> done;
  {
    std::lock_guard lock(mutex_);
    for (uint64_t id : finished_) {
      const auto it = connections_.find(id);
      if (it == connections_.end()) continue;
      done.push_back(std::move(it->second.thread));
      connections_.erase(it);
    }
    finished_.clear();
  }
  for (std::thread& t : done) {
    if (t.joinable()) t.join();
  }
}

void Daemon::run() {
  // A write to a client that vanished fails with EPIPE; the default action of SIGPIPE would end
  // the whole process instead.
  struct sigaction onPipe {};
  if (::sigaction(SIGPIPE, nullptr, &onPipe) == 0 && onPipe.sa_handler == SIG_DFL) {
    onPipe.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &onPipe, nullptr);
  }
  std::vector<pollfd> polls;
  while (!stopping_.load()) {
    polls.clear();
    polls.push_back({wake_[0], POLLIN, 0});
    for (int fd : listeners_) polls.push_back({fd, POLLIN, 0});
    if (::poll(polls.data(), polls.size(), -1) < 0) {
      if (errno == EINTR) continue;
      options_.log(std::string("poll failed: ") + std::strerror(errno));
      break;
    }
    if (polls[0].revents != 0) drainWake();
    reap();
    if (stopping_.load()) break;
    for (std::size_t i = 1; i < polls.size(); ++i) {
      if (polls[i].revents != 0) accept(polls[i].fd);
    }
  }

  for (int fd : listeners_) ::close(fd);
  listeners_.clear();
  // A signal may end the loop before connections that ended meanwhile were counted out.
  reap();
  {
    std::lock_guard lock(mutex_);
    options_.log("stopping: closing " + std::to_string(connections_.size()) + " connections");
    // A connection's thread sees its socket end, finishes the call it is in and ends its
    // sessions. The descriptor stays open until the thread gives it up, so this never reaches
    // a descriptor number that was reused.
    for (const auto& [id, c] : connections_) {
      if (c.fd >= 0) ::shutdown(c.fd, SHUT_RDWR);
    }
  }
  for (;;) {
    reap();
    {
      std::lock_guard lock(mutex_);
      if (connections_.empty()) break;
    }
    pollfd p{wake_[0], POLLIN, 0};
    ::poll(&p, 1, 1000);
    drainWake();
  }
}

void Daemon::accept(int listener) {
  sockaddr_storage peerAddress{};
  socklen_t length = sizeof peerAddress;
  const int fd =
      ::accept4(listener, reinterpret_cast<sockaddr*>(&peerAddress), &length, SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      options_.log(std::string("cannot accept: ") + std::strerror(errno));
      // Out of descriptors: let connections end before trying again, instead of spinning.
      ::usleep(100 * 1000);
    }
    return;
  }
  const std::string peer = describeAddress(reinterpret_cast<const sockaddr*>(&peerAddress));
  const int on = 1;
  // Calls are small and answered one by one: no waiting for more bytes to fill a segment.
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (!setKeepalive(fd, 10, 3, 3)) {
    options_.log("cannot set keepalive for " + peer + ": " + std::strerror(errno));
  }
  std::lock_guard lock(mutex_);
  const uint64_t id = ++nextId_;
  Connection& c = connections_[id];
  c.fd = fd;
  try {
    c.thread = std::thread(&Daemon::serve, this, id, fd, peer);
  } catch (const std::system_error& e) {
    options_.log("cannot serve " + peer + ": " + e.what());
    connections_.erase(id);
    ::close(fd);
    return;
  }
  options_.log("connect from " + peer + " (" + std::to_string(connections_.size()) +
               " connections)");
}

void Daemon::serve(uint64_t id, int fd, const std::string& peer) {
  // Stop signals belong to the accepting thread.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  serveStream(fd, peer);

  std::size_t left = 0;
  {
    std::lock_guard lock(mutex_);
    connections_[id].fd = -1;
    finished_.push_back(id);
    left = connections_.size() - 1;
  }
  ::close(fd);
  options_.log("disconnect from " + peer + " (" + std::to_string(left) + " connections, " +
               std::to_string(options_.core->liveSessions()) + " sessions)");
  const char c = 'f';
  [[maybe_unused]] const ssize_t n = ::write(wake_[1], &c, 1);
}

void Daemon::serveStream(int fd, const std::string& peer) {
  try {
    kj::AsyncIoContext io = kj::setupAsyncIo();
    kj::Timer& timer = io.provider->getTimer();
    // Without TAKE_OWNERSHIP: the descriptor is closed by serve(), after it left the registry.
    kj::Own<kj::AsyncIoStream> stream = io.lowLevelProvider->wrapSocketFd(fd);
    // Each thread parses its own key and certificate: no OpenSSL object is shared.
    kj::Own<kj::TlsKeypair> keypair;
    kj::Own<kj::TlsContext> tls;
    if (!options_.tlsCertPem.empty()) {
      kj::TlsContext::Options tlsOptions;
      keypair = kj::heap<kj::TlsKeypair>(kj::TlsKeypair{kj::TlsPrivateKey(options_.tlsKeyPem),
                                                        kj::TlsCertificate(options_.tlsCertPem)});
      tlsOptions.defaultKeypair = *keypair;
      tlsOptions.useSystemTrustStore = false;
      tls = kj::heap<kj::TlsContext>(kj::mv(tlsOptions));
      stream = timer.timeoutAfter(options_.handshakeTimeout, tls->wrapServer(kj::mv(stream)))
                   .wait(io.waitScope);
    }
    bool loggedIn = false;
    {
      capnp::TwoPartyVatNetwork network(*stream, capnp::rpc::twoparty::Side::SERVER);
      auto rpc = capnp::makeRpcServer(network, kj::heap<GateServer>(gate_, timer, peer, &loggedIn));
      kj::Promise<void> ended = network.onDisconnect();
      if (gate_.tokens) {
        ended = kj::mv(ended).exclusiveJoin(
            timer.afterDelay(options_.loginTimeout).then([&]() -> kj::Promise<void> {
              if (loggedIn) return kj::NEVER_DONE;
              options_.log("closing " + peer + ": no login in time");
              return kj::READY_NOW;
            }));
      }
      ended.wait(io.waitScope);
      // Leaving this scope drops the connection's capabilities: its sessions end here.
    }
  } catch (const kj::Exception& e) {
    options_.log("connection from " + peer + " failed: " + std::string(e.getDescription().cStr()));
  } catch (const std::exception& e) {
    // Whatever went wrong ends this connection, never the daemon.
    options_.log("connection from " + peer + " failed: " + e.what());
  }
}

}  // namespace mv::rpc
