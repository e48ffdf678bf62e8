// The link to the server: making it, the stack of two servers, dropping it, and the last error.
#include "frame/connection.h"

#include <exception>

#include "frame/exchange.h"
#include "platform/codepage.h"

namespace mv {

namespace {

std::string& folder() {
  static std::string f;
  return f;
}

// The entry's factory, and the one in use: a test's own or the entry's.
struct Factories {
  ServerFactory installed;
  ServerFactory current;
};

Factories& factories() {
  static Factories f;
  return f;
}

int32_t makeLink(std::string_view host, IBookServer** server) {
  *server = nullptr;
  const ServerFactory& f = factories().current;
  return f ? f(host, server) : kStatusClassNotRegistered;
}

}  // namespace

ConnectionState& connection() {
  static ConnectionState state;
  return state;
}

ServerFactory setServerFactory(ServerFactory f) {
  Factories& all = factories();
  ServerFactory previous = std::move(all.current);
  all.current = f ? std::move(f) : all.installed;
  return previous;
}

void setDefaultServerFactory(ServerFactory f) {
  Factories& all = factories();
  all.installed = std::move(f);
  all.current = all.installed;
}

const std::string& dataFolder() { return folder(); }

void resetConnectionState() { connection() = ConnectionState{}; }

}  // namespace mv

using mv::connection;
using mv::failed;

extern "C" {

MVAPI int MVInit(const char* serverName) {
  if (serverName == nullptr) return -1;
  mv::IBookServer* server = nullptr;
  int32_t status = mv::makeLink(serverName, &server);
  if (status == 0 && server == nullptr) status = mv::kStatusNoInterface;
  if (status != 0) {
    connection().lastError = status;
    return -1;
  }
  // A standing link is overwritten, not released: applications call MVInit once.
  connection().currentServer = server;
  return 0;
}

MVAPI int MVChangeServer(const char* serverName) {
  auto& c = connection();
  if (c.currentServer == nullptr || serverName == nullptr) return -1;
  c.homeServer = c.currentServer;
  c.currentServer = nullptr;
  return MVInit(serverName);
}

MVAPI int MVResetServer(void) {
  auto& c = connection();
  if (c.homeServer == nullptr || c.currentServer == nullptr) return -1;
  mv::IBookServer* changed = c.currentServer;
  c.currentServer = c.homeServer;
  c.homeServer = nullptr;
  try {
    changed->Release();
  } catch (...) {  // a proxy whose peer is gone may throw; the home link is back either way
  }
  return 0;
}

MVAPI int MVExit(void) {
  auto& c = connection();
  if (c.currentServer == nullptr) return -1;
  // The pointer is forgotten, so that a late call fails with -1 instead of reaching a released
  // object. A changed-to server's home stays for MVResetServer to deal with.
  mv::IBookServer* server = c.currentServer;
  c.currentServer = nullptr;
  try {
    server->Release();
  } catch (...) {  // a dead server cannot fail the exit
  }
  return 0;
}

MVAPI int MVGetServerInfo(char* info) {
  auto* server = connection().currentServer;
  if (server == nullptr || info == nullptr) return -1;
  mv::Bstr text;
  if (failed(server->GetServerInfo(text.out()))) return -1;
  mv::copyToField(info, mv::kTextBuffer, mv::toAnsi(text.get()));
  return 0;
}

MVAPI int MVConnectCheck(void) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr) return -1;
  if (failed(c.currentServer->ConnectCheck())) return -1;
  if (c.homeServer != nullptr && failed(c.homeServer->ConnectCheck())) return -1;
  return 0;
}

MVAPI int MVGetConnect(int32_t* first, int32_t* second) {
  auto* server = connection().currentServer;
  if (server == nullptr || first == nullptr || second == nullptr) return -1;
  if (failed(server->GetConnect(first, second))) {
    *first = 0;
    *second = 0;
    return -1;
  }
  return 0;
}

MVAPI int MVGetOption(int32_t* first, int32_t* second, int32_t* third, int32_t* fourth) {
  (void)third;  // part of the interface, never touched
  auto* server = connection().currentServer;
  if (server == nullptr || first == nullptr || second == nullptr || fourth == nullptr) return -1;
  mv::Bstr text;
  int32_t a = 0;
  int32_t b = 0;
  if (failed(server->GetOption(0, text.out(), &a, &b))) return -1;
  *first = b;
  *second = a;
  a = 0;
  // The second query's status is deliberately ignored: *fourth takes whatever it left in `a`.
  (void)server->GetOption(0x63, text.out(), &a, &b);
  *fourth = a;
  return 0;
}

MVAPI int MVGetLastError(char* message) {
  auto& c = connection();
  const int result = c.lastError;
  if (c.currentServer != nullptr && message != nullptr) {
    mv::Bstr text;
    (void)c.currentServer->GetLastError(text.out());
    if (!text.empty()) mv::copyToField(message, mv::kTextBuffer, mv::toAnsi(text.get()));
  }
  return result;
}

MVAPI int MVSetDataFolder(const char* folder) {
  if (folder == nullptr) return -1;
  mv::folder() = folder;
  return 0;
}

MVAPI int MVGetLastErrorImage(void) { return connection().lastImageError; }

MVAPI int MVSetMutex(const char* name, int32_t op) {
  auto& c = connection();
  c.lastError = 0;
  if (c.currentServer == nullptr || name == nullptr) return -1;
  const int32_t result = c.currentServer->SetMutex(mv::toWide(name).get(), op);
  // Only the documented answers are handed on; anything else is a plain failure and, unlike
  // other server statuses, is not stored.
  return result >= -1 && result <= 2 ? result : -1;
}

}  // extern "C"
