// The daemon's end of the wire: one BookServer capability per login, holding that client's own
// server session. A capability lives on its connection's thread, and so does the session: calls
// of one connection run one after the other, so the session needs no lock of its own. When the
// client lets the capability go, or its connection ends, the session ends with everything it
// holds (handles, open databases, mutexes, logons).
//
// Every call is checked against the method table before the session sees it, and dispatched
// through the table: there is no code here for any one method.
#pragma once

#include <cstdint>
#include <memory>

#include "frame/IBookServer.h"
#include "platform/file_system.h"
#include "rpc/book_server.capnp.h"

namespace mv::rpc {

// Rows answered inline stop once their texts pass this many bytes, whatever the client asked
// for, so that no answer nears the receiving side's message limit; the client asks again.
inline constexpr std::size_t kRowBytesPerAnswer = std::size_t{8} * 1024 * 1024;

// Cap'n Proto's servers have no virtual destructor: kj::heap's owner deletes them as what they
// are, never through a base pointer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class BookServerStub final : public ::BookServer::Server {
 public:
  // Takes over the caller's reference to `session`; `files` serves its share folders (null:
  // none).
  explicit BookServerStub(IBookServer* session, std::shared_ptr<fs::FileSystem> files = nullptr);
  ~BookServerStub();
  BookServerStub(const BookServerStub&) = delete;
  BookServerStub& operator=(const BookServerStub&) = delete;

 protected:
  kj::Promise<void> call(CallContext context) override;
  kj::Promise<void> files(FilesContext context) override;

 private:
  struct Release {
    void operator()(IBookServer* s) const { s->Release(); }
  };
  std::unique_ptr<IBookServer, Release> session_;
  std::shared_ptr<fs::FileSystem> files_;
};
#pragma GCC diagnostic pop

}  // namespace mv::rpc
