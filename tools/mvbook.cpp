// mvbook: the command-line front end of a data folder.
//
//   mvbook init [--data DIR] [--admin NAME] [--password TEXT]
//       sets up a fresh data folder (a folder already set up is left as it is)
//   mvbook info [--data DIR]
//       tells what a data folder holds, its blob store's size among it
//   mvbook check [--data DIR] [--repair]
//       looks for blobs no row names and rows whose blob is gone; --repair removes the first
//       (exit status 1 when anything was found and is still there)
//
// Without --data the folder is $MVCORE_HOME, else $XDG_DATA_HOME/mvcore, else
// ~/.local/share/mvcore, as for MVInit("").
#include <getopt.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "server/core/server_core.h"
#include "server/sqlite/sqlite_engine.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: mvbook init [--data DIR] [--admin NAME] [--password TEXT]\n"
               "       mvbook info [--data DIR]\n"
               "       mvbook check [--data DIR] [--repair]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  std::string folder;
  mv::server::InitOptions init;
  bool repair = false;
  static const option kOptions[] = {{"data", required_argument, nullptr, 'd'},
                                    {"admin", required_argument, nullptr, 'a'},
                                    {"password", required_argument, nullptr, 'p'},
                                    {"repair", no_argument, nullptr, 'r'},
                                    {nullptr, 0, nullptr, 0}};
  opterr = 0;
  // The command stands where getopt expects the program's name.
  for (int c; (c = ::getopt_long(argc - 1, argv + 1, "+", kOptions, nullptr)) != -1;) {
    if (c == 'd') {
      folder = optarg;
    } else if (c == 'a') {
      init.adminName = optarg;
    } else if (c == 'p') {
      init.adminPassword = optarg;
    } else if (c == 'r' && command == "check") {
      repair = true;
    } else {
      return usage();
    }
  }
  if (optind < argc - 1) return usage();
  if (command != "init" && command != "info" && command != "check") return usage();
  folder = mv::server::resolveDataFolder(folder);
  std::string error;
  // A check looks at the folder as it is: the engine's sweep at start would remove the orphans
  // it is asked to report.
  const mv::server::EngineFactory unswept = [](const std::string& db, std::string&) {
    return std::unique_ptr<mv::server::StorageEngine>(new mv::server::SqliteEngine(db));
  };
  auto core = mv::server::ServerCore::open(
      folder, init, command == "check" ? unswept : mv::server::openSqliteEngine, error);
  if (!core) {
    std::fprintf(stderr, "mvbook: %s\n", error.c_str());
    return 1;
  }
  std::printf("data folder %s (%s)\n", folder.c_str(), core->engine().describe().c_str());
  if (command == "info") {
    for (const std::string& db : core->engine().list()) {
      if (mv::server::isClientDatabaseName(db)) std::printf("database %s\n", db.c_str());
    }
    for (const auto& t : core->templates()) {
      std::printf("template %s (version %d) %s\n", t.name.c_str(), t.version, t.info.c_str());
    }
  }
  if (command == "info" || command == "check") {
    const mv::server::ContentCheck found = core->engine().checkContent(repair);
    std::printf("blobs %lld (%lld bytes)\n", static_cast<long long>(found.items),
                static_cast<long long>(found.bytes));
    if (command == "check") {
      for (const std::string& path : found.orphans) {
        std::printf("%s %s\n", repair ? "removed orphan" : "orphan", path.c_str());
      }
      for (const std::string& row : found.missing) std::printf("missing blob of %s\n", row.c_str());
      if (found.missing.empty() && (repair || found.orphans.empty())) return 0;
      return 1;
    }
  }
  return 0;
}
