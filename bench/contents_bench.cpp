// Image data through the exports, as an application moves it, each figure beside its floor
// measured in the same run on the same disk and the same loopback:
//
//   embedded/insert     MVInsertImageDataEX of a 100 MB file       floor: disk_copy_fsync
//   embedded/download   MVDownLoadImageData of it                  floor: disk_copy
//   embedded/photos     1,000 images of 200 KB inserted one by one floor: the files copied with
//                                                                  an fsync each
//   remote/insert       the same 100 MB to a bookserverd           floor: the slower of tcp_copy
//   remote/download                                                and the disk floor above
//
// The peak resident memory of this process and of the daemon during each 100 MB transfer is
// printed as its rise over what the process held before: it must not grow with the file.
//
//   mvcore_contents_bench [--benchmark_filter=...]   (MVCORE_IMAGE_MB sets the size, default 100)
#include <benchmark/benchmark.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "MVCore.h"
#include "child_process.h"
#include "floors.h"
#include "frame/connection.h"

namespace {

namespace stdfs = std::filesystem;
using namespace std::chrono_literals;

constexpr char kSystemDb[] = "MarvekSystemCommonDB";
constexpr int kPhotos = 1000;
constexpr std::size_t kPhotoBytes = 200 * 1024;
constexpr int kLargeIterations = 3;

int64_t imageBytes() {
  const char* mb = std::getenv("MVCORE_IMAGE_MB");
  return (mb ? std::atoll(mb) : 100) << 20;
}

enum class Server { None, Embedded, Remote };

struct Run {
  stdfs::path folder;
  std::string source;
  std::vector<std::string> photos;
  std::string host;
  pid_t daemon = 0;
  Server on = Server::None;
  std::string book;
  int32_t row = 0;                                    // the 100 MB image on the current server
  std::map<std::string, double> seconds;              // per iteration
  std::map<std::string, std::pair<long, long>> rise;  // kB: this process, the daemon
  bool failed = false;
};
Run run;

void fail(benchmark::State& state, const std::string& why) {
  run.failed = true;
  state.SkipWithError(why.c_str());
}

void writeFile(const std::string& path, int64_t size, uint8_t seed) {
  std::vector<char> piece(1 << 20);
  for (std::size_t i = 0; i < piece.size(); ++i)
    piece[i] = static_cast<char>((i * 131 + seed) >> 5);
  std::ofstream out(path, std::ios::binary);
  for (int64_t done = 0; done < size;) {
    const auto n = static_cast<std::streamsize>(
        std::min<int64_t>(size - done, static_cast<int64_t>(piece.size())));
    out.write(piece.data(), n);
    done += n;
  }
}

// Connects the library to `which` with a book of its own to work in.
bool use(Server which, std::string& error) {
  if (run.on == which) return true;
  if (run.on != Server::None) {
    MVCloseDB(kSystemDb);
    MVExit();
    run.on = Server::None;
  }
  const std::string host = which == Server::Remote ? run.host : "";
  if (MVInit(host.c_str()) != 0 || MVOpenDB(kSystemDb) != 0) {
    error = "no server at \"" + host + "\"";
    return false;
  }
  int32_t shelf = 0;
  int32_t book = 0;
  CoverInfo cover{};
  if (MVCreateBookshelf("bench", "admin", &shelf) != 0 ||
      MVCreateBook("bench", 0, &cover, &book) != 0) {
    error = "no book: " + std::to_string(mv::connection().lastError);
    return false;
  }
  run.book = cover.BookName;
  run.row = 0;
  run.on = which;
  return true;
}

void record(benchmark::State& state, const char* key, std::chrono::steady_clock::duration total,
            int64_t bytes) {
  run.seconds[key] =
      std::chrono::duration<double>(total).count() /
      static_cast<double>(std::max<benchmark::IterationCount>(state.iterations(), 1));
  state.SetBytesProcessed(state.iterations() * bytes);
}

// Peak memory of both processes over a transfer.
struct MemoryWatch {
  long self = 0, daemon = 0;
  MemoryWatch() {
    mvbench::resetPeak(::getpid());
    self = mvbench::residentKb(::getpid());
    if (run.daemon != 0) {
      mvbench::resetPeak(run.daemon);
      daemon = mvbench::residentKb(run.daemon);
    }
  }
  void keep(const char* key) const {
    run.rise[key] = {mvbench::peakKb(::getpid()) - self,
                     run.daemon != 0 ? mvbench::peakKb(run.daemon) - daemon : 0};
  }
};

// --- floors ------------------------------------------------------------------------------------

void BM_DiskCopy(benchmark::State& state, const char* key, bool sync) {
  const std::string target = (run.folder / "floor.bin").string();
  double total = 0;
  for (auto _ : state) {
    const double s = mvbench::copyFile(run.source, target, sync);
    if (s < 0) return fail(state, "copy failed");
    total += s;
    state.SetIterationTime(s);
  }
  run.seconds[key] = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * imageBytes());
}
BENCHMARK_CAPTURE(BM_DiskCopy, disk_copy_fsync, "floor/disk_copy_fsync", true)
    ->Name("floor/disk_copy_fsync")
    ->Iterations(kLargeIterations)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DiskCopy, disk_copy, "floor/disk_copy", false)
    ->Name("floor/disk_copy")
    ->Iterations(kLargeIterations)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_TcpCopy(benchmark::State& state, const char* key) {
  double total = 0;
  for (auto _ : state) {
    const double s = mvbench::tcpCopy(imageBytes(), 307200);
    if (s < 0) return fail(state, "no loopback copy");
    total += s;
    state.SetIterationTime(s);
  }
  run.seconds[key] = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * imageBytes());
}
BENCHMARK_CAPTURE(BM_TcpCopy, tcp_copy, "floor/tcp_copy")
    ->Name("floor/tcp_copy")
    ->Iterations(kLargeIterations)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_PhotoCopies(benchmark::State& state, const char* key) {
  double total = 0;
  stdfs::create_directories(run.folder / "copies");
  for (auto _ : state) {
    stdfs::remove_all(run.folder / "copies");
    stdfs::create_directories(run.folder / "copies");
    for (int i = 0; i < kPhotos; ++i) {
      // Each to a new file, as each insert makes one.
      const double s = mvbench::copyFile(
          run.photos[static_cast<std::size_t>(i)],
          (run.folder / "copies" / ("photo-" + std::to_string(i) + ".jpg")).string(), true);
      if (s < 0) return fail(state, "copy failed");
      total += s;
    }
  }
  run.seconds[key] = total / static_cast<double>(state.iterations());
  state.SetIterationTime(total / static_cast<double>(state.iterations()));
  state.SetItemsProcessed(state.iterations() * kPhotos);
}
BENCHMARK_CAPTURE(BM_PhotoCopies, photos, "floor/photos_copy_fsync")
    ->Name("floor/photos_copy_fsync")
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// --- the exports -------------------------------------------------------------------------------

void BM_Insert(benchmark::State& state, const char* key, Server server) {
  std::string error;
  if (!use(server, error)) return fail(state, error);
  const MemoryWatch memory;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    ImageInfoRecordEX info{};
    if (MVInsertImageDataEX(run.book.c_str(), 1, &info, run.source.c_str()) != 0) {
      return fail(state, "insert failed: " + std::to_string(mv::connection().lastError));
    }
    run.row = info.T_Index;
  }
  record(state, key, std::chrono::steady_clock::now() - start, imageBytes());
  memory.keep(key);
}

void BM_Download(benchmark::State& state, const char* key, Server server) {
  std::string error;
  if (!use(server, error)) return fail(state, error);
  if (run.row == 0) return fail(state, "nothing inserted to download");
  const std::string target = (run.folder / "down.bin").string();
  const MemoryWatch memory;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    std::remove(target.c_str());
    if (MVDownLoadImageData(run.book.c_str(), "ImageDataTBL", run.row, target.c_str()) != 0 ||
        static_cast<int64_t>(stdfs::file_size(target)) != imageBytes()) {
      return fail(state, "download failed");
    }
  }
  record(state, key, std::chrono::steady_clock::now() - start, imageBytes());
  memory.keep(key);
}

void BM_Photos(benchmark::State& state, const char* key) {
  std::string error;
  if (!use(Server::Embedded, error)) return fail(state, error);
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    for (const std::string& photo : run.photos) {
      ImageInfoRecordEX info{};
      if (MVInsertImageDataEX(run.book.c_str(), 2, &info, photo.c_str()) != 0) {
        return fail(state, "insert failed");
      }
    }
  }
  record(state, key, std::chrono::steady_clock::now() - start, kPhotos * int64_t{kPhotoBytes});
  state.SetItemsProcessed(state.iterations() * kPhotos);
}

BENCHMARK_CAPTURE(BM_Insert, embedded, "embedded/insert", Server::Embedded)
    ->Name("embedded/insert")
    ->Iterations(kLargeIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Download, embedded, "embedded/download", Server::Embedded)
    ->Name("embedded/download")
    ->Iterations(kLargeIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Photos, photos, "embedded/photos")
    ->Name("embedded/photos")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Insert, remote, "remote/insert", Server::Remote)
    ->Name("remote/insert")
    ->Iterations(kLargeIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Download, remote, "remote/download", Server::Remote)
    ->Name("remote/download")
    ->Iterations(kLargeIterations)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void summary() {
  const auto at = [](const char* key) {
    const auto it = run.seconds.find(key);
    return it == run.seconds.end() ? 0.0 : it->second;
  };
  const auto line = [&](const char* figure, double floorSeconds, const char* floorName) {
    const double s = at(figure);
    if (s <= 0 || floorSeconds <= 0) return;
    std::printf("%-18s %.2f of its floor (%s)", figure, floorSeconds / s, floorName);
    if (const auto it = run.rise.find(figure); it != run.rise.end()) {
      std::printf("; peak memory rise: this process %ld kB, daemon %ld kB", it->second.first,
                  it->second.second);
    }
    std::printf("\n");
  };
  const double synced = at("floor/disk_copy_fsync");
  const double plain = at("floor/disk_copy");
  const double tcp = at("floor/tcp_copy");
  std::printf("\n");
  line("embedded/insert", synced, "disk_copy_fsync");
  line("embedded/download", plain, "disk_copy");
  line("embedded/photos", at("floor/photos_copy_fsync"), "photos_copy_fsync");
  line("remote/insert", std::max(tcp, synced), "slower of tcp_copy and disk_copy_fsync");
  line("remote/download", std::max(tcp, plain), "slower of tcp_copy and disk_copy");
}

int runAll(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  run.folder =
      stdfs::temp_directory_path() / ("mvcore-contents-bench-" + std::to_string(::getpid()));
  stdfs::remove_all(run.folder);
  stdfs::create_directories(run.folder / "data");
  stdfs::create_directories(run.folder / "daemon");
  run.source = (run.folder / "source.bin").string();
  writeFile(run.source, imageBytes(), 0);
  for (int i = 0; i < kPhotos; ++i) {
    run.photos.push_back((run.folder / ("photo-" + std::to_string(i) + ".jpg")).string());
    writeFile(run.photos.back(), kPhotoBytes, static_cast<uint8_t>(i));
  }
  MVSetDataFolder((run.folder / "data").c_str());
  mvtest::ChildProcess daemon(
      {BOOKSERVERD, "--data", (run.folder / "daemon").string(), "--listen", "127.0.0.1:0"});
  const uint16_t port = daemon.started() ? daemon.waitForPort(20s) : 0;
  if (port == 0) {
    std::fprintf(stderr, "bookserverd did not start:\n%s", daemon.log().c_str());
    return 1;
  }
  run.host = "127.0.0.1:" + std::to_string(port);
  run.daemon = daemon.pid();

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  summary();

  if (run.on != Server::None) {
    MVCloseDB(kSystemDb);
    MVExit();
  }
  daemon.signal(SIGTERM);
  const std::optional<int> status = daemon.waitExit(10s);
  std::error_code ec;
  stdfs::remove_all(run.folder, ec);
  return run.failed || status != 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return runAll(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mvcore_contents_bench: %s\n", e.what());
    return 1;
  }
}
