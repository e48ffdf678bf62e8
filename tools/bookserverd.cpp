// bookserverd: the book server of one data folder, for clients on the network.
//
//   bookserverd --data DIR --listen HOST:PORT [--init] [--admin NAME --password TEXT]
//               [--tls-cert FILE --tls-key FILE] [--token-file FILE] [--insecure]
//               [--config FILE] [--share-name NAME]
//
// The configuration file holds the same options without their dashes, one `name = value` a
// line, in the INI form of platform/ini.h (comments take whole lines); flags take true/false,
// yes/no, on/off or 1/0; an option given on the command line wins over the file:
//
//   # /etc/mvcore/bookserverd.conf
//   data = /var/lib/mvcore
//   listen = 0.0.0.0:7340
//   tls-cert = /etc/mvcore/bookserverd.crt
//   tls-key = /etc/mvcore/bookserverd.key
//   token-file = /etc/mvcore/tokens
//
// HOST may be a name, an IPv4 address, [an IPv6 address] or * for every interface; port 0 lets
// the system choose (the log tells which). Beyond loopback the daemon wants TLS and a token
// file, or --insecure. --init sets the data folder up (the administrator from --admin and
// --password, which also apply when a fresh folder is first served) and exits.
//
// Exit status: 0 after SIGTERM or SIGINT, and after --init; 64 for a bad command line; 78 for a
// configuration it refuses; 1 when the data folder or the address cannot be had.
#include <signal.h>
#include <sys/stat.h>
#include <sysexits.h>

#include <kj/compat/tls.h>
#include <kj/exception.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "platform/ini.h"
#include "rpc/daemon.h"
#include "server/sqlite/sqlite_engine.h"

namespace {

using mv::rpc::logToStderr;

constexpr char kUsage[] =
    "usage: bookserverd --data DIR --listen HOST:PORT [--init] [--admin NAME --password TEXT]\n"
    "                   [--tls-cert FILE --tls-key FILE] [--token-file FILE] [--insecure]\n"
    "                   [--config FILE] [--share-name NAME]\n";

std::atomic<mv::rpc::Daemon*> running{nullptr};

extern "C" void onStopSignal(int) {
  if (mv::rpc::Daemon* d = running.load()) d->stop();
}

int usage(const std::string& error) {
  logToStderr(error);
  (void)std::fputs(kUsage, stderr);
  return EX_USAGE;
}

int refuse(const std::string& error) {
  logToStderr(error);
  return EX_CONFIG;
}

bool readText(const std::string& path, std::string& text) {
  std::string error;
  return mv::ini::readText(path, text, error) == mv::ini::FileState::kRead;
}

void installSignals() {
  struct sigaction stop {};
  stop.sa_handler = onStopSignal;
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  mv::rpc::OptionMap commandLine, file;
  std::string error;
  if (!mv::rpc::parseCommandLine(argc, argv, commandLine, error)) return usage(error);
  if (commandLine.count("help")) {
    (void)std::fputs(kUsage, stdout);
    return 0;
  }
  if (const auto it = commandLine.find("config");
      it != commandLine.end() && !mv::rpc::readConfigFile(it->second, file, error)) {
    return refuse(error);
  }
  mv::rpc::DaemonOptions options;
  if (!mv::rpc::resolveOptions(commandLine, file, options, error)) return usage(error);
  if (options.data.empty()) return usage("no data folder (--data)");

  mv::server::InitOptions init;
  if (!options.admin.empty()) init.adminName = options.admin;
  if (!options.password.empty()) init.adminPassword = options.password;
  if (options.init) {
    auto core =
        mv::server::ServerCore::open(options.data, init, mv::server::openSqliteEngine, error);
    if (!core) {
      logToStderr(error);
      return 1;
    }
    logToStderr("data folder " + options.data + " is set up");
    return 0;
  }

  if (options.listen.empty()) return usage("no address to listen on (--listen)");
  if (options.tlsCert.empty() != options.tlsKey.empty()) {
    return refuse("--tls-cert and --tls-key go together");
  }
  const bool tls = !options.tlsCert.empty();
  const bool tokens = !options.tokenFile.empty();
  std::vector<mv::rpc::ListenAddress> addresses;
  if (!mv::rpc::resolveListen(options.listen, addresses, error)) return refuse(error);
  error = mv::rpc::listenPolicyError(addresses, tls, tokens, options.insecure);
  if (!error.empty()) return refuse(error);
  if (!mv::rpc::listenPolicyError(addresses, tls, tokens, false).empty()) {
    logToStderr("warning: listening beyond loopback without TLS and tokens (--insecure)");
  }

  mv::rpc::ServeOptions serve;
  serve.shareServer = options.shareName;
  if (tokens) {
    if (!mv::rpc::loadTokens(options.tokenFile, serve.tokens, error)) return refuse(error);
    struct stat st {};
    if (::stat(options.tokenFile.c_str(), &st) == 0 && (st.st_mode & 077) != 0) {
      logToStderr("warning: the token file " + options.tokenFile + " can be read by other users");
    }
  }
  if (tls) {
    if (!readText(options.tlsCert, serve.tlsCertPem)) {
      return refuse("cannot read the certificate " + options.tlsCert);
    }
    if (!readText(options.tlsKey, serve.tlsKeyPem)) {
      return refuse("cannot read the key " + options.tlsKey);
    }
    // Parsed once here so that a bad file stops the start, not every connection.
    KJ_IF_MAYBE (e, kj::runCatchingExceptions([&] {
                   kj::TlsCertificate certificate(serve.tlsCertPem);
                   kj::TlsPrivateKey key(serve.tlsKeyPem);
                 })) {
      return refuse("unusable certificate or key: " + std::string(e->getDescription().cStr()));
    }
  }

  serve.core =
      mv::server::ServerCore::open(options.data, init, mv::server::openSqliteEngine, error);
  if (!serve.core) {
    logToStderr(error);
    return 1;
  }
  const std::string engine = serve.core->engine().describe();
  mv::rpc::Daemon daemon(std::move(serve));
  if (!daemon.listen(addresses, error)) {
    logToStderr(error);
    return 1;
  }
  running = &daemon;
  installSignals();
  logToStderr("serving data folder " + options.data + " (" + engine + ")");
  for (const std::string& address : daemon.listening()) {
    logToStderr("listening on " + address + " (TLS " + (tls ? "on" : "off") + ", tokens " +
                (tokens ? "on" : "off") + ")");
  }
  daemon.run();
  running = nullptr;
  logToStderr("stopped");
  return 0;
}
