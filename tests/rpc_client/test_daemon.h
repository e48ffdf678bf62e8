// A small daemon for the client's tests: a Gate and a BookServer with a handful of methods, on a
// loopback port, served by a thread with its own event loop. It answers rows of one made-up
// table and writes down what it received, so a test can see what crossed the wire.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace mvtest {

// Element `column` (0 or 1) of row `row` as the daemon sends it while its data is at
// `generation` (every write through a handle moves it on).
std::u16string rowElement(int row, int column, int generation);

// Byte `offset` of the blob the daemon serves for `column` of row `rowIndex` (when it serves one:
// DaemonOptions::blobBytes). Every block, column and row has bytes of its own.
uint8_t blobByte(const std::u16string& column, int32_t rowIndex, int64_t offset);

// Status the daemon answers for a row past the end, an unknown handle, a block it cannot serve.
inline constexpr int32_t kNoRow = 0x1006;
inline constexpr int32_t kBadHandle = 0x1005;
inline constexpr int32_t kBadArgument = 0x1007;
// Status of the blob block DaemonOptions::failBlock.
inline constexpr int32_t kReadFailed = 0x1011;

struct DaemonOptions {
  std::string name = "test daemon";   // GetServerInfo's text
  std::string address = "127.0.0.1";  // where it listens (an IPv6 literal without brackets)
  std::string token;                  // empty: any token logs on
  std::string certPem, keyPem;        // both set: TLS
  int rows = 3000;
  int64_t blobBytes = 0;      // DownLoadData: a blob of this many bytes per column and row
  int32_t failBlock = 0;      // this block of a blob answers kReadFailed
  bool doubleBlocks = false;  // blob blocks carry up to twice the bytes asked for (no server does)
  int downloadDelayMs = 0;    // each DownLoadData is answered this long after it arrives
};

// One DownLoadData as the daemon received it.
struct DownloadRequest {
  std::u16string column;
  int32_t rowIndex = 0;
  int32_t blockNo = 0;
  int32_t blockSize = 0;
};

// What the daemon received. Written by the daemon's thread, read by the test's.
struct DaemonLog {
  std::atomic<int> logins{0};
  std::atomic<int> sessions{0};  // BookServer capabilities alive
  std::atomic<int> opens{0};
  std::atomic<int> getRecords{0};
  std::atomic<uint32_t> lastPrefetch{0};
  std::atomic<uint32_t> lastCount{0};
  std::atomic<int32_t> lastRowIndex{-1};
  std::atomic<int> downloadsUnanswered{0};
  std::atomic<int> mostDownloadsUnanswered{0};  // the most DownLoadData calls waiting at once

  std::mutex mutex;  // guards the members below
  std::vector<std::string> tokens;
  std::vector<DownloadRequest> downloads;  // in the order they arrived

  std::vector<DownloadRequest> downloadsSoFar() {
    std::lock_guard<std::mutex> lock(mutex);
    return downloads;
  }
};

class TestDaemon {
 public:
  explicit TestDaemon(DaemonOptions options = {});
  ~TestDaemon();
  TestDaemon(const TestDaemon&) = delete;
  TestDaemon& operator=(const TestDaemon&) = delete;

  uint16_t port() const { return port_; }
  // The loopback name MVInit takes for it.
  std::string endpoint() const {
    const bool v6 = options_.address.find(':') != std::string::npos;
    return (v6 ? "[" + options_.address + "]" : options_.address) + ":" + std::to_string(port_);
  }
  DaemonLog& log() { return log_; }
  int generation() const { return generation_.load(); }

  // Closes the listening socket and every connection, as a daemon that died would.
  void kill();

  struct Impl;

 private:
  DaemonOptions options_;
  DaemonLog log_;
  std::atomic<int> generation_{0};
  uint16_t port_ = 0;
  std::unique_ptr<Impl> impl_;
  std::thread thread_;
};

// A loopback port nobody listens on (bound, then closed).
uint16_t closedPort();

}  // namespace mvtest
