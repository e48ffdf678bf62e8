#include "rpc/remote_book_server.h"

#include <algorithm>
#include <climits>
#include <deque>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/utf.h"
#include "rpc/convert.h"
#include "rpc/remote_files.h"

namespace mv::rpc {

namespace {

using Answer = capnp::Response<BookServer::CallResults>;

std::string key(capnp::Data::Reader bytes) {
  return std::string(reinterpret_cast<const char*>(bytes.begin()), bytes.size());
}

std::string key(BSTR text) { return key(bytesOf(text)); }

template <typename T>
T argAt(std::span<const ArgRef> args, std::size_t i) {
  return std::get<T>(args[i]);
}

// The handles a record's "TABLENAME=" elements name.
template <typename Each>
void namedHandles(const VARIANT* record, Each&& each) {
  static constexpr std::u16string_view kPrefix = u"TABLENAME=";
  for (uint32_t i = 0; i < textCount(record); ++i) {
    const BSTR text = textAt(record, i);
    const std::u16string_view view(text != nullptr ? text : u"", MVSysStringLen(text));
    if (view.starts_with(kPrefix))
      each(key(bytesOf(text).slice(kPrefix.size() * 2, view.size() * 2)));
  }
}

// Argument places of the row and block readers (see their flags in server_methods.h).
enum : std::size_t { kDb = 0, kHandle = 1, kRowIndex = 2, kRow = 3 };
enum : std::size_t { kColumn = 2, kBlockRow = 3, kBlockNo = 4, kBlockSize = 5, kBlock = 6 };
enum : std::size_t { kIsEnd = 7 };

void buildRequest(BookServer::CallParams::Builder q, const ServerMethod& method,
                  std::span<const ArgRef> args, uint32_t rows) {
  q.setMethod(method.number);
  q.setRows(rows);
  int32_t goodBytes = 0;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (method.args[i] == ArgKind::GoodBytes) goodBytes = std::get<int32_t>(args[i]);
  }
  auto list = q.initArgs(static_cast<unsigned>(args.size()));
  for (std::size_t i = 0; i < args.size(); ++i) {
    encodeIn(method.args[i], args[i], goodBytes, list[static_cast<unsigned>(i)]);
  }
}

}  // namespace

struct RemoteBookServer::Held {
  // Rows of one handle from an answer: `rows` are rows first, first + 1, ... of the result.
  // They are copied out of the answer so the answer can be released at once (the daemon keeps
  // an answer until the client lets go of it).
  struct Batch {
    std::string db;
    int32_t first = 0;
    std::unique_ptr<capnp::MallocMessageBuilder> message;
    capnp::List<Row>::Reader rows;
  };

  // One block asked for before the library asked for it. Its answer, or why none came, is kept
  // as it arrives for the DownLoadData call that asks for the block.
  struct Ahead {
    int32_t blockNo = 0;
    kj::Maybe<Answer> answer;
    kj::Maybe<kj::Exception> error;
    kj::Promise<void> arrival = nullptr;  // last: it goes before what it writes to

    // Whether nothing after this block is worth asking for: the data ended here, or the block
    // failed (the library stops at a failure too).
    bool closes() const {
      if (error != nullptr) return true;
      KJ_IF_MAYBE (a, answer) {
        return ends(*a);
      }
      return false;
    }
  };

  // The download being read ahead: the library last asked for block `asked` of it, and blocks
  // asked + 1 .. sent are on their way, in order, in `pending`.
  struct Download {
    std::string db, handle, column;
    int32_t rowIndex = 0;
    int32_t blockSize = 0;
    int32_t asked = 0;
    int32_t sent = 0;
    bool closed = false;  // an answer that ends the data or fails has come: nothing more is sent
    std::deque<std::unique_ptr<Ahead>> pending;
  };

  // Whether an answer to a block ends the data: a failure, no array, or the end flag.
  static bool ends(BookServer::CallResults::Reader r) {
    const auto args = r.getArgs();
    return r.getStatus() != 0 || args.size() <= kIsEnd || args[kBlock].isAbsent() ||
           (args[kIsEnd].isInt() && args[kIsEnd].getInt() == 1);
  }

  std::unordered_map<std::string, Batch> batches;
  std::unique_ptr<Download> download;

  void forgetAll(BlockBuffers& buffers) {
    batches.clear();
    endDownload(buffers);
  }

  void endDownload(BlockBuffers& buffers) {
    download.reset();
    buffers.close();
  }

  void keepRows(std::string handle, BSTR db, int32_t first, capnp::List<Row>::Reader rows) {
    if (rows.size() == 0) {
      batches.erase(handle);
      return;
    }
    Batch b;
    b.db = key(db);
    b.first = first;
    b.message = std::make_unique<capnp::MallocMessageBuilder>(
        static_cast<unsigned>(std::min<uint64_t>(rows.totalSize().wordCount + 8, 1u << 26)));
    auto root = b.message->initRoot<BookServer::CallResults>();
    root.setRows(rows);
    b.rows = root.asReader().getRows();
    batches.insert_or_assign(std::move(handle), std::move(b));
  }

  // Serves a row from the handle's batch; false when the batch does not hold it.
  bool serve(const std::string& handle, BSTR db, int32_t rowIndex, VARIANT* row, int32_t& status) {
    const auto it = batches.find(handle);
    if (it == batches.end()) return false;
    const Batch& b = it->second;
    if (b.db != key(db) || rowIndex < b.first ||
        static_cast<int64_t>(rowIndex) - b.first >= static_cast<int64_t>(b.rows.size())) {
      return false;
    }
    status =
        setRow(row, b.rows[static_cast<unsigned>(rowIndex - b.first)]) ? 0 : kStatusOutOfMemory;
    return true;
  }

  // Whether the library's call asks for exactly the block that comes next in the download
  // being read ahead.
  bool follows(std::span<const ArgRef> args) const {
    if (!download || download->pending.empty()) return false;
    const Download& d = *download;
    return d.pending.front()->blockNo == argAt<int32_t>(args, kBlockNo) &&
           d.rowIndex == argAt<int32_t>(args, kBlockRow) &&
           d.blockSize == argAt<int32_t>(args, kBlockSize) &&
           d.handle == key(argAt<BSTR>(args, kHandle)) &&
           d.column == key(argAt<BSTR>(args, kColumn)) && d.db == key(argAt<BSTR>(args, kDb));
  }
};

RemoteBookServer::RemoteBookServer(const ServerEndpoint& endpoint, const RemoteOptions& options)
    : options_(options),
      shareMount_(endpoint.shareMount),
      link_(endpoint, options.connectTimeoutMs),
      held_(std::make_unique<Held>()) {}

RemoteBookServer::~RemoteBookServer() {
  QuietKj quiet;
  if (attachment_ != 0) fs::detach(attachment_);
  if (files_ != nullptr) disconnectRemoteFiles(*files_);
  try {
    held_.reset();
  } catch (...) {  // cancelling requests on a broken link may complain; it is going away
  }
  link_.shutdown();
}

void RemoteBookServer::Release() { delete this; }

void RemoteBookServer::adoptSharePaths(const ServerMethod& method, std::span<const ArgRef> args) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (method.args[i] != ArgKind::TextOut) continue;
    BSTR* out = std::get<BSTR*>(args[i]);
    if (out == nullptr || *out == nullptr) continue;
    const std::string path = bstrToUtf8(*out);
    const std::string_view server = fs::shareServer(path);
    if (server.empty()) continue;
    if (!shareMount_.empty()) {
      // "\\server\share\rest" is "<mount>\share\rest" on this machine.
      MVSysFreeString(*out);
      *out = utf8ToBstr(shareMount_ + path.substr(2 + server.size()));
      continue;
    }
    // Attached anew each time, so that the session that opened a share last is the one its
    // paths reach, also when another link to the same server opened one in between.
    if (files_ == nullptr) files_ = makeRemoteFiles(link_);
    if (attachment_ != 0) fs::detach(attachment_);
    attachment_ = fs::attach(server, files_);
  }
}

int32_t RemoteBookServer::forward(const ServerMethod& method, std::span<const ArgRef> args) {
  QuietKj quiet;
  Held& h = *held_;
  try {
    // Whatever this call is, unless it asks for the next block, the library has stopped reading
    // the download ahead of it.
    if ((method.flags & kReadsAhead) == 0 || !h.follows(args)) h.endDownload(link_.buffers());
    // What is held is only as good as the link: a caller must learn of a lost server on the
    // next call whatever it asks for.
    if (!link_.ready()) {
      h.forgetAll(link_.buffers());
      return kStatusServerUnavailable;
    }
    if ((method.flags & kForgetsAllRows) != 0) h.batches.clear();
    for (std::size_t i = 0; i < args.size(); ++i) {
      const ArgKind kind = method.args[i];
      if (kind == ArgKind::Handle && (method.flags & (kReadsRows | kReadsAhead)) == 0) {
        h.batches.erase(key(std::get<BSTR>(args[i])));
      }
      if (kind == ArgKind::Record) {
        namedHandles(std::get<VARIANT*>(args[i]),
                     [&](const std::string& k) { h.batches.erase(k); });
      }
    }
    if ((method.flags & kReadsRows) != 0) {
      int32_t status = 0;
      if (h.serve(key(argAt<BSTR>(args, kHandle)), argAt<BSTR>(args, kDb),
                  argAt<int32_t>(args, kRowIndex), argAt<VARIANT*>(args, kRow), status)) {
        return status;
      }
      return send(method, args, std::max<uint32_t>(options_.refill, 1));
    }
    if ((method.flags & kReadsAhead) != 0) return downLoad(method, args);
    const int32_t status = send(method, args, options_.prefetch);
    if (status == 0 && (method.flags & kAnswersSharePath) != 0) adoptSharePaths(method, args);
    return status;
  } catch (const kj::Exception& e) {
    link_.failed(e);
    if (link_.broken()) h.forgetAll(link_.buffers());
    return kStatusCallFailed;
  } catch (const std::bad_alloc&) {
    return kStatusOutOfMemory;
  }
}

int32_t RemoteBookServer::send(const ServerMethod& method, std::span<const ArgRef> args,
                               uint32_t rows) {
  BookServer::Client* server = link_.server();
  if (server == nullptr) return kStatusServerUnavailable;
  auto request = server->callRequest();
  buildRequest(request, method, args, rows);
  auto answer = request.send().wait(link_.waitScope());
  return read(method, args, answer);
}

int32_t RemoteBookServer::read(const ServerMethod& method, std::span<const ArgRef> args,
                               BookServer::CallResults::Reader answer) {
  const int32_t status = answer.getStatus();
  const auto back = answer.getArgs();
  // A daemon that refuses a call answers its status alone.
  if (status != 0 && back.size() == 0) return status;
  if (back.size() != args.size()) return kStatusBadArguments;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (!fits(method.args[i], back[static_cast<unsigned>(i)], false)) return kStatusBadArguments;
  }
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (!decodeOut(method.args[i], back[static_cast<unsigned>(i)], args[i], status == 0)) {
      return kStatusOutOfMemory;
    }
  }
  Held& h = *held_;
  if ((method.flags & kReadsRows) != 0) {
    const std::string handle = key(argAt<BSTR>(args, kHandle));
    if (status != 0) {
      h.batches.erase(handle);
      return status;
    }
    const auto rows = answer.getRows();
    if (rows.size() == 0) return kStatusCallFailed;  // a success must carry its row
    if (!setRow(argAt<VARIANT*>(args, kRow), rows[0])) return kStatusOutOfMemory;
    h.keepRows(handle, argAt<BSTR>(args, kDb), argAt<int32_t>(args, kRowIndex), rows);
    return 0;
  }
  for (std::size_t i = 0; status == 0 && i < args.size(); ++i) {
    if (method.args[i] != ArgKind::HandleOut) continue;
    if (BSTR* handle = std::get<BSTR*>(args[i])) {
      h.keepRows(key(*handle), argAt<BSTR>(args, kDb), 0, answer.getRows());
    }
  }
  return status;
}

int32_t RemoteBookServer::downLoad(const ServerMethod& method, std::span<const ArgRef> args) {
  Held& h = *held_;
  BlockBuffers& buffers = link_.buffers();
  const auto requestAhead = [&] {
    Held::Download& d = *h.download;
    for (const auto& a : d.pending) d.closed = d.closed || a->closes();
    BookServer::Client* server = link_.server();
    if (server == nullptr) return;
    const int64_t limit =
        std::min<int64_t>(int64_t{d.asked} + options_.readAhead, int64_t{INT32_MAX});
    std::vector<ArgRef> next(args.begin(), args.end());
    while (!d.closed && d.sent < limit) {
      next[kBlockNo] = d.sent + 1;
      auto q = server->callRequest();
      buildRequest(q, method, next, 0);
      auto a = std::make_unique<Held::Ahead>();
      a->blockNo = d.sent + 1;
      Held::Ahead* at = a.get();
      a->arrival = q.send()
                       .then([at](Answer&& r) { at->answer = kj::mv(r); },
                             [at](kj::Exception&& e) { at->error = kj::mv(e); })
                       .eagerlyEvaluate(nullptr);
      d.pending.push_back(std::move(a));
      ++d.sent;
    }
  };

  if (h.follows(args)) {
    Held::Download& d = *h.download;
    const std::unique_ptr<Held::Ahead> a = std::move(d.pending.front());
    d.pending.pop_front();
    d.asked = argAt<int32_t>(args, kBlockNo);
    d.closed = d.closed || a->closes();
    // The next request goes out before this block is waited for, so the daemon always has one
    // to work on.
    requestAhead();
    // Waiting for a block that is already here need not turn the loop, which writes it.
    link_.waitScope().poll();
    a->arrival.wait(link_.waitScope());
    KJ_IF_MAYBE (e, a->error) {
      h.endDownload(buffers);
      throw kj::mv(*e);
    }
    KJ_IF_MAYBE (r, a->answer) {
      if (r->getStatus() == 0 && Held::ends(*r)) {
        // The rest was asked for past the end; nobody will ask for it.
        h.endDownload(buffers);
      } else if (a->closes()) {
        // A failed block asks for nothing more, but what is on its way may still be asked for.
        h.download->closed = true;
      }
      return read(method, args, *r);
    }
    h.endDownload(buffers);  // not reached: `arrival` resolves only once one of the two is set
    return kStatusCallFailed;
  }

  BookServer::Client* server = link_.server();
  if (server == nullptr) return kStatusServerUnavailable;
  auto request = server->callRequest();
  buildRequest(request, method, args, 0);
  auto answer = request.send().wait(link_.waitScope());
  const int32_t status = read(method, args, answer);
  const int32_t blockNo = argAt<int32_t>(args, kBlockNo);
  // A blob that fits one block, or a failure, costs no requests beyond this one.
  if (status != 0 || Held::ends(answer) || options_.readAhead == 0 || blockNo >= INT32_MAX) {
    return status;
  }
  try {
    auto d = std::make_unique<Held::Download>();
    d->db = key(argAt<BSTR>(args, kDb));
    d->handle = key(argAt<BSTR>(args, kHandle));
    d->column = key(argAt<BSTR>(args, kColumn));
    d->rowIndex = argAt<int32_t>(args, kBlockRow);
    d->blockSize = argAt<int32_t>(args, kBlockSize);
    d->asked = blockNo;
    d->sent = blockNo;
    h.download = std::move(d);
    // Room for a block and its answer's framing.
    buffers.open(
        static_cast<std::size_t>(std::max(h.download->blockSize, 0)) / sizeof(capnp::word) + 256,
        std::size_t{options_.readAhead} + 2);
    requestAhead();
    // Out now rather than at the next call: the daemon works while the library stores this
    // block.
    link_.waitScope().poll();
  } catch (...) {  // a read-ahead that could not start changes nothing: the next call asks
    try {
      h.endDownload(buffers);
    } catch (...) {  // nothing more to undo
    }
  }
  return status;
}

// --- making the link ---------------------------------------------------------------------------

namespace {

std::string& connectError() {
  thread_local std::string text;
  return text;
}

}  // namespace

const std::string& lastConnectError() { return connectError(); }

int32_t connectRemote(const ServerEndpoint& endpoint, const RemoteOptions& options,
                      IBookServer** server) {
  if (server == nullptr) return kStatusCallFailed;
  *server = nullptr;
  RemoteBookServer* remote = nullptr;
  try {
    remote = new RemoteBookServer(endpoint, options);
  } catch (const std::bad_alloc&) {
    return kStatusOutOfMemory;
  }
  const int32_t status = remote->connect(connectError());
  if (status != 0) {
    remote->Release();
    return status;
  }
  connectError().clear();
  *server = remote;
  return 0;
}

int32_t connectRemote(std::string_view host, IBookServer** server) {
  if (server == nullptr) return kStatusCallFailed;
  *server = nullptr;
  ServerEndpoint endpoint;
  const int32_t status = resolveServer(host, endpoint, connectError());
  if (status != 0) return status;
  return connectRemote(endpoint, RemoteOptions{}, server);
}

}  // namespace mv::rpc
