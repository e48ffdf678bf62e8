// Which daemon a server name given to MVInit / MVChangeServer stands for: the client's stand-in
// for the platform's registration of remote servers.
//
// The configuration is the first file that exists of
//   $MVCORE_CLIENT_CONF            (when set and not empty, it must exist)
//   $XDG_CONFIG_HOME/mvcore/client.conf, else ~/.config/mvcore/client.conf
//   /etc/mvcore/client.conf
// It is read on every connection, so edits apply to the next MVInit. It takes the INI form of
// platform/ini.h (comments take whole lines; names ignore ASCII case):
//
//   [books]                    the server name an application gives
//   address = books.example.org   host name or IP address; default: the section's name
//   port = 7340                1..65535; default 7340
//   ca = /etc/mvcore/ca.pem    PEM certificates to trust: the link uses TLS and the daemon's
//                              certificate must verify against them (the system's store is not
//                              consulted)
//   tls-name = books.example.org  the name the certificate must carry; default: the address
//   token = ...                the logon token the daemon expects, or
//   token-file = /path         a file whose first line is the token
//   share-mount = /mnt/books   where this machine mounts the daemon's data folder (NFS, SMB):
//                              share paths "\\<server>\<share>\..." the daemon answers are
//                              used as <share-mount>/<share>/... with plain local files;
//                              without it they go to the daemon's file service over the link
//
// Relative paths are taken from the configuration file's folder; "~/" is $HOME. Every line must
// be one of these forms: an end-of-line comment, an unknown key, a key outside a section, a
// repeated key or section, or a value that does not parse fails every connection with
// kStatusConfigUnreadable instead of being skipped, because a mistyped "ca" would otherwise fall
// back to plain text silently.
//
// A name without a section may still be a loopback endpoint: "127.0.0.1:7341", "localhost",
// "[::1]:7341", "::1" (port 7340 when left out). Those links use neither TLS nor a token and
// exist for tests and a daemon on the same machine. Any other name without a section means
// nothing (kStatusClassNotRegistered), whatever DNS would say about it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mv::rpc {

inline constexpr uint16_t kDefaultPort = 7340;

// The configuration exists but cannot be read or does not parse (the registry's "cannot read
// key").
inline constexpr int32_t kStatusConfigUnreadable = static_cast<int32_t>(0x80040150u);

// Where and how to reach one daemon.
struct ServerEndpoint {
  std::string address;  // host name or IP literal, without brackets
  uint16_t port = kDefaultPort;
  std::string caFile;      // not empty: TLS, verified against these certificates
  std::string tlsName;     // the certificate's expected name (empty: the address)
  std::string token;       // sent to Gate.login; empty when none
  std::string shareMount;  // the local mount of the daemon's data folder; empty: none

  bool tls() const { return !caFile.empty(); }
};

// One section of a configuration, as written (paths already made absolute).
struct ServerEntry {
  std::string name;
  std::string address;
  uint16_t port = kDefaultPort;
  std::string caFile;
  std::string tlsName;
  std::string token;
  std::string tokenFile;
  std::string shareMount;
};

// Parses a configuration's text; `folder` anchors relative paths. On failure returns false and
// says where and why in `error` ("line 3: ...").
bool parseClientConfig(std::string_view text, std::string_view folder,
                       std::vector<ServerEntry>& entries, std::string& error);

// The configuration file in force: its path, or empty when none exists. Fails (returns false)
// only when $MVCORE_CLIENT_CONF names a file that does not exist.
bool findClientConfig(std::string& path, std::string& error);

// A loopback endpoint written as "host", "host:port", "[v6]" or "[v6]:port". False for text that
// is no such endpoint; `loopback` tells whether the address is one this machine answers itself
// (127.0.0.0/8, ::1, "localhost").
bool parseHostPort(std::string_view text, std::string& address, uint16_t& port, bool& loopback);

// What a server name stands for: 0 and `endpoint`, kStatusClassNotRegistered for a name with no
// meaning, kStatusConfigUnreadable (with `error`) for a configuration or token file that cannot
// be used.
int32_t resolveServer(std::string_view name, ServerEndpoint& endpoint, std::string& error);

}  // namespace mv::rpc
