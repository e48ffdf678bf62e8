#include "rpc/gate.h"

#include <kj/debug.h>

#include <fstream>

#include "frame/server_methods.h"
#include "platform/text.h"
#include "rpc/book_server_stub.h"
#include "rpc/convert.h"
#include "server/core/book_server.h"

namespace mv::rpc {

namespace {

// Equal texts, in time that depends on the guess's length only.
bool sameText(std::string_view guess, std::string_view token) {
  unsigned diff = guess.size() != token.size() ? 1u : 0u;
  for (std::size_t i = 0; i < guess.size(); ++i) {
    const char t = i < token.size() ? token[i] : '\0';
    diff |= static_cast<unsigned char>(guess[i] ^ t);
  }
  return diff == 0;
}

}  // namespace

bool Tokens::accepts(std::string_view token) const {
  bool found = false;
  for (const std::string& t : tokens_) found |= sameText(token, t);
  return found;
}

bool loadTokens(const std::string& path, std::vector<std::string>& tokens, std::string& error) {
  std::ifstream file(path);
  if (!file) {
    error = "cannot read the token file " + path;
    return false;
  }
  tokens.clear();
  std::string line;
  while (std::getline(file, line)) {
    const std::string_view t = trim(line);
    if (!t.empty() && t.front() != '#') tokens.emplace_back(t);
  }
  if (file.bad()) {
    error = "cannot read the token file " + path;
    return false;
  }
  if (tokens.empty()) {
    error = "the token file " + path + " holds no token";
    return false;
  }
  return true;
}

GateServer::GateServer(const Shared& shared, kj::Timer& timer, std::string peer, bool* loggedIn)
    : shared_(shared),
      timer_(timer),
      peer_(std::move(peer)),
      loggedIn_(loggedIn),
      previous_(kj::Promise<void>(kj::READY_NOW).fork()) {}

kj::Promise<void> GateServer::login(LoginContext context) {
  auto turn = previous_.addBranch().then([this, context]() mutable { return answer(context); });
  auto forked = turn.fork();
  // A refusal breaks this login only; the next one waits for it, then runs.
  previous_ = forked.addBranch().catch_([](kj::Exception&&) {}).fork();
  return forked.addBranch();
}

kj::Promise<void> GateServer::answer(LoginContext context) {
  const auto params = context.getParams();
  const auto token = params.getToken();
  if (!shared_.tokens || !shared_.tokens->required() ||
      shared_.tokens->accepts(std::string_view(token.cStr(), token.size()))) {
    auto results = context.getResults();
    results.setWire(kWireFormat);
    results.setMethods(serverMethodsSignature());
    if (params.getWire() != kWireFormat || params.getMethods() != serverMethodsSignature()) {
      const std::string why =
          "the client speaks " + describeWire(params.getWire(), params.getMethods()) +
          ", this daemon " + describeWire(kWireFormat, serverMethodsSignature());
      if (shared_.log) shared_.log("login refused for " + peer_ + ": " + why);
      // A client from before the wire had versions cannot read the answer's; it is told why in
      // the exception. A later one reads the versions and reports them itself.
      if (params.getWire() == 0) kj::throwFatalException(KJ_EXCEPTION(FAILED, why.c_str()));
      return kj::READY_NOW;
    }
    IBookServer* session =
        shared_.sessions ? shared_.sessions() : new server::BookServer(shared_.core);
    std::shared_ptr<fs::FileSystem> files;
    if (const auto* own = dynamic_cast<server::BookServer*>(session)) files = own->shareFiles();
    results.setServer(kj::heap<BookServerStub>(session, std::move(files)));
    *loggedIn_ = true;
    if (shared_.log) {
      shared_.log("login from " + peer_ + " (" + std::to_string(shared_.core->liveSessions()) +
                  " sessions)");
    }
    return kj::READY_NOW;
  }
  if (shared_.log) shared_.log("login refused for " + peer_ + ": unknown token");
  return timer_.afterDelay(shared_.refusalDelay).then([]() {
    kj::throwFatalException(KJ_EXCEPTION(FAILED, "login refused"));
  });
}

}  // namespace mv::rpc
