// A bookserverd loop in this process: a daemon over a fresh data folder, listening on a free
// loopback port, served by a thread of its own until the object goes. Its log is kept.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "rpc/daemon.h"
#include "temp_folder.h"

namespace mvtest {

class DaemonThread {
 public:
  // `options.core` and `options.log` are the object's own.
  explicit DaemonThread(mv::rpc::ServeOptions options = {});
  ~DaemonThread();
  DaemonThread(const DaemonThread&) = delete;
  DaemonThread& operator=(const DaemonThread&) = delete;

  // Why the daemon does not run; empty when it does.
  const std::string& error() const { return error_; }
  uint16_t port() const { return port_; }
  int liveSessions() const { return core_->liveSessions(); }
  std::string log();

 private:
  TempFolder folder_{"daemon"};
  std::shared_ptr<mv::server::ServerCore> core_;
  std::unique_ptr<mv::rpc::Daemon> daemon_;
  std::thread thread_;
  std::string error_;
  uint16_t port_ = 0;
  std::mutex logMutex_;
  std::string log_;
};

}  // namespace mvtest
