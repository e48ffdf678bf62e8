// bookserverd (or any program) run as a child process: its standard error captured as it
// comes, every wait bounded, and nothing left running or behind when its owner ends. Free of
// the test framework, so the benchmarks start their daemon with it too.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "temp_folder.h"

namespace mvtest {

using namespace std::chrono_literals;

class ChildProcess {
 public:
  // args[0] is the program's path. The child gets SIGTERM if its parent dies, so it never
  // outlives a crashed test or benchmark holding a data folder.
  explicit ChildProcess(const std::vector<std::string>& args);
  // False when the program could not be started at all.
  bool started() const { return started_; }
  // Kills a child that is still running and reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // True once a line holding `text` was written, false when `limit` passed first.
  bool waitForLog(std::string_view text, std::chrono::milliseconds limit = 20s);
  // The port of the first "listening on HOST:PORT" line; 0 when none came in time.
  uint16_t waitForPort(std::chrono::milliseconds limit = 20s);
  void signal(int number);
  pid_t pid() const { return pid_; }
  // The exit status, or -N after signal N; nothing when it has not ended within `limit`.
  std::optional<int> waitExit(std::chrono::milliseconds limit = 20s);
  std::string log();

 private:
  void readErrors();

  pid_t pid_ = -1;
  bool started_ = false;
  int errors_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string log_;
  bool ended_ = false;
};

// Runs a program to its end and gives its exit status (-1000 when it had to be killed); its
// standard error and output go to `output`.
int runProgram(const std::vector<std::string>& args, std::string* output,
               std::chrono::milliseconds limit = 60s);

}  // namespace mvtest
