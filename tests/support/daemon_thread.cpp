#include "daemon_thread.h"

#include <chrono>
#include <vector>

#include "server/sqlite/sqlite_engine.h"

namespace mvtest {

DaemonThread::DaemonThread(mv::rpc::ServeOptions options, const std::string& listen) {
  core_ = mv::server::ServerCore::open(folder_.path(), {}, mv::server::openSqliteEngine, error_);
  if (!core_) return;
  options.core = core_;
  options.log = [this](const std::string& line) {
    std::lock_guard lock(logMutex_);
    log_ += line + "\n";
  };
  daemon_ = std::make_unique<mv::rpc::Daemon>(std::move(options));
  std::vector<mv::rpc::ListenAddress> addresses;
  if (!mv::rpc::resolveListen(listen, addresses, error_) || !daemon_->listen(addresses, error_)) {
    daemon_.reset();
    return;
  }
  port_ = daemon_->port();
  thread_ = std::thread([this] { daemon_->run(); });
}

void DaemonThread::kill(const std::function<void()>& closed) {
  if (!thread_.joinable()) return;
  daemon_->stop();
  // The loop logs this line, then shuts every connection down.
  for (int i = 0; i < 500 && log().find("stopping: closing") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (closed) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    closed();
  }
  thread_.join();
}

std::string DaemonThread::log() {
  std::lock_guard lock(logMutex_);
  return log_;
}

}  // namespace mvtest
