// mvbook: the command-line front end of a data folder.
//
//   mvbook init [--data DIR] [--admin NAME] [--password TEXT]
//       sets up a fresh data folder (a folder already set up is left as it is)
//   mvbook info [--data DIR]
//       tells what a data folder holds
//
// Without --data the folder is $MVCORE_HOME, else $XDG_DATA_HOME/mvcore, else
// ~/.local/share/mvcore, as for MVInit("").
#include <cstdio>
#include <cstring>
#include <string>

#include "server/core/server_core.h"
#include "server/sqlite/sqlite_engine.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: mvbook init [--data DIR] [--admin NAME] [--password TEXT]\n"
               "       mvbook info [--data DIR]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  std::string folder;
  mv::server::InitOptions init;
  for (int i = 2; i < argc; ++i) {
    const std::string option = argv[i];
    if (i + 1 >= argc) return usage();
    const char* value = argv[++i];
    if (option == "--data") {
      folder = value;
    } else if (option == "--admin") {
      init.adminName = value;
    } else if (option == "--password") {
      init.adminPassword = value;
    } else {
      return usage();
    }
  }
  if (command != "init" && command != "info") return usage();
  folder = mv::server::resolveDataFolder(folder);
  std::string error;
  auto core = mv::server::ServerCore::open(folder, init, mv::server::openSqliteEngine, error);
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
  return 0;
}
