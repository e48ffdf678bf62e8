#include "daemon_thread.h"

#include <vector>

#include "server/sqlite/sqlite_engine.h"

namespace mvtest {

DaemonThread::DaemonThread(mv::rpc::ServeOptions options) {
  core_ = mv::server::ServerCore::open(folder_.path(), {}, mv::server::openSqliteEngine, error_);
  if (!core_) return;
  options.core = core_;
  options.log = [this](const std::string& line) {
    std::lock_guard lock(logMutex_);
    log_ += line + "\n";
  };
  daemon_ = std::make_unique<mv::rpc::Daemon>(std::move(options));
  std::vector<mv::rpc::ListenAddress> addresses;
  if (!mv::rpc::resolveListen("127.0.0.1:0", addresses, error_) ||
      !daemon_->listen(addresses, error_)) {
    return;
  }
  port_ = daemon_->port();
  thread_ = std::thread([this] { daemon_->run(); });
}

DaemonThread::~DaemonThread() {
  if (daemon_) daemon_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string DaemonThread::log() {
  std::lock_guard lock(logMutex_);
  return log_;
}

}  // namespace mvtest
