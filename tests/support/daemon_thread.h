// bookserverd's loop in this process, the one way the wire's suites run a daemon: over a fresh
// data folder, listening on a free loopback port, served by a thread of its own until killed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "rpc/daemon.h"
#include "temp_folder.h"

namespace mvtest {

class DaemonThread {
 public:
  // `options.core` and `options.log` are the object's own; `listen` is HOST:PORT.
  explicit DaemonThread(mv::rpc::ServeOptions options = {},
                        const std::string& listen = "127.0.0.1:0");
  ~DaemonThread() { kill(); }
  DaemonThread(const DaemonThread&) = delete;
  DaemonThread& operator=(const DaemonThread&) = delete;

  // Why the daemon does not run; empty when it does.
  const std::string& error() const { return error_; }
  uint16_t port() const { return port_; }
  int liveSessions() const { return core_->liveSessions(); }
  const std::string& folder() const { return folder_.path(); }
  std::string log();

  // Ends the daemon as if it died: the listening socket and every connection close. `closed`
  // runs once the connections are shut down, before the connections' threads are waited for, so
  // that a session held up in a call can be let go without its answer reaching the client.
  void kill(const std::function<void()>& closed = {});

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
