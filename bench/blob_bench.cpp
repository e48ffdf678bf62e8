// Blobs through the embedded server: throughput of uploading and downloading a large blob in
// 307,200-byte blocks, and how far the process's peak memory rises meanwhile. The server must
// keep memory flat whatever the blob's size: the run fails if the peak rises by 64 MB or more.
//
//   mvcore_blob_bench [--benchmark_filter=...]      (MVCORE_BLOB_MB sets the size, default 200)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "frame/blocks.h"
#include "frame/exchange.h"
#include "server/core/book_server.h"
#include "server/sqlite/sqlite_engine.h"

namespace {

namespace stdfs = std::filesystem;

constexpr int64_t kLimitBytes = 64ll << 20;

int64_t blobBytes() {
  const char* mb = std::getenv("MVCORE_BLOB_MB");
  return (mb ? std::atoll(mb) : 200) << 20;
}

// Peak resident memory since the last reset, in bytes.
int64_t peakResident() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::atoll(line.c_str() + 6) * 1024;
  }
  return 0;
}

int64_t resident() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atoll(line.c_str() + 6) * 1024;
  }
  return 0;
}

// Lets the peak start again from what the process holds now.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

uint8_t patternAt(int64_t i) { return static_cast<uint8_t>((i * 2654435761u) >> 13); }

struct Fixture {
  Fixture() {
    folder = stdfs::temp_directory_path() / ("mvcore-blob-bench-" + std::to_string(::getpid()));
    stdfs::remove_all(folder);
    mv::IBookServer* s = nullptr;
    if (mv::server::connectEmbedded(folder.string(), mv::server::openSqliteEngine, &s) != 0)
      std::abort();
    server.reset(s);
    server->CreateBookDatabase(mv::toWide("").get(), mv::toWide("").get(), db.get());
    int32_t rows = 0;
    server->OpenTable(db.get(), mv::toWide("ImageDataTBL").get(), 0, &rows, handle.out());
    mv::RecordWriter record(mv::toAnsi(handle.get()), 1);
    record.putInt(1, "T_Index", mv::kTypeInt, 0);
    server->AddRecord(db.get(), record.get(), 1, &row);
  }
  ~Fixture() {
    server.reset();
    stdfs::remove_all(folder);
  }
  struct Releaser {
    void operator()(mv::IBookServer* s) const { s->Release(); }
  };
  stdfs::path folder;
  std::unique_ptr<mv::IBookServer, Releaser> server;
  mv::Bstr db = mv::toWide("BOOK1123000001");
  mv::Bstr handle;
  int32_t row = 0;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void reportMemory(benchmark::State& state, int64_t before) {
  const int64_t rise = peakResident() - before;
  state.counters["peak_rise_MB"] = static_cast<double>(rise) / (1 << 20);
  if (rise >= kLimitBytes) {
    std::fprintf(stderr, "peak memory rose by %.1f MB\n", static_cast<double>(rise) / (1 << 20));
    state.SkipWithError("peak memory rose by 64 MB or more");
  }
}

void BM_UploadBlob(benchmark::State& state) {
  Fixture& f = fixture();
  const int64_t size = blobBytes();
  for (auto _ : state) {
    resetPeak();
    const int64_t before = resident();
    int64_t offset = 0;
    mv::BlockRecord record("BOOK1123000001", mv::toAnsi(f.handle.get()), f.row, "RealityData");
    const mv::UploadResult r = mv::uploadBlocks(
        *f.server, record.get(), mv::UploadForm::Insert,
        [&](uint8_t* data, std::size_t n) -> std::ptrdiff_t {
          const auto take = static_cast<std::size_t>(std::min<int64_t>(n, size - offset));
          for (std::size_t i = 0; i < take; ++i)
            data[i] = patternAt(offset + static_cast<int64_t>(i));
          offset += static_cast<int64_t>(take);
          return static_cast<std::ptrdiff_t>(take);
        });
    if (r.status != 0) state.SkipWithError("upload failed");
    reportMemory(state, before);
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_UploadBlob)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DownloadBlob(benchmark::State& state) {
  Fixture& f = fixture();
  const int64_t size = blobBytes();
  for (auto _ : state) {
    resetPeak();
    const int64_t before = resident();
    int32_t rows = 0;
    mv::Bstr h;
    f.server->OpenTableEx(
        f.db.get(), mv::toWide("ImageDataTBL").get(),
        mv::toWide("SELECT * FROM ImageDataTBL WHERE T_Index = " + std::to_string(f.row)).get(), 1,
        &rows, h.out());
    int64_t offset = 0;
    bool same = true;
    const mv::DownloadResult r = mv::downloadBlocks(
        *f.server, f.db.get(), h.get(), mv::toWide("RealityData").get(),
        [&](const uint8_t* data, std::size_t n) {
          for (std::size_t i = 0; i < n; i += 4093)
            same = same && data[i] == patternAt(offset + static_cast<int64_t>(i));
          offset += static_cast<int64_t>(n);
          return true;
        });
    f.server->CloseTable(f.db.get(), h.get());
    if (r.status != 0 || offset != size || !same) state.SkipWithError("download differs");
    reportMemory(state, before);
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_DownloadBlob)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
