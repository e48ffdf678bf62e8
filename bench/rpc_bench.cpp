// What the network costs: each remote measurement runs next to a baseline on the same loopback,
// so the output reads as "this much of the time is the wire itself, the rest is ours".
//
//   BM_SmallCall/...   ConnectCheck through RemoteBookServer against a TCP ping-pong of the same
//                      number of bytes as one ConnectCheck puts on the wire (measured from the
//                      kernel's byte counters of the proxy's socket before the first run)
//   BM_ReadRows/...    OpenTable, GetRecords of each of 10,000 rows, CloseTable: embedded, remote
//   BM_Blob100MB/...   100 MB up and down in 307,200-byte blocks, against one thread copying the
//                      same bytes to another over a plain socket in writes of the same size
//
//   mvcore_rpc_bench [--benchmark_filter=...]
//
// MB here is 2^20 bytes, as in the blob bench. One bookserverd is started for the whole run on a
// data folder of its own (the embedded server has another: each holds its folder's lock), and is
// stopped with SIGTERM at the end, or by the kernel should this process die first.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "floors.h"
#include "frame/blocks.h"
#include "frame/exchange.h"
#include "platform/files.h"
#include "rpc/remote_book_server.h"
#include "server/core/book_server.h"
#include "server/sqlite/sqlite_engine.h"

namespace {

namespace stdfs = std::filesystem;
using namespace std::chrono_literals;

constexpr char kSystemDb[] = "MarvekSystemCommonDB";
constexpr char kRowTable[] = "CommonTBL";
constexpr int32_t kRows = 10000;
constexpr char kBook[] = "BOOK1123000001";
constexpr int64_t kBlobBytes = 100ll << 20;
constexpr int kBlobIterations = 3;
// Used only when the proxy's socket cannot be found to measure it. Counted from the message
// layouts: a Call for a method without parameters is 112 bytes with its frame header (an empty
// cap table is left null), and the Finish that follows each answer 40.
constexpr int kEstimatedCallBytes = 152;
constexpr int kSizeProbeCalls = 2000;
// Every blocking socket operation gives up after this, so no run can hang on a lost peer.
constexpr int kSocketTimeoutSeconds = 20;

bool anyFailed = false;

void fail(benchmark::State& state, const std::string& why) {
  anyFailed = true;
  state.SkipWithError(why.c_str());
}

struct Releaser {
  void operator()(mv::IBookServer* s) const { s->Release(); }
};
using ServerPtr = std::unique_ptr<mv::IBookServer, Releaser>;

// ---------------------------------------------------------------------------------------------
// Plain sockets for the baselines.

class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : fd_(fd) {}
  Socket(Socket&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  Socket& operator=(Socket&& o) noexcept {
    std::swap(fd_, o.fd_);
    return *this;
  }
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  int fd() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

void tune(int fd) {
  // As the proxy does: a small request must not wait for Nagle.
  const int on = 1;
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  timeval limit{kSocketTimeoutSeconds, 0};
  (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// Two connected ends on 127.0.0.1. The kernel completes a loopback connection into the backlog,
// so one thread can make both ends without an accepting thread.
bool loopbackPair(Socket& client, Socket& server) {
  Socket listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.fd(), 1) != 0 ||
      ::getsockname(listener.fd(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return false;
  }
  client = Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!client ||
      ::connect(client.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  pollfd ready{listener.fd(), POLLIN, 0};
  if (::poll(&ready, 1, kSocketTimeoutSeconds * 1000) != 1) return false;
  server = Socket(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!server) return false;
  tune(client.fd());
  tune(server.fd());
  return true;
}

bool writeAll(int fd, const uint8_t* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool readAll(int fd, uint8_t* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// What the whole run shares. Servers are connected on first use, on the main thread: the proxy's
// event loop belongs to the thread that connected it.

struct Run {
  stdfs::path daemonFolder;
  stdfs::path embeddedFolder;
  std::string host;  // "127.0.0.1:PORT"
  uint16_t port = 0;
  ServerPtr remote;
  ServerPtr embedded;
  bool remoteRows = false;
  bool embeddedRows = false;
  // Bytes one ConnectCheck puts on the wire each way; 0 until measured.
  int callBytesOut = 0;
  int callBytesIn = 0;
  bool callBytesMeasured = false;
  // The remote book's row that the blob goes to.
  mv::Bstr blobHandle;
  int32_t blobRow = 0;
  bool blobReady = false;
};

Run run;

mv::IBookServer* remoteServer(std::string& error) {
  if (!run.remote) {
    mv::IBookServer* s = nullptr;
    const int32_t status = mv::rpc::connectRemote(run.host, &s);
    if (status != 0) {
      error = "cannot reach the daemon: " + mv::rpc::lastConnectError();
      return nullptr;
    }
    run.remote.reset(s);
  }
  return run.remote.get();
}

mv::IBookServer* embeddedServer(std::string& error) {
  if (!run.embedded) {
    mv::IBookServer* s = nullptr;
    if (mv::server::connectEmbedded(run.embeddedFolder.string(), mv::server::openSqliteEngine,
                                    &s) != 0) {
      error = "cannot start the embedded server";
      return nullptr;
    }
    run.embedded.reset(s);
  }
  return run.embedded.get();
}

// Tops the table up to kRows rows, one AddRecord a row as an application adds them.
bool fillRows(mv::IBookServer& server, std::string& error) {
  const mv::Bstr db = mv::toWide(kSystemDb);
  int32_t rows = 0;
  mv::Bstr handle;
  if (server.OpenTable(db.get(), mv::toWide(kRowTable).get(), 0, &rows, handle.out()) != 0) {
    error = "cannot open the table to fill";
    return false;
  }
  const std::string handleText = mv::toAnsi(handle.get());
  for (int32_t i = rows; i < kRows; ++i) {
    mv::RecordWriter record(handleText, 3);
    record.putInt(1, "DataKind", mv::kTypeInt, i % 7);
    record.putText(2, "DataName", mv::kTypeVarchar, "row " + std::to_string(i));
    record.putText(3, "AddInfo", mv::kTypeVarchar, "filled for the row benchmark");
    int32_t index = 0;
    if (server.AddRecord(db.get(), record.get(), 1, &index) != 0) {
      error = "AddRecord failed at row " + std::to_string(i);
      return false;
    }
  }
  server.CloseTable(db.get(), handle.get());
  return true;
}

// The proxy's socket: the one TCP connection of this process whose peer is the daemon's port.
int proxySocket() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int found = -1;
  while (const dirent* entry = ::readdir(dir)) {
    char* end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || fd == ::dirfd(dir)) continue;
    struct stat st {};
    if (::fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (::getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
        peer.sin_family == AF_INET && ntohs(peer.sin_port) == run.port) {
      found = static_cast<int>(fd);
      break;
    }
  }
  ::closedir(dir);
  return found;
}

struct WireCount {
  uint64_t out = 0;  // bytes sent and acknowledged
  uint64_t in = 0;
  uint64_t segmentsOut = 0;
};

bool wireCount(int fd, WireCount& count) {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (fd < 0 || ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
      length < offsetof(tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received) {
    return false;
  }
  count = {info.tcpi_bytes_acked, info.tcpi_bytes_received, info.tcpi_segs_out};
  return true;
}

// Bytes per ConnectCheck each way, from the socket's counters over many calls: the Finish that
// capnp sends after each answer goes out with the next call, so single calls cannot be timed
// apart but an average over many is exact to a byte.
void measureCallBytes(mv::IBookServer& server) {
  if (run.callBytesMeasured) return;
  run.callBytesMeasured = true;
  run.callBytesOut = kEstimatedCallBytes;
  run.callBytesIn = 0;
  for (int i = 0; i < 10; ++i) server.ConnectCheck();  // past the logon's traffic
  const int fd = proxySocket();
  WireCount before, after;
  if (!wireCount(fd, before)) {
    std::fprintf(stderr, "proxy socket not found: ping-pong uses the estimate of %d bytes\n",
                 kEstimatedCallBytes);
    return;
  }
  for (int i = 0; i < kSizeProbeCalls; ++i) server.ConnectCheck();
  std::this_thread::sleep_for(20ms);  // the last acknowledgements
  if (!wireCount(fd, after)) return;
  run.callBytesOut = static_cast<int>((after.out - before.out + kSizeProbeCalls / 2) /
                                      static_cast<uint64_t>(kSizeProbeCalls));
  run.callBytesIn = static_cast<int>((after.in - before.in + kSizeProbeCalls / 2) /
                                     static_cast<uint64_t>(kSizeProbeCalls));
}

// ---------------------------------------------------------------------------------------------
// 1. Small calls.

void BM_RemoteConnectCheck(benchmark::State& state) {
  std::string error;
  mv::IBookServer* server = remoteServer(error);
  if (!server) return fail(state, error);
  measureCallBytes(*server);
  const int fd = proxySocket();
  WireCount before, after;
  const bool counted = wireCount(fd, before);
  for (auto _ : state) {
    if (server->ConnectCheck() != 0) {
      fail(state, "ConnectCheck failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  if (counted && wireCount(fd, after) && state.iterations() > 0) {
    const auto calls = static_cast<double>(state.iterations());
    state.counters["wire_out"] = static_cast<double>(after.out - before.out) / calls;
    state.counters["wire_in"] = static_cast<double>(after.in - before.in) / calls;
    state.counters["segs_out"] =
        static_cast<double>(after.segmentsOut - before.segmentsOut) / calls;
  }
}
BENCHMARK(BM_RemoteConnectCheck)->Name("BM_SmallCall/remote_ConnectCheck")->UseRealTime();

void BM_TcpPingPong(benchmark::State& state) {
  if (!run.callBytesMeasured) {
    std::string error;
    mv::IBookServer* server = remoteServer(error);
    if (!server) return fail(state, error);
    measureCallBytes(*server);
  }
  const auto size = static_cast<std::size_t>(run.callBytesOut);
  Socket client, server;
  if (!loopbackPair(client, server)) return fail(state, "no loopback connection");
  std::thread echo([fd = server.fd(), size] {
    std::vector<uint8_t> buffer(size);
    while (readAll(fd, buffer.data(), size) && writeAll(fd, buffer.data(), size)) {
    }
  });
  std::vector<uint8_t> message(size, 0x5A), answer(size);
  for (auto _ : state) {
    if (!writeAll(client.fd(), message.data(), size) ||
        !readAll(client.fd(), answer.data(), size)) {
      fail(state, "echo failed");
      break;
    }
  }
  ::shutdown(client.fd(), SHUT_RDWR);  // ends the echo thread's read
  echo.join();
  state.SetItemsProcessed(state.iterations());
  state.counters["bytes_each_way"] = static_cast<double>(size);
}
BENCHMARK(BM_TcpPingPong)->Name("BM_SmallCall/tcp_pingpong")->UseRealTime();

// ---------------------------------------------------------------------------------------------
// 2. Reading rows.

enum class Side { Embedded, Remote };

void BM_ReadRows(benchmark::State& state, Side side) {
  std::string error;
  mv::IBookServer* server = side == Side::Remote ? remoteServer(error) : embeddedServer(error);
  if (!server) return fail(state, error);
  bool& filled = side == Side::Remote ? run.remoteRows : run.embeddedRows;
  if (!filled && !fillRows(*server, error)) return fail(state, error);
  filled = true;

  const mv::Bstr db = mv::toWide(kSystemDb);
  const mv::Bstr table = mv::toWide(kRowTable);
  int64_t rowsRead = 0;
  for (auto _ : state) {
    int32_t rows = 0;
    mv::Bstr handle;
    if (server->OpenTable(db.get(), table.get(), 0, &rows, handle.out()) != 0 || rows < kRows) {
      fail(state, "OpenTable failed or came short");
      break;
    }
    mv::Row row;
    int32_t status = 0;
    bool ok = true;
    for (int32_t i = 0; i < rows && ok; ++i) {
      ok = mv::fetchRow(*server, db.get(), handle.get(), i, row, status) &&
           mv::findField(row, "DataName") != nullptr;
    }
    server->CloseTable(db.get(), handle.get());
    if (!ok) {
      fail(state, "GetRecords failed");
      break;
    }
    rowsRead += rows;
  }
  state.SetItemsProcessed(rowsRead);
}
BENCHMARK_CAPTURE(BM_ReadRows, embedded, Side::Embedded)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_ReadRows, remote, Side::Remote)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---------------------------------------------------------------------------------------------
// 3. 100 MB in blocks. The bytes come from one prepared block with the block's number written
// over its start, so making them costs a copy and nothing more, yet a block that arrives out of
// place is caught.

const std::vector<uint8_t>& patternBlock() {
  static const std::vector<uint8_t> block = [] {
    std::vector<uint8_t> b(mv::kBlockSize);
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
    return b;
  }();
  return block;
}

uint8_t expectedAt(int64_t offset) {
  const int64_t block = offset / mv::kBlockSize;
  const int64_t at = offset % mv::kBlockSize;
  if (at < static_cast<int64_t>(sizeof block)) {
    return static_cast<uint8_t>(static_cast<uint64_t>(block) >> (8 * at));
  }
  return patternBlock()[static_cast<std::size_t>(at)];
}

// Fills `data` with the bytes from `offset` on; `size` never crosses a block's end.
void fillBlock(uint8_t* data, int64_t offset, std::size_t size) {
  const auto at = static_cast<std::size_t>(offset % mv::kBlockSize);
  std::memcpy(data, patternBlock().data() + at, size);
  const uint64_t block = static_cast<uint64_t>(offset / mv::kBlockSize);
  for (std::size_t i = at; i < sizeof block && i - at < size; ++i) {
    data[i - at] = static_cast<uint8_t>(block >> (8 * i));
  }
}

// A sample of the bytes (every block's number and every 4093rd byte), as cheap to check as the
// baseline's reader is to run.
bool sampleMatches(const uint8_t* data, std::size_t size, int64_t offset) {
  for (std::size_t i = 0; i < size; i += 4093) {
    if (data[i] != expectedAt(offset + static_cast<int64_t>(i))) return false;
  }
  const int64_t firstBlockStart = (offset + mv::kBlockSize - 1) / mv::kBlockSize * mv::kBlockSize;
  for (int64_t b = firstBlockStart; b < offset + static_cast<int64_t>(size); b += mv::kBlockSize) {
    for (int64_t i = b; i < std::min<int64_t>(b + 8, offset + static_cast<int64_t>(size)); ++i) {
      if (data[i - offset] != expectedAt(i)) return false;
    }
  }
  return true;
}

void setRates(benchmark::State& state, int64_t bytes) {
  state.SetBytesProcessed(bytes);
  state.counters["MB/s"] =
      benchmark::Counter(static_cast<double>(bytes) / (1 << 20), benchmark::Counter::kIsRate);
}

bool prepareBlob(mv::IBookServer& server, std::string& error) {
  if (run.blobReady) return true;
  const mv::Bstr db = mv::toWide(kBook);
  if (server.CreateBookDatabase(mv::toWide("").get(), mv::toWide("").get(), db.get()) != 0) {
    error = "CreateBookDatabase failed";
    return false;
  }
  int32_t rows = 0;
  if (server.OpenTable(db.get(), mv::toWide("ImageDataTBL").get(), 0, &rows,
                       run.blobHandle.out()) != 0) {
    error = "cannot open ImageDataTBL";
    return false;
  }
  mv::RecordWriter record(mv::toAnsi(run.blobHandle.get()), 1);
  record.putInt(1, "T_Index", mv::kTypeInt, 0);
  if (server.AddRecord(db.get(), record.get(), 1, &run.blobRow) != 0) {
    error = "cannot add the blob's row";
    return false;
  }
  run.blobReady = true;
  return true;
}

int32_t uploadOnce(mv::IBookServer& server) {
  int64_t offset = 0;
  mv::BlockRecord record(kBook, mv::toAnsi(run.blobHandle.get()), run.blobRow, "RealityData");
  return mv::uploadBlocks(server, record.get(), mv::UploadForm::Insert,
                          [&](uint8_t* data, std::size_t n) -> std::ptrdiff_t {
                            const auto take =
                                static_cast<std::size_t>(std::min<int64_t>(n, kBlobBytes - offset));
                            fillBlock(data, offset, take);
                            offset += static_cast<int64_t>(take);
                            return static_cast<std::ptrdiff_t>(take);
                          })
      .status;
}

void BM_RemoteUpload(benchmark::State& state) {
  std::string error;
  mv::IBookServer* server = remoteServer(error);
  if (!server) return fail(state, error);
  if (!prepareBlob(*server, error)) return fail(state, error);
  for (auto _ : state) {
    if (uploadOnce(*server) != 0) {
      fail(state, "upload failed");
      break;
    }
  }
  setRates(state, state.iterations() * kBlobBytes);
}
BENCHMARK(BM_RemoteUpload)
    ->Name("BM_Blob100MB/remote_upload")
    ->Iterations(kBlobIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_RemoteDownload(benchmark::State& state) {
  std::string error;
  mv::IBookServer* server = remoteServer(error);
  if (!server) return fail(state, error);
  // Uploaded here when the upload benchmark was filtered out.
  if (!run.blobReady && (!prepareBlob(*server, error) || uploadOnce(*server) != 0)) {
    return fail(state, error.empty() ? "upload failed" : error);
  }
  const mv::Bstr db = mv::toWide(kBook);
  const mv::Bstr table = mv::toWide("ImageDataTBL");
  const mv::Bstr sql =
      mv::toWide("SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(run.blobRow));
  const mv::Bstr column = mv::toWide("RealityData");
  for (auto _ : state) {
    int32_t rows = 0;
    mv::Bstr handle;
    if (server->OpenTableEx(db.get(), table.get(), sql.get(), 1, &rows, handle.out()) != 0) {
      fail(state, "OpenTableEx failed");
      break;
    }
    int64_t offset = 0;
    bool same = true;
    const mv::DownloadResult r = mv::downloadBlocks(*server, db.get(), handle.get(), column.get(),
                                                    [&](const uint8_t* data, std::size_t n) {
                                                      same = same && sampleMatches(data, n, offset);
                                                      offset += static_cast<int64_t>(n);
                                                      return true;
                                                    });
    server->CloseTable(db.get(), handle.get());
    if (r.status != 0 || offset != kBlobBytes || !same) {
      fail(state, "download differs");
      break;
    }
  }
  setRates(state, state.iterations() * kBlobBytes);
}
BENCHMARK(BM_RemoteDownload)
    ->Name("BM_Blob100MB/remote_download")
    ->Iterations(kBlobIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---------------------------------------------------------------------------------------------
// A 100 MB file into a share of the daemon and back, through the library's file seam and the
// session's file service, beside its floor: the slower of the same bytes through a plain loopback
// socket and a synced copy of them on the daemon's disk. The daemon's and this process's peak
// resident memory during the transfers tell whether either holds the file.

struct ShareRun {
  std::string share;   // the staging folder as the daemon answers it
  std::string source;  // a local 100 MB file
  double uploadSeconds = 0, downloadSeconds = 0, tcpSeconds = 0, diskSeconds = 0;
};
ShareRun shares;

double perIteration(const benchmark::State& state, std::chrono::steady_clock::duration total) {
  return std::chrono::duration<double>(total).count() / static_cast<double>(state.iterations());
}

bool prepareShare(std::string& error) {
  if (!shares.share.empty()) return true;
  mv::IBookServer* server = remoteServer(error);
  if (server == nullptr) return false;
  mv::Bstr folder;
  if (server->OpenNetShare(mv::toWide("bench").get(), mv::toWide("bench").get(),
                           mv::toWide("").get(), mv::toWide("").get(), -1, folder.out()) != 0) {
    error = "OpenNetShare failed";
    return false;
  }
  shares.share = mv::toAnsi(folder.get());
  shares.source = (run.embeddedFolder / "share-source.bin").string();
  const auto writer = mv::fs::openWrite(shares.source, false);
  std::vector<uint8_t> block(1 << 20);
  for (int64_t offset = 0; writer && offset < kBlobBytes;
       offset += static_cast<int64_t>(block.size())) {
    fillBlock(block.data(), offset, block.size());
    if (!writer->write(reinterpret_cast<const char*>(block.data()), block.size())) break;
  }
  if (!writer || !writer->commit(-1)) {
    error = "cannot write the source file";
    return false;
  }
  return true;
}

void BM_ShareUpload(benchmark::State& state) {
  std::string error;
  if (!prepareShare(error)) return fail(state, error);
  const std::string target = shares.share + "\\up.bin";
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (!mv::fs::copyFile(shares.source, target, false)) return fail(state, "upload failed");
  }
  shares.uploadSeconds = perIteration(state, std::chrono::steady_clock::now() - start);
  setRates(state, state.iterations() * kBlobBytes);
}
BENCHMARK(BM_ShareUpload)
    ->Name("BM_Share100MB/remote_upload")
    ->Iterations(kBlobIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ShareDownload(benchmark::State& state) {
  std::string error;
  if (!prepareShare(error)) return fail(state, error);
  const std::string source = shares.share + "\\up.bin";
  const std::string target = (run.embeddedFolder / "share-down.bin").string();
  if (!mv::fs::exists(source) && !mv::fs::copyFile(shares.source, source, false)) {
    return fail(state, "no file to download");
  }
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (!mv::fs::copyFile(source, target, false)) return fail(state, "download failed");
  }
  shares.downloadSeconds = perIteration(state, std::chrono::steady_clock::now() - start);
  std::vector<uint8_t> head(4096);
  const auto reader = mv::fs::openRead(target);
  if (!reader || reader->read(reinterpret_cast<char*>(head.data()), head.size()) != 4096 ||
      !sampleMatches(head.data(), head.size(), 0)) {
    fail(state, "the downloaded file differs");
  }
  setRates(state, state.iterations() * kBlobBytes);
}
BENCHMARK(BM_ShareDownload)
    ->Name("BM_Share100MB/remote_download")
    ->Iterations(kBlobIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The daemon's side of the floor: the file copied on its disk and synced, as the service writes.
void BM_DiskCopySynced(benchmark::State& state) {
  std::string error;
  if (!prepareShare(error)) return fail(state, error);
  const std::string target = (run.daemonFolder / "staging" / "disk-copy.bin").string();
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (mvbench::copyFile(shares.source, target, true) < 0) return fail(state, "disk copy failed");
  }
  shares.diskSeconds = perIteration(state, std::chrono::steady_clock::now() - start);
  ::unlink(target.c_str());
  setRates(state, state.iterations() * kBlobBytes);
}
BENCHMARK(BM_DiskCopySynced)
    ->Name("BM_Share100MB/disk_copy_fsync")
    ->Iterations(kBlobIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_TcpCopy(benchmark::State& state) {
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (mvbench::tcpCopy(kBlobBytes, mv::kBlockSize) < 0) return fail(state, "no loopback copy");
  }
  shares.tcpSeconds = perIteration(state, std::chrono::steady_clock::now() - start);
  setRates(state, state.iterations() * kBlobBytes);
}
BENCHMARK(BM_TcpCopy)
    ->Name("BM_Blob100MB/tcp_copy")
    ->Iterations(kBlobIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Removed with everything in it when the run ends, however it ends short of a crash.
struct TempFolder {
  explicit TempFolder(stdfs::path p) : path(std::move(p)) {
    std::error_code ec;
    stdfs::remove_all(path, ec);
    stdfs::create_directories(path, ec);
  }
  ~TempFolder() {
    std::error_code ec;
    stdfs::remove_all(path, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  stdfs::path path;
};

int runAll(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  const std::string tag = std::to_string(::getpid());
  const TempFolder daemonFolder(stdfs::temp_directory_path() / ("mvcore-rpc-bench-daemon-" + tag));
  const TempFolder embeddedFolder(stdfs::temp_directory_path() /
                                  ("mvcore-rpc-bench-embedded-" + tag));
  run.daemonFolder = daemonFolder.path;
  run.embeddedFolder = embeddedFolder.path;

  // Its log is drained by the helper's thread for the whole run: a full pipe would block the
  // daemon in the middle of a call.
  mvtest::ChildProcess daemon(
      {BOOKSERVERD, "--data", daemonFolder.path.string(), "--listen", "127.0.0.1:0"});
  if (!daemon.started()) {
    std::fprintf(stderr, "cannot start %s\n", BOOKSERVERD);
    return 1;
  }
  run.port = daemon.waitForPort(20s);
  if (run.port == 0) {
    std::fprintf(stderr, "bookserverd did not start listening:\n%s", daemon.log().c_str());
    return 1;
  }
  run.host = "127.0.0.1:" + std::to_string(run.port);

  const pid_t self = ::getpid();
  mvbench::resetPeak(daemon.pid());
  mvbench::resetPeak(self);
  const long daemonBefore = mvbench::residentKb(daemon.pid());
  const long selfBefore = mvbench::residentKb(self);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (shares.uploadSeconds > 0 && shares.downloadSeconds > 0 && shares.tcpSeconds > 0 &&
      shares.diskSeconds > 0) {
    const double floor = std::max(shares.tcpSeconds, shares.diskSeconds);
    std::printf(
        "share 100 MB: upload %.2f of its floor, download %.2f (floor: the slower of "
        "loopback TCP %.0f MB/s and a synced disk copy %.0f MB/s)\n",
        floor / shares.uploadSeconds, floor / shares.downloadSeconds, 100.0 / shares.tcpSeconds,
        100.0 / shares.diskSeconds);
    std::printf("peak resident memory rise over the run: daemon %ld kB, client %ld kB\n",
                mvbench::peakKb(daemon.pid()) - daemonBefore, mvbench::peakKb(self) - selfBefore);
  }

  // The servers before the daemon and the folders: sessions end cleanly, locks are let go.
  run.remote.reset();
  run.embedded.reset();
  daemon.signal(SIGTERM);
  const std::optional<int> status = daemon.waitExit(10s);  // else the helper kills it
  if (status != 0) {
    std::fprintf(stderr, "bookserverd ended with status %d:\n%s", status.value_or(-1),
                 daemon.log().c_str());
    return 1;
  }
  return anyFailed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Caught so that the daemon and the folders are cleaned up on the way out.
  try {
    return runAll(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mvcore_rpc_bench: %s\n", e.what());
    return 1;
  }
}
