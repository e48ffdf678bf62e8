// A session's life: how it starts and ends, the checks every method makes on what a client names,
// and the embedded server of this process.
#include "server/core/book_server.h"

#include <functional>
#include <mutex>

#include "server/core/status.h"
#include "server/core/wire.h"

namespace mv::server {

BookServer::BookServer(std::shared_ptr<ServerCore> core)
    : core_(std::move(core)), id_(core_->newSession()) {
  core_->sessionStarted();
}

BookServer::~BookServer() {
  settle();
  closeCarry(carryOut_, false);
  closeCarry(carryIn_, false);
  handles_.clear();
  shares_->clear();
  core_->sessionEnded(id_);
}

int32_t BookServer::fail(int32_t status, const std::string& message) {
  lastError_ = message;
  return status;
}

std::shared_ptr<Database> BookServer::database(const std::string& name, int32_t* status) {
  if (!isClientDatabaseName(name)) {
    *status = fail(kBadArgument, "データベース名「" + name + "」は使えません");
    return nullptr;
  }
  std::string error;
  auto db = core_->engine().exists(name) ? core_->engine().open(name, false, error) : nullptr;
  if (!db) {
    *status = fail(kMissingDatabase, "データベース「" + name + "」がありません");
    return nullptr;
  }
  *status = kOk;
  return db;
}

BookServer::Handle* BookServer::handle(const std::string& text, int32_t* status) {
  const auto it = handles_.find(text);
  if (it == handles_.end()) {
    *status = fail(kBadHandle, "ハンドル「" + text + "」は開かれていません");
    return nullptr;
  }
  *status = kOk;
  return &it->second;
}

int32_t BookServer::settle() {
  download_ = Download{};
  return finishUploads();
}

// --- the embedded server -----------------------------------------------------------------------

namespace {

using StartCore =
    std::function<std::shared_ptr<ServerCore>(const std::string& folder, std::string& error)>;

int32_t connectTo(const std::string& folder, const StartCore& start, IBookServer** server) {
  static std::mutex mutex;
  static std::weak_ptr<ServerCore> running;
  static std::string runningFolder;
  std::lock_guard lock(mutex);
  const std::string path = resolveDataFolder(folder);
  std::shared_ptr<ServerCore> core = running.lock();
  if (core && runningFolder != path) core.reset();  // a new folder: its own server
  if (!core) {
    std::string error;
    core = start(path, error);
    if (!core) return kStorageFailed;
    running = core;
    runningFolder = path;
  }
  *server = new BookServer(core);
  return kOk;
}

}  // namespace

int32_t connectEmbedded(const std::string& folder, const EngineFactory& engine,
                        IBookServer** server) {
  return connectTo(
      folder,
      [&](const std::string& path, std::string& error) {
        return ServerCore::open(path, InitOptions{}, engine, error);
      },
      server);
}

}  // namespace mv::server
