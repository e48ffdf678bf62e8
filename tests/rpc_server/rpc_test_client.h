// A raw Cap'n Proto client of bookserverd for the tests, written apart from the library's proxy:
// its own UTF-16LE encoding, its own connection set-up, waits that give up.
#pragma once

#include <capnp/rpc-twoparty.h>
#include <gtest/gtest.h>
#include <kj/async-io.h>
#include <kj/compat/tls.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "rpc/book_server.capnp.h"

namespace mvtest::rpc {

inline constexpr char kSystemDb[] = "MarvekSystemCommonDB";
inline constexpr int32_t kMissingDatabase = 0x8A;
inline constexpr int32_t kNoRow = 0x1006;
inline constexpr int32_t kBadHandle = 0x1005;
inline constexpr int32_t kLogonRefused = 0x100D;

// A text as the wire carries it: UTF-16LE bytes of a UTF-8 literal.
class U16 {
 public:
  explicit U16(std::string_view utf8Text);
  operator capnp::Data::Reader() const { return {bytes_.data(), bytes_.size()}; }

 private:
  std::vector<capnp::byte> bytes_;
};
// The UTF-8 text of UTF-16LE bytes.
std::string text(capnp::Data::Reader bytes);

// "KEY=" name TAB typecode TAB value.
std::string field(std::string_view name, int typecode, std::string_view value);
// A row's column value by name; "<none>" when it has no such column.
std::string valueIn(const std::vector<std::string>& row, std::string_view name);

// One event loop for a test's clients.
class Wire {
 public:
  Wire();
  // Test fixtures hold one; their destructors may not throw.
  ~Wire() noexcept;
  kj::WaitScope& scope() { return io_.waitScope; }
  kj::Timer& timer() { return io_.provider->getTimer(); }
  kj::AsyncIoContext& io() { return io_; }

  // Waits for a promise; throws (and so fails the test) when it takes longer than `limit`.
  template <typename T>
  T wait(kj::Promise<T>&& promise, kj::Duration limit = 30 * kj::SECONDS) {
    return timer().timeoutAfter(limit, kj::mv(promise)).wait(io_.waitScope);
  }
  void sleep(kj::Duration d) { timer().afterDelay(d).wait(io_.waitScope); }

 private:
  kj::AsyncIoContext io_;
};

// One connection to 127.0.0.1:port, plain or TLS (trusting `certPem`, for the name localhost).
class Client {
 public:
  Client(Wire& wire, uint16_t port, const std::string& certPem = {});
  ~Client() noexcept;

  Gate::Client gate();
  // A session; an empty capability that fails on use when the login is refused. The wire and
  // method signature default to the library's own.
  BookServer::Client login(const std::string& token = "any");
  capnp::Response<Gate::LoginResults> loginAs(const std::string& token, uint32_t wire,
                                              uint64_t methods);
  // Drops the connection as a vanished client would.
  void disconnect();
  // Resolves when the daemon closes the connection.
  kj::Promise<void> onDisconnect();

 private:
  Wire& wire_;
  kj::Own<kj::TlsContext> tls_;
  kj::Own<kj::AsyncIoStream> stream_;
  kj::Own<capnp::TwoPartyClient> rpc_;
};

// One argument of a raw call: absent, an integer, a text (UTF-8 here) or texts.
using RawArg = std::variant<std::monostate, int32_t, std::string, std::vector<std::string>>;
using Answer = capnp::Response<BookServer::CallResults>;
// Sends method `number` with `args`, asking for up to `rows` rows.
Answer call(Wire& wire, BookServer::Client& s, int32_t number, const std::vector<RawArg>& args,
            uint32_t rows = 0);
// An answer's rows as element texts.
std::vector<std::vector<std::string>> rowsOf(const Answer& a);

// Helpers over a session, failing the test on an unexpected shape.
struct Opened {
  int32_t status = -1;
  int32_t rowCount = -1;
  std::string handle;
  std::vector<std::vector<std::string>> rows;  // each row's element texts
};
Opened openTable(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view table,
                 uint32_t prefetch);
Opened executeQuery(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view sql,
                    uint32_t prefetch);
// GetRecords from `rowIndex`, up to `count` rows.
Answer getRecords(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view handle,
                  int32_t rowIndex, uint32_t count);
int32_t openDatabase(Wire& wire, BookServer::Client& s, std::string_view db, int32_t mode);
int32_t addRecord(Wire& wire, BookServer::Client& s, std::string_view db, std::string_view handle,
                  const std::vector<std::string>& fields, int32_t* newIndex);
int32_t setMutex(Wire& wire, BookServer::Client& s, std::string_view name, int32_t op);

}  // namespace mvtest::rpc
