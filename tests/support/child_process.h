// bookserverd (or any program) run as a child process: its standard error captured as it
// comes, every wait bounded, and nothing left running or behind when a test ends.
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

namespace mvtest {

using namespace std::chrono_literals;

// A fresh folder of a test's own, removed with everything in it at the end.
class TempFolder {
 public:
  explicit TempFolder(std::string_view tag);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Writes a file in the folder (mode 0600) and gives its path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::string path_;
};

class ChildProcess {
 public:
  // args[0] is the program's path.
  explicit ChildProcess(const std::vector<std::string>& args);
  // Kills a child that is still running and reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // True once a line holding `text` was written, false when `limit` passed first.
  bool waitForLog(std::string_view text, std::chrono::milliseconds limit = 20s);
  // The port of the first "listening on HOST:PORT" line; 0 when none came in time.
  uint16_t waitForPort(std::chrono::milliseconds limit = 20s);
  void signal(int number);
  // The exit status, or -N after signal N; nothing when it has not ended within `limit`.
  std::optional<int> waitExit(std::chrono::milliseconds limit = 20s);
  std::string log();

 private:
  void readErrors();

  pid_t pid_ = -1;
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
