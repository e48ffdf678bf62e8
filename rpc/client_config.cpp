#include "rpc/client_config.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "frame/activation.h"
#include "platform/ini.h"
#include "platform/text.h"

namespace mv::rpc {

namespace {

bool parsePort(std::string_view text, uint16_t& port) {
  if (text.empty() || text.size() > 5) return false;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  if (value == 0 || value > 65535) return false;
  port = static_cast<uint16_t>(value);
  return true;
}

bool isIpv4(const std::string& text) {
  in_addr a{};
  return inet_pton(AF_INET, text.c_str(), &a) == 1;
}

bool isIpv6(const std::string& text) {
  in6_addr a{};
  return inet_pton(AF_INET6, text.c_str(), &a) == 1;
}

// A DNS name as a resolver accepts it: letters, digits, '-' and '.', labels not starting with
// '-'. Anything else (blanks, '/', '@') is a typing slip, not a host.
bool isHostName(std::string_view text) {
  if (text.empty() || text.size() > 253 || text.front() == '.' || text.front() == '-') {
    return false;
  }
  char previous = '.';
  for (char c : text) {
    const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum && c != '-' && c != '.') return false;
    if (c == '.' && previous == '.') return false;
    if (c == '-' && previous == '.') return false;
    previous = c;
  }
  return true;
}

// An address as written in a configuration: a host name, an IPv4 literal, an IPv6 literal with
// or without brackets.
bool parseAddress(std::string_view text, std::string& address) {
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    address.assign(text.substr(1, text.size() - 2));
    return isIpv6(address);
  }
  address.assign(text);
  if (address.find(':') != std::string::npos) return isIpv6(address);
  return isIpv4(address) || isHostName(address);
}

bool isLoopback(const std::string& address) {
  if (equalsIgnoringAsciiCase(address, "localhost")) return true;
  in_addr v4{};
  if (inet_pton(AF_INET, address.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == 127;
  }
  in6_addr v6{};
  return inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string absolute(std::string_view path, std::string_view folder) {
  if (path.substr(0, 2) == "~/") {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
      return std::string(home) + std::string(path.substr(1));
    }
  }
  if (path.front() == '/' || folder.empty()) return std::string(path);
  std::string joined(folder);
  if (joined.back() != '/') joined += '/';
  return joined.append(path);
}

// The first line of a token file, without its line end and surrounding blanks.
bool readToken(const std::string& path, std::string& token, std::string& error) {
  std::string text;
  const ini::FileState state = ini::readText(path, text, error);
  if (state == ini::FileState::kMissing) error = path + ": not a readable file";
  if (state != ini::FileState::kRead) return false;
  token.assign(trim(std::string_view(text).substr(0, text.find('\n'))));
  if (token.empty()) {
    error = path + ": holds no token";
    return false;
  }
  return true;
}

bool fileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// Checks a finished section: what is written must make sense together.
bool checkSection(const ServerEntry& e, std::size_t line, std::string& error) {
  const auto fail = [&](const std::string& what) {
    error = "line " + std::to_string(line) + ": [" + e.name + "] " + what;
    return false;
  };
  if (!e.token.empty() && !e.tokenFile.empty()) return fail("has both token and token-file");
  if (!e.tlsName.empty() && e.caFile.empty()) return fail("has tls-name without ca");
  if (e.address.empty()) {
    std::string address;
    if (!parseAddress(e.name, address)) return fail("has no address and is no host name");
  }
  return true;
}

}  // namespace

bool parseClientConfig(std::string_view text, std::string_view folder,
                       std::vector<ServerEntry>& entries, std::string& error) {
  entries.clear();
  ini::Document document;
  if (!ini::parse(text, document, error)) return false;
  const auto failAt = [&](std::size_t line, const std::string& what) {
    error = "line " + std::to_string(line) + ": " + what;
    return false;
  };
  if (!document.sections[0].entries.empty()) {
    const ini::Entry& stray = document.sections[0].entries[0];
    return failAt(stray.line, "'" + stray.key + "' outside a [server] section");
  }
  for (std::size_t i = 1; i < document.sections.size(); ++i) {
    const ini::Section& section = document.sections[i];
    for (const ServerEntry& e : entries) {
      if (equalsIgnoringAsciiCase(e.name, section.name)) {
        return failAt(section.line, "[" + section.name + "] repeated");
      }
    }
    ServerEntry& e = entries.emplace_back();
    e.name = section.name;
    for (auto entry = section.entries.begin(); entry != section.entries.end(); ++entry) {
      const std::string& key = entry->key;
      const std::string_view value = entry->value;
      const auto fail = [&](const std::string& what) { return failAt(entry->line, what); };
      if (value.empty()) return fail("'" + key + "' has no value");
      for (auto earlier = section.entries.begin(); earlier != entry; ++earlier) {
        if (equalsIgnoringAsciiCase(earlier->key, key)) return fail("'" + key + "' repeated");
      }
      if (equalsIgnoringAsciiCase(key, "address")) {
        if (!parseAddress(value, e.address)) return fail("address is no host name or IP address");
      } else if (equalsIgnoringAsciiCase(key, "port")) {
        if (!parsePort(value, e.port)) return fail("port must be a number from 1 to 65535");
      } else if (equalsIgnoringAsciiCase(key, "ca")) {
        e.caFile = absolute(value, folder);
      } else if (equalsIgnoringAsciiCase(key, "tls-name")) {
        if (!parseAddress(value, e.tlsName)) return fail("tls-name is no host name");
      } else if (equalsIgnoringAsciiCase(key, "token")) {
        e.token.assign(value);
      } else if (equalsIgnoringAsciiCase(key, "token-file")) {
        e.tokenFile = absolute(value, folder);
      } else if (equalsIgnoringAsciiCase(key, "share-mount")) {
        e.shareMount = absolute(value, folder);
      } else {
        return fail("unknown key '" + key + "'");
      }
    }
    if (!checkSection(e, section.line, error)) return false;
  }
  return true;
}

bool findClientConfig(std::string& path, std::string& error) {
  path.clear();
  if (const char* env = std::getenv("MVCORE_CLIENT_CONF"); env != nullptr && *env != '\0') {
    // Named on purpose: a missing file is a mistake, not a reason to try the next place.
    if (!fileExists(env)) {
      error = std::string(env) + " ($MVCORE_CLIENT_CONF) does not exist";
      return false;
    }
    path = env;
    return true;
  }
  std::vector<std::string> places;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg == '/') {
    places.push_back(std::string(xdg) + "/mvcore/client.conf");
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    places.push_back(std::string(home) + "/.config/mvcore/client.conf");
  }
  places.emplace_back("/etc/mvcore/client.conf");
  for (const std::string& p : places) {
    if (fileExists(p)) {
      path = p;
      return true;
    }
  }
  return true;
}

bool parseHostPort(std::string_view text, std::string& address, uint16_t& port, bool& loopback) {
  loopback = false;
  port = kDefaultPort;
  std::string_view host = text;
  std::string_view portText;
  bool bracketed = false;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos) return false;
    host = text.substr(1, close - 1);
    const std::string_view rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') return false;
      portText = rest.substr(1);
      if (portText.empty()) return false;
    }
    bracketed = true;
  } else if (const std::size_t colon = text.find(':');
             colon != std::string_view::npos &&
             text.find(':', colon + 1) == std::string_view::npos) {
    host = text.substr(0, colon);
    portText = text.substr(colon + 1);
    if (portText.empty()) return false;
  }
  if (!portText.empty() && !parsePort(portText, port)) return false;
  address.assign(host);
  if (bracketed || address.find(':') != std::string::npos) {
    if (!isIpv6(address)) return false;
  } else if (!isIpv4(address) && !isHostName(address)) {
    return false;
  }
  loopback = isLoopback(address);
  return true;
}

int32_t resolveServer(std::string_view name, ServerEndpoint& endpoint, std::string& error) {
  endpoint = ServerEndpoint{};
  error.clear();
  std::string path;
  if (!findClientConfig(path, error)) return kStatusConfigUnreadable;
  if (!path.empty()) {
    std::string text;
    std::vector<ServerEntry> entries;
    const ini::FileState state = ini::readText(path, text, error);
    if (state == ini::FileState::kMissing) error = path + ": not a readable file";
    if (state != ini::FileState::kRead) return kStatusConfigUnreadable;
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    if (!parseClientConfig(text, folder, entries, error)) {
      error = path + ": " + error;
      return kStatusConfigUnreadable;
    }
    for (const ServerEntry& e : entries) {
      if (!equalsIgnoringAsciiCase(e.name, name)) continue;
      if (e.address.empty()) {
        parseAddress(e.name, endpoint.address);
      } else {
        endpoint.address = e.address;
      }
      endpoint.port = e.port;
      endpoint.caFile = e.caFile;
      endpoint.tlsName = e.tlsName;
      endpoint.token = e.token;
      endpoint.shareMount = e.shareMount;
      if (!e.tokenFile.empty() && !readToken(e.tokenFile, endpoint.token, error)) {
        return kStatusConfigUnreadable;
      }
      return 0;
    }
  }
  bool loopback = false;
  if (!parseHostPort(name, endpoint.address, endpoint.port, loopback)) {
    error = "'" + std::string(name) + "' is neither a configured server nor host:port";
    return kStatusClassNotRegistered;
  }
  if (!loopback) {
    error = "'" + std::string(name) + "' is not configured; only loopback needs no configuration";
    return kStatusClassNotRegistered;
  }
  return 0;
}

}  // namespace mv::rpc
