// What a client reaches first on a connection: login(token) hands out a BookServer capability,
// a session of its own. A daemon without tokens takes any token; one with tokens refuses an
// unknown token after a delay, one refusal at a time per connection, so that guessing is slow.
#pragma once

#include <kj/timer.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "frame/IBookServer.h"
#include "rpc/book_server.capnp.h"
#include "server/core/server_core.h"

namespace mv::rpc {

// The tokens a daemon accepts; empty accepts any.
class Tokens {
 public:
  Tokens() = default;
  explicit Tokens(std::vector<std::string> tokens) : tokens_(std::move(tokens)) {}

  bool required() const { return !tokens_.empty(); }
  // Compares with every token in full, so the time taken tells nothing of how close a guess was.
  bool accepts(std::string_view token) const;

 private:
  std::vector<std::string> tokens_;
};

// Reads a token file: one token per line; blanks around a token, empty lines and lines starting
// with '#' do not count. False with `error` when it cannot be read or holds no token.
bool loadTokens(const std::string& path, std::vector<std::string>& tokens, std::string& error);

using LogFn = std::function<void(const std::string&)>;

// Cap'n Proto's servers have no virtual destructor: kj::heap's owner deletes them as what they
// are, never through a base pointer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class GateServer final : public ::Gate::Server {
 public:
  struct Shared {
    std::shared_ptr<server::ServerCore> core;
    // Makes a logged-on client's session; unset, a session of `core`'s server.
    std::function<IBookServer*()> sessions;
    std::shared_ptr<const Tokens> tokens;
    kj::Duration refusalDelay = 1 * kj::SECONDS;
    LogFn log;
  };
#pragma GCC diagnostic pop
  // `loggedIn` (the connection's, outliving the gate) is set by the first accepted login.
  GateServer(const Shared& shared, kj::Timer& timer, std::string peer, bool* loggedIn);

 protected:
  kj::Promise<void> login(LoginContext context) override;

 private:
  kj::Promise<void> answer(LoginContext context);

  const Shared& shared_;
  kj::Timer& timer_;
  std::string peer_;
  bool* loggedIn_;
  // Logins of this connection run one at a time, behind any refusal's delay.
  kj::ForkedPromise<void> previous_;
};

}  // namespace mv::rpc
