// A 100 MB image through the exports, against the server in this process on a temporary data
// folder: MVInsertImageDataEX up, MVDownLoadImageData down, and a plain copy of the same file on
// the same disk as the floor. Each reports MB/s.
//
//   mvcore_contents_bench [--benchmark_filter=...]   (MVCORE_IMAGE_MB sets the size, default 100)
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "MVCore.h"
#include "frame/connection.h"

namespace {

namespace stdfs = std::filesystem;

int64_t imageBytes() {
  const char* mb = std::getenv("MVCORE_IMAGE_MB");
  return (mb ? std::atoll(mb) : 100) << 20;
}

struct Fixture {
  Fixture() {
    folder = stdfs::temp_directory_path() / ("mvcore-contents-bench-" + std::to_string(::getpid()));
    stdfs::remove_all(folder);
    stdfs::create_directories(folder / "data");
    source = (folder / "source.bin").string();
    std::vector<char> block(1 << 20);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>((i * 131) >> 5);
    std::ofstream out(source, std::ios::binary);
    for (int64_t done = 0; done < imageBytes(); done += static_cast<int64_t>(block.size())) {
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    out.close();
    if (MVSetDataFolder((folder / "data").c_str()) != 0 || MVInit("") != 0 ||
        MVOpenDB("MarvekSystemCommonDB") != 0) {
      std::fprintf(stderr, "no server\n");
      std::abort();
    }
    int32_t shelf = 0;
    int32_t book = 0;
    CoverInfo cover{};
    if (MVCreateBookshelf("bench", "admin", &shelf) != 0 ||
        MVCreateBook("bench", 0, &cover, &book) != 0) {
      std::fprintf(stderr, "no book: %d\n", mv::connection().lastError);
      std::abort();
    }
    db = cover.BookName;
  }
  ~Fixture() {
    MVCloseDB("MarvekSystemCommonDB");
    MVExit();
    stdfs::remove_all(folder);
  }
  stdfs::path folder;
  std::string source;
  std::string db;
  int32_t row = 0;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void report(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * imageBytes());
  state.counters["MB/s"] = benchmark::Counter(static_cast<double>(imageBytes()) / (1 << 20),
                                              benchmark::Counter::kIsIterationInvariantRate);
}

void BM_PlainFileCopy(benchmark::State& state) {
  Fixture& f = fixture();
  const stdfs::path copy = f.folder / "copy.bin";
  for (auto _ : state) {
    stdfs::remove(copy);
    if (!stdfs::copy_file(f.source, copy)) state.SkipWithError("copy failed");
  }
  report(state);
}
BENCHMARK(BM_PlainFileCopy)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_InsertImageData(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state) {
    ImageInfoRecordEX info{};
    if (MVInsertImageDataEX(f.db.c_str(), 1, &info, f.source.c_str()) != 0) {
      state.SkipWithError("insert failed");
      break;
    }
    f.row = info.T_Index;
  }
  report(state);
}
BENCHMARK(BM_InsertImageData)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DownLoadImageData(benchmark::State& state) {
  Fixture& f = fixture();
  const std::string target = (f.folder / "down.bin").string();
  for (auto _ : state) {
    if (MVDownLoadImageData(f.db.c_str(), "ImageDataTBL", f.row, target.c_str()) != 0 ||
        static_cast<int64_t>(stdfs::file_size(target)) != imageBytes()) {
      state.SkipWithError("download failed");
      break;
    }
  }
  report(state);
}
BENCHMARK(BM_DownLoadImageData)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
